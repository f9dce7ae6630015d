#include <gtest/gtest.h>

#include <windows.h>

#include <memory>
#include <thread>

#include "host/types/Buffer.h"
#include "host/types/ClassPtr.h"
#include "host/types/CriticalSection.h"
#include "host/types/PointerList.h"

using Quillcast::System::Synchronization::CCriticalSection;
using Quillcast::System::Synchronization::CSingleLock;
using Quillcast::System::Types::CBuffer;
using Quillcast::System::Types::CClassPtr;
using Quillcast::System::Types::CPointerList;

namespace {

// Counts destructions, so that a test can see exactly when an owner frees.
struct CCounted
{
    static int s_destroyed;
    int m_nValue = 0;
    CCounted() = default;
    explicit CCounted(int nValue) : m_nValue(nValue) {}
    CCounted(const CCounted&) = default;
    CCounted& operator=(const CCounted&) = default;
    ~CCounted() { ++s_destroyed; }
};
int CCounted::s_destroyed = 0;

void Fill(CBuffer<int>& buffer)
{
    for (uint32_t i = 0; i < buffer.Size(); ++i)
    {
        buffer[i] = static_cast<int>(i) + 1;
    }
}

bool IsZero(const CBuffer<int>& buffer, uint32_t from, uint32_t to)
{
    for (uint32_t i = from; i < to; ++i)
    {
        if (buffer[i] != 0)
        {
            return false;
        }
    }
    return true;
}

} // namespace

TEST(Buffer, AllocateZeroCountIsRefusedAndKeepsContents)
{
    CBuffer<int> buffer;
    EXPECT_FALSE(buffer.Allocate(0));
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(buffer.Data(), nullptr);

    ASSERT_TRUE(buffer.Allocate(3));
    Fill(buffer);
    EXPECT_FALSE(buffer.Allocate(0));
    EXPECT_EQ(buffer.Size(), 3u);
    EXPECT_EQ(buffer.Capacity(), 3u);
    EXPECT_EQ(buffer[2], 3);
}

TEST(Buffer, AllocateGrowsExactlyAndReusesLargeEnoughArrayZeroingAllOfIt)
{
    CBuffer<int> buffer;
    ASSERT_TRUE(buffer.Allocate(5));
    EXPECT_EQ(buffer.Size(), 5u);
    EXPECT_EQ(buffer.Capacity(), 5u);
    EXPECT_TRUE(IsZero(buffer, 0, 5));

    Fill(buffer);
    const int* pArray = buffer.Data();
    ASSERT_TRUE(buffer.Allocate(2));
    EXPECT_EQ(buffer.Data(), pArray);
    EXPECT_EQ(buffer.Size(), 2u);
    EXPECT_EQ(buffer.Capacity(), 5u);
    EXPECT_TRUE(IsZero(buffer, 0, 5));

    Fill(buffer);
    ASSERT_TRUE(buffer.Allocate(9));
    EXPECT_EQ(buffer.Size(), 9u);
    EXPECT_EQ(buffer.Capacity(), 9u);
    EXPECT_TRUE(IsZero(buffer, 0, 9));
}

TEST(Buffer, ResizeKeepsContentsGrowsExactlyAndZeroesEverythingPastTheCount)
{
    CBuffer<int> buffer;
    ASSERT_TRUE(buffer.Allocate(4));
    Fill(buffer);

    ASSERT_TRUE(buffer.Resize(6));
    EXPECT_EQ(buffer.Size(), 6u);
    EXPECT_EQ(buffer.Capacity(), 6u);
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(buffer[3], 4);
    EXPECT_TRUE(IsZero(buffer, 4, 6));

    Fill(buffer);
    const int* pArray = buffer.Data();
    ASSERT_TRUE(buffer.Resize(2));
    EXPECT_EQ(buffer.Data(), pArray);
    EXPECT_EQ(buffer.Size(), 2u);
    EXPECT_EQ(buffer.Capacity(), 6u);
    EXPECT_EQ(buffer[1], 2);
    EXPECT_TRUE(IsZero(buffer, 2, 6));

    // Growing back within the capacity brings zeroes, not the old values.
    ASSERT_TRUE(buffer.Resize(5));
    EXPECT_EQ(buffer.Data(), pArray);
    EXPECT_EQ(buffer[1], 2);
    EXPECT_TRUE(IsZero(buffer, 2, 6));

    ASSERT_TRUE(buffer.Resize(0));
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(buffer.Capacity(), 6u);
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_TRUE(IsZero(buffer, 0, 6));
}

