// Prints what the service controller's polling design costs: the wall time of
// a ServiceRestart of services that stop and start at once, and the number of
// status queries it makes, next to the same restart done directly with short
// polls. It measures, it asserts nothing.
//   QcServiceBenchmark.exe [rounds, default 3]
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "services/ServiceKit.h"
#include "support/ShippedDll.h"

namespace {

// The median wall time of `rounds` runs of `work`, in milliseconds.
double MedianMs(int rounds, const std::function<void()>& work)
{
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i)
    {
        const auto start = std::chrono::steady_clock::now();
        work();
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

void Await(SC_HANDLE hService, DWORD state)
{
    SERVICE_STATUS status{};
    while (::QueryServiceStatus(hService, &status) && status.dwCurrentState != state)
    {
        ::Sleep(10);
    }
}

// The shipped DLL's status queries, counted on their way to the service manager.
int g_StatusQueries = 0;

BOOL WINAPI CountedQuery(SC_HANDLE hService, LPSERVICE_STATUS pStatus)
{
    ++g_StatusQueries;
    return ::QueryServiceStatus(hService, pStatus);
}

// Prints the figures. The services it registers are deleted when it returns.
int Measure(int rounds, QcRunner::CustomActionFunction restart)
{
    QcTest::CTestServices services;
    QcTest::CTestService& service = services.Add(L"QcBench_S", L"", SERVICE_DEMAND_START, {});
    QcTest::CTestService& d1 = services.Add(L"QcBench_D1", L"", SERVICE_AUTO_START, {L"QcBench_S"});
    QcTest::CTestService& d2 = services.Add(L"QcBench_D2", L"", SERVICE_AUTO_START, {L"QcBench_S"});
    if (!service.Start() || !d1.Start() || !d2.Start())
    {
        std::fprintf(stderr, "cannot set up the services (%ls)\n", service.Error().c_str());
        return 1;
    }

    std::printf("Polls of the shipped DLL: every 1500 ms; a service with 2 dependents, all stop and start at once.\n");
    for (const wchar_t* dependencies : {L"0", L"1"})
    {
        UINT result = 0;
        int queries = 0;
        const double ms = MedianMs(rounds, [&] {
            QcRunner::CActionHost host;
            host.SetCustomActionData(std::wstring(L";SERVICENAME=QcBench_S;TIMEOUT=30;DEPENDENCIES=") + dependencies);
            const int before = g_StatusQueries;
            result = host.Call(restart);
            queries = g_StatusQueries - before;
        });
        const std::wstring label = std::wstring(L"ServiceRestart, DEPENDENCIES=") + dependencies;
        std::printf("%-44ls %8.0f ms wall (median of %d)   %3d status queries   result %u\n", label.c_str(), ms, rounds,
                    queries, result);
    }

    const QcTest::CServiceHandle hManager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const QcTest::CServiceHandle hService(
        ::OpenServiceW(hManager.Get(), service.Name().c_str(), SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP));
    const double direct = MedianMs(rounds, [&] {
        SERVICE_STATUS status{};
        ::ControlService(hService.Get(), SERVICE_CONTROL_STOP, &status);
        Await(hService.Get(), SERVICE_STOPPED);
        ::StartServiceW(hService.Get(), 0, nullptr);
        Await(hService.Get(), SERVICE_RUNNING);
    });
    std::printf("%-44s %8.0f ms wall (median of %d)\n", "Direct stop and start, 10 ms polls", direct, rounds);
    return 0;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    QcRunner::CActionLibrary library(QcTest::ShippedDllPath());
    const QcRunner::CustomActionFunction restart = library.Find("ServiceRestart");
    const QcTest::CServiceManagerSeam seam(library.Module());
    const QcTest::CImportPatch counter(library.Module(), "ADVAPI32.dll", "QueryServiceStatus",
                                       reinterpret_cast<const void*>(&CountedQuery));
    if (restart == nullptr || !seam.IsInstalled() || !counter.IsApplied())
    {
        std::fprintf(stderr, "cannot load ServiceRestart from the DLL\n");
        return 1;
    }
    const int exitCode = Measure(argc > 1 ? std::max(1, _wtoi(argv[1])) : 3, restart);

    // The manager removes a deleted service once its process is gone (it
    // lingers half a second after stopping) and this process, whose DLL keeps
    // service handles open, has exited: a prefix stopped sooner would keep them,
    // auto-start ones included.
    ::Sleep(1000);
    return exitCode;
}
