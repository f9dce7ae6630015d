// The exported custom actions: one line each, the row index and the worker.
#include <windows.h>
#include <msi.h>

#include "actions/Workers.h"
#include "host/Workbench.h"

using namespace Quillcast;
using Host::Dispatch;

#define QC_EXPORT extern "C" UINT __stdcall

QC_EXPORT CompareVersionString(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CompareVersionString, Actions::CompareVersionStringWorker); }
QC_EXPORT CreateAndInstallRootCertificate(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CreateAndInstallRootCertificate, Actions::CreateAndInstallRootCertificateWorker); }
QC_EXPORT CreateAndInstallSignedServerCertificate(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CreateAndInstallSignedServerCertificate, Actions::CreateAndInstallSignedServerCertificateWorker); }
QC_EXPORT GetCustomActionVersion(MSIHANDLE h) { return Dispatch(h, Host::ACTION_GetCustomActionVersion, nullptr); }
QC_EXPORT ServiceRestart(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceRestart, Actions::ServiceRestartWorker); }
QC_EXPORT ServiceStart(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceStart, Actions::ServiceStartWorker); }
QC_EXPORT ServiceStop(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceStop, Actions::ServiceStopWorker); }
QC_EXPORT UninstallRootCertificate(MSIHANDLE h) { return Dispatch(h, Host::ACTION_UninstallRootCertificate, Actions::UninstallRootCertificateWorker); }
QC_EXPORT UninstallSignedCertificate(MSIHANDLE h) { return Dispatch(h, Host::ACTION_UninstallSignedCertificate, Actions::UninstallSignedCertificateWorker); }
