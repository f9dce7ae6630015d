#include "certificates/CertStore.h"

#include <cwchar>

#include "certificates/CertName.h"
#include "certificates/CertificateHelpers.h"
#include "certificates/StoreCertificates.h"
#include "logging/LogHelpers.h"

namespace Quillcast::Certificates {

namespace {

constexpr Logging::CLogSource kLogSource{L"CertStore", 0};

bool Equals(const System::Types::CWideBuffer& name, const wchar_t* pszName) noexcept
{
    return ::wcscmp(System::Types::Text(name), pszName) == 0;
}

} // namespace

bool CCertStore::Open(const wchar_t* pszStoreName) noexcept
{
    if (IsEmpty(pszStoreName))
    {
        SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return false;
    }
    Close();
    m_Store.Reset(::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                  CERT_SYSTEM_STORE_LOCAL_MACHINE, pszStoreName));
    if (!m_Store)
    {
        SetLastErrorCode(QC_LOG_LAST_ERROR(kLogSource, L"CertOpenStore failed with error "));
        return false;
    }
    return true;
}

bool CCertStore::CanDelete(const wchar_t* pszName) noexcept
{
    if (IsEmpty(pszName))
    {
        SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!m_Store)
    {
        SetLastErrorCode(ERROR_INVALID_OPERATION);
        return false;
    }
    return true;
}

bool CCertStore::Delete(PCCERT_CONTEXT pCertificate) noexcept
{
    // CertDeleteCertificateFromStore frees the context, also when it fails.
    if (!::CertDeleteCertificateFromStore(pCertificate))
    {
        SetLastErrorCode(QC_LOG_LAST_ERROR(kLogSource, L"CertDeleteCertificateFromStore failed with error "));
        return false;
    }
    // A registry-backed system store may keep a delete in its cache until it is
    // committed (Wine does until the store is committed); committing makes the
    // removal final before the action reports it.
    if (!::CertControlStore(m_Store.Get(), 0, CERT_STORE_CTRL_COMMIT, nullptr))
    {
        SetLastErrorCode(QC_LOG_LAST_ERROR(kLogSource, L"CertControlStore failed with error "));
        return false;
    }
    return true;
}

bool CCertStore::DeleteBySubject(const wchar_t* pszName) noexcept
{
    if (!CanDelete(pszName))
    {
        return false;
    }
    CStoreCertificates certificates(m_Store.Get());
    for (PCCERT_CONTEXT pCertificate : certificates)
    {
        if (Equals(CCertName::OfSubject(pCertificate), pszName))
        {
            // Only the first match goes: one root per uninstall.
            return Delete(certificates.Detach());
        }
    }
    return true;
}

bool CCertStore::DeleteByIssuer(const wchar_t* pszName) noexcept
{
    if (!CanDelete(pszName))
    {
        return false;
    }
    // Unlike DeleteBySubject, every match goes: after each delete the walk
    // starts over from the first certificate (see CStoreCertificates::Detach).
    CStoreCertificates certificates(m_Store.Get());
    for (PCCERT_CONTEXT pCertificate : certificates)
    {
        if (Equals(CCertName::OfEncodedName(pCertificate->pCertInfo->Issuer), pszName) &&
            !Delete(certificates.Detach()))
        {
            return false;
        }
    }
    return true;
}

void CCertStore::Close() noexcept
{
    if (m_Store && !::CertCloseStore(m_Store.Detach(), 0))
    {
        QC_LOG_LAST_ERROR(kLogSource, L"CertCloseStore failed with error ");
    }
}

} // namespace Quillcast::Certificates
