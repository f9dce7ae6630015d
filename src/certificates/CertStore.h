#pragma once

#include <windows.h>
#include <wincrypt.h>

#include "host/types/ErrorHandler.h"
#include "host/types/Handles.h"

namespace Quillcast::Certificates {

// One system certificate store of the local machine, opened by name, from which
// certificates are deleted by subject or issuer name. Failures are logged
// (source "CertStore") and reported as false with the Windows error kept as
// LastError(): 87 for a null or empty name, 4317 when no store is open.
class CCertStore : public System::Types::CErrorHandler
{
public:
    CCertStore() noexcept = default;
    CCertStore(const CCertStore&) = delete;
    CCertStore& operator=(const CCertStore&) = delete;
    // Closes through Close(), so that a failing close is logged here too.
    ~CCertStore() override { Close(); }

    // Closes any open store first; always the local-machine location.
    [[nodiscard]] bool Open(const wchar_t* pszStoreName) noexcept;
    // Deletes the first certificate whose subject's simple display name equals
    // `pszName` (case-sensitive). True also when none matches.
    [[nodiscard]] bool DeleteBySubject(const wchar_t* pszName) noexcept;
    // Deletes every certificate whose issuer's simple name equals `pszName`
    // (case-sensitive), starting over after each delete. True also when none matches.
    [[nodiscard]] bool DeleteByIssuer(const wchar_t* pszName) noexcept;
    // CertCloseStore when open; a failure is logged and the handle dropped anyway.
    void Close() noexcept;

private:
    // Null or empty name: 87; no store: 4317.
    bool CanDelete(const wchar_t* pszName) noexcept;
    // Deletes `pCertificate` (taking over its reference) and persists the change.
    bool Delete(PCCERT_CONTEXT pCertificate) noexcept;

    // Released by Close(), which logs a failing CertCloseStore; the guard's own
    // close, which cannot log, only backs it up.
    System::Types::CCertStoreHandle m_Store;
};

} // namespace Quillcast::Certificates
