#pragma once

#include <windows.h>
#include <msi.h>

#include <cstdint>

#include "host/ActionTable.h"
#include "host/MsiArguments.h"

namespace Quillcast::Host {

// The per-call context of one custom action. Construction reads the arguments
// (before the thread is bound, so entries of the read never reach the installer
// log) and then binds the calling thread to the session; destruction unbinds
// it before the argument list goes away, also when an exception passes.
class CWorkbench
{
public:
    explicit CWorkbench(MSIHANDLE hInstall);
    CWorkbench(const CWorkbench&) = delete;
    CWorkbench& operator=(const CWorkbench&) = delete;
    ~CWorkbench();

    MSIHANDLE m_hInstall = 0;
    CMsiArguments m_Arguments;
};

// A worker receives the context and returns the action's result code.
using ActionWorker = UINT (*)(CWorkbench* pWorkbench);

// True when `name` has a non-empty value (info "Argument[name] = value");
// otherwise false with the warning "Argument[name] = NOT DEFINED".
[[nodiscard]] bool HasArgument(CWorkbench& workbench, const wchar_t* name);

// Logs every known name with its value (or "NOT DEFINED" as an error), then
// passes when the list carries at least `count` pairs, whatever their names.
[[nodiscard]] bool ListArguments(CWorkbench& workbench, const wchar_t* const* names, uint32_t count);
// Passes when each name is present with a non-empty, acceptable value; stops at
// the first that is not, with "Argument[name] is invalid".
[[nodiscard]] bool CheckRequiredArguments(CWorkbench& workbench, const wchar_t* const* names, uint32_t count);
// The per-name value rule: "DEPENDENCIES" must be exactly "1" or "0".
[[nodiscard]] bool CheckArgumentValue(const wchar_t* name, const wchar_t* value);

// "Processing custom action: <name>", then the two checks against row `index`.
[[nodiscard]] bool ValidateAction(CWorkbench& workbench, uint32_t index);
// Logs "Custom Action Dll '<path>' has version '<file version>'".
void LogModuleVersion();

// The frame every export but GetCustomActionVersion runs: context, version
// line, validation, worker. Returns the worker's result unchanged, or
// ERROR_INSTALL_FAILURE when validation failed. Catches nothing.
[[nodiscard]] UINT RunAction(MSIHANDLE hInstall, uint32_t index, ActionWorker worker);
// GetCustomActionVersion's frame: context and version line only; always 0.
[[nodiscard]] UINT RunVersionOnly(MSIHANDLE hInstall);

// The export boundary: RunAction, with any exception (only an exhausted heap
// can raise one, after the frame has torn down) turned into ERROR_INSTALL_FAILURE
// so that it never unwinds into the installer. `worker` must not be null.
[[nodiscard]] UINT Dispatch(MSIHANDLE hInstall, uint32_t index, ActionWorker worker) noexcept;
// GetCustomActionVersion's export boundary: RunVersionOnly, never unwinding.
[[nodiscard]] UINT DispatchVersionOnly(MSIHANDLE hInstall) noexcept;

} // namespace Quillcast::Host
