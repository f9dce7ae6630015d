#pragma once

#include <windows.h>
#include <msi.h>
#include <rpc.h>
#include <wincrypt.h>

namespace Quillcast::System::Types {

// One owner for one handle: closes it when replaced or destroyed, keeping the
// thread's last-error value intact so that a failure can still be logged after
// the handle went out of scope.
template <typename THandle, typename TTraits>
class CUniqueHandle
{
public:
    CUniqueHandle() noexcept = default;
    explicit CUniqueHandle(THandle handle) noexcept : m_Handle(handle) {}
    CUniqueHandle(const CUniqueHandle&) = delete;
    CUniqueHandle& operator=(const CUniqueHandle&) = delete;
    CUniqueHandle(CUniqueHandle&& other) noexcept : m_Handle(other.Detach()) {}
    CUniqueHandle& operator=(CUniqueHandle&& other) noexcept
    {
        if (this != &other)
        {
            Reset(other.Detach());
        }
        return *this;
    }
    ~CUniqueHandle() { Reset(); }

    void Reset(THandle handle = TTraits::Invalid()) noexcept
    {
        if (m_Handle != TTraits::Invalid())
        {
            const DWORD dwError = ::GetLastError();
            TTraits::Close(m_Handle);
            ::SetLastError(dwError);
        }
        m_Handle = handle;
    }
    THandle Detach() noexcept
    {
        THandle handle = m_Handle;
        m_Handle = TTraits::Invalid();
        return handle;
    }
    THandle Get() const noexcept { return m_Handle; }
    // For out-parameters: releases what it held and hands out the slot.
    THandle* Put() noexcept
    {
        Reset();
        return &m_Handle;
    }
    explicit operator bool() const noexcept { return m_Handle != TTraits::Invalid(); }

private:
    THandle m_Handle = TTraits::Invalid();
};

// The traits of a handle that is released by one call and is invalid when zero.
template <typename THandle, auto pfnClose>
struct CloseWith
{
    static THandle Invalid() noexcept { return THandle(); }
    static void Close(THandle handle) noexcept { (void)pfnClose(handle); }
};

template <typename T>
struct ProcessHeapTraits
{
    static T* Invalid() noexcept { return nullptr; }
    static void Close(T* memory) noexcept { (void)::HeapFree(::GetProcessHeap(), 0, memory); }
};

using CMsiHandle = CUniqueHandle<MSIHANDLE, CloseWith<MSIHANDLE, ::MsiCloseHandle>>;
using CKernelHandle = CUniqueHandle<HANDLE, CloseWith<HANDLE, ::CloseHandle>>;
using CRegistryKey = CUniqueHandle<HKEY, CloseWith<HKEY, ::RegCloseKey>>;
// A module from LoadLibrary.
using CModule = CUniqueHandle<HMODULE, CloseWith<HMODULE, ::FreeLibrary>>;
// CloseHandle, not CloseServiceHandle, is intentional: the service controller
// releases its handles this way (on Wine the call fails and the handle stays open).
using CServiceHandleClosedByCloseHandle = CUniqueHandle<SC_HANDLE, CloseWith<SC_HANDLE, ::CloseHandle>>;
// Memory from HeapAlloc on GetProcessHeap().
template <typename T>
using CProcessHeapPtr = CUniqueHandle<T*, ProcessHeapTraits<T>>;

// CryptoAPI owners: providers, keys, hashes, certificate stores and contexts,
// RPC strings, and heap blocks that hold secrets.
struct CryptProviderTraits
{
    static HCRYPTPROV Invalid() noexcept { return 0; }
    static void Close(HCRYPTPROV hProv) noexcept { ::CryptReleaseContext(hProv, 0); }
};

struct CryptKeyTraits
{
    static HCRYPTKEY Invalid() noexcept { return 0; }
    static void Close(HCRYPTKEY hKey) noexcept { ::CryptDestroyKey(hKey); }
};

struct CryptHashTraits
{
    static HCRYPTHASH Invalid() noexcept { return 0; }
    static void Close(HCRYPTHASH hHash) noexcept { ::CryptDestroyHash(hHash); }
};

struct CertStoreTraits
{
    static HCERTSTORE Invalid() noexcept { return nullptr; }
    static void Close(HCERTSTORE hStore) noexcept { ::CertCloseStore(hStore, 0); }
};

struct CertContextTraits
{
    static PCCERT_CONTEXT Invalid() noexcept { return nullptr; }
    static void Close(PCCERT_CONTEXT pContext) noexcept { ::CertFreeCertificateContext(pContext); }
};

struct RpcStringTraits
{
    static RPC_WSTR Invalid() noexcept { return nullptr; }
    static void Close(RPC_WSTR pszString) noexcept { ::RpcStringFreeW(&pszString); }
};

// Process-heap memory that may hold key material: overwritten before it is freed.
template <typename T>
struct WipedProcessHeapTraits
{
    static T* Invalid() noexcept { return nullptr; }
    static void Close(T* memory) noexcept
    {
        const SIZE_T size = ::HeapSize(::GetProcessHeap(), 0, memory);
        if (size != static_cast<SIZE_T>(-1))
        {
            ::SecureZeroMemory(memory, size);
        }
        ::HeapFree(::GetProcessHeap(), 0, memory);
    }
};

using CCryptProvider = CUniqueHandle<HCRYPTPROV, CryptProviderTraits>;
using CCryptKey = CUniqueHandle<HCRYPTKEY, CryptKeyTraits>;
using CCryptHash = CUniqueHandle<HCRYPTHASH, CryptHashTraits>;
using CCertStoreHandle = CUniqueHandle<HCERTSTORE, CertStoreTraits>;
using CCertContext = CUniqueHandle<PCCERT_CONTEXT, CertContextTraits>;
using CRpcString = CUniqueHandle<RPC_WSTR, RpcStringTraits>;
template <typename T>
using CWipedProcessHeapPtr = CUniqueHandle<T*, WipedProcessHeapTraits<T>>;

// One owner for a key container this process created: releases the context and
// then deletes the container, so that its private key leaves no trace on disk.
// The name and provider texts are borrowed and must outlive the owner.
class CCryptKeyContainer
{
public:
    CCryptKeyContainer() noexcept = default;
    CCryptKeyContainer(const CCryptKeyContainer&) = delete;
    CCryptKeyContainer& operator=(const CCryptKeyContainer&) = delete;
    ~CCryptKeyContainer() { Reset(); }

