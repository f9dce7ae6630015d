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
using Names = std::vector<std::wstring>;

// The kit, unlike the service controller, releases service handles as documented.
struct CServiceHandle
        : Quillcast::System::Types::CUniqueHandle<SC_HANDLE,
                                                  Quillcast::System::Types::CloseWith<SC_HANDLE, ::CloseServiceHandle>>
{
    using CUniqueHandle::CUniqueHandle;
};

// What one loaded module asked of the service manager while a seam lived.
struct ServiceCalls
{
    std::vector<DWORD> sleeps;       // every Sleep's argument
    std::vector<std::wstring> opens; // "manager 0xACCESS" / "<service> 0xACCESS", in order
    std::vector<SC_HANDLE> opened;   // every handle those calls returned
    std::vector<HANDLE> closedByCloseHandle;
};

// For its lifetime, one loaded module's service-manager opens, sleeps and CloseHandle calls are
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
    static const ServiceCalls& Calls() { return s_Calls; }
    // `service` depends on `dependsOn`, and starts after every service defined before it.
    static void Define(const std::wstring& service, const Names& dependsOn)
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

    static inline std::vector<std::pair<std::wstring, Names>> s_Registrations;
    static inline ServiceCalls s_Calls;
    CImportPatch m_Patches[5];
};

// A QcTestService.exe instance (`options` as QcTestService.cpp lists them) registered in the test run's prefix for one
// test, after the services it depends on, noting its transitions in `journalPath`. The destructor ends it through its
// exit event and deletes it, so that nothing stays registered or running, auto-start services in particular.
class CTestService
{
public:
    CTestService(const std::wstring& name, const std::wstring& options, DWORD startType, const Names& dependsOn,
                 const std::wstring& journalPath)
            : m_Name(name), m_hManager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)),
              m_hExit(::CreateEventW(nullptr, TRUE, FALSE, (L"Global\\QcTestService." + m_Name + L".Exit").c_str()))
    {
        // Shared by name with the service, manual-reset, and cleared: a name can outlive its service.
        ::ResetEvent(m_hExit.Get());
        const std::wstring commandLine = L"\"" + BinFolder() + L"QcTestService.exe\" " + m_Name + L" " + options +
                                         L" \"--journal=" + journalPath + L"\"";
        // A list of strings, each ended by a NUL, then one more NUL: the one c_str() adds.
        std::wstring dependencies;
        for (const std::wstring& dependency : dependsOn)
        {
            dependencies += dependency + L'\0';
        }
        m_hService.Reset(::CreateServiceW(
            m_hManager.Get(), m_Name.c_str(), m_Name.c_str(), SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, startType,
            SERVICE_ERROR_NORMAL, commandLine.c_str(), nullptr, nullptr, dependencies.c_str(), nullptr, nullptr));
        m_Error = m_hService ? L"" : L"CreateService failed with error " + std::to_wstring(::GetLastError());
        if (m_hService)
        {
            CServiceManagerSeam::Define(m_Name, dependsOn);
        }
    }
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
    DWORD State() const
    {
        SERVICE_STATUS status{};
        return ::QueryServiceStatus(m_hService.Get(), &status) ? status.dwCurrentState : 0;
    }
    bool Start(bool wait = true) const
    {
        return ::StartServiceW(m_hService.Get(), 0, nullptr) && (!wait || Await(SERVICE_RUNNING));
    }
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
    ~CTestServices()
    {
        while (!m_Services.empty())
        {
            m_Services.pop_back();
        }
        ::DeleteFileW(m_JournalPath.c_str());
    }

    CTestService& Add(const std::wstring& name, const std::wstring& options, DWORD startType, const Names& dependsOn)
    {
        return *m_Services.emplace_back(
            std::make_unique<CTestService>(name, options, startType, dependsOn, m_JournalPath));
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
