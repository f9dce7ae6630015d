#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

namespace QcTest {

// How to register one QcTestService.exe instance (see QcTestService.cpp).
struct ServiceSpec
{
    std::wstring name;
    // QcTestService options, e.g. L"--stop-delay=hold".
    std::wstring options;
    DWORD startType = SERVICE_DEMAND_START;
    std::vector<std::wstring> dependsOn;
    // Registers a program path that does not exist: StartService fails with 2.
    bool missingProgram = false;
};

// A service registered in the test run's prefix for one test. The destructor
// ends it (exit event, then a stop) and deletes it, so that nothing stays
// registered or running, auto-start services in particular.
class CTestService
{
public:
    // `journalPath` (may be empty) is where the service notes its transitions.
    CTestService(const ServiceSpec& spec, const std::wstring& journalPath);
    CTestService(const CTestService&) = delete;
    CTestService& operator=(const CTestService&) = delete;
    ~CTestService();

    bool IsRegistered() const { return m_hService != nullptr; }
    const std::wstring& Error() const { return m_Error; }
    const std::wstring& Name() const { return m_Name; }

    // The current dwCurrentState, or 0 when it cannot be read.
    DWORD State() const;
    // StartServiceW; with `wait`, until it runs (false when it does not within a minute).
    bool Start(bool wait = true);
    // The stop control; returns as soon as the service has answered it.
    bool RequestStop();
    // The pause control, until the service reports SERVICE_PAUSED.
    bool Pause();
    // Waits up to `timeoutMs` for `state`, polling every 20 ms.
    bool WaitForState(DWORD state, DWORD timeoutMs) const;
    // Ends a held or delayed pending state normally.
    void Continue();
    // Makes the service stop and exit at once.
    void Exit();

private:
    std::wstring m_Name;
    std::wstring m_Error;
    SC_HANDLE m_hManager = nullptr;
    SC_HANDLE m_hService = nullptr;
    HANDLE m_hContinue = nullptr;
    HANDLE m_hExit = nullptr;
};

// The test services of one test, destroyed in reverse order of creation.
class CTestServices
{
public:
    CTestServices();
    ~CTestServices();
    CTestServices(const CTestServices&) = delete;
    CTestServices& operator=(const CTestServices&) = delete;

    // Registers a service that notes its transitions in this set's journal.
    CTestService& Add(const ServiceSpec& spec);
    // Continues every service (ends every held pending state).
    void ContinueAll();
    // The journal: one "<name> running" / "<name> stopped" entry per transition, in order.
    std::vector<std::wstring> Journal() const;
    // Drops the entries noted so far.
    void ClearJournal();

private:
    std::wstring m_JournalPath;
    std::vector<std::unique_ptr<CTestService>> m_Services;
};

// The state's name, for readable assertion messages.
const wchar_t* StateName(DWORD state);

} // namespace QcTest
