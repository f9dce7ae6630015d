#pragma once

#include <windows.h>

#include <cstdint>

#include "host/types/Buffer.h"

namespace Quillcast::System::Types {

// Which call of a two-call string read failed.
enum class TwoCallStep
{
    None,      // read succeeded
    SizeQuery, // the size query did not answer ERROR_MORE_DATA
    Allocate,  // no memory for length + 1 characters
    Read,      // the read itself did not answer ERROR_SUCCESS
};

struct TwoCallResult
{
    TwoCallStep failedStep;
    UINT result;   // what the query answered at that step (0 after an allocation failure)
    DWORD cch = 0; // characters asked for at that step (length + 1 from the allocation on)
};

// The installer's "ask the size, allocate, ask again" read of a string:
// `query(buffer, &cch)` is called once with an empty buffer and cch 0, which
// must answer ERROR_MORE_DATA, then with length + 1 zeroed characters, which
// must answer ERROR_SUCCESS. On success `text` holds the zero-terminated
// string; on failure it is left empty. `query` is an MsiGetPropertyW or
// MsiRecordGetStringW call bound to its handle and name or field.
template <typename TQuery>
[[nodiscard]] TwoCallResult ReadTwoCallString(TQuery&& query, CBuffer<wchar_t>& text) noexcept
{
    text = CBuffer<wchar_t>();
    DWORD cch = 0;
    wchar_t empty[1] = {L'\0'};
    UINT result = query(empty, &cch);
    if (result != ERROR_MORE_DATA)
    {
        return {TwoCallStep::SizeQuery, result, cch};
    }
    cch += 1;
    CBuffer<wchar_t> read;
    if (!read.Allocate(cch))
    {
        return {TwoCallStep::Allocate, 0, cch};
    }
    const DWORD cchAllocated = cch;
    result = query(read.Data(), &cch);
    if (result != ERROR_SUCCESS)
    {
        return {TwoCallStep::Read, result, cch};
    }
    // The callee terminates what it wrote; the last element stays zero whatever it answered.
    read[cchAllocated - 1] = L'\0';
    text = read;
    return {TwoCallStep::None, ERROR_SUCCESS, cch};
}

} // namespace Quillcast::System::Types
