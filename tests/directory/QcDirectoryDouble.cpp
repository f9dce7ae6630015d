// An in-process COM server standing in for the two parts Wine lacks: a WMI locator whose Win32_ComputerSystem
// says what the test wants, and a directory object picker that returns one fixed selection in the
// CFSTR_DSOP_DS_SELECTION_LIST format. Its calls refuse what the platform's documentation says they refuse.
//
// Its answers are values under kDoubleKey, all text and all optional (numbers in decimal):
//   Instances           how many Win32_ComputerSystem the query finds (default 1)
//   Domain, PartOfDomain  each instance's property as "<CIM type>:<text>", "<CIM type>:" for one without a
//                       value; absent: WBEM_E_NOT_FOUND
//   ImpersonationLevel  what the proxies report before a set (default 2, identify)
//   ConnectServer, QueryBlanket, SetBlanket, ExecQuery, Next, InvokeDialog: the HRESULT that call answers instead
// Its record is the value Journal: a line per call worth checking, its name and arguments in order, and one per
// object's final release, "<object> released", each ended by '\n'.
#include <windows.h>
#include <shlwapi.h>

#include <objsel.h>
#include <wbemcli.h>

#include <sstream>

#include "host/types/ComPtr.h"
#include "support/ComServer.h"

// mingw's objsel.h gives the picker's interface no uuid of its own.
__CRT_UUID_DECL(IDsObjectPicker, 0x0c87e64e, 0x3b7a, 0x11d2, 0xb9, 0xe0, 0x00, 0xc0, 0x4f, 0xd8, 0xdb, 0xf7)

namespace QcTest {
namespace {

// The tests' DirectoryActionTests.cpp writes and reads the same key.
const std::wstring kDoubleKey = L"Software\\Quillcast\\Tests\\DirectoryDouble";

namespace Types = Quillcast::System::Types;
using CGlobalMemory = Types::CUniqueHandle<HGLOBAL, Types::CloseWith<HGLOBAL, ::GlobalFree>>;

// A call no case makes.
#define QC_UNUSED(name, ...)                                                                                           \
    STDMETHODIMP name(__VA_ARGS__) override                                                                            \
    {                                                                                                                  \
        return E_NOTIMPL;                                                                                              \
    }

std::wstring Answer(const wchar_t* name, const wchar_t* fallback = L"")
{
    std::wstring value;
    return ReadText(kDoubleKey, name, value) ? value : fallback;
}

// What the test makes `call` answer instead of going on: 0 (S_OK) when nothing.
HRESULT Failure(const wchar_t* call)
{
    return static_cast<HRESULT>(wcstoul(Answer(call, L"0").c_str(), nullptr, 10));
}

const auto Text = [](const wchar_t* pszText) { return pszText != nullptr ? pszText : L"null"; };

std::wstring Hex(ULONG flags)
{
    std::wostringstream text;
    text << L"0x" << std::hex << std::uppercase << flags;
    return text.str();
}

template <typename... TFields>
void Record(const wchar_t* call, const TFields&... fields)
{
    std::wostringstream line;
    line << call;
    ((line << L' ' << fields), ...);
    AppendLine(kDoubleKey, L"Journal", line.str());
}

// Records the call and clears its out-parameter, which must be given; then answers as the test chose.
template <typename TOut, typename... TFields>
HRESULT Call(const wchar_t* call, TOut** ppOut, const TFields&... fields)
{
    Record(call, fields...);
    if (ppOut == nullptr)
    {
        return E_POINTER;
    }
    *ppOut = nullptr;
    return Failure(call);
}

// For the optional out-parameters.
template <typename TValue>
void Give(TValue* pOut, TValue value)
{
    if (pOut != nullptr)
    {
        *pOut = value;
    }
}

// An object of TInterfaces... that records its final release.
template <typename... TInterfaces>
class CObject : public CComObject<TInterfaces...>
{
public:
    explicit CObject(const wchar_t* name) : m_Name(name) {}
    ~CObject() override { Record(m_Name.c_str(), L"released"); }

protected:
    void* Find(REFIID riid) override { return InterfaceOf<TInterfaces...>(this, riid); }

    const std::wstring m_Name;
};

// A WMI object the caller reaches through a proxy, whose security it can query and set.
template <typename TInterface>
class CProxy : public CObject<TInterface, IClientSecurity>
{
public:
    using CObject<TInterface, IClientSecurity>::CObject;