    // Takes over a context acquired on a container created with CRYPT_NEWKEYSET.
    void Attach(HCRYPTPROV hProv, const wchar_t* pszContainer, const wchar_t* pszProvider, DWORD dwProvType,
                DWORD dwFlags) noexcept
    {
        Reset();
        m_Provider.Reset(hProv);
        m_pszContainer = pszContainer;
        m_pszProvider = pszProvider;
        m_dwProvType = dwProvType;
        m_dwFlags = dwFlags;
    }
    // Releases the context and deletes the container; keeps the last-error value.
    void Reset() noexcept
    {
        if (!m_Provider)
        {
            return;
        }
        const DWORD dwError = ::GetLastError();
        m_Provider.Reset();
        HCRYPTPROV hDeleted = 0;
        (void)::CryptAcquireContextW(&hDeleted, m_pszContainer, m_pszProvider, m_dwProvType,
                                     m_dwFlags | CRYPT_DELETEKEYSET); // nothing is left to report to
        ::SetLastError(dwError);
    }
    HCRYPTPROV Get() const noexcept { return m_Provider.Get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(m_Provider); }

private:
    CCryptProvider m_Provider;
    const wchar_t* m_pszContainer = nullptr;
    const wchar_t* m_pszProvider = nullptr;
    DWORD m_dwProvType = 0;
    DWORD m_dwFlags = 0;
};

// One use of Winsock: WSAStartup on construction, WSACleanup on destruction
// only when the start succeeded (a failed start must not be balanced). The two
// calls are declared by <windows.h>, or by <winsock2.h> included before it.
class CWinsockInitialization
{
public:
    explicit CWinsockInitialization(WORD wVersion) noexcept : m_iResult(::WSAStartup(wVersion, &m_Data)) {}
    CWinsockInitialization(const CWinsockInitialization&) = delete;
    CWinsockInitialization& operator=(const CWinsockInitialization&) = delete;
    ~CWinsockInitialization()
    {
        if (m_iResult == 0)
        {
            const DWORD dwError = ::GetLastError();
            (void)::WSACleanup(); // nothing is left to report to
            ::SetLastError(dwError);
        }
    }

    // True when Winsock started.
    explicit operator bool() const noexcept { return m_iResult == 0; }

private:
    WSADATA m_Data{};
    int m_iResult;
};

// A lock on global memory (GlobalLock), undone with GlobalUnlock on destruction.
class CGlobalLock
{
public:
    explicit CGlobalLock(HGLOBAL hMemory) noexcept : m_hMemory(hMemory), m_pData(::GlobalLock(hMemory)) {}
    CGlobalLock(const CGlobalLock&) = delete;
    CGlobalLock& operator=(const CGlobalLock&) = delete;
    ~CGlobalLock()
    {
        if (m_pData != nullptr)
        {
            (void)::GlobalUnlock(m_hMemory); // FALSE only tells that the last lock is gone
        }
    }

    void* Get() const noexcept { return m_pData; }

private:
    HGLOBAL m_hMemory;
    void* m_pData;
};

} // namespace Quillcast::System::Types
