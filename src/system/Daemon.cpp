#include "system/Daemon.h"

#include <cwchar>

#include "logging/LogHelpers.h"

// These hand the caller's line to the helpers that log on its behalf, so that an
// entry leads to the step that failed rather than to the helper.
#define DAEMON_QUERY_STATUS(hService, status) QueryStatus(__LINE__, (hService), (status))
#define DAEMON_QUERY_STATUS_OR_FAIL(hService, status) QueryStatusOrFail(__LINE__, (hService), (status))
#define DAEMON_FAIL_WITH_LAST_ERROR(text) FailWithLastError(__LINE__, (text))
#define DAEMON_LOG_TIMEOUT(level, name) LogTimeout(__LINE__, (level), (name))
#define DAEMON_AWAIT_PENDING(warning, target, pending, status)                                                         \
    AwaitPending(__LINE__, (warning), (target), (pending), (status))
#define DAEMON_AWAIT_SERVICE_STATE(target, status) AwaitServiceState(__LINE__, (target), (status))

namespace Quillcast::System {

namespace {

constexpr Logging::CLogSource kLogSource{L"Daemon", 0};

constexpr DWORD kServiceAccess =
    SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_ENUMERATE_DEPENDENTS | SERVICE_START | SERVICE_STOP;
constexpr DWORD kStopDependentAccess = SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_STOP;
constexpr DWORD kStartDependentAccess = SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_START;

static_assert(kServiceAccess == 0x3D && kStopDependentAccess == 0x25 && kStartDependentAccess == 0x15);

// QueryServiceStatus; a failure is logged at the caller's `line`.
bool QueryStatus(uint32_t line, SC_HANDLE hService, SERVICE_STATUS& status) noexcept
{
    if (::QueryServiceStatus(hService, &status))
    {
        return true;
    }
    Logging::LogLastError(kLogSource, line, L"QueryServiceStatus failed with error ");
    return false;
}

} // namespace

CDaemon::CDaemon(const wchar_t* pszServiceName) noexcept
{
    SetLastErrorCode(ERROR_SUCCESS);
    const wchar_t* pszFailure = Open(pszServiceName);
    if (pszFailure != nullptr)
    {
        QC_LOG_ERROR(kLogSource) << pszFailure;
    }
}

const wchar_t* CDaemon::Open(const wchar_t* pszServiceName) noexcept
{
    if (pszServiceName == nullptr || *pszServiceName == L'\0')
    {
        SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return L"ERROR_INVALID_PARAMETER";
    }
    m_hSCManager.Reset(::OpenSCManagerW(nullptr, SERVICES_ACTIVE_DATABASEW, SC_MANAGER_ALL_ACCESS));
    if (!m_hSCManager)
    {
        return L"OpenSCManager failed";
    }
    // Without memory for the copy the messages show an empty name; the service
    // is still opened by the name as given.
    const size_t length = ::wcslen(pszServiceName);
    if (m_strServiceName.AllocateZeroed(length + 1))
    {
        ::wmemcpy(m_strServiceName.Get(), pszServiceName, length);
    }
    m_hService.Reset(::OpenServiceW(m_hSCManager.Get(), pszServiceName, kServiceAccess));
    if (!m_hService)
    {
        return L"OpenService failed";
    }
    return nullptr;
}

bool CDaemon::Start() noexcept
{
    SERVICE_STATUS status{};
    if (!DAEMON_QUERY_STATUS_OR_FAIL(m_hService.Get(), status))
    {
        return false;
    }

    bool bRunning = false;
    switch (status.dwCurrentState)
    {
    case SERVICE_RUNNING:
        QC_LOG_WARNING(kLogSource) << Name() << L" is already started";
        ResetTick();
        bRunning = true;
        break;
    case SERVICE_START_PENDING:
        switch (DAEMON_AWAIT_PENDING(L" pending start", SERVICE_RUNNING, SERVICE_START_PENDING, status))
        {
        case PendingOutcome::Reached:
            bRunning = true;
            break;
        case PendingOutcome::LeftPending:
            // Start it ourselves; the measure started above runs on.
            break;
        case PendingOutcome::Failed:
            return false;
        }
        break;
    case SERVICE_STOPPED:
        ResetTick();
        break;
    default:
        QC_LOG_WARNING(kLogSource) << Name() << L" status, unknown #" << status.dwCurrentState;
        ResetTick();
        break;
    }

    if (!bRunning)
    {
        if (!::StartServiceW(m_hService.Get(), 0, nullptr))
        {
            return DAEMON_FAIL_WITH_LAST_ERROR(L"StartService failed with error ");
        }
        if (!DAEMON_AWAIT_SERVICE_STATE(SERVICE_RUNNING, status))
        {
            return false;
        }
    }

    if (m_bDependencies)
    {
        // The dependents' failures are logged and do not fail the start.
        (void)HandleDependencies(DEPENDENCY_WALK_START);
    }
    return true;
}

bool CDaemon::Stop() noexcept
{
    SERVICE_STATUS status{};
    if (!DAEMON_QUERY_STATUS_OR_FAIL(m_hService.Get(), status))
    {
        return false;
    }

    switch (status.dwCurrentState)
    {
    case SERVICE_STOPPED:
        // Its dependents are left as they are.
        QC_LOG_WARNING(kLogSource) << Name() << L" is already stopped";
        ResetTick();
        return true;
    case SERVICE_STOP_PENDING:
        switch (DAEMON_AWAIT_PENDING(L" pending stop", SERVICE_STOPPED, SERVICE_STOP_PENDING, status))
        {
        case PendingOutcome::Reached:
            return true;
        case PendingOutcome::LeftPending:
            // Stop it ourselves; the measure started above runs on.
            break;
        case PendingOutcome::Failed:
            return false;
        }
        break;
    case SERVICE_RUNNING:
        ResetTick();
        break;
    default:
        QC_LOG_WARNING(kLogSource) << Name() << L" status, unknown #" << status.dwCurrentState;
        ResetTick();
        break;
    }

    if (m_bDependencies)
    {
        // Dependents go first; their failures are logged and do not fail the stop.
        (void)HandleDependencies(DEPENDENCY_WALK_STOP);
    }

    if (!::ControlService(m_hService.Get(), SERVICE_CONTROL_STOP, &status))
    {
        return DAEMON_FAIL_WITH_LAST_ERROR(L"ControlService failed with error ");
    }
    if (status.dwCurrentState == SERVICE_STOPPED)
    {
        ResetTick();
        return true;
    }
    return DAEMON_AWAIT_SERVICE_STATE(SERVICE_STOPPED, status);
}

CDaemon::PendingOutcome CDaemon::AwaitPending(uint32_t line, const wchar_t* pszWarning, DWORD dwTarget, DWORD dwPending,
                                              SERVICE_STATUS& status) noexcept
{
    QC_LOG_AT(Logging::LOG_LEVEL_WARNING, kLogSource, line) << Name() << pszWarning;
    ResetTick();
    switch (WaitFor(m_hService.Get(), status, dwTarget, dwPending))
    {
    case WaitResult::Reached:
        ResetTick();
        return PendingOutcome::Reached;
    case WaitResult::LeftPending:
        return PendingOutcome::LeftPending;
    case WaitResult::TimedOut:
        FailOnTimeout(line);
        return PendingOutcome::Failed;
    case WaitResult::QueryFailed:
        break;
    }
    ResetTick();
    return PendingOutcome::Failed;
}

bool CDaemon::AwaitServiceState(uint32_t line, DWORD dwTarget, SERVICE_STATUS& status) noexcept
{
    const WaitResult result = WaitFor(m_hService.Get(), status, dwTarget, 0);
    if (result == WaitResult::TimedOut)
    {
        FailOnTimeout(line);
        return false;
    }
    ResetTick();
    return result == WaitResult::Reached;
}

void CDaemon::FailOnTimeout(uint32_t line) noexcept
{
    LogTimeout(line, Logging::LOG_LEVEL_ERROR, Name());
    SetLastErrorCode(ERROR_TIMEOUT);
    ResetTick();
}

bool CDaemon::HandleDependencies(uint32_t dwAction) noexcept
{
    switch (dwAction)
    {
    case DEPENDENCY_WALK_STOP:
        return StopDependents();
    case DEPENDENCY_WALK_START:
        return StartDependents();
    default:
        return true;
    }
}

bool CDaemon::EnumDependencies(uint32_t dwServiceState) noexcept
{
    DWORD dwBytesNeeded = 0;
    if (::EnumDependentServicesW(m_hService.Get(), dwServiceState, m_lpDependencies.Get(), 0, &dwBytesNeeded,
                                 &m_dwDependencyCount))
    {
        SetLastErrorCode(ERROR_FILE_NOT_FOUND);
        return false;
    }
    const uint32_t dwError = Logging::LastErrorCode();
    if (dwError != ERROR_MORE_DATA)
    {
        QC_LOG_ERROR(kLogSource) << L"!ERROR_MOREDATA with error " << dwError;
        return false;
    }

    // The earlier list is freed before the new one is allocated.
    m_lpDependencies.Reset();
    m_lpDependencies.Reset(
        static_cast<ENUM_SERVICE_STATUSW*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, dwBytesNeeded)));
    if (!m_lpDependencies)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"!m_lpDependencies with error ");
        return false;
    }

    if (!::EnumDependentServicesW(m_hService.Get(), dwServiceState, m_lpDependencies.Get(), dwBytesNeeded,
                                  &dwBytesNeeded, &m_dwDependencyCount))
    {
        QC_LOG_LAST_ERROR(kLogSource, L"EnumDependentServices failed with error ");
        return false;
    }
    return true;
}

