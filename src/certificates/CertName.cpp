#include "certificates/CertName.h"

#include "logging/LogHelpers.h"

namespace Quillcast::Certificates {

namespace {

constexpr Logging::CLogSource kLogSource{L"CertName", 0};

// Zeroed characters in `name`: what CCertName's reads allocate.
auto AllocateIn(System::Types::CWideBuffer& name) noexcept
{
    return [&name](DWORD cchName) { return name.Allocate(cchName) ? name.Data() : nullptr; };
}

} // namespace

DWORD CCertName::SubjectName(PCCERT_CONTEXT pCertificate, wchar_t* pszName, DWORD cchName) noexcept
{
    return ::CertGetNameStringW(pCertificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, CERT_NAME_DISABLE_IE4_UTF8_FLAG, nullptr,
                                pszName, cchName);
}

System::Types::CWideBuffer CCertName::OfSubject(PCCERT_CONTEXT pCertificate) noexcept
{
    if (pCertificate == nullptr)
    {
        return System::Types::CWideBuffer();
    }
    System::Types::CWideBuffer name;
    const bool bRead = ReadSubject(pCertificate, AllocateIn(name), [](CertNameStep step) {
        if (step == CertNameStep::Length)
        {
            QC_LOG_LAST_ERROR(kLogSource, L"CertGetNameString(1) failed with error ");
        }
        else if (step == CertNameStep::Text)
        {
            QC_LOG_LAST_ERROR(kLogSource, L"CertGetNameString(2) failed with error ");
        }
    });
    return bRead ? name : System::Types::CWideBuffer();
}

System::Types::CWideBuffer CCertName::OfEncodedName(const CERT_NAME_BLOB& name) noexcept
{
    CERT_NAME_BLOB blob = name;
    const auto query = [&blob](wchar_t* pszName, DWORD cchName) {
        return ::CertNameToStrW(X509_ASN_ENCODING, &blob, CERT_SIMPLE_NAME_STR, pszName, cchName);
    };
    System::Types::CWideBuffer text;
    const bool bRead = Read(query, AllocateIn(text), [](CertNameStep step) {
        if (step == CertNameStep::Length)
        {
            QC_LOG_LAST_ERROR(kLogSource, L"CertNameToStr(1) failed with error ");
        }
        else if (step == CertNameStep::Text)
        {
            QC_LOG_LAST_ERROR(kLogSource, L"CertNameToStr(2) failed with error ");
        }
    });
    return bRead ? text : System::Types::CWideBuffer();
}

} // namespace Quillcast::Certificates
