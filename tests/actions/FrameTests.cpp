// The common frame of every export, driven through a real installer session
// with stand-in workers, so that each rule of the frame is seen on its own.
#include <gtest/gtest.h>

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "host/Workbench.h"
#include "logging/msi/LogStreamMsi.h"
#include "support/LibraryLogger.h"

using Quillcast::Host::CWorkbench;
using Quillcast::Host::Dispatch;
using QcRunner::Body;

namespace {

int g_WorkerCalls = 0;
UINT g_WorkerResult = 0;
uint32_t g_BindingsSeenByWorker = 0;

UINT RecordingWorker(CWorkbench* pWorkbench)
{
    ++g_WorkerCalls;
    g_BindingsSeenByWorker = g_MsiLogStream.BoundSession() == pWorkbench->m_hInstall ? 1 : 0;
    return g_WorkerResult;
}

UINT ThrowingWorker(CWorkbench*)
{
    throw std::runtime_error("worker failed");
}

UINT OptionalArgumentWorker(CWorkbench* pWorkbench)
{
    return Quillcast::Host::HasArgument(*pWorkbench, L"TIMEOUT") ? 0 : 1;
}

uint32_t g_ActionIndex = 0;
Quillcast::Host::ActionWorker g_Worker = RecordingWorker;

// Stands for any export: the row and worker come from the two globals above.
UINT __stdcall AnyExport(MSIHANDLE hInstall)
{
    return Dispatch(hInstall, g_ActionIndex, g_Worker);
}

class FrameTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_Host.IsOpen()) << std::string(m_Host.Error().begin(), m_Host.Error().end());
        g_WorkerCalls = 0;
        g_WorkerResult = 0;
        g_BindingsSeenByWorker = 0;
        g_Worker = RecordingWorker;
    }

    UINT Run(uint32_t index, const wchar_t* customActionData = nullptr,
             Quillcast::Host::ActionWorker worker = RecordingWorker)
    {
        if (customActionData != nullptr)
        {
            m_Host.SetCustomActionData(customActionData);
        }
        g_ActionIndex = index;
        g_Worker = worker;
        return m_Host.Call(AnyExport);
    }

    std::vector<std::wstring> Bodies() const
    {
        std::vector<std::wstring> bodies;
        for (const std::wstring& line : m_Host.LogLines())
        {
            bodies.push_back(Body(line));
        }
        return bodies;
    }

    QcTest::CLibraryLogger m_Logger;
    QcRunner::CActionHost m_Host;
};

using Lines = std::vector<std::wstring>;

} // namespace

TEST_F(FrameTest, WorkerResultIsReturnedUnchangedAndThreadIsBoundOnlyDuringTheCall)
{
    for (UINT result : {0u, 1603u, 42u})
    {
        g_WorkerResult = result;
        EXPECT_EQ(Run(Quillcast::Host::ACTION_CompareVersionString), result);
    }
    EXPECT_EQ(g_WorkerCalls, 3);
    EXPECT_EQ(g_BindingsSeenByWorker, 1u);
    EXPECT_EQ(g_MsiLogStream.BindingCount(), 0u);
}

struct ValidationCase
{
    const char* name;
    uint32_t index;
    const wchar_t* customActionData; // null: the property is absent
    UINT result;                     // 0: validation passed and the worker ran
    Lines bodies;
};

class FrameValidation : public FrameTest, public ::testing::WithParamInterface<ValidationCase>
{
};

