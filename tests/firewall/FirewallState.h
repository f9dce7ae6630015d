// Where the test firewall (QcTestFirewall.cpp) keeps its state, for the
// firewall itself and for the tests, the e2e driver and the demo that read and
// steer it: everything lives below HKLM\Software\QuillcastTest\Firewall.
#pragma once

#include <windows.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/types/Handles.h"

namespace QcTest {

constexpr const wchar_t* kFirewallRoot = L"Software\\QuillcastTest\\Firewall";

// The key of `sub` (a list, an entry "Rules\1", or empty for the root).
inline std::wstring FirewallKey(const std::wstring& sub)
{
    return sub.empty() ? std::wstring(kFirewallRoot) : std::wstring(kFirewallRoot) + L"\\" + sub;
}

// The names of the subkeys of HKLM\`key`, sorted; none when it is missing.
inline std::vector<std::wstring> SubKeys(const std::wstring& key)
{
    std::vector<std::wstring> names;
    Quillcast::System::Types::CRegistryKey handle;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, handle.Put()) != ERROR_SUCCESS)
    {
        return names;
    }
    wchar_t name[256];
    DWORD length = 256;
    for (DWORD i = 0;
         ::RegEnumKeyExW(handle.Get(), i, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = 256)
    {
        names.emplace_back(name, length);
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace QcTest
