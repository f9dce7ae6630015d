#pragma once

#include <windows.h>

#include <atomic>
#include <cwchar>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/ImportPatch.h"

namespace QcTest {

// What one loaded module asked of the service manager while a recorder lived.
struct ServiceCalls
{
    std::vector<DWORD> sleeps;       // every Sleep's argument
    std::vector<std::wstring> opens; // "manager 0xACCESS" / "<service> 0xACCESS", in order
    std::vector<SC_HANDLE> opened;   // every handle those calls returned
    std::vector<HANDLE> closedByCloseHandle;
    int closeServiceHandleCalls = 0;
};

// Records one loaded module's status queries, sleeps, service-manager opens and
// handle releases while it lives; every call goes on to the real function.
// QueryServiceStatus never reaches the service, so this is the only way to
// watch a poll loop from outside.
class CServiceCallRecorder
{
public:
    explicit CServiceCallRecorder(HMODULE hModule)
            : m_Query(hModule, "ADVAPI32.dll", "QueryServiceStatus", reinterpret_cast<const void*>(&Query)),
              m_Manager(hModule, "ADVAPI32.dll", "OpenSCManagerW", reinterpret_cast<const void*>(&OpenManager)),
              m_Service(hModule, "ADVAPI32.dll", "OpenServiceW", reinterpret_cast<const void*>(&OpenServiceHook)),
              m_Close(hModule, "KERNEL32.dll", "CloseHandle", reinterpret_cast<const void*>(&Close)),
              m_CloseService(hModule, "ADVAPI32.dll", "CloseServiceHandle",
                             reinterpret_cast<const void*>(&CloseService)),
              m_Sleep(hModule, "KERNEL32.dll", "Sleep", reinterpret_cast<const void*>(&Sleeping))
    {
        s_pQuery = m_Query.Original<decltype(&Query)>();
        s_pOpenManager = m_Manager.Original<decltype(&OpenManager)>();
        s_pOpenService = m_Service.Original<decltype(&OpenServiceHook)>();
        s_pClose = m_Close.Original<decltype(&Close)>();
        s_pSleep = m_Sleep.Original<decltype(&Sleeping)>();
        const std::lock_guard<std::mutex> lock(s_Lock);
        s_Calls = {};
        s_Count = 0;
    }
    CServiceCallRecorder(const CServiceCallRecorder&) = delete;
    CServiceCallRecorder& operator=(const CServiceCallRecorder&) = delete;

    // The module does not import CloseServiceHandle: that patch may be missing.
    bool IsInstalled() const
    {
        return m_Query.IsApplied() && m_Manager.IsApplied() && m_Service.IsApplied() && m_Close.IsApplied() &&
               m_Sleep.IsApplied();
    }
    int Count() const { return s_Count.load(); }
    static ServiceCalls Calls()
    {
        const std::lock_guard<std::mutex> lock(s_Lock);
        return s_Calls;
    }

private:
    template <typename T>
    static T Note(T result, const std::function<void(ServiceCalls&)>& note)
    {
        const DWORD dwError = ::GetLastError();
        {
            const std::lock_guard<std::mutex> lock(s_Lock);
            note(s_Calls);
        }
        ::SetLastError(dwError);
        return result;
    }
    static std::wstring Access(const wchar_t* what, DWORD access)
    {
        wchar_t hex[16] = {};
        ::_snwprintf(hex, 15, L" 0x%lX", access);
        return what + std::wstring(hex);
    }
    static BOOL WINAPI Query(SC_HANDLE hService, LPSERVICE_STATUS pStatus)
    {
        ++s_Count;
        return s_pQuery(hService, pStatus);
    }
    static SC_HANDLE WINAPI OpenManager(LPCWSTR machine, LPCWSTR database, DWORD access)
    {
        const SC_HANDLE h = s_pOpenManager(machine, database, access);
        return Note(h, [&](ServiceCalls& c) {
            c.opens.push_back(Access(L"manager", access));
            c.opened.push_back(h);
        });
    }
    static SC_HANDLE WINAPI OpenServiceHook(SC_HANDLE hManager, LPCWSTR name, DWORD access)
    {
        const SC_HANDLE h = s_pOpenService(hManager, name, access);
        return Note(h, [&](ServiceCalls& c) {
            c.opens.push_back(Access(name, access));
            c.opened.push_back(h);
        });
    }
    static BOOL WINAPI Close(HANDLE h)
    {
        return Note(s_pClose(h), [h](ServiceCalls& c) { c.closedByCloseHandle.push_back(h); });
    }
    static BOOL WINAPI CloseService(SC_HANDLE)
    {
        return Note(FALSE, [](ServiceCalls& c) { ++c.closeServiceHandleCalls; });
    }
    static void WINAPI Sleeping(DWORD ms)
    {
        Note(0, [ms](ServiceCalls& c) { c.sleeps.push_back(ms); });
        s_pSleep(ms);
    }

    static inline std::mutex s_Lock;
    static inline ServiceCalls s_Calls;
    static inline std::atomic<int> s_Count{0};
    static inline decltype(&Query) s_pQuery = nullptr;
    static inline decltype(&OpenManager) s_pOpenManager = nullptr;
    static inline decltype(&OpenServiceHook) s_pOpenService = nullptr;
    static inline decltype(&Close) s_pClose = nullptr;
    static inline decltype(&Sleeping) s_pSleep = nullptr;
    CImportPatch m_Query, m_Manager, m_Service, m_Close, m_CloseService, m_Sleep;
};

// The benchmark's name for it.
using CStatusQueryCounter = CServiceCallRecorder;

} // namespace QcTest
