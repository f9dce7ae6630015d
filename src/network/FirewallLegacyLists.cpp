// CFirewall on the current profile's lists of open ports and authorized
// programs (INetFwMgr), for systems without the rule interface.
#include "network/Firewall.h"

#include <cstdlib>

#include "host/types/WideString.h"
#include "logging/Log.h"
#include "logging/LogHelpers.h"
#include "network/FirewallDetail.h"

namespace Quillcast::Common::Network {

namespace {

using Detail::ForEachPort;
using Detail::kNotFound;
using Logging::Code;

// "Firewall" spans the files of CFirewall: lines of this file print from 2000.
constexpr Logging::CLogSource kLogSource{L"Firewall", 2000};

constexpr CLSID kClsidNetFwMgr = {0x304CE942, 0x6E39, 0x40D8, {0x94, 0x3A, 0xB9, 0x13, 0xC4, 0x0C, 0x9C, 0xD4}};
constexpr CLSID kClsidNetFwOpenPort = {0x0CA545C6, 0x37AD, 0x4A6C, {0xBF, 0x92, 0x9F, 0x76, 0x10, 0x06, 0x7E, 0xF5}};
constexpr CLSID kClsidNetFwAuthorizedApplication = {
    0xEC9846B3, 0x2762, 0x4A6B, {0xA2, 0x14, 0x6A, 0xCB, 0x60, 0x34, 0x62, 0xD2}};

} // namespace

bool CFirewall::ConnectLegacy() noexcept
{
    HRESULT hr =
        ::CoCreateInstance(kClsidNetFwMgr, nullptr, CLSCTX_INPROC_SERVER, __uuidof(INetFwMgr), m_pFwMgr.PutVoid());
    if (SUCCEEDED(hr))
    {
        hr = m_pFwMgr->get_LocalPolicy(m_pPolicy.Put());
    }
    if (SUCCEEDED(hr))
    {
        hr = m_pPolicy->get_CurrentProfile(m_pProfile.Put());
    }
    if (FAILED(hr))
    {
        m_pFwMgr.Reset();
        m_pPolicy.Reset();
        m_pProfile.Reset();
        QC_FIREWALL_FAIL(L"Failed to connect to Windows Firewall with error ", hr);
        return false;
    }
    return true;
}

bool CFirewall::AddLegacyPorts(const wchar_t* pszPorts) noexcept
{
    if (!ConnectLegacy())
    {
        QC_LOG_ERROR(kLogSource) << L"Failed to get current profile with error " << LastError();
        return false;
    }
    const HRESULT hr = m_pProfile->get_GloballyOpenPorts(m_pOpenPorts.Put());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to get list of open ports with error ", hr);
        return false;
    }
    // Each piece converts as _wtoi converts: "" is port 0, "8080-8090" is 8080.
    return ForEachPort(
        pszPorts, [this](const wchar_t* piece, size_t) { return AddLegacyPort(static_cast<LONG>(::_wtoi(piece))); });
}

bool CFirewall::AddLegacyPort(LONG lPort) noexcept
{
    const auto protocol = static_cast<NET_FW_IP_PROTOCOL>(m_lProtocol);
    HRESULT hr = m_pOpenPorts->Item(lPort, protocol, m_pOpenPort.Put());
    if (SUCCEEDED(hr))
    {
        // Not checked: the port the add asks for is listed, enabled or not.
        (void)m_pOpenPort->put_Enabled(VARIANT_TRUE);
        return true;
    }
    if (hr != kNotFound)
    {
        QC_FIREWALL_FAIL(L"Failed trying to find existing port with error ", hr);
        return false;
    }
    hr = ::CoCreateInstance(kClsidNetFwOpenPort, nullptr, CLSCTX_INPROC_SERVER, __uuidof(INetFwOpenPort),
                            m_pOpenPort.PutVoid());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to create new open port with error ", hr);
        return false;
    }
    hr = m_pOpenPort->put_Name(m_bstrName.Get());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to set port name with error ", hr);
        return false;
    }
    if (m_lProtocol != 0)
    {
        hr = m_pOpenPort->put_Protocol(protocol);
        if (FAILED(hr))
        {
            QC_FIREWALL_FAIL(L"Failed to set port protocol with error ", hr);
            return false;
        }
    }
    hr = m_pOpenPort->put_Port(lPort);
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to set port number with error ", hr);
        return false;
    }
    if (m_bstrRemoteAddresses)
    {
        hr = m_pOpenPort->put_RemoteAddresses(m_bstrRemoteAddresses.Get());
        if (FAILED(hr))
        {
            QC_FIREWALL_FAIL(L"Failed to set port remote addresses with error ", hr);
            return false;
        }
    }
    // The doubled "to" is intentional.
    hr = m_pOpenPort->put_Enabled(VARIANT_TRUE);
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to to enable port with error ", hr);
        return false;
    }
    hr = m_pOpenPorts->Add(m_pOpenPort.Get());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to add port to the open ports list with error ", hr);
        return false;
    }
    return true;
}

