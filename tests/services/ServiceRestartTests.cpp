// ServiceRestart, the service name checks of all three actions, and the log
// lines as the installer receives them.
#include "services/ServiceActionTests.h"

#include <algorithm>
#include <regex>

namespace QcTest {
namespace {

using Lines = std::vector<std::wstring>;

class ServiceRestartAction : public ServiceActionTest
{
};

TEST_F(ServiceRestartAction, StoppedServiceWarnsAlreadyStoppedAndIsStarted)
{
    CTestService& service = Add(L"S");

    const ActionOutcome outcome =
        Run("ServiceRestart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" is already stopped")}));
    EXPECT_STATE(service, SERVICE_RUNNING);
    EXPECT_EQ(Journal(), Lines({service.Name() + L" running"}));
}

TEST_F(ServiceRestartAction, RunningServiceIsStoppedThenStarted)
{
    CTestService& service = Add(L"S");
    ASSERT_TRUE(service.Start());
    ClearJournal();

    const ActionOutcome outcome =
        Run("ServiceRestart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_STATE(service, SERVICE_RUNNING);
    EXPECT_EQ(Journal(), Lines({service.Name() + L" stopped", service.Name() + L" running"}));
}

TEST_F(ServiceRestartAction, FailedStopIsNotFollowedByAStart)
{
    CTestService& service = Add(L"S", L"--refuse-stop");
    ASSERT_TRUE(service.Start());
    ClearJournal();

    const ActionOutcome outcome =
        Run("ServiceRestart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    // A start would have warned " is already started".
    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Error(L"ControlService failed with error 1052")}));
    EXPECT_STATE(service, SERVICE_RUNNING);
    EXPECT_EQ(Journal(), Lines());
}

TEST_F(ServiceRestartAction, WithDependentsRestartsExactlyThoseThatRanSkippingDemandStart)
{
    CTestService& service = Add(L"S");
    CTestService& d1 = Add(L"D1", L"", SERVICE_AUTO_START, {service.Name()});
    CTestService& d2 = Add(L"D2", L"", SERVICE_AUTO_START, {service.Name()});
    CTestService& d3 = Add(L"D3", L"", SERVICE_DEMAND_START, {service.Name()});
    CTestService& d4 = Add(L"D4", L"", SERVICE_AUTO_START, {d1.Name()});
    for (CTestService* running : {&service, &d1, &d3, &d4})
    {
        ASSERT_TRUE(running->Start()) << ::testing::PrintToString(running->Name());
    }
    ClearJournal();

    const ActionOutcome outcome =
        Run("ServiceRestart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    // Active dependents in reverse start order: D4 (needs D1), D3, D1. They stop
    // in that order before the service and start again in the reverse order
    // after it, from the list the stop enumerated; D3 only starts on demand and
    // D2 did not run.
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(d3.Name() + L" only starts on demand, will skip")}));
    EXPECT_EQ(Journal(), Lines({d4.Name() + L" stopped", d3.Name() + L" stopped", d1.Name() + L" stopped",
                                service.Name() + L" stopped", service.Name() + L" running", d1.Name() + L" running",
                                d4.Name() + L" running"}));
    // One enumeration (a size query and the read), by the stop; none by the start.
    EXPECT_EQ(CDependentsSeam::Calls(), std::vector<DWORD>({SERVICE_ACTIVE, SERVICE_ACTIVE}));
    EXPECT_STATE(service, SERVICE_RUNNING);
    EXPECT_STATE(d1, SERVICE_RUNNING);
    EXPECT_STATE(d2, SERVICE_STOPPED);
    EXPECT_STATE(d3, SERVICE_STOPPED);
    EXPECT_STATE(d4, SERVICE_RUNNING);
}

// The same name checks for all three actions.
class ServiceNameCheck : public ServiceActionTest, public ::testing::WithParamInterface<const char*>
{
};

TEST_P(ServiceNameCheck, UnknownServiceFailsAtOpenAndThenAtTheFirstQuery)
{
    const ActionOutcome outcome = Run(GetParam(), L";SERVICENAME=" + Name(L"Missing") + L";DEPENDENCIES=1;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome),
              Lines({Error(L"OpenService failed"), Error(L"QueryServiceStatus failed with error 6")}));
}

TEST_P(ServiceNameCheck, EmptyServiceNameIsRejectedBeforeAnyServiceCall)
{
    const ActionOutcome outcome = Run(GetParam(), L";SERVICENAME=;DEPENDENCIES=1;TIMEOUT=30");

    const Lines bodies = Bodies(outcome);
    EXPECT_EQ(outcome.result, 1603u);
    ASSERT_FALSE(bodies.empty());
    EXPECT_EQ(bodies.back(), L"[ERROR] Workbench (#) Argument[SERVICENAME] is invalid.");
    EXPECT_EQ(WorkerLines(outcome), Lines());
}

TEST_P(ServiceNameCheck, MissingServiceNameIsRejectedBeforeAnyServiceCall)
{
    const ActionOutcome outcome = Run(GetParam(), L";DEPENDENCIES=1;TIMEOUT=30;UNUSED=1");

    const Lines bodies = Bodies(outcome);
    EXPECT_EQ(outcome.result, 1603u);
    ASSERT_GE(bodies.size(), 2u);
    EXPECT_NE(std::find(bodies.begin(), bodies.end(), L"[ERROR] Workbench (#) Argument[SERVICENAME] = NOT DEFINED."),
              bodies.end());
    EXPECT_EQ(bodies.back(), L"[ERROR] Workbench (#) Argument[SERVICENAME] is invalid.");
    EXPECT_EQ(WorkerLines(outcome), Lines());
}

INSTANTIATE_TEST_SUITE_P(AllServiceActions, ServiceNameCheck,
                         ::testing::Values("ServiceStart", "ServiceStop", "ServiceRestart"));

class ServiceActionLog : public ServiceActionTest
{
};

TEST_F(ServiceActionLog, ControllerLinesFollowTheFrameWithPrefixesLevelAndSource)
{
    CTestService& service = Add(L"S");
    ASSERT_TRUE(service.Start());

    const ActionOutcome outcome = Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=5");

    const Lines bodies = Bodies(outcome);
    ASSERT_EQ(bodies.size(), 6u);
    EXPECT_EQ(bodies[0].rfind(L"Workbench (#) Custom Action Dll '", 0), 0u) << ::testing::PrintToString(bodies[0]);
    EXPECT_EQ(Lines(bodies.begin() + 1, bodies.end()),
              Lines({L"Workbench (#) Processing custom action: ServiceStart.",
                     L"Workbench (#) Argument[SERVICENAME] = " + service.Name() + L".",
                     L"Workbench (#) Argument[DEPENDENCIES] = 0.", L"Workbench (#) Argument[TIMEOUT] = 5.",
                     Warning(service.Name() + L" is already started")}));

    wchar_t ids[64] = {};
    _snwprintf(ids, 63, L"PID\\(0x%X\\) TID\\(0x%X\\) ", static_cast<unsigned>(::GetCurrentProcessId()),
               static_cast<unsigned>(outcome.threadId));
    const std::wregex raw(L"\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d " + std::wstring(ids) +
                          L"\\[WARNING\\] Daemon \\(\\d+\\) " + service.Name() + L" is already started\\.");
    EXPECT_TRUE(std::regex_match(outcome.lines.back(), raw)) << ::testing::PrintToString(outcome.lines.back());
}

} // namespace
} // namespace QcTest
