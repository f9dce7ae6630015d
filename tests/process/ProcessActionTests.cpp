// The process and shell actions through real sessions, against real processes,
// windows, shell and registry of the run's Wine prefix. Imports of the DLL go
// to recorders that pass each call on: they record what the action chose and
// order the test program's steps against the action's, so that no case depends
// on timing. TerminateProcess keeps the Windows rule Wine lacks: a process that
// has already ended cannot be terminated.
#include <gtest/gtest.h>

#include <windows.h>
#include <tlhelp32.h>

#include <cstring>
#include <fstream>

#include "actions/Workers.h"
#include "directory/ActionCall.h"
#include "support/ComChangedMode.h"
#include "support/ImportPatch.h"
#include "system/Process.h"
#include "system/Shell.h"

namespace QcTest {
namespace {

using Quillcast::System::Types::CKernelHandle;

constexpr DWORD kPatienceMs = 10000;
constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\QCAutoConnSvc";

enum Flags
{
    kEndFirst = 1,   // the exit-code read releases the holding program and waits for its end first
    kGateClosed = 2, // the first check waits until the program has handled WM_CLOSE
    kGateEnd = 4,    // the first check waits until the program has ended
    kRealWaits = 8,  // finite waits are passed on unchanged, not as 0 ms (a chosen minute costs nothing)
    kFailOpen = 16,  // OpenProcess fails with ERROR_ACCESS_DENIED
};

// What the redirected imports saw, and how the case has them act.
std::vector<DWORD> g_Waits;           // every time-out passed to WaitForSingleObject
std::vector<DWORD> g_OpenedIds;       // every process id passed to OpenProcess
std::vector<REGSAM> g_KeyAccess;      // every access mask passed to RegOpenKeyExW
int g_Flags = 0;
HANDLE g_hBeforeFirstCheck = nullptr; // waited on before the first 0 ms check is passed on
// The holding programs' release, set by every unlimited wait of the action, and
// the event a windowed program sets once it has handled WM_CLOSE.
const HANDLE g_hRelease = ::CreateEventW(nullptr, FALSE, FALSE, L"QcTestProgramRelease");
const HANDLE g_hClosed = ::CreateEventW(nullptr, TRUE, FALSE, L"QcProcessTestClosed");

DWORD WINAPI RecordingWait(HANDLE hObject, DWORD dwMilliseconds)
{
    g_Waits.push_back(dwMilliseconds);
    if (dwMilliseconds == INFINITE)
    {
        ::SetEvent(g_hRelease);
    }
    if (dwMilliseconds == 0 && g_hBeforeFirstCheck != nullptr)
    {
        ::WaitForSingleObject(g_hBeforeFirstCheck, kPatienceMs);
    }
    const bool bShorten = (g_Flags & kRealWaits) == 0 && dwMilliseconds != INFINITE;
    return ::WaitForSingleObject(hObject, bShorten ? 0 : dwMilliseconds);
}

HANDLE WINAPI RecordingOpenProcess(DWORD dwAccess, BOOL bInherit, DWORD dwProcessId)
{
    g_OpenedIds.push_back(dwProcessId);
    if ((g_Flags & kFailOpen) != 0)
    {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return ::OpenProcess(dwAccess, bInherit, dwProcessId);
}

BOOL WINAPI OrderedGetExitCodeProcess(HANDLE hProcess, LPDWORD pdwExitCode)
{
    if ((g_Flags & kEndFirst) != 0)
    {
        ::SetEvent(g_hRelease);
        ::WaitForSingleObject(hProcess, kPatienceMs);
    }
    return ::GetExitCodeProcess(hProcess, pdwExitCode);
}

BOOL WINAPI WindowsTerminateProcess(HANDLE hProcess, UINT uExitCode)
{
    if (::WaitForSingleObject(hProcess, 0) == WAIT_OBJECT_0)
    {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    return ::TerminateProcess(hProcess, uExitCode);
}

LSTATUS WINAPI RecordingRegOpenKeyExW(HKEY hKey, LPCWSTR pszSubKey, DWORD dwOptions, REGSAM access, PHKEY phResult)
{
    g_KeyAccess.push_back(access);
    return ::RegOpenKeyExW(hKey, pszSubKey, dwOptions, access, phResult);
}

std::wstring Error(const std::wstring& source, const std::wstring& text)
{
    return L"[ERROR] " + source + L" (#) " + text + L".";
}

// Placeholders: {dir} the case's folder, {exe} the case's copy of the test
// program in it (Qc{name}.exe, or QCAutoConnect.exe for the auto-connect
// action), {name} the case's name, {cwd} the test's directory, {pid} the id
// of the first launched program. "ImagePath", which the session ignores, also
// goes to the auto-connect service's key ("": the key without the value).
struct Case
{
    const char* name;
    const char* action;
    Properties properties;
    std::vector<const wchar_t*> launch; // programs started before the action, by their switches
    int flags;
    UINT result;
    Lines lines;
    std::vector<DWORD> waits;
    Lines records;                // what the copy recorded
    std::vector<DWORD> exitCodes; // of the launched programs afterwards (STILL_ACTIVE: still running)
};

class ProcessAction : public ::testing::TestWithParam<Case>
{
protected:
    void SetUp() override
    {
        g_Waits.clear();
        g_OpenedIds.clear();
        g_KeyAccess.clear();
        ::ResetEvent(g_hRelease);
        ::ResetEvent(g_hClosed);
        const Case& test = GetParam();
        wchar_t temp[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, temp);
        m_Name.assign(test.name, test.name + std::strlen(test.name));
        m_Folder = std::wstring(temp) + L"QcProcess" + m_Name;
        ::CreateDirectoryW(m_Folder.c_str(), nullptr);
        m_File = std::string(test.action) == "CloseAutoConnect" ? L"QCAutoConnect.exe" : L"Qc" + m_Name + L".exe";
        ::DeleteFileW((Expand(L"{exe}") + L".record").c_str());
        ASSERT_TRUE(::CopyFileW((BinFolder() + L"QcTestProgram.exe").c_str(), Expand(L"{exe}").c_str(), FALSE));
        std::ofstream(Expand(L"{dir}\\Plain.qcnoassoc").c_str()) << "content";
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kServiceKey);
    }

    // Ends every process of the case's copy, the shell's too.
    void TearDown() override
    {
        const CKernelHandle hSnapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
        PROCESSENTRY32W entry{};
        entry.dwSize = sizeof(entry);
        for (BOOL bMore = ::Process32FirstW(hSnapshot.Get(), &entry); bMore;
             bMore = ::Process32NextW(hSnapshot.Get(), &entry))
        {
            if (m_File == entry.szExeFile)
            {
                const CKernelHandle hProcess(::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE,
                                                           entry.th32ProcessID));
                ::TerminateProcess(hProcess.Get(), 99);
                ::WaitForSingleObject(hProcess.Get(), kPatienceMs);
            }
        }
    }

    std::wstring Expand(std::wstring text) const
    {
        wchar_t cwd[MAX_PATH] = {};
        ::GetCurrentDirectoryW(MAX_PATH, cwd);
        const std::wstring pid = m_LaunchedIds.empty() ? L"" : std::to_wstring(m_LaunchedIds.front());
        const Properties keys = {{L"{exe}", L"{dir}\\" + m_File}, {L"{dir}", m_Folder}, {L"{name}", m_Name},
                                 {L"{cwd}", cwd}, {L"{pid}", pid}};
        for (const auto& key : keys)
        {
            for (size_t at = text.find(key.first); at != std::wstring::npos; at = text.find(key.first, at))
            {
                text.replace(at, key.first.size(), key.second);
            }
        }
        return text;
    }
    // What the copy recorded: command line, directory, show command (ASCII here).
    Lines Records() const
    {
        Lines lines;
        std::ifstream file(Expand(L"{exe}.record").c_str());
        for (std::string line; std::getline(file, line);)
        {
            lines.emplace_back(line.begin(), line.end());
        }
        return lines;
    }
    Lines Expand(Lines lines) const
    {
        for (std::wstring& line : lines)
        {
            line = Expand(line);
        }
        return lines;
    }

    // Starts the copy with `switches` and waits until it is ready (its window exists).
    void Launch(const std::wstring& switches)
    {
        const std::wstring ready = L"QcReady" + m_Name + std::to_wstring(m_Launched.size());
        const CKernelHandle hReady(::CreateEventW(nullptr, TRUE, FALSE, ready.c_str()));
        // Nothing sets this release event: windowless programs hold until ended.
        std::wstring commandLine = Expand(L"\"{exe}\" --ready-event=" + ready + L" --closed-event=QcProcessTestClosed"
                                          L" --release-event=QcNeverReleased " + switches);
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION info{};
        ASSERT_TRUE(::CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                                     &startup, &info));
        ::CloseHandle(info.hThread);
        m_Launched.emplace_back(info.hProcess);
        m_LaunchedIds.push_back(info.dwProcessId);
        ASSERT_EQ(::WaitForSingleObject(hReady.Get(), kPatienceMs), WAIT_OBJECT_0) << "the program is not ready";
    }

