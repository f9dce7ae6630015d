// An in-process COM server standing in for the two parts Wine lacks: a WMI
// locator whose Win32_ComputerSystem says what the test wants (a domain member
// or not, a wrong CIM type, no instance, a failing step) and a directory object
// picker that records the initialisation it received and returns a chosen
// selection in the CFSTR_DSOP_DS_SELECTION_LIST format, or a cancel. Answers
// and records live under HKLM\QC_DOUBLE_KEY (DirectoryDoubleControl.h). Every
// object records its final release, so the tests see that each reference the
// caller took was given back.
#include <windows.h>
#include <objbase.h>
#include <objidl.h>
#include <objsel.h>
#include <wbemcli.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "DirectoryDoubleControl.h"

// COM objects are deleted through their own class, never through an interface.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace {

// ---- control and journal ----------------------------------------------------

bool ReadString(const wchar_t* name, std::wstring& value)
{
    wchar_t text[8192] = {};
    DWORD cb = sizeof(text) - sizeof(wchar_t);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, QC_DOUBLE_KEY, name, RRF_RT_REG_SZ, nullptr, text, &cb) != ERROR_SUCCESS)
    {
        return false;
    }
    value = text;
    return true;
}

bool ReadDword(const wchar_t* name, DWORD& value)
{
    std::wstring text;
    const bool bRead = ReadString(name, text);
    value = bRead ? static_cast<DWORD>(_wtoi(text.c_str())) : value;
    return bRead;
}

bool FailsAt(const wchar_t* step)
{
    std::wstring failAt;
    return ReadString(L"FailAt", failAt) && failAt == step;
}

// Appends one line to the journal.
void Record(const std::wstring& line)
{
    std::wstring journal;
    ReadString(L"Journal", journal);
    journal += line + L"\n";
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, QC_DOUBLE_KEY, L"Journal", REG_SZ, journal.c_str(),
                    static_cast<DWORD>((journal.size() + 1) * sizeof(wchar_t)));
}

std::wstring Hex(unsigned long value)
{
    wchar_t text[16];
    _snwprintf(text, 16, L"0x%lX", value);
    return text;
}

std::wstring TextOrNull(const wchar_t* text)
{
    return text != nullptr ? std::wstring(text) : std::wstring(L"null");
}

// ---- reference counting -----------------------------------------------------

// IUnknown for an object of interfaces I...: QueryInterface answers the IIDs
// the object lists; the final Release records "<name> released".
template <typename TDerived, typename... TInterfaces>
class CObject : public TInterfaces...
{
public:
    explicit CObject(const wchar_t* name) : m_Name(name) {}
    virtual ~CObject() { Record(m_Name + L" released"); }
    CObject(const CObject&) = delete;
    CObject& operator=(const CObject&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
        {
            return E_POINTER;
        }
        *ppv = static_cast<TDerived*>(this)->Find(riid);
        if (*ppv == nullptr)
        {
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&m_cRef)); }
    STDMETHODIMP_(ULONG) Release() override
    {
        const LONG cRef = InterlockedDecrement(&m_cRef);
        if (cRef == 0)
        {
            delete this;
        }
        return static_cast<ULONG>(cRef);
    }

protected:
    std::wstring m_Name;

private:
    LONG m_cRef = 1;
};

// ---- WMI ----------------------------------------------------------------------

// The proxy security of the services and enumerator "proxies".
class CBlanket : public IClientSecurity
{
public:
    CBlanket() = default;
    virtual ~CBlanket() = default;
    CBlanket(const CBlanket&) = delete;
    CBlanket& operator=(const CBlanket&) = delete;

