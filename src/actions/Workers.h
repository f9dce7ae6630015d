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

// DomainActions.cpp
UINT DirectoryObjectPickWorker(Host::CWorkbench* pWorkbench);
UINT GetDomainWorker(Host::CWorkbench* pWorkbench);

} // namespace Quillcast::Actions