bool CDaemon::StopDependents() noexcept
{
    // Enumerated afresh on every stop: the list Start() reuses is the active one.
    if (!EnumDependencies(SERVICE_ACTIVE))
    {
        if (LastError() == ERROR_FILE_NOT_FOUND)
        {
            return true;
        }
        QC_LOG_LAST_ERROR(kLogSource, L"!m_lpDependencies with error ");
        SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return false;
    }

    // The platform lists dependents in reverse start order, the safe order to stop them.
    for (uint32_t i = 0; i < m_dwDependencyCount; ++i)
    {
        if (StopDependent(m_lpDependencies.Get()[i].lpServiceName) == WalkStep::Abort)
        {
            return false;
        }
    }
    return true;
}

CDaemon::WalkStep CDaemon::StopDependent(const wchar_t* pszDependent) noexcept
{
    SERVICE_STATUS status{};
    if (!OpenDependent(pszDependent, kStopDependentAccess, status))
    {
        return WalkStep::Abort;
    }
    if (status.dwCurrentState == SERVICE_STOPPED)
    {
        QC_LOG_WARNING(kLogSource) << pszDependent << L" is already stopped";
        ResetTick();
        return WalkStep::Next;
    }
    if (status.dwCurrentState == SERVICE_RUNNING)
    {
        ResetTick();
    }
    if (!::ControlService(m_hDependency.Get(), SERVICE_CONTROL_STOP, &status))
    {
        (void)DAEMON_FAIL_WITH_LAST_ERROR(L"ControlService failed with error ");
        return WalkStep::Abort;
    }
    if (status.dwCurrentState != SERVICE_STOPPED)
    {
        switch (WaitFor(m_hDependency.Get(), status, SERVICE_STOPPED, 0))
        {
        case WaitResult::Reached:
            break;
        case WaitResult::TimedOut:
            // Intentionally a warning here and an error everywhere else. The
            // next dependent's wait goes on from the same measure.
            DAEMON_LOG_TIMEOUT(Logging::LOG_LEVEL_WARNING, pszDependent);
            SetLastErrorCode(ERROR_TIMEOUT);
            return WalkStep::Next;
        case WaitResult::QueryFailed:
        case WaitResult::LeftPending:
            return WalkStep::Abort;
        }
    }
    ResetTick();
    return WalkStep::Next;
}

