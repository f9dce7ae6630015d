// The program the process tests start, close and look for. Every run first
// appends one line to its record: its command line, a TAB, its current
// directory, a TAB and the show command it was started with (-1 when none was
// given). The record is the program's own path + ".record".
//
//   --window=exit   a top-level window; WM_CLOSE ends the program with code 7
//   --window=ignore a top-level window that ignores WM_CLOSE
//   --window=stay   a top-level window that WM_CLOSE destroys; the program runs on
//   --close-delay=MS  handle WM_CLOSE only after MS milliseconds
//   --closed-event=NAME  set that event once WM_CLOSE has been handled
//   --ready-event=NAME   set that event once the window exists (or, without a
//                   window, right after the record)
//   --hold          run until the release event (--release-event=NAME, default
//                   QcTestProgramRelease, auto-reset) is set
//   --run-ms=MS     run for MS milliseconds
//   --exit-code=N   the code of a normal end (default 0)
// Without any "--" switch (as the shell or the auto-connect action start it)
// the program holds. Without --hold or --run-ms a windowless program ends at
// once. Whatever it does, it ends by itself after two minutes at most.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

namespace {

constexpr DWORD kLifetimeCapMs = 120000;
constexpr UINT kCloseExitCode = 7;
constexpr UINT kCapExitCode = 4;

std::wstring g_WindowMode;
DWORD g_CloseDelayMs = 0;
HANDLE g_hClosedEvent = nullptr;
HANDLE g_hReadyEvent = nullptr;

void SignalReady()
{
    if (g_hReadyEvent != nullptr)
    {
        SetEvent(g_hReadyEvent);
    }
}

std::wstring Option(int argc, wchar_t** argv, const wchar_t* name)
{
    const size_t length = std::wcslen(name);
    for (int i = 1; i < argc; ++i)
    {
        if (std::wcsncmp(argv[i], name, length) == 0 && argv[i][length] == L'=')
        {
            return argv[i] + length + 1;
        }
    }
    return L"";
}

bool HasSwitch(int argc, wchar_t** argv, const wchar_t* name)
{
    for (int i = 1; i < argc; ++i)
    {
        if (std::wcscmp(argv[i], name) == 0)
        {
            return true;
        }
    }
    return false;
}

void Record(const std::wstring& path)
{
    wchar_t directory[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, directory);
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    GetStartupInfoW(&startup);
    const int show = (startup.dwFlags & STARTF_USESHOWWINDOW) != 0 ? startup.wShowWindow : -1;
    const std::wstring line =
        std::wstring(GetCommandLineW()) + L"\t" + directory + L"\t" + std::to_wstring(show) + L"\n";
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, line.c_str(), -1, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, line.c_str(), -1, &text[0], bytes, nullptr, nullptr);
    if (FILE* file = _wfopen(path.c_str(), L"ab"))
    {
        std::fwrite(text.data(), 1, static_cast<size_t>(bytes - 1), file);
        std::fclose(file);
    }
}

LRESULT CALLBACK WindowProc(HWND hWindow, UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message)
    {
    case WM_CLOSE:
        Sleep(g_CloseDelayMs);
        if (g_WindowMode != L"ignore")
        {
            DestroyWindow(hWindow);
        }
        if (g_hClosedEvent != nullptr)
        {
            SetEvent(g_hClosedEvent);
        }
        if (g_WindowMode == L"exit")
        {
            PostQuitMessage(static_cast<int>(kCloseExitCode));
        }
        return 0;
    case WM_TIMER:
        PostQuitMessage(static_cast<int>(kCapExitCode));
        return 0;
    default:
        return DefWindowProcW(hWindow, message, wParam, lParam);
    }
}

int RunWindow()
{
    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"QcTestProgramWindow";
    RegisterClassW(&windowClass);
    HWND hWindow = CreateWindowExW(0, windowClass.lpszClassName, L"QcTestProgram", WS_OVERLAPPEDWINDOW, CW_USEDEFAULT,
                                   CW_USEDEFAULT, 200, 100, nullptr, nullptr, windowClass.hInstance, nullptr);
    if (hWindow == nullptr)
    {
        return 3;
    }
    SignalReady();
    // A thread timer: it still fires after the window is gone.
    SetTimer(nullptr, 0, kLifetimeCapMs, nullptr);
    MSG message;
    while (GetMessageW(&message, nullptr, 0, 0) > 0)
    {
        if (message.message == WM_TIMER && message.hwnd == nullptr)
        {
            return static_cast<int>(kCapExitCode);
        }
        DispatchMessageW(&message);
    }
    return static_cast<int>(message.wParam);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    Record(std::wstring(self) + L".record");

    bool bSwitches = false;
    for (int i = 1; i < argc; ++i)
    {
        bSwitches = bSwitches || std::wcsncmp(argv[i], L"--", 2) == 0;
    }
    const int exitCode = _wtoi(Option(argc, argv, L"--exit-code").c_str());
    g_WindowMode = Option(argc, argv, L"--window");
    g_CloseDelayMs = static_cast<DWORD>(_wtoi(Option(argc, argv, L"--close-delay").c_str()));
    const std::wstring closedEvent = Option(argc, argv, L"--closed-event");
    if (!closedEvent.empty())
    {
        g_hClosedEvent = CreateEventW(nullptr, TRUE, FALSE, closedEvent.c_str());
    }

    const std::wstring readyEvent = Option(argc, argv, L"--ready-event");
    if (!readyEvent.empty())
    {
        g_hReadyEvent = CreateEventW(nullptr, TRUE, FALSE, readyEvent.c_str());
    }

    if (!g_WindowMode.empty() && g_WindowMode != L"none")
    {
        return RunWindow();
    }
    SignalReady();
    if (HasSwitch(argc, argv, L"--hold") || !bSwitches)
    {
        std::wstring name = Option(argc, argv, L"--release-event");
        HANDLE hRelease = CreateEventW(nullptr, FALSE, FALSE, name.empty() ? L"QcTestProgramRelease" : name.c_str());
        return WaitForSingleObject(hRelease, kLifetimeCapMs) == WAIT_OBJECT_0 ? exitCode
                                                                              : static_cast<int>(kCapExitCode);
    }
    const std::wstring runMs = Option(argc, argv, L"--run-ms");
    if (!runMs.empty())
    {
        Sleep(static_cast<DWORD>(_wtoi(runMs.c_str())));
    }
    return exitCode;
}
