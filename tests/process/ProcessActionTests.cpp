// Starting a program and waiting for it, and closing running programs by name.
#include "process/ProcessActionFixture.h"

#include <cstring>

#include "actions/Workers.h"
#include "support/LogCapture.h"
#include "system/Process.h"

namespace QcTest {
namespace {

using Properties = std::vector<std::pair<std::wstring, std::wstring>>;

// A file name unique to the case, so that only its own programs match.
std::wstring ProgramName(const char* behaviour)
{
    return L"Qc" + std::wstring(behaviour, behaviour + std::strlen(behaviour)) + L".exe";
}

std::wstring Error(const std::wstring& source, const std::wstring& text)
{
    return L"[ERROR] " + source + L" (#) " + text + L".";
}

// ------------------------------------------------------------------ start and wait

struct CreateCase
{
    const char* behaviour;
    const char* action;
    const wchar_t* commandLine; // "{exe}" is the case's copy of the test program, in quotes
    bool endBeforeExitCodeRead;
    UINT result;
    Lines lines;
    Waits waits;
    Lines records; // the program's record: command line, directory, show command
};

class CreateProcessAction : public ProcessActionTest, public ::testing::WithParamInterface<CreateCase>
{
};

TEST_P(CreateProcessAction, StartsHiddenAndWaits)
{
    const CreateCase& test = GetParam();
    const std::wstring exe = CopyProgram(ProgramName(test.behaviour));
    std::wstring commandLine = test.commandLine;
    const size_t at = commandLine.find(L"{exe}");
    if (at != std::wstring::npos)
    {
        commandLine.replace(at, 5, L"\"" + exe + L"\"");
    }
    wchar_t directory[MAX_PATH] = {};
    ::GetCurrentDirectoryW(MAX_PATH, directory);
    ActionHooks::bEndBeforeExitCodeRead = test.endBeforeExitCodeRead;

    Lines lines;
    const bool bDeferred = std::string(test.action) == "CreateProcessDeferred";
    const std::wstring data = L"|CMDLINE=" + commandLine;
    Properties properties;
    if (!bDeferred && !commandLine.empty())
    {
        properties.emplace_back(L"CreateProcessProperty", commandLine);
    }
    const UINT result = Run(test.action, bDeferred ? data.c_str() : nullptr, properties, lines);

    EXPECT_EQ(result, test.result);
    EXPECT_EQ(lines, Expand(test.lines));
    EXPECT_EQ(ActionHooks::waits, test.waits);
    Lines expectedRecords;
    for (const std::wstring& record : test.records)
    {
        expectedRecords.push_back(L"\"" + exe + L"\"" + record + L"\t" + directory + L"\t0");
    }
    EXPECT_EQ(Records(exe), expectedRecords);
}

const CreateCase kCreateCases[] = {
    // Started hidden (show command 0); the program's own result is logged, not judged.
    {"DeferredProgramExitingWithFiveSucceedsAndLogsIt", "CreateProcessDeferred", L"{exe} --hold --exit-code=5",
     false, 0, {L"Various (#) Exit code of process is 5."}, {INFINITE}, {L" --hold --exit-code=5"}},
    {"ImmediateProgramExitingWithFiveSucceedsAndLogsIt", "CreateProcessImmediately", L"{exe} --hold --exit-code=5",
     false, 0, {L"Various (#) Exit code of process is 5."}, {INFINITE}, {L" --hold --exit-code=5"}},
    // Intentional: the exit code is read right after the start and must still
    // be STILL_ACTIVE; a program that has already ended, even with 0, fails.
    {"ProgramThatHasEndedBeforeTheCheckFailsAlthoughItRan", "CreateProcessDeferred", L"{exe} --exit-code=0", true,
     1603, {}, {}, {L" --exit-code=0"}},
    {"MissingProgramFailsWithTheCreateError", "CreateProcessDeferred", L"{dir}\\Missing.exe", false, 1603,
     {Error(L"Process", L"CreateProcess failed with error 2")}, {}, {}},
    // Absent and empty are one to the installer; the empty command line fails silently.
    {"ImmediateWithoutCommandLineFailsSilently", "CreateProcessImmediately", L"", false, 1603, {}, {}, {}},
};

INSTANTIATE_TEST_SUITE_P(Runs, CreateProcessAction, ::testing::ValuesIn(kCreateCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

// ------------------------------------------------------------------ close by name

enum class Gate
{
    None,
    ClosedEvent, // the first check waits until the program has handled WM_CLOSE
    ProcessEnd,  // the first check waits until the program has ended
};

struct CloseCase
{
    const char* behaviour;
    const char* action;
    std::vector<const wchar_t*> programs; // each one instance, its switches
    bool otherLetterCase;                 // the name asked for differs in case only
    const wchar_t* timeout;               // TIMEOUT or "CloseProcessTimeout"; null: not given
    Gate gate;
    bool realWaits;
    bool failOpenProcess;
    UINT result;
    Lines lines;
    Waits waits;
    std::vector<DWORD> exitCodes; // of each program afterwards (STILL_ACTIVE: still running)
};

class CloseProcessAction : public ProcessActionTest, public ::testing::WithParamInterface<CloseCase>
{
};

TEST_P(CloseProcessAction, ClosesEveryInstanceByName)
{
    const CloseCase& test = GetParam();
    const std::wstring fileName = ProgramName(test.behaviour);
    const std::wstring exe = CopyProgram(fileName);
    const std::wstring closedName = L"QcProcessTestClosed" + std::to_wstring(::GetCurrentProcessId());
    const Quillcast::System::Types::CKernelHandle hClosed(::CreateEventW(nullptr, TRUE, FALSE, closedName.c_str()));
    ::ResetEvent(hClosed.Get());
    for (const wchar_t* switches : test.programs)
    {
        // Nothing ever sets this release event: windowless programs hold until ended.
        ASSERT_NE(Launch(exe, std::wstring(switches) + L" --closed-event=" + closedName +
                                  L" --release-event=QcNeverReleased"),
                  nullptr);
    }
    ActionHooks::hBeforeFirstCheck = test.gate == Gate::ClosedEvent ? hClosed.Get()
                                     : test.gate == Gate::ProcessEnd ? m_Launched.front().Get()
                                                                     : nullptr;
    ActionHooks::bShortenWaits = !test.realWaits;
    ActionHooks::bFailOpenProcess = test.failOpenProcess;

    std::wstring name = fileName;
    if (test.otherLetterCase)
    {
        name[0] = L'q';
    }
    Lines lines;
    UINT result = 0;
    if (std::string(test.action) == "CloseProcessDeferred")
    {
        // Two pairs are needed: without TIMEOUT another pair takes its place.
        const std::wstring data = L";PROCESSNAME=" + name +
                                  (test.timeout != nullptr ? L";TIMEOUT=" + std::wstring(test.timeout) : L";UNUSED=1");
        result = Run(test.action, data.c_str(), {}, lines);
    }
    else
    {
        // Without programs the case is about the name property being absent.
        Properties properties;
        if (!test.programs.empty())
        {
            properties.emplace_back(L"CloseProcessProperty", name);
        }
        if (test.timeout != nullptr)
        {
            properties.emplace_back(L"CloseProcessTimeout", test.timeout);
        }
        result = Run(test.action, nullptr, properties, lines);
    }

    EXPECT_EQ(result, test.result);
    EXPECT_EQ(lines, Expand(test.lines));
    EXPECT_EQ(ActionHooks::waits, test.waits);
    std::vector<DWORD> exitCodes;
    for (const auto& hProcess : m_Launched)
    {
        DWORD dwExitCode = STILL_ACTIVE;
        if (test.exitCodes.front() == STILL_ACTIVE)
        {
            ::GetExitCodeProcess(hProcess.Get(), &dwExitCode);
        }
        else
        {
            dwExitCode = ExitCodeAfterEnd(hProcess.Get());
        }
        exitCodes.push_back(dwExitCode);
    }
    EXPECT_EQ(exitCodes, test.exitCodes);
    if (test.programs.size() > 1)
    {
        // Handled in snapshot order, which is the order the test started them in.
        EXPECT_EQ(ActionHooks::openedProcessIds, m_LaunchedIds);
    }
}

// Exit codes: 0 terminated by the action, 7 ended by its own WM_CLOSE handling.
const CloseCase kCloseCases[] = {
    {"WindowIgnoringCloseWithoutTimeoutGetsTheDefaultMinute", "CloseProcessDeferred", {L"--window=ignore"}, false,
     nullptr, Gate::None, false, false, 0, {Error(L"Process", L"Timeout reached after 60 seconds")}, {0, 60000}, {0}},
    {"TimeoutTenWaitsTenSeconds", "CloseProcessDeferred", {L"--window=ignore"}, false, L"10", Gate::None, false,
     false, 0, {Error(L"Process", L"Timeout reached after 10 seconds")}, {0, 10000}, {0}},
    {"TimeoutWithoutDigitsIsZeroNotTheDefault", "CloseProcessDeferred", {L"--window=ignore"}, false, L"abc",
     Gate::None, false, false, 0, {Error(L"Process", L"Timeout reached after 0 seconds")}, {0, 0}, {0}},
    {"ImmediateWithoutTimeoutPropertyGetsTheDefaultMinute", "CloseProcessImmediately", {L"--window=ignore"}, false,
     nullptr, Gate::None, false, false, 0, {Error(L"Process", L"Timeout reached after 60 seconds")}, {0, 60000}, {0}},
    {"ImmediateTimeoutPropertyInSeconds", "CloseProcessImmediately", {L"--window=ignore"}, false, L" 7x", Gate::None,
     false, false, 0, {Error(L"Process", L"Timeout reached after 7 seconds")}, {0, 7000}, {0}},
    {"WindowlessProcessIsTerminatedWithoutWaiting", "CloseProcessDeferred", {L"--hold"}, false, L"10", Gate::None,
     false, false, 0, {}, {0}, {0}},
    {"ProcessThatClosesItsWindowButRunsOnIsTerminatedAtOnce", "CloseProcessDeferred", {L"--window=stay"}, false,
     L"10", Gate::ClosedEvent, false, false, 0, {}, {0}, {0}},
    {"ProcessThatEndsOnCloseIsLeftAlone", "CloseProcessDeferred", {L"--window=exit"}, false, L"10",
     Gate::ProcessEnd, false, false, 0, {}, {0}, {7}},
    // The wait is real here: the program ends about 300 ms after its close
    // message, and is still passed to TerminateProcess, which Windows refuses.
    // No blank before "failed": intentional.
    {"ProcessEndingWithinTheTimeoutIsStillTerminated", "CloseProcessDeferred", {L"--window=exit --close-delay=300"},
     false, L"10", Gate::None, true, false, 1603,
     {Error(L"Process", L"TerminateProcess for {pid0}failed with error 5")}, {0, 10000}, {7}},
    {"TwoInstancesAreBothClosedInSnapshotOrder", "CloseProcessDeferred", {L"--hold", L"--hold"}, false, L"10",
     Gate::None, false, false, 0, {}, {0, 0}, {0, 0}},
    {"NameInOtherLetterCaseClosesNothing", "CloseProcessDeferred", {L"--hold"}, true, L"10", Gate::None, false, false,
     0, {}, {}, {STILL_ACTIVE}},
    // Intentional: the entry shows the object's stored value (0), not the failure's code.
    {"FailedOpenLogsTheStoredValueNotTheError", "CloseProcessDeferred", {L"--hold"}, false, L"10", Gate::None, false,
     true, 1603, {Error(L"Process", L"OpenProcess failed with error 0")}, {}, {STILL_ACTIVE}},
    {"ImmediateWithoutNameFailsSilently", "CloseProcessImmediately", {}, false, nullptr, Gate::None, false, false,
     1603, {}, {}, {}},
};

INSTANTIATE_TEST_SUITE_P(Runs, CloseProcessAction, ::testing::ValuesIn(kCloseCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

// ------------------------------------------------------------------ the class's own refusals

TEST_F(ProcessActionTest, RefusesAnEmptyCommandLineOrACloseWithoutSnapshotSilently)
{
    CLogCapture log;
    Quillcast::System::CProcess process;
    EXPECT_FALSE(process.Create(L""));
    EXPECT_EQ(process.LastError(), 87u);
    EXPECT_FALSE(process.CloseByName(L"QcNothing.exe", 0));
    EXPECT_EQ(process.LastError(), 87u);
    EXPECT_TRUE(log.Lines().empty());
}

// No session can refuse a property read; a context without one can. The entry
// names the property and carries the thread's last-error value, not the
// installer's answer (ERROR_INVALID_HANDLE).
TEST_F(ProcessActionTest, ImmediateWorkersNameTheUnreadablePropertyWithTheThreadsLastError)
{
    const std::pair<Quillcast::Host::ActionWorker, const wchar_t*> workers[] = {
        {Quillcast::Actions::CreateProcessImmediatelyWorker, L"CreateProcessProperty"},
        {Quillcast::Actions::CloseProcessImmediatelyWorker, L"CloseProcessProperty"},
        {Quillcast::Actions::ShellExecuteImmediatelyWorker, L"ShellExecuteTarget"},
    };
    for (const auto& worker : workers)
    {
        CLogCapture log;
        Quillcast::Host::CWorkbench workbench(0);
        log.Clear();
        ::SetLastError(4242);
        EXPECT_EQ(worker.first(&workbench), 1603u);
        EXPECT_EQ(log.Bodies(), Lines{Error(L"Various", std::wstring(L"MsiGetProperty ") + worker.second +
                                                            L" failed with error 4242")});
    }
}

} // namespace
} // namespace QcTest
