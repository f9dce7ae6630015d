// The process and shell actions through real sessions, against real processes, windows, shell and registry of the
// run's Wine prefix. Imports of the DLL go to recorders that pass each call on: they record what the action chose
// and order the test program's steps against the action's, so that no case depends on timing. TerminateProcess
// keeps the Windows rule Wine lacks: a process that has already ended cannot be terminated.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <fstream>
#include <numeric>
#include <process.h>
#include <tuple>

#include "host/MsiProperty.h"
#include "support/ActionCall.h"
#include "support/ComChangedMode.h"
#include "support/ImportPatch.h"
#include "system/Registry.h"
#include "system/Shell.h"

namespace QcTest {
namespace {

using Quillcast::System::Types::CKernelHandle;

constexpr DWORD kPatienceMs = 10000;
constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\QCAutoConnSvc";

enum Flags
{
    kEndFirst = 1,   // the exit-code read releases the holding program and waits for its end before, not after
    kGateClosed = 2, // the first check waits until the program has handled WM_CLOSE
    kGateEnd = 4,    // the first check waits until the program has ended
    kRealWaits = 8,  // finite waits are passed on unchanged, not as 0 ms (a chosen minute costs nothing)
    kFailOpen = 16,  // OpenProcess is asked for process id 0, which it refuses
};

// What the redirected imports saw, and how the case has them act.
std::vector<DWORD> g_Waits;      // every time-out passed to WaitForSingleObject
std::vector<DWORD> g_OpenedIds;  // every process id passed to OpenProcess
std::vector<REGSAM> g_KeyAccess; // every access mask passed to RegOpenKeyExW (REGSAM is a DWORD)
std::vector<DWORD> g_Creations;  // the creation flags of every CreateProcessW call
int g_ImagePathQueries = 0;      // RegQueryValueExW calls for "ImagePath"
int g_Flags = 0;
// The holding programs' release, set after every exit-code read of the action, and the event a windowed program
// sets once it has handled WM_CLOSE.
const CKernelHandle g_hRelease(::CreateEventW(nullptr, FALSE, FALSE, L"QcTestProgramRelease"));
const CKernelHandle g_hClosed(::CreateEventW(nullptr, TRUE, FALSE, L"QcProcessTestClosed"));

DWORD WINAPI RecordingWait(HANDLE hObject, DWORD dwMilliseconds)
{
    g_Waits.push_back(dwMilliseconds);
    if (dwMilliseconds == 0 && (g_Flags & (kGateClosed | kGateEnd)) != 0)
    {
        ::WaitForSingleObject((g_Flags & kGateClosed) != 0 ? g_hClosed.Get() : hObject, kPatienceMs);
    }
    const bool bShorten = (g_Flags & kRealWaits) == 0 && dwMilliseconds != INFINITE;
    return ::WaitForSingleObject(hObject, bShorten ? 0 : dwMilliseconds);
}

HANDLE WINAPI RecordingOpenProcess(DWORD dwAccess, BOOL bInherit, DWORD dwProcessId)
{
    g_OpenedIds.push_back(dwProcessId);
    return ::OpenProcess(dwAccess, bInherit, (g_Flags & kFailOpen) != 0 ? 0 : dwProcessId);
}

BOOL WINAPI OrderedGetExitCodeProcess(HANDLE hProcess, LPDWORD pdwExitCode)
{
    if ((g_Flags & kEndFirst) != 0)
    {
        ::SetEvent(g_hRelease.Get());
        ::WaitForSingleObject(hProcess, kPatienceMs);
    }
    const BOOL bRead = ::GetExitCodeProcess(hProcess, pdwExitCode);
    ::SetEvent(g_hRelease.Get());
    return bRead;
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

LSTATUS WINAPI CountingRegQueryValueExW(HKEY hKey, LPCWSTR pszName, LPDWORD pdwReserved, LPDWORD pdwType, LPBYTE pData,
                                        LPDWORD pcbData)
{
    g_ImagePathQueries += pszName != nullptr && std::wstring(pszName) == L"ImagePath" ? 1 : 0;
    return ::RegQueryValueExW(hKey, pszName, pdwReserved, pdwType, pData, pcbData);
}

BOOL WINAPI RecordingCreateProcessW(LPCWSTR pszApplication, LPWSTR pszCommandLine, LPSECURITY_ATTRIBUTES pProcess,
                                    LPSECURITY_ATTRIBUTES pThread, BOOL bInherit, DWORD dwFlags, LPVOID pEnvironment,
                                    LPCWSTR pszDirectory, LPSTARTUPINFOW pStartup, LPPROCESS_INFORMATION pInformation)
{
    g_Creations.push_back(dwFlags);
    return ::CreateProcessW(pszApplication, pszCommandLine, pProcess, pThread, bInherit, dwFlags, pEnvironment,
                            pszDirectory, pStartup, pInformation);
}

std::wstring Error(const std::wstring& source, const std::wstring& text)
{
    return L"[ERROR] " + source + L" (#) " + text + L".\n";
}

// One row: the action succeeds, logs nothing of its own, starts nothing and waits for nothing, unless it says so.
// {dir} stands for the test's directory, {exe} for the case's copy of the test program in it, {name} for the case's
// name and {pid} for the id of the first launched program.
struct Case
{
    const char* name;
    const char* action;
    Properties properties;
    UINT result = 0;
    std::wstring text{}; // the log's lines, then the copy's records of its starts (command line, directory, show)
    std::vector<DWORD> waits{};           // the time-outs the action waits with
    std::vector<const wchar_t*> launch{}; // programs the test starts before the action, by their switches
    std::vector<DWORD> exitCodes{};       // of the launched programs afterwards (STILL_ACTIVE: still running)
    int flags = 0;

    Case& Text(const std::wstring& expected) { return text = expected, *this; }
    Case& Fails(const std::wstring& expected) { return result = 1603, Text(expected); }
    Case& Waits(std::vector<DWORD> timeouts) { return waits = std::move(timeouts), *this; }
    Case& Launch(std::vector<const wchar_t*> switches, std::vector<DWORD> codes)
    {
        return launch = std::move(switches), exitCodes = std::move(codes), *this;
    }
    Case& Flags(int value) { return flags = value, *this; }
};

Case Row(const char* name, const char* action, Properties properties)
{
    return Case{name, action, std::move(properties)};
}

using ProcessAction = ::testing::TestWithParam<Case>;

TEST_P(ProcessAction, Case)
{
    const Case& test = GetParam();
    g_Waits = g_OpenedIds = g_KeyAccess = g_Creations = {};
    g_ImagePathQueries = 0;
    ::ResetEvent(g_hRelease.Get());
    ::ResetEvent(g_hClosed.Get());
    wchar_t directory[MAX_PATH] = {};
    ::GetCurrentDirectoryW(MAX_PATH, directory);
    const std::wstring name(test.name, test.name + std::strlen(test.name));
    const bool bAutoConnect = std::string(test.action) == "CloseAutoConnect";
    const std::wstring file = bAutoConnect ? L"QCAutoConnect.exe" : L"Qc{name}.exe";
    std::vector<CKernelHandle> launched;
    const auto expand = [&](std::wstring text) {
        const std::wstring pid = launched.empty() ? L"" : std::to_wstring(::GetProcessId(launched[0].Get()));
        for (const auto& key :
             Properties{{L"{exe}", L"{dir}\\" + file}, {L"{dir}", directory}, {L"{name}", name}, {L"{pid}", pid}})
        {
            for (size_t at = text.find(key.first); at != std::wstring::npos; at = text.find(key.first, at))
            {
                text.replace(at, key.first.size(), key.second);
            }
        }
        return text;
    };
    ASSERT_TRUE(::CopyFileW((BinFolder() + L"QcTestProgram.exe").c_str(), expand(L"{exe}").c_str(), FALSE));
    std::ofstream(expand(L"{dir}\\Plain.qcnoassoc").c_str()) << "content";
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kServiceKey);
    for (const wchar_t* switches : test.launch)
    {
        // Ready once its window exists. Nothing sets the release event: windowless programs hold until ended.
        const CKernelHandle hReady(::CreateEventW(nullptr, FALSE, FALSE, expand(L"QcReady{name}").c_str()));
        const std::wstring events =
            expand(L"--ready-event=QcReady{name} --closed-event=QcProcessTestClosed --release-event=QcNever");
        launched.emplace_back(reinterpret_cast<HANDLE>(
            ::_wspawnl(_P_NOWAIT, expand(L"{exe}").c_str(), L"QcTest", events.c_str(), switches, nullptr)));
        ASSERT_EQ(::WaitForSingleObject(hReady.Get(), kPatienceMs), WAIT_OBJECT_0) << "the program is not ready";
    }
    // The launched programs' records are the test's own.
    ::DeleteFileW(expand(L"{exe}.record").c_str());
    Properties properties;
    for (const auto& property : test.properties)
    {
        properties.emplace_back(property.first, expand(property.second));
        const std::wstring& value = properties.back().second;
        // "ImagePath", which the session ignores, goes to the service's key; "" leaves the key without the value.
        EXPECT_TRUE(property.first != L"ImagePath" ||
                    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kServiceKey, value.empty() ? L"Other" : L"ImagePath",
                                      REG_EXPAND_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * 2)) == 0);
    }
    g_Flags = test.flags;
    const HMODULE hModule = ShippedLibrary().Module();
    const CImportPatch patches[] = {
        {hModule, "KERNEL32.dll", "WaitForSingleObject", reinterpret_cast<const void*>(&RecordingWait)},
        {hModule, "KERNEL32.dll", "OpenProcess", reinterpret_cast<const void*>(&RecordingOpenProcess)},
        {hModule, "KERNEL32.dll", "GetExitCodeProcess", reinterpret_cast<const void*>(&OrderedGetExitCodeProcess)},
        {hModule, "KERNEL32.dll", "TerminateProcess", reinterpret_cast<const void*>(&WindowsTerminateProcess)},
        {hModule, "ADVAPI32.dll", "RegOpenKeyExW", reinterpret_cast<const void*>(&RecordingRegOpenKeyExW)},
        {hModule, "ADVAPI32.dll", "RegQueryValueExW", reinterpret_cast<const void*>(&CountingRegQueryValueExW)},
        {hModule, "KERNEL32.dll", "CreateProcessW", reinterpret_cast<const void*>(&RecordingCreateProcessW)},
    };

