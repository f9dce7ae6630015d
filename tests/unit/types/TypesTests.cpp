#include <gtest/gtest.h>

#include <windows.h>

#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <tuple>

#include "host/types/WideString.h"

using Quillcast::System::Types::CBuffer;
using Quillcast::System::Types::CWideBuffer;
using Quillcast::System::Types::Text;
using namespace std::string_literals;
namespace Types = Quillcast::System::Types;

namespace {

// Counts destructions, so that a test can see exactly when an owner frees.
struct CCounted
{
    static inline int s_destroyed = 0;
    ~CCounted() { ++s_destroyed; }
};

// The whole capacity, with "|" where the count ends: "1 2|0 0" is count 2 of capacity 4.
std::string Layout(const CBuffer<int>& buffer)
{
    std::string text;
    for (uint32_t i = 0; i < buffer.Capacity(); ++i)
    {
        text += (i == buffer.Size() ? "|" : i > 0 ? " " : "") + std::to_string(buffer[i]);
    }
    return buffer.Size() == buffer.Capacity() ? text + "|" : text;
}

// A buffer holding `text` (no array at all for null), resized to `size` unless that is 0.
CWideBuffer Make(const wchar_t* text, uint32_t size = 0)
{
    CWideBuffer buffer;
    EXPECT_TRUE(text == nullptr || Types::Assign(buffer, text));
    EXPECT_TRUE(size == 0 || buffer.Resize(size));
    return buffer;
}

// Every element up to the count, terminators and zero padding included.
std::wstring Whole(const CWideBuffer& b)
{
    return b.IsEmpty() ? L"" : std::wstring(b.Data(), b.Size());
}

} // namespace

TEST(WideString, AssignAndFormatAllocateExactlyAndBadArgumentsFailWith87LeavingTheBuffer)
{
    CWideBuffer buffer;
    EXPECT_STREQ(Text(buffer), L"");
    ASSERT_TRUE(Types::Format(buffer, L"%s=%u/%d", L"wide text", 4294967295u, -5));
    EXPECT_EQ(Whole(buffer), L"wide text=4294967295/-5\0"s);
    ASSERT_TRUE(Types::Assign(buffer, L"xyz-not-terminated", 3));
    EXPECT_EQ(Whole(buffer), L"xyz\0"s);
    ASSERT_TRUE(Types::AssignNarrow(buffer, "\xC3\xA9t\xC3\xA9 \xE4\xB8\xAD", CP_UTF8));
    EXPECT_EQ(Whole(buffer), L"\u00E9t\u00E9 \u4E2D\0"s);

    // Each call on a buffer holding "keep" (or none for `empty`) reports whether it failed.
    const std::pair<bool, std::function<bool(CWideBuffer&)>> failing[] = {
        {false, [](CWideBuffer& b) { return !Types::Append(b, L""); }},
        {false, [](CWideBuffer& b) { return !Types::Format(b, nullptr); }},
        {false, [](CWideBuffer& b) { return Types::CountOccurrences(b, L"") == -1; }},
        {true, [](CWideBuffer& b) { return Types::CountOccurrences(b, L"a") == -1; }},
        {false, [](CWideBuffer& b) { return !Types::Replace(b, nullptr, L"y"); }},
        {true, [](CWideBuffer& b) { return !Types::Replace(b, L"a", L"y"); }},
    };
    for (const auto& [empty, call] : failing)
    {
        CWideBuffer kept = Make(empty ? nullptr : L"keep");
        ::SetLastError(0);
        EXPECT_TRUE(call(kept));
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        EXPECT_EQ(Whole(kept), empty ? L"" : L"keep\0"s);
    }
    EXPECT_FALSE(Types::Assign(buffer, nullptr));
    EXPECT_FALSE(Types::AssignNarrow(buffer, "", CP_ACP));
    EXPECT_FALSE(Types::AssignNarrow(buffer, "text", 12345));
    EXPECT_EQ(Whole(buffer), L"\u00E9t\u00E9 \u4E2D\0"s);
}

TEST(WideString, AppendGrowsToTheNewLengthPlus1025OnlyWhenFull)
{
    const struct
    {
        const wchar_t *text, *append;
        uint32_t size, count;
        const wchar_t* expected;
        uint32_t expectedSize;
    } cases[] = {
        {nullptr, L"abc", 0, 0, L"abc", 1028},
        // Six elements hold "abcde" and its terminator exactly: that still counts as full.
        {L"abc", L"de", 6, 0, L"abcde", 1030},
        {L"abc", L"de", 7, 0, L"abcde", 7},
        {nullptr, L"hello", 0, 2, L"he", 1027},
        {L"he", L"xy", 8, 10, L"hexy", 8},
    };
    for (const auto& c : cases)
    {
        CWideBuffer buffer = Make(c.text, c.size);
        ASSERT_TRUE(Types::Append(buffer, c.append, c.count)) << c.expected;
        EXPECT_STREQ(Text(buffer), c.expected);
        EXPECT_EQ(buffer.Size(), c.expectedSize) << c.expected;
    }
}

