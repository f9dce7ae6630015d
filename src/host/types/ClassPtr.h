#pragma once

#include <memory>

namespace Quillcast::System::Types {

// Owning pointer to one object, shared by its copies; the last owner deletes it.
template <typename T>
class CClassPtr
{
public:
    CClassPtr() noexcept = default;
    // Takes ownership of `pObject` (may be null). Throws std::bad_alloc only if
    // the shared count cannot be allocated, after deleting the object.
    explicit CClassPtr(T* pObject) : m_pObject(pObject) {}
    CClassPtr(const CClassPtr&) noexcept = default;
    CClassPtr& operator=(const CClassPtr&) noexcept = default;
    virtual ~CClassPtr() = default;

    T* Get() const noexcept { return m_pObject.get(); }
    T* operator->() const noexcept { return m_pObject.get(); }
    explicit operator bool() const noexcept { return m_pObject != nullptr; }
    long OwnerCount() const noexcept { return m_pObject.use_count(); }

private:
    std::shared_ptr<T> m_pObject;
};

} // namespace Quillcast::System::Types