    const ActionOutcome outcome = RunAction(test.action, properties, {});

    EXPECT_EQ(outcome.result, test.result);
    EXPECT_EQ(g_Waits, test.waits);
    // SYSTEM is one hive for both registry views: only the call shows the 32-bit view.
    EXPECT_EQ(g_KeyAccess, std::vector<REGSAM>(bAutoConnect, KEY_ALL_ACCESS | KEY_WOW64_32KEY));
    // The size query, then the read, also when the value is missing and the size query fails.
    EXPECT_EQ(g_ImagePathQueries, !test.properties.empty() && test.properties[0].first == L"ImagePath" ? 2 : 0);
    // Every program the DLL starts gets a console of its own, and nothing else.
    EXPECT_EQ(g_Creations, std::vector<DWORD>(g_Creations.size(), CREATE_NEW_CONSOLE));
    // Handled in snapshot order, which is the order the test started them in.
    EXPECT_TRUE(launched.size() < 2 || g_OpenedIds == (std::vector<DWORD>{::GetProcessId(launched[0].Get()),
                                                                          ::GetProcessId(launched[1].Get())}));
    const std::wstring logged = std::accumulate(outcome.lines.begin(), outcome.lines.end(), std::wstring(),
                                                [](const auto& all, const auto& line) { return all + line + L"\n"; });
    // A program the shell started records a moment after the action.
    std::wstring text;
    for (int i = 0; i < 100 && (i == 0 || text != expand(test.text)); ++i)
    {
        ::Sleep(i == 0 ? 0 : 100);
        std::wifstream records(expand(L"{exe}.record").c_str());
        text = logged + std::wstring(std::istreambuf_iterator<wchar_t>(records), {});
    }
    EXPECT_EQ(text, expand(test.text));
    std::vector<DWORD> exitCodes(launched.size());
    for (size_t i = 0; i < launched.size(); ++i)
    {
        ::WaitForSingleObject(launched[i].Get(), test.exitCodes[0] == STILL_ACTIVE ? 0 : kPatienceMs);
        ::GetExitCodeProcess(launched[i].Get(), &exitCodes[i]);
        ::TerminateProcess(launched[i].Get(), 99);
    }
    EXPECT_EQ(exitCodes, test.exitCodes);
    // A program the shell started holds until the release.
    ::SetEvent(g_hRelease.Get());
}

