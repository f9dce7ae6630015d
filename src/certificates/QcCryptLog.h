#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>

#include "logging/Log.h"

// The certificate engine's log routine and allocator. Every file of the engine
// logs as "QcCryptLog", each with a line base of its own, so that a printed
// line leads to one file: 1000 QcCryptLog.cpp, 2000 CertificateCreation.cpp,
// 3000 CertificateSigning.cpp, 4000 CertificateImport.cpp.
namespace Quillcast::Certificates {

// Formats a printf-style message (Microsoft meaning: %s is a wide string) and
// logs it from `source` at `line`, as an error when it contains "ERROR", else
// as information. A null or empty format sets the last error to 87 and logs an
// empty entry. Called through QC_CRYPT_LOG, which passes the calling file's
// kLogSource and the line of the call.
void QcCryptLog(const Logging::CLogSource& source, uint32_t line, const wchar_t* pszFormat, ...) noexcept;

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

// QC_CRYPT_LOG(L"FindCertificate() - ERROR: CertOpenStore failed (%d).", LastError());
#define QC_CRYPT_LOG(...) ::Quillcast::Certificates::QcCryptLog(kLogSource, __LINE__, __VA_ARGS__)
