// A real Windows service for the service-control tests. The service
// configuration's command line says how it behaves:
//
//   QcTestService.exe <service name> [options]
//     --start-delay=MS     START_PENDING (with a wait hint) for MS ms, then RUNNING
//     --start-delay=hold   START_PENDING until the continue event is set
//     --stop-delay=MS|hold the same for STOP_PENDING after the stop control, then STOPPED
//     --refuse-stop        does not accept the stop control at all (1052)
//     --fail-start         reports STOPPED with a service-specific error instead of running
//     --abort-held-start   a start that had to wait for the continue event reports
//                          STOPPED when it comes; a start that finds it set runs
//     --pausable           accepts the pause control (SERVICE_PAUSED)
//     --journal=PATH       appends "<name> running" / "<name> stopped" lines to PATH
//
// Without a stop delay the control handler reports SERVICE_STOPPED itself, so
// that ControlService already returns the stopped state.
//
// Two manual-reset events, created by whichever side comes first:
//   "Global\QcTestService.<name>.Continue" ends a held or delayed pending state;
//   "Global\QcTestService.<name>.Exit" makes the service report SERVICE_STOPPED
//   and exit, whatever it is doing. Tests use it to clean up.
#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <cwchar>
#include <string>

namespace {

constexpr DWORD kHold = INFINITE;
constexpr DWORD kFailStartCode = 42;
constexpr DWORD kChunkMs = 50;

struct Options
{
    std::wstring name;
    DWORD startDelay = 0;
    DWORD stopDelay = 0;
    bool refuseStop = false;
    bool failStart = false;
    bool abortHeldStart = false;
    bool pausable = false;
    std::wstring journal;
};

Options g_Options;
SERVICE_STATUS_HANDLE g_hStatus = nullptr;
CRITICAL_SECTION g_StatusLock;
SERVICE_STATUS g_Status{};
HANDLE g_hContinue = nullptr;
HANDLE g_hExit = nullptr;
HANDLE g_hStopRequested = nullptr;
bool g_bStoppedReported = false;
bool g_bStoppedInHandler = false;

bool ParseDelay(const std::wstring& text, DWORD& delay)
{
    wchar_t* end = nullptr;
    delay = text == L"hold" ? kHold : static_cast<DWORD>(std::wcstoul(text.c_str(), &end, 10));
    return text == L"hold" || (!text.empty() && *end == L'\0');
}

bool ParseOptions(int argc, wchar_t** argv)
{
    if (argc < 2)
    {
        return false;
    }
    g_Options.name = argv[1];
    for (int i = 2; i < argc; ++i)
    {
        const std::wstring option = argv[i];
        const std::wstring value = option.substr(option.find(L'=') + 1);
        bool valid = true;
        if (option.rfind(L"--start-delay=", 0) == 0)
        {
            valid = ParseDelay(value, g_Options.startDelay);
        }
        else if (option.rfind(L"--stop-delay=", 0) == 0)
        {
            valid = ParseDelay(value, g_Options.stopDelay);
        }
        else if (option.rfind(L"--journal=", 0) == 0)
        {
            g_Options.journal = value;
        }
        else
        {
            bool* flag = option == L"--refuse-stop"        ? &g_Options.refuseStop
                         : option == L"--fail-start"       ? &g_Options.failStart
                         : option == L"--abort-held-start" ? &g_Options.abortHeldStart
                         : option == L"--pausable"         ? &g_Options.pausable
                                                           : nullptr;
            valid = flag != nullptr;
            if (valid)
            {
                *flag = true;
            }
        }
        if (!valid)
        {
            return false;
        }
    }
    return true;
}

void Journal(const char* event)
{
    if (FILE* file = g_Options.journal.empty() ? nullptr : ::_wfopen(g_Options.journal.c_str(), L"ab"))
    {
        std::fprintf(file, "%ls %s\n", g_Options.name.c_str(), event);
        std::fclose(file);
    }
}

// Reports a state; STOPPED is reported (and journaled) once only. The journal
// line is written before the state is visible to anyone polling for it.
void Report(DWORD state, DWORD waitHint = 0, DWORD specificError = 0)
{
    ::EnterCriticalSection(&g_StatusLock);
    if (!g_bStoppedReported)
    {
        g_Status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        g_Status.dwCurrentState = state;
        g_Status.dwControlsAccepted = 0;
        if (state == SERVICE_RUNNING || state == SERVICE_PAUSED)
        {
            g_Status.dwControlsAccepted = (g_Options.refuseStop ? 0 : SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN) |
                                          (g_Options.pausable ? SERVICE_ACCEPT_PAUSE_CONTINUE : 0);
        }
        g_Status.dwWin32ExitCode = specificError != 0 ? ERROR_SERVICE_SPECIFIC_ERROR : NO_ERROR;
        g_Status.dwServiceSpecificExitCode = specificError;
        g_Status.dwWaitHint = waitHint;
        g_Status.dwCheckPoint = waitHint != 0 ? g_Status.dwCheckPoint + 1 : 0;
        g_bStoppedReported = state == SERVICE_STOPPED;
        if (state == SERVICE_STOPPED || state == SERVICE_RUNNING)
        {
            Journal(state == SERVICE_STOPPED ? "stopped" : "running");
        }
        ::SetServiceStatus(g_hStatus, &g_Status);
    }
    ::LeaveCriticalSection(&g_StatusLock);
}

DWORD WaitHint(DWORD delay)
{
    return delay == kHold ? 2000 : delay + 1000;
}

// Waits `delay` ms (or until the continue event) in the pending `state`,
// renewing the check point; false when the exit event ended the wait.
bool Pending(DWORD state, DWORD delay)
{
    Report(state, WaitHint(delay));
    const HANDLE waits[] = {g_hExit, g_hContinue};
    const DWORD start = ::GetTickCount();
    for (;;)
    {
        const DWORD elapsed = ::GetTickCount() - start;
        if (delay != kHold && elapsed >= delay)
        {
            return true;
        }
        const DWORD left = delay == kHold ? kChunkMs : delay - elapsed;
        const DWORD signaled = ::WaitForMultipleObjects(2, waits, FALSE, left < kChunkMs ? left : kChunkMs);
        if (signaled == WAIT_OBJECT_0 || signaled == WAIT_OBJECT_0 + 1)
        {
            return signaled == WAIT_OBJECT_0 + 1;
        }
        Report(state, WaitHint(delay));
    }
}

DWORD WINAPI Handler(DWORD control, DWORD /*eventType*/, LPVOID /*eventData*/, LPVOID /*context*/)
{
    switch (control)
    {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
        if (g_Options.refuseStop)
        {
            return ERROR_CALL_NOT_IMPLEMENTED;
        }
        g_bStoppedInHandler = g_Options.stopDelay == 0;
        Report(g_Options.stopDelay == 0 ? SERVICE_STOPPED : SERVICE_STOP_PENDING,
               g_Options.stopDelay == 0 ? 0 : WaitHint(g_Options.stopDelay));
        ::SetEvent(g_hStopRequested);
        return NO_ERROR;
    case SERVICE_CONTROL_PAUSE:
        Report(SERVICE_PAUSED);
        return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
        return NO_ERROR;
    default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI ServiceMain(DWORD /*argc*/, LPWSTR* /*argv*/)
{
    g_hStatus = ::RegisterServiceCtrlHandlerExW(g_Options.name.c_str(), Handler, nullptr);
    if (g_hStatus == nullptr)
    {
        return;
    }
    const std::wstring prefix = L"Global\\QcTestService." + g_Options.name;
    g_hContinue = ::CreateEventW(nullptr, TRUE, FALSE, (prefix + L".Continue").c_str());
    g_hExit = ::CreateEventW(nullptr, TRUE, FALSE, (prefix + L".Exit").c_str());
    g_hStopRequested = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (g_hContinue == nullptr || g_hExit == nullptr || g_hStopRequested == nullptr || g_Options.failStart)
    {
        Report(SERVICE_STOPPED, 0, g_Options.failStart ? kFailStartCode : 1);
        return;
    }
    const bool held = g_Options.startDelay != 0 && ::WaitForSingleObject(g_hContinue, 0) != WAIT_OBJECT_0;
    if (g_Options.startDelay != 0 &&
        (!Pending(SERVICE_START_PENDING, g_Options.startDelay) || (held && g_Options.abortHeldStart)))
    {
        Report(SERVICE_STOPPED);
        return;
    }
    Report(SERVICE_RUNNING);
    const HANDLE waits[] = {g_hStopRequested, g_hExit};
    if (::WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0 && g_Options.stopDelay != 0)
    {
        Pending(SERVICE_STOP_PENDING, g_Options.stopDelay);
    }
    Report(SERVICE_STOPPED);
}

} // namespace

int main()
{
    int argc = 0;
    wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
    if (argv == nullptr || !ParseOptions(argc, argv))
    {
        std::fprintf(stderr, "usage: QcTestService.exe <service name> [options] (see QcTestService.cpp)\n");
        return 2;
    }
    ::InitializeCriticalSection(&g_StatusLock);
    SERVICE_TABLE_ENTRYW table[] = {{g_Options.name.data(), ServiceMain}, {nullptr, nullptr}};
    if (!::StartServiceCtrlDispatcherW(table))
    {
        std::fprintf(stderr, "QcTestService: StartServiceCtrlDispatcher failed with error %lu\n", ::GetLastError());
        return 1;
    }
    // A handler that reported SERVICE_STOPPED itself answers the stop control
    // only after it returns; should the process be gone by then, Wine's manager
    // fails the caller's ControlService with 109 (broken pipe). Nothing tells
    // when the answer has left, so linger, generously for a busy machine; a
    // service ended through its exit event owes no answer and goes at once.
    if (g_bStoppedInHandler)
    {
        ::Sleep(3000);
    }
    return 0;
}
