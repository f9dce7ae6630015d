#pragma once

#include <cstddef>
#include <list>

#include "host/types/ClassPtr.h"

namespace Quillcast::System::Types {

// An owning list of heap objects in append order, with an iteration cursor.
// A linked list rather than a vector: appending never moves the elements, and
// it keeps the vector's length checks (and the string and exception machinery
// they pull into a static runtime) out of the DLL.
template <typename T>
class CPointerList
{
public:
    CPointerList() noexcept = default;
    CPointerList(const CPointerList&) = delete;
    CPointerList& operator=(const CPointerList&) = delete;
    virtual ~CPointerList() = default;

    // Takes ownership of `pObject` and appends it at the tail. A null pointer is
    // not appended. On memory exhaustion the object is deleted and false returned.
    [[nodiscard]] bool Append(T* pObject) noexcept
    {
        if (pObject == nullptr)
        {
            return false;
        }
        try
        {
            m_Nodes.push_back(CClassPtr<T>(pObject));
        }
        catch (...)
        {
            return false;
        }
        return true;
    }

    size_t Count() const noexcept { return m_Nodes.size(); }
    // Deletes every element and resets the cursor.
    void Clear() noexcept
    {
        m_Nodes.clear();
        m_Cursor = m_Nodes.cend();
    }

    // Cursor iteration: First() then Next() until null.
    T* First() noexcept
    {
        m_Cursor = m_Nodes.cbegin();
        return Current();
    }
    T* Next() noexcept
    {
        if (m_Cursor != m_Nodes.cend())
        {
            ++m_Cursor;
        }
        return Current();
    }

    template <typename Visitor>
    void ForEach(Visitor&& visit) const
    {
        for (const CClassPtr<T>& node : m_Nodes)
        {
            visit(*node.Get());
        }
    }

private:
    T* Current() const noexcept { return m_Cursor != m_Nodes.cend() ? m_Cursor->Get() : nullptr; }

    std::list<CClassPtr<T>> m_Nodes;
    typename std::list<CClassPtr<T>>::const_iterator m_Cursor = m_Nodes.cend();
};

} // namespace Quillcast::System::Types
