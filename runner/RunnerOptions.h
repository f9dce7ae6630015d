#pragma once

#include <string>
#include <utility>
#include <vector>

// The action runner's command line.
namespace QcRunner {

// Exit codes: the shell sees only the low 8 bits of a Windows exit code (1603
// would read 67), so the full result goes to the output and the exit code
// only says what happened.
enum ExitCode : int
{
    EXIT_ACTION_SUCCEEDED = 0, // the action returned 0; --help, --list, --check without findings
    EXIT_ACTION_FAILED = 1,    // the action returned anything else ("result: CODE")
    EXIT_USAGE = 2,            // bad command line, or a property that cannot be set
    EXIT_NOT_LOADABLE = 3,     // the DLL or the export cannot be loaded
    EXIT_NO_SESSION = 4,       // no scratch installer session could be made
    EXIT_TIMED_OUT = 5,        // the action did not return within --timeout
    EXIT_CHECK_ERRORS = 6,     // --check: the action would refuse the data
    EXIT_CHECK_WARNINGS = 7,   // --check: warnings only
};

extern const wchar_t kUsage[];

struct Options
{
    bool help = false;
    bool list = false;
    bool check = false;
    std::wstring dll;
    std::wstring action;
    std::vector<std::pair<std::wstring, std::wstring>> properties;
    bool allowProperties = false;
    std::vector<int> answers;
    bool hasDefaultAnswer = false;
    int defaultAnswer = 0;
    std::vector<std::wstring> shown;
    bool hasData = false;
    std::wstring data;
    bool nullHandle = false;
    unsigned timeoutSeconds = 0; // 0: no limit
};

// False with `error` set for a command line that cannot be run.
bool ParseOptions(int argc, wchar_t** argv, Options& options, std::wstring& error);

} // namespace QcRunner
