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
#include <string>
#include <vector>

#include "ActionHost.h"
#include "services/DependentsSeam.h"
#include "services/StatusQueryCounter.h"
#include "services/TestServices.h"
#include "support/ShippedDll.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Figure
{
    double milliseconds = 0;
    int queries = 0;
};

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// One ServiceRestart through a fresh installer session.
Figure Restart(QcRunner::CustomActionFunction action, const QcTest::CStatusQueryCounter& counter,
               const std::wstring& data, UINT& result)
{
    QcRunner::CActionHost host;
    host.SetCustomActionData(data);
    const int before = counter.Count();
    const auto start = Clock::now();
    result = host.Call(action);
    const auto end = Clock::now();
    return {std::chrono::duration<double, std::milli>(end - start).count(), counter.Count() - before};
}

// The same stop and start without the action, polling every 10 ms.
double DirectRestart(const std::wstring& name)
{
    const auto start = Clock::now();
    SC_HANDLE hManager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE hService = ::OpenServiceW(hManager, name.c_str(), SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP);
    SERVICE_STATUS status{};
    ::ControlService(hService, SERVICE_CONTROL_STOP, &status);
    while (::QueryServiceStatus(hService, &status) && status.dwCurrentState != SERVICE_STOPPED)
    {
        ::Sleep(10);
    }
    ::StartServiceW(hService, 0, nullptr);
    while (::QueryServiceStatus(hService, &status) && status.dwCurrentState != SERVICE_RUNNING)
    {
        ::Sleep(10);
    }
    ::CloseServiceHandle(hService);
    ::CloseServiceHandle(hManager);
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void Report(const char* what, QcRunner::CustomActionFunction action, const QcTest::CStatusQueryCounter& counter,
            const std::wstring& data, int rounds)
{
    std::vector<double> times;
    int queries = 0;
    UINT result = 0;
    for (int i = 0; i < rounds; ++i)
    {
        const Figure figure = Restart(action, counter, data, result);
        times.push_back(figure.milliseconds);
        queries = figure.queries;
    }
    std::printf("%-44s %8.0f ms wall (median of %d)   %3d status queries   result %u\n", what, Median(times), rounds,
                queries, result);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const int rounds = argc > 1 ? std::max(1, _wtoi(argv[1])) : 3;
    QcRunner::CActionLibrary library(QcTest::ShippedDllPath());
    const QcRunner::CustomActionFunction restart = library.Find("ServiceRestart");
    if (restart == nullptr)
    {
        std::fprintf(stderr, "cannot load ServiceRestart from the DLL\n");
        return 1;
    }
    const QcTest::CDependentsSeam seam(library.Module());
    const QcTest::CStatusQueryCounter counter(library.Module());

    QcTest::CTestServices services;
    QcTest::ServiceSpec spec;
    spec.name = L"QcBench_S";
    QcTest::CTestService& service = services.Add(spec);
    spec.startType = SERVICE_AUTO_START;
    spec.dependsOn = {L"QcBench_S"};
    spec.name = L"QcBench_D1";
    QcTest::CTestService& d1 = services.Add(spec);
    spec.name = L"QcBench_D2";
    QcTest::CTestService& d2 = services.Add(spec);
    if (!seam.IsInstalled() || !counter.IsInstalled() || !service.Start() || !d1.Start() || !d2.Start())
    {
        std::fprintf(stderr, "cannot set up the services (%ls)\n", service.Error().c_str());
        return 1;
    }

    std::printf("Poll interval of the shipped DLL: 1500 ms; the services stop and start at once.\n");
    Report("ServiceRestart, DEPENDENCIES=0", restart, counter,
           L";SERVICENAME=QcBench_S;DEPENDENCIES=0;TIMEOUT=30", rounds);
    Report("ServiceRestart, DEPENDENCIES=1, 2 dependents", restart, counter,
           L";SERVICENAME=QcBench_S;DEPENDENCIES=1;TIMEOUT=30", rounds);

    std::vector<double> direct;
    for (int i = 0; i < rounds; ++i)
    {
        direct.push_back(DirectRestart(service.Name()));
    }
    std::printf("%-44s %8.0f ms wall (median of %d)\n", "Direct stop and start, 10 ms polls", Median(direct), rounds);
    return 0;
}
