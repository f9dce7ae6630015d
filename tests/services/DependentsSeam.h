#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "support/ImportPatch.h"

namespace QcTest {

// Wine's EnumDependentServicesW is a stub that never reports a dependent. For
// the seam's lifetime, one loaded module's import of it is answered as Windows
// would, from the dependency graph the test defines (CTestServices registers
// each service's dependencies here): every service that depends on the given
// one, directly or through others, in reverse start order (each before every
// service it depends on; the dependents of one service start in name order),
// filtered by the real state each reports. Buffer protocol as documented: a
// buffer too small fails with ERROR_MORE_DATA, the bytes needed and no
// entries; otherwise the entries come first and their strings follow them.
// No dependents: TRUE with 0 entries. Every other call of the module stays real.
class CDependentsSeam
{
public:
    explicit CDependentsSeam(HMODULE hModule);

    bool IsInstalled() const { return m_Patch.IsApplied(); }
    // The graph: `service` depends on `dependsOn`; Forget removes the service.
    static void Define(const std::wstring& service, const std::vector<std::wstring>& dependsOn);
    static void Forget(const std::wstring& service);
    // The state filter of each call since the last ClearCalls(), in order.
    static std::vector<DWORD> Calls();
    static void ClearCalls();

private:
    CImportPatch m_Patch;
};

} // namespace QcTest
