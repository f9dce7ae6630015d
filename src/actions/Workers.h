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

// Certificates.cpp
UINT CreateAndInstallRootCertificateWorker(Host::CWorkbench* pWorkbench);
UINT CreateAndInstallSignedServerCertificateWorker(Host::CWorkbench* pWorkbench);
UINT UninstallRootCertificateWorker(Host::CWorkbench* pWorkbench);
UINT UninstallSignedCertificateWorker(Host::CWorkbench* pWorkbench);

} // namespace Quillcast::Actions
