#pragma once

#include <windows.h>

#include <memory>
#include <mutex>
#include <vector>

#include "support/ImportPatch.h"

namespace QcTest {

// Wine's EnumDependentServicesW is a stub that never reports a dependent. This
// stand-in answers what Windows would: every service that depends on the
// given one, directly or through others, as the services' DependOnService
// registry values say; in reverse start order (a service starts after all it
// depends on; services free to start at the same point start in
// case-insensitive name order); filtered by the real state each reports
// (SERVICE_ACTIVE, SERVICE_INACTIVE or SERVICE_STATE_ALL). Buffer protocol as
// documented: a buffer too small fails with ERROR_MORE_DATA, the bytes needed
// and no entries; otherwise the entries come first and their strings follow
// them in the caller's buffer. No dependents: TRUE with 0 entries.
BOOL WINAPI EnumDependentServicesFromRegistry(SC_HANDLE hService, DWORD dwServiceState,
                                              LPENUM_SERVICE_STATUSW lpServices, DWORD cbBufSize,
                                              LPDWORD pcbBytesNeeded, LPDWORD lpServicesReturned);

// The stand-in put in place of one loaded module's import of
// ADVAPI32!EnumDependentServicesW for the seam's lifetime; every other call of
// the module stays real. It also records the state filter of every call.
class CDependentsSeam
{
public:
    explicit CDependentsSeam(HMODULE hModule);
    CDependentsSeam(const CDependentsSeam&) = delete;
    CDependentsSeam& operator=(const CDependentsSeam&) = delete;
    ~CDependentsSeam();

    bool IsInstalled() const { return m_Patch.IsApplied(); }
    // The dwServiceState of each call since the last Clear(), in order.
    static std::vector<DWORD> Calls();
    static void ClearCalls();

private:
    CImportPatch m_Patch;
};

} // namespace QcTest
