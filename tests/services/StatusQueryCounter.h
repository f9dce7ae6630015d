#pragma once

#include <windows.h>

#include <atomic>

#include "support/ImportPatch.h"

namespace QcTest {

// Counts one loaded module's QueryServiceStatus calls while it lives; the calls
// themselves go on to the real function. QueryServiceStatus never reaches the
// service, so this is the only way to watch a poll loop from outside.
class CStatusQueryCounter
{
public:
    explicit CStatusQueryCounter(HMODULE hModule)
        : m_Patch(hModule, "ADVAPI32.dll", "QueryServiceStatus", reinterpret_cast<const void*>(&Counting))
    {
        s_pReal = m_Patch.Original<Function>();
        s_Count = 0;
    }
    CStatusQueryCounter(const CStatusQueryCounter&) = delete;
    CStatusQueryCounter& operator=(const CStatusQueryCounter&) = delete;

    bool IsInstalled() const { return m_Patch.IsApplied(); }
    int Count() const { return s_Count.load(); }

private:
    using Function = BOOL(WINAPI*)(SC_HANDLE, LPSERVICE_STATUS);

    static BOOL WINAPI Counting(SC_HANDLE hService, LPSERVICE_STATUS pStatus)
    {
        ++s_Count;
        return s_pReal(hService, pStatus);
    }

    static inline std::atomic<int> s_Count{0};
    static inline Function s_pReal = nullptr;
    CImportPatch m_Patch;
};

} // namespace QcTest
