#include "logging/LogPrefixTIdPId.h"

#include <windows.h>

#include <cstdio>
#include <new>

namespace Quillcast::Logging {

void CLogPrefixTIdPId::Write(System::IO::COutputStream<wchar_t>& stream) const
{
    wchar_t text[30] = {};
    const int length = ::_snwprintf(text, 29, L"PID(0x%X) TID(0x%X) ", static_cast<unsigned>(::GetCurrentProcessId()),
                                    static_cast<unsigned>(::GetCurrentThreadId()));
    if (length > 0)
    {
        stream.Write(text, static_cast<uint32_t>(length));
    }
}

CLogable* CLogPrefixTIdPId::Clone() const
{
    return new (std::nothrow) CLogPrefixTIdPId(*this);
}

} // namespace Quillcast::Logging
