// The shipped DLL's service actions, through real installer sessions, against real services of the run's Wine prefix:
// only the dependent enumeration, which Wine stubs, is answered by the test (ServiceKit.h).
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cwctype>
#include <fstream>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "services/ServiceKit.h"
#include "support/ActionCall.h"

namespace QcTest {
namespace {

enum : DWORD
{
    Stopped = SERVICE_STOPPED,
    StartPending = SERVICE_START_PENDING,
    StopPending = SERVICE_STOP_PENDING,
    Running = SERVICE_RUNNING,
    Paused = SERVICE_PAUSED,
    Auto = SERVICE_AUTO_START,
    Demand = SERVICE_DEMAND_START,
    Disabled = SERVICE_DISABLED
};

// The controller's entries, as Body() renders them.
const auto Warning = [](const std::wstring& text) { return L"[WARNING] Daemon (#) " + text + L"."; };
const auto Error = [](const std::wstring& text) { return L"[ERROR] Daemon (#) " + text + L"."; };

// The line of the controller's source that an entry names, read from QC_SOURCE_DIR (a Unix path: Wine maps the root
// to Z:); empty for a line the file does not have.
std::wstring DaemonSourceLineOf(const std::wstring& line)
{
    const size_t source = line.find(L"Daemon (");
    const char* root = std::getenv("QC_SOURCE_DIR");
    std::ifstream file(std::string("Z:") + (root != nullptr ? root : "") + "/src/system/Daemon.cpp");
    std::string text;
    auto n = source == std::wstring::npos ? 0 : std::wcstoul(line.c_str() + source + 8, nullptr, 10);
    while (n != 0 && std::getline(file, text))
    {
        --n;
    }
    return n == 0 ? std::wstring(text.begin(), text.end()) : std::wstring();
}

// One test service: registered (after those it depends on), brought into `before`, and expected in `after` at the end.
struct ServiceSetup
{
    const wchar_t* role;
    DWORD before, after;
    const wchar_t* options = L""; // of QcTestService; a delay of 30000 ms outlasts every row's waits
    DWORD startType = Demand;
    Lines dependsOn = {};
};

// One row: an action on the first service that logs nothing of its own and changes no state, unless the row says
// otherwise. "{role}" in data, lines, journal and opens stands for that service's name.
struct Case
{
    const char* action;
    const char* behaviour;
    std::vector<ServiceSetup> services;
    std::wstring data = L";SERVICENAME={S};DEPENDENCIES=0;TIMEOUT=30"; // CustomActionData
    UINT result = 0;
    Lines lines{};                       // the controller's, without the frame's
    Lines journal{};                     // the services' transitions during the action, in order
    Lines opens{};                       // checked when given
    const wchar_t* atCallSite = nullptr; // the entry holding it names a line of the source that holds it too

    // The pairs after SERVICENAME={S}.
    Case& Args(const std::wstring& pairs) { return data = L";SERVICENAME={S};" + pairs, *this; }
    Case& Logs(Lines expected) { return lines = std::move(expected), *this; }
    Case& Fails(Lines expected) { return result = 1603, Logs(std::move(expected)); }
    Case& Journal(Lines expected) { return journal = std::move(expected), *this; }
    Case& Opens(Lines expected) { return opens = std::move(expected), *this; }
    Case& AtCallSite(const wchar_t* text) { return atCallSite = text, *this; }
};

const auto Row = [](const char* action, const char* behaviour, std::vector<ServiceSetup> services) {
    return Case{action, behaviour, std::move(services)};
};

class ServiceAction : public ::testing::TestWithParam<Case>
{
protected:
    // "QcSvc_<test>_<role>", unique per case: a deleted service stays until every handle to it is gone, and the
    // shipped DLL's CloseHandle releases none.
    static std::wstring Name(const std::wstring& role)
    {
        std::wstring name = L"QcSvc_";
        for (const char* p = ::testing::UnitTest::GetInstance()->current_test_info()->name(); *p != '\0'; ++p)
        {
            name += std::iswalnum(static_cast<wint_t>(*p)) ? static_cast<wchar_t>(*p) : L'_';
        }
        return name + L"_" + role;
    }
    // Each "{role}" replaced by that service's name.
    static Lines Expand(Lines texts)
    {
        for (std::wstring& text : texts)
        {
            for (size_t open = text.find(L'{'); open != std::wstring::npos; open = text.find(L'{', open))
            {
                const size_t close = text.find(L'}', open);
                text.replace(open, close - open + 1, Name(text.substr(open + 1, close - open - 1)));
            }
        }
        return texts;
    }

