#pragma once

// The kit of the service tests and the service benchmark: test services registered in the run's prefix for one test,
// and a seam between one loaded module and the service manager that answers the dependent enumeration Wine lacks and
// records what the module asks.
#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "host/types/Handles.h"
#include "support/ImportPatch.h"
#include "support/ShippedDll.h"

namespace QcTest {

using Quillcast::System::Types::CKernelHandle;

// The kit, unlike the service controller, releases service handles as documented.
struct CServiceHandle
        : Quillcast::System::Types::CUniqueHandle<SC_HANDLE,
                                                  Quillcast::System::Types::CloseWith<SC_HANDLE, ::CloseServiceHandle>>
{
    using CUniqueHandle::CUniqueHandle;
    SC_HANDLE get() const noexcept { return Get(); } // the benchmark's spelling
};

// What one loaded module asked of the service manager while a seam lived.
struct ServiceCalls
{
    std::vector<DWORD> sleeps;       // every Sleep's argument
    std::vector<std::wstring> opens; // "manager 0xACCESS" / "<service> 0xACCESS", in order
    std::vector<SC_HANDLE> opened;   // every handle those calls returned
    std::vector<HANDLE> closedByCloseHandle;
    int statusQueries = 0;
};

// For its lifetime, one loaded module's service-manager opens, status queries, sleeps and CloseHandle calls are
// recorded on their way to the real functions: the only way to watch its poll loops and its releases from outside.
// Only the action's thread writes them: read them once it has returned.
//
// Its EnumDependentServicesW, which Wine stubs, is answered as Windows would, from the dependencies of the services
// the kit registered: every service that depends on the given one, directly or through others, in reverse start order
// (the order of registration), filtered by the real state each reports. Buffer protocol as documented: too small a
// buffer fails with ERROR_MORE_DATA, the bytes needed and no entries; otherwise the entries come first, their strings
// after them. No dependents: TRUE, 0 entries.
class CServiceManagerSeam
{
public:
    explicit CServiceManagerSeam(HMODULE hModule)
            : m_Patches{{hModule, "ADVAPI32.dll", "EnumDependentServicesW", reinterpret_cast<const void*>(&Enumerate)},
                        {hModule, "ADVAPI32.dll", "QueryServiceStatus", reinterpret_cast<const void*>(&Query)},
                        {hModule, "ADVAPI32.dll", "OpenSCManagerW", reinterpret_cast<const void*>(&OpenManager)},
                        {hModule, "ADVAPI32.dll", "OpenServiceW", reinterpret_cast<const void*>(&OpenOneService)},
                        {hModule, "KERNEL32.dll", "CloseHandle", reinterpret_cast<const void*>(&Close)},
                        {hModule, "KERNEL32.dll", "Sleep", reinterpret_cast<const void*>(&Sleeping)}}
    {
        s_Calls = {};
    }

