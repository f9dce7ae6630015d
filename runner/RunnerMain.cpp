// QcActionRunner: runs one custom action of the DLL in a scratch installer
// session, without building an installer. See the README for its use.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <mutex>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "ClosestName.h"
#include "DataCheck.h"
#include "RunnerOptions.h"
#include "host/ActionTable.h"

namespace {

using namespace QcRunner;
using Quillcast::Host::ACTION_COUNT;
using Quillcast::Host::g_CustomActionNames;
using Quillcast::Host::g_CustomActionTable;

// The action's thread prints its records as they arrive, the main thread the
// rest and a time-out: whole lines, one at a time.
std::mutex g_OutputLock;

std::string Utf8(const std::wstring& text)
{
    const int bytes =
        WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<size_t>(bytes > 0 ? bytes : 0), '\0');
    if (bytes > 0)
    {
        (void)WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &utf8[0], bytes, nullptr,
                                  nullptr);
    }
    return utf8;
}

// Written and flushed at once: a hung action leaves all it did on the screen.
void WriteLine(FILE* stream, const std::wstring& text)
{
    const std::string line = Utf8(text) + '\n';
    (void)fwrite(line.data(), 1, line.size(), stream);
    (void)fflush(stream);
}

void PrintTo(FILE* stream, const std::wstring& text)
{
    const std::lock_guard<std::mutex> lock(g_OutputLock);
    WriteLine(stream, text);
}

void Print(const std::wstring& text)
{
    PrintTo(stdout, text);
}

int Fail(int exitCode, const std::wstring& message)
{
    PrintTo(stderr, L"QcActionRunner: " + message);
    if (exitCode == EXIT_USAGE)
    {
        PrintTo(stderr, L"(QcActionRunner --help shows the options)");
    }
    return exitCode;
}

// One line per action, in the action table's order, read from the table the
// DLL is built from: the name, the kind ("data": reads its arguments from
// "CustomActionData", so it runs deferred; "session": takes nothing from it and
// reads installer properties, if any) and the "CustomActionData" keys in the
// order they are logged, the required ones marked with "*".
void PrintActionList()
{
    Print(L"# ACTION KIND ARGUMENTS (in order; * required; docs/actions.md describes each action)");
    for (uint32_t index = 0; index < ACTION_COUNT; ++index)
    {
        const Quillcast::Host::CustomActionEntry& row = g_CustomActionTable[index];
        std::wstring line = g_CustomActionNames[index];
        line += row.dwArgumentCount != 0 ? L" data" : L" session";
        for (uint32_t argument = 0; argument < row.dwArgumentCount; ++argument)
        {
            const wchar_t* name = row.ppszArguments[argument];
            bool bRequired = false;
            for (uint32_t required = 0; required < row.dwRequiredCount; ++required)
            {
                bRequired = bRequired || std::wcscmp(row.ppszRequired[required], name) == 0;
            }
            line += L" " + std::wstring(name) + (bRequired ? L"*" : L"");
        }
        Print(line);
    }
}

// The row of the action table named exactly `action`, or ACTION_COUNT.
uint32_t TableIndex(const std::wstring& action)
{
    uint32_t index = 0;
    while (index < ACTION_COUNT && action != g_CustomActionNames[index])
    {
        ++index;
    }
    return index;
}

std::vector<std::wstring> TableNames()
{
    return std::vector<std::wstring>(g_CustomActionNames, g_CustomActionNames + ACTION_COUNT);
}

// "...servicestart; did you mean ServiceStart?": the installer finds entry
// points by their exact name.
std::wstring NoSuchAction(const std::wstring& what, const std::wstring& action, const std::vector<std::wstring>& names)
{
    const std::wstring closest = ClosestName(action, names);
    return what + action + (closest.empty() ? L" (--list shows the actions)" : L"; did you mean " + closest + L"?");
}

