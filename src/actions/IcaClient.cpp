// AddIcaClient and RemoveIcaClient: the product's virtual driver in the Citrix
// ICA client's comma-separated list of virtual drivers.
#include <windows.h>

#include <cwchar>

#include "actions/Workers.h"
#include "host/types/Handles.h"
#include "host/types/WideString.h"
#include "logging/LogHelpers.h"
#include "system/Registry.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Various", 2000};

constexpr wchar_t kModulesKey[] = L"SOFTWARE\\Citrix\\ICA Client\\Engine\\Configuration\\Advanced\\Modules\\ICA 3.0";
constexpr wchar_t kVirtualDriver[] = L"VirtualDriver";
constexpr wchar_t kEntry[] = L"QCClnIca";
constexpr wchar_t kSeparator[] = L",";
// The ICA client is a 32-bit program: its configuration lives in the 32-bit
// view, which this 64-bit library has to ask for.
constexpr REGSAM kModulesAccess = KEY_ALL_ACCESS | KEY_WOW64_32KEY;

using System::Types::CRegistryKey;
using System::Types::CWideBuffer;

// Every entry of these two actions carries the thread's last-error value, not
// the code the registry call answered.
[[nodiscard]] bool OpenModulesKey(CRegistryKey& key)
{
    return QC_OPEN_KEY_OR_LOG(HKEY_LOCAL_MACHINE, kModulesKey, kModulesAccess, key, Logging::LOG_LEVEL_ERROR,
                              kLogSource, L"Open registry key failed with error ");
}

[[nodiscard]] bool ReadVirtualDrivers(const CRegistryKey& key, CWideBuffer& drivers, uint32_t spareCharacters)
{
    if (System::ReadRegistryString(key.Get(), kVirtualDriver, drivers, spareCharacters) == ERROR_SUCCESS)
    {
        return true;
    }
    QC_LOG_LAST_ERROR(kLogSource, L"Query registry value failed with error ");
    return false;
}

[[nodiscard]] bool WriteVirtualDrivers(const CRegistryKey& key, const wchar_t* drivers)
{
    const DWORD cbData = static_cast<DWORD>((::wcslen(drivers) + 1) * sizeof(wchar_t));
    if (::RegSetValueExW(key.Get(), kVirtualDriver, 0, REG_SZ, reinterpret_cast<const BYTE*>(drivers), cbData) ==
        ERROR_SUCCESS)
    {
        return true;
    }
    QC_LOG_LAST_ERROR(kLogSource, L"Set registry value failed with error ");
    return false;
}

} // namespace

UINT AddIcaClientWorker(Host::CWorkbench* /*pWorkbench*/)
{
    CRegistryKey key;
    if (!OpenModulesKey(key))
    {
        return ERROR_INSTALL_FAILURE;
    }
    // Room for the list as it is plus "," and the entry, however long the list.
    const uint32_t appended = static_cast<uint32_t>(::wcslen(kSeparator) + ::wcslen(kEntry));
    CWideBuffer drivers;
    if (!ReadVirtualDrivers(key, drivers, appended))
    {
        return ERROR_INSTALL_FAILURE;
    }
    // A plain substring test: a longer name that contains the entry counts as registered too.
    if (::wcsstr(System::Types::Text(drivers), kEntry) != nullptr)
    {
        QC_LOG_WARNING(kLogSource) << L"Found QCClnIca registry value";
        return ERROR_SUCCESS;
    }
    wchar_t* pText = drivers.Data();
    const size_t capacity = drivers.Size();
    const bool bAppended =
        (pText[0] == L'\0' || ::wcscat_s(pText, capacity, kSeparator) == 0) && ::wcscat_s(pText, capacity, kEntry) == 0;
    if (!bAppended)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"wcscat_s failed with error ");
        return ERROR_INSTALL_FAILURE;
    }
    return WriteVirtualDrivers(key, pText) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

UINT RemoveIcaClientWorker(Host::CWorkbench* /*pWorkbench*/)
{
    CRegistryKey key;
    if (!OpenModulesKey(key))
    {
        return ERROR_INSTALL_FAILURE;
    }
    CWideBuffer drivers;
    if (!ReadVirtualDrivers(key, drivers, 0))
    {
        return ERROR_INSTALL_FAILURE;
    }
    const wchar_t* pText = System::Types::Text(drivers);
    if (::wcsstr(pText, kEntry) == nullptr)
    {
        return ERROR_SUCCESS;
    }
    if (::wcslen(pText) == ::wcslen(kEntry))
    {
        // Nothing else is left in the list; a value that stays is harmless.
        (void)::RegDeleteValueW(key.Get(), kVirtualDriver);
        return ERROR_SUCCESS;
    }
    // This order is intentional and kept: on ",QCClnIca" or "QCClnIca," the first
    // removal that matches empties the text, and the next one then fails (87).
    const wchar_t* const removals[] = {L",QCClnIca", L"QCClnIca,", L"QCClnIca"};
    for (const wchar_t* removal : removals)
    {
        if (!System::Types::Replace(drivers, removal, L""))
        {
            QC_LOG_LAST_ERROR(kLogSource, L"Replace failed with error ");
            return ERROR_INSTALL_FAILURE;
        }
    }
    return WriteVirtualDrivers(key, System::Types::Text(drivers)) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace Quillcast::Actions
