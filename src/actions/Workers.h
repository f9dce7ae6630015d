#pragma once

#include <windows.h>

#include "host/ActionTable.h"
#include "host/Workbench.h"

// The workers behind the exports, one per action (<export name>Worker), grouped
// by area in this folder. Firewall workers answer 87 when their main argument
// ("LOCALPORTS" or "PROGRAMNAME") is absent.
namespace Quillcast::Actions {

#define QC_DECLARE_Worker(name) UINT name##Worker(Host::CWorkbench* pWorkbench);
#define QC_DECLARE_VersionOnly(name)
#define QC_DECLARE_WORKER(name, arguments, required, frame) QC_DECLARE_##frame(name)
QC_CUSTOM_ACTIONS(QC_DECLARE_WORKER)
#undef QC_DECLARE_WORKER
#undef QC_DECLARE_VersionOnly
#undef QC_DECLARE_Worker

} // namespace Quillcast::Actions
