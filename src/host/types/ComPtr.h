#pragma once

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

namespace Quillcast::System::Types {

// One owner for one COM interface pointer: Release() when replaced or destroyed.
template <typename T>
class CComPtr
{
public:
    CComPtr() noexcept = default;
    CComPtr(const CComPtr&) = delete;
    CComPtr& operator=(const CComPtr&) = delete;
    CComPtr(CComPtr&& other) noexcept : m_pInterface(other.Detach()) {}
    CComPtr& operator=(CComPtr&& other) noexcept
    {
        if (this != &other)
        {
            Reset(other.Detach());
        }
        return *this;
    }
    ~CComPtr() { Reset(); }

    // Takes over a reference the caller already holds.
    void Reset(T* pInterface = nullptr) noexcept
    {
        if (m_pInterface != nullptr)
        {
            m_pInterface->Release();
        }
        m_pInterface = pInterface;
    }
    T* Detach() noexcept
    {
        T* pInterface = m_pInterface;
        m_pInterface = nullptr;
        return pInterface;
    }
    T* Get() const noexcept { return m_pInterface; }
    T* operator->() const noexcept { return m_pInterface; }
    // For out-parameters (CoCreateInstance, get_X): releases what it held first.
    T** Put() noexcept
    {
        Reset();
        return &m_pInterface;
    }
    void** PutVoid() noexcept { return reinterpret_cast<void**>(Put()); }
    explicit operator bool() const noexcept { return m_pInterface != nullptr; }

private:
    T* m_pInterface = nullptr;
};

// One owner for one BSTR (SysFreeString accepts null).
class CBstr
{
public:
    CBstr() noexcept = default;
    // Copies `text`; Get() stays null when the copy cannot be allocated.
    explicit CBstr(const wchar_t* text) noexcept : m_bstr(::SysAllocString(text)) {}
    CBstr(const CBstr&) = delete;
    CBstr& operator=(const CBstr&) = delete;
    ~CBstr() { ::SysFreeString(m_bstr); }

    BSTR Get() const noexcept { return m_bstr; }
    BSTR* Put() noexcept
    {
        ::SysFreeString(m_bstr);
        m_bstr = nullptr;
        return &m_bstr;
    }
    explicit operator bool() const noexcept { return m_bstr != nullptr; }

private:
    BSTR m_bstr = nullptr;
};

// One owner for one VARIANT: initialised on construction, cleared on destruction.
class CVariant
{
public:
    CVariant() noexcept { ::VariantInit(&m_Variant); }
    CVariant(const CVariant&) = delete;
    CVariant& operator=(const CVariant&) = delete;
    ~CVariant() { (void)::VariantClear(&m_Variant); /* nothing to do about a failed clear */ }

    VARIANT* Get() noexcept { return &m_Variant; }
    const VARIANT* Get() const noexcept { return &m_Variant; }
    // Clears what it held and hands out the slot for an out-parameter.
    VARIANT* Put() noexcept
    {
        (void)::VariantClear(&m_Variant);
        return &m_Variant;
    }

private:
    VARIANT m_Variant;
};

// COM initialisation of the calling thread, undone on destruction only when it
// succeeded here (S_OK or S_FALSE). RPC_E_CHANGED_MODE (the thread already runs
// in the other model) is usable but must not be balanced by CoUninitialize.
class CComInitialization
{
public:
    explicit CComInitialization(DWORD dwCoInit) noexcept : m_hResult(::CoInitializeEx(nullptr, dwCoInit)) {}
    // For the wrappers whose documented behaviour also balances an
    // RPC_E_CHANGED_MODE with CoUninitialize (kept on purpose, see their headers).
    CComInitialization(DWORD dwCoInit, bool bUninitializeAfterChangedMode) noexcept
            : m_hResult(::CoInitializeEx(nullptr, dwCoInit)),
              m_bUninitializeAfterChangedMode(bUninitializeAfterChangedMode)
    {
    }
    CComInitialization(const CComInitialization&) = delete;
    CComInitialization& operator=(const CComInitialization&) = delete;
    ~CComInitialization()
    {
        if (UninitializesOnDestruction())
        {
            ::CoUninitialize();
        }
    }

    HRESULT Result() const noexcept { return m_hResult; }
    // True when the destructor calls CoUninitialize.
    bool UninitializesOnDestruction() const noexcept
    {
        return SUCCEEDED(m_hResult) || (m_bUninitializeAfterChangedMode && m_hResult == RPC_E_CHANGED_MODE);
    }
    // True when COM can be used on this thread.
    bool Usable() const noexcept { return SUCCEEDED(m_hResult) || m_hResult == RPC_E_CHANGED_MODE; }

private:
    HRESULT m_hResult;
    bool m_bUninitializeAfterChangedMode = false;
};

} // namespace Quillcast::System::Types

// Guards for the picker's selection and for memory COM hands to the caller.
namespace Quillcast::System::Types {

// One owner for memory from CoTaskMemAlloc (CoTaskMemFree accepts null).
class CCoTaskMemory
{
public:
    explicit CCoTaskMemory(void* pMemory) noexcept : m_pMemory(pMemory) {}
    CCoTaskMemory(const CCoTaskMemory&) = delete;
    CCoTaskMemory& operator=(const CCoTaskMemory&) = delete;
    ~CCoTaskMemory() { ::CoTaskMemFree(m_pMemory); }

private:
    void* m_pMemory;
};

// One owner for one STGMEDIUM filled by IDataObject::GetData: ReleaseStgMedium
// on destruction, only once something was filled in.
class CStgMedium
{
public:
    CStgMedium() noexcept : m_Medium() {}
    CStgMedium(const CStgMedium&) = delete;
    CStgMedium& operator=(const CStgMedium&) = delete;
    ~CStgMedium()
    {
        if (m_Medium.tymed != TYMED_NULL)
        {
            ::ReleaseStgMedium(&m_Medium);
        }
    }

    // For the out-parameter; the medium must not hold anything yet.
    STGMEDIUM* Put() noexcept { return &m_Medium; }
    const STGMEDIUM& Get() const noexcept { return m_Medium; }

private:
    STGMEDIUM m_Medium;
};

} // namespace Quillcast::System::Types
