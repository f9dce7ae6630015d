// Opening targets through the shell, and running the auto-connect program
// named by the auto-connect service's "ImagePath" in the 32-bit registry view.
#include "process/ProcessActionFixture.h"

#include <cstdio>

#include "support/ComChangedMode.h"
#include "support/LogCapture.h"
#include "system/Shell.h"

namespace QcTest {
namespace {

using Properties = std::vector<std::pair<std::wstring, std::wstring>>;

std::wstring Error(const std::wstring& source, const std::wstring& text)
{
    return L"[ERROR] " + source + L" (#) " + text + L".";
}

void WriteFile(const std::wstring& path)
{
    if (FILE* file = ::_wfopen(path.c_str(), L"wb"))
    {
        std::fputs("content", file);
        std::fclose(file);
    }
}

// ------------------------------------------------------------------ shell

struct ShellCase
{
    const char* behaviour;
    const char* action;
    const wchar_t* target;    // in "{dir}": Program.exe (the test program), Plain.qcnoassoc (a file)
    const wchar_t* directory; // "{dir}" exists; "{dir}\\Plain.qcnoassoc" is a file
    UINT result;
    Lines lines;
    bool bRuns; // the program ran in the working directory
};

class ShellExecuteAction : public ProcessActionTest, public ::testing::WithParamInterface<ShellCase>
{
};

TEST_P(ShellExecuteAction, OpensTheTargetInTheWorkingDirectory)
{
    const ShellCase& test = GetParam();
    const std::wstring program = CopyProgram(L"QcShell" + std::wstring(test.action, test.action + 5) + L".exe");
    WriteFile(Folder() + L"\\Plain.qcnoassoc");
    // Started without switches the program holds until released: release it now.
    ::SetEvent(ActionHooks::hRelease);

    Lines lines;
    const std::wstring target = Expand(test.target);
    const std::wstring directory = Expand(test.directory);
    UINT result = 0;
    if (std::string(test.action) == "ShellExecuteDeferred")
    {
        result = Run(test.action, (L"|TARGET=" + target + L"|WORKINGDIR=" + directory).c_str(), {}, lines);
    }
    else
    {
        Properties properties;
        if (!target.empty())
        {
            properties = {{L"ShellExecuteTarget", target}, {L"ShellExecuteWorkDir", directory}};
        }
        result = Run(test.action, nullptr, properties, lines);
    }

    EXPECT_EQ(result, test.result);
    EXPECT_EQ(lines, Expand(test.lines));
    Lines records;
    for (int i = 0; i < 100 && test.bRuns && records.empty(); ++i)
    {
        ::Sleep(100);
        records = Records(program);
    }
    ASSERT_EQ(records.size(), test.bRuns ? 1u : 0u);
    if (test.bRuns)
    {
        // The record: command line, directory, show command.
        const std::wstring record = records.front();
        const size_t tab = record.find(L'\t');
        EXPECT_EQ(record.substr(tab + 1, record.rfind(L'\t') - tab - 1), directory);
    }
}

const ShellCase kShellCases[] = {
    {"DeferredProgramRunsInTheWorkingDirectory", "ShellExecuteDeferred", L"{dir}\\QcShellShell.exe", L"{dir}", 0, {},
     true},
    {"ImmediateProgramRunsInTheWorkingDirectory", "ShellExecuteImmediately", L"{dir}\\QcShellShell.exe", L"{dir}", 0,
     {}, true},
    {"MissingDirectoryFailsBeforeTheTargetIsLookedAt", "ShellExecuteDeferred", L"{dir}\\Missing.exe",
     L"{dir}\\Missing", 1603, {Error(L"Shell", L"Invalid File Attributes")}, false},
    {"DirectoryThatIsAFileFails", "ShellExecuteDeferred", L"{dir}\\QcShellShell.exe", L"{dir}\\Plain.qcnoassoc", 1603,
     {Error(L"Shell", L"Invalid Directory")}, false},
    {"MissingTargetFailsWithoutCallingTheShell", "ShellExecuteDeferred", L"{dir}\\Missing.exe", L"{dir}", 1603,
     {Error(L"Shell", L"Access failed with error 2")}, false},
    // Intentional: no blank between the text and the number.
    {"TargetWithoutAssociationFailsWithReturnCode31", "ShellExecuteImmediately", L"{dir}\\Plain.qcnoassoc", L"{dir}",
     1603, {Error(L"Shell", L"ShellExec failed with return code31")}, false},
    {"ImmediateWithoutPropertiesFailsAtTheDirectory", "ShellExecuteImmediately", L"", L"", 1603,
     {Error(L"Shell", L"Invalid File Attributes")}, false},
};

INSTANTIATE_TEST_SUITE_P(Runs, ShellExecuteAction, ::testing::ValuesIn(kShellCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

// What the shell wrapper keeps as its last error, which the actions do not show.
TEST_F(ProcessActionTest, ShellKeepsTheCodeOfEachFailure)
{
    CLogCapture log;
    WriteFile(Folder() + L"\\Plain.qcnoassoc");
    Quillcast::System::CShell shell;
    EXPECT_FALSE(shell.Execute((Folder() + L"\\Plain.qcnoassoc").c_str(), Folder().c_str()));
    EXPECT_EQ(shell.LastError(), 0x80070483u);
    EXPECT_FALSE(shell.Execute(L"x", (Folder() + L"\\Missing").c_str()));
    EXPECT_EQ(shell.LastError(), 0xFFFFFFFFu);
}

// ------------------------------------------------------------------ auto-connect

constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\QCAutoConnSvc";

struct AutoConnectCase
{
    const char* behaviour;
    const wchar_t* imagePath; // null: no service key; "": the key without the value
    const char* program;      // QCAutoConnect.exe in "{dir}": "" none, "hold" the test program
                              // (released by each wait), "end" the same ended before the check, "text" not a program
    UINT result;
    Lines lines;
    Lines records; // command lines the program recorded
};

class CloseAutoConnectAction : public ProcessActionTest, public ::testing::WithParamInterface<AutoConnectCase>
{
protected:
    void TearDown() override
    {
        ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kServiceKey, KEY_WOW64_32KEY, 0);
        ProcessActionTest::TearDown();
    }
};

TEST_P(CloseAutoConnectAction, RunsTheProgramBesideTheServiceTwice)
{
    const AutoConnectCase& test = GetParam();
    const std::wstring program = Folder() + L"\\QCAutoConnect.exe";
    const std::string kind = test.program;
    if (kind == "hold" || kind == "end")
    {
        CopyProgram(L"QCAutoConnect.exe");
    }
    if (kind == "text")
    {
        WriteFile(program);
    }
    if (kind == "end")
    {
        // Released in advance, the program ends right after its record.
        ActionHooks::bEndBeforeExitCodeRead = true;
        ::SetEvent(ActionHooks::hRelease);
    }
    if (test.imagePath != nullptr)
    {
        HKEY hKey = nullptr;
        ASSERT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kServiceKey, 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY,
                                    nullptr, &hKey, nullptr),
                  ERROR_SUCCESS);
        const std::wstring imagePath = Expand(test.imagePath);
        const auto* pData = reinterpret_cast<const BYTE*>(imagePath.c_str());
        const auto cbData = static_cast<DWORD>((imagePath.size() + 1) * sizeof(wchar_t));
        EXPECT_TRUE(imagePath.empty() ||
                    ::RegSetValueExW(hKey, L"ImagePath", 0, REG_EXPAND_SZ, pData, cbData) == ERROR_SUCCESS);
        ::RegCloseKey(hKey);
    }

