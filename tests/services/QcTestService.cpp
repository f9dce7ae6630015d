// A real Windows service for the service-control tests. The service
// configuration's command line says how it behaves:
//
//   QcTestService.exe <service name> [options]
//     --start-delay=MS     START_PENDING (with a wait hint) for MS ms, then RUNNING
//     --start-delay=hold   START_PENDING until the continue event is set
//     --stop-delay=MS      STOP_PENDING for MS ms after the stop control, then STOPPED
//     --stop-delay=hold    STOP_PENDING until the continue event is set
//     --refuse-stop        does not accept the stop control at all (1052)
//     --fail-start         reports STOPPED with a service-specific error instead of running
//     --abort-first-start  the first start ever (of this registration) pends for the
//                          start delay and then reports STOPPED; later starts run
//     --pausable           accepts pause and continue (SERVICE_PAUSED)
//     --journal=PATH       appends "<name> running" / "<name> stopped" lines to PATH
//
// Without a stop delay the control handler reports SERVICE_STOPPED itself, so
// that ControlService already returns the stopped state.
//
// Two manual-reset events, created by whichever side comes first:
//   "Global\QcTestService.<name>.Continue" ends a held or delayed pending state
//   normally (on to RUNNING or STOPPED);
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
    bool abortFirstStart = false;
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

bool ParseDelay(const wchar_t* text, DWORD& delay)
{
    if (std::wcscmp(text, L"hold") == 0)
    {
        delay = kHold;
        return true;
    }
    wchar_t* end = nullptr;
    const unsigned long value = std::wcstoul(text, &end, 10);
    if (end == text || *end != L'\0')
    {
        return false;
    }
    delay = static_cast<DWORD>(value);
    return true;
}

bool StartsWith(const wchar_t* text, const wchar_t* prefix, const wchar_t*& rest)
{
    const size_t length = std::wcslen(prefix);
    if (std::wcsncmp(text, prefix, length) != 0)
    {
        return false;
    }
    rest = text + length;
    return true;
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
        const wchar_t* value = nullptr;
        if (StartsWith(argv[i], L"--start-delay=", value))
        {
            if (!ParseDelay(value, g_Options.startDelay))
            {
                return false;
            }
        }
        else if (StartsWith(argv[i], L"--stop-delay=", value))
        {
            if (!ParseDelay(value, g_Options.stopDelay))
            {
                return false;
            }
        }
        else if (StartsWith(argv[i], L"--journal=", value))
        {
            g_Options.journal = value;
        }
        else if (std::wcscmp(argv[i], L"--refuse-stop") == 0)
        {
            g_Options.refuseStop = true;
        }
        else if (std::wcscmp(argv[i], L"--fail-start") == 0)
        {
            g_Options.failStart = true;
        }
        else if (std::wcscmp(argv[i], L"--abort-first-start") == 0)
        {
            g_Options.abortFirstStart = true;
        }
        else if (std::wcscmp(argv[i], L"--pausable") == 0)
        {
            g_Options.pausable = true;
        }
        else
        {
            return false;
        }
    }
    return true;
}

void Journal(const wchar_t* event)
{
    if (g_Options.journal.empty())
    {
        return;
    }
    HANDLE hFile = ::CreateFileW(g_Options.journal.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                 nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE)
    {
        return;
    }
    std::wstring wide = g_Options.name + L" " + event + L"\n";
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, wide.c_str(), static_cast<int>(wide.size()), nullptr, 0,
                                           nullptr, nullptr);
    std::string line(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, wide.c_str(), static_cast<int>(wide.size()), line.data(), size, nullptr,
                          nullptr);
    DWORD written = 0;
    ::WriteFile(hFile, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    ::CloseHandle(hFile);
}

