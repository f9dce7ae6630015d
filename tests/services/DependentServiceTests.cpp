// The dependents of a service: which are stopped and started, in which order,
// and how their failures and time-outs are reported without failing the action.
#include "services/ServiceActionTests.h"

#include <chrono>
#include <thread>

namespace QcTest {
namespace {

using Lines = std::vector<std::wstring>;

class DependentServices : public ServiceActionTest
{
};

TEST_F(DependentServices, StopStopsActiveDependentsInEnumerationOrderBeforeTheService)
{
    CTestService& service = Add(L"S");
    CTestService& d1 = Add(L"D1", L"", SERVICE_AUTO_START, {service.Name()});
    CTestService& d2 = Add(L"D2", L"", SERVICE_AUTO_START, {d1.Name()});
    CTestService& d3 = Add(L"D3", L"", SERVICE_AUTO_START, {service.Name()});
    CTestService& idle = Add(L"D4", L"", SERVICE_AUTO_START, {service.Name()});
    for (CTestService* running : {&service, &d1, &d2, &d3})
    {
        ASSERT_TRUE(running->Start()) << ::testing::PrintToString(running->Name());
    }
    ClearJournal();

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    // Start order D1, D2 (needs D1), D3: stopped as enumerated, D3 first.
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_EQ(Journal(), Lines({d3.Name() + L" stopped", d2.Name() + L" stopped", d1.Name() + L" stopped",
                                service.Name() + L" stopped"}));
    EXPECT_EQ(CDependentsSeam::Calls(), std::vector<DWORD>({SERVICE_ACTIVE, SERVICE_ACTIVE}));
    EXPECT_STATE(idle, SERVICE_STOPPED);
}

TEST_F(DependentServices, StartOfARunningServiceStartsItsInactiveDependentsInStartOrder)
{
    CTestService& service = Add(L"S");
    CTestService& d1 = Add(L"D1", L"", SERVICE_AUTO_START, {service.Name()});
    CTestService& d2 = Add(L"D2", L"", SERVICE_AUTO_START, {d1.Name()});
    CTestService& active = Add(L"D3", L"", SERVICE_AUTO_START, {service.Name()});
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(active.Start());
    ClearJournal();

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    // Only the inactive ones are enumerated: D3 is not met at all.
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" is already started")}));
    EXPECT_EQ(Journal(), Lines({d1.Name() + L" running", d2.Name() + L" running"}));
    EXPECT_EQ(CDependentsSeam::Calls(), std::vector<DWORD>({SERVICE_INACTIVE, SERVICE_INACTIVE}));
    EXPECT_STATE(d1, SERVICE_RUNNING);
    EXPECT_STATE(d2, SERVICE_RUNNING);
}

TEST_F(DependentServices, DemandStartDependentIsSkippedWithAWarning)
{
    CTestService& service = Add(L"S");
    CTestService& dependent = Add(L"D", L"", SERVICE_DEMAND_START, {service.Name()});
    ASSERT_TRUE(service.Start());

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" is already started"),
                                           Warning(dependent.Name() + L" only starts on demand, will skip")}));
    EXPECT_STATE(dependent, SERVICE_STOPPED);
}

TEST_F(DependentServices, DependentStopTimeoutIsAWarningAndTheWalkGoesOn)
{
    CTestService& service = Add(L"S");
    CTestService& d1 = Add(L"D1", L"--stop-delay=500", SERVICE_AUTO_START, {service.Name()});
    CTestService& slow = Add(L"D2", L"--stop-delay=hold", SERVICE_AUTO_START, {d1.Name()});
    for (CTestService* running : {&service, &d1, &slow})
    {
        ASSERT_TRUE(running->Start()) << ::testing::PrintToString(running->Name());
    }

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=3");

    // D2 comes first and times out; D1 and the service stop anyway. D1 was
    // running, so its wait is measured afresh and passes its first poll.
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(slow.Name() + L" timeout, after 3 seconds")}));
    EXPECT_STATE(slow, SERVICE_STOP_PENDING);
    EXPECT_STATE(d1, SERVICE_STOPPED);
    EXPECT_STATE(service, SERVICE_STOPPED);
}

TEST_F(DependentServices, DependentStopTimeoutLeavesTheMeasureRunningForTheService)
{
    // No reset after a dependent's time-out: the service's own wait goes on
    // from the dependent's measure (3 s and more by then) and fails at its
    // first poll, although the service stops within half a second.
    CTestService& service = Add(L"S", L"--stop-delay=500");
    CTestService& slow = Add(L"D", L"--stop-delay=hold", SERVICE_AUTO_START, {service.Name()});
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(slow.Start());

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=2");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(slow.Name() + L" timeout, after 2 seconds"),
                                           Error(service.Name() + L" timeout, after 2 seconds")}));
    EXPECT_STATE(slow, SERVICE_STOP_PENDING);
    EXPECT_TRUE(service.WaitForState(SERVICE_STOPPED, 60000)) << "its stop went on after the time-out";
}

