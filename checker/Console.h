#pragma once

#include <windows.h>

#include <cstdio>
#include <string>

// Console output of the authoring tools: UTF-8, one line per call, flushed, so
// that a pipe or a log file sees every line as it is written, in order.
namespace QcTools {

// The exit codes both tools share, so that a build script reads them alike.
enum ExitCode : int
{
    EXIT_CLEAN = 0,      // no finding: the package passes, or no action failed and the library logged no problem
    EXIT_WARNINGS = 1,   // warnings only
    EXIT_PROBLEMS = 2,   // errors in the package, or a failed action or a library error in the log
    EXIT_UNREADABLE = 3, // the input cannot be read, or the command line is wrong
};

inline void PrintLine(FILE* stream, const std::wstring& text)
{
    const std::wstring line = text + L'\n';
    const int bytes =
        ::WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<size_t>(bytes > 0 ? bytes : 0), '\0');
    if (bytes > 0)
    {
        (void)::WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), &utf8[0], bytes, nullptr,
                                    nullptr);
    }
    (void)fwrite(utf8.data(), 1, utf8.size(), stream);
    (void)fflush(stream);
}

inline void Print(const std::wstring& text)
{
    PrintLine(stdout, text);
}

} // namespace QcTools
