#pragma once

#include <windows.h>

// The library's own module handle, stored at process attach; null in programs
// that link the library's code without loading the DLL.
extern HMODULE g_hModule;