TEST_F(DependentServices, DependentStartTimeoutIsAnErrorAndTheWalkGoesOn)
{
    CTestService& service = Add(L"S");
    CTestService& slow = Add(L"D1", L"--start-delay=hold", SERVICE_AUTO_START, {service.Name()});
    CTestService& d2 = Add(L"D2", L"", SERVICE_AUTO_START, {service.Name()});
    ASSERT_TRUE(service.Start());

    // D1 starts first and never gets there; D2 is started after D1's time-out.
    // 4 s leave D2's first poll (at 1.5 s) well inside the limit.
    const ActionOutcome outcome = Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=4");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" is already started"),
                                           Error(slow.Name() + L" timeout, after 4 seconds")}));
    EXPECT_STATE(slow, SERVICE_START_PENDING);
    EXPECT_STATE(d2, SERVICE_RUNNING);
}

TEST_F(DependentServices, DisabledDependentIsSkippedAndTheWalkGoesOn)
{
    CTestService& service = Add(L"S");
    CTestService& disabled = Add(L"D1", L"", SERVICE_DISABLED, {service.Name()});
    CTestService& d2 = Add(L"D2", L"", SERVICE_AUTO_START, {service.Name()});
    ASSERT_TRUE(service.Start());

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" is already started"),
                                           Error(L"StartService failed with error 1058")}));
    EXPECT_STATE(disabled, SERVICE_STOPPED);
    EXPECT_STATE(d2, SERVICE_RUNNING);
}

TEST_F(DependentServices, OtherDependentStartFailureEndsTheWalkButNotTheAction)
{
    // D1 reports SERVICE_STOPPED with an error from its ServiceMain, which
    // Wine's manager turns into StartService failing with 1053.
    CTestService& service = Add(L"S");
    Add(L"D1", L"--fail-start", SERVICE_AUTO_START, {service.Name()});
    CTestService& d2 = Add(L"D2", L"", SERVICE_AUTO_START, {service.Name()});
    ASSERT_TRUE(service.Start());

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" is already started"),
                                           Error(L"StartService failed with error 1053")}));
    EXPECT_STATE(d2, SERVICE_STOPPED);
}

TEST_F(DependentServices, DependentThatStoppedMeanwhileWarnsAlreadyStopped)
{
    // Enumerated while stopping (active), stopped by the time the walk reaches
    // it: D2 comes first and is held until D1 has stopped.
    CTestService& service = Add(L"S");
    CTestService& d1 = Add(L"D1", L"--stop-delay=hold", SERVICE_AUTO_START, {service.Name()});
    CTestService& d2 = Add(L"D2", L"--stop-delay=hold", SERVICE_AUTO_START, {d1.Name()});
    for (CTestService* running : {&service, &d1, &d2})
    {
        ASSERT_TRUE(running->Start()) << ::testing::PrintToString(running->Name());
    }
    ASSERT_TRUE(d1.RequestStop());
    ASSERT_EQ(d1.State(), static_cast<DWORD>(SERVICE_STOP_PENDING));

    std::future<ActionOutcome> call =
        RunAsync("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=60");
    EXPECT_TRUE(d2.WaitForState(SERVICE_STOP_PENDING, 60000));
    d1.Continue();
    EXPECT_TRUE(d1.WaitForState(SERVICE_STOPPED, 60000));
    d2.Continue();
    ASSERT_EQ(call.wait_for(std::chrono::minutes(1)), std::future_status::ready);
    const ActionOutcome outcome = call.get();

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(d1.Name() + L" is already stopped")}));
    EXPECT_STATE(d2, SERVICE_STOPPED);
    EXPECT_STATE(service, SERVICE_STOPPED);
}

// DEPENDENCIES values other than exactly "1".
class DependenciesValue : public ServiceActionTest, public ::testing::WithParamInterface<const wchar_t*>
{
};

TEST_P(DependenciesValue, OtherThanExactlyOneLeavesDependentsAlone)
{
    CTestService& service = Add(L"S");
    CTestService& dependent = Add(L"D", L"", SERVICE_AUTO_START, {service.Name()});
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(dependent.Start());

    const ActionOutcome outcome =
        Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=" + GetParam() + L";TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_TRUE(CDependentsSeam::Calls().empty()) << "dependents were enumerated";
    EXPECT_STATE(service, SERVICE_STOPPED);
    EXPECT_STATE(dependent, SERVICE_RUNNING);
}

INSTANTIATE_TEST_SUITE_P(NotOne, DependenciesValue, ::testing::Values(L"0", L"true", L"yes", L"01", L"", L"11"));

} // namespace
} // namespace QcTest
