// GetEngineVersion: which edition of the print engine is installed, told to
// the package by setting one edition property to "1".
#include <windows.h>
#include <msiquery.h>

#include <cwchar>
#include <io.h>

#include "actions/Workers.h"
#include "host/types/Handles.h"
#include "host/types/WideString.h"
#include "logging/LogHelpers.h"
#include "system/FileVersion.h"
#include "system/Registry.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Various", 3000};

constexpr wchar_t kUninstallKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\.lumen Engine";
constexpr wchar_t kEngine[] = L".lumen Engine";
constexpr wchar_t kRdpEngine[] = L".lumen RDP Engine";
// The engine registers itself as a 64-bit product.
constexpr REGSAM kUninstallAccess = KEY_ALL_ACCESS | KEY_WOW64_64KEY;
constexpr wchar_t kMarkerProgram[] = L"QCZDInst.exe";
constexpr wchar_t kSecondProgram[] = L"QRDPInst.exe";

using System::Types::CRegistryKey;
using System::Types::CWideBuffer;

bool EndsWith(const CWideBuffer& text, const wchar_t* suffix)
{
    const size_t length = System::Types::TextLength(text);
    const size_t suffixLength = ::wcslen(suffix);
    return length >= suffixLength && ::wcscmp(System::Types::Text(text) + (length - suffixLength), suffix) == 0;
}

// Opens the ".lumen Engine" key, else the ".lumen RDP Engine" key; `keyPath`
// is left naming the one that opened.
[[nodiscard]] bool OpenUninstallKey(CWideBuffer& keyPath, CRegistryKey& key)
{
    if (!System::Types::Assign(keyPath, kUninstallKey))
    {
        return false;
    }
    if (QC_OPEN_KEY_OR_LOG(HKEY_LOCAL_MACHINE, System::Types::Text(keyPath), kUninstallAccess, key,
                           Logging::LOG_LEVEL_WARNING, kLogSource,
                           L"Open registry key .lumen Engine failed with error "))
    {
        return true;
    }
    // Should the replacement fail, the unchanged path fails to open again and that is logged.
    (void)System::Types::Replace(keyPath, kEngine, kRdpEngine);
    // The lower-case "engine" of this one text is intentional.
    return QC_OPEN_KEY_OR_LOG(HKEY_LOCAL_MACHINE, System::Types::Text(keyPath), kUninstallAccess, key,
                              Logging::LOG_LEVEL_ERROR, kLogSource,
                              L"Open registry key .lumen RDP engine failed with error ");
}

// The 7.0 editions, told apart by the kind of system and the two installer
// programs in the system directory. Null when none applies.
const wchar_t* Edition70(BYTE productType)
{
    wchar_t systemDirectory[MAX_PATH + 1] = {};
    const UINT length = ::GetSystemDirectoryW(systemDirectory, MAX_PATH);
    CWideBuffer program;
    if (length == 0 || length >= MAX_PATH ||
        !System::Types::Format(program, L"%s\\%s", systemDirectory, kMarkerProgram))
    {
        return nullptr;
    }
    const bool bMarkerPresent = ::_waccess(System::Types::Text(program), 0) == 0;
    if (productType == VER_NT_SERVER)
    {
        return bMarkerPresent ? L"SERVERKIT70" : L"RDPKIT70";
    }
    if (productType != VER_NT_WORKSTATION)
    {
        return nullptr;
    }
    if (bMarkerPresent)
    {
        return L"DESKTOPKIT70";
    }
    (void)System::Types::Replace(program, kMarkerProgram, kSecondProgram);
    const System::CFileVersion secondVersion(System::Types::Text(program));
    const VS_FIXEDFILEINFO* pFixedInfo = secondVersion.FixedInfo();
    if (pFixedInfo == nullptr || pFixedInfo->dwFileVersionMS == 0)
    {
        return L"RDPKITXP70";
    }
    // The whole 32-bit word on purpose: 0.1 qualifies, 1.1 and 1.0 do not.
    return pFixedInfo->dwFileVersionMS == 1 ? L"DESKTOPKIT702" : nullptr;
}

} // namespace

UINT GetEngineVersionWorker(Host::CWorkbench* pWorkbench)
{
    CWideBuffer keyPath;
    CWideBuffer version;
    {
        CRegistryKey key;
        if (!OpenUninstallKey(keyPath, key))
        {
            return ERROR_INSTALL_FAILURE;
        }
        if (System::ReadRegistryString(key.Get(), L"DisplayVersion", version) != ERROR_SUCCESS)
        {
            QC_LOG_LAST_ERROR(kLogSource, L"Query registry value failed with error ");
            return ERROR_INSTALL_FAILURE;
        }
    }
    OSVERSIONINFOEXW osVersion = {};
    osVersion.dwOSVersionInfoSize = sizeof(osVersion);
    if (!::GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&osVersion)))
    {
        QC_LOG_LAST_ERROR(kLogSource, L"GetVersionEx failed with error ");
        return ERROR_INSTALL_FAILURE;
    }

    // The order of the tests is intentional: only 7.0 looks at the system and
    // the programs, 7.6 only at which key held the entry, 7.9 at nothing else.
    // Whole-text matches: "7.0.1" is none of them.
    const wchar_t* pszVersion = System::Types::Text(version);
    const wchar_t* pszEdition = nullptr;
    if (::wcscmp(pszVersion, L"7.0") == 0)
    {
        pszEdition = Edition70(osVersion.wProductType);
    }
    else if (::wcscmp(pszVersion, L"7.6") == 0 && System::Types::TextLength(keyPath) != 0)
    {
        if (EndsWith(keyPath, kEngine))
        {
            pszEdition = L"SERVERKIT76";
        }
        else if (EndsWith(keyPath, kRdpEngine))
        {
            pszEdition = L"RDPKIT76";
        }
    }
    else if (::wcscmp(pszVersion, L"7.9") == 0)
    {
        pszEdition = L"VDIKIT79";
    }
    if (pszEdition != nullptr)
    {
        ::MsiSetPropertyW(pWorkbench->m_hInstall, pszEdition, L"1");
    }
    return ERROR_SUCCESS;
}

} // namespace Quillcast::Actions