    STDMETHODIMP QueryBlanket(IUnknown*, DWORD* pAuthnSvc, DWORD* pAuthzSvc, OLECHAR** pServerPrincName,
                              DWORD* pAuthnLevel, DWORD* pImpLevel, void** pAuthInfo, DWORD* pCapabilities) override
    {
        if (FailsAt(L"QueryBlanket"))
        {
            return WBEM_E_ACCESS_DENIED;
        }
        DWORD dwImpLevel = RPC_C_IMP_LEVEL_IDENTIFY;
        ReadDword(L"ImpersonationLevel", dwImpLevel);
        // Values no fixed blanket would pass: only handing the queried ones back matches them. Every
        // out-parameter is optional; the principal name is the caller's to free.
        const std::wstring principal = L"QcDouble/" + m_BlanketName;
        if (pAuthnSvc)
            *pAuthnSvc = RPC_C_AUTHN_GSS_NEGOTIATE;
        if (pAuthzSvc)
            *pAuthzSvc = RPC_C_AUTHZ_NAME;
        if (pServerPrincName)
        {
            *pServerPrincName = static_cast<OLECHAR*>(CoTaskMemAlloc((principal.size() + 1) * sizeof(wchar_t)));
            if (*pServerPrincName)
                wcscpy(*pServerPrincName, principal.c_str());
        }
        if (pAuthnLevel)
            *pAuthnLevel = RPC_C_AUTHN_LEVEL_PKT_PRIVACY;
        if (pImpLevel)
            *pImpLevel = dwImpLevel;
        if (pAuthInfo)
            *pAuthInfo = &m_Identity;
        if (pCapabilities)
            *pCapabilities = EOAC_STATIC_CLOAKING;
        return S_OK;
    }
    STDMETHODIMP SetBlanket(IUnknown*, DWORD AuthnSvc, DWORD AuthzSvc, OLECHAR* pServerPrincName, DWORD AuthnLevel,
                            DWORD ImpLevel, void* pAuthInfo, DWORD Capabilities) override
    {
        Record(L"SetBlanket " + m_BlanketName + L" authn=" + std::to_wstring(AuthnSvc) + L" authz=" +
               std::to_wstring(AuthzSvc) + L" principal=" + TextOrNull(pServerPrincName) + L" level=" +
               std::to_wstring(AuthnLevel) + L" imp=" + std::to_wstring(ImpLevel) + L" identity=" +
               (pAuthInfo == &m_Identity ? L"queried"
                : pAuthInfo              ? L"other"
                                         : L"null") +
               L" capabilities=" + std::to_wstring(Capabilities));
        return FailsAt(L"SetBlanket") ? static_cast<HRESULT>(WBEM_E_ACCESS_DENIED) : S_OK;
    }
    STDMETHODIMP CopyProxy(IUnknown*, IUnknown**) override { return E_NOTIMPL; }

protected:
    std::wstring m_BlanketName;

private:
    SEC_WINNT_AUTH_IDENTITY_W m_Identity = {};
};

class CComputerSystem : public CObject<CComputerSystem, IWbemClassObject>
{
public:
    explicit CComputerSystem(ULONG index) : CObject(L"Win32_ComputerSystem"), m_Index(index) {}
    void* Find(REFIID riid)
    {
        return (riid == IID_IUnknown || riid == IID_IWbemClassObject) ? static_cast<IWbemClassObject*>(this) : nullptr;
    }

    STDMETHODIMP Get(LPCWSTR wszName, LONG lFlags, VARIANT* pVal, CIMTYPE* pType, LONG* plFlavor) override
    {
        Record(L"Get " + TextOrNull(wszName) + L" flags=" + std::to_wstring(lFlags));
        if (wszName == nullptr || lFlags != 0)
        {
            return WBEM_E_INVALID_PARAMETER;
        }
        if (plFlavor)
            *plFlavor = WBEM_FLAVOR_ORIGIN_PROPAGATED;
        VARIANT value;
        VariantInit(&value);
        CIMTYPE type = CIM_EMPTY;
        DWORD dwNumber = 0;
        std::wstring text;
        if (_wcsicmp(wszName, L"Domain") == 0)
        {
            type = CIM_STRING;
            if (ReadDword(L"DomainCimType", dwNumber))
            {
                // WMI hands a CIM_DATETIME over as a VT_BSTR, like a CIM_STRING; the other types here as a VT_I4.
                type = static_cast<CIMTYPE>(dwNumber);
                V_VT(&value) = type == CIM_DATETIME ? VT_BSTR : VT_I4;
                V_I4(&value) = 0;
                if (type == CIM_DATETIME)
                    V_BSTR(&value) = SysAllocString(ReadString(L"Domain", text) ? text.c_str() : L"");
            }
            else if (m_Index > 0)
            {
                V_VT(&value) = VT_BSTR;
                V_BSTR(&value) = SysAllocString(L"second.example");
            }
            else if (ReadString(L"Domain", text))
            {
                V_VT(&value) = VT_BSTR;
                V_BSTR(&value) = SysAllocString(text.c_str());
            }
            else
            {
                V_VT(&value) = VT_NULL;
            }
        }
        else if (_wcsicmp(wszName, L"PartOfDomain") == 0 && ReadDword(L"PartOfDomain", dwNumber))
        {
            type = CIM_BOOLEAN;
            V_VT(&value) = VT_BOOL;
            V_BOOL(&value) = dwNumber != 0 ? VARIANT_TRUE : VARIANT_FALSE;
        }
        else
        {
            return WBEM_E_NOT_FOUND;
        }
        if (pType)
            *pType = type;
        if (pVal)
            *pVal = value;
        else
            VariantClear(&value);
        return WBEM_S_NO_ERROR;
    }

