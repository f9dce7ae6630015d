// The common frame of every export, driven through a real installer session
// with stand-in workers, so that each rule of the frame is seen on its own.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
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

template <uint32_t Index>
UINT __stdcall RecordingExport(MSIHANDLE hInstall)
{
    return Dispatch(hInstall, Index, RecordingWorker);
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
        EXPECT_EQ(m_Host.Call(RecordingExport<Quillcast::Host::ACTION_CompareVersionString>), result);
    }
    EXPECT_EQ(g_WorkerCalls, 3);
    EXPECT_EQ(g_BindingsSeenByWorker, 1u);
    EXPECT_EQ(g_MsiLogStream.BindingCount(), 0u);
}

TEST_F(FrameTest, ImmediateActionPassesWithoutCustomActionDataAndNamesItself)
{
    EXPECT_EQ(m_Host.Call(RecordingExport<Quillcast::Host::ACTION_GetEngineVersion>), 0u);
    EXPECT_EQ(g_WorkerCalls, 1);
    EXPECT_EQ(Bodies(), (Lines{L"Workbench (#) Processing custom action: GetEngineVersion."}));
}

TEST_F(FrameTest, TooFewPairsFailsEvenWhenTheRequiredNameIsPresent)
{
    m_Host.SetCustomActionData(L";SERVICENAME=Spooler");
    EXPECT_EQ(m_Host.Call(RecordingExport<Quillcast::Host::ACTION_ServiceStart>), 1603u);
    EXPECT_EQ(g_WorkerCalls, 0);
    EXPECT_EQ(Bodies(), (Lines{
                            L"Workbench (#) Processing custom action: ServiceStart.",
                            L"Workbench (#) Argument[SERVICENAME] = Spooler.",
                            L"[ERROR] Workbench (#) Argument[DEPENDENCIES] = NOT DEFINED.",
                            L"[ERROR] Workbench (#) Argument[TIMEOUT] = NOT DEFINED.",
                            L"[ERROR] Workbench (#) Got less arguments than expected -> expected=3 received=1.",
                        }));
}

TEST_F(FrameTest, PairCountAloneSatisfiesTheListingEvenWithUnknownNames)
{
    m_Host.SetCustomActionData(L"|SERVICENAME=Spooler|OTHER=1|OTHER=2");
    EXPECT_EQ(m_Host.Call(RecordingExport<Quillcast::Host::ACTION_ServiceStop>), 0u);
    EXPECT_EQ(g_WorkerCalls, 1);
}

TEST_F(FrameTest, RequiredArgumentPresentButEmptyIsInvalid)
{
    m_Host.SetCustomActionData(L";CMDLINE=");
    EXPECT_EQ(m_Host.Call(RecordingExport<Quillcast::Host::ACTION_CreateProcessDeferred>), 1603u);
    EXPECT_EQ(g_WorkerCalls, 0);
    EXPECT_EQ(Bodies(), (Lines{
                            L"Workbench (#) Processing custom action: CreateProcessDeferred.",
                            L"Workbench (#) Argument[CMDLINE] = .",
                            L"[ERROR] Workbench (#) Argument[CMDLINE] is invalid.",
                        }));
}

TEST_F(FrameTest, RequiredChecksStopAtTheFirstInvalidName)
{
    m_Host.SetCustomActionData(L";RULENAME=;LOCALPORTS=");
    EXPECT_EQ(m_Host.Call(RecordingExport<Quillcast::Host::ACTION_RemovePortException>), 1603u);
    const Lines bodies = Bodies();
    ASSERT_FALSE(bodies.empty());
    EXPECT_EQ(bodies.back(), L"[ERROR] Workbench (#) Argument[RULENAME] is invalid.");
    EXPECT_EQ(std::count(bodies.begin(), bodies.end(), L"[ERROR] Workbench (#) Argument[LOCALPORTS] is invalid."), 0);
}

TEST_F(FrameTest, AbsentCustomActionDataFailsEveryRowWithNamesOnTheCountAlone)
{
    EXPECT_EQ(m_Host.Call(RecordingExport<Quillcast::Host::ACTION_ShowMessageDeferred>), 1603u);
    EXPECT_EQ(g_WorkerCalls, 0);
    EXPECT_EQ(Bodies(), (Lines{
                            L"Workbench (#) Processing custom action: ShowMessageDeferred.",
                            L"[ERROR] Workbench (#) Argument[MESSAGE] = NOT DEFINED.",
                            L"[ERROR] Workbench (#) Argument[TYPE] = NOT DEFINED.",
                            L"[ERROR] Workbench (#) Got less arguments than expected -> expected=2 received=0.",
                        }));
}

TEST_F(FrameTest, OptionalArgumentWithEmptyValueIsListedButNotDefinedForTheWorker)
{
    struct Trampoline
    {
        static UINT __stdcall Run(MSIHANDLE hInstall)
        {
            return Dispatch(hInstall, Quillcast::Host::ACTION_ServiceRestart, OptionalArgumentWorker);
        }
    };
    m_Host.SetCustomActionData(L";SERVICENAME=a;DEPENDENCIES=1;TIMEOUT=");
    EXPECT_EQ(m_Host.Call(Trampoline::Run), 1u);
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
    struct Trampoline
    {
        static UINT __stdcall Run(MSIHANDLE hInstall)
        {
            return Dispatch(hInstall, Quillcast::Host::ACTION_GetDomain, ThrowingWorker);
        }
    };
    EXPECT_EQ(m_Host.Call(Trampoline::Run), 1603u);
    EXPECT_EQ(g_MsiLogStream.BindingCount(), 0u);
}

TEST_F(FrameTest, NullOrUnknownSessionHandleFailsValidatingActionsWithoutCrashing)
{
    m_Host.SetCustomActionData(L";SERVICENAME=x;DEPENDENCIES=1;TIMEOUT=1");
    EXPECT_EQ(m_Host.CallWithHandle(RecordingExport<Quillcast::Host::ACTION_ServiceStart>, 0), 1603u);
    EXPECT_EQ(m_Host.CallWithHandle(RecordingExport<Quillcast::Host::ACTION_ServiceStart>, 0x7FFF1234), 1603u);
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
