#pragma once

// The test firewall (QcTestFirewall.dll, beside the shipped DLL) registered in
// the prefix for the lifetime of a CTestFirewall, and its state as the tests
// read and steer it (FirewallState.h).
#include <windows.h>

#include <string>
#include <vector>

#include "firewall/FirewallState.h"
#include "support/ShippedDll.h"

namespace QcTest {

class CTestFirewall
{
public:
    CTestFirewall() : m_module(::LoadLibraryW((BinFolder() + L"QcTestFirewall.dll").c_str()))
    {
        m_bRegistered = Run("DllRegisterServer");
        Reset();
    }
    CTestFirewall(const CTestFirewall&) = delete;
    CTestFirewall& operator=(const CTestFirewall&) = delete;
    // Puts Wine's registration back and forgets every rule and list entry.
    ~CTestFirewall()
    {
        (void)Run("DllUnregisterServer"); // nothing more to do when it fails
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
            for (const std::wstring& entry : SubKeys(FirewallKey(list)))
            {
                entries.push_back(list + L"\\" + entry + L": " + Values(FirewallKey(list + L"\\" + entry)));
            }
        }
        return entries;
    }

    // The calls made so far, as "Object.Method".
    static std::vector<std::wstring> Journal()
    {
        std::wstring text(64 * 1024, L'\0');
        DWORD cb = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        std::vector<std::wstring> calls;
        if (::RegGetValueW(HKEY_LOCAL_MACHINE, kFirewallRoot, L"Journal", RRF_RT_REG_MULTI_SZ, nullptr, &text[0],
                           &cb) == ERROR_SUCCESS)
        {
            for (const wchar_t* p = text.c_str(); *p != L'\0'; p += ::wcslen(p) + 1)
            {
                calls.emplace_back(p);
            }
        }
        return calls;
    }

private:
    bool Run(const char* entry) const
    {
        using Entry = HRESULT(WINAPI*)();
        const FARPROC address = m_module ? ::GetProcAddress(m_module.Get(), entry) : nullptr;
        const auto function = reinterpret_cast<Entry>(reinterpret_cast<void*>(address));
        return function != nullptr && SUCCEEDED(function());
    }

    // "Name=value; ..." of the values of HKLM\`key`, sorted by name.
    static std::wstring Values(const std::wstring& key)
    {
        Quillcast::System::Types::CRegistryKey handle;
        std::vector<std::wstring> values;
        std::vector<BYTE> data(64 * 1024);
        wchar_t name[256];
        DWORD length = 256;
        DWORD type = 0;
        DWORD size = static_cast<DWORD>(data.size());
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, handle.Put()) != ERROR_SUCCESS)
        {
            return L"";
        }
        for (DWORD i = 0;
             ::RegEnumValueW(handle.Get(), i, name, &length, nullptr, &type, data.data(), &size) == ERROR_SUCCESS;
             ++i, length = 256, size = static_cast<DWORD>(data.size()))
        {
            const std::wstring text = type == REG_DWORD ? std::to_wstring(*reinterpret_cast<const DWORD*>(data.data()))
                                                        : std::wstring(reinterpret_cast<const wchar_t*>(data.data()));
            values.push_back(std::wstring(name, length) + L"=" + text);
        }
        std::sort(values.begin(), values.end());
        std::wstring joined;
        for (const std::wstring& value : values)
        {
            joined += (joined.empty() ? L"" : L"; ") + value;
        }
        return joined;
    }

    Quillcast::System::Types::CModule m_module;
    bool m_bRegistered = false;
};

} // namespace QcTest
