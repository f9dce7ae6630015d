#include "certificates/CertName.h"

#include "logging/Log.h"

namespace Quillcast::Certificates {

namespace {

constexpr wchar_t kLogSource[] = L"CertName";

// The two-call pattern both name kinds share: the length (terminator included),
// then the text into a buffer of that many characters plus one; the second
// answer must repeat the first.
template <typename TQuery>
System::Types::CWideBuffer QueryName(TQuery query, const wchar_t* pszFirstFailure,
                                     const wchar_t* pszSecondFailure) noexcept
{
    System::Types::CWideBuffer name;
    const DWORD dwLength = query(nullptr, 0);
    if (dwLength == 0)
    {
        QC_LOG_ERROR(kLogSource) << pszFirstFailure << ::GetLastError();
        return name;
    }
    if (!name.Allocate(dwLength + 1))
    {
        return name;
    }
    if (query(name.Data(), dwLength + 1) != dwLength)
    {
        QC_LOG_ERROR(kLogSource) << pszSecondFailure << ::GetLastError();
        return System::Types::CWideBuffer();
    }
    return name;
}

} // namespace

System::Types::CWideBuffer CCertName::OfSubject(PCCERT_CONTEXT pCertificate) noexcept
{
    if (pCertificate == nullptr)
    {
        return System::Types::CWideBuffer();
    }
    return QueryName(
        [pCertificate](wchar_t* pszName, DWORD cchName) {
            return ::CertGetNameStringW(pCertificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, CERT_NAME_DISABLE_IE4_UTF8_FLAG,
                                        nullptr, pszName, cchName);
        },
        L"CertGetNameString(1) failed with error ", L"CertGetNameString(2) failed with error ");
}

System::Types::CWideBuffer CCertName::OfEncodedName(const CERT_NAME_BLOB& name) noexcept
{
    CERT_NAME_BLOB blob = name;
    return QueryName(
        [&blob](wchar_t* pszName, DWORD cchName) {
            return ::CertNameToStrW(X509_ASN_ENCODING, &blob, CERT_SIMPLE_NAME_STR, pszName, cchName);
        },
        L"CertNameToStr(1) failed with error ", L"CertNameToStr(2) failed with error ");
}

} // namespace Quillcast::Certificates
