#pragma once

#include <windows.h>

#include <cstddef>

// The certificate engine's log routine and allocator.
namespace Quillcast::Certificates {

// Formats a printf-style message (Microsoft meaning: %s is a wide string) and
// logs it (source "QcCryptLog") as an error when it contains "ERROR", else as
// information. A null or empty format sets the last error to 87 and logs an
// empty entry.
void QcCryptLog(const wchar_t* pszFormat, ...) noexcept;

// Zero-filled memory from the process heap (release it with HeapFree, or hold
// it in CProcessHeapPtr); null after the logged failure
// "QcAlloc() - ERROR: Memory allocation failed (<size> bytes).".
void* QcAlloc(size_t size) noexcept;

template <typename T>
T* QcAllocAs(size_t size) noexcept
{
    return static_cast<T*>(QcAlloc(size));
}

} // namespace Quillcast::Certificates
