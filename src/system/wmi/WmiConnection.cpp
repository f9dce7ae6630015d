#include "system/wmi/WmiConnection.h"

#include <new>

#include "logging/LogHelpers.h"

namespace Quillcast::WMI {

namespace {

constexpr Logging::CLogSource kLogSource{L"WmiConnection", 0};

// The local machine only: no server name is ever put in front.
constexpr wchar_t kNamespace[] = L"ROOT\\CIMV2";
constexpr wchar_t kComputerSystemQuery[] = L"Select * from Win32_ComputerSystem";

} // namespace

CWmiConnection::CWmiConnection() noexcept : m_ComInitialization(COINIT_MULTITHREADED)
{
    SetLastErrorCode(ERROR_SUCCESS);
    const HRESULT hInitialize = m_ComInitialization.Result();
    if (FAILED(hInitialize))
    {
        // RPC_E_CHANGED_MODE lands here too; COM is still usable on the thread.
        QC_LOG_ERROR(kLogSource) << L"CoInitializeEx failed with result " << Logging::Code(hInitialize);
    }
    const HRESULT hSecurity = ::CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                                     RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    // RPC_E_TOO_LATE: the process has set its security already.
    if (FAILED(hSecurity) && hSecurity != RPC_E_TOO_LATE)
    {
        QC_LOG_ERROR(kLogSource) << L"CoInitializeSecurity failed with result " << Logging::Code(hSecurity);
    }
}

void CWmiConnection::Disconnect() noexcept
{
    m_pServices.Reset();
    m_pLocator.Reset();
}

bool CWmiConnection::Connect() noexcept
{
    Disconnect();
    HRESULT hResult =
        ::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator, m_pLocator.PutVoid());
    if (FAILED(hResult))
    {
        SetLastErrorCode(Logging::Code(hResult));
        QC_LOG_ERROR(kLogSource) << L"Creating WbemLocator failed";
        return false;
    }
    QC_LOG_INFO(kLogSource) << L"Connecting to namespace " << kNamespace;
    const System::Types::CBstr strNamespace(kNamespace);
    hResult = m_pLocator->ConnectServer(strNamespace.Get(), nullptr, nullptr, nullptr, WBEM_FLAG_CONNECT_USE_MAX_WAIT,
                                        nullptr, nullptr, m_pServices.Put());
    if (FAILED(hResult))
    {
        SetLastErrorCode(Logging::Code(hResult));
        QC_LOG_ERROR(kLogSource) << L"Connecting Wmi Services failed";
        Disconnect();
        return false;
    }
    if (!SetProxySecurity(m_pServices.Get()))
    {
        Disconnect();
        return false;
    }
    return true;
}

bool CWmiConnection::SetProxySecurity(IUnknown* pProxy) noexcept
{
    DWORD dwAuthnService = 0;
    DWORD dwAuthzService = 0;
    OLECHAR* pServerPrincipalName = nullptr;
    DWORD dwAuthnLevel = 0;
    DWORD dwImpLevel = 0;
    RPC_AUTH_IDENTITY_HANDLE pAuthIdentity = nullptr;
    DWORD dwCapabilities = 0;
    HRESULT hResult = ::CoQueryProxyBlanket(pProxy, &dwAuthnService, &dwAuthzService, &pServerPrincipalName,
                                            &dwAuthnLevel, &dwImpLevel, &pAuthIdentity, &dwCapabilities);
    if (FAILED(hResult))
    {
        SetLastErrorCode(Logging::Code(hResult));
        // The same text as for a failed set, on purpose.
        QC_LOG_ERROR(kLogSource) << L"CoSetProxyBlanket failed";
        return false;
    }
    // The principal name belongs to the caller of CoQueryProxyBlanket.
    const System::Types::CCoTaskMemory serverPrincipalName(pServerPrincipalName);
    if (dwImpLevel == RPC_C_IMP_LEVEL_IMPERSONATE)
    {
        return true;
    }
    hResult = ::CoSetProxyBlanket(pProxy, dwAuthnService, dwAuthzService, pServerPrincipalName, dwAuthnLevel,
                                  RPC_C_IMP_LEVEL_IMPERSONATE, pAuthIdentity, dwCapabilities);
    if (FAILED(hResult))
    {
        SetLastErrorCode(Logging::Code(hResult));
        QC_LOG_ERROR(kLogSource) << L"CoSetProxyBlanket failed";
        return false;
    }
    return true;
}

bool CWmiConnection::QueryComputerSystem(System::Types::CPointerList<CWmiClassObject>& list) noexcept
{
    if (!m_pLocator || !m_pServices)
    {
        return false;
    }
    list.Clear();
    QC_LOG_INFO(kLogSource) << L"Processing query " << kComputerSystemQuery;
    const System::Types::CBstr strLanguage(L"WQL");
    const System::Types::CBstr strQuery(kComputerSystemQuery);
    System::Types::CComPtr<IEnumWbemClassObject> pEnumerator;
    HRESULT hResult =
        m_pServices->ExecQuery(strLanguage.Get(), strQuery.Get(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                               nullptr, pEnumerator.Put());
    if (FAILED(hResult))
    {
        SetLastErrorCode(Logging::Code(hResult));
        QC_LOG_ERROR(kLogSource) << L"Processing query failed";
        return false;
    }
    if (!SetProxySecurity(pEnumerator.Get()))
    {
        return false;
    }
    for (;;)
    {
        System::Types::CComPtr<IWbemClassObject> pClassObject;
        ULONG uReturned = 0;
        hResult = pEnumerator->Next(static_cast<LONG>(WBEM_INFINITE), 1, pClassObject.Put(), &uReturned);
        if (hResult != WBEM_S_NO_ERROR && hResult != WBEM_S_FALSE)
        {
            SetLastErrorCode(Logging::Code(hResult));
            QC_LOG_ERROR(kLogSource) << L"Enumerating class objects failed with error " << Logging::Code(hResult)
                                     << L" returned = " << static_cast<uint32_t>(uReturned);
            return false;
        }
        if (uReturned == 0)
        {
            return true;
        }
        auto* pObject = new (std::nothrow) CWmiClassObject(pClassObject.Get());
        if (pObject != nullptr)
        {
            (void)pClassObject.Detach(); // the new object holds the reference now
        }
        // The list deletes an object it cannot append.
        if (pObject == nullptr || !list.Append(pObject))
        {
            QC_LOG_ERROR(kLogSource) << L"Allocating class object instance failed with error " << LastError();
            return false;
        }
    }
}

} // namespace Quillcast::WMI