// Reports a state; STOPPED is reported (and journaled) once only.
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
            if (!g_Options.refuseStop)
            {
                g_Status.dwControlsAccepted |= SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
            }
            if (g_Options.pausable)
            {
                g_Status.dwControlsAccepted |= SERVICE_ACCEPT_PAUSE_CONTINUE;
            }
        }
        g_Status.dwWin32ExitCode = specificError != 0 ? ERROR_SERVICE_SPECIFIC_ERROR : NO_ERROR;
        g_Status.dwServiceSpecificExitCode = specificError;
        g_Status.dwWaitHint = waitHint;
        g_Status.dwCheckPoint = (state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING)
                                    ? g_Status.dwCheckPoint + 1
                                    : 0;
        if (state == SERVICE_STOPPED)
        {
            g_bStoppedReported = true;
            Journal(L"stopped");
        }
        else if (state == SERVICE_RUNNING)
        {
            Journal(L"running");
        }
        ::SetServiceStatus(g_hStatus, &g_Status);
    }
    ::LeaveCriticalSection(&g_StatusLock);
}

// Waits `delay` ms (or until the continue event) in the pending `state`,
// renewing the check point; false when the exit event ended the wait.
bool Pending(DWORD state, DWORD delay)
{
    const DWORD hint = delay == kHold ? 2000 : delay + 1000;
    Report(state, hint);
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
        switch (::WaitForMultipleObjects(2, waits, FALSE, left < kChunkMs ? left : kChunkMs))
        {
        case WAIT_OBJECT_0:
            return false;
        case WAIT_OBJECT_0 + 1:
            return true;
        default:
            break;
        }
        Report(state, hint);
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
        if (g_Options.stopDelay == 0)
        {
            Report(SERVICE_STOPPED);
        }
        else
        {
            Report(SERVICE_STOP_PENDING, g_Options.stopDelay == kHold ? 2000 : g_Options.stopDelay + 1000);
        }
        ::SetEvent(g_hStopRequested);
        return NO_ERROR;
    case SERVICE_CONTROL_PAUSE:
        Report(SERVICE_PAUSED);
        return NO_ERROR;
    case SERVICE_CONTROL_CONTINUE:
        Report(SERVICE_RUNNING);
        return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
        return NO_ERROR;
    default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

// True once per registration: notes itself in the service's own registry key,
// which goes away with the service.
bool FirstStartEver()
{
    const std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\" + g_Options.name;
    HKEY hKey = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_QUERY_VALUE | KEY_SET_VALUE, &hKey) != ERROR_SUCCESS)
    {
        return false;
    }
    DWORD value = 0;
    DWORD size = sizeof(value);
    const bool first =
        ::RegQueryValueExW(hKey, L"QcTestStartedBefore", nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size) !=
        ERROR_SUCCESS;
    if (first)
    {
        value = 1;
        ::RegSetValueExW(hKey, L"QcTestStartedBefore", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                         sizeof(value));
    }
    ::RegCloseKey(hKey);
    return first;
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
    if (g_hContinue == nullptr || g_hExit == nullptr || g_hStopRequested == nullptr)
    {
        Report(SERVICE_STOPPED, 0, 1);
        return;
    }
    if (g_Options.failStart)
    {
        Report(SERVICE_STOPPED, 0, kFailStartCode);
        return;
    }
    const bool abortThisStart = g_Options.abortFirstStart && FirstStartEver();
    if ((g_Options.startDelay != 0 || abortThisStart) && !Pending(SERVICE_START_PENDING, g_Options.startDelay))
    {
        Report(SERVICE_STOPPED);
        return;
    }
    if (abortThisStart)
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
        std::fprintf(stderr, "usage: QcTestService.exe <service name> [--start-delay=MS|hold] [--stop-delay=MS|hold] "
                             "[--refuse-stop] [--fail-start] [--abort-first-start] [--pausable] [--journal=PATH]\n");
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
    // fails the caller's ControlService with 109 (broken pipe). Linger a little.
    ::Sleep(500);
    return 0;
}
