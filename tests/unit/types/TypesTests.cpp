#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <string>

#include "host/types/WideString.h"

using Quillcast::System::Types::CBuffer;
using Quillcast::System::Types::CWideBuffer;
using Quillcast::System::Types::Text;
namespace Types = Quillcast::System::Types;

namespace {

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

} // namespace

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
    };
    for (const auto& c : cases)
    {
        CWideBuffer buffer = Make(c.text, c.size);
        ASSERT_TRUE(Types::Append(buffer, c.append, c.count)) << c.expected;
        EXPECT_STREQ(Text(buffer), c.expected);
        EXPECT_EQ(buffer.Size(), c.expectedSize) << c.expected;
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
