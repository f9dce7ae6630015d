#include <gtest/gtest.h>

#include <windows.h>

#include <functional>
#include <iterator>
#include <string>
#include <utility>

#include "host/types/WideString.h"

using Quillcast::System::Types::CWideBuffer;
using Quillcast::System::Types::Text;
using namespace std::string_literals;
namespace Types = Quillcast::System::Types;

namespace {

// A buffer holding `text`, resized to `size` elements unless that is 0; no array at all for null.
CWideBuffer Make(const wchar_t* text, uint32_t size = 0)
{
    CWideBuffer buffer;
    EXPECT_TRUE(text == nullptr || Types::Assign(buffer, text));
    EXPECT_TRUE(size == 0 || buffer.Resize(size));
    return buffer;
}

// Every element up to the count, terminators and zero padding included.
std::wstring Whole(const CWideBuffer& buffer)
{
    return buffer.IsEmpty() ? L"" : std::wstring(buffer.Data(), buffer.Size());
}

} // namespace

TEST(WideString, AssignAndFormatAllocateExactlyAndNothingToAssignLeavesTheBuffer)
{
    CWideBuffer buffer;
    EXPECT_STREQ(Text(buffer), L"");
    ASSERT_TRUE(Types::Format(buffer, L"%s=%u/%d", L"wide text", 4294967295u, -5));
    EXPECT_EQ(Whole(buffer), L"wide text=4294967295/-5\0"s);
    ASSERT_TRUE(Types::Assign(buffer, L"xyz-not-terminated", 3));
    EXPECT_EQ(Whole(buffer), L"xyz\0"s);
    ASSERT_TRUE(Types::AssignNarrow(buffer, "\xC3\xA9t\xC3\xA9 \xE4\xB8\xAD", CP_UTF8));
    EXPECT_EQ(Whole(buffer), L"\u00E9t\u00E9 \u4E2D\0"s);

    ASSERT_TRUE(Types::Assign(buffer, L"keep"));
    EXPECT_FALSE(Types::Assign(buffer, nullptr));
    EXPECT_FALSE(Types::AssignNarrow(buffer, nullptr, CP_ACP));
    EXPECT_FALSE(Types::AssignNarrow(buffer, "", CP_ACP));
    EXPECT_FALSE(Types::AssignNarrow(buffer, "text", 12345));
    EXPECT_EQ(Whole(buffer), L"keep\0"s);
}

TEST(WideString, AppendCopiesCountCharactersAndGrowsToTheNewLengthPlus1025OnlyWhenFull)
{
    const struct
    {
        const wchar_t* text;
        uint32_t size;
        const wchar_t* append;
        uint32_t count;
        const wchar_t* expected;
        uint32_t expectedSize;
    } cases[] = {
        {nullptr, 0, L"abc", 0, L"abc", 1028},
        // Six elements hold "abcde" and its terminator exactly: that still counts as full.
        {L"abc", 6, L"de", 0, L"abcde", 1030},
        {L"abc", 7, L"de", 0, L"abcde", 7},
        {nullptr, 0, L"hello", 2, L"he", 1027},
        {L"he", 8, L"xy", 10, L"hexy", 8},
    };
    for (const auto& sample : cases)
    {
        CWideBuffer buffer = Make(sample.text, sample.size);
        ASSERT_TRUE(Types::Append(buffer, sample.append, sample.count)) << sample.expected;
        EXPECT_STREQ(Text(buffer), sample.expected);
        EXPECT_EQ(buffer.Size(), sample.expectedSize) << sample.expected;
    }
}

