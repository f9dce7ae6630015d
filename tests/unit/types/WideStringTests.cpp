#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "host/types/WideString.h"

using Quillcast::System::Types::CWideBuffer;
using Quillcast::System::Types::Text;
namespace Types = Quillcast::System::Types;

namespace {

CWideBuffer Make(const wchar_t* text)
{
    CWideBuffer buffer;
    EXPECT_TRUE(Types::Assign(buffer, text));
    return buffer;
}

// A buffer of exactly `size` elements holding `text`.
CWideBuffer MakeSized(const wchar_t* text, uint32_t size)
{
    CWideBuffer buffer = Make(text);
    EXPECT_TRUE(buffer.Resize(size));
    return buffer;
}

std::wstring Trimmed(const wchar_t* text)
{
    CWideBuffer buffer = Make(text);
    Types::Trim(buffer, L' ');
    return Text(buffer);
}

} // namespace

TEST(WideString, AssignCopiesTextWithTerminatorAndRefusesNull)
{
    CWideBuffer buffer;
    EXPECT_STREQ(Text(buffer), L"");
    EXPECT_FALSE(Types::Assign(buffer, nullptr));

    ASSERT_TRUE(Types::Assign(buffer, L"abc"));
    EXPECT_EQ(buffer.Size(), 4u);
    EXPECT_STREQ(Text(buffer), L"abc");

    ASSERT_TRUE(Types::Assign(buffer, L"xyz-not-terminated", 3));
    EXPECT_STREQ(Text(buffer), L"xyz");
}

TEST(WideString, AppendToEmptyBufferLeaves1024SpareCharacters)
{
    CWideBuffer buffer;
    ASSERT_TRUE(Types::Append(buffer, L"abc"));
    EXPECT_EQ(buffer.Size(), 1028u);
    EXPECT_STREQ(Text(buffer), L"abc");

    ASSERT_TRUE(Types::Append(buffer, L"de"));
    EXPECT_EQ(buffer.Size(), 1028u);
    EXPECT_STREQ(Text(buffer), L"abcde");
}

TEST(WideString, AppendGrowsWhenTheResultWouldJustFit)
{
    // 6 elements hold "abc" + "de" + terminator exactly: that still counts as full.
    CWideBuffer exact = MakeSized(L"abc", 6);
    ASSERT_TRUE(Types::Append(exact, L"de"));
    EXPECT_EQ(exact.Size(), 5u + 1025u);
    EXPECT_STREQ(Text(exact), L"abcde");

    CWideBuffer roomy = MakeSized(L"abc", 7);
    ASSERT_TRUE(Types::Append(roomy, L"de"));
    EXPECT_EQ(roomy.Size(), 7u);
    EXPECT_STREQ(Text(roomy), L"abcde");
}

TEST(WideString, AppendCopiesCountCharactersButNeverPastTheText)
{
    CWideBuffer buffer;
    ASSERT_TRUE(Types::Append(buffer, L"hello", 2));
    EXPECT_STREQ(Text(buffer), L"he");
    ASSERT_TRUE(Types::Append(buffer, L"xy", 10));
    EXPECT_STREQ(Text(buffer), L"hexy");
}

TEST(WideString, AppendOfEmptyOrNullTextFailsWithInvalidParameter)
{
    CWideBuffer buffer = Make(L"keep");
    for (const wchar_t* text : {L"", static_cast<const wchar_t*>(nullptr)})
    {
        ::SetLastError(0);
        EXPECT_FALSE(Types::Append(buffer, text));
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        EXPECT_STREQ(Text(buffer), L"keep");
        EXPECT_EQ(buffer.Size(), 5u);
    }
}

TEST(WideString, FormatTreatsPercentSAsWideAndAllocatesExactly)
{
    CWideBuffer buffer;
    ASSERT_TRUE(Types::Format(buffer, L"%s=%u/%d", L"wide text", 4294967295u, -5));
    EXPECT_STREQ(Text(buffer), L"wide text=4294967295/-5");
    EXPECT_EQ(buffer.Size(), 24u);
}

TEST(WideString, FormatWithoutFormatFailsWithInvalidParameter)
{
    CWideBuffer buffer = Make(L"keep");
    for (const wchar_t* format : {L"", static_cast<const wchar_t*>(nullptr)})
    {
        ::SetLastError(0);
        EXPECT_FALSE(Types::Format(buffer, format));
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        EXPECT_STREQ(Text(buffer), L"keep");
    }
}

TEST(WideString, TrimRemovesBlanksAndTabsInFrontButOnlyBlanksAtTheBack)
{
    EXPECT_EQ(Trimmed(L"  \t x \t  "), L"x \t");
    EXPECT_EQ(Trimmed(L"\tvalue"), L"value");
    EXPECT_EQ(Trimmed(L"name\t\t"), L"name\t\t");
    EXPECT_EQ(Trimmed(L"in side"), L"in side");

    CWideBuffer other = Make(L"xx\ta x\txx");
    Types::Trim(other, L'x');
    EXPECT_STREQ(Text(other), L"a x\t");
}

TEST(WideString, TrimOfOnlyRemovableCharactersLeavesOneZeroElement)
{
    for (const wchar_t* text : {L"   ", L"\t \t", L""})
    {
        CWideBuffer buffer = Make(text);
        Types::Trim(buffer, L' ');
        EXPECT_EQ(buffer.Size(), 1u) << text;
        EXPECT_STREQ(Text(buffer), L"") << text;
    }
}

