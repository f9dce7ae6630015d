// The dependents of a service: which are stopped and started, in which order,
// and how their failures and time-outs are reported without failing the action.
#include "services/ServiceActionFixture.h"

namespace QcTest {
namespace {

using DependentServices = ServiceActionTest;

TEST_F(DependentServices, StartOfARunningServiceStartsItsInactiveDependentsInStartOrder)
{
    CTestService& service = Add(L"S");
    CTestService& d1 = Add(L"D1", L"", SERVICE_AUTO_START, {L"S"});
    CTestService& d2 = Add(L"D2", L"", SERVICE_AUTO_START, {L"D1"});
    CTestService& active = Add(L"D3", L"", SERVICE_AUTO_START, {L"S"});
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(active.Start());
    ClearJournal();

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    // Only the inactive ones are enumerated: D3 is not met at all.
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(ControllerLines(outcome), Expand({Warning(L"{S} is already started")}));
    EXPECT_EQ(Journal(), Expand({L"{D1} running", L"{D2} running"}));
    EXPECT_EQ(CDependentsSeam::Calls(), std::vector<DWORD>({SERVICE_INACTIVE, SERVICE_INACTIVE}));
    EXPECT_STATE(d1, SERVICE_RUNNING);
    EXPECT_STATE(d2, SERVICE_RUNNING);
}

TEST_F(DependentServices, RestartWithDependentsRestartsExactlyThoseThatRanSkippingDemandStart)
{
    CTestService& service = Add(L"S");
    CTestService& d1 = Add(L"D1", L"", SERVICE_AUTO_START, {L"S"});
    CTestService& d2 = Add(L"D2", L"", SERVICE_AUTO_START, {L"S"});
    CTestService& d3 = Add(L"D3", L"", SERVICE_DEMAND_START, {L"S"});
    CTestService& d4 = Add(L"D4", L"", SERVICE_AUTO_START, {L"D1"});
    for (CTestService* running : {&service, &d1, &d3, &d4})
    {
        ASSERT_TRUE(running->Start()) << ::testing::PrintToString(running->Name());
    }
    ClearJournal();

    const ActionOutcome outcome =
        Run("ServiceRestart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=30");

    // Active dependents in reverse start order: D3, D4 (needs D1), D1. They
    // stop in that order before the service and start again in the reverse
    // order after it, from the list the stop enumerated (one size query and
    // one read); D3 only starts on demand and D2 did not run.
    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(ControllerLines(outcome), Expand({Warning(L"{D3} only starts on demand, will skip")}));
    EXPECT_EQ(Journal(), Expand({L"{D3} stopped", L"{D4} stopped", L"{D1} stopped", L"{S} stopped", L"{S} running",
                                 L"{D1} running", L"{D4} running"}));
    EXPECT_EQ(CDependentsSeam::Calls(), std::vector<DWORD>({SERVICE_ACTIVE, SERVICE_ACTIVE}));
    // The service for everything, each dependent with only what its walk needs.
    EXPECT_EQ(outcome.calls.opens,
              Expand({L"manager 0xF003F", L"{S} 0x3D", L"{D3} 0x25", L"{D4} 0x25", L"{D1} 0x25", L"{D1} 0x15",
                      L"{D4} 0x15", L"{D3} 0x15"}));
    EXPECT_STATE(service, SERVICE_RUNNING);
    EXPECT_STATE(d1, SERVICE_RUNNING);
    EXPECT_STATE(d2, SERVICE_STOPPED);
    EXPECT_STATE(d3, SERVICE_STOPPED);
    EXPECT_STATE(d4, SERVICE_RUNNING);
}

TEST_F(DependentServices, DependentStopTimeoutLeavesTheMeasureRunningForTheService)
{
    // Walked C, B, A. C times out (a warning) and the walk goes on; B stops at
    // its control; A times out as well, and as nothing resets the measure after
    // that, the service's own wait goes on from it and fails at its first poll,
    // although the service stops a millisecond after its control. Held states
    // and a stop that needs no poll keep the outcome the same on a busy machine.
    CTestService& service = Add(L"S", L"--stop-delay=1");
    CTestService& a = Add(L"A", L"--stop-delay=hold", SERVICE_AUTO_START, {L"S"});
    CTestService& b = Add(L"B", L"", SERVICE_AUTO_START, {L"A"});
    CTestService& c = Add(L"C", L"--stop-delay=hold", SERVICE_AUTO_START, {L"B"});
    for (CTestService* running : {&service, &a, &b, &c})
    {
        ASSERT_TRUE(running->Start()) << ::testing::PrintToString(running->Name());
    }

    const ActionOutcome outcome = Run("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=2");

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(ControllerLines(outcome),
              Expand({Warning(L"{C} timeout, after 2 seconds"), Warning(L"{A} timeout, after 2 seconds"),
                      Error(L"{S} timeout, after 2 seconds")}));
    EXPECT_STATE(c, SERVICE_STOP_PENDING);
    EXPECT_STATE(b, SERVICE_STOPPED);
    EXPECT_STATE(a, SERVICE_STOP_PENDING);
    EXPECT_STATE(service, SERVICE_STOPPED);
}

TEST_F(DependentServices, DependentThatStoppedMeanwhileWarnsAlreadyStopped)
{
    // Enumerated while stopping (active), stopped by the time the walk reaches
    // it: D2 comes first and is held until D1 has stopped.
    CTestService& service = Add(L"S");
    CTestService& d1 = Add(L"D1", L"--stop-delay=hold", SERVICE_AUTO_START, {L"S"});
    CTestService& d2 = Add(L"D2", L"--stop-delay=hold", SERVICE_AUTO_START, {L"D1"});
    for (CTestService* running : {&service, &d1, &d2})
    {
        ASSERT_TRUE(running->Start()) << ::testing::PrintToString(running->Name());
    }
    ASSERT_TRUE(d1.RequestStop());
    ASSERT_EQ(d1.State(), static_cast<DWORD>(SERVICE_STOP_PENDING));

    std::future<ActionOutcome> call =
        RunAsync("ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=60");
    EXPECT_TRUE(d2.WaitForState(SERVICE_STOP_PENDING));
    d1.Continue();
    EXPECT_TRUE(d1.WaitForState(SERVICE_STOPPED));
    d2.Continue();
    const ActionOutcome outcome = call.get();

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(ControllerLines(outcome), Expand({Warning(L"{D1} is already stopped")}));
    EXPECT_STATE(d2, SERVICE_STOPPED);
    EXPECT_STATE(service, SERVICE_STOPPED);
}

// D1 is started before D2; the service runs.
struct StartWalkCase
{
    const char* behaviour;
    DWORD firstStartType;
    const wchar_t* firstOptions;
    const wchar_t* timeout;
    const wchar_t* firstFailure; // after the service's own " is already started"
    DWORD firstAfter;
    DWORD secondAfter;
};

class DependentStart : public ServiceActionTest, public ::testing::WithParamInterface<StartWalkCase>
{
};

TEST_P(DependentStart, FailureOfTheFirstDependent)
{
    const StartWalkCase& test = GetParam();
    CTestService& service = Add(L"S");
    CTestService& first = Add(L"D1", test.firstOptions, test.firstStartType, {L"S"});
    CTestService& second = Add(L"D2", L"", SERVICE_AUTO_START, {L"S"});
    ASSERT_TRUE(service.Start());

    const ActionOutcome outcome =
        Run("ServiceStart", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=1;TIMEOUT=" + test.timeout);

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(ControllerLines(outcome), Expand({Warning(L"{S} is already started"), Error(test.firstFailure)}));
    EXPECT_STATE(first, test.firstAfter);
    EXPECT_STATE(second, test.secondAfter);
}

const StartWalkCase kStartWalkCases[] = {
    {"DisabledDependentIsSkippedAndTheWalkGoesOn", SERVICE_DISABLED, L"", L"30",
     L"StartService failed with error 1058", SERVICE_STOPPED, SERVICE_RUNNING},
    // Wine's manager fails the start with 1053 when ServiceMain reports
    // SERVICE_STOPPED with an error.
    {"OtherStartFailureEndsTheWalkButNotTheAction", SERVICE_AUTO_START, L"--fail-start", L"30",
     L"StartService failed with error 1053", SERVICE_STOPPED, SERVICE_STOPPED},
    // 4 s leave D2's first poll (at 1.5 s) well inside the limit.
    {"DependentStartTimeoutIsAnErrorAndTheWalkGoesOn", SERVICE_AUTO_START, L"--start-delay=hold", L"4",
     L"{D1} timeout, after 4 seconds", SERVICE_START_PENDING, SERVICE_RUNNING},
};

INSTANTIATE_TEST_SUITE_P(Cases, DependentStart, ::testing::ValuesIn(kStartWalkCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

// ServiceStop with a running dependent that must not be touched.
struct LeftAloneCase
{
    const char* behaviour;
    bool serviceRuns;
    const wchar_t* dependencies;
    const wchar_t* warning; // or null
};

class DependentsLeftAlone : public ServiceActionTest, public ::testing::WithParamInterface<LeftAloneCase>
{
};

TEST_P(DependentsLeftAlone, OnStop)
{
    const LeftAloneCase& test = GetParam();
    CTestService& service = Add(L"S");
    CTestService& dependent = Add(L"D", L"", SERVICE_AUTO_START, {L"S"});
    ASSERT_TRUE(dependent.Start());
    ASSERT_TRUE(!test.serviceRuns || service.Start());

    const ActionOutcome outcome = Run(
        "ServiceStop", L";SERVICENAME=" + service.Name() + L";DEPENDENCIES=" + test.dependencies + L";TIMEOUT=30");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(ControllerLines(outcome), test.warning != nullptr ? Expand({Warning(test.warning)}) : Lines());
    EXPECT_TRUE(CDependentsSeam::Calls().empty()) << "dependents were enumerated";
    EXPECT_STATE(service, SERVICE_STOPPED);
    EXPECT_STATE(dependent, SERVICE_RUNNING);
}

const LeftAloneCase kLeftAloneCases[] = {
    {"StopWhenAlreadyStoppedLeavesDependentsAlone", false, L"1", L"{S} is already stopped"},
    // Dependents are handled only when DEPENDENCIES is exactly "1".
    {"Dependencies0", true, L"0", nullptr},
    {"Dependencies01", true, L"01", nullptr},
    {"DependenciesEmpty", true, L"", nullptr},
};

INSTANTIATE_TEST_SUITE_P(Cases, DependentsLeftAlone, ::testing::ValuesIn(kLeftAloneCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

} // namespace
} // namespace QcTest
