// The three service actions on one service: the states they meet, their waits
// and the limits of those waits, and service names that lead nowhere.
#include "services/ServiceActionFixture.h"
#include "support/LogCapture.h"
#include "system/Daemon.h"

namespace QcTest {
namespace {

struct OneServiceCase
{
    const char* behaviour;
    const char* action;
    const wchar_t* options; // of the service
    DWORD before;           // the state the service is brought into first
    const wchar_t* arguments;
    int continueAfterQueries; // 0: the service is not continued
    UINT result;
    Lines lines; // "{S}" is the service's name
    DWORD after;
    Lines journal; // its transitions during the action
};

class ServiceAction : public ServiceActionTest, public ::testing::WithParamInterface<OneServiceCase>
{
};

TEST_P(ServiceAction, OnOneService)
{
    const OneServiceCase& test = GetParam();
    CTestService& service = Add(L"S", test.options);
    if (test.before != SERVICE_STOPPED)
    {
        ASSERT_TRUE(service.Start(test.before != SERVICE_START_PENDING));
    }
    if (test.before == SERVICE_PAUSED)
    {
        ASSERT_TRUE(service.Pause());
    }
    if (test.before == SERVICE_STOP_PENDING)
    {
        ASSERT_TRUE(service.RequestStop());
    }
    ASSERT_EQ(service.State(), test.before);
    ClearJournal();

    const ActionOutcome outcome = Run(test.action, L";SERVICENAME=" + service.Name() + test.arguments,
                                      test.continueAfterQueries != 0 ? &service : nullptr, test.continueAfterQueries);

    EXPECT_EQ(outcome.result, test.result);
    EXPECT_EQ(ControllerLines(outcome), Expand(test.lines));
    EXPECT_STATE(service, test.after);
    EXPECT_EQ(Journal(), Expand(test.journal));
}

const OneServiceCase kOneServiceCases[] = {
    // TIMEOUT=0 fails any wait: here there is none.
    {"RunningServiceOnStartWarnsAlreadyStarted", "ServiceStart", L"", SERVICE_RUNNING, L";DEPENDENCIES=0;TIMEOUT=0", 0,
     0, {Warning(L"{S} is already started")}, SERVICE_RUNNING, {}},
    {"StopReportedByTheControlItselfNeedsNoPoll", "ServiceStop", L"", SERVICE_RUNNING, L";DEPENDENCIES=0;TIMEOUT=0", 0,
     0, {}, SERVICE_STOPPED, {L"{S} stopped"}},
    // Running by the first poll, yet 1.5 s are more than a limit of 0, which
    // is also what an empty value and junk convert to.
    {"TimeoutZeroWinsOverTheStateReadOnTheSamePoll", "ServiceStart", L"", SERVICE_STOPPED,
     L";DEPENDENCIES=0;TIMEOUT=0", 0, 1603, {Error(L"{S} timeout, after 0 seconds")}, SERVICE_RUNNING,
     {L"{S} running"}},
    {"EmptyTimeoutIsZero", "ServiceStart", L"", SERVICE_STOPPED, L";DEPENDENCIES=0;TIMEOUT=", 0, 1603,
     {Error(L"{S} timeout, after 0 seconds")}, SERVICE_RUNNING, {L"{S} running"}},
    {"JunkTimeoutIsZero", "ServiceStart", L"", SERVICE_STOPPED, L";DEPENDENCIES=0;TIMEOUT=junk", 0, 1603,
     {Error(L"{S} timeout, after 0 seconds")}, SERVICE_RUNNING, {L"{S} running"}},
    // 4294969 s are 4294969000 ms, 1704 ms in 32 bits: the poll at 1.5 s
    // passes, the next times out. Without the wrap it would never time out.
    {"TimeoutInMillisecondsWrapsIn32Bits", "ServiceStart", L"--start-delay=hold", SERVICE_STOPPED,
     L";DEPENDENCIES=0;TIMEOUT=4294969", 0, 1603, {Error(L"{S} timeout, after 1 seconds")}, SERVICE_START_PENDING, {}},
    // 4294966296 ms; read as 0 it would fail the first poll.
    {"TimeoutOfMinusOneIsInEffectNoLimit", "ServiceStart", L"--start-delay=2000", SERVICE_STOPPED,
     L";DEPENDENCIES=0;TIMEOUT=-1", 0, 0, {}, SERVICE_RUNNING, {L"{S} running"}},
    // Still pending at the first poll, done by the second: a second start or
    // stop control would have failed and said so.
    {"StartPendingServiceIsAwaitedWithoutASecondStart", "ServiceStart", L"--start-delay=hold",
     SERVICE_START_PENDING, L";DEPENDENCIES=0;TIMEOUT=30", 2, 0, {Warning(L"{S} pending start")}, SERVICE_RUNNING,
     {L"{S} running"}},
    {"StartPendingThatEndsStoppedIsStartedByTheAction", "ServiceStart", L"--start-delay=hold --abort-held-start",
     SERVICE_START_PENDING, L";DEPENDENCIES=0;TIMEOUT=30", 2, 0, {Warning(L"{S} pending start")}, SERVICE_RUNNING,
     {L"{S} stopped", L"{S} running"}},
    {"StopPendingServiceIsAwaitedWithoutASecondControl", "ServiceStop", L"--stop-delay=hold", SERVICE_STOP_PENDING,
     L";DEPENDENCIES=0;TIMEOUT=30", 2, 0, {Warning(L"{S} pending stop")}, SERVICE_STOPPED, {L"{S} stopped"}},
    {"PausedServiceOnStartWarnsUnknownStatusAndItsStartFails", "ServiceStart", L"--pausable", SERVICE_PAUSED,
     L";DEPENDENCIES=0;TIMEOUT=30", 0, 1603,
     {Warning(L"{S} status, unknown #7"), Error(L"StartService failed with error 1056")}, SERVICE_PAUSED, {}},
    {"PausedServiceOnStopWarnsUnknownStatusAndIsStopped", "ServiceStop", L"--pausable", SERVICE_PAUSED,
     L";DEPENDENCIES=0;TIMEOUT=30", 0, 0, {Warning(L"{S} status, unknown #7")}, SERVICE_STOPPED, {L"{S} stopped"}},
    {"RestartOfAStoppedServiceWarnsAlreadyStoppedAndStartsIt", "ServiceRestart", L"", SERVICE_STOPPED,
     L";DEPENDENCIES=0;TIMEOUT=30", 0, 0, {Warning(L"{S} is already stopped")}, SERVICE_RUNNING, {L"{S} running"}},
    {"RestartAwaitsTheStopThenStartsTheService", "ServiceRestart", L"--stop-delay=2000", SERVICE_RUNNING,
     L";DEPENDENCIES=0;TIMEOUT=30", 0, 0, {}, SERVICE_RUNNING, {L"{S} stopped", L"{S} running"}},
    // A start would have warned " is already started".
    {"RestartWhoseStopIsRefusedTriesNoStart", "ServiceRestart", L"--refuse-stop", SERVICE_RUNNING,
     L";DEPENDENCIES=0;TIMEOUT=30", 0, 1603, {Error(L"ControlService failed with error 1052")}, SERVICE_RUNNING, {}},
};

INSTANTIATE_TEST_SUITE_P(Cases, ServiceAction, ::testing::ValuesIn(kOneServiceCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

// Three pairs are required, so a stand-in takes TIMEOUT's place. Four polls
// find the service pending before the test lets it run.
TEST_F(ServiceActionTest, WithoutTimeoutStartPollsEvery1500MsUntilTheServiceRuns)
{
    CTestService& service = Add(L"S", L"--start-delay=hold");

    const ActionOutcome outcome = Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=0;UNUSED=1",
                                      &service, 5);

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(ControllerLines(outcome), Lines());
    EXPECT_EQ(Journal(), Expand({L"{S} running"}));
    // The first reading, then one query per poll, each after a sleep of 1500 ms.
    const std::vector<DWORD>& ticks = outcome.calls.queryTicks;
    ASSERT_GE(ticks.size(), 5u);
    EXPECT_EQ(outcome.calls.sleeps, std::vector<DWORD>(ticks.size() - 1, 1500));
    for (size_t i = 1; i < ticks.size(); ++i)
    {
        EXPECT_GE(ticks[i] - ticks[i - 1], 1400u) << "poll " << i;
        EXPECT_LT(ticks[i] - ticks[i - 1], 6000u) << "poll " << i;
    }
    EXPECT_EQ(outcome.calls.opens, Expand({L"manager 0xF003F", L"{S} 0x3D"}));
}

class ServiceNameCheck : public ServiceActionTest, public ::testing::WithParamInterface<const char*>
{
};

TEST_P(ServiceNameCheck, UnknownServiceFailsAtOpenAndThenAtTheFirstQuery)
{
    const ActionOutcome outcome = Run(GetParam(), L";SERVICENAME=" + Name(L"Missing") + L";DEPENDENCIES=1;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(ControllerLines(outcome),
              Lines({Error(L"OpenService failed"), Error(L"QueryServiceStatus failed with error 6")}));
}

TEST_P(ServiceNameCheck, EmptyServiceNameIsRejectedBeforeAnyServiceCall)
{
    const ActionOutcome outcome = Run(GetParam(), L";SERVICENAME=;DEPENDENCIES=1;TIMEOUT=30");

    EXPECT_EQ(outcome.result, 1603u);
    ASSERT_FALSE(outcome.lines.empty());
    EXPECT_EQ(QcRunner::Body(outcome.lines.back()), L"[ERROR] Workbench (#) Argument[SERVICENAME] is invalid.");
    EXPECT_EQ(ControllerLines(outcome), Lines());
}

INSTANTIATE_TEST_SUITE_P(AllServiceActions, ServiceNameCheck,
                         ::testing::Values("ServiceStart", "ServiceStop", "ServiceRestart"));

// CDaemon built directly, for the cases the action frame never lets through
// (a null or empty service name) and the operations no action reaches.
TEST(DaemonObject, NullOrEmptyNameLogsInvalidParameterAndEitherOperationFailsAtItsFirstQuery)
{
    for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L""})
    {
        for (const bool start : {true, false})
        {
            SCOPED_TRACE(::testing::Message() << (name == nullptr ? "null name, " : "empty name, ")
                                              << (start ? "Start" : "Stop"));
            QcTest::CLogCapture log;
            Quillcast::System::CDaemon daemon(name);
            daemon.SetDependencies(true);

            EXPECT_FALSE(start ? daemon.Start() : daemon.Stop());

            EXPECT_EQ(log.Bodies(), Lines({L"[ERROR] Daemon (#) ERROR_INVALID_PARAMETER.",
                                           L"[ERROR] Daemon (#) QueryServiceStatus failed with error 6."}));
            EXPECT_EQ(daemon.LastError(), 87u);
        }
    }
}

TEST(DaemonObject, HandleDependenciesWithAnUnknownActionDoesNothingAndSucceeds)
{
    Quillcast::System::CDaemon daemon(nullptr);
    QcTest::CLogCapture log;

    for (uint32_t action : {0u, 2u, 3u, 5u, 8u})
    {
        EXPECT_TRUE(daemon.HandleDependencies(action)) << action;
    }

    EXPECT_EQ(log.Bodies(), Lines());
    EXPECT_EQ(daemon.LastError(), 87u);
}

} // namespace
} // namespace QcTest
