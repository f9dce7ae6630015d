#pragma once

#include <windows.h>

#include <cstdint>

#include "host/types/ArrayPtr.h"
#include "host/types/ErrorHandler.h"
#include "host/types/Handles.h"

namespace Quillcast::System {

// Starts and stops one Windows service through the Service Control Manager
// and, when asked, the services that depend on it. Every wait polls the
// service's status every 1500 ms until the state is reached or the time-out
// passes; every failure is logged (source "Daemon") where it is found and
// reported as false. A restart is Stop() followed by Start() on one object:
// Start() then restarts exactly the dependents that Stop() found active.
//
// The last-error value (LastError()) is informational: 87 for a missing name
// or a failed dependency enumeration, 1460 after a time-out, 2 when the last
// enumeration found no dependents.
class CDaemon : public Types::CErrorHandler
{
public:
    // Opens the Service Control Manager and the service. Failures are logged
    // here and leave an object without handles whose first operation fails.
    explicit CDaemon(const wchar_t* pszServiceName) noexcept;
    CDaemon(const CDaemon&) = delete;
    CDaemon& operator=(const CDaemon&) = delete;
    // Releases the members in reverse order of declaration (see below).
    ~CDaemon() override = default;

    // The time-out default: waits never end by time.
    static constexpr uint32_t NO_TIMEOUT = 0xFFFFFFFF;
    static constexpr uint32_t POLL_INTERVAL_MS = 1500;

    // The two dependency walks of HandleDependencies.
    enum DependencyWalk : uint32_t
    {
        DEPENDENCY_WALK_STOP = 1,  // stop the active dependents
        DEPENDENCY_WALK_START = 4, // start the dependents again
    };

    // Also stop and start the dependent services (off by default).
    void SetDependencies(bool bDependencies) noexcept { m_bDependencies = bDependencies; }
    // Limit of every wait in milliseconds; NO_TIMEOUT (the default) never times out.
    void SetTimeout(uint32_t dwTimeout) noexcept { m_dwTimeout = dwTimeout; }

    // True when the service runs, also when it already did. With dependencies
    // on, then starts the dependents; their failures do not change the result.
    [[nodiscard]] bool Start() noexcept;
    // True when the service is stopped, also when it already was. With
    // dependencies on, first stops the active dependents (not when the service
    // was already stopped); their failures do not change the result.
    [[nodiscard]] bool Stop() noexcept;

    // DEPENDENCY_WALK_STOP stops the active dependents in enumeration order;
    // DEPENDENCY_WALK_START starts the dependents of the last enumeration (or,
    // when there was none, the inactive ones) in reverse order, skipping those
    // that start on demand. Any other action does nothing and yields true.
    [[nodiscard]] bool HandleDependencies(uint32_t dwAction) noexcept;
    // Enumerates the dependents in `dwServiceState` (SERVICE_ACTIVE or
    // SERVICE_INACTIVE) into the dependency list. False with last-error value 2
    // when there are none; false after a logged failure otherwise.
    [[nodiscard]] bool EnumDependencies(uint32_t dwServiceState) noexcept;

private:
    enum class WaitResult
    {
        Reached,     // the target state was read
        LeftPending, // a state other than the target and the pending state was read
        QueryFailed, // logged
        TimedOut,    // not logged: the level depends on the caller
    };

    enum class WalkStep
    {
        Next,  // go on with the next dependent
        Abort, // the walk fails (logged)
    };

    enum class PendingOutcome
    {
        Reached,     // the target state was read (tick reset)
        LeftPending, // the pending state ended elsewhere: act as usual, measure running on
        Failed,      // logged, tick reset
    };

    // Null on success, otherwise the text to log.
    [[nodiscard]] const wchar_t* Open(const wchar_t* pszServiceName) noexcept;
    // Polls `hService` until it reports `dwTarget`. With `dwPending` non-zero
    // the wait also ends when any state other than `dwPending` is read.
    [[nodiscard]] WaitResult WaitFor(SC_HANDLE hService, SERVICE_STATUS& status, DWORD dwTarget,
                                     DWORD dwPending) noexcept;
    // The helpers that log on behalf of their caller take the caller's `line`
    // (Daemon.cpp calls them through macros that pass it).
    // The service was found pending: warns "<name><pszWarning>", resets the tick
    // and waits for `dwTarget` while the state stays `dwPending`.
    [[nodiscard]] PendingOutcome AwaitPending(uint32_t line, const wchar_t* pszWarning, DWORD dwTarget, DWORD dwPending,
                                              SERVICE_STATUS& status) noexcept;
    // Waits for the service to reach `dwTarget` after a control; resets the
    // tick either way. False after a logged failure or time-out.
    [[nodiscard]] bool AwaitServiceState(uint32_t line, DWORD dwTarget, SERVICE_STATUS& status) noexcept;
    // A wait of the service itself timed out: error entry, last error 1460, tick reset.
    void FailOnTimeout(uint32_t line) noexcept;
    // Logs `pszText` followed by the thread's last-error value as an error and
    // resets the tick. Always false, for `return FailWithLastError(...)`.
    bool FailWithLastError(uint32_t line, const wchar_t* pszText) noexcept;
    // QueryServiceStatus; a failure is logged and resets the tick.
    [[nodiscard]] bool QueryStatusOrFail(uint32_t line, SC_HANDLE hService, SERVICE_STATUS& status) noexcept;
    [[nodiscard]] bool StopDependents() noexcept;
    [[nodiscard]] WalkStep StopDependent(const wchar_t* pszDependent) noexcept;
    [[nodiscard]] bool StartDependents() noexcept;
    [[nodiscard]] WalkStep StartDependent(const wchar_t* pszDependent) noexcept;
    // The start type of m_hDependency; false after a logged failure (tick kept).
    [[nodiscard]] bool QueryDependentStartType(DWORD& dwStartType) noexcept;
    void ResetTick() noexcept;
    [[nodiscard]] bool HasTimedOut() const noexcept;
    void LogTimeout(uint32_t line, uint32_t dwLevel, const wchar_t* pszServiceName) const noexcept;
    // Opens a dependent into m_hDependency and reads its status; false after a
    // logged failure, with the tick reset.
    [[nodiscard]] bool OpenDependent(const wchar_t* pszDependent, DWORD dwAccess, SERVICE_STATUS& status) noexcept;
    void TakeDependencyHandle(SC_HANDLE hDependency) noexcept;
    const wchar_t* Name() const noexcept;

    bool m_bDependencies = false;
    // A partly built object keeps these too; it fails at its first query before any wait.
    uint32_t m_dwTimeout = NO_TIMEOUT;
    uint32_t m_dwPollInterval = POLL_INTERVAL_MS;
    Types::CArrayPtr<wchar_t> m_strServiceName;
    uint32_t m_dwStartTick = 0;
    DWORD m_dwDependencyCount = 0;
    // Declared in reverse of their release: destruction passes the manager,
    // the service and the last dependent to CloseHandle, in that order, and
    // then frees the dependency list.
    Types::CProcessHeapPtr<ENUM_SERVICE_STATUSW> m_lpDependencies;
    Types::CServiceHandleClosedByCloseHandle m_hDependency;
    Types::CServiceHandleClosedByCloseHandle m_hService;
    Types::CServiceHandleClosedByCloseHandle m_hSCManager;
};

} // namespace Quillcast::System