    std::wstring m_Folder;
    std::wstring m_Name;
    std::wstring m_File;
    std::vector<CKernelHandle> m_Launched;
    std::vector<DWORD> m_LaunchedIds;
    const HMODULE m_hModule = ShippedLibrary().Module();
    const CImportPatch m_Patches[5] = {
        {m_hModule, "KERNEL32.dll", "WaitForSingleObject", reinterpret_cast<const void*>(&RecordingWait)},
        {m_hModule, "KERNEL32.dll", "OpenProcess", reinterpret_cast<const void*>(&RecordingOpenProcess)},
        {m_hModule, "KERNEL32.dll", "GetExitCodeProcess", reinterpret_cast<const void*>(&OrderedGetExitCodeProcess)},
        {m_hModule, "KERNEL32.dll", "TerminateProcess", reinterpret_cast<const void*>(&WindowsTerminateProcess)},
        {m_hModule, "ADVAPI32.dll", "RegOpenKeyExW", reinterpret_cast<const void*>(&RecordingRegOpenKeyExW)},
    };
};

TEST_P(ProcessAction, Case)
{
    const Case& test = GetParam();
    for (const wchar_t* switches : test.launch)
    {
        ASSERT_NO_FATAL_FAILURE(Launch(switches));
    }
    Properties properties;
    for (const auto& property : test.properties)
    {
        const std::wstring value = Expand(property.second);
        properties.emplace_back(property.first, value);
        // SYSTEM is one hive for both registry views. "" leaves the key without the value.
        EXPECT_TRUE(property.first != L"ImagePath" ||
                    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kServiceKey, value.empty() ? L"Other" : L"ImagePath",
                                      REG_EXPAND_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * 2)) == 0);
    }
    g_Flags = test.flags;
    g_hBeforeFirstCheck = (test.flags & kGateClosed) != 0 ? g_hClosed
                          : (test.flags & kGateEnd) != 0  ? m_Launched.front().Get()
                                                          : nullptr;

    const ActionOutcome outcome = RunAction(test.action, properties, {});

    EXPECT_EQ(outcome.result, test.result);
    EXPECT_EQ(outcome.lines, Expand(test.lines));
    EXPECT_EQ(g_Waits, test.waits);
    // The auto-connect action opens its one key; only the call shows the 32-bit view.
    EXPECT_EQ(g_KeyAccess, std::vector<REGSAM>(m_File == L"QCAutoConnect.exe", KEY_ALL_ACCESS | KEY_WOW64_32KEY));
    // A program the shell started records a moment after the action.
    for (int i = 0; i < 100 && Records().size() < test.records.size(); ++i)
    {
        ::Sleep(100);
    }
    // The programs the case launched record switches of the test's own.
    EXPECT_EQ(test.launch.empty() ? Records() : Lines{}, Expand(test.records));
    std::vector<DWORD> exitCodes;
    for (const CKernelHandle& hProcess : m_Launched)
    {
        ::WaitForSingleObject(hProcess.Get(), test.exitCodes.front() == STILL_ACTIVE ? 0 : kPatienceMs);
        exitCodes.push_back(0xFFFFFFFF);
        ::GetExitCodeProcess(hProcess.Get(), &exitCodes.back());
    }
    EXPECT_EQ(exitCodes, test.exitCodes);
    if (test.launch.size() > 1)
    {
        // Handled in snapshot order, which is the order the test started them in.
        EXPECT_EQ(g_OpenedIds, m_LaunchedIds);
    }
}