Properties Data(const wchar_t* data)
{
    return {{L"CustomActionData", data}};
}
const Properties kCloseTen = Data(L";PROCESSNAME=Qc{name}.exe;TIMEOUT=10");
const wchar_t kFirstAutoConnectRun[] = L"{dir}\\QCAutoConnect.exe -d all -q\t{dir}\t0\n";

const Case kCases[] = {
    // Started hidden (show command 0) in the current directory; the program's own result is logged, not judged.
    Row("ExitCodeIsLoggedNotJudged", "CreateProcessDeferred", Data(L"|CMDLINE=\"{exe}\" --hold --exit-code=5"))
        .Text(L"Various (#) Exit code of process is 5.\n\"{exe}\" --hold --exit-code=5\t{dir}\t0\n")
        .Waits({INFINITE}),
    // Intentional: the exit code is read right after the start and must still be STILL_ACTIVE; a program that
    // has already ended, even with 0, fails.
    Row("EndedBeforeTheCheckFailsAlthoughItRan", "CreateProcessImmediately", {{L"CreateProcessProperty", L"\"{exe}\""}})
        .Fails(L"\"{exe}\"\t{dir}\t0\n")
        .Flags(kEndFirst),
    Row("EmptyCommandLineFailsSilently", "CreateProcessImmediately", {}).Fails(L""),

    // Closing by name. Exit codes: 0 terminated by the action, 7 ended by its own WM_CLOSE handling.
    Row("NoTimeoutPropertyWaitsTheDefaultMinute", "CloseProcessImmediately",
        {{L"CloseProcessProperty", L"Qc{name}.exe"}})
        .Text(Error(L"Process", L"Timeout reached after 60 seconds"))
        .Waits({0, 60000})
        .Launch({L"--window=ignore"}, {0}),
    Row("TimeoutPropertyInSeconds", "CloseProcessImmediately",
        {{L"CloseProcessProperty", L"Qc{name}.exe"}, {L"CloseProcessTimeout", L" 7x"}})
        .Text(Error(L"Process", L"Timeout reached after 7 seconds"))
        .Waits({0, 7000})
        .Launch({L"--window=ignore"}, {0}),
    Row("ClosedWindowButRunningIsTerminatedAtOnce", "CloseProcessDeferred", kCloseTen)
        .Waits({0})
        .Launch({L"--window=stay"}, {0})
        .Flags(kGateClosed),
    Row("EndingOnCloseIsLeftAlone", "CloseProcessDeferred", kCloseTen)
        .Waits({0})
        .Launch({L"--window=exit"}, {7})
        .Flags(kGateEnd),
    // The wait is real here: the program ends about 300 ms after its close message, and is still passed to
    // TerminateProcess, which Windows refuses. No blank before "failed": intentional.
    Row("EndingWithinTheTimeoutIsStillTerminated", "CloseProcessDeferred", kCloseTen)
        .Fails(Error(L"Process", L"TerminateProcess for {pid}failed with error 5"))
        .Waits({0, 10000})
        .Launch({L"--window=exit --close-delay=300"}, {7})
        .Flags(kRealWaits),
    // A window that ignores its close gets no time at all from a TIMEOUT without digits; a windowless program is
    // terminated without a wait.
    Row("TwoAreClosedInSnapshotOrderAndATimeoutWithoutDigitsIsZero", "CloseProcessDeferred",
        Data(L";PROCESSNAME=Qc{name}.exe;TIMEOUT=abc"))
        .Text(Error(L"Process", L"Timeout reached after 0 seconds"))
        .Waits({0, 0, 0})
        .Launch({L"--window=ignore", L"--hold"}, {0, 0}),
    Row("NameInOtherLetterCaseClosesNothing", "CloseProcessDeferred", Data(L";PROCESSNAME=qc{name}.exe;TIMEOUT=10"))
        .Launch({L"--hold"}, {STILL_ACTIVE}),
    // Intentional: the entry shows the object's stored value (0), not the failure's code.
    Row("FailedOpenLogsTheStoredValueNotTheError", "CloseProcessDeferred", kCloseTen)
        .Fails(Error(L"Process", L"OpenProcess failed with error 0"))
        .Launch({L"--hold"}, {STILL_ACTIVE})
        .Flags(kFailOpen),
    Row("EmptyNameFailsSilently", "CloseProcessImmediately", {}).Fails(L""),

    // Through the shell (show command SW_SHOWDEFAULT), in the working directory, not the test's.
    Row("ShellRunsTheTargetInTheWorkingDirectory", "ShellExecuteDeferred",
        Data(L"|TARGET={exe}|WORKINGDIR=C:\\windows"))
        .Text(L"\"{exe}\"\tC:\\windows\t10\n"),
    Row("MissingDirectoryFailsBeforeTheTargetIsLookedAt", "ShellExecuteDeferred",
        Data(L"|TARGET={dir}\\Missing.exe|WORKINGDIR={dir}\\Missing"))
        .Fails(Error(L"Shell", L"Invalid File Attributes")),
    // Intentional: no blank between the text and the number.
    Row("NoAssociationFailsWithReturnCode31", "ShellExecuteImmediately",
        {{L"ShellExecuteTarget", L"Plain.qcnoassoc"}, {L"ShellExecuteWorkDir", L"{dir}"}})
        .Fails(Error(L"Shell", L"ShellExec failed with return code31")),

    // The auto-connect program beside the service's, run twice. RegOpenKeyExW and RegQueryValueExW report their
    // error as their result and leave the thread's last-error value alone; the entries show that value (0 here).
    Row("QuotedImagePathGivesTheBarePathWithSwitches", "CloseAutoConnect",
        {{L"ImagePath", L"\"{dir}\\QCAutoConnSvc.exe\""}})
        .Text(kFirstAutoConnectRun + std::wstring(L"{dir}\\QCAutoConnect.exe -r -q\t{dir}\t0\n"))
        .Waits({INFINITE, INFINITE}),
    Row("MissingImagePathFails", "CloseAutoConnect", {{L"ImagePath", L""}})
        .Fails(Error(L"Various", L"Query registry value failed with error 0")),
    Row("ProgramThatCannotStartFailsTheStart", "CloseAutoConnect", {{L"ImagePath", L"{dir}\\Plain.qcnoassoc"}})
        .Fails(Error(L"Process", L"CreateProcess failed with error 193") +
               Error(L"Various", L"Start failed with error 193")),
    // Intentional, as for the create-process actions: ended before the check fails.
    Row("ProgramEndedBeforeTheCheckFailsTheWait", "CloseAutoConnect", {{L"ImagePath", L"{dir}\\QCAutoConnSvc.exe"}})
        .Fails(Error(L"Various", L"Wait failed with error 0") + kFirstAutoConnectRun)
        .Flags(kEndFirst),
};

