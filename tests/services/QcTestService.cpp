// A real Windows service for the service action tests and the end-to-end cases. Its command line says how it behaves:
//
//   QcTestService.exe <service name> [options]
//     --start-delay=MS   START_PENDING for MS ms, then RUNNING
//     --stop-delay=MS    the same for STOP_PENDING after the stop control, then STOPPED
//     --journal=PATH     appends "<name> running" / "<name> stopped" lines to PATH
//
// Running, it accepts the pause and stop controls; paused, it refuses the stop control (1052). Without a stop delay the
// control handler reports SERVICE_STOPPED itself, so that ControlService already returns the stopped state. The
// manual-reset event "Global\QcTestService.<name>.Exit", created by whichever side comes first, makes the service
// report SERVICE_STOPPED and exit, whatever it is doing: tests clean up with it. Its handles live as long as it does.
#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <cwchar>
#include <string>

namespace {

std::wstring g_Name;
std::wstring g_Journal;
DWORD g_StartDelay = 0;
DWORD g_StopDelay = 0;

SERVICE_STATUS_HANDLE g_hStatus = nullptr;
CRITICAL_SECTION g_StatusLock;
SERVICE_STATUS g_Status{SERVICE_WIN32_OWN_PROCESS, 0, 0, 0, 0, 0, 0};
HANDLE g_hExit = nullptr;
HANDLE g_hStopRequested = nullptr;
bool g_bStoppedInHandler = false;

bool ParseOptions(int argc, wchar_t** argv)
{
    for (int i = 2; i < argc; ++i)
    {
        if (std::wcsncmp(argv[i], L"--journal=", 10) == 0)
        {
            g_Journal = argv[i] + 10;
        }
        else if (std::swscanf(argv[i], L"--start-delay=%lu", &g_StartDelay) != 1 &&
                 std::swscanf(argv[i], L"--stop-delay=%lu", &g_StopDelay) != 1)
        {
            return false;
        }
    }
    return argc > 1;
}

// Reports a state; nothing after STOPPED. The journal line is written before the state is visible to anyone polling
// for it.
void Report(DWORD state)
{
    ::EnterCriticalSection(&g_StatusLock);
    if (g_Status.dwCurrentState != SERVICE_STOPPED)
    {
        const bool bSteady = state == SERVICE_RUNNING || state == SERVICE_PAUSED;
        const DWORD stop = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
        g_Status.dwCurrentState = state;
        g_Status.dwControlsAccepted = bSteady ? stop | SERVICE_ACCEPT_PAUSE_CONTINUE : 0;
        // A pending state promises progress within its wait hint.
        g_Status.dwWaitHint = bSteady || state == SERVICE_STOPPED ? 0 : 2000;
        g_Status.dwCheckPoint = g_Status.dwWaitHint != 0 ? g_Status.dwCheckPoint + 1 : 0;
        const bool bJournaled = !g_Journal.empty() && (state == SERVICE_STOPPED || state == SERVICE_RUNNING);
        if (FILE* journal = bJournaled ? ::_wfopen(g_Journal.c_str(), L"ab") : nullptr)
        {
            std::fprintf(journal, "%ls %s\n", g_Name.c_str(), state == SERVICE_STOPPED ? "stopped" : "running");
            std::fclose(journal);
        }
        ::SetServiceStatus(g_hStatus, &g_Status);
    }
    ::LeaveCriticalSection(&g_StatusLock);
}

// Waits `delay` ms in the pending `state`; false when the exit event ended the wait.
bool Pending(DWORD state, DWORD delay)
{
    Report(state);
    return ::WaitForSingleObject(g_hExit, delay) != WAIT_OBJECT_0;
}

DWORD WINAPI Handler(DWORD control, DWORD /*eventType*/, LPVOID /*eventData*/, LPVOID /*context*/)
{
    switch (control)
    {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
        g_bStoppedInHandler = g_StopDelay == 0;
        Report(g_StopDelay == 0 ? SERVICE_STOPPED : SERVICE_STOP_PENDING);
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
    g_hStatus = ::RegisterServiceCtrlHandlerExW(g_Name.c_str(), Handler, nullptr);
    if (g_hStatus == nullptr)
    {
        return;
    }
    g_hExit = ::CreateEventW(nullptr, TRUE, FALSE, (L"Global\\QcTestService." + g_Name + L".Exit").c_str());
    g_hStopRequested = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (g_hExit != nullptr && g_hStopRequested != nullptr &&
        (g_StartDelay == 0 || Pending(SERVICE_START_PENDING, g_StartDelay)))
    {
        Report(SERVICE_RUNNING);
        const HANDLE waits[] = {g_hStopRequested, g_hExit};
        if (::WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0 && g_StopDelay != 0)
        {
            Pending(SERVICE_STOP_PENDING, g_StopDelay);
        }
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
    g_Name = argv[1];
    ::InitializeCriticalSection(&g_StatusLock);
    SERVICE_TABLE_ENTRYW table[] = {{g_Name.data(), ServiceMain}, {nullptr, nullptr}};
    if (!::StartServiceCtrlDispatcherW(table))
    {
        std::fprintf(stderr, "QcTestService: StartServiceCtrlDispatcher failed with error %lu\n", ::GetLastError());
        return 1;
    }
    // A handler that reported SERVICE_STOPPED itself answers the stop control only after it returns; should the
    // process be gone by then, Wine's manager fails the caller's ControlService with 109 (broken pipe). Nothing tells
    // when the answer has left, so linger, generously for a busy machine; a service ended through its exit event owes
    // no answer and goes at once.
    if (g_bStoppedInHandler)
    {
        ::Sleep(3000);
    }
    return 0;
}