bool CDaemon::StartDependents() noexcept
{
    // After a Stop() on this object the list holds the dependents that were
    // active before it: exactly those are started again.
    if (!m_lpDependencies)
    {
        // Its failure shows as a still missing list, handled below.
        (void)EnumDependencies(SERVICE_INACTIVE);
    }
    if (!m_lpDependencies)
    {
        if (LastError() == ERROR_FILE_NOT_FOUND)
        {
            return true;
        }
        QC_LOG_LAST_ERROR(kLogSource, L"!m_lpDependencies with error ");
        SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return false;
    }

    // Reverse of the stop order; the count goes down with the walk.
    while (m_dwDependencyCount != 0)
    {
        --m_dwDependencyCount;
        if (StartDependent(m_lpDependencies.Get()[m_dwDependencyCount].lpServiceName) == WalkStep::Abort)
        {
            return false;
        }
    }
    return true;
}

CDaemon::WalkStep CDaemon::StartDependent(const wchar_t* pszDependent) noexcept
{
    SERVICE_STATUS status{};
    DWORD dwStartType = 0;
    if (!OpenDependent(pszDependent, kStartDependentAccess, status) || !QueryDependentStartType(dwStartType))
    {
        return WalkStep::Abort;
    }
    if (dwStartType == SERVICE_DEMAND_START)
    {
        // Intentionally skipped, also when it ran before a restart.
        QC_LOG_WARNING(kLogSource) << pszDependent << L" only starts on demand, will skip";
        ResetTick();
        return WalkStep::Next;
    }
    if (status.dwCurrentState == SERVICE_RUNNING)
    {
        QC_LOG_WARNING(kLogSource) << pszDependent << L" is already started";
        ResetTick();
        return WalkStep::Next;
    }
    if (status.dwCurrentState == SERVICE_STOPPED)
    {
        ResetTick();
    }

    if (!::StartServiceW(m_hDependency.Get(), 0, nullptr))
    {
        const uint32_t dwError = Logging::LastErrorCode();
        (void)DAEMON_FAIL_WITH_LAST_ERROR(L"StartService failed with error ");
        // A disabled dependent is skipped; any other failure ends the walk.
        return dwError == ERROR_SERVICE_DISABLED ? WalkStep::Next : WalkStep::Abort;
    }
    switch (WaitFor(m_hDependency.Get(), status, SERVICE_RUNNING, 0))
    {
    case WaitResult::Reached:
        return WalkStep::Next;
    case WaitResult::TimedOut:
        // A dependent's time-out does not end the walk.
        DAEMON_LOG_TIMEOUT(Logging::LOG_LEVEL_ERROR, pszDependent);
        SetLastErrorCode(ERROR_TIMEOUT);
        ResetTick();
        return WalkStep::Next;
    case WaitResult::QueryFailed:
    case WaitResult::LeftPending:
        break;
    }
    return WalkStep::Abort;
}

