#include "network/Firewall.h"

#include "logging/Log.h"
#include "logging/LogHelpers.h"
#include "network/FirewallDetail.h"

namespace Quillcast::Common::Network {

namespace {

using Detail::Copy;
using Detail::kNotFound;
using Logging::Code;

// "Firewall" spans the files of CFirewall: lines of this file print from 1000.
constexpr Logging::CLogSource kLogSource{L"Firewall", 1000};

// The rule interface's classes (the interfaces come with their __uuidof).
constexpr CLSID kClsidNetFwPolicy2 = {0xE2B3C97F, 0x6AE1, 0x41AC, {0x81, 0x7A, 0xF6, 0xF9, 0x21, 0x66, 0xD7, 0xDD}};
constexpr CLSID kClsidNetFwRule = {0x2C5BC43E, 0x3369, 0x4C33, {0xAB, 0x0C, 0xBE, 0x94, 0x69, 0x67, 0x7A, 0xF4}};

// CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER
constexpr DWORD kClsctxAll = 0x17;
constexpr LONG kProtocolAny = 256;
constexpr LONG kEdgeTraversalDeferToApp = 2;

constexpr uint32_t kRuleFound = ERROR_FILE_EXISTS;
constexpr uint32_t kRuleMissing = ERROR_FILE_NOT_FOUND;

} // namespace

// What tells the public operations apart. The argument is first copied into
// `pKept` (RemovePort keeps nothing: the rule goes by its name, and the lists'
// walk keeps each port as it checks it); then either the legacy lists get the
// argument, or the rule interface does its part, whose failure is summed up
// with `pszRuleFailure`.
struct CFirewall::Operation
{
    System::Types::CBstr CFirewall::*pKept;
    const wchar_t* pszKeepFailure;
    bool (CFirewall::*pOnLists)(const wchar_t*) noexcept;
    bool (CFirewall::*pOnRule)() noexcept;
    // A program's rule is for every protocol; on the lists it keeps TCP.
    bool bAnyProtocol;
    const wchar_t* pszRuleFailure;
};

CFirewall::CFirewall(const wchar_t* pszName) noexcept
{
    const wchar_t* pszRaised = Construct(pszName);
    if (pszRaised != nullptr)
    {
        QC_LOG_ERROR(kLogSource) << pszRaised;
    }
}

const wchar_t* CFirewall::Construct(const wchar_t* pszName) noexcept
{
    SetLastErrorCode(ERROR_SUCCESS);
    if (pszName == nullptr || *pszName == L'\0')
    {
        SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return L"ERROR_INVALID_PARAMETER";
    }
    if (!Copy(m_bstrName, pszName))
    {
        SetLastErrorCode(Code(E_OUTOFMEMORY));
        return L"SysAllocString failed";
    }
    // Also balanced by CoUninitialize after RPC_E_CHANGED_MODE: intentional.
    m_ComInitialization.emplace(COINIT_APARTMENTTHREADED, true);
    if (!m_ComInitialization->Usable())
    {
        SetLastErrorCode(Code(m_ComInitialization->Result()));
        return L"CoInitializeEx failed";
    }

    m_bPolicy2 = ConnectPolicy2();
    // The profile mask that ConnectPolicy2 read is discarded on purpose: every
    // rule applies to all profiles unless the caller says otherwise.
    m_lProfiles = NET_FW_PROFILE2_ALL;
    return nullptr;
}

void CFirewall::Fail(const Logging::CLogSource& source, uint32_t line, const wchar_t* pszText, HRESULT hr) noexcept
{
    SetLastErrorCode(Code(hr));
    QC_LOG_AT(Logging::LOG_LEVEL_ERROR, source, line) << pszText << Code(hr);
}

void CFirewall::SetDescription(const wchar_t* pszDescription) noexcept
{
    (void)Copy(m_bstrDescription, pszDescription); // a failed copy leaves it unset
}

void CFirewall::SetRemoteAddresses(const wchar_t* pszAddresses) noexcept
{
    (void)Copy(m_bstrRemoteAddresses, pszAddresses); // a failed copy leaves it unset
}

void CFirewall::SetRemotePorts(const wchar_t* pszPorts) noexcept
{
    (void)Copy(m_bstrRemotePorts, pszPorts); // a failed copy leaves it unset
}

void CFirewall::SetLocalAddresses(const wchar_t* pszAddresses) noexcept
{
    (void)Copy(m_bstrLocalAddresses, pszAddresses); // a failed copy leaves it unset
}

void CFirewall::SetLocalPorts(const wchar_t* pszPorts) noexcept
{
    (void)Copy(m_bstrLocalPorts, pszPorts); // a failed copy leaves it unset
}

// ---------------------------------------------------------------- rule path

bool CFirewall::ConnectPolicy2() noexcept
{
    HRESULT hr =
        ::CoCreateInstance(kClsidNetFwPolicy2, nullptr, kClsctxAll, __uuidof(INetFwPolicy2), m_pPolicy2.PutVoid());
    if (SUCCEEDED(hr))
    {
        hr = m_pPolicy2->get_Rules(m_pRules.Put());
    }
    if (FAILED(hr))
    {
        SetLastErrorCode(Code(hr));
        m_pPolicy2.Reset();
        m_pRules.Reset();
        QC_LOG_WARNING(kLogSource) << L"Failed to get firewall exceptions object with error " << Code(hr);
        return false;
    }
    LONG lProfiles = 0;
    hr = m_pPolicy2->get_CurrentProfileTypes(&lProfiles);
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to get firewall current profile with error ", hr);
        return false;
    }
    if ((lProfiles & NET_FW_PROFILE2_PUBLIC) != 0 && lProfiles != NET_FW_PROFILE2_PUBLIC)
    {
        lProfiles &= ~NET_FW_PROFILE2_PUBLIC;
    }
    m_lProfiles = lProfiles;
    return true;
}

