// QcLogRead: a verbose installer log (msiexec /l*v: Wine's or Windows', ANSI,
// UTF-8 or UTF-16 LE with its byte-order mark), read per action: each action's
// result and the library's lines it wrote, errors and warnings marked, and a
// summary. See docs/tools.md.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "Console.h"

namespace {

const wchar_t kUsage[] =
    L"usage: QcLogRead LOG\n"
    L"Reads a verbose installer log (msiexec /l*v LOG; Wine's or Windows', ANSI or UTF-16) per action: each action\n"
    L"that wrote lines of Quillcast.Common.System or did not succeed, its result, and those lines without date,\n"
    L"process and thread, marked E (error), W (warning) or ! (error or warning: Wine's log leaves the level out);\n"
    L"then a summary. Exit code: 0 clean; 1 warnings only; 2 an action failed or the library logged an error;\n"
    L"3 the log cannot be read.";

struct Action
{
    std::wstring name;
    std::wstring result;  // empty while the action runs
    bool bScript = false; // a deferred action of Windows' script: no "Action start"/"Action ended" lines
    bool bFailed = false;
    std::vector<std::wstring> lines;
};

std::wstring Decode(const std::string& bytes)
{
    if (bytes.compare(0, 2, "\xFF\xFE") == 0)
    {
        std::wstring text((bytes.size() - 2) / 2, L'\0');
        for (size_t i = 0; i < text.size(); ++i)
        {
            text[i] = static_cast<wchar_t>(static_cast<unsigned char>(bytes[2 + 2 * i]) |
                                           (static_cast<unsigned char>(bytes[3 + 2 * i]) << 8));
        }
        return text;
    }
    const bool bUtf8 = bytes.compare(0, 3, "\xEF\xBB\xBF") == 0;
    const std::string body = bytes.substr(bUtf8 ? 3 : 0);
    const UINT codePage = bUtf8 ? CP_UTF8 : CP_ACP;
    const int cch = ::MultiByteToWideChar(codePage, 0, body.data(), static_cast<int>(body.size()), nullptr, 0);
    std::wstring text(static_cast<size_t>(cch > 0 ? cch : 0), L'\0');
    if (cch > 0)
    {
        (void)::MultiByteToWideChar(codePage, 0, body.data(), static_cast<int>(body.size()), &text[0], cch);
    }
    return text;
}

// "Action start 6:48:54: NAME.", "Action ended 6:48:54: NAME. Return value 1." and
// "Action 6:48:54: NAME. description" (an action's caption; in Windows' script, a deferred action's start).
const std::wregex kActionLine(L"Action (start |ended )?[0-9]+:[0-9]{2}:[0-9]{2}: ([^. ]+)\\."
                              L"(?: Return value ([0-9]+)\\.)?.*");
// A line of the library: date, time, process and thread, then the entry with its level mark.
// Wine formats the line again, which leaves a blank where "[ERROR] " or "[WARNING] " stood.
const std::wregex kLibraryLine(L"[0-9]{2}\\.[0-9]{2}\\.[0-9]{4} ([0-9:]{8}) PID\\(0x[0-9A-F]+\\) TID\\(0x[0-9A-F]+\\) "
                               L"(\\[ERROR\\] |\\[WARNING\\] | )?(.*)");
const std::wregex kErrorCode(L"CustomAction ([^ ]+) returned actual error code ([0-9]+).*");

std::wstring ResultOf(const std::wstring& value, bool bWine, bool& bFailed)
{
    // Windows: 0 not run, 1 success, 2 cancelled, 3 failed, 4 suspended. Wine writes 0 for a failure.
    const wchar_t* const windows[] = {L"not run", L"success", L"cancelled", L"failed", L"suspended"};
    const int code = value.size() == 1 ? value[0] - L'0' : -1; // the digits of the log
    const std::wstring text = code == 0 && bWine       ? L"failed"
                              : code >= 0 && code <= 4 ? windows[code]
                                                       : L"value " + value;
    bFailed = text != L"success";
    return text + L" (Return value " + value + L")";
}

} // namespace