INSTANTIATE_TEST_SUITE_P(Runs, ProcessAction, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.name); });

// What the shell wrapper keeps where no action shows it: the last-error value of a failure, and its COM state.
TEST(ShellCode, KeepsTheCodeOfEachFailureAndEndsTheCallersMultithreadedCom)
{
    std::ofstream("Plain.qcnoassoc") << "content";
    const auto lastError = [](const wchar_t* pszTarget, const wchar_t* pszDirectory) {
        Quillcast::System::CShell shell;
        EXPECT_FALSE(shell.Execute(pszTarget, pszDirectory));
        return shell.LastError();
    };
    EXPECT_EQ(lastError(L"Plain.qcnoassoc", L"."), 0x80070483u);
    // Intentional: the invalid attributes themselves, not the thread's last error.
    EXPECT_EQ(lastError(L"x", L"Z:\\QcNoSuchFolder"), 0xFFFFFFFFu);
    // Kept on purpose: the wrapper counts RPC_E_CHANGED_MODE as its own initialisation and uninitialises all the
    // same, so the caller's multithreaded COM ends with it and initialising again starts anew (S_OK, not S_FALSE).
    const ChangedModeOutcome outcome = WrapperOnMultithreadedThread<Quillcast::System::CShell>();
    EXPECT_EQ(std::make_tuple(outcome.first, outcome.lastError, outcome.again), std::make_tuple(S_OK, 0u, S_OK));
}

