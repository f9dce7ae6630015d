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
template <typename T>
class CBuffer
{
public:
    CBuffer() noexcept = default;
    CBuffer(const CBuffer&) noexcept = default;
    CBuffer& operator=(const CBuffer&) noexcept = default;
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
            m_dwSize = count;
            return true;
        }
        m_Array.Release();
        m_dwSize = count;
        m_dwCapacity = count;
        if (!m_Array.AllocateZeroed(count))
        {
            m_dwSize = 0;
            m_dwCapacity = 0;
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
            m_dwSize = 0;
            return true;
        }
        if (m_dwCapacity >= count)
        {
            ZeroRange(count, m_dwCapacity);
            m_dwSize = count;
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
        m_dwSize = count;
        m_dwCapacity = count;
        return true;
    }

    T* Data() const noexcept { return m_Array.Get(); }
    uint32_t Size() const noexcept { return m_dwSize; }
    uint32_t Capacity() const noexcept { return m_dwCapacity; }
    bool IsEmpty() const noexcept { return m_dwSize == 0 || m_Array.Get() == nullptr; }
    T& operator[](uint32_t index) const noexcept { return m_Array.Get()[index]; }
    long OwnerCount() const noexcept { return m_Array.OwnerCount(); }

private:
    void ZeroRange(uint32_t from, uint32_t to) noexcept
    {
        T* pData = m_Array.Get();
        for (uint32_t i = from; pData != nullptr && i < to; ++i)
        {
            pData[i] = T();
        }
    }

    CArrayPtr<T> m_Array;
    uint32_t m_dwSize = 0;
    uint32_t m_dwCapacity = 0;
};

} // namespace Quillcast::System::Types