    bool IsInstalled() const
    {
        return std::all_of(std::begin(m_Patches), std::end(m_Patches), [](const auto& p) { return p.IsApplied(); });
    }
    // The status queries so far.
    int Count() const { return s_Calls.statusQueries; }
    static const ServiceCalls& Calls() { return s_Calls; }
    // `service` depends on `dependsOn`, and starts after every service defined before it.
    static void Define(const std::wstring& service, const std::vector<std::wstring>& dependsOn)
    {
        s_Registrations.emplace_back(service, dependsOn);
    }

private:
    static BOOL WINAPI Enumerate(SC_HANDLE hService, DWORD dwState, LPENUM_SERVICE_STATUSW lpServices, DWORD cbBufSize,
                                 LPDWORD pcbBytesNeeded, LPDWORD lpServicesReturned)
    {
        if (pcbBytesNeeded == nullptr || lpServicesReturned == nullptr || dwState == 0 ||
            (dwState & ~SERVICE_STATE_ALL) != 0)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        // Test services carry their name as display name too.
        std::vector<BYTE> config(8192);
        auto* pConfig = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(config.data());
        DWORD needed = 0;
        if (!::QueryServiceConfigW(hService, pConfig, 8192, &needed))
        {
            return FALSE;
        }
        // The service, then each that depends on one found before it; the last started is reported first.
        std::vector<std::wstring> found{pConfig->lpDisplayName};
        for (const auto& [service, dependsOn] : s_Registrations)
        {
            if (std::find(found.begin(), found.end(), service) == found.end() &&
                std::find_first_of(dependsOn.begin(), dependsOn.end(), found.begin(), found.end()) != dependsOn.end())
            {
                found.push_back(service);
            }
        }
        std::vector<ENUM_SERVICE_STATUSW> entries;
        const CServiceHandle hManager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
        for (auto name = found.rbegin(); name + 1 != found.rend(); ++name)
        {
            const CServiceHandle hDependent(::OpenServiceW(hManager.Get(), name->c_str(), SERVICE_QUERY_STATUS));
            ENUM_SERVICE_STATUSW entry{name->data(), name->data(), {}};
            if (hDependent && ::QueryServiceStatus(hDependent.Get(), &entry.ServiceStatus) &&
                (dwState &
                 (entry.ServiceStatus.dwCurrentState == SERVICE_STOPPED ? SERVICE_INACTIVE : SERVICE_ACTIVE)) != 0)
            {
                needed += static_cast<DWORD>(sizeof(entry) + (name->size() + 1) * sizeof(wchar_t));
                entries.push_back(entry);
            }
        }
        if (cbBufSize < needed || (needed != 0 && lpServices == nullptr))
        {
            *pcbBytesNeeded = needed;
            *lpServicesReturned = 0;
            ::SetLastError(ERROR_MORE_DATA);
            return FALSE;
        }
        // Service name and display name share one string.
        auto* text = reinterpret_cast<wchar_t*>(lpServices + entries.size());
        for (size_t i = 0; i < entries.size(); ++i)
        {
            lpServices[i] = {std::wcscpy(text, entries[i].lpServiceName), text, entries[i].ServiceStatus};
            text += std::wcslen(text) + 1;
        }
        *pcbBytesNeeded = 0;
        *lpServicesReturned = static_cast<DWORD>(entries.size());
        return TRUE;
    }
    // Notes an open that has been made, leaving its last-error value as it was.
    static SC_HANDLE NotedOpen(SC_HANDLE handle, const wchar_t* what, DWORD access)
    {
        const DWORD dwError = ::GetLastError();
        wchar_t hex[16] = {};
        ::_snwprintf(hex, 15, L" 0x%lX", access);
        s_Calls.opens.push_back(what + std::wstring(hex));
        s_Calls.opened.push_back(handle);
        ::SetLastError(dwError);
        return handle;
    }
    static BOOL WINAPI Query(SC_HANDLE hService, LPSERVICE_STATUS pStatus)
    {
        ++s_Calls.statusQueries;
        return ::QueryServiceStatus(hService, pStatus);
    }
    static SC_HANDLE WINAPI OpenManager(LPCWSTR machine, LPCWSTR database, DWORD access)
    {
        return NotedOpen(::OpenSCManagerW(machine, database, access), L"manager", access);
    }
    static SC_HANDLE WINAPI OpenOneService(SC_HANDLE hManager, LPCWSTR name, DWORD access)
    {
        return NotedOpen(::OpenServiceW(hManager, name, access), name, access);
    }
    static BOOL WINAPI Close(HANDLE handle)
    {
        s_Calls.closedByCloseHandle.push_back(handle);
        return ::CloseHandle(handle);
    }
    static void WINAPI Sleeping(DWORD ms)
    {
        s_Calls.sleeps.push_back(ms);
        ::Sleep(ms);
    }

