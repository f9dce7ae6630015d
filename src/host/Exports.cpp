// The exported custom actions: one line each, the row index and the worker.
#include <windows.h>
#include <msi.h>

#include "actions/Workers.h"
#include "host/Workbench.h"

using namespace Quillcast;
using Host::Dispatch;

#define QC_EXPORT extern "C" UINT __stdcall

QC_EXPORT CompareVersionString(MSIHANDLE h) { return Dispatch(h, Host::ACTION_CompareVersionString, Actions::CompareVersionStringWorker); }
QC_EXPORT GetCustomActionVersion(MSIHANDLE h) { return Dispatch(h, Host::ACTION_GetCustomActionVersion, nullptr); }
