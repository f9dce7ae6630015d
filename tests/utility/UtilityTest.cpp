#include "utility/UtilityTest.h"

#include <msiquery.h>

#include <cwchar>

namespace QcTest {

namespace {

std::wstring g_FailingName;
bool g_bFailingSizeQuery = false;
BYTE g_ProductType = VER_NT_WORKSTATION;
Lines g_Boxes;
std::vector<std::pair<REGSAM, std::wstring>> g_Keys;
std::vector<std::wstring> g_Files;

std::wstring Entry(const wchar_t* level, std::wstring text)
{
    const size_t at = text.find(L"{LastError}");
    return level + (L"Various (#) " + (at == std::wstring::npos ? text : text.replace(at, 11, L"4242")) + L".");
}

} // namespace

std::wstring Error(const std::wstring& text) { return Entry(L"[ERROR] ", text); }
std::wstring Warning(const std::wstring& text) { return Entry(L"[WARNING] ", text); }
std::wstring Detail(const std::wstring& text) { return Entry(L"", text); }

// The replacements call the real functions: only the DLL's imports are redirected.
void UtilityTest::SetUp()
{
    m_Patches.clear();
    const auto openKey = [](HKEY hKey, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY phResult) {
        SetLastError(kLastErrorMarker);
        return RegOpenKeyExW(hKey, subKey, options, access, phResult);
    };
    Patch("advapi32.dll", "RegOpenKeyExW", reinterpret_cast<const void*>(+openKey));
}

void UtilityTest::TearDown()
{
    for (const auto& [view, key] : g_Keys)
    {
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), view, 0);
    }
    for (const std::wstring& path : g_Files)
    {
        DeleteFileW(path.c_str());
    }
    g_Keys.clear();
    g_Files.clear();
}

void UtilityTest::Patch(const char* dll, const char* function, const void* replacement)
{
    m_Patches.push_back(std::make_unique<CImportPatch>(ShippedLibrary().Module(), dll, function, replacement));
    EXPECT_TRUE(m_Patches.back()->IsApplied()) << function;
}

void UtilityTest::FailPropertyRead(const std::wstring& name, bool bSizeQuery)
{
    const auto getProperty = [](MSIHANDLE hInstall, LPCWSTR property, LPWSTR value, LPDWORD pcch) -> UINT {
        const bool bSize = pcch != nullptr && *pcch == 0;
        if (property != nullptr && g_FailingName == property && bSize == g_bFailingSizeQuery)
        {
            SetLastError(kLastErrorMarker);
            return ERROR_INVALID_HANDLE;
        }
        return MsiGetPropertyW(hInstall, property, value, pcch);
    };
    Patch("msi.dll", "MsiGetPropertyW", reinterpret_cast<const void*>(+getProperty));
    g_FailingName = name;
    g_bFailingSizeQuery = bSizeQuery;
}

void UtilityTest::RefuseRegistryWrites()
{
    const auto setValue = [](HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) { return LSTATUS{ERROR_ACCESS_DENIED}; };
    Patch("advapi32.dll", "RegSetValueExW", reinterpret_cast<const void*>(+setValue));
}

void UtilityTest::ReportProductType(BYTE productType)
{
    const auto getVersion = [](OSVERSIONINFOW* pInfo) {
        const BOOL bResult = GetVersionExW(pInfo);
        reinterpret_cast<OSVERSIONINFOEXW*>(pInfo)->wProductType = g_ProductType;
        return bResult;
    };
    Patch("kernel32.dll", "GetVersionExW", reinterpret_cast<const void*>(+getVersion));
    g_ProductType = productType;
}

const Lines& UtilityTest::NoteMessageBoxes()
{
    const auto messageBox = [](HWND, LPCWSTR text, LPCWSTR caption, UINT type) {
        wchar_t hex[16] = {};
        std::swprintf(hex, 16, L"0x%X", type);
        g_Boxes.push_back(std::wstring(caption ? caption : L"(null)") + L"|" + text + L"|" + hex);
        return IDCANCEL;
    };
    Patch("user32.dll", "MessageBoxW", reinterpret_cast<const void*>(+messageBox));
    g_Boxes.clear();
    return g_Boxes;
}

bool SetValue(REGSAM view, const std::wstring& key, const wchar_t* name, DWORD type, const std::wstring& bytes)
{
    HKEY hKey = nullptr;
    g_Keys.emplace_back(view, key);
    bool bDone = RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr,
                                 &hKey, nullptr) == ERROR_SUCCESS;
    if (bDone && name != nullptr)
    {
        bDone = RegSetValueExW(hKey, name, 0, type, reinterpret_cast<const BYTE*>(bytes.c_str()),
                               static_cast<DWORD>(bytes.size() * sizeof(wchar_t))) == ERROR_SUCCESS;
    }
    RegCloseKey(hKey);
    return bDone;
}

std::pair<DWORD, std::wstring> ReadValue(REGSAM view, const std::wstring& key, const wchar_t* name)
{
    std::pair<DWORD, std::wstring> value(REG_NONE, L"");
    HKEY hKey = nullptr;
    DWORD cbData = 0;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_QUERY_VALUE | view, &hKey) == ERROR_SUCCESS &&
        RegQueryValueExW(hKey, name, nullptr, &value.first, nullptr, &cbData) == ERROR_SUCCESS)
    {
        value.second.resize(cbData / sizeof(wchar_t));
        RegQueryValueExW(hKey, name, nullptr, &value.first, reinterpret_cast<BYTE*>(&value.second[0]), &cbData);
    }
    RegCloseKey(hKey);
    return value;
}

bool Place(const std::wstring& program, const wchar_t* name)
{
    wchar_t folder[MAX_PATH] = {};
    g_Files.push_back(std::wstring(folder, GetSystemDirectoryW(folder, MAX_PATH)) + L"\\" + name);
    return CopyFileW((BinFolder() + program).c_str(), g_Files.back().c_str(), FALSE) != FALSE;
}

} // namespace QcTest
