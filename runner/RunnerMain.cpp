// QcActionRunner: runs one custom action of the DLL in a scratch installer
// session, without building an installer. See the README for its use.
#include <windows.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "host/ActionTable.h"

namespace {

// Exit codes: the shell sees only the low 8 bits of a Windows exit code (1603
// would read 67), so the full result goes to the output and the exit code
// only says what happened.
enum ExitCode : int
{
    EXIT_ACTION_SUCCEEDED = 0, // the action returned 0
    EXIT_ACTION_FAILED = 1,    // the action returned anything else ("result: CODE")
    EXIT_USAGE = 2,            // bad command line, or a property that cannot be set
    EXIT_NOT_LOADABLE = 3,     // the DLL or the export cannot be loaded
    EXIT_NO_SESSION = 4,       // no scratch installer session could be made
};

const wchar_t kUsage[] =
    L"usage: QcActionRunner [options] ACTION\n"
    L"Runs the export ACTION of the custom-action DLL in a scratch installer session.\n"
    L"  --dll PATH             the custom-action DLL (default: Quillcast.Common.System.dll beside the runner)\n"
    L"  --property NAME=VALUE  set an installer property before the call (repeatable)\n"
    L"  --data TEXT            set \"CustomActionData\" (the arguments of a deferred action)\n"
    L"  --answer N             answer the next user message with N (repeatable; 1 IDOK, 2 IDCANCEL, 6 IDYES, 7 IDNO)\n"
    L"  --show NAME            print this property after the call (repeatable)\n"
    L"  --null-handle          call the action with session handle 0\n"
    L"  --list                 print the thirty actions with their kind and arguments, and run nothing\n"
    L"  --help                 print this text\n"
    L"Prints every log record raw ('log: '), every user message with its answer ('message: '),\n"
    L"the properties asked for ('property: NAME=VALUE') and 'result: CODE'.\n"
    L"Exit code: 0 the action returned 0 (also for --help and --list); 1 it returned another code\n"
    L"(see 'result: '); 2 usage error; 3 the DLL or the export cannot be loaded; 4 no installer session.";

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

void PrintTo(FILE* stream, const std::wstring& text)
{
    const std::string line = Utf8(text) + '\n';
    (void)fwrite(line.data(), 1, line.size(), stream);
    (void)fflush(stream);
}

void Print(const std::wstring& text)
{
    PrintTo(stdout, text);
}

// One line per action, in the action table's order, read from the table the
// DLL is built from: the name, the kind ("data": reads its arguments from
// "CustomActionData", so it runs deferred; "session": takes nothing from it and
// reads installer properties, if any) and the "CustomActionData" keys in the
// order they are logged, the required ones marked with "*".
void PrintActionList()
{
    using namespace Quillcast::Host;
    Print(L"# ACTION KIND ARGUMENTS (in order; * required; docs/actions.md describes each action)");
    for (uint32_t index = 0; index < ACTION_COUNT; ++index)
    {
        const CustomActionEntry& row = g_CustomActionTable[index];
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

int Fail(int exitCode, const std::wstring& message)
{
    PrintTo(stderr, L"QcActionRunner: " + message);
    if (exitCode == EXIT_USAGE)
    {
        PrintTo(stderr, L"(QcActionRunner --help shows the options)");
    }
    return exitCode;
}

std::wstring DefaultDllPath()
{
    std::vector<wchar_t> path(32768, L'\0');
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    std::wstring text(path.data(), length);
    const size_t slash = text.find_last_of(L"\\/");
    return (slash == std::wstring::npos ? std::wstring() : text.substr(0, slash + 1)) + L"Quillcast.Common.System.dll";
}

// A whole decimal number with an optional sign, in the range of int.
bool ParseAnswer(const std::wstring& text, int& answer)
{
    size_t digits = (!text.empty() && (text[0] == L'-' || text[0] == L'+')) ? 1 : 0;
    if (digits == text.size() || text.size() - digits > 10)
    {
        return false;
    }
    for (size_t i = digits; i < text.size(); ++i)
    {
        if (text[i] < L'0' || text[i] > L'9')
        {
            return false;
        }
    }
    const long long value = std::wcstoll(text.c_str(), nullptr, 10);
    if (value < INT_MIN || value > INT_MAX)
    {
        return false;
    }
    answer = static_cast<int>(value);
    return true;
}

struct Options
{
    bool help = false;
    std::wstring dll;
    std::wstring action;
    std::vector<std::pair<std::wstring, std::wstring>> properties;
    std::vector<int> answers;
    std::vector<std::wstring> shown;
    bool hasData = false;
    std::wstring data;
    bool nullHandle = false;
    bool list = false;
};

bool ParseOptions(int argc, wchar_t** argv, Options& options, std::wstring& error)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring option = argv[i];
        const bool takesValue = option == L"--dll" || option == L"--property" || option == L"--data" ||
                                option == L"--answer" || option == L"--show";
        if (takesValue && i + 1 >= argc)
        {
            error = option + L" needs a value";
            return false;
        }
        if (option == L"--help" || option == L"-h" || option == L"/?")
        {
            options.help = true;
            return true;
        }
        if (option == L"--list")
        {
            options.list = true;
            return true;
        }
        if (option == L"--dll")
        {
            options.dll = argv[++i];
        }
        else if (option == L"--property")
        {
            const std::wstring pair = argv[++i];
            const size_t equals = pair.find(L'=');
            if (equals == std::wstring::npos || equals == 0)
            {
                error = L"--property needs NAME=VALUE, not '" + pair + L"'";
                return false;
            }
            options.properties.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
        }
        else if (option == L"--data")
        {
            options.hasData = true;
            options.data = argv[++i];
        }
        else if (option == L"--answer")
        {
            int answer = 0;
            if (!ParseAnswer(argv[i + 1], answer))
            {
                error = L"--answer needs a whole number, not '" + std::wstring(argv[i + 1]) + L"'";
                return false;
            }
            ++i;
            options.answers.push_back(answer);
        }
        else if (option == L"--show")
        {
            options.shown.push_back(argv[++i]);
        }
        else if (option == L"--null-handle")
        {
            options.nullHandle = true;
        }
        else if (!option.empty() && option[0] != L'-' && options.action.empty())
        {
            options.action = option;
        }
        else
        {
            error = L"unexpected argument '" + option + L"'";
            return false;
        }
    }
    if (options.action.empty())
    {
        error = L"no action named";
        return false;
    }
    return true;
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
    if (options.dll.empty())
    {
        options.dll = DefaultDllPath();
    }

    QcRunner::CActionLibrary library(options.dll);
    if (!library.IsLoaded())
    {
        const DWORD dwError = GetLastError();
        return Fail(EXIT_NOT_LOADABLE, L"cannot load " + options.dll + L" (error " + std::to_wstring(dwError) + L")");
    }
    const std::string exportName(options.action.begin(), options.action.end());
    const QcRunner::CustomActionFunction action = library.Find(exportName);
    if (action == nullptr)
    {
        return Fail(EXIT_NOT_LOADABLE, L"the DLL has no export " + options.action);
    }

    QcRunner::CActionHost host;
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

    const UINT result = options.nullHandle ? host.CallWithHandle(action, 0) : host.Call(action);

    for (const std::wstring& line : host.LogLines())
    {
        Print(L"log: " + line);
    }
    for (const std::wstring& message : host.Messages())
    {
        Print(L"message: " + message);
    }
    for (const std::wstring& name : options.shown)
    {
        Print(L"property: " + name + L"=" + host.GetProperty(name));
    }
    Print(L"result: " + std::to_wstring(result));
    return result == ERROR_SUCCESS ? EXIT_ACTION_SUCCEEDED : EXIT_ACTION_FAILED;
}