TEST(WideString, BadArgumentsFailWithInvalidParameterAndLeaveTheBuffer)
{
    // The buffer's text (null: no array at all) and a call that reports whether it failed.
    const std::pair<const wchar_t*, std::function<bool(CWideBuffer&)>> cases[] = {
        {L"keep", [](CWideBuffer& b) { return !Types::Append(b, L""); }},
        {L"keep", [](CWideBuffer& b) { return !Types::Append(b, nullptr); }},
        {L"keep", [](CWideBuffer& b) { return !Types::Format(b, L""); }},
        {L"keep", [](CWideBuffer& b) { return !Types::Format(b, nullptr); }},
        {L"keep", [](CWideBuffer& b) { return Types::CountOccurrences(b, nullptr) == -1; }},
        {L"keep", [](CWideBuffer& b) { return Types::CountOccurrences(b, L"") == -1; }},
        {nullptr, [](CWideBuffer& b) { return Types::CountOccurrences(b, L"a") == -1; }},
        {L"keep", [](CWideBuffer& b) { return !Types::Replace(b, nullptr, L"y"); }},
        {L"keep", [](CWideBuffer& b) { return !Types::Replace(b, L"", L"y"); }},
        {L"", [](CWideBuffer& b) { return !Types::Replace(b, L"a", L"y"); }},
        {nullptr, [](CWideBuffer& b) { return !Types::Replace(b, L"a", L"y"); }},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
    {
        CWideBuffer buffer = Make(cases[i].first);
        const std::wstring before = Whole(buffer);
        ::SetLastError(0);
        EXPECT_TRUE(cases[i].second(buffer)) << "case " << i;
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << "case " << i;
        EXPECT_EQ(Whole(buffer), before) << "case " << i;
    }
}

TEST(WideString, TrimRemovesTheCharacterAndTabsInFrontButOnlyTheCharacterAtTheBack)
{
    // Front removal shifts the text down and zeroes the freed tail; back removal shrinks the count.
    const struct
    {
        const wchar_t* text;
        wchar_t ch;
        std::wstring expected;
    } cases[] = {
        {L"  \t x \t  ", L' ', L"x \t\0"s},
        {L"name\t\t", L' ', L"name\t\t\0"s},
        {L"  ab", L' ', L"ab\0\0\0"s},
        {L"xx\ta x\txx", L'x', L"a x\t\0"s},
        {L"   ", L' ', L"\0"s},
        {L"\t \t", L' ', L"\0"s},
        {L"", L' ', L"\0"s},
    };
    for (const auto& sample : cases)
    {
        CWideBuffer buffer = Make(sample.text);
        Types::Trim(buffer, sample.ch);
        EXPECT_EQ(Whole(buffer), sample.expected) << sample.text;
    }
}

TEST(WideString, ReplaceAndCountOccurrencesTakeNonOverlappingMatchesLeftToRight)
{
    const struct
    {
        const wchar_t* text;
        const wchar_t* find;
        const wchar_t* replacement;
        int count;
        const wchar_t* expected;
    } cases[] = {
        {L"abab", L"ab", L"x", 2, L"xx"},
        {L"aaa", L"aa", L"b", 1, L"ba"},
        {L"aaaa", L"aa", L"b", 2, L"bb"},
        {L"bab", L"a", L"xyz", 1, L"bxyzb"},
        {L"a-b-c-", L"-", L"", 3, L"abc"},
        {L"C:\\dir\\file", L"\\", L"\\\\", 2, L"C:\\\\dir\\\\file"},
        {L"abc", L"x", L"y", 0, L"abc"},
    };
    for (const auto& sample : cases)
    {
        CWideBuffer buffer = Make(sample.text);
        EXPECT_EQ(Types::CountOccurrences(buffer, sample.find), sample.count) << sample.text;
        ASSERT_TRUE(Types::Replace(buffer, sample.find, sample.replacement)) << sample.text;
        EXPECT_STREQ(Text(buffer), sample.expected);
    }
}

TEST(WideString, ReplaceKeepsTheBufferWhenNothingMatchesAndOtherwiseAllocatesDoubleRoom)
{
    CWideBuffer buffer = Make(L"abab");
    ASSERT_TRUE(Types::Replace(buffer, L"x", L"y"));
    EXPECT_EQ(buffer.Size(), 5u);
    // Twice the new length plus two: deliberate and harmless, callers have always received it.
    ASSERT_TRUE(Types::Replace(buffer, L"ab", L"x"));
    EXPECT_EQ(buffer.Size(), 2u * 2u + 2u);
}
