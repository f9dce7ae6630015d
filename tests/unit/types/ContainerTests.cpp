#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "host/types/Buffer.h"
#include "host/types/CriticalSection.h"
#include "host/types/PointerList.h"

using Quillcast::System::Synchronization::CCriticalSection;
using Quillcast::System::Synchronization::CSingleLock;
using Quillcast::System::Types::CBuffer;
using Quillcast::System::Types::CPointerList;

namespace {

// Counts destructions, so that a test can see exactly when an owner frees.
struct CCounted
{
    static inline int s_destroyed = 0;
    int m_nValue = 0;
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

} // namespace

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

TEST(Buffer, CopiesShareOneArrayUntilOneGrowsAndOnlyTheLastOwnerFreesIt)
{
    CCounted::s_destroyed = 0;
    {
        CBuffer<CCounted> last;
        {
            CBuffer<CCounted> first;
            ASSERT_TRUE(first.Allocate(3));
            first[1].m_nValue = 7;
            CBuffer<CCounted> grown(first);
            last = grown;
            EXPECT_EQ(last.Data(), first.Data());
            ASSERT_TRUE(grown.Resize(4));
            EXPECT_NE(grown.Data(), first.Data());
            EXPECT_EQ(grown[1].m_nValue, 7);
            EXPECT_EQ(first.OwnerCount(), 2);
        }
        // Only the grown copy's own array of four is gone.
        EXPECT_EQ(CCounted::s_destroyed, 4);
        EXPECT_EQ(last[1].m_nValue, 7);
    }
    EXPECT_EQ(CCounted::s_destroyed, 7);
}

TEST(PointerList, CursorVisitsElementsInAppendOrderSkippingNullAndTheListFreesThem)
{
    CCounted::s_destroyed = 0;
    {
        CPointerList<CCounted> list;
        EXPECT_FALSE(list.Append(nullptr));
        EXPECT_EQ(list.First(), nullptr);
        for (int i = 1; i <= 3; ++i)
        {
            EXPECT_TRUE(list.Append(new CCounted{i}));
        }
        std::vector<int> visited;
        for (CCounted* pItem = list.First(); pItem != nullptr; pItem = list.Next())
        {
            visited.push_back(pItem->m_nValue);
        }
        EXPECT_EQ(visited, (std::vector<int>{1, 2, 3}));
        EXPECT_EQ(list.First()->m_nValue, 1);
        EXPECT_EQ(CCounted::s_destroyed, 0);
    }
    EXPECT_EQ(CCounted::s_destroyed, 3);
}

TEST(CriticalSection, SingleLockHoldsTheSectionForItsScopeOnly)
{
    CCriticalSection section;
    const auto takenByOtherThread = [&section] {
        bool bTaken = false;
        std::thread([&] {
            bTaken = section.TryLock();
            if (bTaken)
            {
                section.Unlock();
            }
        }).join();
        return bTaken;
    };
    {
        CSingleLock lock(section);
        EXPECT_FALSE(takenByOtherThread());
    }
    EXPECT_TRUE(takenByOtherThread());
}