TEST(WideString, TrimShiftsTheTextDownAndZeroesTheFreedTail)
{
    CWideBuffer buffer = Make(L"  ab");
    Types::Trim(buffer, L' ');
    ASSERT_EQ(buffer.Size(), 5u);
    EXPECT_STREQ(Text(buffer), L"ab");
    for (uint32_t i = 2; i < 5; ++i)
    {
        EXPECT_EQ(buffer[i], L'\0') << i;
    }
}

TEST(WideString, CountOccurrencesIsNonOverlappingLeftToRight)
{
    EXPECT_EQ(Types::CountOccurrences(Make(L"aaaa"), L"aa"), 2);
    EXPECT_EQ(Types::CountOccurrences(Make(L"aaa"), L"aa"), 1);
    EXPECT_EQ(Types::CountOccurrences(Make(L"abcabcab"), L"bc"), 2);
    EXPECT_EQ(Types::CountOccurrences(Make(L"abc"), L"x"), 0);
}

TEST(WideString, CountOccurrencesWithoutTextOrFindFailsWithInvalidParameter)
{
    const CWideBuffer text = Make(L"abc");
    const CWideBuffer none;
    const struct
    {
        const CWideBuffer& buffer;
        const wchar_t* find;
    } cases[] = {{text, nullptr}, {text, L""}, {none, L"a"}};
    for (const auto& sample : cases)
    {
        ::SetLastError(0);
        EXPECT_EQ(Types::CountOccurrences(sample.buffer, sample.find), -1);
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
}

TEST(WideString, ReplaceIsNonOverlappingLeftToRight)
{
    const struct
    {
        const wchar_t* text;
        const wchar_t* find;
        const wchar_t* replacement;
        const wchar_t* expected;
    } cases[] = {
        {L"abab", L"ab", L"x", L"xx"},
        {L"aaa", L"aa", L"b", L"ba"},
        {L"bab", L"a", L"xyz", L"bxyzb"},
        {L"a-b-c-", L"-", L"", L"abc"},
        {L"C:\\dir\\file", L"\\", L"\\\\", L"C:\\\\dir\\\\file"},
    };
    for (const auto& sample : cases)
    {
        CWideBuffer buffer = Make(sample.text);
        ASSERT_TRUE(Types::Replace(buffer, sample.find, sample.replacement)) << sample.text;
        EXPECT_STREQ(Text(buffer), sample.expected) << sample.text;
    }
}

TEST(WideString, ReplaceAllocatesTwiceTheNewLengthPlusTwo)
{
    // The doubled room is intentional and harmless; callers have always received it.
    CWideBuffer buffer = Make(L"abab");
    ASSERT_TRUE(Types::Replace(buffer, L"ab", L"x"));
    EXPECT_EQ(buffer.Size(), 2u * 2u + 2u);
}

TEST(WideString, ReplaceOfAbsentTextSucceedsAndKeepsTheBuffer)
{
    CWideBuffer buffer = Make(L"abc");
    const wchar_t* pArray = buffer.Data();
    ASSERT_TRUE(Types::Replace(buffer, L"x", L"y"));
    EXPECT_EQ(buffer.Data(), pArray);
    EXPECT_EQ(buffer.Size(), 4u);
    EXPECT_STREQ(Text(buffer), L"abc");
}

TEST(WideString, ReplaceWithoutTextOrFindFailsWithInvalidParameter)
{
    CWideBuffer text = Make(L"abc");
    CWideBuffer emptyText = Make(L"");
    CWideBuffer none;
    const struct
    {
        CWideBuffer& buffer;
        const wchar_t* find;
    } cases[] = {{text, nullptr}, {text, L""}, {emptyText, L"a"}, {none, L"a"}};
    for (const auto& sample : cases)
    {
        ::SetLastError(0);
        EXPECT_FALSE(Types::Replace(sample.buffer, sample.find, L"y"));
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    EXPECT_STREQ(Text(text), L"abc");
}

TEST(WideString, AssignNarrowConvertsFromTheGivenCodePage)
{
    CWideBuffer buffer;
    ASSERT_TRUE(Types::AssignNarrow(buffer, "plain", CP_ACP));
    EXPECT_STREQ(Text(buffer), L"plain");
    ASSERT_TRUE(Types::AssignNarrow(buffer, "\xC3\xA9t\xC3\xA9 \xE4\xB8\xAD", CP_UTF8));
    EXPECT_STREQ(Text(buffer), L"\u00E9t\u00E9 \u4E2D");
    EXPECT_EQ(buffer.Size(), 6u);
}

TEST(WideString, AssignNarrowOfNothingOrWithABadCodePageLeavesTheBuffer)
{
    CWideBuffer buffer = Make(L"keep");
    EXPECT_FALSE(Types::AssignNarrow(buffer, nullptr, CP_ACP));
    EXPECT_FALSE(Types::AssignNarrow(buffer, "", CP_ACP));
    EXPECT_FALSE(Types::AssignNarrow(buffer, "text", 12345));
    EXPECT_STREQ(Text(buffer), L"keep");
    EXPECT_EQ(buffer.Size(), 5u);
}