// Helpers that log for their caller write the caller's source and line, so that a log line leads to the call and
// not to the helper. Both entries carry the thread's last-error value: a failed open leaves it alone, and its status
// (ERROR_FILE_NOT_FOUND) is not what the entry shows.
TEST(ProcessAndShellCode, HelperEntriesCarryTheCallersSourceAndLine)
{
    constexpr Quillcast::Logging::CLogSource kCaller{L"Various", 7000};
    CLogCapture log;
    Quillcast::System::Types::CWideBuffer value;
    Quillcast::System::Types::CRegistryKey key;
    ::SetLastError(4242);
    const uint32_t readLine = __LINE__ + 1;
    EXPECT_FALSE(QC_READ_PROPERTY_OR_LOG(0, L"CloseProcessProperty", value, kCaller));
    ::SetLastError(4243);
    const uint32_t openLine = __LINE__ + 2; // the line of the macro's name
    const bool bOpened =
        QC_OPEN_KEY_OR_LOG(HKEY_LOCAL_MACHINE, L"SYSTEM\\QcNoSuchKey", KEY_READ, key,
                           Quillcast::Logging::LOG_LEVEL_WARNING, kCaller, L"Open registry key failed with error ");
    EXPECT_FALSE(bOpened);
    ASSERT_EQ(log.Lines().size(), 2u);
    EXPECT_EQ(WithoutPrefixes(log.Lines()[0]), L"[ERROR] Various (" + std::to_wstring(7000 + readLine) +
                                                   L") MsiGetProperty CloseProcessProperty failed with error 4242.");
    EXPECT_EQ(WithoutPrefixes(log.Lines()[1]), L"[WARNING] Various (" + std::to_wstring(7000 + openLine) +
                                                   L") Open registry key failed with error 4243.");
}

} // namespace
} // namespace QcTest
