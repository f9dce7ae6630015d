#pragma once

#include <windows.h>

#include <cstdint>

#include "host/types/Buffer.h"

// Wide-string helpers on CBuffer<wchar_t>. Bad arguments fail with
// SetLastError(ERROR_INVALID_PARAMETER) so that callers can log GetLastError().
namespace Quillcast::System::Types {

using CWideBuffer = CBuffer<wchar_t>;

// The buffer's text, or "" when it holds no array; never null.
const wchar_t* Text(const CWideBuffer& buffer) noexcept;
// String length of the buffer's text, never reading past its element count.
uint32_t TextLength(const CWideBuffer& buffer) noexcept;

// Allocates wcslen(text) + 1 elements and copies the text. Null text fails.
[[nodiscard]] bool Assign(CWideBuffer& buffer, const wchar_t* text) noexcept;
// Assigns the first `length` characters of `text` (which need not be terminated).
[[nodiscard]] bool Assign(CWideBuffer& buffer, const wchar_t* text, uint32_t length) noexcept;

// Appends `count` characters of `text` (0: all of it). When it has to grow it
// leaves 1024 spare characters. Empty text fails with error 87.
[[nodiscard]] bool Append(CWideBuffer& buffer, const wchar_t* text, uint32_t count = 0) noexcept;

// printf-style formatting with the Microsoft meaning of %s (a wide string).
[[nodiscard]] bool Format(CWideBuffer& buffer, const wchar_t* format, ...) noexcept;

// Removes `ch` and TAB from the front but only `ch` from the back: trailing TABs
// stay on purpose, argument names depend on it.
void Trim(CWideBuffer& buffer, wchar_t ch) noexcept;

// Non-overlapping occurrences of `find`, left to right; -1 (error 87) for a null
// or empty `find` or an empty buffer.
int CountOccurrences(const CWideBuffer& buffer, const wchar_t* find) noexcept;

// Replaces every non-overlapping occurrence, left to right. True and unchanged
// when `find` does not occur.
[[nodiscard]] bool Replace(CWideBuffer& buffer, const wchar_t* find, const wchar_t* replacement) noexcept;

// Converts `text` from `codePage` and assigns it; any failed step (or a null or
// empty text) leaves the buffer unchanged.
[[nodiscard]] bool AssignNarrow(CWideBuffer& buffer, const char* text, UINT codePage) noexcept;

} // namespace Quillcast::System::Types