    CTestServices m_Services;
};

TEST_P(ServiceAction, Case)
{
    const Case& test = GetParam();
    std::vector<CTestService*> services;
    for (const ServiceSetup& setup : test.services)
    {
        Lines dependsOn(setup.dependsOn.size());
        std::transform(setup.dependsOn.begin(), setup.dependsOn.end(), dependsOn.begin(), Name);
        services.push_back(&m_Services.Add(Name(setup.role), setup.options, setup.startType, dependsOn));
        ASSERT_EQ(services.back()->Error(), L"") << setup.role;
        ASSERT_TRUE(setup.before == Stopped || services.back()->Start(setup.before != StartPending)) << setup.role;
        ASSERT_TRUE(setup.before != Paused || services.back()->Pause()) << setup.role;
        ASSERT_EQ(services.back()->State(), setup.before) << setup.role;
    }
    m_Services.ClearJournal();

    const CServiceManagerSeam seam(ShippedLibrary().Module());
    const QcRunner::CustomActionFunction action = ShippedLibrary().Find(test.action);
    ASSERT_TRUE(seam.IsInstalled() && action != nullptr) << "no DLL, or it imports not every function the seam needs";
    QcRunner::CActionHost host;
    ASSERT_TRUE(host.IsOpen() && host.SetCustomActionData(Expand({test.data})[0])) << host.Error();
    EXPECT_EQ(host.Call(action), test.result);

    Lines lines;
    for (const std::wstring& line : host.LogLines())
    {
        EXPECT_TRUE(IsWholeLine(line, ::GetCurrentThreadId())) << ::testing::PrintToString(line);
        if (Body(line).find(L"Workbench (#) ") == std::wstring::npos)
        {
            lines.push_back(Body(line));
        }
        // A helper that logs for its caller names the caller's line, not its own.
        if (test.atCallSite != nullptr && line.find(test.atCallSite) != std::wstring::npos)
        {
            EXPECT_NE(DaemonSourceLineOf(line).find(test.atCallSite), std::wstring::npos)
                << "the entry names source line: " << ::testing::PrintToString(DaemonSourceLineOf(line));
        }
    }
    EXPECT_EQ(lines, Expand(test.lines));

    // What every service action must do: sleep 1500 ms between polls, and release at the end with CloseHandle, in this
    // order: the manager, the service and the last dependent opened (each dependent's handle replaces the one before
    // without closing it).
    const ServiceCalls c = CServiceManagerSeam::Calls();
    EXPECT_TRUE(test.opens.empty() || c.opens == Expand(test.opens)) << ::testing::PrintToString(c.opens);
    EXPECT_EQ(c.sleeps, std::vector<DWORD>(c.sleeps.size(), 1500u));
    std::vector<HANDLE> released(c.opened.begin(), c.opened.begin() + std::min<size_t>(c.opened.size(), 2));
    if (c.opened.size() > 2)
    {
        released.push_back(c.opened.back());
    }
    released.erase(std::remove(released.begin(), released.end(), nullptr), released.end());
    EXPECT_EQ(c.closedByCloseHandle, released);

    EXPECT_EQ(m_Services.Journal(), Expand(test.journal));
    for (size_t i = 0; i < services.size(); ++i)
    {
        EXPECT_EQ(services[i]->State(), test.services[i].after) << test.services[i].role;
    }
}

const Case kCases[] = {
    // An empty limit converts to 0. Running by the first poll, yet 1.5 s are more than that.
    Row("ServiceStart", "EmptyTimeoutIsZeroAndWinsOverTheStateReadOnTheSamePoll", {{L"S", Stopped, Running}})
        .Args(L"DEPENDENCIES=0;TIMEOUT=")
        .Fails({Error(L"{S} timeout, after 0 seconds")})
        .Journal({L"{S} running"}),
    // 4294969 s are 4294969000 ms, 1704 ms in 32 bits: the poll at 1.5 s passes, the next times out. Without the wrap
    // the service would run, after 30 s.
    Row("ServiceStart", "TimeoutInMillisecondsWrapsIn32Bits", {{L"S", Stopped, StartPending, L"--start-delay=30000"}})
        .Args(L"DEPENDENCIES=0;TIMEOUT=4294969")
        .Fails({Error(L"{S} timeout, after 1 seconds")}),
    // Three pairs are required, so a stand-in takes TIMEOUT's place: no limit, and four polls find the service pending
    // before it runs, 7 s after its start. A second start control would fail and say so. Dependents are handled only
    // when DEPENDENCIES is exactly "1": D stays stopped.
    Row("ServiceStart", "StartPendingServiceWithoutTimeoutIsPolledWithoutASecondStartUntilItRuns",
        {{L"S", StartPending, Running, L"--start-delay=7000"}, {L"D", Stopped, Stopped, L"", Auto, {L"S"}}})
        .Args(L"DEPENDENCIES=01;UNUSED=1")
        .Logs({Warning(L"{S} pending start")})
        .Journal({L"{S} running"}),
    // The stop finds it stopped and leaves its running dependent alone; the start enumerates only inactive ones.
    Row("ServiceRestart", "RestartOfAStoppedServiceLeavesItsDependentsAloneAndStartsIt",
        {{L"S", Stopped, Running}, {L"D", Running, Running, L"", Auto, {L"S"}}})
        .Args(L"DEPENDENCIES=1;TIMEOUT=30")
        .Logs({Warning(L"{S} is already stopped")})
        .Journal({L"{S} running"}),
    // An unknown state does not stop the stop: the paused service refuses the control. A start would have warned
    // again; an empty DEPENDENCIES would have stopped D first. The entry is written through a helper, yet under the
    // line of the failed control itself.
    Row("ServiceRestart", "RestartOfAPausedServiceWhoseStopIsRefusedTriesNoStart",
        {{L"S", Paused, Paused}, {L"D", Running, Running, L"", Auto, {L"S"}}})
        .Args(L"DEPENDENCIES=;TIMEOUT=30")
        .Fails({Warning(L"{S} status, unknown #7"), Error(L"ControlService failed with error 1052")})
        .AtCallSite(L"ControlService failed with error "),
    Row("ServiceStart", "UnknownServiceOnStartFailsAtOpenAndAtTheFirstQuery", {})
        .Args(L"DEPENDENCIES=1;TIMEOUT=30")
        .Fails({Error(L"OpenService failed"), Error(L"QueryServiceStatus failed with error 6")}),
    // Active dependents in reverse start order: D4 (needs D1), D3, D1. They stop in that order before the service and
    // start again in the reverse order after it, from the list the stop enumerated; D3 only starts on demand and D2
    // did not run. The service is opened for everything, each dependent with only what its walk needs.
    Row("ServiceRestart", "RestartWithDependentsRestartsExactlyThoseThatRanSkippingDemandStart",
        {{L"S", Running, Running},
         {L"D1", Running, Running, L"", Auto, {L"S"}},
         {L"D2", Stopped, Stopped, L"", Auto, {L"S"}},
         {L"D3", Running, Stopped, L"", Demand, {L"S"}},
         {L"D4", Running, Running, L"", Auto, {L"D1"}}})
        .Args(L"DEPENDENCIES=1;TIMEOUT=30")
        .Logs({Warning(L"{D3} only starts on demand, will skip")})
        .Journal({L"{D4} stopped", L"{D3} stopped", L"{D1} stopped", L"{S} stopped", L"{S} running", L"{D1} running",
                  L"{D4} running"})
        .Opens({L"manager 0xF003F", L"{S} 0x3D", L"{D4} 0x25", L"{D3} 0x25", L"{D1} 0x25", L"{D1} 0x15", L"{D3} 0x15",
                L"{D4} 0x15"}),
    // Walked C, B, A. C times out (a warning) and the walk goes on; B stops at its control; A times out as well, and as
    // nothing resets the measure after that, the service's own wait goes on from it and fails at its first poll,
    // although the service stops a millisecond after its control. Long delays and a stop that needs no poll keep the
    // outcome the same on a busy machine.
    Row("ServiceStop", "DependentStopTimeoutLeavesTheMeasureRunningForTheService",
        {{L"S", Running, Stopped, L"--stop-delay=1"},
         {L"A", Running, StopPending, L"--stop-delay=30000", Auto, {L"S"}},
         {L"B", Running, Stopped, L"", Auto, {L"A"}},
         {L"C", Running, StopPending, L"--stop-delay=30000", Auto, {L"B"}}})
        .Args(L"DEPENDENCIES=1;TIMEOUT=2")
        .Fails({Warning(L"{C} timeout, after 2 seconds"), Warning(L"{A} timeout, after 2 seconds"),
                Error(L"{S} timeout, after 2 seconds")})
        .Journal({L"{B} stopped", L"{S} stopped"}),
    // C times out after three polls; paused B refuses the stop, which ends the walk and starts the measure afresh: the
    // service's wait has its full limit.
    Row("ServiceStop", "DependentStopFailureEndsTheWalkAndResetsTheMeasure",
        {{L"S", Running, Stopped, L"--stop-delay=1"},
         {L"A", Running, Running, L"", Auto, {L"S"}},
         {L"B", Paused, Paused, L"", Auto, {L"A"}},
         {L"C", Running, StopPending, L"--stop-delay=30000", Auto, {L"B"}}})
        .Args(L"DEPENDENCIES=1;TIMEOUT=4")
        .Logs({Warning(L"{C} timeout, after 4 seconds"), Error(L"ControlService failed with error 1052")})
        .Journal({L"{S} stopped"}),
    // Started in registration order: disabled D1 is skipped; D2's time-out is an error (a stopping dependent's is a
    // warning) and the walk goes on; any other failure ends it, so D4 is never tried. None fails the action. D3's
    // unknown switch ends its process before it reaches the manager, which Wine's answers with 1053 at once. 4 s leave
    // D2's first poll (at 1.5 s) well inside the limit.
    Row("ServiceStart", "DependentStartSkipsDisabledGoesOnAfterATimeoutAndEndsAtAnyOtherFailure",
        {{L"S", Running, Running},
         {L"D1", Stopped, Stopped, L"", Disabled, {L"S"}},
         {L"D2", Stopped, StartPending, L"--start-delay=30000", Auto, {L"S"}},
         {L"D3", Stopped, Stopped, L"--no-such-switch", Auto, {L"S"}},
         {L"D4", Stopped, Stopped, L"", Auto, {L"S"}}})
        .Args(L"DEPENDENCIES=1;TIMEOUT=4")
        .Logs({Warning(L"{S} is already started"), Error(L"StartService failed with error 1058"),
               Error(L"{D2} timeout, after 4 seconds"), Error(L"StartService failed with error 1053")}),
};

INSTANTIATE_TEST_SUITE_P(Cases, ServiceAction, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

} // namespace
} // namespace QcTest