Properties Data(const wchar_t* data)
{
    return {{L"CustomActionData", data}};
}
const Properties kCloseTen = Data(L";PROCESSNAME=Qc{name}.exe;TIMEOUT=10");
const Lines kExitFive = {L"Various (#) Exit code of process is 5."};
const Lines kHeld = {L"\"{exe}\" --hold --exit-code=5\t{cwd}\t0"};
const Lines kShellRun = {L"\"{exe}\"\t{dir}\t10"};
const Lines kAutoConnectRuns = {L"{dir}\\QCAutoConnect.exe -d all -q\t{cwd}\t0",
                                L"{dir}\\QCAutoConnect.exe -r -q\t{cwd}\t0"};
const Properties kAutoConnectSvc = {{L"ImagePath", L"{dir}\\QCAutoConnSvc.exe"}};

const Case kCases[] = {
    // Started hidden (show command 0) in the current directory; the program's own result is logged, not judged.
    {"DeferredProgramExitingWithFiveSucceedsAndLogsIt", "CreateProcessDeferred",
     Data(L"|CMDLINE=\"{exe}\" --hold --exit-code=5"), {}, 0, 0, kExitFive, {INFINITE}, kHeld, {}},
    {"ImmediateProgramExitingWithFiveSucceedsAndLogsIt", "CreateProcessImmediately",
     {{L"CreateProcessProperty", L"\"{exe}\" --hold --exit-code=5"}}, {}, 0, 0, kExitFive, {INFINITE}, kHeld, {}},
    // Intentional: the exit code is read right after the start and must still be STILL_ACTIVE; a program that
    // has already ended, even with 0, fails.
    {"ProgramThatHasEndedBeforeTheCheckFailsAlthoughItRan", "CreateProcessDeferred", Data(L"|CMDLINE=\"{exe}\""), {},
     kEndFirst, 1603, {}, {}, {L"\"{exe}\"\t{cwd}\t0"}, {}},
    {"MissingProgramFailsWithTheCreateError", "CreateProcessDeferred", Data(L"|CMDLINE={dir}\\Missing.exe"), {}, 0,
     1603, {Error(L"Process", L"CreateProcess failed with error 2")}, {}, {}, {}},
    // Absent and empty are one to the installer; the empty command line fails silently.
    {"ImmediateWithoutCommandLineFailsSilently", "CreateProcessImmediately", {}, {}, 0, 1603, {}, {}, {}, {}},

    // Closing by name. Exit codes: 0 terminated by the action, 7 ended by its own WM_CLOSE handling. The
    // deferred action needs two pairs: without TIMEOUT another pair takes its place.
    {"WindowIgnoringCloseWithoutTimeoutGetsTheDefaultMinute", "CloseProcessDeferred",
     Data(L";PROCESSNAME=Qc{name}.exe;UNUSED=1"), {L"--window=ignore"}, 0, 0,
     {Error(L"Process", L"Timeout reached after 60 seconds")}, {0, 60000}, {}, {0}},
    {"TimeoutWithoutDigitsIsZeroNotTheDefault", "CloseProcessDeferred", Data(L";PROCESSNAME=Qc{name}.exe;TIMEOUT=abc"),
     {L"--window=ignore"}, 0, 0, {Error(L"Process", L"Timeout reached after 0 seconds")}, {0, 0}, {}, {0}},
    {"ImmediateWithoutTimeoutPropertyGetsTheDefaultMinute", "CloseProcessImmediately",
     {{L"CloseProcessProperty", L"Qc{name}.exe"}}, {L"--window=ignore"}, 0, 0,
     {Error(L"Process", L"Timeout reached after 60 seconds")}, {0, 60000}, {}, {0}},
    {"ImmediateTimeoutPropertyInSeconds", "CloseProcessImmediately",
     {{L"CloseProcessProperty", L"Qc{name}.exe"}, {L"CloseProcessTimeout", L" 7x"}}, {L"--window=ignore"}, 0, 0,
     {Error(L"Process", L"Timeout reached after 7 seconds")}, {0, 7000}, {}, {0}},
    {"WindowlessProcessIsTerminatedWithoutWaiting", "CloseProcessDeferred", kCloseTen, {L"--hold"}, 0, 0, {}, {0},
     {}, {0}},
    {"ProcessThatClosesItsWindowButRunsOnIsTerminatedAtOnce", "CloseProcessDeferred", kCloseTen,
     {L"--window=stay"}, kGateClosed, 0, {}, {0}, {}, {0}},
    {"ProcessThatEndsOnCloseIsLeftAlone", "CloseProcessDeferred", kCloseTen, {L"--window=exit"}, kGateEnd, 0, {},
     {0}, {}, {7}},
    // The wait is real here: the program ends about 300 ms after its close message, and is still passed to
    // TerminateProcess, which Windows refuses. No blank before "failed": intentional.
    {"ProcessEndingWithinTheTimeoutIsStillTerminated", "CloseProcessDeferred", kCloseTen,
     {L"--window=exit --close-delay=300"}, kRealWaits, 1603,
     {Error(L"Process", L"TerminateProcess for {pid}failed with error 5")}, {0, 10000}, {}, {7}},
    {"TwoInstancesAreBothClosedInSnapshotOrder", "CloseProcessDeferred", kCloseTen, {L"--hold", L"--hold"}, 0, 0,
     {}, {0, 0}, {}, {0, 0}},
    {"NameInOtherLetterCaseClosesNothing", "CloseProcessDeferred", Data(L";PROCESSNAME=qc{name}.exe;TIMEOUT=10"),
     {L"--hold"}, 0, 0, {}, {}, {}, {STILL_ACTIVE}},
    // Intentional: the entry shows the object's stored value (0), not the failure's code.
    {"FailedOpenLogsTheStoredValueNotTheError", "CloseProcessDeferred", kCloseTen, {L"--hold"}, kFailOpen, 1603,
     {Error(L"Process", L"OpenProcess failed with error 0")}, {}, {}, {STILL_ACTIVE}},
    {"ImmediateWithoutNameFailsSilently", "CloseProcessImmediately", {}, {}, 0, 1603, {}, {}, {}, {}},

    // Through the shell (show command SW_SHOWDEFAULT), in the working directory.
    {"DeferredShellRunsTheProgramInTheWorkingDirectory", "ShellExecuteDeferred",
     Data(L"|TARGET={exe}|WORKINGDIR={dir}"), {}, 0, 0, {}, {}, kShellRun, {}},
    {"ImmediateShellRunsTheProgramInTheWorkingDirectory", "ShellExecuteImmediately",
     {{L"ShellExecuteTarget", L"{exe}"}, {L"ShellExecuteWorkDir", L"{dir}"}}, {}, 0, 0, {}, {}, kShellRun, {}},
    {"MissingDirectoryFailsBeforeTheTargetIsLookedAt", "ShellExecuteDeferred",
     Data(L"|TARGET={dir}\\Missing.exe|WORKINGDIR={dir}\\Missing"), {}, 0, 1603,
     {Error(L"Shell", L"Invalid File Attributes")}, {}, {}, {}},
    {"DirectoryThatIsAFileFails", "ShellExecuteDeferred", Data(L"|TARGET={exe}|WORKINGDIR={dir}\\Plain.qcnoassoc"),
     {}, 0, 1603, {Error(L"Shell", L"Invalid Directory")}, {}, {}, {}},
    {"MissingTargetFailsWithoutCallingTheShell", "ShellExecuteDeferred",
     Data(L"|TARGET={dir}\\Missing.exe|WORKINGDIR={dir}"), {}, 0, 1603,
     {Error(L"Shell", L"Access failed with error 2")}, {}, {}, {}},
    // Intentional: no blank between the text and the number.
    {"TargetWithoutAssociationFailsWithReturnCode31", "ShellExecuteImmediately",
     {{L"ShellExecuteTarget", L"{dir}\\Plain.qcnoassoc"}, {L"ShellExecuteWorkDir", L"{dir}"}}, {}, 0, 1603,
     {Error(L"Shell", L"ShellExec failed with return code31")}, {}, {}, {}},
    {"ImmediateShellWithoutPropertiesFailsAtTheDirectory", "ShellExecuteImmediately", {}, {}, 0, 1603,
     {Error(L"Shell", L"Invalid File Attributes")}, {}, {}, {}},

    // The auto-connect program beside the service's, run twice. RegOpenKeyExW and RegQueryValueExW report their
    // error as their result and leave the thread's last-error value alone; the entries show that value (0 here).
    {"QuotedImagePathGivesTheBarePathWithSwitches", "CloseAutoConnect",
     {{L"ImagePath", L"\"{dir}\\QCAutoConnSvc.exe\""}}, {}, 0, 0, {}, {INFINITE, INFINITE}, kAutoConnectRuns, {}},
    {"MissingServiceKeyFailsAndStartsNothing", "CloseAutoConnect", {}, {}, 0, 1603,
     {Error(L"Various", L"Open registry key failed with error 0")}, {}, {}, {}},
    {"MissingImagePathFails", "CloseAutoConnect", {{L"ImagePath", L""}}, {}, 0, 1603,
     {Error(L"Various", L"Query registry value failed with error 0")}, {}, {}, {}},
    {"MissingProgramFailsTheAccessCheck", "CloseAutoConnect", {{L"ImagePath", L"{dir}\\Missing.exe"}}, {}, 0, 1603,
     {Error(L"Various", L"Access failed with error 2")}, {}, {}, {}},
    {"ProgramThatCannotStartFailsTheStart", "CloseAutoConnect", {{L"ImagePath", L"{dir}\\Plain.qcnoassoc"}}, {}, 0,
     1603,
     {Error(L"Process", L"CreateProcess failed with error 193"), Error(L"Various", L"Start failed with error 193")},
     {}, {}, {}},
    // Intentional, as for the create-process actions: ended before the check fails.
    {"ProgramEndedBeforeTheCheckFailsTheWait", "CloseAutoConnect", kAutoConnectSvc, {}, kEndFirst, 1603,
     {Error(L"Various", L"Wait failed with error 0")}, {}, {kAutoConnectRuns[0]}, {}},
};

