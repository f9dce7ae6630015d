// The library's process-wide objects. The stream is a static object so that it
// exists before DllMain runs and after it has deleted the logger.
#include <windows.h>

#include "host/Globals.h"
#include "logging/Log.h"
#include "logging/msi/LogStreamMsi.h"

HMODULE g_hModule = nullptr;
Quillcast::Logging::CLogger* g_pLogger = nullptr;
Quillcast::Logging::MSI::CLogStreamMsi g_MsiLogStream;