std::wstring Counted(size_t count, const wchar_t* noun)
{
    return std::to_wstring(count) + L" " + noun + (count == 1 ? L"" : L"s");
}

int CheckData(const Options& options)
{
    const uint32_t index = TableIndex(options.action);
    if (index == ACTION_COUNT)
    {
        return Fail(EXIT_NOT_LOADABLE, NoSuchAction(L"the action table has no action ", options.action, TableNames()));
    }
    size_t errors = 0;
    const std::vector<DataFinding> findings = CheckCustomActionData(index, options.data);
    for (const DataFinding& finding : findings)
    {
        errors += finding.bError ? 1 : 0;
        Print((finding.bError ? L"error: " : L"warning: ") + finding.text);
    }
    Print(L"check: " + options.action + L", " + Counted(errors, L"error") + L", " +
          Counted(findings.size() - errors, L"warning"));
    return errors != 0 ? EXIT_CHECK_ERRORS : findings.empty() ? EXIT_ACTION_SUCCEEDED : EXIT_CHECK_WARNINGS;
}

// A deferred action sees "CustomActionData" and no other property under
// msiexec: trying it with properties set would try a case that never occurs.
bool RunsAsUnderMsiexec(const Options& options, std::wstring& error)
{
    const uint32_t index = TableIndex(options.action);
    if (index == ACTION_COUNT || g_CustomActionTable[index].dwArgumentCount == 0 || options.allowProperties)
    {
        return true;
    }
    for (const auto& property : options.properties)
    {
        if (property.first != L"CustomActionData")
        {
            error = options.action + L" reads \"CustomActionData\" only: it runs deferred, where msiexec hands it no " +
                    L"other property (--property " + property.first + L"). Pass its arguments with --data, or " +
                    L"add --allow-properties to set properties all the same";
            return false;
        }
    }
    return true;
}

std::wstring DefaultDllPath()
{
    std::vector<wchar_t> path(32768, L'\0');
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    std::wstring text(path.data(), length);
    const size_t slash = text.find_last_of(L"\\/");
    return (slash == std::wstring::npos ? std::wstring() : text.substr(0, slash + 1)) + L"Quillcast.Common.System.dll";
}

std::wstring AnswerName(int answer)
{
    switch (answer)
    {
    case 0:
        return L"none, as in a silent install; ";
    case IDOK:
        return L"IDOK; ";
    case IDCANCEL:
        return L"IDCANCEL; ";
    case IDABORT:
        return L"IDABORT; ";
    case IDRETRY:
        return L"IDRETRY; ";
    case IDIGNORE:
        return L"IDIGNORE; ";
    case IDYES:
        return L"IDYES; ";
    case IDNO:
        return L"IDNO; ";
    default:
        return L"";
    }
}

// Records as they arrive: "message: 0x03000004: [1]|Continue?| -> 1 (IDOK; the default answer)".
void PrintRecord(const HandledRecord& record)
{
    if (record.bLog)
    {
        Print(L"log: " + record.text);
        return;
    }
    Print(L"message: " + record.text + L" (" + AnswerName(record.answer) +
          (record.bScriptedAnswer ? L"from --answer)" : L"the default answer)"));
}

struct ActionCall
{
    CActionHost* pHost;
    CustomActionFunction action;
    bool bNullHandle;
    UINT result;
};

DWORD WINAPI CallAction(void* pContext)
{
    auto* pCall = static_cast<ActionCall*>(pContext);
    pCall->result =
        pCall->bNullHandle ? pCall->pHost->CallWithHandle(pCall->action, 0) : pCall->pHost->Call(pCall->action);
    return 0;
}

