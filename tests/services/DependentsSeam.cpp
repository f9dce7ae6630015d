#include "services/DependentsSeam.h"

#include <cwchar>
#include <map>
#include <mutex>
#include <set>

#include "services/TestServices.h"

namespace QcTest {

namespace {

struct NoCaseLess
{
    bool operator()(const std::wstring& left, const std::wstring& right) const
    {
        return ::_wcsicmp(left.c_str(), right.c_str()) < 0;
    }
};
using NameSet = std::set<std::wstring, NoCaseLess>;

std::mutex g_Lock;
std::vector<DWORD> g_Calls;
// Service -> the services it depends on.
std::map<std::wstring, NameSet, NoCaseLess> g_Graph;

// Appends the services that depend on `service`, each after all that depend on
// it; those of one service in reverse name order, so that they start by name.
void CollectDependents(const std::wstring& service, NameSet& seen, std::vector<std::wstring>& order)
{
    for (auto it = g_Graph.rbegin(); it != g_Graph.rend(); ++it)
    {
        if (it->second.count(service) != 0 && seen.insert(it->first).second)
        {
            CollectDependents(it->first, seen, order);
            order.push_back(it->first);
        }
    }
}

BOOL WINAPI EnumDependentServicesFromGraph(SC_HANDLE hService, DWORD dwServiceState, LPENUM_SERVICE_STATUSW lpServices,
                                           DWORD cbBufSize, LPDWORD pcbBytesNeeded, LPDWORD lpServicesReturned)
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    g_Calls.push_back(dwServiceState);
    if (pcbBytesNeeded == nullptr || lpServicesReturned == nullptr || dwServiceState == 0 ||
        (dwServiceState & ~SERVICE_STATE_ALL) != 0)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // Test services carry their name as display name too.
    DWORD needed = 0;
    std::vector<BYTE> config(8192);
    if (!::QueryServiceConfigW(hService, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(config.data()), 8192, &needed))
    {
        return FALSE;
    }
    const std::wstring target = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(config.data())->lpDisplayName;
    NameSet seen{target};
    std::vector<std::wstring> order;
    CollectDependents(target, seen, order);

    std::vector<ENUM_SERVICE_STATUSW> found;
    const CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    for (std::wstring& name : order)
    {
        const CServiceHandle dependent(::OpenServiceW(manager.Get(), name.c_str(), SERVICE_QUERY_STATUS));
        ENUM_SERVICE_STATUSW entry{name.data(), name.data(), {}};
        if (dependent && ::QueryServiceStatus(dependent.Get(), &entry.ServiceStatus) &&
            (dwServiceState &
             (entry.ServiceStatus.dwCurrentState == SERVICE_STOPPED ? SERVICE_INACTIVE : SERVICE_ACTIVE)) != 0)
        {
            needed += static_cast<DWORD>(sizeof(entry) + 2 * (name.size() + 1) * sizeof(wchar_t));
            found.push_back(entry);
        }
    }
    if (cbBufSize < needed || (needed != 0 && lpServices == nullptr))
    {
        *pcbBytesNeeded = needed;
        *lpServicesReturned = 0;
        ::SetLastError(ERROR_MORE_DATA);
        return FALSE;
    }
    auto* text = reinterpret_cast<wchar_t*>(lpServices + found.size());
    const auto copy = [&text](const wchar_t* value) {
        wchar_t* start = std::wcscpy(text, value);
        text += std::wcslen(value) + 1;
        return start;
    };
    for (size_t i = 0; i < found.size(); ++i)
    {
        lpServices[i] = {copy(found[i].lpServiceName), copy(found[i].lpDisplayName), found[i].ServiceStatus};
    }
    *pcbBytesNeeded = 0;
    *lpServicesReturned = static_cast<DWORD>(found.size());
    return TRUE;
}

} // namespace

CDependentsSeam::CDependentsSeam(HMODULE hModule)
        : m_Patch(hModule, "ADVAPI32.dll", "EnumDependentServicesW",
                  reinterpret_cast<const void*>(&EnumDependentServicesFromGraph))
{
    ClearCalls();
}

void CDependentsSeam::Define(const std::wstring& service, const std::vector<std::wstring>& dependsOn)
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    g_Graph[service] = NameSet(dependsOn.begin(), dependsOn.end());
}

void CDependentsSeam::Forget(const std::wstring& service)
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    g_Graph.erase(service);
}

std::vector<DWORD> CDependentsSeam::Calls()
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    return g_Calls;
}

void CDependentsSeam::ClearCalls()
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    g_Calls.clear();
}

} // namespace QcTest