bool CFirewall::FindRule() noexcept
{
    const HRESULT hr = m_pRules->Item(m_bstrName.Get(), m_pRule.Put());
    if (SUCCEEDED(hr))
    {
        SetLastErrorCode(kRuleFound);
        return true;
    }
    if (hr == kNotFound)
    {
        SetLastErrorCode(kRuleMissing);
        return false;
    }
    QC_FIREWALL_FAIL(L"Failed trying to find existing exception with error ", hr);
    return false;
}

bool CFirewall::AddRule() noexcept
{
    if (FindRule())
    {
        // Only enabled again: the existing rule keeps its ports and settings.
        // Not checked: the rule the add asks for exists, enabled or not.
        (void)m_pRule->put_Enabled(VARIANT_TRUE);
        return true;
    }
    if (LastError() != kRuleMissing)
    {
        QC_LOG_ERROR(kLogSource) << L"Failed trying to find existing exception with error " << LastError();
        return false;
    }
    if (!CreateRule() || !SetRuleProperties() || !SetEdgeTraversal())
    {
        return false;
    }
    // The doubled "to" is intentional.
    HRESULT hr = m_pRule->put_Enabled(VARIANT_TRUE);
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to to enable exception with error ", hr);
        return false;
    }
    hr = m_pRules->Add(m_pRule.Get());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to add exception to the authorized list with error ", hr);
        return false;
    }
    return true;
}

bool CFirewall::CreateRule() noexcept
{
    const HRESULT hr =
        ::CoCreateInstance(kClsidNetFwRule, nullptr, kClsctxAll, __uuidof(INetFwRule), m_pRule.PutVoid());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to create NetFwRule object with error ", hr);
        return false;
    }
    return true;
}

bool CFirewall::SetRuleProperties() noexcept
{
    INetFwRule* pRule = m_pRule.Get();
    // One step per property, in the order the rule is built; optional strings
    // are only written when they were given.
    struct Step
    {
        bool bWrite;
        HRESULT (*pSet)(INetFwRule*, const CFirewall&);
        const wchar_t* pszFailure;
    };
    const Step steps[] = {
        {true, [](INetFwRule* p, const CFirewall& f) { return p->put_Name(f.m_bstrName.Get()); },
         L"Failed to set exception friendly name with error "},
        {true, [](INetFwRule* p, const CFirewall& f) { return p->put_Profiles(f.m_lProfiles); },
         L"Failed to set exception profile with error "},
        {static_cast<bool>(m_bstrDescription),
         [](INetFwRule* p, const CFirewall& f) { return p->put_Description(f.m_bstrDescription.Get()); },
         L"Failed to set exception description with error "},
        {true,
         [](INetFwRule* p, const CFirewall& f) {
             return p->put_Direction(static_cast<NET_FW_RULE_DIRECTION>(f.m_lDirection));
         },
         L"Failed to set exception direction with error "},
        {true, [](INetFwRule* p, const CFirewall& f) { return p->put_Protocol(f.m_lProtocol); },
         L"Failed to set exception protocol with error "},
        {static_cast<bool>(m_bstrApplication),
         [](INetFwRule* p, const CFirewall& f) { return p->put_ApplicationName(f.m_bstrApplication.Get()); },
         L"Failed to set application name with error "},
        {static_cast<bool>(m_bstrService),
         [](INetFwRule* p, const CFirewall& f) { return p->put_ServiceName(f.m_bstrService.Get()); },
         L"Failed to set service name with error "},
        {static_cast<bool>(m_bstrRemoteAddresses),
         [](INetFwRule* p, const CFirewall& f) { return p->put_RemoteAddresses(f.m_bstrRemoteAddresses.Get()); },
         L"Failed to set authorized remote addresses with error "},
        {static_cast<bool>(m_bstrLocalAddresses),
         [](INetFwRule* p, const CFirewall& f) { return p->put_LocalAddresses(f.m_bstrLocalAddresses.Get()); },
         L"Failed to set authorized local addresses with error "},
        {static_cast<bool>(m_bstrRemotePorts),
         [](INetFwRule* p, const CFirewall& f) { return p->put_RemotePorts(f.m_bstrRemotePorts.Get()); },
         L"Failed to set authorized remote ports with error "},
        {static_cast<bool>(m_bstrLocalPorts),
         [](INetFwRule* p, const CFirewall& f) { return p->put_LocalPorts(f.m_bstrLocalPorts.Get()); },
         L"Failed to set authorized local ports with error "},
    };
    for (const Step& step : steps)
    {
        if (!step.bWrite)
        {
            continue;
        }
        const HRESULT hr = step.pSet(pRule, *this);
        if (FAILED(hr))
        {
            QC_FIREWALL_FAIL(step.pszFailure, hr);
            return false;
        }
    }
    return true;
}

