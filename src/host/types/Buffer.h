#pragma once

#include <cstdint>
#include <cstring>

#include "host/types/ArrayPtr.h"

namespace Quillcast::System::Types {

// A sized, zero-filled array with exact growth.
//
// Copies share the array (the last owner frees it) but each copy keeps its own
// count and capacity: a write through one copy shows in all of them, an
// Allocate or Resize that fits the capacity zeroes elements that other copies
// still count, and one that reallocates detaches only the copy it runs on.
// Copy a buffer only to hand a finished one on, never to keep two live views.
//
// The zeroing that Allocate and Resize promise covers only what may have been
// written since the last zeroing: everything at or past the high-water mark
// reads as zero already. So a buffer that once held a long text (the logger's
// line after a huge "CustomActionData" value) stays as cheap per use as one
// that never grew. While the array is shared, another copy may have written
// anywhere up to the capacity, so a shared buffer counts the whole capacity.
template <typename T>
class CBuffer
{
public:
    CBuffer() noexcept = default;
    CBuffer(const CBuffer& other) noexcept
            : m_Array(other.m_Array), m_dwSize(other.m_dwSize), m_dwCapacity(other.m_dwCapacity),
              m_dwWrittenEnd(other.m_dwCapacity)
    {
        other.m_dwWrittenEnd = other.m_dwCapacity;
    }
    CBuffer& operator=(const CBuffer& other) noexcept
    {
        if (this != &other)
        {
            m_Array = other.m_Array;
            m_dwSize = other.m_dwSize;
            m_dwCapacity = other.m_dwCapacity;
            m_dwWrittenEnd = other.m_dwCapacity;
            other.m_dwWrittenEnd = other.m_dwCapacity;
        }
        return *this;
    }
    virtual ~CBuffer() = default;

    // Discards the contents and leaves `count` zeroed elements. Keeps the array
    // when it is large enough. Count 0 is refused and changes nothing.
    [[nodiscard]] bool Allocate(uint32_t count) noexcept
    {
        if (count == 0)
        {
            return false;
        }
        if (m_dwCapacity >= count)
        {
            ZeroRange(0, m_dwCapacity);
            SetSize(count);
            return true;
        }
        m_Array.Release();
        m_dwCapacity = count;
        SetSize(count);
        if (!m_Array.AllocateZeroed(count))
        {
            m_dwCapacity = 0;
            SetSize(0);
            return false;
        }
        return true;
    }

    // Changes the count, keeping the first min(old, new) elements; everything
    // past the new count is zero. Grows to exactly `count`; on failure nothing changes.
    [[nodiscard]] bool Resize(uint32_t count) noexcept
    {
        if (count == 0)
        {
            ZeroRange(0, m_dwCapacity);
            SetSize(0);
            return true;
        }
        if (m_dwCapacity >= count)
        {
            ZeroRange(count, m_dwCapacity);
            SetSize(count);
            return true;
        }
        CArrayPtr<T> grown;
        if (!grown.AllocateZeroed(count))
        {
            return false;
        }
        for (uint32_t i = 0; i < m_dwSize; ++i)
        {
            grown.Get()[i] = m_Array.Get()[i];
        }
        m_Array = grown;
        m_dwCapacity = count;
        SetSize(count);
        return true;
    }

    T* Data() const noexcept { return m_Array.Get(); }
    uint32_t Size() const noexcept { return m_dwSize; }
    uint32_t Capacity() const noexcept { return m_dwCapacity; }
    bool IsEmpty() const noexcept { return m_dwSize == 0 || m_Array.Get() == nullptr; }
    T& operator[](uint32_t index) const noexcept { return m_Array.Get()[index]; }
    long OwnerCount() const noexcept { return m_Array.OwnerCount(); }

private:
    bool IsShared() const noexcept { return m_Array.OwnerCount() > 1; }

    // Zeroes [from, to), skipping the part past the high-water mark, which is zero already.
    void ZeroRange(uint32_t from, uint32_t to) noexcept
    {
        const uint32_t written = IsShared() ? m_dwCapacity : m_dwWrittenEnd;
        T* pData = m_Array.Get();
        for (uint32_t i = from; pData != nullptr && i < to && i < written; ++i)
        {
            pData[i] = T();
        }
    }

    // Sets the count after a zeroing: from here on only elements below the
    // count can be written (by any copy, while the array is shared).
    void SetSize(uint32_t count) noexcept
    {
        m_dwSize = count;
        m_dwWrittenEnd = IsShared() ? m_dwCapacity : count;
    }

    CArrayPtr<T> m_Array;
    uint32_t m_dwSize = 0;
    uint32_t m_dwCapacity = 0;
    // Every element at or past this index is zero (see the class comment).
    mutable uint32_t m_dwWrittenEnd = 0;
};

} // namespace Quillcast::System::Types
