#include "logging/Log.h"

Quillcast::Logging::CLogger* g_pLogger = nullptr;