    // Values no fixed blanket holds, the principal named after the proxy: only handing the queried ones back
    // matches them. The principal name is the caller's to free.
    STDMETHODIMP QueryBlanket(IUnknown*, DWORD* pAuthnSvc, DWORD* pAuthzSvc, OLECHAR** pServerPrincName,
                              DWORD* pAuthnLevel, DWORD* pImpLevel, void** pAuthInfo, DWORD* pCapabilities) override
    {
        if (const HRESULT hFailure = Failure(L"QueryBlanket"))
        {
            return hFailure;
        }
        if (pServerPrincName != nullptr && FAILED(SHStrDupW((L"QcDouble/" + this->m_Name).c_str(), pServerPrincName)))
        {
            return E_OUTOFMEMORY;
        }
        Give(pAuthnSvc, static_cast<DWORD>(RPC_C_AUTHN_GSS_NEGOTIATE));
        Give(pAuthzSvc, static_cast<DWORD>(RPC_C_AUTHZ_NAME));
        Give(pAuthnLevel, static_cast<DWORD>(RPC_C_AUTHN_LEVEL_PKT_PRIVACY));
        Give(pImpLevel, static_cast<DWORD>(_wtoi(Answer(L"ImpersonationLevel", L"2").c_str())));
        Give(pAuthInfo, static_cast<void*>(&m_Identity));
        Give(pCapabilities, static_cast<DWORD>(EOAC_STATIC_CLOAKING));
        return S_OK;
    }
    STDMETHODIMP SetBlanket(IUnknown*, DWORD AuthnSvc, DWORD AuthzSvc, OLECHAR* pServerPrincName, DWORD AuthnLevel,
                            DWORD ImpLevel, void* pAuthInfo, DWORD Capabilities) override
    {
        Record(L"SetBlanket", this->m_Name, AuthnSvc, AuthzSvc, Text(pServerPrincName), AuthnLevel, ImpLevel,
               pAuthInfo == &m_Identity ? L"queried" : L"other", Capabilities);
        return Failure(L"SetBlanket");
    }
    QC_UNUSED(CopyProxy, IUnknown*, IUnknown**)

private:
    SEC_WINNT_AUTH_IDENTITY_W m_Identity = {};
};

// A Win32_ComputerSystem instance.
class CComputerSystem : public CObject<IWbemClassObject>
{
public:
    CComputerSystem() : CObject(L"Win32_ComputerSystem") {}

    STDMETHODIMP Get(LPCWSTR wszName, LONG lFlags, VARIANT* pVal, CIMTYPE* pType, LONG*) override
    {
        Record(L"Get", Text(wszName));
        if (wszName == nullptr || lFlags != 0) // the flags are reserved: 0
        {
            return WBEM_E_INVALID_PARAMETER;
        }
        const std::wstring answer = Answer(wszName);
        if (answer.find(L':') == std::wstring::npos)
        {
            return WBEM_E_NOT_FOUND;
        }
        const auto type = static_cast<CIMTYPE>(_wtoi(answer.c_str()));
        Give(pType, type);
        // WMI hands a CIM_BOOLEAN over as VT_BOOL, a CIM_STRING and a CIM_DATETIME as VT_BSTR, and a property
        // without a value as VT_NULL.
        const Types::CBstr text(answer.c_str() + answer.find(L':') + 1);
        VARIANT value = {};
        V_VT(&value) = VT_BSTR;
        V_BSTR(&value) = text.Get();
        VariantInit(pVal);
        V_VT(pVal) = VT_NULL;
        return SysStringLen(text.Get()) == 0
                   ? S_OK
                   : VariantChangeType(pVal, &value, 0, type == CIM_BOOLEAN ? VT_BOOL : VT_BSTR);
    }
    QC_UNUSED(GetQualifierSet, IWbemQualifierSet**)
    QC_UNUSED(Put, LPCWSTR, LONG, VARIANT*, CIMTYPE)
    QC_UNUSED(Delete, LPCWSTR)
    QC_UNUSED(GetNames, LPCWSTR, LONG, VARIANT*, SAFEARRAY**)
    QC_UNUSED(BeginEnumeration, LONG)
    QC_UNUSED(Next, LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*)
    QC_UNUSED(EndEnumeration)
    QC_UNUSED(GetPropertyQualifierSet, LPCWSTR, IWbemQualifierSet**)
    QC_UNUSED(Clone, IWbemClassObject**)
    QC_UNUSED(GetObjectText, LONG, BSTR*)
    QC_UNUSED(SpawnDerivedClass, LONG, IWbemClassObject**)
    QC_UNUSED(SpawnInstance, LONG, IWbemClassObject**)
    QC_UNUSED(CompareTo, LONG, IWbemClassObject*)
    QC_UNUSED(GetPropertyOrigin, LPCWSTR, BSTR*)
    QC_UNUSED(InheritsFrom, LPCWSTR)
    QC_UNUSED(GetMethod, LPCWSTR, LONG, IWbemClassObject**, IWbemClassObject**)
    QC_UNUSED(PutMethod, LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*)
    QC_UNUSED(DeleteMethod, LPCWSTR)
    QC_UNUSED(BeginMethodEnumeration, LONG)
    QC_UNUSED(NextMethod, LONG, BSTR*, IWbemClassObject**, IWbemClassObject**)
    QC_UNUSED(EndMethodEnumeration)
    QC_UNUSED(GetMethodQualifierSet, LPCWSTR, IWbemQualifierSet**)
    QC_UNUSED(GetMethodOrigin, LPCWSTR, BSTR*)
};

class CEnumerator : public CProxy<IEnumWbemClassObject>
{
public:
    CEnumerator() : CProxy(L"Enumerator"), m_Count(_wtoi(Answer(L"Instances", L"1").c_str())) {}

