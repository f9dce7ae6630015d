// The COM plumbing the tests' in-process servers share: reference counting, a
// class factory, IDispatch without type information (the DLL calls through
// the vtable only), the registry state that lets every process of the prefix
// see one server, and putting a server in the place of a class's registered
// one and back.
#pragma once

#include <windows.h>
#include <objbase.h>

#include <new>
#include <string>
#include <type_traits>

#include "host/types/Handles.h"

// COM objects are deleted through their own class, never through an interface.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace QcTest {

using Quillcast::System::Types::CRegistryKey;

// IUnknown for an object of the interfaces TInterfaces...; Find names the
// interfaces QueryInterface answers (InterfaceOf is the usual answer).
template <typename... TInterfaces>
class CComObject : public TInterfaces...
{
public:
    CComObject() = default;
    virtual ~CComObject() = default;
    CComObject(const CComObject&) = delete;
    CComObject& operator=(const CComObject&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
        {
            return E_POINTER;
        }
        *ppv = Find(riid);
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
    // The pointer for riid, or nullptr when the object does not offer it.
    virtual void* Find(REFIID riid) = 0;

private:
    LONG m_cRef = 1;
};

// The pointer of pObject for riid when riid is one of TInterfaces... (listed
// most derived first), IUnknown, or IDispatch of a dual interface.
template <typename TFirst, typename... TRest, typename TObject>
void* InterfaceOf(TObject* pObject, REFIID riid)
{
    if (riid == IID_IUnknown || riid == __uuidof(TFirst) ||
        (riid == IID_IDispatch && std::is_base_of<IDispatch, TFirst>::value))
    {
        return static_cast<TFirst*>(pObject);
    }
    void* pFound = nullptr;
    ((pFound = pFound != nullptr || riid != __uuidof(TRest) ? pFound : static_cast<TRest*>(pObject)), ...);
    return pFound;
}

// A dual interface whose IDispatch half offers no type information.
template <typename TInterface>
class CNoTypeInfo : public TInterface
{
public:
    STDMETHODIMP GetTypeInfoCount(UINT* pctinfo) override
    {
        if (pctinfo == nullptr)
        {
            return E_POINTER;
        }
        *pctinfo = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return DISP_E_BADINDEX; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
};

// The class object of TObject: static, so its reference count is fixed.
template <typename TObject>
class CClassFactory : public IClassFactory
{
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
        {
            return E_POINTER;
        }
        *ppv = (riid == IID_IUnknown || riid == IID_IClassFactory) ? static_cast<IClassFactory*>(this) : nullptr;
        return *ppv != nullptr ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP CreateInstance(IUnknown* pOuter, REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
        {
            return E_POINTER;
        }
        *ppv = nullptr;
        if (pOuter != nullptr)
        {
            return CLASS_E_NOAGGREGATION;
        }
        TObject* pObject = new (std::nothrow) TObject();
        if (pObject == nullptr)
        {
            return E_OUTOFMEMORY;
        }
        const HRESULT hResult = pObject->QueryInterface(riid, ppv);
        pObject->Release();
        return hResult;
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }
};

// DllGetClassObject's answer for a class served by TObject.
template <typename TObject>
HRESULT ClassObject(REFIID riid, void** ppv)
{
    static CClassFactory<TObject> factory;
    return factory.QueryInterface(riid, ppv);
}

// ---- registry state --------------------------------------------------------

// A text value as stored (an expandable one unexpanded), and its type.
inline bool ReadText(const std::wstring& key, const wchar_t* name, std::wstring& value, DWORD* pType = nullptr)
{
    constexpr DWORD kFlags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
    DWORD cb = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, kFlags, pType, nullptr, &cb) != ERROR_SUCCESS)
    {
        return false;
    }
    std::wstring text(cb / sizeof(wchar_t) + 1, L'\0');
    cb = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, kFlags, pType, &text[0], &cb) != ERROR_SUCCESS)
    {
        return false;
    }
    text.resize(wcslen(text.c_str()));
    value = text;
    return true;
}

inline bool WriteText(const std::wstring& key, const wchar_t* name, const std::wstring& value, DWORD type = REG_SZ)
{
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, type, value.c_str(),
                           static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

inline DWORD ReadDword(const std::wstring& key, const wchar_t* name, DWORD fallback)
{
    DWORD value = 0;
    DWORD cb = sizeof(value);
    return RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_DWORD, nullptr, &value, &cb) == ERROR_SUCCESS
               ? value
               : fallback;
}

// Appends one line to a journal value: the record of the calls a server saw.
inline void AppendLine(const std::wstring& key, const wchar_t* name, const std::wstring& line)
{
    std::wstring journal;
    ReadText(key, name, journal);
    WriteText(key, name, journal + line + L"\n");
}

// ---- registration ----------------------------------------------------------

inline std::wstring ServerKey(REFCLSID clsid)
{
    wchar_t text[40] = {};
    StringFromGUID2(clsid, text, 40);
    return std::wstring(L"Software\\Classes\\CLSID\\") + text + L"\\InprocServer32";
}

// Puts modulePath (threading model Both) in the place of clsid's in-process
// server. The server it replaces is kept under savedKey, unless that is this
// module already, so that a second replacement cannot lose the original.
inline bool ReplaceServer(REFCLSID clsid, const std::wstring& modulePath, const std::wstring& savedKey)
{
    const std::wstring key = ServerKey(clsid);
    const std::wstring saved = savedKey + L"\\" + key.substr(key.find(L'{'), 38);
    std::wstring current;
    DWORD type = REG_SZ;
    const bool bHad = ReadText(key, nullptr, current, &type);
    if (!bHad || _wcsicmp(current.c_str(), modulePath.c_str()) != 0)
    {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, saved.c_str());
        std::wstring model;
        CRegistryKey savedHandle;
        if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, saved.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, savedHandle.Put(),
                            nullptr) != ERROR_SUCCESS ||
            (bHad && !WriteText(saved, L"Server", current, type)) ||
            (ReadText(key, L"ThreadingModel", model) && !WriteText(saved, L"ThreadingModel", model)))
        {
            return false;
        }
    }
    return WriteText(key, nullptr, modulePath) && WriteText(key, L"ThreadingModel", L"Both");
}

// Puts back the server ReplaceServer kept; without one, clsid has no server.
inline bool RestoreServer(REFCLSID clsid, const std::wstring& savedKey)
{
    const std::wstring key = ServerKey(clsid);
    const std::wstring saved = savedKey + L"\\" + key.substr(key.find(L'{'), 38);
    std::wstring server;
    std::wstring model;
    DWORD type = REG_SZ;
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, key.c_str());
    const bool bRestored = !ReadText(saved, L"Server", server, &type) ||
                           (WriteText(key, nullptr, server, type) &&
                            (!ReadText(saved, L"ThreadingModel", model) || WriteText(key, L"ThreadingModel", model)));
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, saved.c_str());
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, saved.c_str());
    return bRestored;
}

} // namespace QcTest