INSTANTIATE_TEST_SUITE_P(Runs, ProcessAction, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.name); });

// The wrappers' own refusals and kept codes, which the actions do not show.
TEST(ProcessAndShellObjects, RefuseSilentlyAndKeepTheCodeOfEachFailure)
{
    CLogCapture log;
    Quillcast::System::CProcess process;
    EXPECT_FALSE(process.Create(L""));
    EXPECT_EQ(process.LastError(), 87u);
    EXPECT_FALSE(process.CloseByName(L"QcNothing.exe", 0));
    EXPECT_EQ(process.LastError(), 87u);
    EXPECT_TRUE(log.Lines().empty());
    wchar_t temp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring plain = std::wstring(temp) + L"QcPlain.qcnoassoc";
    std::ofstream(plain.c_str()) << "content";
    Quillcast::System::CShell shell;
    EXPECT_FALSE(shell.Execute(plain.c_str(), temp));
    EXPECT_EQ(shell.LastError(), 0x80070483u);
    EXPECT_FALSE(shell.Execute(L"x", L"Z:\\QcNoSuchFolder"));
    EXPECT_EQ(shell.LastError(), 0xFFFFFFFFu);
}

// No session can refuse a property read; a context without one can. The entry
// names the property and carries the thread's last-error value, not the
// installer's answer (ERROR_INVALID_HANDLE).
TEST(ProcessWorkers, ImmediateWorkersNameTheUnreadablePropertyWithTheThreadsLastError)
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

// The shell wrapper counts RPC_E_CHANGED_MODE as its own initialisation and
// uninitialises all the same (kept on purpose): the caller's multithreaded COM
// ends with it, so initialising again starts anew (S_OK, not S_FALSE).
TEST(ShellObject, ChangedModeIsUninitialisedByTheDestructorAllTheSame)
{
    const ChangedModeOutcome outcome = WrapperOnMultithreadedThread<Quillcast::System::CShell>();
    EXPECT_EQ(outcome.first, S_OK);
    EXPECT_EQ(outcome.lastError, 0u);
    EXPECT_EQ(outcome.again, S_OK);
}

} // namespace
} // namespace QcTest
