// The exported custom actions, one per row of the action list: each runs its
// frame with its row index and its worker. dllexport under extern "C" gives
// each export its plain name on x64, so no module-definition file is needed.
#include <windows.h>
#include <msi.h>

#include "actions/Workers.h"
#include "host/ActionTable.h"
#include "host/Workbench.h"

using namespace Quillcast;

#define QC_FRAME_Worker(name) Host::Dispatch(hInstall, Host::ACTION_##name, Actions::name##Worker)
#define QC_FRAME_VersionOnly(name) Host::DispatchVersionOnly(hInstall)
#define QC_DEFINE_EXPORT(name, arguments, required, frame)                                                             \
    extern "C" __declspec(dllexport) UINT __stdcall name(MSIHANDLE hInstall)                                           \
    {                                                                                                                  \
        return QC_FRAME_##frame(name);                                                                                 \
    }
QC_CUSTOM_ACTIONS(QC_DEFINE_EXPORT)