    static inline std::vector<std::pair<std::wstring, std::vector<std::wstring>>> s_Registrations;
    static inline ServiceCalls s_Calls;
    CImportPatch m_Patches[6];
};

// The benchmark's names for it.
using CDependentsSeam = CServiceManagerSeam;
using CStatusQueryCounter = CServiceManagerSeam;

// How to register one QcTestService.exe instance (see QcTestService.cpp), after the services it depends on.
struct ServiceDefinition
{
    std::wstring name;
    std::wstring options; // of QcTestService, e.g. L"--stop-delay=30000"
    DWORD startType = SERVICE_DEMAND_START;
    std::vector<std::wstring> dependsOn;
};

// A service registered in the test run's prefix for one test, noting its transitions in `journalPath`. The destructor
// ends it through its exit event and deletes it, so that nothing stays registered or running, auto-start services in
// particular.
class CTestService
{
public:
    CTestService(const ServiceDefinition& definition, const std::wstring& journalPath)
            : m_Name(definition.name), m_hManager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)),
              m_hExit(::CreateEventW(nullptr, TRUE, FALSE, (L"Global\\QcTestService." + m_Name + L".Exit").c_str()))
    {
        // Shared by name with the service, manual-reset, and cleared: a name can outlive its service.
        ::ResetEvent(m_hExit.Get());
        const std::wstring commandLine = L"\"" + BinFolder() + L"QcTestService.exe\" " + m_Name + L" " +
                                         definition.options + L" \"--journal=" + journalPath + L"\"";
        // A list of strings, each ended by a NUL, then one more NUL: the one c_str() adds.
        std::wstring dependencies;
        for (const std::wstring& dependency : definition.dependsOn)
        {
            dependencies += dependency + L'\0';
        }
        m_hService.Reset(::CreateServiceW(m_hManager.Get(), m_Name.c_str(), m_Name.c_str(), SERVICE_ALL_ACCESS,
                                          SERVICE_WIN32_OWN_PROCESS, definition.startType, SERVICE_ERROR_NORMAL,
                                          commandLine.c_str(), nullptr, nullptr, dependencies.c_str(), nullptr,
                                          nullptr));
        m_Error = m_hService ? L"" : L"CreateService failed with error " + std::to_wstring(::GetLastError());
        if (m_hService)
        {
            CServiceManagerSeam::Define(m_Name, definition.dependsOn);
        }
    }
    CTestService(const CTestService&) = delete;
    CTestService& operator=(const CTestService&) = delete;
    ~CTestService()
    {
        if (m_hService)
        {
            // The exit event ends it in any state; a stop control sent while its process exits would keep the
            // manager waiting for an answer.
            ::SetEvent(m_hExit.Get());
            Await(SERVICE_STOPPED);
            // Its definition stays with the seam: a deleted service cannot be opened, so is never found.
            ::DeleteService(m_hService.Get());
        }
    }

    const std::wstring& Error() const { return m_Error; }
    const std::wstring& Name() const { return m_Name; }
    // The current dwCurrentState, or 0 when it cannot be read.
    DWORD State() const
    {
        SERVICE_STATUS status{};
        return ::QueryServiceStatus(m_hService.Get(), &status) ? status.dwCurrentState : 0;
    }
    // StartServiceW; with `wait`, until it runs.
    bool Start(bool wait = true) const
    {
        return ::StartServiceW(m_hService.Get(), 0, nullptr) && (!wait || Await(SERVICE_RUNNING));
    }
    // Pauses a running service, and waits until it is paused.
    bool Pause() const
    {
        SERVICE_STATUS status{};
        return ::ControlService(m_hService.Get(), SERVICE_CONTROL_PAUSE, &status) && Await(SERVICE_PAUSED);
    }
    // Waits up to a minute for `state`.
    bool Await(DWORD state) const
    {
        for (const DWORD start = ::GetTickCount(); State() != state; ::Sleep(20))
        {
            if (::GetTickCount() - start > 60000)
            {
                return false;
            }
        }
        return true;
    }

private:
    std::wstring m_Name;
    std::wstring m_Error;
    CServiceHandle m_hManager;
    CServiceHandle m_hService;
    CKernelHandle m_hExit;
};

// The test services of one test, destroyed in reverse order of creation, and the journal they share: one
// "<name> running" / "<name> stopped" line per transition, in order.
class CTestServices
{
public:
    CTestServices() : m_JournalPath(BinFolder() + L"QcTestService." + std::to_wstring(::GetCurrentProcessId())) {}
    CTestServices(const CTestServices&) = delete;
    CTestServices& operator=(const CTestServices&) = delete;
    ~CTestServices()
    {
        while (!m_Services.empty())
        {
            m_Services.pop_back();
        }
        ::DeleteFileW(m_JournalPath.c_str());
    }

    CTestService& Add(const ServiceDefinition& definition)
    {
        return *m_Services.emplace_back(std::make_unique<CTestService>(definition, m_JournalPath));
    }
    std::vector<std::wstring> Journal() const
    {
        std::vector<std::wstring> entries;
        std::ifstream file(m_JournalPath.c_str());
        for (std::string line; std::getline(file, line);)
        {
            entries.emplace_back(line.begin(), line.end());
        }
        return entries;
    }
    void ClearJournal() const { std::ofstream(m_JournalPath.c_str(), std::ios::trunc).close(); }

private:
    std::wstring m_JournalPath;
    std::vector<std::unique_ptr<CTestService>> m_Services;
};

} // namespace QcTest
