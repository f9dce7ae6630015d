#pragma once

// What the source files of CFirewall share: the front end and the rule path
// (Firewall.cpp) and the legacy lists (FirewallLegacyLists.cpp).
#include <windows.h>
#include <oleauto.h>

#include <cwchar>

#include "host/types/ComPtr.h"

// CFirewall::Fail from inside a member of CFirewall, as an entry of the calling
// file's kLogSource at the line of the call.
#define QC_FIREWALL_FAIL(text, hr) Fail(kLogSource, __LINE__, (text), (hr))

namespace Quillcast::Common::Network::Detail {

constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);

// Replaces `bstr` with a copy of `text`; false when the copy could not be made.
inline bool Copy(System::Types::CBstr& bstr, const wchar_t* text) noexcept
{
    BSTR copy = ::SysAllocString(text);
    *bstr.Put() = copy;
    return copy != nullptr;
}

// Walks a comma-separated port list: `visit(piece, length)` for each piece up
// to the next "," or the end; stops when the position reaches the end of the
// text (a trailing "," adds nothing) or when `visit` answers false.
template <typename TVisit>
bool ForEachPort(const wchar_t* pszPorts, TVisit visit) noexcept
{
    const size_t length = ::wcslen(pszPorts);
    size_t position = 0;
    while (position < length)
    {
        const wchar_t* piece = pszPorts + position;
        const wchar_t* comma = ::wcschr(piece, L',');
        const size_t pieceLength = comma != nullptr ? static_cast<size_t>(comma - piece) : length - position;
        if (!visit(piece, pieceLength))
        {
            return false;
        }
        position += pieceLength + 1;
    }
    return true;
}

} // namespace Quillcast::Common::Network::Detail