bool CFirewall::AddLegacyApplication(const wchar_t* /*pszPath: see m_bstrApplication*/) noexcept
{
    if (!ConnectLegacy())
    {
        QC_LOG_ERROR(kLogSource) << L"Failed to get current profile with error " << LastError();
        return false;
    }
    HRESULT hr = m_pProfile->get_AuthorizedApplications(m_pAuthorizedApps.Put());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to get list of authorized apps with error ", hr);
        return false;
    }
    hr = m_pAuthorizedApps->Item(m_bstrApplication.Get(), m_pAuthorizedApp.Put());
    if (SUCCEEDED(hr))
    {
        // Not checked: the program the add asks for is listed, enabled or not.
        (void)m_pAuthorizedApp->put_Enabled(VARIANT_TRUE);
        return true;
    }
    if (hr != kNotFound)
    {
        QC_FIREWALL_FAIL(L"Failed trying to find existing app with error ", hr);
        return false;
    }
    hr = ::CoCreateInstance(kClsidNetFwAuthorizedApplication, nullptr, CLSCTX_INPROC_SERVER,
                            __uuidof(INetFwAuthorizedApplication), m_pAuthorizedApp.PutVoid());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to create authorized app with error ", hr);
        return false;
    }
    hr = m_pAuthorizedApp->put_Name(m_bstrName.Get());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to set authorized app name with error ", hr);
        return false;
    }
    hr = m_pAuthorizedApp->put_ProcessImageFileName(m_bstrApplication.Get());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to set authorized app path with error ", hr);
        return false;
    }
    if (m_bstrRemoteAddresses)
    {
        // Written twice in a row: intentional.
        for (int attempt = 0; attempt < 2; ++attempt)
        {
            hr = m_pAuthorizedApp->put_RemoteAddresses(m_bstrRemoteAddresses.Get());
            if (FAILED(hr))
            {
                QC_FIREWALL_FAIL(L"Failed to set authorized app remote addresses with error ", hr);
                return false;
            }
        }
    }
    // The doubled "to" is intentional.
    hr = m_pAuthorizedApp->put_Enabled(VARIANT_TRUE);
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to to enable app with error ", hr);
        return false;
    }
    hr = m_pAuthorizedApps->Add(m_pAuthorizedApp.Get());
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(L"Failed to add app to the authorized apps list with error ", hr);
        return false;
    }
    return true;
}

bool CFirewall::CheckLegacyPort(const wchar_t* /*pszPort: see m_bstrLocalPorts*/) noexcept
{
    return CheckLegacyEntry([](CFirewall& f) { return f.m_pProfile->get_GloballyOpenPorts(f.m_pOpenPorts.Put()); },
                            L"Failed to get list of open ports with error ",
                            [](CFirewall& f, VARIANT_BOOL& bEnabled) {
                                const LONG lPort = static_cast<LONG>(::_wtoi(f.m_bstrLocalPorts.Get()));
                                const HRESULT hr = f.m_pOpenPorts->Item(
                                    lPort, static_cast<NET_FW_IP_PROTOCOL>(f.m_lProtocol), f.m_pOpenPort.Put());
                                return SUCCEEDED(hr) ? f.m_pOpenPort->get_Enabled(&bEnabled) : hr;
                            },
                            L"Failed to retrieve open port with error ");
}

