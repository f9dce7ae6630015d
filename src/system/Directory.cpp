#include "system/Directory.h"

#include "host/types/Handles.h"
#include "logging/LogHelpers.h"

namespace Quillcast::System {

namespace {

constexpr Logging::CLogSource kLogSource{L"Directory", 0};

// Where to look: every domain scope, neither the target computer nor workgroups.
constexpr ULONG kScopeTypes = DSOP_SCOPE_TYPE_UPLEVEL_JOINED_DOMAIN | DSOP_SCOPE_TYPE_DOWNLEVEL_JOINED_DOMAIN |
                              DSOP_SCOPE_TYPE_ENTERPRISE_DOMAIN | DSOP_SCOPE_TYPE_GLOBAL_CATALOG |
                              DSOP_SCOPE_TYPE_EXTERNAL_UPLEVEL_DOMAIN | DSOP_SCOPE_TYPE_EXTERNAL_DOWNLEVEL_DOMAIN |
                              DSOP_SCOPE_TYPE_USER_ENTERED_UPLEVEL_SCOPE | DSOP_SCOPE_TYPE_USER_ENTERED_DOWNLEVEL_SCOPE;
// WinNT paths ("WinNT://DOMAIN/name") are what the selection is turned into names from.
constexpr ULONG kScopeFlags = DSOP_SCOPE_FLAG_WANT_PROVIDER_WINNT | DSOP_SCOPE_FLAG_WANT_DOWNLEVEL_BUILTIN_PATH;
constexpr ULONG kSecurityGroups =
    DSOP_FILTER_UNIVERSAL_GROUPS_SE | DSOP_FILTER_GLOBAL_GROUPS_SE | DSOP_FILTER_DOMAIN_LOCAL_GROUPS_SE;

struct FilterChoice
{
    ULONG flScope;     // added to kScopeFlags
    ULONG flBothModes; // added to DSOP_FILTER_INCLUDE_ADVANCED_VIEW
    ULONG flDownlevel;
};

// By user flag: 0 users and groups, 1 users, 2 groups, 3 users and groups.
constexpr FilterChoice kFilterChoices[] = {
    {DSOP_SCOPE_FLAG_DEFAULT_FILTER_USERS | DSOP_SCOPE_FLAG_DEFAULT_FILTER_GROUPS,
     DSOP_FILTER_USERS | DSOP_FILTER_BUILTIN_GROUPS | kSecurityGroups,
     DSOP_DOWNLEVEL_FILTER_USERS | DSOP_DOWNLEVEL_FILTER_LOCAL_GROUPS | DSOP_DOWNLEVEL_FILTER_GLOBAL_GROUPS |
         DSOP_DOWNLEVEL_FILTER_ALL_WELLKNOWN_SIDS},
    {DSOP_SCOPE_FLAG_DEFAULT_FILTER_USERS, DSOP_FILTER_USERS, DSOP_DOWNLEVEL_FILTER_USERS},
    {DSOP_SCOPE_FLAG_DEFAULT_FILTER_GROUPS, kSecurityGroups,
     DSOP_DOWNLEVEL_FILTER_LOCAL_GROUPS | DSOP_DOWNLEVEL_FILTER_GLOBAL_GROUPS},
};

static_assert(kScopeTypes == 0x37E && kScopeFlags == 0x22);
static_assert(kFilterChoices[0].flBothModes == 0x2A6 && kFilterChoices[0].flDownlevel == 0x80020007);
static_assert(kFilterChoices[2].flBothModes == 0x2A0 && kFilterChoices[2].flDownlevel == 0x80000006);

} // namespace

CDirectory::CDirectory(uint32_t dwUserFlag, bool bMultiSelect) noexcept
        : m_aScopeInit(), m_InitInfo(), m_ComInitialization(COINIT_APARTMENTTHREADED, true)
{
    SetLastErrorCode(ERROR_SUCCESS);
    const wchar_t* pszFailure = Prepare(dwUserFlag, bMultiSelect);
    if (pszFailure != nullptr)
    {
        QC_LOG_ERROR(kLogSource) << pszFailure;
    }
}

const wchar_t* CDirectory::Prepare(uint32_t dwUserFlag, bool bMultiSelect) noexcept
{
    if (!m_ComInitialization.Usable())
    {
        SetLastErrorCode(Logging::Code(m_ComInitialization.Result()));
        return L"CoInitializeEx failed";
    }

    ::ZeroMemory(m_aScopeInit, sizeof(m_aScopeInit));
    if (dwUserFlag > 3)
    {
        SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return L"dwUserFlag not valid";
    }
    const FilterChoice& choice = kFilterChoices[dwUserFlag == 3 ? 0 : dwUserFlag];
    DSOP_SCOPE_INIT_INFO& scope = m_aScopeInit[0];
    scope.cbSize = sizeof(DSOP_SCOPE_INIT_INFO);
    scope.flType = kScopeTypes;
    scope.flScope = kScopeFlags | choice.flScope;
    scope.FilterFlags.Uplevel.flBothModes = DSOP_FILTER_INCLUDE_ADVANCED_VIEW | choice.flBothModes;
    scope.FilterFlags.flDownlevel = choice.flDownlevel;

    m_InitInfo.cbSize = sizeof(DSOP_INIT_INFO);
    m_InitInfo.pwzTargetComputer = nullptr; // the local computer
    // Both records go to the picker, the second one all zero: intentional.
    m_InitInfo.cDsScopeInfos = 2;
    m_InitInfo.aDsScopeInfos = m_aScopeInit;
    m_InitInfo.flOptions = bMultiSelect ? DSOP_FLAG_MULTISELECT : 0;
    m_InitInfo.cAttributesToFetch = 0;
    m_InitInfo.apwzAttributeNames = nullptr;
    return nullptr;
}

HRESULT CDirectory::InitObjectPicker() noexcept
{
    if (!m_pDsObjectPicker)
    {
        QC_LOG_ERROR(kLogSource) << L"!pDsObjectPicker";
        return E_INVALIDARG;
    }
    return m_pDsObjectPicker->Initialize(&m_InitInfo);
}

bool CDirectory::InvokeDialog(HWND hwndParent, Types::CWideBuffer& result) noexcept
{
    HRESULT hResult = ::CoCreateInstance(CLSID_DsObjectPicker, nullptr, CLSCTX_INPROC_SERVER, IID_IDsObjectPicker,
                                         m_pDsObjectPicker.PutVoid());
    if (FAILED(hResult))
    {
        SetLastErrorCode(Logging::Code(hResult));
    }
    else
    {
        hResult = InitObjectPicker();
        if (FAILED(hResult))
        {
            SetLastErrorCode(Logging::Code(hResult));
            QC_LOG_ERROR(kLogSource) << L"InitObjectPicker failed with error " << Logging::Code(hResult);
            m_pDsObjectPicker.Reset();
            m_pDataObject.Reset();
            // Intentionally unbalanced: the destructor calls CoUninitialize again.
            if (m_ComInitialization.UninitializesOnDestruction())
            {
                ::CoUninitialize();
            }
        }
    }
    // Without a created and initialised picker there is nothing to show.
    if (!m_pDsObjectPicker)
    {
        return false;
    }

    hResult = m_pDsObjectPicker->InvokeDialog(hwndParent, m_pDataObject.Put());
    if (FAILED(hResult))
    {
        // S_FALSE (a cancel) is no failure, so this branch is never taken and a
        // cancel ends in ProcessSelectedObjects instead. Kept as it stands.
        if (hResult == S_FALSE)
        {
            QC_LOG_WARNING(kLogSource) << L"User canceled object picker dialog";
            SetLastErrorCode(1);
            return true;
        }
        SetLastErrorCode(Logging::Code(hResult));
        QC_LOG_ERROR(kLogSource) << L"InvokeDialog failed with error " << Logging::Code(hResult);
        return false;
    }

    hResult = ProcessSelectedObjects(result);
    if (FAILED(hResult))
    {
        SetLastErrorCode(Logging::Code(hResult));
        QC_LOG_ERROR(kLogSource) << L"ProcessSelectedObjects failed with error " << Logging::Code(hResult);
        m_pDataObject.Reset(); // holds nothing after a cancel: no release then
        return false;
    }
    m_pDataObject.Reset();
    return true;
}

HRESULT CDirectory::ProcessSelectedObjects(Types::CWideBuffer& result) noexcept
{
    if (!m_pDataObject)
    {
        return E_INVALIDARG;
    }
    FORMATETC format = {};
    format.cfFormat = static_cast<CLIPFORMAT>(::RegisterClipboardFormatW(CFSTR_DSOP_DS_SELECTION_LIST));
    format.ptd = nullptr;
    format.dwAspect = DVASPECT_CONTENT;
    format.lindex = -1;
    format.tymed = TYMED_HGLOBAL;
    Types::CStgMedium medium;
    const HRESULT hResult = m_pDataObject->GetData(&format, medium.Put());
    if (FAILED(hResult))
    {
        return hResult;
    }
    // Unlocked before the medium is released: declared after it.
    const Types::CGlobalLock lock(medium.Get().hGlobal);
    if (lock.Get() == nullptr)
    {
        return E_POINTER;
    }
    const auto* pSelectionList = static_cast<const DS_SELECTION_LIST*>(lock.Get());
    const DS_SELECTION* pSelections = pSelectionList->aDsSelection; // cItems records
    for (ULONG i = 0; i < pSelectionList->cItems; ++i)
    {
        // Failed appends and replacements leave the text as it was; the
        // entries that made it in are still worth returning.
        if (i > 0)
        {
            (void)Types::Append(result, L";");
        }
        const wchar_t* pszPath = pSelections[i].pwzADsPath;
        if (pszPath != nullptr)
        {
            (void)Types::Append(result, pszPath);
        }
        else
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
        }
        // "WinNT://DOMAIN/name" becomes "DOMAIN\name".
        (void)Types::Replace(result, L"WinNT://", L"");
        (void)Types::Replace(result, L"/", L"\\");
    }
    return hResult;
}

} // namespace Quillcast::System
