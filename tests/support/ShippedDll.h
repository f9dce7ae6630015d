#pragma once

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace QcTest {

// The build's binary folder, ending in "\\": QC_BIN_DIR (a Unix path of the
// build tree, which Wine maps under Z:) when the test runs under CTest, else
// the test program's own folder.
inline std::wstring BinFolder()
{
    wchar_t path[MAX_PATH] = {};
    std::wstring folder(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    folder.erase(folder.find_last_of(L"\\/") + 1);
    if (const char* bin = std::getenv("QC_BIN_DIR"))
    {
        folder.assign(L"Z:").append(bin, bin + std::strlen(bin)).append(L"\\");
        for (wchar_t& ch : folder)
        {
            ch = ch == L'/' ? L'\\' : ch;
        }
    }
    return folder;
}

// The DLL as built, in BinFolder().
inline std::wstring ShippedDllPath()
{
    return BinFolder() + L"Quillcast.Common.System.dll";
}

} // namespace QcTest
