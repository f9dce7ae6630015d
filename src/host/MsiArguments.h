#pragma once

#include <windows.h>
#include <msi.h>

#include <cstddef>
#include <list>

#include "host/types/Buffer.h"

namespace Quillcast::Host {

// One NAME=VALUE pair of "CustomActionData", both trimmed and zero-terminated.
struct MsiArgument
{
    System::Types::CBuffer<wchar_t> m_Name;
    System::Types::CBuffer<wchar_t> m_Value;
};

// The arguments of one custom-action call, in the order they were written;
// duplicates are kept and the first one wins on look-up.
//
// "CustomActionData" syntax: its first character is the pair separator, chosen
// by the author; pairs NAME=VALUE follow, separated by that character. Names are
// not split at separators (with ";", "A;B=1" is the single name "A;B"); a value
// runs to the next separator and may contain "=". Blanks are trimmed at both
// ends, TABs only at the front.
class CMsiArguments
{
public:
    CMsiArguments() = default;
    // Reads and parses "CustomActionData" of the session. Never fails: problems
    // are logged and leave the list empty. Only an exhausted heap while
    // appending a pair throws (std::bad_alloc).
    explicit CMsiArguments(MSIHANDLE hInstall);

    // Parses `data` (up to its terminator) and appends its pairs.
    void Parse(const wchar_t* data);

    // The value of the first pair whose name equals `name` ignoring ASCII case;
    // "" for an empty value; null when `name` is null or empty or nothing matches. Valid
    // while the list lives.
    const wchar_t* GetArgument(const wchar_t* name) const noexcept;

    size_t Count() const noexcept { return m_Pairs.size(); }
    const std::list<MsiArgument>& Pairs() const noexcept { return m_Pairs; }

private:
    std::list<MsiArgument> m_Pairs;
};

// ASCII-only case-insensitive equality ("A".."Z" match "a".."z", nothing else folds).
bool EqualsIgnoringAsciiCase(const wchar_t* left, const wchar_t* right) noexcept;

} // namespace Quillcast::Host