    STDMETHODIMP Next(LONG lTimeout, ULONG uCount, IWbemClassObject** apObjects, ULONG* puReturned) override
    {
        if (puReturned == nullptr || uCount != 1) // one at a time is all it hands out
        {
            return WBEM_E_INVALID_PARAMETER;
        }
        *puReturned = 0;
        if (const HRESULT hResult = Call(L"Next", apObjects, lTimeout, uCount))
        {
            return hResult;
        }
        if (m_Handed == m_Count)
        {
            return WBEM_S_FALSE;
        }
        apObjects[0] = new CComputerSystem();
        ++m_Handed;
        *puReturned = 1;
        return WBEM_S_NO_ERROR;
    }
    QC_UNUSED(Reset)
    QC_UNUSED(NextAsync, ULONG, IWbemObjectSink*)
    QC_UNUSED(Clone, IEnumWbemClassObject**)
    QC_UNUSED(Skip, LONG, ULONG)

private:
    const int m_Count;
    int m_Handed = 0;
};

class CServices : public CProxy<IWbemServices>
{
public:
    CServices() : CProxy(L"Services") {}

    STDMETHODIMP ExecQuery(const BSTR strQueryLanguage, const BSTR strQuery, LONG lFlags, IWbemContext*,
                           IEnumWbemClassObject** ppEnum) override
    {
        const HRESULT hResult = Call(L"ExecQuery", ppEnum, Text(strQueryLanguage), Text(strQuery), lFlags);
        if (hResult == S_OK)
        {
            *ppEnum = new CEnumerator();
        }
        return hResult;
    }
    QC_UNUSED(OpenNamespace, const BSTR, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**)
    QC_UNUSED(CancelAsyncCall, IWbemObjectSink*)
    QC_UNUSED(QueryObjectSink, LONG, IWbemObjectSink**)
    QC_UNUSED(GetObject, const BSTR, LONG, IWbemContext*, IWbemClassObject**, IWbemCallResult**)
    QC_UNUSED(GetObjectAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(PutClass, IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**)
    QC_UNUSED(PutClassAsync, IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(DeleteClass, const BSTR, LONG, IWbemContext*, IWbemCallResult**)
    QC_UNUSED(DeleteClassAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(CreateClassEnum, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
    QC_UNUSED(CreateClassEnumAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(PutInstance, IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**)
    QC_UNUSED(PutInstanceAsync, IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(DeleteInstance, const BSTR, LONG, IWbemContext*, IWbemCallResult**)
    QC_UNUSED(DeleteInstanceAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(CreateInstanceEnum, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
    QC_UNUSED(CreateInstanceEnumAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(ExecQueryAsync, const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(ExecNotificationQuery, const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
    QC_UNUSED(ExecNotificationQueryAsync, const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    QC_UNUSED(ExecMethod, const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*, IWbemClassObject**,
              IWbemCallResult**)
    QC_UNUSED(ExecMethodAsync, const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*, IWbemObjectSink*)
};

class CLocator : public CObject<IWbemLocator>
{
public:
    CLocator() : CObject(L"Locator") {}

    STDMETHODIMP ConnectServer(const BSTR strNetworkResource, const BSTR strUser, const BSTR strPassword,
                               const BSTR strLocale, LONG lSecurityFlags, const BSTR strAuthority, IWbemContext*,
                               IWbemServices** ppNamespace) override
    {
        if (const HRESULT hResult = Call(L"ConnectServer", ppNamespace, Text(strNetworkResource), Text(strUser),
                                         Text(strPassword), Text(strLocale), lSecurityFlags, Text(strAuthority)))
        {
            SetLastError(ERROR_ACCESS_DENIED); // what the failed RPC call leaves behind on the thread
            return hResult;
        }
        *ppNamespace = new CServices();
        return WBEM_S_NO_ERROR;
    }
};

// The picker, which is also the selection it returns and what releases the medium that selection hands out: its
// final release tells that the picker, the data object and the medium were all given back.
class CPicker : public CObject<IDsObjectPicker, IDataObject>
{
public:
    CPicker() : CObject(L"Picker") {}

    STDMETHODIMP Initialize(PDSOP_INIT_INFO pInitInfo) override
    {
        Record(L"Initialize", pInitInfo->cbSize, Text(pInitInfo->pwzTargetComputer), pInitInfo->cDsScopeInfos,
               Hex(pInitInfo->flOptions), pInitInfo->cAttributesToFetch);
        if (pInitInfo->cbSize != sizeof(DSOP_INIT_INFO) || pInitInfo->cDsScopeInfos == 0 ||
            pInitInfo->aDsScopeInfos == nullptr)
        {
            return E_INVALIDARG;
        }
        for (ULONG i = 0; i < pInitInfo->cDsScopeInfos; ++i)
        {
            const DSOP_SCOPE_INIT_INFO& scope = pInitInfo->aDsScopeInfos[i];
            const DSOP_UPLEVEL_FILTER_FLAGS& uplevel = scope.FilterFlags.Uplevel;
            Record(L"Scope", scope.cbSize, Hex(scope.flType), Hex(scope.flScope), Hex(uplevel.flBothModes),
                   Hex(uplevel.flMixedModeOnly), Hex(uplevel.flNativeModeOnly), Hex(scope.FilterFlags.flDownlevel),
                   Text(scope.pwzDcName), Text(scope.pwzADsPath));
        }
        return S_OK;
    }

    STDMETHODIMP InvokeDialog(HWND hwndParent, IDataObject** ppdoSelections) override
    {
        wchar_t className[64] = L"null"; // the parent by its class: the wizard's or a standard dialog
        GetClassNameW(hwndParent, className, 64);
        if (const HRESULT hResult = Call(L"InvokeDialog", ppdoSelections, className))
        {
            return hResult;
        }
        AddRef();
        *ppdoSelections = this;
        return S_OK;
    }

    STDMETHODIMP GetData(FORMATETC* pFormat, STGMEDIUM* pMedium) override
    {
        // The one format the picker offers.
        if (pFormat->cfFormat != RegisterClipboardFormatW(CFSTR_DSOP_DS_SELECTION_LIST) ||
            (pFormat->tymed & TYMED_HGLOBAL) == 0 || pFormat->dwAspect != DVASPECT_CONTENT || pFormat->lindex != -1)
        {
            return DV_E_FORMATETC;
        }
        // A user, an entry without a path, a group whose name has a blank.
        static const wchar_t* const kPaths[] = {L"WinNT://CORP/alice", nullptr, L"WinNT://CORP/Print Operators"};
        m_Memory.Reset(GlobalAlloc(GPTR, sizeof(DS_SELECTION_LIST) + 2 * sizeof(DS_SELECTION)));
        if (!m_Memory)
        {
            return E_OUTOFMEMORY;
        }
        auto* pList = static_cast<DS_SELECTION_LIST*>(m_Memory.Get());
        pList->cItems = 3;
        for (ULONG i = 0; i < pList->cItems; ++i)
        {
            pList->aDsSelection[i].pwzADsPath = const_cast<PWSTR>(kPaths[i]); // the path is all the DLL reads
        }
        pMedium->tymed = TYMED_HGLOBAL;
        pMedium->hGlobal = m_Memory.Get();
        pMedium->pUnkForRelease =
            static_cast<IDataObject*>(this); // ReleaseStgMedium releases it instead of freeing the memory
        AddRef();
        return S_OK;
    }
    QC_UNUSED(GetDataHere, FORMATETC*, STGMEDIUM*)
    QC_UNUSED(QueryGetData, FORMATETC*)
    QC_UNUSED(GetCanonicalFormatEtc, FORMATETC*, FORMATETC*)
    QC_UNUSED(SetData, FORMATETC*, STGMEDIUM*, BOOL)
    QC_UNUSED(EnumFormatEtc, DWORD, IEnumFORMATETC**)
    QC_UNUSED(DAdvise, FORMATETC*, DWORD, IAdviseSink*, DWORD*)
    QC_UNUSED(DUnadvise, DWORD)
    QC_UNUSED(EnumDAdvise, IEnumSTATDATA**)

private:
    CGlobalMemory m_Memory;
};

} // namespace
} // namespace QcTest

extern "C" __declspec(dllexport) HRESULT __stdcall DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv)
{
    return rclsid == CLSID_WbemLocator      ? QcTest::ClassObject<QcTest::CLocator>(riid, ppv)
           : rclsid == CLSID_DsObjectPicker ? QcTest::ClassObject<QcTest::CPicker>(riid, ppv)
                                            : CLASS_E_CLASSNOTAVAILABLE;
}
