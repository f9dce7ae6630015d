#include "host/Globals.h"

HMODULE g_hModule = nullptr;
