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

// FirewallActions.cpp: 87 when the main argument ("LOCALPORTS" or "PROGRAMNAME") is absent.
UINT AddPortExceptionWorker(Host::CWorkbench* pWorkbench);
UINT AddProgramExceptionWorker(Host::CWorkbench* pWorkbench);
UINT RemovePortExceptionWorker(Host::CWorkbench* pWorkbench);
UINT RemoveProgramExceptionWorker(Host::CWorkbench* pWorkbench);

} // namespace Quillcast::Actions
