// The process and shell actions: start a program and wait for it, close
// running programs by name, open a target through the shell, and run the
// auto-connect program twice. Every entry of the workers names "Various".
#include <windows.h>
#include <msiquery.h>

#include <cstdint>
#include <cstdlib>
#include <io.h>

#include "actions/Workers.h"
#include "host/ArgumentNames.h"
#include "host/MsiProperty.h"
#include "host/types/Handles.h"
#include "host/types/WideString.h"
#include "logging/LogHelpers.h"
#include "system/Process.h"
#include "system/Registry.h"
#include "system/Shell.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Various", 7000};

constexpr uint32_t kDefaultCloseTimeoutMs = 60000;

constexpr wchar_t kAutoConnectServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\QCAutoConnSvc";
constexpr REGSAM kAutoConnectKeyAccess = KEY_ALL_ACCESS | KEY_WOW64_32KEY;
static_assert(kAutoConnectKeyAccess == 0xF023F);

using System::Types::CWideBuffer;

// Seconds as _wtoi reads them (junk and "" give 0), in 32-bit milliseconds;
// null (nothing given) is the default of 60 s.
uint32_t CloseTimeoutMs(const wchar_t* pszSeconds) noexcept
{
    if (pszSeconds == nullptr)
    {
        return kDefaultCloseTimeoutMs;
    }
    return static_cast<uint32_t>(::_wtoi(pszSeconds)) * 1000u;
}

enum class StartOutcome
{
    Ended,        // ran and ended; the process is still held for its exit code
    CreateFailed, // logged by CProcess
    NotRunning,   // the exit code could not be read or was not STILL_ACTIVE
    WaitFailed,   // logged by CProcess
};

// Starts the command line hidden and waits for the process to end.
StartOutcome StartAndWait(System::CProcess& process, const wchar_t* pszCommandLine) noexcept
{
    STARTUPINFOW startupInfo{};
    startupInfo.cb = sizeof(startupInfo);
    startupInfo.dwFlags = STARTF_USESHOWWINDOW;
    startupInfo.wShowWindow = SW_HIDE;
    if (!process.Create(pszCommandLine, &startupInfo))
    {
        return StartOutcome::CreateFailed;
    }
    // Intentional: a program that has already ended by now, even successfully,
    // fails the action.
    DWORD dwExitCode = 0;
    if (!::GetExitCodeProcess(process.ProcessHandle(), &dwExitCode) || dwExitCode != STILL_ACTIVE)
    {
        return StartOutcome::NotRunning;
    }
    return process.Wait() ? StartOutcome::Ended : StartOutcome::WaitFailed;
}

UINT CreateProcessAndWait(const wchar_t* pszCommandLine) noexcept
{
    System::CProcess process;
    if (StartAndWait(process, pszCommandLine) != StartOutcome::Ended)
    {
        return ERROR_INSTALL_FAILURE;
    }
    DWORD dwExitCode = 0xFFFFFFFF;
    if (process.ProcessHandle() == nullptr || !::GetExitCodeProcess(process.ProcessHandle(), &dwExitCode))
    {
        dwExitCode = 0xFFFFFFFF;
    }
    // The program's own result is reported, never judged.
    QC_LOG_INFO(kLogSource) << L"Exit code of process is " << dwExitCode;
    return ERROR_SUCCESS;
}

