// The exported custom actions: one line each, the row index and the worker.
#include <windows.h>
#include <msi.h>

#include "actions/Workers.h"
#include "host/Workbench.h"

using namespace Quillcast;
using Host::Dispatch;

#define QC_EXPORT extern "C" UINT __stdcall

QC_EXPORT AddIcaClient(MSIHANDLE h) { return Dispatch(h, Host::ACTION_AddIcaClient, Actions::AddIcaClientWorker); }
QC_EXPORT AddPortException(MSIHANDLE h) { return Dispatch(h, Host::ACTION_AddPortException, Actions::AddPortExceptionWorker); }
QC_EXPORT AddProgramException(MSIHANDLE h) { return Dispatch(h, Host::ACTION_AddProgramException, Actions::AddProgramExceptionWorker); }
QC_EXPORT CloseAutoConnect(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CloseAutoConnect, Actions::CloseAutoConnectWorker); }
QC_EXPORT CloseProcessDeferred(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CloseProcessDeferred, Actions::CloseProcessDeferredWorker); }
QC_EXPORT CloseProcessImmediately(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CloseProcessImmediately, Actions::CloseProcessImmediatelyWorker); }
QC_EXPORT CompareVersionString(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CompareVersionString, Actions::CompareVersionStringWorker); }
QC_EXPORT CreateAndInstallRootCertificate(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CreateAndInstallRootCertificate, Actions::CreateAndInstallRootCertificateWorker); }
QC_EXPORT CreateAndInstallSignedServerCertificate(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CreateAndInstallSignedServerCertificate, Actions::CreateAndInstallSignedServerCertificateWorker); }
QC_EXPORT CreateProcessDeferred(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CreateProcessDeferred, Actions::CreateProcessDeferredWorker); }
QC_EXPORT CreateProcessImmediately(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CreateProcessImmediately, Actions::CreateProcessImmediatelyWorker); }
QC_EXPORT DirectoryObjectPick(MSIHANDLE h) { return Dispatch(h, Host::ACTION_DirectoryObjectPick, Actions::DirectoryObjectPickWorker); }
QC_EXPORT GetCustomActionVersion(MSIHANDLE h) { return Host::DispatchVersionOnly(h); }
QC_EXPORT GetDomain(MSIHANDLE h) { return Dispatch(h, Host::ACTION_GetDomain, Actions::GetDomainWorker); }
QC_EXPORT GetEngineVersion(MSIHANDLE h) { return Dispatch(h, Host::ACTION_GetEngineVersion, Actions::GetEngineVersionWorker); }
QC_EXPORT GetFileVersion(MSIHANDLE h) { return Dispatch(h, Host::ACTION_GetFileVersion, Actions::GetFileVersionWorker); }
QC_EXPORT RemoveIcaClient(MSIHANDLE h) { return Dispatch(h, Host::ACTION_RemoveIcaClient, Actions::RemoveIcaClientWorker); }
QC_EXPORT RemovePortException(MSIHANDLE h) { return Dispatch(h, Host::ACTION_RemovePortException, Actions::RemovePortExceptionWorker); }
QC_EXPORT RemoveProgramException(MSIHANDLE h) { return Dispatch(h, Host::ACTION_RemoveProgramException, Actions::RemoveProgramExceptionWorker); }
QC_EXPORT ServiceRestart(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceRestart, Actions::ServiceRestartWorker); }
QC_EXPORT ServiceStart(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceStart, Actions::ServiceStartWorker); }
QC_EXPORT ServiceStop(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceStop, Actions::ServiceStopWorker); }
QC_EXPORT SetRemoteConfigDeferred(MSIHANDLE h) { return Dispatch(h, Host::ACTION_SetRemoteConfigDeferred, Actions::SetRemoteConfigDeferredWorker); }
QC_EXPORT SetRemoteConfigImmediately(MSIHANDLE h) { return Dispatch(h, Host::ACTION_SetRemoteConfigImmediately, Actions::SetRemoteConfigImmediatelyWorker); }
QC_EXPORT ShellExecuteDeferred(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ShellExecuteDeferred, Actions::ShellExecuteDeferredWorker); }
QC_EXPORT ShellExecuteImmediately(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ShellExecuteImmediately, Actions::ShellExecuteImmediatelyWorker); }
QC_EXPORT ShowMessageDeferred(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ShowMessageDeferred, Actions::ShowMessageDeferredWorker); }
QC_EXPORT ShowMessageImmediately(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ShowMessageImmediately, Actions::ShowMessageImmediatelyWorker); }
QC_EXPORT UninstallRootCertificate(MSIHANDLE h) { return Dispatch(h, Host::ACTION_UninstallRootCertificate, Actions::UninstallRootCertificateWorker); }
QC_EXPORT UninstallSignedCertificate(MSIHANDLE h) { return Dispatch(h, Host::ACTION_UninstallSignedCertificate, Actions::UninstallSignedCertificateWorker); }