bool CFirewall::CheckLegacyApplication(const wchar_t* /*pszPath: see m_bstrApplication*/) noexcept
{
    return CheckLegacyEntry(
        [](CFirewall& f) { return f.m_pProfile->get_AuthorizedApplications(f.m_pAuthorizedApps.Put()); },
        L"Failed to get list of authorized apps with error ",
        [](CFirewall& f, VARIANT_BOOL& bEnabled) {
            const HRESULT hr = f.m_pAuthorizedApps->Item(f.m_bstrApplication.Get(), f.m_pAuthorizedApp.Put());
            return SUCCEEDED(hr) ? f.m_pAuthorizedApp->get_Enabled(&bEnabled) : hr;
        },
        L"Failed to retrieve authorized app with error ");
}

bool CFirewall::CheckLegacyEntry(HRESULT (*getList)(CFirewall&), const wchar_t* pszListFailure,
                                 HRESULT (*getEnabled)(CFirewall&, VARIANT_BOOL&),
                                 const wchar_t* pszEntryFailure) noexcept
{
    if (!ConnectLegacy())
    {
        QC_LOG_ERROR(kLogSource) << L"Failed to get current profile with error " << LastError();
        return false;
    }
    // Exceptions that the profile does not allow do not stop the check; only
    // a failed read that still answers "not allowed" does.
    VARIANT_BOOL bNotAllowed = VARIANT_FALSE;
    HRESULT hr = m_pProfile->get_ExceptionsNotAllowed(&bNotAllowed);
    if (FAILED(hr) && bNotAllowed != VARIANT_FALSE)
    {
        QC_FIREWALL_FAIL(L"Failed to get list of not allowed exceptions with error ", hr);
        return false;
    }
    hr = getList(*this);
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(pszListFailure, hr);
        return false;
    }
    VARIANT_BOOL bEnabled = VARIANT_FALSE;
    hr = getEnabled(*this, bEnabled);
    if (FAILED(hr))
    {
        QC_FIREWALL_FAIL(pszEntryFailure, hr);
        return false;
    }
    return bEnabled != VARIANT_FALSE;
}

bool CFirewall::RemoveLegacyPorts(const wchar_t* pszPorts) noexcept
{
    return ForEachPort(pszPorts, [this](const wchar_t* piece, size_t pieceLength) {
        System::Types::CWideBuffer port;
        if (!System::Types::Assign(port, piece, static_cast<uint32_t>(pieceLength)))
        {
            SetLastErrorCode(Code(E_OUTOFMEMORY));
            QC_LOG_ERROR(kLogSource) << L"Failed SysAllocString for ports";
            return false;
        }
        const wchar_t* pszPort = System::Types::Text(port);
        if (!CheckPort(pszPort))
        {
            QC_LOG_ERROR(kLogSource) << L"Failed to check local ports with error " << LastError();
            return false;
        }
        const HRESULT hr =
            m_pOpenPorts->Remove(static_cast<LONG>(::_wtoi(pszPort)), static_cast<NET_FW_IP_PROTOCOL>(m_lProtocol));
        if (FAILED(hr))
        {
            SetLastErrorCode(Code(hr));
            QC_LOG_ERROR(kLogSource) << L"Failed to remove open port " << pszPort << L", protocol " << m_lProtocol
                                     << L" with error " << Code(hr);
            return false;
        }
        return true;
    });
}

bool CFirewall::RemoveLegacyApplication(const wchar_t* /*pszPath: see m_bstrApplication*/) noexcept
{
    if (!CheckApplication(m_bstrApplication.Get()))
    {
        QC_LOG_ERROR(kLogSource) << L"Failed to check app exception with error " << LastError();
        return false;
    }
    const HRESULT hr = m_pAuthorizedApps->Remove(m_bstrApplication.Get());
    if (FAILED(hr))
    {
        SetLastErrorCode(Code(hr));
        // The two blanks before "with" are intentional.
        QC_LOG_ERROR(kLogSource) << L"Failed to remove app " << m_bstrApplication.Get() << L"  with error " << Code(hr);
        return false;
    }
    return true;
}

} // namespace Quillcast::Common::Network
