#pragma once

#include <windows.h>

#include "host/types/SyncObject.h"

namespace Quillcast::System::Synchronization {

class CCriticalSection : public CSyncObject
{
public:
    CCriticalSection() noexcept { ::InitializeCriticalSection(&m_Section); }
    CCriticalSection(const CCriticalSection&) = delete;
    CCriticalSection& operator=(const CCriticalSection&) = delete;
    ~CCriticalSection() override { ::DeleteCriticalSection(&m_Section); }

    // A critical section cannot time out; the argument is accepted and ignored.
    [[nodiscard]] bool Lock(DWORD /*dwTimeout*/ = INFINITE) override
    {
        ::EnterCriticalSection(&m_Section);
        return true;
    }
    [[nodiscard]] bool TryLock() override { return ::TryEnterCriticalSection(&m_Section) != FALSE; }
    void Unlock() override { ::LeaveCriticalSection(&m_Section); }

private:
    CRITICAL_SECTION m_Section;
};

} // namespace Quillcast::System::Synchronization
