#include "utility/UtilityTest.h"

#include <msiquery.h>

#include "host/types/Handles.h"

#include <tuple>
#include <utility>

namespace QcTest {
namespace {
std::vector<std::pair<REGSAM, std::wstring>> g_Keys;
std::vector<std::wstring> g_Files;
} // namespace

Imports g_Imports;

void UtilityTest::SetUp()
{
    g_Imports = Imports();
    const auto openKey = [](HKEY hKey, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY phResult) {
        SetLastError(kLastErrorMarker);
        return RegOpenKeyExW(hKey, subKey, options, access, phResult);
    };
    const auto getProperty = [](MSIHANDLE hInstall, LPCWSTR property, LPWSTR value, LPDWORD pcch) -> UINT {
        if (property != nullptr && g_Imports.failingRead == property)
        {
            SetLastError(kLastErrorMarker);
            return ERROR_INVALID_HANDLE;
        }
        return MsiGetPropertyW(hInstall, property, value, pcch);
    };
    const auto setValue = [](HKEY hKey, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* pData, DWORD cbData) {
        return g_Imports.bRefuseWrites ? LSTATUS{ERROR_ACCESS_DENIED}
                                       : RegSetValueExW(hKey, name, reserved, type, pData, cbData);
    };
    const auto getVersion = [](OSVERSIONINFOW* pInfo) {
        const BOOL bResult = GetVersionExW(pInfo);
        reinterpret_cast<OSVERSIONINFOEXW*>(pInfo)->wProductType = g_Imports.productType;
        return bResult;
    };
    const auto messageBox = [](HWND, LPCWSTR text, LPCWSTR caption, UINT type) {
        const std::wstring shown = std::wstring(caption ? caption : L"(null)") + L"|" + text + L"|";
        g_Imports.boxes.push_back(shown + std::to_wstring(type));
        return IDCANCEL;
    };
    const std::tuple<const char*, const char*, const void*> imports[] = {
        {"advapi32.dll", "RegOpenKeyExW", reinterpret_cast<const void*>(+openKey)},
        {"msi.dll", "MsiGetPropertyW", reinterpret_cast<const void*>(+getProperty)},
        {"advapi32.dll", "RegSetValueExW", reinterpret_cast<const void*>(+setValue)},
        {"kernel32.dll", "GetVersionExW", reinterpret_cast<const void*>(+getVersion)},
        {"user32.dll", "MessageBoxW", reinterpret_cast<const void*>(+messageBox)}};
    for (const auto& [dll, function, replacement] : imports)
    {
        m_Patches.push_back(std::make_unique<CImportPatch>(ShippedLibrary().Module(), dll, function, replacement));
        EXPECT_TRUE(m_Patches.back()->IsApplied()) << function;
    }
}

void UtilityTest::TearDown()
{
    for (const auto& [view, key] : std::exchange(g_Keys, {}))
    {
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), view, 0);
    }
    for (const std::wstring& path : std::exchange(g_Files, {}))
    {
        DeleteFileW(path.c_str());
    }
}

bool SetValue(REGSAM view, const std::wstring& key, const wchar_t* name, DWORD type, const std::wstring& bytes)
{
    g_Keys.emplace_back(view, key);
    Quillcast::System::Types::CRegistryKey hKey;
    return RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, hKey.Put(),
                           nullptr) == ERROR_SUCCESS &&
           (name == nullptr || RegSetValueExW(hKey.Get(), name, 0, type, reinterpret_cast<const BYTE*>(bytes.c_str()),
                                              static_cast<DWORD>(bytes.size() * sizeof(wchar_t))) == ERROR_SUCCESS);
}

std::pair<DWORD, std::wstring> ReadValue(REGSAM view, const std::wstring& key, const wchar_t* name)
{
    std::pair<DWORD, std::wstring> value(REG_NONE, L"");
    Quillcast::System::Types::CRegistryKey hKey;
    DWORD cbData = 0;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_QUERY_VALUE | view, hKey.Put()) == ERROR_SUCCESS &&
        RegQueryValueExW(hKey.Get(), name, nullptr, &value.first, nullptr, &cbData) == ERROR_SUCCESS)
    {
        value.second.resize(cbData / sizeof(wchar_t));
        RegQueryValueExW(hKey.Get(), name, nullptr, &value.first, reinterpret_cast<BYTE*>(&value.second[0]), &cbData);
    }
    return value;
}

bool Place(const std::wstring& program, const wchar_t* name)
{
    wchar_t folder[MAX_PATH] = {};
    g_Files.push_back(std::wstring(folder, GetSystemDirectoryW(folder, MAX_PATH)) + L"\\" + name);
    return CopyFileW((BinFolder() + program).c_str(), g_Files.back().c_str(), FALSE) != FALSE;
}

} // namespace QcTest
