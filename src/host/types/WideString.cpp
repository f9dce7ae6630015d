#include "host/types/WideString.h"

#include <cstdarg>
#include <cwchar>

namespace Quillcast::System::Types {

namespace {

bool IsEmptyText(const wchar_t* text) noexcept
{
    return text == nullptr || *text == L'\0';
}

bool Fail(DWORD dwError) noexcept
{
    ::SetLastError(dwError);
    return false;
}

} // namespace

const wchar_t* Text(const CWideBuffer& buffer) noexcept
{
    return buffer.IsEmpty() ? L"" : buffer.Data();
}

uint32_t TextLength(const CWideBuffer& buffer) noexcept
{
    return buffer.IsEmpty() ? 0 : static_cast<uint32_t>(::wcsnlen(buffer.Data(), buffer.Size()));
}

bool Assign(CWideBuffer& buffer, const wchar_t* text) noexcept
{
    if (text == nullptr)
    {
        return false;
    }
    return Assign(buffer, text, static_cast<uint32_t>(::wcslen(text)));
}

bool Assign(CWideBuffer& buffer, const wchar_t* text, uint32_t length) noexcept
{
    if (text == nullptr || length == UINT32_MAX || !buffer.Allocate(length + 1))
    {
        return false;
    }
    ::wmemcpy(buffer.Data(), text, length);
    return true;
}

bool Append(CWideBuffer& buffer, const wchar_t* text, uint32_t count) noexcept
{
    if (IsEmptyText(text))
    {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    // Never copy past the terminator of `text`, whatever `count` says.
    const uint32_t available = static_cast<uint32_t>(::wcsnlen(text, count == 0 ? SIZE_MAX : count));
    count = (count == 0 || count > available) ? available : count;

    const uint32_t current = TextLength(buffer);
    const uint64_t newLength = static_cast<uint64_t>(current) + count;
    if (newLength + 1025 > UINT32_MAX)
    {
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
    if (buffer.Size() <= newLength + 1 && !buffer.Resize(static_cast<uint32_t>(newLength + 1025)))
    {
        return false;
    }
    const uint32_t room = buffer.Size() - 1 - current;
    ::wmemcpy(buffer.Data() + current, text, count < room ? count : room);
    return true;
}

bool Format(CWideBuffer& buffer, const wchar_t* format, ...) noexcept
{
    if (IsEmptyText(format))
    {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    va_list args;
    va_start(args, format);
    va_list measureArgs;
    va_copy(measureArgs, args);
    const int length = ::_vscwprintf(format, measureArgs);
    va_end(measureArgs);
    bool bWritten = false;
    if (length >= 0 && buffer.Allocate(static_cast<uint32_t>(length) + 1))
    {
        bWritten = ::_vsnwprintf(buffer.Data(), static_cast<size_t>(length) + 1, format, args) > 0;
    }
    va_end(args);
    return bWritten;
}

void Trim(CWideBuffer& buffer, wchar_t ch) noexcept
{
    if (buffer.IsEmpty())
    {
        return;
    }
    wchar_t* pText = buffer.Data();
    uint32_t length = TextLength(buffer);

    uint32_t front = 0;
    while (front < length && (pText[front] == ch || pText[front] == L'\t'))
    {
        ++front;
    }
    if (front > 0)
    {
        ::wmemmove(pText, pText + front, length - front);
        ::wmemset(pText + (length - front), L'\0', front);
        length -= front;
    }

    uint32_t back = length;
    while (back > 0 && pText[back - 1] == ch)
    {
        --back;
    }
    if (back == 0)
    {
        (void)buffer.Allocate(1);
        return;
    }
    if (back < length)
    {
        pText[back] = L'\0';
        (void)buffer.Resize(back + 1);
    }
}

int CountOccurrences(const CWideBuffer& buffer, const wchar_t* find) noexcept
{
    if (IsEmptyText(find) || buffer.IsEmpty())
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return -1;
    }
    const size_t findLength = ::wcslen(find);
    int count = 0;
    for (const wchar_t* pHit = ::wcsstr(Text(buffer), find); pHit != nullptr; pHit = ::wcsstr(pHit + findLength, find))
    {
        ++count;
    }
    return count;
}

bool Replace(CWideBuffer& buffer, const wchar_t* find, const wchar_t* replacement) noexcept
{
    if (IsEmptyText(find) || buffer.IsEmpty() || buffer[0] == L'\0')
    {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (replacement == nullptr)
    {
        replacement = L"";
    }
    if (::wcsstr(Text(buffer), find) == nullptr)
    {
        return true;
    }

    CWideBuffer original;
    if (!Assign(original, Text(buffer)))
    {
        return false;
    }
    const int64_t occurrences = CountOccurrences(original, find);
    const int64_t findLength = static_cast<int64_t>(::wcslen(find));
    const int64_t replacementLength = static_cast<int64_t>(::wcslen(replacement));
    const int64_t newLength = TextLength(original) + occurrences * (replacementLength - findLength);
    // Intentionally twice the room it needs: harmless, and part of the helper's known behaviour.
    if (newLength < 0 || newLength * 2 + 2 > UINT32_MAX || !buffer.Allocate(static_cast<uint32_t>(newLength * 2 + 2)))
    {
        return false;
    }

    wchar_t* pOut = buffer.Data();
    const wchar_t* pIn = Text(original);
    for (const wchar_t* pHit = ::wcsstr(pIn, find); pHit != nullptr; pHit = ::wcsstr(pIn, find))
    {
        const size_t stretch = static_cast<size_t>(pHit - pIn);
        ::wmemcpy(pOut, pIn, stretch);
        pOut += stretch;
        ::wmemcpy(pOut, replacement, static_cast<size_t>(replacementLength));
        pOut += replacementLength;
        pIn = pHit + findLength;
    }
    // The tail with its terminator, which lands at the new length.
    ::wmemcpy(pOut, pIn, ::wcslen(pIn) + 1);
    return true;
}

bool AssignNarrow(CWideBuffer& buffer, const char* text, UINT codePage) noexcept
{
    if (text == nullptr || *text == '\0')
    {
        return false;
    }
    const int needed = ::MultiByteToWideChar(codePage, 0, text, -1, nullptr, 0);
    if (needed <= 0)
    {
        return false;
    }
    CWideBuffer converted;
    if (!converted.Allocate(static_cast<uint32_t>(needed) + 1) ||
        ::MultiByteToWideChar(codePage, 0, text, -1, converted.Data(), needed) <= 0)
    {
        return false;
    }
    return Assign(buffer, Text(converted));
}

} // namespace Quillcast::System::Types
