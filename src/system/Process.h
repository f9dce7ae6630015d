#pragma once

#include <windows.h>
#include <tlhelp32.h>

#include <cstdint>

#include "host/types/ErrorHandler.h"
#include "host/types/Handles.h"

namespace Quillcast::System {

// Starts a program and waits for it, or closes running programs by their
// executable name: WM_CLOSE to each of their top-level windows first, then
// termination. Calling order: Create then Wait, or Snapshot then CloseByName.
// Failures are logged (source "Process") where they are found and answered with
// false; the last-error value (LastError()) is 87 for bad arguments, otherwise
// the system's error code.
class CProcess : public Types::CErrorHandler
{
public:
    CProcess() noexcept;
    CProcess(const CProcess&) = delete;
    CProcess& operator=(const CProcess&) = delete;
    // Closes the process, its thread and the snapshot, in that order (see below).
    ~CProcess() override = default;

    // CreateProcessW on a writable copy of `pszCommandLine`, without an
    // application name, handles not inherited, in a new console, with the
    // caller's environment and directory. Null `pStartupInfo`: a zeroed record
    // with only its size set. A null or empty command line fails with 87 and
    // logs nothing.
    [[nodiscard]] bool Create(const wchar_t* pszCommandLine, const STARTUPINFOW* pStartupInfo = nullptr) noexcept;
    // Waits without a limit for the process Create started.
    [[nodiscard]] bool Wait() noexcept;
    // The process Create started (or CloseByName opened last); null before.
    HANDLE ProcessHandle() const noexcept { return m_ProcessInfo.hProcess.Get(); }

    // Takes the snapshot of running processes and reads its first entry.
    [[nodiscard]] bool Snapshot() noexcept;
    // Closes every process of the snapshot whose executable name equals
    // `pszName` exactly (letter case counts): WM_CLOSE to its top-level windows;
    // if it still runs and still has a window, a wait of up to `dwTimeoutMs`;
    // then TerminateProcess in any case. True when the walk reached its end,
    // also when nothing matched. Without a snapshot, or with a null or empty
    // name, false with 87 and nothing logged.
    [[nodiscard]] bool CloseByName(const wchar_t* pszName, uint32_t dwTimeoutMs) noexcept;

private:
    // PROCESS_INFORMATION whose handles have one owner each; the thread is
    // declared first so that the process is closed before it.
    struct ProcessInformation
    {
        Types::CKernelHandle hThread;
        Types::CKernelHandle hProcess;
        DWORD dwProcessId = 0;
        DWORD dwThreadId = 0;
    };

    // Closes the handles in the destructor's order and forgets the snapshot,
    // for a new Create.
    void Release() noexcept;
    bool CloseProcess(uint32_t dwTimeoutMs) noexcept;

    // Declared in reverse of their release: the snapshot is closed last.
    Types::CKernelHandle m_hSnapshot;
    ProcessInformation m_ProcessInfo;
    PROCESSENTRY32W m_ProcessEntry;
};

} // namespace Quillcast::System
