// GetDomain and DirectoryObjectPick: immediate actions that gather facts for
// the installer's dialogs. Their entries carry the source name "Various", as
// the library's other utility actions do.
#include <windows.h>
#include <msiquery.h>
#include <wbemcli.h>

#include <cstdlib>

#include "actions/Workers.h"
#include "host/MsiProperty.h"
#include "host/types/ComPtr.h"
#include "host/types/PointerList.h"
#include "host/types/WideString.h"
#include "logging/LogHelpers.h"
#include "system/Directory.h"
#include "system/wmi/WmiConnection.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Various", 8000};

using System::Types::CWideBuffer;

// A picker option: unset or unreadable reads as 0. Only a failure of the read
// itself is worth a warning, from the caller's `line`; the option then counts
// as empty.
int ReadPickOption(MSIHANDLE hInstall, const wchar_t* pszName, uint32_t line) noexcept
{
    CWideBuffer value;
    const Host::PropertyReadResult read = Host::ReadProperty(hInstall, pszName, value);
    if (read.failedStep == Host::PropertyReadStep::Read || read.failedStep == Host::PropertyReadStep::Allocate)
    {
        Host::LogPropertyReadFailure(Logging::LOG_LEVEL_WARNING, pszName, kLogSource, line);
    }
    return ::_wtoi(System::Types::Text(value));
}

} // namespace

UINT GetDomainWorker(Host::CWorkbench* pWorkbench)
{
    const MSIHANDLE hInstall = pWorkbench->m_hInstall;
    // Declared first: released last, after every object of the query.
    WMI::CWmiConnection connection;
    if (!connection.Connect())
    {
        QC_LOG_LAST_ERROR(kLogSource, L"WMI Connection failed with error ");
        return ERROR_INSTALL_FAILURE;
    }
    System::Types::CPointerList<WMI::CWmiClassObject> computerSystems;
    if (!connection.QueryComputerSystem(computerSystems))
    {
        QC_LOG_ERROR(kLogSource) << L"Query for Win32_ComputerSystem failed";
        return ERROR_INSTALL_FAILURE;
    }
    WMI::CWmiClassObject* pComputerSystem = computerSystems.First();
    if (pComputerSystem == nullptr)
    {
        QC_LOG_ERROR(kLogSource) << L"No Win32_ComputerSystem found";
        return ERROR_INSTALL_FAILURE;
    }

    bool bPartOfDomain = false;
    {
        System::Types::CVariant value;
        if (pComputerSystem->Get(L"PartOfDomain", value.Get(), CIM_BOOLEAN))
        {
            bPartOfDomain = V_VT(value.Get()) == VT_BOOL && V_BOOL(value.Get()) != VARIANT_FALSE;
        }
    }
    CWideBuffer domain;
    {
        System::Types::CVariant value;
        // A CIM_STRING without a value arrives as VT_NULL: the text stays empty.
        if (pComputerSystem->Get(L"Domain", value.Get(), CIM_STRING) && V_VT(value.Get()) == VT_BSTR &&
            V_BSTR(value.Get()) != nullptr)
        {
            (void)System::Types::Assign(domain, V_BSTR(value.Get())); // a failed copy leaves it empty
        }
    }

    // Set on every run, also to the empty text, which removes the property:
    // intentional.
    ::MsiSetPropertyW(hInstall, L"MACHINEDOMAIN", System::Types::Text(domain));
    // Never cleared: a machine outside a domain keeps an earlier value.
    if (bPartOfDomain)
    {
        ::MsiSetPropertyW(hInstall, L"PARTOFDOMAIN", L"1");
    }
    return ERROR_SUCCESS;
}

UINT DirectoryObjectPickWorker(Host::CWorkbench* pWorkbench)
{
    const MSIHANDLE hInstall = pWorkbench->m_hInstall;
    const int userFlag = ReadPickOption(hInstall, L"PickUserFlagProperty", __LINE__);
    const int multiSelect = ReadPickOption(hInstall, L"PickMultiSelectProperty", __LINE__);
    // A flag outside 0 to 3 leaves the picker unprepared; its initialisation
    // then fails and so does the action.
    System::CDirectory directory(static_cast<uint32_t>(userFlag), multiSelect != 0);

    CWideBuffer productName;
    const Host::PropertyReadResult read = Host::ReadProperty(hInstall, L"ProductName", productName);
    if (read.failedStep == Host::PropertyReadStep::SizeQuery)
    {
        QC_LOG_PROPERTY_READ_FAILURE(Logging::LOG_LEVEL_ERROR, kLogSource, L"ProductName");
        return ERROR_INSTALL_FAILURE;
    }
    if (read.failedStep != Host::PropertyReadStep::None)
    {
        // Another text than for the size query: intentional.
        QC_LOG_PROPERTY_READ_FAILURE(Logging::LOG_LEVEL_ERROR, kLogSource, L"strProductName");
        return ERROR_INSTALL_FAILURE;
    }

    // The installer's wizard dialog carries the product name as its title.
    const wchar_t* pszTitle = System::Types::Text(productName);
    HWND hwndParent = ::FindWindowW(L"MsiDialogCloseClass", pszTitle);
    if (hwndParent == nullptr)
    {
        hwndParent = ::FindWindowW(L"#32770", pszTitle);
    }
    if (hwndParent == nullptr)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"FindWindow failed with error ");
        return ERROR_INSTALL_FAILURE;
    }

    CWideBuffer result;
    if (!directory.InvokeDialog(hwndParent, result))
    {
        QC_LOG_LAST_ERROR(kLogSource, L"ShowObjectPicker failed with error ");
        return ERROR_INSTALL_FAILURE;
    }
    ::MsiSetPropertyW(hInstall, L"PickResult", System::Types::Text(result));
    return ERROR_SUCCESS;
}

} // namespace Quillcast::Actions