bool CDaemon::QueryDependentStartType(DWORD& dwStartType) noexcept
{
    DWORD dwConfigSize = 0;
    if (!::QueryServiceConfigW(m_hDependency.Get(), nullptr, 0, &dwConfigSize) &&
        ::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"QueryServiceConfig failed with error ");
        return false;
    }
    // Intentionally never freed, one small buffer per dependent started: the
    // service controller's documented behaviour.
    auto* pConfig = static_cast<QUERY_SERVICE_CONFIGW*>(::LocalAlloc(LPTR, dwConfigSize));
    // A failed allocation (LocalAlloc sets the error) counts as a failed query.
    if (pConfig == nullptr || !::QueryServiceConfigW(m_hDependency.Get(), pConfig, dwConfigSize, &dwConfigSize))
    {
        QC_LOG_LAST_ERROR(kLogSource, L"QueryServiceConfig failed with error ");
        return false;
    }
    dwStartType = pConfig->dwStartType;
    return true;
}

CDaemon::WaitResult CDaemon::WaitFor(SC_HANDLE hService, SERVICE_STATUS& status, DWORD dwTarget,
                                     DWORD dwPending) noexcept
{
    // Sleep, query, time-out, state: a time-out found on a poll wins over the
    // state read on that same poll.
    for (;;)
    {
        ::Sleep(m_dwPollInterval);
        if (!DAEMON_QUERY_STATUS(hService, status))
        {
            return WaitResult::QueryFailed;
        }
        if (HasTimedOut())
        {
            return WaitResult::TimedOut;
        }
        if (status.dwCurrentState == dwTarget)
        {
            return WaitResult::Reached;
        }
        if (dwPending != 0 && status.dwCurrentState != dwPending)
        {
            return WaitResult::LeftPending;
        }
    }
}

void CDaemon::ResetTick() noexcept
{
    m_dwStartTick = ::GetTickCount();
}

bool CDaemon::HasTimedOut() const noexcept
{
    const uint32_t dwElapsed = static_cast<uint32_t>(::GetTickCount()) - m_dwStartTick;
    return dwElapsed > m_dwTimeout;
}

void CDaemon::LogTimeout(uint32_t line, uint32_t dwLevel, const wchar_t* pszServiceName) const noexcept
{
    const uint32_t dwSeconds = m_dwTimeout / 1000;
    QC_LOG_AT(dwLevel, kLogSource, line) << pszServiceName << L" timeout, after " << dwSeconds << L" seconds";
}

bool CDaemon::OpenDependent(const wchar_t* pszDependent, DWORD dwAccess, SERVICE_STATUS& status) noexcept
{
    TakeDependencyHandle(::OpenServiceW(m_hSCManager.Get(), pszDependent, dwAccess));
    if (!m_hDependency)
    {
        return DAEMON_FAIL_WITH_LAST_ERROR(L"OpenService failed with error ");
    }
    return DAEMON_QUERY_STATUS_OR_FAIL(m_hDependency.Get(), status);
}

bool CDaemon::FailWithLastError(uint32_t line, const wchar_t* pszText) noexcept
{
    Logging::LogLastError(kLogSource, line, pszText);
    ResetTick();
    return false;
}

bool CDaemon::QueryStatusOrFail(uint32_t line, SC_HANDLE hService, SERVICE_STATUS& status) noexcept
{
    if (QueryStatus(line, hService, status))
    {
        return true;
    }
    ResetTick();
    return false;
}

void CDaemon::TakeDependencyHandle(SC_HANDLE hDependency) noexcept
{
    // The previous dependent's handle is left open, not closed in between: only
    // the last one is released, by the destructor.
    (void)m_hDependency.Detach();
    m_hDependency.Reset(hDependency);
}

const wchar_t* CDaemon::Name() const noexcept
{
    const wchar_t* pszName = m_strServiceName.Get();
    return pszName != nullptr ? pszName : L"";
}

} // namespace Quillcast::System