    STDMETHODIMP GetQualifierSet(IWbemQualifierSet**) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP Put(LPCWSTR, LONG, VARIANT*, CIMTYPE) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP Delete(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP GetNames(LPCWSTR, LONG, VARIANT*, SAFEARRAY**) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP BeginEnumeration(LONG) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP Next(LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP EndEnumeration() override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP Clone(IWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP GetObjectText(LONG, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP SpawnDerivedClass(LONG, IWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP SpawnInstance(LONG, IWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP CompareTo(LONG, IWbemClassObject*) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP GetPropertyOrigin(LPCWSTR, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP InheritsFrom(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP GetMethod(LPCWSTR, LONG, IWbemClassObject**, IWbemClassObject**) override
    {
        return WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP PutMethod(LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*) override
    {
        return WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP DeleteMethod(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP BeginMethodEnumeration(LONG) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP NextMethod(LONG, BSTR*, IWbemClassObject**, IWbemClassObject**) override
    {
        return WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP EndMethodEnumeration() override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP GetMethodOrigin(LPCWSTR, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }

private:
    ULONG m_Index;
};

class CEnumerator : public CObject<CEnumerator, IEnumWbemClassObject, CBlanket>
{
public:
    CEnumerator() : CObject(L"Enumerator")
    {
        m_BlanketName = L"Enumerator";
        DWORD dwInstances = 1;
        ReadDword(L"Instances", dwInstances);
        m_Remaining = dwInstances;
    }
    void* Find(REFIID riid)
    {
        if (riid == IID_IUnknown || riid == IID_IEnumWbemClassObject)
            return static_cast<IEnumWbemClassObject*>(this);
        if (riid == IID_IClientSecurity)
            return static_cast<IClientSecurity*>(this);
        return nullptr;
    }

    STDMETHODIMP Next(LONG lTimeout, ULONG uCount, IWbemClassObject** apObjects, ULONG* puReturned) override
    {
        Record(L"Next timeout=" + std::to_wstring(lTimeout) + L" count=" + std::to_wstring(uCount));
        if (apObjects == nullptr || puReturned == nullptr || uCount != 1)
        {
            return WBEM_E_INVALID_PARAMETER;
        }
        *puReturned = 0;
        if (FailsAt(L"Next"))
        {
            return WBEM_S_TIMEDOUT; // a success code that is neither S_OK nor S_FALSE
        }
        if (m_Remaining == 0)
        {
            return WBEM_S_FALSE;
        }
        apObjects[0] = new CComputerSystem(m_Index++);
        --m_Remaining;
        *puReturned = 1;
        return WBEM_S_NO_ERROR;
    }
    STDMETHODIMP Reset() override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP NextAsync(ULONG, IWbemObjectSink*) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP Clone(IEnumWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    STDMETHODIMP Skip(LONG, ULONG) override { return WBEM_E_NOT_SUPPORTED; }

private:
    ULONG m_Remaining = 0;
    ULONG m_Index = 0;
};

#define QC_NOT_SUPPORTED                                                                                               \
    {                                                                                                                  \
        return WBEM_E_NOT_SUPPORTED;                                                                                   \
    }

class CServices : public CObject<CServices, IWbemServices, CBlanket>
{
public:
    CServices() : CObject(L"Services") { m_BlanketName = L"Services"; }
    void* Find(REFIID riid)
    {
        if (riid == IID_IUnknown || riid == IID_IWbemServices)
            return static_cast<IWbemServices*>(this);
        if (riid == IID_IClientSecurity)
            return static_cast<IClientSecurity*>(this);
        return nullptr;
    }

    STDMETHODIMP ExecQuery(const BSTR strQueryLanguage, const BSTR strQuery, LONG lFlags, IWbemContext* pCtx,
                           IEnumWbemClassObject** ppEnum) override
    {
        Record(L"ExecQuery " + TextOrNull(strQueryLanguage) + L" '" + TextOrNull(strQuery) + L"' flags=" +
               std::to_wstring(lFlags) + L" context=" + (pCtx ? L"set" : L"null"));
        if (ppEnum == nullptr || strQuery == nullptr)
        {
            return WBEM_E_INVALID_PARAMETER;
        }
        *ppEnum = nullptr;
        if (strQueryLanguage == nullptr || _wcsicmp(strQueryLanguage, L"WQL") != 0)
        {
            return WBEM_E_INVALID_QUERY_TYPE;
        }
        if (FailsAt(L"ExecQuery"))
        {
            return WBEM_E_ACCESS_DENIED;
        }
        *ppEnum = new CEnumerator();
        return WBEM_S_NO_ERROR;
    }

    STDMETHODIMP OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**,
                               IWbemCallResult**) override QC_NOT_SUPPORTED STDMETHODIMP
        CancelAsyncCall(IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        QueryObjectSink(LONG, IWbemObjectSink**) override QC_NOT_SUPPORTED STDMETHODIMP
        GetObject(const BSTR, LONG, IWbemContext*, IWbemClassObject**,
                  IWbemCallResult**) override QC_NOT_SUPPORTED STDMETHODIMP
        GetObjectAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) override QC_NOT_SUPPORTED STDMETHODIMP
        PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**) override QC_NOT_SUPPORTED STDMETHODIMP
        DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        CreateClassEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override QC_NOT_SUPPORTED STDMETHODIMP
        CreateClassEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        PutInstance(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) override QC_NOT_SUPPORTED STDMETHODIMP
        PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*,
                         IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        DeleteInstance(const BSTR, LONG, IWbemContext*, IWbemCallResult**) override QC_NOT_SUPPORTED STDMETHODIMP
        DeleteInstanceAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        CreateInstanceEnum(const BSTR, LONG, IWbemContext*,
                           IEnumWbemClassObject**) override QC_NOT_SUPPORTED STDMETHODIMP
        CreateInstanceEnumAsync(const BSTR, LONG, IWbemContext*,
                                IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                       IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*,
                              IEnumWbemClassObject**) override QC_NOT_SUPPORTED STDMETHODIMP
        ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                   IWbemObjectSink*) override QC_NOT_SUPPORTED STDMETHODIMP
        ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*, IWbemClassObject**,
                   IWbemCallResult**) override QC_NOT_SUPPORTED STDMETHODIMP
        ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                        IWbemObjectSink*) override QC_NOT_SUPPORTED
};

class CLocator : public CObject<CLocator, IWbemLocator>
{
public:
    CLocator() : CObject(L"Locator") {}
    void* Find(REFIID riid)
    {
        return (riid == IID_IUnknown || riid == IID_IWbemLocator) ? static_cast<IWbemLocator*>(this) : nullptr;
    }

    STDMETHODIMP ConnectServer(const BSTR strNetworkResource, const BSTR strUser, const BSTR strPassword,
                               const BSTR strLocale, LONG lSecurityFlags, const BSTR strAuthority, IWbemContext* pCtx,
                               IWbemServices** ppNamespace) override
    {
        Record(L"ConnectServer " + TextOrNull(strNetworkResource) + L" user=" + TextOrNull(strUser) + L" password=" +
               TextOrNull(strPassword) + L" locale=" + TextOrNull(strLocale) + L" flags=" +
               std::to_wstring(lSecurityFlags) + L" authority=" + TextOrNull(strAuthority) + L" context=" +
               (pCtx ? L"set" : L"null"));
        if (ppNamespace == nullptr || strNetworkResource == nullptr)
        {
            return WBEM_E_INVALID_PARAMETER;
        }
        *ppNamespace = nullptr;
        if (FailsAt(L"ConnectServer"))
        {
            // What the failed RPC call leaves behind on the thread.
            SetLastError(ERROR_ACCESS_DENIED);
            return WBEM_E_ACCESS_DENIED;
        }
        if (_wcsicmp(strNetworkResource, L"ROOT\\CIMV2") != 0)
        {
            return WBEM_E_INVALID_NAMESPACE;
        }
        *ppNamespace = new CServices();
        return WBEM_S_NO_ERROR;
    }
};

// ---- directory object picker --------------------------------------------------

// Owns the selection's global memory: a STGMEDIUM naming it as pUnkForRelease
// is released through it instead of freeing the memory itself.
class CSelectionMemory : public CObject<CSelectionMemory, IUnknown>
{
public:
    explicit CSelectionMemory(HGLOBAL hMemory) : CObject(L"Selection medium"), m_hMemory(hMemory) {}
    ~CSelectionMemory() override { GlobalFree(m_hMemory); }
    void* Find(REFIID riid) { return riid == IID_IUnknown ? static_cast<IUnknown*>(this) : nullptr; }

private:
    HGLOBAL m_hMemory;
};

class CSelection : public CObject<CSelection, IDataObject>
{
public:
    explicit CSelection(std::vector<std::wstring> paths) : CObject(L"Selection"), m_Paths(std::move(paths)) {}
    void* Find(REFIID riid)
    {
        return (riid == IID_IUnknown || riid == IID_IDataObject) ? static_cast<IDataObject*>(this) : nullptr;
    }

    STDMETHODIMP GetData(FORMATETC* pFormat, STGMEDIUM* pMedium) override
    {
        if (pFormat == nullptr || pMedium == nullptr)
        {
            return E_INVALIDARG;
        }
        // The one format the picker offers; DV_E_FORMATETC stands for every mismatch.
        if (pFormat->cfFormat != RegisterClipboardFormatW(CFSTR_DSOP_DS_SELECTION_LIST) ||
            (pFormat->tymed & TYMED_HGLOBAL) == 0 || pFormat->dwAspect != DVASPECT_CONTENT || pFormat->lindex != -1)
        {
            return DV_E_FORMATETC;
        }
        // The records first, then the strings they point to, in one fixed block.
        const size_t cbRecords = offsetof(DS_SELECTION_LIST, aDsSelection) + m_Paths.size() * sizeof(DS_SELECTION);
        size_t cbTotal = cbRecords;
        for (const std::wstring& path : m_Paths)
        {
            cbTotal += (path.size() + 1) * sizeof(wchar_t);
        }
        HGLOBAL hMemory = GlobalAlloc(GMEM_FIXED | GMEM_ZEROINIT, cbTotal);
        if (hMemory == nullptr)
        {
            return E_OUTOFMEMORY;
        }
        auto* pList = static_cast<DS_SELECTION_LIST*>(static_cast<void*>(hMemory));
        pList->cItems = static_cast<ULONG>(m_Paths.size());
        pList->cFetchedAttributes = 0;
        DS_SELECTION* pSelections = pList->aDsSelection;
        auto* pText = reinterpret_cast<wchar_t*>(static_cast<BYTE*>(static_cast<void*>(hMemory)) + cbRecords);
        for (size_t i = 0; i < m_Paths.size(); ++i)
        {
            pSelections[i].flScopeType = DSOP_SCOPE_TYPE_UPLEVEL_JOINED_DOMAIN;
            if (m_Paths[i] != L"(null)")
            {
                wcscpy(pText, m_Paths[i].c_str());
                pSelections[i].pwzADsPath = pText;
            }
            pText += m_Paths[i].size() + 1;
        }
        pMedium->tymed = TYMED_HGLOBAL;
        pMedium->hGlobal = hMemory;
        pMedium->pUnkForRelease = new CSelectionMemory(hMemory);
        return S_OK;
    }
    STDMETHODIMP GetDataHere(FORMATETC*, STGMEDIUM*) override { return E_NOTIMPL; }
    STDMETHODIMP QueryGetData(FORMATETC*) override { return E_NOTIMPL; }
    STDMETHODIMP GetCanonicalFormatEtc(FORMATETC*, FORMATETC*) override { return E_NOTIMPL; }
    STDMETHODIMP SetData(FORMATETC*, STGMEDIUM*, BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP EnumFormatEtc(DWORD, IEnumFORMATETC**) override { return E_NOTIMPL; }
    STDMETHODIMP DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) override { return OLE_E_ADVISENOTSUPPORTED; }
    STDMETHODIMP DUnadvise(DWORD) override { return OLE_E_ADVISENOTSUPPORTED; }
    STDMETHODIMP EnumDAdvise(IEnumSTATDATA**) override { return OLE_E_ADVISENOTSUPPORTED; }

private:
    std::vector<std::wstring> m_Paths;
};

// The mixed- and native-mode filters, the domain controller and the path show only when set.
std::wstring DescribeScope(const DSOP_SCOPE_INIT_INFO& scope)
{
    const DSOP_UPLEVEL_FILTER_FLAGS& uplevel = scope.FilterFlags.Uplevel;
    const bool bMore = uplevel.flMixedModeOnly != 0 || uplevel.flNativeModeOnly != 0 || scope.pwzDcName != nullptr ||
                       scope.pwzADsPath != nullptr;
    return L"scope size=" + std::wstring(scope.cbSize == sizeof(scope) ? L"ok" : std::to_wstring(scope.cbSize)) +
           L" type=" + Hex(scope.flType) + L" scope=" + Hex(scope.flScope) + L" both=" + Hex(uplevel.flBothModes) +
           L" downlevel=" + Hex(scope.FilterFlags.flDownlevel) + (bMore ? L" more=set" : L"");
}

class CPicker : public CObject<CPicker, IDsObjectPicker>
{
public:
    CPicker() : CObject(L"Picker") {}
    void* Find(REFIID riid)
    {
        return (riid == IID_IUnknown || riid == IID_IDsObjectPicker) ? static_cast<IDsObjectPicker*>(this) : nullptr;
    }

    STDMETHODIMP Initialize(PDSOP_INIT_INFO pInitInfo) override
    {
        if (pInitInfo == nullptr || pInitInfo->cbSize != sizeof(DSOP_INIT_INFO) || pInitInfo->cDsScopeInfos == 0 ||
            pInitInfo->aDsScopeInfos == nullptr)
        {
            Record(L"Initialize refused");
            return E_INVALIDARG;
        }
        Record(L"Initialize scopes=" + std::to_wstring(pInitInfo->cDsScopeInfos) + L" target=" +
               TextOrNull(pInitInfo->pwzTargetComputer) + L" options=" + Hex(pInitInfo->flOptions) + L" attributes=" +
               std::to_wstring(pInitInfo->cAttributesToFetch));
        for (ULONG i = 0; i < pInitInfo->cDsScopeInfos; ++i)
        {
            Record(DescribeScope(pInitInfo->aDsScopeInfos[i]));
        }
        m_bInitialized = true;
        return S_OK;
    }

    STDMETHODIMP InvokeDialog(HWND hwndParent, IDataObject** ppdoSelections) override
    {
        // The parent by its window class: the wizard's or a standard dialog.
        wchar_t className[64] = L"null";
        GetClassNameW(hwndParent, className, 64);
        Record(std::wstring(L"InvokeDialog parent=") + className);
        if (ppdoSelections == nullptr)
        {
            return E_POINTER;
        }
        *ppdoSelections = nullptr;
        if (!m_bInitialized)
        {
            return E_UNEXPECTED;
        }
        if (FailsAt(L"InvokeDialog"))
        {
            return E_ACCESSDENIED;
        }
        DWORD dwCancel = 0;
        if (ReadDword(L"Cancel", dwCancel) && dwCancel != 0)
        {
            return S_FALSE;
        }
        std::wstring text;
        ReadString(L"Selection", text);
        std::vector<std::wstring> paths;
        std::wstringstream selection(text);
        for (std::wstring path; std::getline(selection, path, L';');)
        {
            paths.push_back(path);
        }
        *ppdoSelections = new CSelection(paths);
        return S_OK;
    }

private:
    bool m_bInitialized = false;
};

// ---- server -------------------------------------------------------------------

class CFactory : public IClassFactory
{
public:
    explicit CFactory(bool bPicker) : m_bPicker(bPicker) {}
    virtual ~CFactory() = default;
    CFactory(const CFactory&) = delete;
    CFactory& operator=(const CFactory&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
            return E_POINTER;
        *ppv = (riid == IID_IUnknown || riid == IID_IClassFactory) ? static_cast<IClassFactory*>(this) : nullptr;
        return *ppv != nullptr ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP CreateInstance(IUnknown* pOuter, REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
            return E_POINTER;
        *ppv = nullptr;
        if (pOuter != nullptr)
            return CLASS_E_NOAGGREGATION;
        IUnknown* pObject = m_bPicker ? static_cast<IUnknown*>(static_cast<IDsObjectPicker*>(new CPicker()))
                                      : static_cast<IUnknown*>(static_cast<IWbemLocator*>(new CLocator()));
        const HRESULT hResult = pObject->QueryInterface(riid, ppv);
        pObject->Release();
        return hResult;
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }

private:
    bool m_bPicker;
};

CFactory g_LocatorFactory(false);
CFactory g_PickerFactory(true);

} // namespace

extern "C" HRESULT __stdcall DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv)
{
    if (rclsid == CLSID_WbemLocator)
        return g_LocatorFactory.QueryInterface(riid, ppv);
    if (rclsid == CLSID_DsObjectPicker)
        return g_PickerFactory.QueryInterface(riid, ppv);
    return CLASS_E_CLASSNOTAVAILABLE;
}

// Never unloaded: the test program ends first.
extern "C" HRESULT __stdcall DllCanUnloadNow()
{
    return S_FALSE;
}