TEST(Buffer, CopiesShareOneArrayThatOutlivesTheFirstOwner)
{
    auto pFirst = std::make_unique<CBuffer<wchar_t>>();
    ASSERT_TRUE(pFirst->Allocate(4));
    (*pFirst)[0] = L'a';
    (*pFirst)[1] = L'b';

    CBuffer<wchar_t> second(*pFirst);
    EXPECT_EQ(second.Data(), pFirst->Data());
    EXPECT_EQ(second.OwnerCount(), 2);
    EXPECT_EQ(second.Size(), 4u);

    pFirst.reset();
    EXPECT_EQ(second.OwnerCount(), 1);
    EXPECT_STREQ(second.Data(), L"ab");
}

TEST(Buffer, OnlyTheLastOwnerFreesTheArray)
{
    CCounted::s_destroyed = 0;
    auto pFirst = std::make_unique<CBuffer<CCounted>>();
    ASSERT_TRUE(pFirst->Allocate(3));
    auto pSecond = std::make_unique<CBuffer<CCounted>>(*pFirst);
    auto pThird = std::make_unique<CBuffer<CCounted>>();
    *pThird = *pSecond;
    EXPECT_EQ(pThird->OwnerCount(), 3);

    CCounted::s_destroyed = 0;
    pFirst.reset();
    pSecond.reset();
    EXPECT_EQ(CCounted::s_destroyed, 0);
    EXPECT_EQ(pThird->OwnerCount(), 1);

    pThird.reset();
    EXPECT_EQ(CCounted::s_destroyed, 3);
}

TEST(Buffer, GrowingACopyDetachesItFromTheSharedArray)
{
    CBuffer<int> first;
    ASSERT_TRUE(first.Allocate(2));
    Fill(first);
    CBuffer<int> second(first);

    ASSERT_TRUE(second.Resize(4));
    EXPECT_NE(second.Data(), first.Data());
    EXPECT_EQ(first.OwnerCount(), 1);
    EXPECT_EQ(second.OwnerCount(), 1);
    EXPECT_EQ(second[1], 2);
    EXPECT_EQ(first.Size(), 2u);
    EXPECT_EQ(first[1], 2);
}

TEST(ClassPtr, CopiesShareTheObjectAndTheLastOwnerDeletesItOnce)
{
    CCounted::s_destroyed = 0;
    {
        CClassPtr<CCounted> first(new CCounted(7));
        {
            CClassPtr<CCounted> second(first);
            EXPECT_EQ(second.Get(), first.Get());
            EXPECT_EQ(first.OwnerCount(), 2);
        }
        EXPECT_EQ(CCounted::s_destroyed, 0);
        EXPECT_EQ(first->m_nValue, 7);
    }
    EXPECT_EQ(CCounted::s_destroyed, 1);
}

TEST(PointerList, NullIsNotAppended)
{
    CPointerList<CCounted> list;
    EXPECT_FALSE(list.Append(nullptr));
    EXPECT_EQ(list.Count(), 0u);
    EXPECT_EQ(list.First(), nullptr);
}

TEST(PointerList, CursorVisitsElementsInAppendOrderAndTheListFreesThem)
{
    CCounted::s_destroyed = 0;
    {
        CPointerList<CCounted> list;
        for (int i = 1; i <= 3; ++i)
        {
            EXPECT_TRUE(list.Append(new CCounted(i)));
        }
        EXPECT_EQ(list.Count(), 3u);

        for (int pass = 0; pass < 2; ++pass)
        {
            int expected = 1;
            for (CCounted* pItem = list.First(); pItem != nullptr; pItem = list.Next())
            {
                EXPECT_EQ(pItem->m_nValue, expected++);
            }
            EXPECT_EQ(expected, 4);
            EXPECT_EQ(list.Next(), nullptr);
        }
        EXPECT_EQ(CCounted::s_destroyed, 0);
    }
    EXPECT_EQ(CCounted::s_destroyed, 3);
}

TEST(CriticalSection, SingleLockHoldsTheSectionForItsScopeOnly)
{
    CCriticalSection section;
    const auto tryFromOtherThread = [&section] {
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
        EXPECT_FALSE(tryFromOtherThread());
    }
    EXPECT_TRUE(tryFromOtherThread());
}
