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
    ~CDaemon() override;

    // Also stop and start the dependent services (off by default).
    void SetDependencies(bool bDependencies) noexcept { m_bDependencies = bDependencies; }
    // Limit of every wait in milliseconds; 0xFFFFFFFF (the default) never times out.
    void SetTimeout(uint32_t dwTimeout) noexcept { m_dwTimeout = dwTimeout; }

    // True when the service runs, also when it already did. With dependencies
    // on, then starts the dependents; their failures do not change the result.
    [[nodiscard]] bool Start() noexcept;
    // True when the service is stopped, also when it already was. With
    // dependencies on, first stops the active dependents (not when the service
    // was already stopped); their failures do not change the result.
    [[nodiscard]] bool Stop() noexcept;

    // 1 stops the active dependents in enumeration order; 4 starts the
    // dependents of the last enumeration (or, when there was none, the inactive
    // ones) in reverse order, skipping those that start on demand. Any other
    // action does nothing and yields true.
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

    enum class PendingOutcome
    {
        Reached,     // the target state was read (tick reset)
        LeftPending, // the pending state ended elsewhere: act as usual, measure running on
        Failed,      // logged, tick reset
    };

    // Null on success, otherwise the text to log.
    const wchar_t* Open(const wchar_t* pszServiceName) noexcept;
    // Polls `hService` until it reports `dwTarget`. With `dwPending` non-zero
    // the wait also ends when any state other than `dwPending` is read.
    WaitResult WaitFor(SC_HANDLE hService, SERVICE_STATUS& status, DWORD dwTarget, DWORD dwPending) noexcept;
    // The service was found pending: warns "<name><pszWarning>", resets the tick
    // and waits for `dwTarget` while the state stays `dwPending`.
    PendingOutcome AwaitPending(const wchar_t* pszWarning, DWORD dwTarget, DWORD dwPending,
                                SERVICE_STATUS& status) noexcept;
    // Waits for the service to reach `dwTarget` after a control; resets the
    // tick either way. False after a logged failure or time-out.
    bool AwaitServiceState(DWORD dwTarget, SERVICE_STATUS& status) noexcept;
    // A wait of the service itself timed out: error entry, last error 1460, tick reset.
    void FailOnTimeout() noexcept;
    bool StopDependents() noexcept;
    bool StartDependents() noexcept;
    void ResetTick() noexcept;
    bool HasTimedOut() const noexcept;
    void LogTimeout(uint32_t dwLevel, const wchar_t* pszServiceName) const noexcept;
    // Opens a dependent into m_hDependency and reads its status; false after a
    // logged failure, with the tick reset.
    bool OpenDependent(const wchar_t* pszDependent, DWORD dwAccess, SERVICE_STATUS& status) noexcept;
    void TakeDependencyHandle(SC_HANDLE hDependency) noexcept;
    const wchar_t* Name() const noexcept;

    bool m_bDependencies = false;
    uint32_t m_dwTimeout = 0;
    uint32_t m_dwPollInterval = 0;
    Types::CServiceHandleClosedByCloseHandle m_hSCManager;
    Types::CServiceHandleClosedByCloseHandle m_hService;
    Types::CArrayPtr<wchar_t> m_strServiceName;
    uint32_t m_dwStartTick = 0;
    Types::CProcessHeapPtr<ENUM_SERVICE_STATUSW> m_lpDependencies;
    DWORD m_dwDependencyCount = 0;
    Types::CServiceHandleClosedByCloseHandle m_hDependency;
};

} // namespace Quillcast::System
