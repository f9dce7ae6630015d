#pragma once

#include <windows.h>

#include "host/Workbench.h"

// The workers behind the exports, one per action, grouped by area in this folder.
namespace Quillcast::Actions {

UINT CompareVersionStringWorker(Host::CWorkbench* pWorkbench);

} // namespace Quillcast::Actions