    Lines lines;
    const UINT result = Run("CloseAutoConnect", nullptr, {}, lines);

    EXPECT_EQ(result, test.result);
    EXPECT_EQ(lines, Expand(test.lines));
    Lines commandLines;
    for (const std::wstring& record : Records(program))
    {
        commandLines.push_back(record.substr(0, record.find(L'\t')));
        EXPECT_EQ(record.substr(record.rfind(L'\t') + 1), L"0") << "not started hidden";
    }
    EXPECT_EQ(commandLines, Expand(test.records));
    EXPECT_EQ(ActionHooks::waits, Waits(test.result == 0 ? 2 : 0, INFINITE));
    // SYSTEM is one hive for both views, so only the call shows the 32-bit view.
    EXPECT_EQ(ActionHooks::keyAccess, std::vector<REGSAM>{KEY_ALL_ACCESS | KEY_WOW64_32KEY});
}

// RegOpenKeyExW and RegQueryValueExW report their error as their result and
// leave the thread's last-error value alone; the entries show that value (0
// here), as installer logs always have.
const AutoConnectCase kAutoConnectCases[] = {
    {"QuotedImagePathGivesTheBarePathWithSwitches", L"\"{dir}\\QCAutoConnSvc.exe\"", "hold", 0, {},
     {L"{dir}\\QCAutoConnect.exe -d all -q", L"{dir}\\QCAutoConnect.exe -r -q"}},
    {"UnquotedImagePathGivesTheSameCommandLines", L"{dir}\\QCAutoConnSvc.exe", "hold", 0, {},
     {L"{dir}\\QCAutoConnect.exe -d all -q", L"{dir}\\QCAutoConnect.exe -r -q"}},
    {"MissingServiceKeyFailsAndStartsNothing", nullptr, "hold", 1603,
     {Error(L"Various", L"Open registry key failed with error 0")}, {}},
    {"MissingImagePathFails", L"", "hold", 1603, {Error(L"Various", L"Query registry value failed with error 0")}, {}},
    {"MissingProgramFailsTheAccessCheck", L"{dir}\\QCAutoConnSvc.exe", "", 1603,
     {Error(L"Various", L"Access failed with error 2")}, {}},
    {"ProgramThatCannotStartFailsTheStart", L"{dir}\\QCAutoConnSvc.exe", "text", 1603,
     {Error(L"Process", L"CreateProcess failed with error 193"), Error(L"Various", L"Start failed with error 193")},
     {}},
    // Intentional, as for the create-process actions: ended before the check fails.
    {"ProgramEndedBeforeTheCheckFailsTheWait", L"{dir}\\QCAutoConnSvc.exe", "end", 1603,
     {Error(L"Various", L"Wait failed with error 0")}, {L"{dir}\\QCAutoConnect.exe -d all -q"}},
};

INSTANTIATE_TEST_SUITE_P(Runs, CloseAutoConnectAction, ::testing::ValuesIn(kAutoConnectCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

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
