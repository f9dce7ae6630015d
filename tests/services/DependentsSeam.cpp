#include "services/DependentsSeam.h"

#include <cwchar>
#include <cwctype>
#include <map>
#include <set>
#include <string>

namespace QcTest {

namespace {

std::mutex g_CallsLock;
std::vector<DWORD> g_Calls;

constexpr wchar_t kServicesKey[] = L"SYSTEM\\CurrentControlSet\\Services";

struct NoCaseLess
{
    bool operator()(const std::wstring& left, const std::wstring& right) const
    {
        return ::_wcsicmp(left.c_str(), right.c_str()) < 0;
    }
};

using NameSet = std::set<std::wstring, NoCaseLess>;
// Service -> the services it depends on.
using DependencyMap = std::map<std::wstring, NameSet, NoCaseLess>;

class CServiceHandle
{
public:
    explicit CServiceHandle(SC_HANDLE handle) : m_Handle(handle) {}
    CServiceHandle(const CServiceHandle&) = delete;
    CServiceHandle& operator=(const CServiceHandle&) = delete;
    ~CServiceHandle()
    {
        if (m_Handle != nullptr)
        {
            ::CloseServiceHandle(m_Handle);
        }
    }
    SC_HANDLE Get() const { return m_Handle; }

private:
    SC_HANDLE m_Handle;
};

// The key name of the service behind `hService`: there is no direct query, so
// through its display name.
DWORD ServiceKeyName(SC_HANDLE hManager, SC_HANDLE hService, std::wstring& name)
{
    DWORD needed = 0;
    if (::QueryServiceConfigW(hService, nullptr, 0, &needed) || ::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        return ::GetLastError();
    }
    std::vector<BYTE> buffer(needed);
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    if (!::QueryServiceConfigW(hService, config, needed, &needed))
    {
        return ::GetLastError();
    }
    wchar_t key[257] = {};
    DWORD length = 256;
    if (!::GetServiceKeyNameW(hManager, config->lpDisplayName, key, &length))
    {
        return ::GetLastError();
    }
    name = key;
    return ERROR_SUCCESS;
}

// Every service key's DependOnService entries; group entries ("+name") are not services.
DependencyMap ReadDependencies()
{
    DependencyMap dependencies;
    HKEY hServices = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kServicesKey, 0, KEY_READ, &hServices) != ERROR_SUCCESS)
    {
        return dependencies;
    }
    for (DWORD index = 0;; ++index)
    {
        wchar_t name[256] = {};
        DWORD nameLength = 256;
        if (::RegEnumKeyExW(hServices, index, name, &nameLength, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
        {
            break;
        }
        DWORD type = 0;
        DWORD size = 0;
        if (::RegGetValueW(hServices, name, L"DependOnService", RRF_RT_REG_MULTI_SZ, &type, nullptr, &size) !=
                ERROR_SUCCESS ||
            size == 0)
        {
            continue;
        }
        std::vector<wchar_t> value(size / sizeof(wchar_t) + 2, L'\0');
        if (::RegGetValueW(hServices, name, L"DependOnService", RRF_RT_REG_MULTI_SZ, &type, value.data(), &size) !=
            ERROR_SUCCESS)
        {
            continue;
        }
        for (const wchar_t* entry = value.data(); *entry != L'\0'; entry += std::wcslen(entry) + 1)
        {
            if (*entry != SC_GROUP_IDENTIFIERW)
            {
                dependencies[name].insert(entry);
            }
        }
    }
    ::RegCloseKey(hServices);
    return dependencies;
}

// The services that depend on `target`, directly or not, in start order.
std::vector<std::wstring> DependentsInStartOrder(const DependencyMap& dependencies, const std::wstring& target)
{
    NameSet dependents;
    std::vector<std::wstring> pending{target};
    while (!pending.empty())
    {
        const std::wstring current = pending.back();
        pending.pop_back();
        for (const auto& [service, needs] : dependencies)
        {
            if (needs.count(current) != 0 && ::_wcsicmp(service.c_str(), target.c_str()) != 0 &&
                dependents.insert(service).second)
            {
                pending.push_back(service);
            }
        }
    }

    std::vector<std::wstring> order;
    NameSet placed;
    while (placed.size() < dependents.size())
    {
        // The first by name whose dependencies inside the set have all started;
        // a cycle (which Windows refuses) is broken by name order.
        const std::wstring* next = nullptr;
        for (const std::wstring& service : dependents)
        {
            if (placed.count(service) != 0)
            {
                continue;
            }
            bool ready = true;
            const auto found = dependencies.find(service);
            for (const std::wstring& need : found->second)
            {
                ready = ready && (dependents.count(need) == 0 || placed.count(need) != 0);
            }
            if (ready)
            {
                next = &service;
                break;
            }
        }
        if (next == nullptr)
        {
            for (const std::wstring& service : dependents)
            {
                if (placed.count(service) == 0)
                {
                    next = &service;
                    break;
                }
            }
        }
        placed.insert(*next);
        order.push_back(*next);
    }
    return order;
}

bool MatchesState(DWORD state, DWORD filter)
{
    const bool inactive = state == SERVICE_STOPPED;
    return (inactive && (filter & SERVICE_INACTIVE) != 0) || (!inactive && (filter & SERVICE_ACTIVE) != 0);
}

struct Dependent
{
    std::wstring name;
    std::wstring displayName;
    SERVICE_STATUS status;
};

} // namespace

BOOL WINAPI EnumDependentServicesFromRegistry(SC_HANDLE hService, DWORD dwServiceState,
                                              LPENUM_SERVICE_STATUSW lpServices, DWORD cbBufSize,
                                              LPDWORD pcbBytesNeeded, LPDWORD lpServicesReturned)
{
    {
        std::lock_guard<std::mutex> lock(g_CallsLock);
        g_Calls.push_back(dwServiceState);
    }
    if (pcbBytesNeeded == nullptr || lpServicesReturned == nullptr || dwServiceState == 0 ||
        (dwServiceState & ~SERVICE_STATE_ALL) != 0)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    std::wstring target;
    const DWORD nameError = ServiceKeyName(manager.Get(), hService, target);
    if (nameError != ERROR_SUCCESS)
    {
        ::SetLastError(nameError);
        return FALSE;
    }

    std::vector<Dependent> found;
    const std::vector<std::wstring> startOrder = DependentsInStartOrder(ReadDependencies(), target);
    for (auto it = startOrder.rbegin(); it != startOrder.rend(); ++it)
    {
        // Services being deleted (or keys that are no service) are not reported.
        const CServiceHandle dependent(::OpenServiceW(manager.Get(), it->c_str(), SERVICE_QUERY_STATUS));
        Dependent entry{*it, *it, {}};
        if (dependent.Get() == nullptr || !::QueryServiceStatus(dependent.Get(), &entry.status) ||
            !MatchesState(entry.status.dwCurrentState, dwServiceState))
        {
            continue;
        }
        wchar_t display[257] = {};
        DWORD length = 256;
        if (::GetServiceDisplayNameW(manager.Get(), it->c_str(), display, &length))
        {
            entry.displayName = display;
        }
        found.push_back(entry);
    }

    DWORD needed = static_cast<DWORD>(found.size() * sizeof(ENUM_SERVICE_STATUSW));
    for (const Dependent& entry : found)
    {
        needed += static_cast<DWORD>((entry.name.size() + 1 + entry.displayName.size() + 1) * sizeof(wchar_t));
    }
    if (cbBufSize < needed || (needed != 0 && lpServices == nullptr))
    {
        *pcbBytesNeeded = needed;
        *lpServicesReturned = 0;
        ::SetLastError(ERROR_MORE_DATA);
        return FALSE;
    }

    auto* text = reinterpret_cast<wchar_t*>(lpServices + found.size());
    const auto copy = [&text](const std::wstring& value) {
        wchar_t* start = text;
        std::wmemcpy(text, value.c_str(), value.size() + 1);
        text += value.size() + 1;
        return start;
    };
    for (size_t i = 0; i < found.size(); ++i)
    {
        lpServices[i].lpServiceName = copy(found[i].name);
        lpServices[i].lpDisplayName = copy(found[i].displayName);
        lpServices[i].ServiceStatus = found[i].status;
    }
    *pcbBytesNeeded = 0;
    *lpServicesReturned = static_cast<DWORD>(found.size());
    return TRUE;
}

CDependentsSeam::CDependentsSeam(HMODULE hModule)
    : m_Patch(hModule, "ADVAPI32.dll", "EnumDependentServicesW",
              reinterpret_cast<const void*>(&EnumDependentServicesFromRegistry))
{
    ClearCalls();
}

CDependentsSeam::~CDependentsSeam() = default;

std::vector<DWORD> CDependentsSeam::Calls()
{
    std::lock_guard<std::mutex> lock(g_CallsLock);
    return g_Calls;
}

void CDependentsSeam::ClearCalls()
{
    std::lock_guard<std::mutex> lock(g_CallsLock);
    g_Calls.clear();
}

} // namespace QcTest
