#pragma once

#include <cstddef>
#include <memory>
#include <new>

namespace Quillcast::System::Types {

// Owns a heap array jointly with every copy of itself; the last owner frees it.
// Allocation never throws: a failed allocation leaves the pointer null.
template <typename T>
class CArrayPtr
{
public:
    CArrayPtr() noexcept = default;
    CArrayPtr(const CArrayPtr&) noexcept = default;
    CArrayPtr& operator=(const CArrayPtr&) noexcept = default;
    virtual ~CArrayPtr() = default;

    // Replaces this owner's array by a new zero-filled one of `count` elements.
    // Other co-owners keep the old array. Returns false (and holds null) on failure.
    [[nodiscard]] bool AllocateZeroed(size_t count) noexcept
    {
        m_pArray.reset();
        T* pArray = new (std::nothrow) T[count]();
        if (pArray == nullptr)
        {
            return false;
        }
        try
        {
            // On failure reset() has already deleted the array.
            m_pArray.reset(pArray, std::default_delete<T[]>());
        }
        catch (...)
        {
            return false;
        }
        return true;
    }

    // Unlinks this owner; frees the array if it was the last one.
    void Release() noexcept { m_pArray.reset(); }

    T* Get() const noexcept { return m_pArray.get(); }
    long OwnerCount() const noexcept { return m_pArray.use_count(); }

private:
    std::shared_ptr<T> m_pArray;
};

} // namespace Quillcast::System::Types
