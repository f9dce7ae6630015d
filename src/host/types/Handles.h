#pragma once

#include <windows.h>
#include <msi.h>

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
using CLocalMemory = CUniqueHandle<HLOCAL, CloseWith<HLOCAL, ::LocalFree>>;
// A module from LoadLibrary.
using CModule = CUniqueHandle<HMODULE, CloseWith<HMODULE, ::FreeLibrary>>;
// A Service Control Manager or service handle, released the documented way.
using CServiceHandle = CUniqueHandle<SC_HANDLE, CloseWith<SC_HANDLE, ::CloseServiceHandle>>;
// CloseHandle, not CloseServiceHandle, is intentional: the service controller
// releases its handles this way (on Wine the call fails and the handle stays open).
using CServiceHandleClosedByCloseHandle = CUniqueHandle<SC_HANDLE, CloseWith<SC_HANDLE, ::CloseHandle>>;
// Memory from HeapAlloc on GetProcessHeap().
template <typename T>
using CProcessHeapPtr = CUniqueHandle<T*, ProcessHeapTraits<T>>;

} // namespace Quillcast::System::Types

// A lock on the memory of a selection handed over by COM.
namespace Quillcast::System::Types {

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