TEST_P(FrameValidation, LogsTheArgumentsAndRunsTheWorkerOnlyWhenTheyPass)
{
    const ValidationCase& c = GetParam();
    EXPECT_EQ(Run(c.index, c.customActionData), c.result);
    EXPECT_EQ(g_WorkerCalls, c.result == 0 ? 1 : 0);
    EXPECT_EQ(Bodies(), c.bodies);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FrameValidation,
    ::testing::Values(
        ValidationCase{"ImmediateActionNeedsNoCustomActionData", Quillcast::Host::ACTION_GetEngineVersion, nullptr, 0,
                       {L"Workbench (#) Processing custom action: GetEngineVersion."}},
        ValidationCase{"AbsentCustomActionDataFailsOnTheCountAlone", Quillcast::Host::ACTION_ShowMessageDeferred,
                       nullptr, 1603,
                       {L"Workbench (#) Processing custom action: ShowMessageDeferred.",
                        L"[ERROR] Workbench (#) Argument[MESSAGE] = NOT DEFINED.",
                        L"[ERROR] Workbench (#) Argument[TYPE] = NOT DEFINED.",
                        L"[ERROR] Workbench (#) Got less arguments than expected -> expected=2 received=0."}},
        // The pair count must reach the number of known names, required or not.
        ValidationCase{"TooFewPairsFailsThoughTheRequiredNameIsPresent", Quillcast::Host::ACTION_ServiceStart,
                       L";SERVICENAME=Spooler", 1603,
                       {L"Workbench (#) Processing custom action: ServiceStart.",
                        L"Workbench (#) Argument[SERVICENAME] = Spooler.",
                        L"[ERROR] Workbench (#) Argument[DEPENDENCIES] = NOT DEFINED.",
                        L"[ERROR] Workbench (#) Argument[TIMEOUT] = NOT DEFINED.",
                        L"[ERROR] Workbench (#) Got less arguments than expected -> expected=3 received=1."}},
        // Only the number of pairs counts, not their names.
        ValidationCase{"UnknownAndDuplicatedNamesCountAsPairs", Quillcast::Host::ACTION_ServiceStop,
                       L"|SERVICENAME=Spooler|OTHER=1|OTHER=2", 0,
                       {L"Workbench (#) Processing custom action: ServiceStop.",
                        L"Workbench (#) Argument[SERVICENAME] = Spooler.",
                        L"[ERROR] Workbench (#) Argument[DEPENDENCIES] = NOT DEFINED.",
                        L"[ERROR] Workbench (#) Argument[TIMEOUT] = NOT DEFINED."}},
        ValidationCase{"RequiredArgumentPresentButEmptyIsInvalid", Quillcast::Host::ACTION_CreateProcessDeferred,
                       L";CMDLINE=", 1603,
                       {L"Workbench (#) Processing custom action: CreateProcessDeferred.",
                        L"Workbench (#) Argument[CMDLINE] = .",
                        L"[ERROR] Workbench (#) Argument[CMDLINE] is invalid."}},
        ValidationCase{"RequiredChecksStopAtTheFirstInvalidName", Quillcast::Host::ACTION_RemovePortException,
                       L";RULENAME=;LOCALPORTS=", 1603,
                       {L"Workbench (#) Processing custom action: RemovePortException.",
                        L"Workbench (#) Argument[RULENAME] = .", L"Workbench (#) Argument[LOCALPORTS] = .",
                        L"[ERROR] Workbench (#) Argument[RULENAME] is invalid."}}),
    [](const ::testing::TestParamInfo<ValidationCase>& paramInfo) { return std::string(paramInfo.param.name); });

TEST_F(FrameTest, OptionalArgumentWithEmptyValueIsListedButNotDefinedForTheWorker)
{
    EXPECT_EQ(Run(Quillcast::Host::ACTION_ServiceRestart, L";SERVICENAME=a;DEPENDENCIES=1;TIMEOUT=",
                  OptionalArgumentWorker),
              1u);
    EXPECT_EQ(Bodies(), (Lines{
                            L"Workbench (#) Processing custom action: ServiceRestart.",
                            L"Workbench (#) Argument[SERVICENAME] = a.",
                            L"Workbench (#) Argument[DEPENDENCIES] = 1.",
                            L"Workbench (#) Argument[TIMEOUT] = .",
                            L"[WARNING] Workbench (#) Argument[TIMEOUT] = NOT DEFINED.",
                        }));
}

TEST_F(FrameTest, ExceptionFromAWorkerUnbindsTheThreadAndFailsTheAction)
{
    EXPECT_EQ(Run(Quillcast::Host::ACTION_GetDomain, nullptr, ThrowingWorker), 1603u);
    EXPECT_EQ(g_MsiLogStream.BindingCount(), 0u);
}

TEST_F(FrameTest, NullOrUnknownSessionHandleFailsValidatingActionsWithoutCrashing)
{
    m_Host.SetCustomActionData(L";SERVICENAME=x;DEPENDENCIES=1;TIMEOUT=1");
    g_ActionIndex = Quillcast::Host::ACTION_ServiceStart;
    EXPECT_EQ(m_Host.CallWithHandle(AnyExport, 0), 1603u);
    EXPECT_EQ(m_Host.CallWithHandle(AnyExport, 0x7FFF1234), 1603u);
    EXPECT_EQ(g_WorkerCalls, 0);
    // Nothing can be delivered to a session that does not exist.
    EXPECT_TRUE(m_Host.LogLines().empty());
    EXPECT_EQ(g_MsiLogStream.BindingCount(), 0u);
}

TEST(ArgumentRules, DependenciesValueRuleIsKeptThoughNoRowRequiresIt)
{
    using Quillcast::Host::CheckArgumentValue;
    EXPECT_TRUE(CheckArgumentValue(L"DEPENDENCIES", L"1"));
    EXPECT_TRUE(CheckArgumentValue(L"dependencies", L"0"));
    EXPECT_FALSE(CheckArgumentValue(L"DEPENDENCIES", L"yes"));
    EXPECT_FALSE(CheckArgumentValue(L"DEPENDENCIES", L"01"));
    EXPECT_TRUE(CheckArgumentValue(L"TIMEOUT", L"anything"));
    EXPECT_FALSE(CheckArgumentValue(nullptr, L"1"));
    for (const auto& row : Quillcast::Host::g_CustomActionTable)
    {
        for (uint32_t i = 0; i < row.dwRequiredCount; ++i)
        {
            EXPECT_STRNE(row.ppszRequired[i], L"DEPENDENCIES");
        }
    }
}
