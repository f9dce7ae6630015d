// QcActionRunner: runs one custom action of the DLL in a scratch installer
// session, without building an installer. See the README for its use.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <vector>

#include "ActionHost.h"

namespace {

const wchar_t kUsage[] =
    L"usage: QcActionRunner [options] ACTION\n"
    L"  --dll PATH             the custom-action DLL (default: Quillcast.Common.System.dll beside the runner)\n"
    L"  --property NAME=VALUE  set an installer property before the call (repeatable)\n"
    L"  --data TEXT            set \"CustomActionData\" (the arguments of a deferred action)\n"
    L"  --answer N             answer the next user message with N (repeatable; 1 IDOK, 2 IDCANCEL, 6 IDYES, 7 IDNO)\n"
    L"  --show NAME            print this property after the call (repeatable)\n"
    L"  --null-handle          call the action with session handle 0\n"
    L"Prints every log record raw ('log: '), every user message with its answer ('message: '),\n"
    L"the properties asked for ('property: NAME=VALUE') and 'result: CODE'; exits with CODE.\n";

void Print(const std::wstring& text)
{
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                          nullptr);
    std::string utf8(static_cast<size_t>(bytes > 0 ? bytes : 0), '\0');
    if (bytes > 0)
    {
        WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &utf8[0], bytes, nullptr,
                            nullptr);
    }
    utf8 += '\n';
    fwrite(utf8.data(), 1, utf8.size(), stdout);
}

int Fail(const std::wstring& message)
{
    Print(L"error: " + message);
    fflush(stdout);
    return ERROR_INSTALL_FAILURE;
}

std::wstring DefaultDllPath()
{
    std::vector<wchar_t> path(32768, L'\0');
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    std::wstring text(path.data(), length);
    const size_t slash = text.find_last_of(L"\\/");
    return (slash == std::wstring::npos ? std::wstring() : text.substr(0, slash + 1)) + L"Quillcast.Common.System.dll";
}

struct Options
{
    std::wstring dll;
    std::wstring action;
    std::vector<std::pair<std::wstring, std::wstring>> properties;
    std::vector<int> answers;
    std::vector<std::wstring> shown;
    bool hasData = false;
    std::wstring data;
    bool nullHandle = false;
};

bool ParseOptions(int argc, wchar_t** argv, Options& options, std::wstring& error)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == L"--dll" && hasValue)
        {
            options.dll = argv[++i];
        }
        else if (option == L"--property" && hasValue)
        {
            const std::wstring pair = argv[++i];
            const size_t equals = pair.find(L'=');
            if (equals == std::wstring::npos || equals == 0)
            {
                error = L"--property needs NAME=VALUE: " + pair;
                return false;
            }
            options.properties.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
        }
        else if (option == L"--data" && hasValue)
        {
            options.hasData = true;
            options.data = argv[++i];
        }
        else if (option == L"--answer" && hasValue)
        {
            options.answers.push_back(_wtoi(argv[++i]));
        }
        else if (option == L"--show" && hasValue)
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
            error = L"unexpected argument: " + option;
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
        Print(kUsage);
        return Fail(error);
    }
    if (options.dll.empty())
    {
        options.dll = DefaultDllPath();
    }

    QcRunner::CActionLibrary library(options.dll);
    if (!library.IsLoaded())
    {
        return Fail(L"cannot load " + options.dll + L" (error " + std::to_wstring(GetLastError()) + L")");
    }
    const std::string exportName(options.action.begin(), options.action.end());
    const QcRunner::CustomActionFunction action = library.Find(exportName);
    if (action == nullptr)
    {
        return Fail(L"the DLL has no export " + options.action);
    }

    QcRunner::CActionHost host;
    if (!host.IsOpen())
    {
        return Fail(L"cannot open a scratch installer session: " + host.Error());
    }
    for (const auto& property : options.properties)
    {
        host.SetProperty(property.first, property.second);
    }
    if (options.hasData)
    {
        host.SetCustomActionData(options.data);
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
    fflush(stdout);
    return static_cast<int>(result);
}
