#pragma once

// The test firewall (QcTestFirewall.dll, beside the shipped DLL): where it
// keeps its state, for the firewall itself and for the tests, the e2e driver
// and the demo that read and steer it (everything lives below
// HKLM\Software\QuillcastTest\Firewall), and CTestFirewall, which registers
// it in the prefix for its lifetime.
#include <windows.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/ComServer.h"
#include "support/ShippedDll.h"

namespace QcTest {

constexpr const wchar_t* kFirewallRoot = L"Software\\QuillcastTest\\Firewall";

// The key of `sub` (a list, an entry "Rules\1", or empty for the root).
inline std::wstring FirewallKey(const std::wstring& sub)
{
    return sub.empty() ? std::wstring(kFirewallRoot) : std::wstring(kFirewallRoot) + L"\\" + sub;
}

// The names of the subkeys (or, when `bValues`, of the values) of HKLM\`key`, sorted; none when it is missing.
inline std::vector<std::wstring> NamesIn(const std::wstring& key, bool bValues = false)
{
    std::vector<std::wstring> names;
    CRegistryKey handle;
    wchar_t name[256];
    DWORD length = 256;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, handle.Put()) != ERROR_SUCCESS)
    {
        return names;
    }
    for (DWORD i = 0; (bValues ? ::RegEnumValueW(handle.Get(), i, name, &length, nullptr, nullptr, nullptr, nullptr)
                               : ::RegEnumKeyExW(handle.Get(), i, name, &length, nullptr, nullptr, nullptr, nullptr)) ==
                      ERROR_SUCCESS;
         ++i, length = 256)
    {
        names.emplace_back(name, length);
    }
    std::sort(names.begin(), names.end());
    return names;
}

class CTestFirewall
{
public:
    CTestFirewall()
            : m_module(::LoadLibraryW((BinFolder() + L"QcTestFirewall.dll").c_str())),
              m_bRegistered(Run("DllRegisterServer"))
    {
    }
    // Puts Wine's registration back (nothing more to do when that fails) and forgets every rule and list entry.
    ~CTestFirewall()
    {
        (void)Run("DllUnregisterServer");
        Reset();
    }

    bool IsRegistered() const { return m_bRegistered; }

    // An empty firewall, every switch off.
    static void Reset() { ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kFirewallRoot); }

    // "Name=DWORD" sets a switch; "Sub\Key\Name=DWORD" a value below the state
    // key (e.g. "Fail\Rule.LocalPorts=2147942405" or "Rules\1\Enabled=0").
    static void Set(const std::wstring& assignment)
    {
        const std::wstring path = assignment.substr(0, assignment.find(L'='));
        const size_t slash = path.find_last_of(L'\\');
        const std::wstring key = FirewallKey(slash == std::wstring::npos ? L"" : path.substr(0, slash));
        const DWORD value = std::wcstoul(assignment.c_str() + path.size() + 1, nullptr, 0);
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), path.substr(slash + 1).c_str(), REG_DWORD, &value,
                          sizeof(value));
    }

    // Every rule and list entry: "Rules\1: Action=1; Name=R; ...", values by name.
    static std::vector<std::wstring> State()
    {
        std::vector<std::wstring> entries;
        for (const std::wstring list : {L"Rules", L"OpenPorts", L"AuthorizedApplications"})
        {
            for (const std::wstring& entry : NamesIn(FirewallKey(list)))
            {
                const std::wstring key = FirewallKey(list + L"\\" + entry);
                std::wstring joined = list + L"\\" + entry + L":";
                const wchar_t* separator = L" ";
                for (const std::wstring& name : NamesIn(key, true))
                {
                    std::wstring text;
                    text = ReadText(key, name.c_str(), text) ? text : std::to_wstring(ReadDword(key, name.c_str(), 0));
                    joined += separator + name + L"=" + text;
                    separator = L"; ";
                }
                entries.push_back(joined);
            }
        }
        return entries;
    }

private:
    bool Run(const char* entry) const
    {
        const FARPROC address = m_module ? ::GetProcAddress(m_module.Get(), entry) : nullptr;
        return address != nullptr &&
               SUCCEEDED(reinterpret_cast<HRESULT(WINAPI*)()>(reinterpret_cast<void*>(address))());
    }

    Quillcast::System::Types::CModule m_module;
    bool m_bRegistered;
};

} // namespace QcTest
