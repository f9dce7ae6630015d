#pragma once

#include <windows.h>

namespace Quillcast::System::Synchronization {

class CSyncObject
{
public:
    virtual ~CSyncObject() = default;
    [[nodiscard]] virtual bool Lock(DWORD dwTimeout = INFINITE) = 0;
    [[nodiscard]] virtual bool TryLock() = 0;
    virtual void Unlock() = 0;
};

// Takes a lock for one scope and releases it exactly once, if it was taken.
class CSingleLock
{
public:
    explicit CSingleLock(CSyncObject& lock) noexcept : m_Lock(lock), m_bLocked(lock.Lock(INFINITE)) {}
    CSingleLock(const CSingleLock&) = delete;
    CSingleLock& operator=(const CSingleLock&) = delete;
    ~CSingleLock()
    {
        if (m_bLocked)
        {
            m_Lock.Unlock();
        }
    }

private:
    CSyncObject& m_Lock;
    bool m_bLocked;
};

} // namespace Quillcast::System::Synchronization
