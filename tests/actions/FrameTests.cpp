// The common frame of every export, driven through a real installer session with stand-in workers, so that each rule of
// the frame is seen on its own.
#include <gtest/gtest.h>

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "host/Workbench.h"
#include "logging/msi/LogStreamMsi.h"
#include "support/LogCapture.h"

using namespace Quillcast::Host;

namespace {

int g_WorkerCalls = 0;
UINT g_WorkerResult = 0;

// The row's result, but only on a thread bound to the worker's session.
UINT RecordingWorker(CWorkbench* pWorkbench)
{
    ++g_WorkerCalls;
    return g_MsiLogStream.BoundSession() == pWorkbench->m_hInstall ? g_WorkerResult : ERROR_INVALID_HANDLE;
}

uint32_t g_ActionIndex = 0;
ActionWorker g_Worker = RecordingWorker;

// Stands for any export: the row and worker come from the two globals above.
UINT __stdcall AnyExport(MSIHANDLE hInstall)
{
    return Dispatch(hInstall, g_ActionIndex, g_Worker);
}

} // namespace

struct ValidationCase
{
    const char* name;
    uint32_t index;
    const wchar_t* customActionData; // null: the property is absent
    UINT result;                     // also what RecordingWorker returns; 1603: the worker must not run
    std::wstring bodies; // those after "Processing custom action: <name>.", without "Workbench (#) ", one a line
    ActionWorker worker = RecordingWorker;
};

class FrameValidation : public ::testing::TestWithParam<ValidationCase>
{
protected:
    // The logger the DLL installs at load: it writes into the installer log stream.
    QcTest::CLogCapture m_Logger{&g_MsiLogStream};
    QcRunner::CActionHost m_Host;
};

// The worker's thread is bound to the session only during the call.
TEST_P(FrameValidation, LogsTheArgumentsAndRunsTheWorkerOnlyWhenTheyPass)
{
    const ValidationCase& c = GetParam();
    ASSERT_TRUE(m_Host.IsOpen()) << std::string(m_Host.Error().begin(), m_Host.Error().end());
    ASSERT_TRUE(c.customActionData == nullptr || m_Host.SetCustomActionData(c.customActionData));
    g_WorkerCalls = 0;
    g_WorkerResult = c.result;
    g_ActionIndex = c.index;
    g_Worker = c.worker;
    EXPECT_EQ(m_Host.Call(AnyExport), c.result);
    EXPECT_EQ(g_WorkerCalls, c.result == 1603 ? 0 : 1);
    EXPECT_EQ(g_MsiLogStream.BindingCount(), 0u);
    std::wstring logged;
    for (const std::wstring& body : QcTest::Bodies(m_Host.LogLines()))
    {
        const size_t at = body.find(L"Workbench (#) ");
        logged += (at == std::wstring::npos ? body : body.substr(0, at) + body.substr(at + 14)) + L"\n";
    }
    EXPECT_EQ(logged, L"Processing custom action: " + std::wstring(g_CustomActionNames[c.index]) + L".\n" + c.bodies +
                          (c.bodies.empty() ? L"" : L"\n"));
}

const ValidationCase kValidationCases[] = {
    {"WorkerResultIsReturnedUnchanged", ACTION_CompareVersionString, nullptr, 42, L""},
    {"ExceptionFromTheWorkerFailsTheAction", ACTION_GetDomain, nullptr, 1603, L"",
     [](CWorkbench*) -> UINT { throw std::runtime_error("worker failed"); }},
    // The pair count must reach the number of known names, required or not.
    {"TooFewPairsFailsThoughTheRequiredNameIsPresent", ACTION_ServiceStart, L";SERVICENAME=Spooler", 1603,
     L"Argument[SERVICENAME] = Spooler.\n[ERROR] Argument[DEPENDENCIES] = NOT DEFINED.\n"
     L"[ERROR] Argument[TIMEOUT] = NOT DEFINED.\n[ERROR] Got less arguments than expected -> expected=3 received=1."},
    // Only the number of pairs counts, not their names.
    {"UnknownAndDuplicatedNamesCountAsPairs", ACTION_ServiceStop, L"|SERVICENAME=Spooler|OTHER=1|OTHER=2", 0,
     L"Argument[SERVICENAME] = Spooler.\n[ERROR] Argument[DEPENDENCIES] = NOT DEFINED.\n"
     L"[ERROR] Argument[TIMEOUT] = NOT DEFINED."},
    {"RequiredChecksStopAtTheFirstInvalidName", ACTION_RemovePortException, L";RULENAME=;LOCALPORTS=", 1603,
     L"Argument[RULENAME] = .\nArgument[LOCALPORTS] = .\n[ERROR] Argument[RULENAME] is invalid."},
    {"OptionalArgumentWithEmptyValueIsListedButNotDefinedForTheWorker", ACTION_ServiceRestart,
     L";SERVICENAME=a;DEPENDENCIES=1;TIMEOUT=", 1,
     L"Argument[SERVICENAME] = a.\nArgument[DEPENDENCIES] = 1.\nArgument[TIMEOUT] = .\n"
     L"[WARNING] Argument[TIMEOUT] = NOT DEFINED.",
     [](CWorkbench* pWorkbench) -> UINT {
         ++g_WorkerCalls;
         return HasArgument(*pWorkbench, L"TIMEOUT") ? 0 : 1;
     }},
};

INSTANTIATE_TEST_SUITE_P(Rows, FrameValidation, ::testing::ValuesIn(kValidationCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.name); });

TEST(ArgumentRules, DependenciesMustBeExactly0Or1ThoughNoRowRequiresIt)
{
    for (const auto& [value, valid] : {std::pair{L"1", true}, {L"0", true}, {L"yes", false}, {L"01", false}})
    {
        EXPECT_EQ(CheckArgumentValue(L"dependencies", value), valid) << value;
    }
    EXPECT_FALSE(CheckArgumentValue(nullptr, L"1"));
}