UINT CloseByName(System::CProcess& process, const wchar_t* pszName, uint32_t dwTimeoutMs) noexcept
{
    return process.CloseByName(pszName, dwTimeoutMs) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

UINT OpenThroughShell(const wchar_t* pszTarget, const wchar_t* pszDirectory) noexcept
{
    System::CShell shell;
    return shell.Execute(pszTarget, pszDirectory) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

// One run of the auto-connect program; false after its error entry.
bool RunAutoConnect(const CWideBuffer& commandLine) noexcept
{
    System::CProcess process;
    switch (StartAndWait(process, System::Types::Text(commandLine)))
    {
    case StartOutcome::Ended:
        return true;
    case StartOutcome::CreateFailed:
        QC_LOG_LAST_ERROR(kLogSource, L"Start failed with error ");
        return false;
    case StartOutcome::NotRunning:
    case StartOutcome::WaitFailed:
        break;
    }
    QC_LOG_LAST_ERROR(kLogSource, L"Wait failed with error ");
    return false;
}

} // namespace

UINT CreateProcessDeferredWorker(Host::CWorkbench* pWorkbench)
{
    return CreateProcessAndWait(pWorkbench->m_Arguments.GetArgument(Host::Argument::kCommandLine));
}

UINT CreateProcessImmediatelyWorker(Host::CWorkbench* pWorkbench)
{
    CWideBuffer commandLine;
    if (!QC_READ_PROPERTY_OR_LOG(pWorkbench->m_hInstall, L"CreateProcessProperty", commandLine, kLogSource))
    {
        return ERROR_INSTALL_FAILURE;
    }
    return CreateProcessAndWait(System::Types::Text(commandLine));
}

UINT CloseProcessDeferredWorker(Host::CWorkbench* pWorkbench)
{
    // The snapshot comes first, before the arguments are looked at.
    System::CProcess process;
    if (!process.Snapshot())
    {
        return ERROR_INSTALL_FAILURE;
    }
    const Host::CMsiArguments& arguments = pWorkbench->m_Arguments;
    return CloseByName(process, arguments.GetArgument(Host::Argument::kProcessName),
                       CloseTimeoutMs(arguments.GetArgument(Host::Argument::kTimeout)));
}

UINT CloseProcessImmediatelyWorker(Host::CWorkbench* pWorkbench)
{
    const MSIHANDLE hInstall = pWorkbench->m_hInstall;
    CWideBuffer name;
    if (!QC_READ_PROPERTY_OR_LOG(hInstall, L"CloseProcessProperty", name, kLogSource))
    {
        return ERROR_INSTALL_FAILURE;
    }
    // The time-out is optional: an unanswerable size query only warns, and an
    // empty value counts as absent.
    CWideBuffer timeout;
    const Host::PropertyReadResult read = Host::ReadProperty(hInstall, L"CloseProcessTimeout", timeout);
    switch (read.failedStep)
    {
    case Host::PropertyReadStep::None:
        break;
    case Host::PropertyReadStep::SizeQuery:
        QC_LOG_PROPERTY_READ_FAILURE(Logging::LOG_LEVEL_WARNING, kLogSource, L"CloseProcessTimeout");
        break;
    case Host::PropertyReadStep::Allocate:
    case Host::PropertyReadStep::Read:
        QC_LOG_PROPERTY_READ_FAILURE(Logging::LOG_LEVEL_ERROR, kLogSource, L"CloseProcessTimeout");
        return ERROR_INSTALL_FAILURE;
    }

    System::CProcess process;
    if (!process.Snapshot())
    {
        return ERROR_INSTALL_FAILURE;
    }
    const wchar_t* pszTimeout = System::Types::TextLength(timeout) != 0 ? System::Types::Text(timeout) : nullptr;
    return CloseByName(process, System::Types::Text(name), CloseTimeoutMs(pszTimeout));
}

UINT ShellExecuteDeferredWorker(Host::CWorkbench* pWorkbench)
{
    const Host::CMsiArguments& arguments = pWorkbench->m_Arguments;
    return OpenThroughShell(arguments.GetArgument(Host::Argument::kTarget),
                            arguments.GetArgument(Host::Argument::kWorkingDir));
}

UINT ShellExecuteImmediatelyWorker(Host::CWorkbench* pWorkbench)
{
    const MSIHANDLE hInstall = pWorkbench->m_hInstall;
    CWideBuffer target;
    CWideBuffer directory;
    if (!QC_READ_PROPERTY_OR_LOG(hInstall, L"ShellExecuteTarget", target, kLogSource) ||
        !QC_READ_PROPERTY_OR_LOG(hInstall, L"ShellExecuteWorkDir", directory, kLogSource))
    {
        return ERROR_INSTALL_FAILURE;
    }
    return OpenThroughShell(System::Types::Text(target), System::Types::Text(directory));
}

UINT CloseAutoConnectWorker(Host::CWorkbench*)
{
    System::Types::CRegistryKey key;
    if (!QC_OPEN_KEY_OR_LOG(HKEY_LOCAL_MACHINE, kAutoConnectServiceKey, kAutoConnectKeyAccess, key,
                            Logging::LOG_LEVEL_ERROR, kLogSource, L"Open registry key failed with error "))
    {
        return ERROR_INSTALL_FAILURE;
    }
    // "ImagePath" as stored (its type is not looked at, nothing is expanded),
    // read even when its size query fails: a missing value fails the read.
    CWideBuffer commandLine;
    if (System::ReadRegistryString(key.Get(), L"ImagePath", commandLine, 0, System::RegistrySizeQuery::Advisory) !=
        ERROR_SUCCESS)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"Query registry value failed with error ");
        return ERROR_INSTALL_FAILURE;
    }

    // The auto-connect program sits beside the service's own program. Replace
    // fails only on an empty text, which the access check below then reports.
    (void)System::Types::Replace(commandLine, L"QCAutoConnSvc.exe", L"QCAutoConnect.exe");
    if (System::Types::TextLength(commandLine) != 0)
    {
        System::Types::Trim(commandLine, L'"');
    }
    if (::_waccess(System::Types::Text(commandLine), 0) != 0)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"Access failed with error ");
        return ERROR_INSTALL_FAILURE;
    }
    // The path is not quoted again. Append and the Replace below fail only on
    // an exhausted heap, reported as a start that could not happen.
    if (!System::Types::Append(commandLine, L" -d all -q"))
    {
        QC_LOG_LAST_ERROR(kLogSource, L"Start failed with error ");
        return ERROR_INSTALL_FAILURE;
    }
    if (!RunAutoConnect(commandLine))
    {
        return ERROR_INSTALL_FAILURE;
    }
    if (!System::Types::Replace(commandLine, L"-d all", L"-r"))
    {
        QC_LOG_LAST_ERROR(kLogSource, L"Start failed with error ");
        return ERROR_INSTALL_FAILURE;
    }
    return RunAutoConnect(commandLine) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace Quillcast::Actions
