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
// IcaClient.cpp
UINT AddIcaClientWorker(Host::CWorkbench* pWorkbench);
UINT RemoveIcaClientWorker(Host::CWorkbench* pWorkbench);
// EngineVersion.cpp, FileVersionQuery.cpp
UINT GetEngineVersionWorker(Host::CWorkbench* pWorkbench);
UINT GetFileVersionWorker(Host::CWorkbench* pWorkbench);
// Messages.cpp
UINT ShowMessageDeferredWorker(Host::CWorkbench* pWorkbench);
UINT ShowMessageImmediatelyWorker(Host::CWorkbench* pWorkbench);
// RemoteConfig.cpp
UINT SetRemoteConfigDeferredWorker(Host::CWorkbench* pWorkbench);
UINT SetRemoteConfigImmediatelyWorker(Host::CWorkbench* pWorkbench);
// FirewallActions.cpp: 87 when the main argument ("LOCALPORTS" or "PROGRAMNAME") is absent.
UINT AddPortExceptionWorker(Host::CWorkbench* pWorkbench);
UINT AddProgramExceptionWorker(Host::CWorkbench* pWorkbench);
UINT RemovePortExceptionWorker(Host::CWorkbench* pWorkbench);
UINT RemoveProgramExceptionWorker(Host::CWorkbench* pWorkbench);
// DomainActions.cpp
UINT DirectoryObjectPickWorker(Host::CWorkbench* pWorkbench);
UINT GetDomainWorker(Host::CWorkbench* pWorkbench);
// Certificates.cpp
UINT CreateAndInstallRootCertificateWorker(Host::CWorkbench* pWorkbench);
UINT CreateAndInstallSignedServerCertificateWorker(Host::CWorkbench* pWorkbench);
UINT UninstallRootCertificateWorker(Host::CWorkbench* pWorkbench);
UINT UninstallSignedCertificateWorker(Host::CWorkbench* pWorkbench);

} // namespace Quillcast::Actions
