#pragma once

#include <windows.h>

#include "host/Workbench.h"

// The workers behind the exports, one per action, grouped by area in this folder.
namespace Quillcast::Actions {

UINT CompareVersionStringWorker(Host::CWorkbench* pWorkbench);

// Services.cpp
UINT ServiceRestartWorker(Host::CWorkbench* pWorkbench);
UINT ServiceStartWorker(Host::CWorkbench* pWorkbench);
UINT ServiceStopWorker(Host::CWorkbench* pWorkbench);

// Processes.cpp
UINT CloseAutoConnectWorker(Host::CWorkbench* pWorkbench);
UINT CloseProcessDeferredWorker(Host::CWorkbench* pWorkbench);
UINT CloseProcessImmediatelyWorker(Host::CWorkbench* pWorkbench);
UINT CreateProcessDeferredWorker(Host::CWorkbench* pWorkbench);
UINT CreateProcessImmediatelyWorker(Host::CWorkbench* pWorkbench);
UINT ShellExecuteDeferredWorker(Host::CWorkbench* pWorkbench);
UINT ShellExecuteImmediatelyWorker(Host::CWorkbench* pWorkbench);

} // namespace Quillcast::Actions
