// The program the process tests start, close and look for. Every run first appends one line to its record (its own
// path + ".record"): its command line, its current directory and the show command it was started with (-1 when none
// was given), separated by TABs.
//
//   --window=exit|ignore|stay  a top-level window; WM_CLOSE ends the program with code 7, is ignored, or destroys
//                   the window while the program runs on
//   --close-delay=MS  handle WM_CLOSE only after MS milliseconds
//   --closed-event=NAME  set that event once WM_CLOSE has been handled
//   --ready-event=NAME   set that event once the window exists (or, without a window, right after the record)
//   --run-ms=MS     without a window: run for MS milliseconds
//   --hold          without a window: run until the release event (--release-event=NAME, default
//                   QcTestProgramRelease, auto-reset) is set; also what a windowless run without --run-ms does
//   --exit-code=N   the code of a normal end (default 0)
// Whatever it does, it ends by itself after two minutes at most (code 4). Its handles live as long as its process.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>

namespace {

constexpr DWORD kLifetimeCapMs = 120000;

std::wstring g_WindowMode;
DWORD g_CloseDelayMs = 0;
HANDLE g_hClosedEvent = nullptr;

// The value of "NAME=value" among the arguments, "" when absent.
std::wstring Option(int argc, wchar_t** argv, const std::wstring& name)
{
    for (int i = 1; i < argc; ++i)
    {
        if (std::wcsncmp(argv[i], (name + L"=").c_str(), name.size() + 1) == 0)
        {
            return argv[i] + name.size() + 1;
        }
    }
    return L"";
}

void Record()
{
    wchar_t self[MAX_PATH] = {};
    wchar_t directory[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    ::GetCurrentDirectoryW(MAX_PATH, directory);
    STARTUPINFOW startup{};
    ::GetStartupInfoW(&startup);
    const int show = (startup.dwFlags & STARTF_USESHOWWINDOW) != 0 ? startup.wShowWindow : -1;
    if (FILE* file = ::_wfopen((std::wstring(self) + L".record").c_str(), L"ab"))
    {
        std::fprintf(file, "%ls\t%ls\t%d\n", ::GetCommandLineW(), directory, show);
        std::fclose(file);
    }
}

LRESULT CALLBACK WindowProc(HWND hWindow, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message != WM_CLOSE)
    {
        return ::DefWindowProcW(hWindow, message, wParam, lParam);
    }
    ::Sleep(g_CloseDelayMs);
    if (g_WindowMode != L"ignore")
    {
        ::DestroyWindow(hWindow);
    }
    ::SetEvent(g_hClosedEvent); // without --closed-event: a null handle, refused harmlessly
    if (g_WindowMode == L"exit")
    {
        ::PostQuitMessage(7);
    }
    return 0;
}

int RunWindow(HANDLE hReady)
{
    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = ::GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"QcTestProgramWindow";
    ::RegisterClassW(&windowClass);
    if (::CreateWindowExW(0, windowClass.lpszClassName, L"QcTestProgram", WS_OVERLAPPEDWINDOW, CW_USEDEFAULT,
                          CW_USEDEFAULT, 200, 100, nullptr, nullptr, windowClass.hInstance, nullptr) == nullptr)
    {
        return 3;
    }
    ::SetEvent(hReady);
    // A thread timer: it still fires after the window is gone.
    ::SetTimer(nullptr, 0, kLifetimeCapMs, [](HWND, UINT, UINT_PTR, DWORD) { ::PostQuitMessage(4); });
    MSG message{};
    while (::GetMessageW(&message, nullptr, 0, 0) > 0)
    {
        ::DispatchMessageW(&message);
    }
    return static_cast<int>(message.wParam);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    Record();
    const int exitCode = _wtoi(Option(argc, argv, L"--exit-code").c_str());
    g_WindowMode = Option(argc, argv, L"--window");
    g_CloseDelayMs = static_cast<DWORD>(_wtoi(Option(argc, argv, L"--close-delay").c_str()));
    const std::wstring closed = Option(argc, argv, L"--closed-event");
    g_hClosedEvent = closed.empty() ? nullptr : ::CreateEventW(nullptr, TRUE, FALSE, closed.c_str());
    const std::wstring ready = Option(argc, argv, L"--ready-event");
    const HANDLE hReady = ready.empty() ? nullptr : ::CreateEventW(nullptr, TRUE, FALSE, ready.c_str());
    if (!g_WindowMode.empty())
    {
        return RunWindow(hReady);
    }
    ::SetEvent(hReady);
    const std::wstring runMs = Option(argc, argv, L"--run-ms");
    if (runMs.empty())
    {
        const std::wstring name = Option(argc, argv, L"--release-event");
        const HANDLE hRelease =
            ::CreateEventW(nullptr, FALSE, FALSE, name.empty() ? L"QcTestProgramRelease" : name.c_str());
        return ::WaitForSingleObject(hRelease, kLifetimeCapMs) == WAIT_OBJECT_0 ? exitCode : 4;
    }
    ::Sleep(static_cast<DWORD>(_wtoi(runMs.c_str())));
    return exitCode;
}
