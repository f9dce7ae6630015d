// The exported custom actions: one line each, the row index and the worker.
#include <windows.h>
#include <msi.h>

#include "actions/Workers.h"
#include "host/Workbench.h"

using namespace Quillcast;
using Host::Dispatch;

#define QC_EXPORT extern "C" UINT __stdcall

QC_EXPORT AddPortException(MSIHANDLE h) { return Dispatch(h, Host::ACTION_AddPortException, Actions::AddPortExceptionWorker); }
QC_EXPORT AddProgramException(MSIHANDLE h) { return Dispatch(h, Host::ACTION_AddProgramException, Actions::AddProgramExceptionWorker); }
QC_EXPORT CompareVersionString(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CompareVersionString, Actions::CompareVersionStringWorker); }
QC_EXPORT GetCustomActionVersion(MSIHANDLE h) { return Dispatch(h, Host::ACTION_GetCustomActionVersion, nullptr); }
QC_EXPORT RemovePortException(MSIHANDLE h) { return Dispatch(h, Host::ACTION_RemovePortException, Actions::RemovePortExceptionWorker); }
QC_EXPORT RemoveProgramException(MSIHANDLE h) { return Dispatch(h, Host::ACTION_RemoveProgramException, Actions::RemoveProgramExceptionWorker); }
QC_EXPORT ServiceRestart(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceRestart, Actions::ServiceRestartWorker); }
QC_EXPORT ServiceStart(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceStart, Actions::ServiceStartWorker); }
QC_EXPORT ServiceStop(MSIHANDLE h) { return Dispatch(h, Host::ACTION_ServiceStop, Actions::ServiceStopWorker); }