// A custom action cannot be cancelled, and ending its thread would leave the
// installer's and the process's locks held: the whole process ends, at once,
// without unloading anything (which could wait for the hung thread).
[[noreturn]] void EndOnTimeout(const Options& options, const CActionHost& host)
{
    const std::lock_guard<std::mutex> lock(g_OutputLock); // nothing printed after this line
    WriteLine(stdout, L"timeout: " + options.action + L" did not return within " +
                          std::to_wstring(options.timeoutSeconds) +
                          L" s; the runner ends (processes the action started keep running)");
    // Wine deletes the scratch package although the session holds it; Windows may refuse.
    (void)DeleteFileW(host.PackagePath().c_str());
    (void)TerminateProcess(GetCurrentProcess(), EXIT_TIMED_OUT);
    ExitProcess(EXIT_TIMED_OUT);
}

// Calls the action on a thread of its own, so that a time-out can end a hung one.
UINT RunAction(const Options& options, CActionHost& host, CustomActionFunction action)
{
    ActionCall call{&host, action, options.nullHandle, 0};
    const Quillcast::System::Types::CKernelHandle thread(CreateThread(nullptr, 0, CallAction, &call, 0, nullptr));
    if (!thread)
    {
        (void)CallAction(&call);
        return call.result;
    }
    DWORD wait = INFINITE;
    if (options.timeoutSeconds != 0)
    {
        const unsigned long long milliseconds = options.timeoutSeconds * 1000ULL;
        wait = milliseconds < INFINITE ? static_cast<DWORD>(milliseconds) : INFINITE - 1;
    }
    if (WaitForSingleObject(thread.Get(), wait) == WAIT_TIMEOUT)
    {
        EndOnTimeout(options, host);
    }
    return call.result;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    Options options;
    std::wstring error;
    if (!ParseOptions(argc, argv, options, error))
    {
        return Fail(EXIT_USAGE, error);
    }
    if (options.help)
    {
        Print(kUsage);
        return EXIT_ACTION_SUCCEEDED;
    }
    if (options.list)
    {
        PrintActionList();
        return EXIT_ACTION_SUCCEEDED;
    }
    if (options.check)
    {
        return CheckData(options);
    }
    if (!RunsAsUnderMsiexec(options, error))
    {
        return Fail(EXIT_USAGE, error);
    }
    if (options.dll.empty())
    {
        options.dll = DefaultDllPath();
    }

    CActionLibrary library(options.dll);
    if (!library.IsLoaded())
    {
        const DWORD dwError = GetLastError();
        return Fail(EXIT_NOT_LOADABLE, L"cannot load " + options.dll + L" (error " + std::to_wstring(dwError) + L")");
    }
    const std::string exportName(options.action.begin(), options.action.end());
    const CustomActionFunction action = library.Find(exportName);
    if (action == nullptr)
    {
        std::vector<std::wstring> exports;
        for (const std::string& name : library.ExportNames())
        {
            exports.emplace_back(name.begin(), name.end());
        }
        return Fail(EXIT_NOT_LOADABLE, NoSuchAction(L"the DLL has no export ", options.action, exports));
    }

    CActionHost host;
    if (!host.IsOpen())
    {
        return Fail(EXIT_NO_SESSION, L"cannot open a scratch installer session: " + host.Error());
    }
    for (const auto& property : options.properties)
    {
        if (!host.SetProperty(property.first, property.second))
        {
            return Fail(EXIT_USAGE, L"cannot set the property '" + property.first + L"'");
        }
    }
    if (options.hasData && !host.SetCustomActionData(options.data))
    {
        return Fail(EXIT_USAGE, L"cannot set \"CustomActionData\"");
    }
    for (int answer : options.answers)
    {
        host.QueueAnswer(answer);
    }
    if (options.hasDefaultAnswer)
    {
        host.SetFallbackAnswer(options.defaultAnswer);
    }
    host.SetObserver(PrintRecord);

    const UINT result = RunAction(options, host, action);

    for (const std::wstring& name : options.shown)
    {
        Print(L"property: " + name + L"=" + host.GetProperty(name));
    }
    Print(L"result: " + std::to_wstring(result));
    return result == ERROR_SUCCESS ? EXIT_ACTION_SUCCEEDED : EXIT_ACTION_FAILED;
}
