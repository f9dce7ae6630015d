// ServiceStart against real services: the states it meets, its waits and their limits.
#include "services/ServiceActionTests.h"

#include <chrono>
#include <thread>

namespace QcTest {
namespace {

using Lines = std::vector<std::wstring>;

class ServiceStartAction : public ServiceActionTest
{
};

TEST_F(ServiceStartAction, RunningServiceWarnsAlreadyStartedAndSucceedsWithoutPolling)
{
    CTestService& service = Add(L"S");
    ASSERT_TRUE(service.Start());
    const CStatusQueryCounter queries(Module());
    ASSERT_TRUE(queries.IsInstalled());

    // TIMEOUT=0 would fail any wait: there must be none.
    const ActionOutcome outcome = Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=0");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" is already started")}));
    EXPECT_EQ(queries.Count(), 1);
    EXPECT_STATE(service, SERVICE_RUNNING);
}

TEST_F(ServiceStartAction, StoppedServiceIsStartedAndAwaitedUntilRunning)
{
    CTestService& service = Add(L"S", L"--start-delay=2000");

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_STATE(service, SERVICE_RUNNING);
    EXPECT_EQ(Journal(), Lines({service.Name() + L" running"}));
}

TEST_F(ServiceStartAction, StartPendingServiceWarnsAndIsAwaitedWithoutSecondStart)
{
    CTestService& service = Add(L"S", L"--start-delay=hold");
    ASSERT_TRUE(service.Start(false));
    ASSERT_EQ(service.State(), static_cast<DWORD>(SERVICE_START_PENDING));

    // Still pending at the first poll, running by the second.
    const ActionOutcome outcome = RunAndContinueAfter(
        "ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30", service, 2);

    // A second StartService would have failed with 1056 and said so.
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" pending start")}));
    EXPECT_STATE(service, SERVICE_RUNNING);
    EXPECT_EQ(Journal(), Lines({service.Name() + L" running"}));
}

TEST_F(ServiceStartAction, StartPendingThatEndsStoppedIsStartedByTheAction)
{
    // The first start ever gives up after its pending state (and the second
    // finds the continue event already set, so it runs at once).
    CTestService& service = Add(L"S", L"--start-delay=hold --abort-first-start");
    ASSERT_TRUE(service.Start(false));
    ASSERT_EQ(service.State(), static_cast<DWORD>(SERVICE_START_PENDING));

    const ActionOutcome outcome = RunAndContinueAfter(
        "ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30", service, 2);

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" pending start")}));
    EXPECT_STATE(service, SERVICE_RUNNING);
    EXPECT_EQ(Journal(), Lines({service.Name() + L" stopped", service.Name() + L" running"}));
}

TEST_F(ServiceStartAction, TimeoutFoundOnAPollWinsOverTheStateReadOnIt)
{
    // Running by the first poll, yet 1.5 s are more than TIMEOUT=0.
    CTestService& service = Add(L"S");

    const ActionOutcome outcome = Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=0");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Error(service.Name() + L" timeout, after 0 seconds")}));
    EXPECT_STATE(service, SERVICE_RUNNING);
}

TEST_F(ServiceStartAction, PausedServiceWarnsUnknownStatusAndItsStartFails)
{
    CTestService& service = Add(L"S", L"--pausable");
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(service.Pause());

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Warning(service.Name() + L" status, unknown #7"),
                                           Error(L"StartService failed with error 1056")}));
    EXPECT_STATE(service, SERVICE_PAUSED);
}

TEST_F(ServiceStartAction, StartFailureIsAnErrorWithTheSystemCode)
{
    ServiceSpec spec;
    spec.name = Name(L"S");
    spec.missingProgram = true;
    CTestService& service = Add(spec);

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Error(L"StartService failed with error 2")}));
    EXPECT_STATE(service, SERVICE_STOPPED);
}

// TIMEOUT values that convert to 0: every wait ends at its first poll.
class ServiceStartZeroTimeout : public ServiceActionTest, public ::testing::WithParamInterface<const wchar_t*>
{
};

TEST_P(ServiceStartZeroTimeout, TimesOutAtTheFirstPollWithAnError)
{
    CTestService& service = Add(L"S", L"--start-delay=hold");

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=" + GetParam());

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Error(service.Name() + L" timeout, after 0 seconds")}));
    EXPECT_STATE(service, SERVICE_START_PENDING);
}

INSTANTIATE_TEST_SUITE_P(ZeroEmptyOrJunk, ServiceStartZeroTimeout, ::testing::Values(L"0", L"", L"junk"));

TEST_F(ServiceStartAction, TimeoutInMillisecondsWrapsIn32Bits)
{
    // 4294969 s * 1000 = 4294969000 ms, which is 1704 ms in 32 bits: the wait
    // survives the poll at 1.5 s and times out at the next one, reported as
    // 1 second. Without the wrap it would never time out.
    CTestService& service = Add(L"S", L"--start-delay=hold");

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=4294969");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(WorkerLines(outcome), Lines({Error(service.Name() + L" timeout, after 1 seconds")}));
    EXPECT_STATE(service, SERVICE_START_PENDING);
}

TEST_F(ServiceStartAction, TimeoutOfMinusOneIsInEffectNoLimit)
{
    // -1 s is 4294966296 ms; read as 0 it would fail the first poll.
    CTestService& service = Add(L"S", L"--start-delay=2000");

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;TIMEOUT=-1");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_STATE(service, SERVICE_RUNNING);
}

TEST_F(ServiceStartAction, WithoutTimeoutKeepsPollingUntilTheServiceRuns)
{
    CTestService& service = Add(L"S", L"--start-delay=hold");
    const CStatusQueryCounter queries(Module());
    ASSERT_TRUE(queries.IsInstalled());

    // Three pairs are required, so a stand-in takes TIMEOUT's place.
    std::future<ActionOutcome> call =
        RunAsync("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;UNUSED=1");

    // The first query reads the state; every later one is a poll.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (queries.Count() < 5 && std::chrono::steady_clock::now() < giveUp)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_GE(queries.Count(), 5);
    EXPECT_EQ(call.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "returned while pending";
    EXPECT_STATE(service, SERVICE_START_PENDING);

    service.Continue();
    ASSERT_EQ(call.wait_for(std::chrono::minutes(1)), std::future_status::ready);
    const ActionOutcome outcome = call.get();
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(WorkerLines(outcome), Lines());
    EXPECT_STATE(service, SERVICE_RUNNING);
}

} // namespace
} // namespace QcTest
