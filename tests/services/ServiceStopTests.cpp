// ServiceStop against real services: the states it meets, its waits and their limits.
#include "services/ServiceActionTests.h"

#include <chrono>
#include <thread>

namespace QcTest {
namespace {

using Lines = std::vector<std::wstring>;

class ServiceStopAction : public ServiceActionTest
{
};

TEST_F(ServiceStopAction, StopWhenAlreadyStoppedLeavesDependentsAlone)
{
    CTestService& service = Add(L"S");
    CTestService& dependent = Add(L"D", L"", SERVICE_AUTO_START, {service.Name()});
    ASSERT_TRUE(dependent.Start());

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" is already stopped")}));
    EXPECT_STATE(service, SERVICE_STOPPED);
    EXPECT_STATE(dependent, SERVICE_RUNNING);
    EXPECT_TRUE(CDependentsSeam::Calls().empty()) << "dependents were enumerated";
}

TEST_F(ServiceStopAction, StopReportedByTheControlItselfNeedsNoPollEvenWithZeroTimeout)
{
    CTestService& service = Add(L"S");
    ASSERT_TRUE(service.Start());
    const CStatusQueryCounter queries(Module());
    ASSERT_TRUE(queries.IsInstalled());

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=0");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_EQ(queries.Count(), 1);
    EXPECT_STATE(service, SERVICE_STOPPED);
}

TEST_F(ServiceStopAction, SlowStopIsAwaitedUntilStopped)
{
    CTestService& service = Add(L"S", L"--stop-delay=2000");
    ASSERT_TRUE(service.Start());

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_STATE(service, SERVICE_STOPPED);
}

TEST_F(ServiceStopAction, StopPendingServiceWarnsAndIsAwaited)
{
    CTestService& service = Add(L"S", L"--stop-delay=hold");
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(service.RequestStop());
    ASSERT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOP_PENDING));

    // Still pending at the first poll, stopped by the second.
    const ActionOutcome outcome = RunAndContinueAfter(
        "ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30", service, 2);

    // A second stop control would have failed and said so.
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" pending stop")}));
    EXPECT_STATE(service, SERVICE_STOPPED);
}

TEST_F(ServiceStopAction, PausedServiceWarnsUnknownStatusAndIsStopped)
{
    CTestService& service = Add(L"S", L"--pausable");
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(service.Pause());

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" status, unknown #7")}));
    EXPECT_STATE(service, SERVICE_STOPPED);
}

TEST_F(ServiceStopAction, RefusedStopControlIsAnError)
{
    CTestService& service = Add(L"S", L"--refuse-stop");
    ASSERT_TRUE(service.Start());

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Error(L"ControlService failed with error 1052")}));
    EXPECT_STATE(service, SERVICE_RUNNING);
}

TEST_F(ServiceStopAction, ZeroTimeoutFailsTheFirstPollWithAnError)
{
    CTestService& service = Add(L"S", L"--stop-delay=hold");
    ASSERT_TRUE(service.Start());

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=0");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Error(service.Name() + L" timeout, after 0 seconds")}));
    EXPECT_STATE(service, SERVICE_STOP_PENDING);
}

TEST_F(ServiceStopAction, WithoutTimeoutKeepsPollingUntilTheServiceStops)
{
    CTestService& service = Add(L"S", L"--stop-delay=hold");
    ASSERT_TRUE(service.Start());
    const CStatusQueryCounter queries(Module());
    ASSERT_TRUE(queries.IsInstalled());

    std::future<ActionOutcome> call =
        RunAsync("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;UNUSED=1");

    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (queries.Count() < 5 && std::chrono::steady_clock::now() < giveUp)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_GE(queries.Count(), 5);
    EXPECT_EQ(call.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "returned while pending";
    EXPECT_STATE(service, SERVICE_STOP_PENDING);

    service.Continue();
    ASSERT_EQ(call.wait_for(std::chrono::minutes(1)), std::future_status::ready);
    const ActionOutcome outcome = call.get();
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_STATE(service, SERVICE_STOPPED);
}

} // namespace
} // namespace QcTest
