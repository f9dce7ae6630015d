#pragma once

#include <windows.h>

#include <cstdlib>
#include <string>

namespace QcTest {

// The build's binary folder, ending in "\\": QC_BIN_DIR when the test runs
// under CTest, else the test program's own folder.
inline std::wstring BinFolder()
{
    std::wstring folder;
    if (const char* bin = std::getenv("QC_BIN_DIR"))
    {
        // A Unix path of the build tree; Wine maps the root to Z:.
        folder = L"Z:";
        for (const char* p = bin; *p != '\0'; ++p)
        {
            folder += (*p == '/') ? L'\\' : static_cast<wchar_t>(*p);
        }
        folder += L'\\';
    }
    else
    {
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        folder = path;
        folder = folder.substr(0, folder.find_last_of(L"\\/") + 1);
    }
    return folder;
}

// The DLL as built, in BinFolder().
inline std::wstring ShippedDllPath()
{
    return BinFolder() + L"Quillcast.Common.System.dll";
}

} // namespace QcTest
