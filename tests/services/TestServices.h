#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "host/types/Handles.h"

namespace QcTest {

using Quillcast::System::Types::CKernelHandle;

// The test kit, unlike the service controller, releases service handles with CloseServiceHandle.
struct ServiceHandleTraits
{
    static SC_HANDLE Invalid() noexcept { return nullptr; }
    static void Close(SC_HANDLE handle) noexcept { ::CloseServiceHandle(handle); }
};
struct CServiceHandle : Quillcast::System::Types::CUniqueHandle<SC_HANDLE, ServiceHandleTraits>
{
    using CUniqueHandle::CUniqueHandle;
    SC_HANDLE get() const noexcept { return Get(); } // the benchmark's spelling
};

// How to register one QcTestService.exe instance (see QcTestService.cpp).
struct ServiceDefinition
{
    std::wstring name;
    // QcTestService options, e.g. L"--stop-delay=hold".
    std::wstring options;
    DWORD startType = SERVICE_DEMAND_START;
    std::vector<std::wstring> dependsOn;
};

// A service registered in the test run's prefix for one test. The destructor
// ends it through its exit event and deletes it, so that nothing stays
// registered or running, auto-start services in particular.
class CTestService
{
public:
    // `journalPath` is where the service notes its transitions.
    CTestService(const ServiceDefinition& definition, const std::wstring& journalPath);
    CTestService(const CTestService&) = delete;
    CTestService& operator=(const CTestService&) = delete;
    ~CTestService();

    bool IsRegistered() const { return static_cast<bool>(m_hService); }
    const std::wstring& Error() const { return m_Error; }
    const std::wstring& Name() const { return m_Name; }

    // The current dwCurrentState, or 0 when it cannot be read.
    DWORD State() const;
    // StartServiceW; with `wait`, until it runs.
    bool Start(bool wait = true);
    // The stop control; returns as soon as the service has answered it.
    bool RequestStop();
    // The pause control, until the service reports SERVICE_PAUSED.
    bool Pause();
    // Waits up to `timeoutMs` for `state`, polling every 20 ms.
    bool WaitForState(DWORD state, DWORD timeoutMs = 60000) const;
    // Ends a held or delayed pending state.
    void Continue() { ::SetEvent(m_hContinue.Get()); }

private:
    std::wstring m_Name;
    std::wstring m_Error;
    CServiceHandle m_hManager;
    CServiceHandle m_hService;
    CKernelHandle m_hContinue;
    CKernelHandle m_hExit;
};

// The test services of one test, destroyed in reverse order of creation, and
// the journal they share.
class CTestServices
{
public:
    CTestServices();
    ~CTestServices();
    CTestServices(const CTestServices&) = delete;
    CTestServices& operator=(const CTestServices&) = delete;

    CTestService& Add(const ServiceDefinition& definition);
    // Ends every held pending state.
    void ContinueAll();
    // One "<name> running" / "<name> stopped" entry per transition, in order.
    std::vector<std::wstring> Journal() const;
    void ClearJournal();

private:
    std::wstring m_JournalPath;
    std::vector<std::unique_ptr<CTestService>> m_Services;
};

// The state's name, for readable assertion messages.
const wchar_t* StateName(DWORD state);

} // namespace QcTest
