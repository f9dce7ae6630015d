#pragma once

#include <windows.h>
#include <wincrypt.h>

#include "host/types/WideString.h"

namespace Quillcast::Certificates {

// The step of a name read that failed.
enum class CertNameStep
{
    Length,     // the length query answered 0
    Allocation, // no memory for the name
    Text,       // the read did not answer the length again
};

// Names of certificates as the stores compare them. Each result is empty after
// a failure, which is logged (source "CertName") with the thread's last error.
class CCertName
{
public:
    // The subject's simple display name (CertGetNameStringW,
    // CERT_NAME_SIMPLE_DISPLAY_TYPE, without the IE4 UTF-8 handling); empty
    // without a message for a null certificate.
    static System::Types::CWideBuffer OfSubject(PCCERT_CONTEXT pCertificate) noexcept;
    // An encoded name as a simple name string (CertNameToStrW,
    // CERT_SIMPLE_NAME_STR): a name made of a common name alone reads as that
    // name, without "CN=".
    static System::Types::CWideBuffer OfEncodedName(const CERT_NAME_BLOB& name) noexcept;

    // The subject's name read as OfSubject reads it, for a caller that keeps the
    // name in memory of its own and tells failures with texts of its own:
    // `allocate(cchName)` returns cchName zeroed characters, or null; `fail(step)`
    // hears which step failed, with the failing call's last error still the
    // thread's. True when the name was read. The certificate is not checked for null.
    template <typename TAllocate, typename TFail>
    static bool ReadSubject(PCCERT_CONTEXT pCertificate, TAllocate&& allocate, TFail&& fail) noexcept
    {
        const auto query = [pCertificate](wchar_t* pszName, DWORD cchName) {
            return SubjectName(pCertificate, pszName, cchName);
        };
        return Read(query, allocate, fail);
    }

private:
    // The one CertGetNameStringW call both subject reads make.
    static DWORD SubjectName(PCCERT_CONTEXT pCertificate, wchar_t* pszName, DWORD cchName) noexcept;

    // The two-call pattern both name kinds share: `query(nullptr, 0)` answers
    // the length, terminator included; then the text into a buffer of that many
    // characters plus one, which must answer the same length.
    template <typename TQuery, typename TAllocate, typename TFail>
    static bool Read(const TQuery& query, TAllocate&& allocate, TFail&& fail) noexcept
    {
        const DWORD dwLength = query(nullptr, 0);
        if (dwLength == 0)
        {
            fail(CertNameStep::Length);
            return false;
        }
        wchar_t* pszName = allocate(dwLength + 1);
        if (pszName == nullptr)
        {
            fail(CertNameStep::Allocation);
            return false;
        }
        if (query(pszName, dwLength + 1) != dwLength)
        {
            fail(CertNameStep::Text);
            return false;
        }
        return true;
    }
};

} // namespace Quillcast::Certificates