TEST(WideString, TrimRemovesTheCharacterAndTabsInFrontButOnlyTheCharacterAtTheBackZeroingTheFreedTail)
{
    const std::tuple<const wchar_t*, wchar_t, std::wstring> cases[] = {
        {L"  \t x \t  ", L' ', L"x \t\0"s},
        {L"name\t\t", L' ', L"name\t\t\0"s},
        {L"  ab", L' ', L"ab\0\0\0"s},
        {L"\t \t", L' ', L"\0"s},
        {L"", L' ', L"\0"s},
        {L"xx\ta x\txx", L'x', L"a x\t\0"s},
    };
    for (const auto& [text, ch, expected] : cases)
    {
        CWideBuffer buffer = Make(text);
        Types::Trim(buffer, ch);
        EXPECT_EQ(Whole(buffer), expected) << text;
    }
}

TEST(WideString, ReplaceAndCountOccurrencesTakeNonOverlappingMatchesLeftToRightAllocatingDoubleRoom)
{
    const struct
    {
        const wchar_t *text, *find, *replacement;
        int count;
        const wchar_t* expected;
        uint32_t size; // twice the new length plus two: deliberate, callers have it
    } cases[] = {
        {L"aaa", L"aa", L"b", 1, L"ba", 6},      {L"aaaa", L"aa", L"b", 2, L"bb", 6},
        {L"bab", L"a", L"xyz", 1, L"bxyzb", 12}, {L"a-b-c-", L"-", L"", 3, L"abc", 8},
        {L"abc", L"x", L"y", 0, L"abc", 4}, // nothing found: the buffer stays
    };
    for (const auto& c : cases)
    {
        CWideBuffer buffer = Make(c.text);
        EXPECT_EQ(Types::CountOccurrences(buffer, c.find), c.count) << c.text;
        ASSERT_TRUE(Types::Replace(buffer, c.find, c.replacement)) << c.text;
        EXPECT_STREQ(Text(buffer), c.expected);
        EXPECT_EQ(buffer.Size(), c.size) << c.text;
    }
}

TEST(Buffer, AllocateAndResizeGrowExactlyReuseALargeEnoughArrayAndZeroEverythingPastTheCount)
{
    CBuffer<int> buffer;
    EXPECT_FALSE(buffer.Allocate(0));
    ASSERT_TRUE(buffer.Allocate(4));
    std::iota(buffer.Data(), buffer.Data() + 4, 1);
    ASSERT_TRUE(buffer.Resize(6));
    EXPECT_EQ(Layout(buffer), "1 2 3 4 0 0|");
    std::iota(buffer.Data(), buffer.Data() + 6, 1);
    const int* pArray = buffer.Data();
    ASSERT_TRUE(buffer.Allocate(3));
    EXPECT_EQ(Layout(buffer), "0 0 0|0 0 0");
    std::iota(buffer.Data(), buffer.Data() + 3, 1);
    ASSERT_TRUE(buffer.Resize(2));
    EXPECT_EQ(Layout(buffer), "1 2|0 0 0 0");
    EXPECT_EQ(buffer.Data(), pArray);
}

// The zeroing skips what is known to be zero; a copy may write past another
// copy's count, so what a copy wrote is zeroed even after the copy is gone.
TEST(Buffer, WritesOfACopyPastTheCountAreZeroedByTheNextResize)
{
    for (const bool bAssigned : {false, true})
    {
        CBuffer<int> buffer;
        ASSERT_TRUE(buffer.Allocate(6));
        ASSERT_TRUE(buffer.Resize(1));
        {
            auto copy = bAssigned ? std::make_unique<CBuffer<int>>() : std::make_unique<CBuffer<int>>(buffer);
            if (bAssigned)
            {
                *copy = buffer;
            }
            ASSERT_TRUE(copy->Resize(6));
            std::iota(copy->Data(), copy->Data() + 6, 1);
        }
        ASSERT_TRUE(buffer.Resize(2));
        EXPECT_EQ(Layout(buffer), "1 2|0 0 0 0") << bAssigned;
    }
}

TEST(Buffer, CopiesShareOneArrayUntilOneGrowsAndOnlyTheLastOwnerFreesIt)
{
    CCounted::s_destroyed = 0;
    {
        CBuffer<CCounted> last;
        {
            CBuffer<CCounted> first;
            ASSERT_TRUE(first.Allocate(3));
            CBuffer<CCounted> grown(first);
            last = grown;
            EXPECT_EQ(last.Data(), first.Data());
            ASSERT_TRUE(grown.Resize(4));
            EXPECT_NE(grown.Data(), first.Data());
            EXPECT_EQ(first.OwnerCount(), 2);
        }
        // Only the grown copy's own array of four is gone.
        EXPECT_EQ(CCounted::s_destroyed, 4);
    }
    EXPECT_EQ(CCounted::s_destroyed, 7);
}