bool CFirewall::SetEdgeTraversal() noexcept
{
    HRESULT hr = m_pRule->QueryInterface(__uuidof(INetFwRule2), m_pRule2.PutVoid());
    if (SUCCEEDED(hr))
    {
        // Defer to the application, never plain allow.
        hr = m_pRule2->put_EdgeTraversalOptions(kEdgeTraversalDeferToApp);
        if (FAILED(hr))
        {
            QC_FIREWALL_FAIL(L"Failed to set EdgeTraversal to deferapp with error ", hr);
            return false;
        }
    }
    else
    {
        hr = m_pRule->put_EdgeTraversal(VARIANT_TRUE);
        if (FAILED(hr))
        {
            QC_FIREWALL_FAIL(L"Failed to set EdgeTraversal to yes with error ", hr);
            return false;
        }
    }
    return true;
}

bool CFirewall::RemoveRule() noexcept
{
    if (FindRule())
    {
        const HRESULT hr = m_pRules->Remove(m_bstrName.Get());
        if (FAILED(hr))
        {
            QC_FIREWALL_FAIL(L"Failed to remove exception with error ", hr);
            return false;
        }
        return true;
    }
    if (LastError() == kRuleMissing)
    {
        return true;
    }
    QC_LOG_ERROR(kLogSource) << L"Failed to check exception with error " << LastError();
    return false;
}

// ---------------------------------------------------------------- operations

bool CFirewall::AddPort(const wchar_t* pszPorts) noexcept
{
    return Run({&CFirewall::m_bstrLocalPorts, L"Failed SysAllocString for ports", &CFirewall::AddLegacyPorts,
                &CFirewall::AddRule, false, L"Failed to add port exception with error "},
               pszPorts);
}

bool CFirewall::AddApplication(const wchar_t* pszPath) noexcept
{
    return Run({&CFirewall::m_bstrApplication, L"Failed SysAllocString for path", &CFirewall::AddLegacyApplication,
                &CFirewall::AddRule, true, L"Failed to add exception with error "},
               pszPath);
}

bool CFirewall::RemovePort(const wchar_t* pszPorts) noexcept
{
    return Run({nullptr, nullptr, &CFirewall::RemoveLegacyPorts, &CFirewall::RemoveRule, false,
                L"Failed to remove exception with error "},
               pszPorts);
}

bool CFirewall::RemoveApplication(const wchar_t* pszPath) noexcept
{
    return Run({&CFirewall::m_bstrApplication, L"Failed SysAllocString for path", &CFirewall::RemoveLegacyApplication,
                &CFirewall::RemoveRule, false, L"Failed to remove exception with error "},
               pszPath);
}

// On the rule path a check only asks for the rule by its name.
bool CFirewall::CheckPort(const wchar_t* pszPort) noexcept
{
    return Run({&CFirewall::m_bstrLocalPorts, L"Failed SysAllocString for ports", &CFirewall::CheckLegacyPort,
                &CFirewall::FindRule, false, L"Failed to check port exception with error "},
               pszPort);
}

bool CFirewall::CheckApplication(const wchar_t* pszPath) noexcept
{
    return Run({&CFirewall::m_bstrApplication, L"Failed SysAllocString for path", &CFirewall::CheckLegacyApplication,
                &CFirewall::FindRule, false, L"Failed to check exception with error "},
               pszPath);
}

bool CFirewall::Run(const Operation& operation, const wchar_t* pszArgument) noexcept
{
    if (operation.pKept != nullptr && !Copy(this->*operation.pKept, pszArgument))
    {
        SetLastErrorCode(Code(E_OUTOFMEMORY));
        QC_LOG_ERROR(kLogSource) << operation.pszKeepFailure;
        return false;
    }
    if (!m_bPolicy2)
    {
        return (this->*operation.pOnLists)(pszArgument);
    }
    if (operation.bAnyProtocol)
    {
        m_lProtocol = kProtocolAny;
    }
    if (!(this->*operation.pOnRule)())
    {
        QC_LOG_ERROR(kLogSource) << operation.pszRuleFailure << LastError();
        return false;
    }
    return true;
}

} // namespace Quillcast::Common::Network