int wmain(int argc, wchar_t* argv[])
{
    if (argc == 2 && std::wcscmp(argv[1], L"--help") == 0)
    {
        QcTools::Print(kUsage);
        return QcTools::EXIT_CLEAN;
    }
    std::ifstream file;
    if (argc == 2 && argv[1][0] != L'-')
    {
        file.open(argv[1], std::ios::binary);
    }
    if (!file)
    {
        QcTools::PrintLine(stderr, argc == 2 ? std::wstring(L"QcLogRead: cannot read ") + argv[1]
                                             : std::wstring(L"QcLogRead: name one log (QcLogRead --help shows how)"));
        return QcTools::EXIT_UNREADABLE;
    }
    const std::wstring text = Decode(std::string(std::istreambuf_iterator<char>(file), {}));
    std::vector<std::wstring> lines;
    for (size_t begin = 0; begin < text.size();)
    {
        const size_t end = std::min(text.find(L'\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin - (end > begin && text[end - 1] == L'\r' ? 1 : 0)));
        begin = end + 1;
    }
    bool bWine = true;
    for (const std::wstring& line : lines)
    {
        bWine = bWine && line.compare(0, 27, L"=== Verbose logging started") != 0 && line.compare(0, 5, L"MSI (") != 0;
    }

    std::vector<Action> actions(1, Action{L"(outside any action)", L"-", false, false, {}});
    std::vector<size_t> open; // indices into `actions`, innermost last
    std::map<std::wstring, std::wstring> errorCodes;
    const auto closeScript = [&]() {
        if (!open.empty() && actions[open.back()].bScript)
        {
            actions[open.back()].result = L"ran";
            open.pop_back();
        }
    };
    size_t counts[4] = {}; // E, W, !, all
    for (const std::wstring& line : lines)
    {
        std::wsmatch match;
        if (std::regex_match(line, match, kActionLine))
        {
            const std::wstring kind = match[1].str();
            const std::wstring name = match[2].str();
            if (kind == L"start " && !open.empty() && actions[open.back()].bScript && actions[open.back()].name == name)
            {
                actions[open.back()].bScript = false; // Wine's caption line before the start
                continue;
            }
            closeScript();
            if (kind != L"ended ")
            {
                actions.push_back(Action{name, L"", kind.empty(), false, {}});
                open.push_back(actions.size() - 1);
                continue;
            }
            while (!open.empty())
            {
                Action& action = actions[open.back()];
                open.pop_back();
                if (action.name == name)
                {
                    action.result = ResultOf(match[3].str(), bWine, action.bFailed);
                    break;
                }
                action.result = L"no end in the log";
            }
        }
        else if (std::regex_match(line, match, kLibraryLine))
        {
            const std::wstring level = match[2].str();
            const size_t kind = level == L"[ERROR] " ? 0 : level == L"[WARNING] " ? 1 : level == L" " ? 2 : 3;
            actions[open.empty() ? 0 : open.back()].lines.push_back(std::wstring(1, L"EW! "[kind]) + L' ' +
                                                                    match[1].str() + L' ' + match[3].str());
            counts[kind] += 1;
        }
        else if (std::regex_match(line, match, kErrorCode))
        {
            errorCodes[match[1].str()] = match[2].str();
        }
    }
    closeScript();

    size_t failed = 0;
    size_t writers = 0;
    std::wstring failedNames;
    for (Action& action : actions)
    {
        const auto code = errorCodes.find(action.name);
        if (action.bScript && code != errorCodes.end())
        {
            action.result = L"failed (error " + code->second + L")";
            action.bFailed = true;
        }
        action.bFailed = action.bFailed || action.result.empty() || action.result == L"no end in the log";
        action.result = action.result.empty() ? L"no end in the log" : action.result;
        failed += action.bFailed ? 1 : 0;
        failedNames += action.bFailed ? (failedNames.empty() ? L"" : L", ") + action.name : L"";
        writers += action.lines.empty() || &action == &actions[0] ? 0 : 1;
        if (!action.lines.empty() || action.bFailed)
        {
            QcTools::Print(action.name + L": " + action.result);
            for (const std::wstring& shown : action.lines)
            {
                QcTools::Print(L"  " + shown);
            }
        }
    }
    const size_t total = counts[0] + counts[1] + counts[2] + counts[3];
    QcTools::Print(L"summary (" + std::wstring(bWine ? L"Wine's" : L"Windows'") + L" log): " +
                   std::to_wstring(actions.size() - 1) + L" actions, " + std::to_wstring(failed) + L" failed" +
                   (failed != 0 ? L" (" + failedNames + L")" : L"") + L", " + std::to_wstring(writers) +
                   L" with lines of the library; " + std::to_wstring(total) + L" lines: " + std::to_wstring(counts[0]) +
                   L" errors, " + std::to_wstring(counts[1]) + L" warnings" +
                   (bWine ? L", " + std::to_wstring(counts[2]) + L" errors or warnings" : L""));
    return failed != 0 || counts[0] != 0 ? QcTools::EXIT_PROBLEMS
           : counts[1] + counts[2] != 0  ? QcTools::EXIT_WARNINGS
                                         : QcTools::EXIT_CLEAN;
}
