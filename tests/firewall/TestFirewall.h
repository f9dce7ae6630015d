#pragma once

// The test firewall (QcTestFirewall.dll, beside the shipped DLL) registered in
// the prefix for the lifetime of a CTestFirewall, and its state as the tests
// read and steer it: HKLM\Software\QuillcastTest\Firewall (see QcTestFirewall.c).
#include <windows.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/ShippedDll.h"

namespace QcTest {

class CTestFirewall
{
public:
    CTestFirewall()
    {
        std::wstring path = BinFolder() + L"QcTestFirewall.dll";
        m_hModule = ::LoadLibraryW(path.c_str());
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
        if (m_hModule != nullptr)
        {
            ::FreeLibrary(m_hModule);
        }
    }

    bool IsRegistered() const { return m_bRegistered; }

    // An empty firewall, every switch off.
    static void Reset() { ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kRoot); }

    // "Name=DWORD" sets a switch; "Sub\Key\Name=DWORD" a value below the state
    // key (e.g. "Fail\Rule.LocalPorts=2147942405" or "Rules\1\Enabled=0").
    static void Set(const std::wstring& assignment)
    {
        const size_t equals = assignment.find(L'=');
        const std::wstring path = assignment.substr(0, equals);
        const size_t slash = path.find_last_of(L'\\');
        const std::wstring key =
            std::wstring(kRoot) + (slash == std::wstring::npos ? L"" : L"\\" + path.substr(0, slash));
        const std::wstring name = slash == std::wstring::npos ? path : path.substr(slash + 1);
        const DWORD value = std::wcstoul(assignment.c_str() + equals + 1, nullptr, 0);
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), REG_DWORD, &value, sizeof(value));
    }

    // Every rule and list entry: "Rules\1: Action=1; Name=R; ...", values by name.
    static std::vector<std::wstring> State()
    {
        std::vector<std::wstring> entries;
        for (const wchar_t* list : {L"Rules", L"OpenPorts", L"AuthorizedApplications"})
        {
            const std::wstring listKey = std::wstring(kRoot) + L"\\" + list;
            for (const std::wstring& entry : SubKeys(listKey))
            {
                entries.push_back(std::wstring(list) + L"\\" + entry + L": " + Values(listKey + L"\\" + entry));
            }
        }
        return entries;
    }

    // The calls made so far, as "Object.Method".
    static std::vector<std::wstring> Journal()
    {
        std::vector<std::wstring> calls;
        DWORD size = 0;
        if (::RegGetValueW(HKEY_LOCAL_MACHINE, kRoot, L"Journal", RRF_RT_REG_MULTI_SZ, nullptr, nullptr, &size) !=
            ERROR_SUCCESS)
        {
            return calls;
        }
        std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
        ::RegGetValueW(HKEY_LOCAL_MACHINE, kRoot, L"Journal", RRF_RT_REG_MULTI_SZ, nullptr, &text[0], &size);
        for (const wchar_t* p = text.c_str(); *p != L'\0'; p += ::wcslen(p) + 1)
        {
            calls.emplace_back(p);
        }
        return calls;
    }

private:
    static constexpr const wchar_t* kRoot = L"Software\\QuillcastTest\\Firewall";

    bool Run(const char* entry) const
    {
        using Entry = HRESULT(WINAPI*)();
        const FARPROC address = m_hModule != nullptr ? ::GetProcAddress(m_hModule, entry) : nullptr;
        const auto function = reinterpret_cast<Entry>(reinterpret_cast<void*>(address));
        return function != nullptr && SUCCEEDED(function());
    }

    static std::vector<std::wstring> SubKeys(const std::wstring& path)
    {
        std::vector<std::wstring> names;
        HKEY key = nullptr;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        {
            return names;
        }
        wchar_t name[256];
        for (DWORD i = 0;; ++i)
        {
            DWORD length = 256;
            if (::RegEnumKeyExW(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            {
                break;
            }
            names.emplace_back(name, length);
        }
        ::RegCloseKey(key);
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::wstring Values(const std::wstring& path)
    {
        std::vector<std::wstring> values;
        HKEY key = nullptr;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        {
            return L"";
        }
        std::vector<BYTE> data(64 * 1024);
        wchar_t name[256];
        for (DWORD i = 0;; ++i)
        {
            DWORD length = 256;
            DWORD type = 0;
            DWORD size = static_cast<DWORD>(data.size());
            if (::RegEnumValueW(key, i, name, &length, nullptr, &type, data.data(), &size) != ERROR_SUCCESS)
            {
                break;
            }
            const std::wstring text = type == REG_DWORD ? std::to_wstring(*reinterpret_cast<const DWORD*>(data.data()))
                                                        : std::wstring(reinterpret_cast<const wchar_t*>(data.data()));
            values.push_back(std::wstring(name, length) + L"=" + text);
        }
        ::RegCloseKey(key);
        std::sort(values.begin(), values.end());
        std::wstring joined;
        for (const std::wstring& value : values)
        {
            joined += (joined.empty() ? L"" : L"; ") + value;
        }
        return joined;
    }

    HMODULE m_hModule = nullptr;
    bool m_bRegistered = false;
};

} // namespace QcTest
