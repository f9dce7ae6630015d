// SetRemoteConfigDeferred and SetRemoteConfigImmediately: the client's list of
// remote configurations, ";"-separated in, REG_MULTI_SZ out.
#include <windows.h>

#include <cwchar>

#include "actions/Workers.h"
#include "host/ArgumentNames.h"
#include "host/MsiProperty.h"
#include "host/types/Handles.h"
#include "host/types/WideString.h"
#include "logging/LogHelpers.h"
#include "system/Registry.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Various", 6000};

UINT WriteRemoteConfig(const wchar_t* pszList)
{
    // Two terminators, so that the strings always end in a double zero in memory.
    const uint32_t length = static_cast<uint32_t>(::wcslen(pszList));
    System::Types::CWideBuffer strings;
    if (!strings.Allocate(length + 2))
    {
        return ERROR_INSTALL_FAILURE;
    }
    ::wmemcpy(strings.Data(), pszList, length);

    System::Types::CRegistryKey key;
    // No view flag: the client reads the 64-bit view. The key is never created.
    if (!QC_OPEN_KEY_OR_LOG(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Quillcast\\Client", KEY_ALL_ACCESS, key,
                            Logging::LOG_LEVEL_ERROR, kLogSource, L"Open registry key failed with error "))
    {
        return ERROR_INSTALL_FAILURE;
    }
    for (uint32_t i = 0; i < length; ++i)
    {
        if (strings[i] == L';')
        {
            strings[i] = L'\0';
        }
    }
    // The count covers the text and ONE terminator, not the list's second
    // zero: the value is written exactly so on purpose (an empty text is 2 bytes).
    const DWORD cbData = length * sizeof(wchar_t) + sizeof(wchar_t);
    if (::RegSetValueExW(key.Get(), L"RmtConf", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(strings.Data()),
                         cbData) != ERROR_SUCCESS)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"Set registry value failed with error ");
        return ERROR_INSTALL_FAILURE;
    }
    return ERROR_SUCCESS;
}

} // namespace

UINT SetRemoteConfigDeferredWorker(Host::CWorkbench* pWorkbench)
{
    // The frame has checked that it is present and non-empty.
    const wchar_t* pszList = pWorkbench->m_Arguments.GetArgument(Host::Argument::kRemoteConfig);
    return WriteRemoteConfig(pszList != nullptr ? pszList : L"");
}

UINT SetRemoteConfigImmediatelyWorker(Host::CWorkbench* pWorkbench)
{
    System::Types::CWideBuffer list;
    if (!QC_READ_PROPERTY_OR_LOG(pWorkbench->m_hInstall, L"RMTCONF", list, kLogSource))
    {
        return ERROR_INSTALL_FAILURE;
    }
    return WriteRemoteConfig(System::Types::Text(list));
}

} // namespace Quillcast::Actions
