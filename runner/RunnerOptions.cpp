#include "RunnerOptions.h"

#include <climits>
#include <cwchar>

namespace QcRunner {

const wchar_t kUsage[] =
    L"usage: QcActionRunner [options] ACTION\n"
    L"Runs the export ACTION of the custom-action DLL in a scratch installer session.\n"
    L"  --dll PATH             the custom-action DLL (default: Quillcast.Common.System.dll beside the runner)\n"
    L"  --data TEXT            set \"CustomActionData\" (the arguments of a deferred action)\n"
    L"  --property NAME=VALUE  set an installer property before the call (repeatable); refused for an action\n"
    L"                         that reads \"CustomActionData\": it runs deferred, where msiexec hands it no\n"
    L"                         other property\n"
    L"  --allow-properties     set the --property values for such an action all the same\n"
    L"  --answer N             answer the next user message with N (repeatable; 1 IDOK, 2 IDCANCEL, 6 IDYES, 7 IDNO)\n"
    L"  --default-answer N     answer the messages left without --answer with N; without it they get 1 (IDOK),\n"
    L"                         which the message actions take as consent; 0, what a silent install answers,\n"
    L"                         is consent too\n"
    L"  --show NAME            print this property after the call (repeatable)\n"
    L"  --timeout SECONDS      end the runner when the action has not returned within SECONDS (a custom action\n"
    L"                         cannot be cancelled; processes it started keep running)\n"
    L"  --null-handle          call the action with session handle 0\n"
    L"  --check                judge --data, written as a package's setter writes it ([NAME] a property), by\n"
    L"                         QcPackageCheck's \"CustomActionData\" rules for ACTION, and run nothing\n"
    L"  --list                 print the thirty actions with their kind and arguments, and run nothing\n"
    L"  --help                 print this text\n"
    L"An option's value may also follow an equals sign: --data=TEXT, --property=NAME=VALUE.\n"
    L"Prints every log record raw ('log: ') and every user message with its answer ('message: ') as they\n"
    L"happen, then the properties asked for ('property: NAME=VALUE') and 'result: CODE'.\n"
    L"Exit code: 0 the action returned 0 (also for --help, --list and a --check without findings); 1 it\n"
    L"returned another code (see 'result: '); 2 usage error; 3 the DLL or the export cannot be loaded;\n"
    L"4 no installer session; 5 the action did not return within --timeout; 6 --check found an error;\n"
    L"7 --check found warnings only.";

namespace {

// A whole decimal number with an optional sign, in the range of int.
bool ParseWholeNumber(const std::wstring& text, int& number)
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
    number = static_cast<int>(value);
    return true;
}

struct OptionName
{
    const wchar_t* name;
    bool bTakesValue;
};

const OptionName kOptions[] = {
    {L"--help", false},
    {L"-h", false},
    {L"/?", false},
    {L"--list", false},
    {L"--check", false},
    {L"--null-handle", false},
    {L"--allow-properties", false},
    {L"--dll", true},
    {L"--property", true},
    {L"--data", true},
    {L"--answer", true},
    {L"--default-answer", true},
    {L"--show", true},
    {L"--timeout", true},
};

const OptionName* FindOption(const std::wstring& name)
{
    for (const OptionName& option : kOptions)
    {
        if (name == option.name)
        {
            return &option;
        }
    }
    return nullptr;
}

bool NumberOption(const std::wstring& option, const std::wstring& value, int& number, std::wstring& error)
{
    if (ParseWholeNumber(value, number))
    {
        return true;
    }
    error = option + L" needs a whole number, not '" + value + L"'";
    return false;
}

} // namespace

bool ParseOptions(int argc, wchar_t** argv, Options& options, std::wstring& error)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring argument = argv[i];
        // "--name=value": the value inside the argument.
        const size_t equals = argument.find(L'=');
        const bool bJoined = argument.compare(0, 2, L"--") == 0 && equals != std::wstring::npos;
        const std::wstring option = bJoined ? argument.substr(0, equals) : argument;
        const OptionName* pOption = FindOption(option);
        if (pOption == nullptr && !option.empty() && option[0] != L'-' && !bJoined && options.action.empty())
        {
            options.action = option;
            continue;
        }
        if (pOption == nullptr)
        {
            error = L"unexpected argument '" + argument + L"'";
            return false;
        }
        if (bJoined && !pOption->bTakesValue)
        {
            error = option + L" takes no value";
            return false;
        }
        if (pOption->bTakesValue && !bJoined && i + 1 >= argc)
        {
            error = option + L" needs a value";
            return false;
        }
        const std::wstring value = !pOption->bTakesValue ? std::wstring()
                                   : bJoined             ? argument.substr(equals + 1)
                                                         : std::wstring(argv[++i]);
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
        if (option == L"--check")
        {
            options.check = true;
        }
        else if (option == L"--null-handle")
        {
            options.nullHandle = true;
        }
        else if (option == L"--allow-properties")
        {
            options.allowProperties = true;
        }
        else if (option == L"--dll")
        {
            options.dll = value;
        }
        else if (option == L"--property")
        {
            const size_t separator = value.find(L'=');
            if (separator == std::wstring::npos || separator == 0)
            {
                error = L"--property needs NAME=VALUE, not '" + value + L"'";
                return false;
            }
            options.properties.emplace_back(value.substr(0, separator), value.substr(separator + 1));
        }
        else if (option == L"--data")
        {
            options.hasData = true;
            options.data = value;
        }
        else if (option == L"--answer")
        {
            int answer = 0;
            if (!NumberOption(option, value, answer, error))
            {
                return false;
            }
            options.answers.push_back(answer);
        }
        else if (option == L"--default-answer")
        {
            if (!NumberOption(option, value, options.defaultAnswer, error))
            {
                return false;
            }
            options.hasDefaultAnswer = true;
        }
        else if (option == L"--timeout")
        {
            int seconds = 0;
            if (!ParseWholeNumber(value, seconds) || seconds < 0)
            {
                error = L"--timeout needs a whole number of seconds, not '" + value + L"'";
                return false;
            }
            options.timeoutSeconds = static_cast<unsigned>(seconds);
        }
        else // --show
        {
            options.shown.push_back(value);
        }
    }
    if (options.action.empty())
    {
        error = L"no action named";
        return false;
    }
    return true;
}

} // namespace QcRunner
