#include "services/DependentsSeam.h"

#include <cwchar>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "services/TestServices.h"

namespace QcTest {

namespace {

std::mutex g_CallsLock;
std::vector<DWORD> g_Calls;

struct NoCaseLess
{
    bool operator()(const std::wstring& left, const std::wstring& right) const
    {
        return ::_wcsicmp(left.c_str(), right.c_str()) < 0;
    }
};

using NameSet = std::set<std::wstring, NoCaseLess>;
// Service -> the services it depends on, in name order.
using DependencyMap = std::map<std::wstring, NameSet, NoCaseLess>;

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
    wchar_t key[257] = {};
    DWORD length = 256;
    if (!::QueryServiceConfigW(hService, config, needed, &needed) ||
        !::GetServiceKeyNameW(hManager, config->lpDisplayName, key, &length))
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
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services", 0, KEY_READ, &hServices) !=
        ERROR_SUCCESS)
    {
        return dependencies;
    }
    wchar_t name[256] = {};
    for (DWORD index = 0, length = 256;
         ::RegEnumKeyExW(hServices, index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index, length = 256)
    {
        wchar_t value[4096] = {};
        DWORD size = sizeof(value) - 2 * sizeof(wchar_t);
        if (::RegGetValueW(hServices, name, L"DependOnService", RRF_RT_REG_MULTI_SZ, nullptr, value, &size) !=
            ERROR_SUCCESS)
        {
            continue;
        }
        for (const wchar_t* entry = value; *entry != L'\0'; entry += std::wcslen(entry) + 1)
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

// Appends the services that depend on `service`, each after all that depend on
// it; those of one service in reverse name order, so that they start by name.
void CollectDependents(const DependencyMap& dependencies, const std::wstring& service, NameSet& seen,
                       std::vector<std::wstring>& order)
{
    for (auto it = dependencies.rbegin(); it != dependencies.rend(); ++it)
    {
        if (it->second.count(service) != 0 && seen.insert(it->first).second)
        {
            CollectDependents(dependencies, it->first, seen, order);
            order.push_back(it->first);
        }
    }
}

struct Dependent
{
    std::wstring name;
    std::wstring displayName;
    SERVICE_STATUS status;
};

BOOL WINAPI EnumDependentServicesFromRegistry(SC_HANDLE hService, DWORD dwServiceState,
                                              LPENUM_SERVICE_STATUSW lpServices, DWORD cbBufSize,
                                              LPDWORD pcbBytesNeeded, LPDWORD lpServicesReturned)
{
    {
        const std::lock_guard<std::mutex> lock(g_CallsLock);
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
    const DWORD nameError = ServiceKeyName(manager.get(), hService, target);
    if (nameError != ERROR_SUCCESS)
    {
        ::SetLastError(nameError);
        return FALSE;
    }

    NameSet seen{target};
    std::vector<std::wstring> order;
    CollectDependents(ReadDependencies(), target, seen, order);
    std::vector<Dependent> found;
    DWORD needed = 0;
    for (const std::wstring& name : order)
    {
        // Keys that are no service (or one being deleted) are not reported.
        const CServiceHandle dependent(::OpenServiceW(manager.get(), name.c_str(), SERVICE_QUERY_STATUS));
        Dependent entry{name, name, {}};
        wchar_t display[257] = {};
        DWORD length = 256;
        if (!dependent || !::QueryServiceStatus(dependent.get(), &entry.status) ||
            (dwServiceState & (entry.status.dwCurrentState == SERVICE_STOPPED ? SERVICE_INACTIVE : SERVICE_ACTIVE)) ==
                0)
        {
            continue;
        }
        if (::GetServiceDisplayNameW(manager.get(), name.c_str(), display, &length))
        {
            entry.displayName = display;
        }
        needed += static_cast<DWORD>(sizeof(ENUM_SERVICE_STATUSW) +
                                     (entry.name.size() + entry.displayName.size() + 2) * sizeof(wchar_t));
        found.push_back(entry);
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
        wchar_t* start = std::wmemcpy(text, value.c_str(), value.size() + 1);
        text += value.size() + 1;
        return start;
    };
    for (size_t i = 0; i < found.size(); ++i)
    {
        lpServices[i] = {copy(found[i].name), copy(found[i].displayName), found[i].status};
    }
    *pcbBytesNeeded = 0;
    *lpServicesReturned = static_cast<DWORD>(found.size());
    return TRUE;
}

} // namespace

CDependentsSeam::CDependentsSeam(HMODULE hModule)
    : m_Patch(hModule, "ADVAPI32.dll", "EnumDependentServicesW",
              reinterpret_cast<const void*>(&EnumDependentServicesFromRegistry))
{
    ClearCalls();
}

std::vector<DWORD> CDependentsSeam::Calls()
{
    const std::lock_guard<std::mutex> lock(g_CallsLock);
    return g_Calls;
}

void CDependentsSeam::ClearCalls()
{
    const std::lock_guard<std::mutex> lock(g_CallsLock);
    g_Calls.clear();
}

} // namespace QcTest
