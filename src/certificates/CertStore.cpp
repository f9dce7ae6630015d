#include "certificates/CertStore.h"

#include <cwchar>

#include "certificates/CertName.h"
#include "logging/Log.h"

namespace Quillcast::Certificates {

namespace {

constexpr wchar_t kLogSource[] = L"CertStore";

bool IsEmpty(const wchar_t* pszText) noexcept
{
    return pszText == nullptr || *pszText == L'\0';
}

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
    m_hStore = ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                               CERT_SYSTEM_STORE_LOCAL_MACHINE, pszStoreName);
    if (m_hStore == nullptr)
    {
        SetLastErrorCode(::GetLastError());
        QC_LOG_ERROR(kLogSource) << L"CertOpenStore failed with error " << LastError();
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
    if (m_hStore == nullptr)
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
        SetLastErrorCode(::GetLastError());
        QC_LOG_ERROR(kLogSource) << L"CertDeleteCertificateFromStore failed with error " << LastError();
        return false;
    }
    // A registry-backed system store may keep a delete in its cache until it is
    // committed (Wine does until the store is committed); committing makes the
    // removal final before the action reports it.
    if (!::CertControlStore(m_hStore, 0, CERT_STORE_CTRL_COMMIT, nullptr))
    {
        SetLastErrorCode(::GetLastError());
        QC_LOG_ERROR(kLogSource) << L"CertControlStore failed with error " << LastError();
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
    for (PCCERT_CONTEXT pCertificate = ::CertEnumCertificatesInStore(m_hStore, nullptr); pCertificate != nullptr;
         pCertificate = ::CertEnumCertificatesInStore(m_hStore, pCertificate))
    {
        if (Equals(CCertName::OfSubject(pCertificate), pszName))
        {
            // Only the first match goes: one root per uninstall.
            return Delete(pCertificate);
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
    // Unlike DeleteBySubject, every match goes; the walk starts over after each
    // delete because the deleted context cannot lead the enumeration on.
    PCCERT_CONTEXT pCertificate = ::CertEnumCertificatesInStore(m_hStore, nullptr);
    while (pCertificate != nullptr)
    {
        if (Equals(CCertName::OfEncodedName(pCertificate->pCertInfo->Issuer), pszName))
        {
            if (!Delete(pCertificate))
            {
                return false;
            }
            pCertificate = ::CertEnumCertificatesInStore(m_hStore, nullptr);
        }
        else
        {
            pCertificate = ::CertEnumCertificatesInStore(m_hStore, pCertificate);
        }
    }
    return true;
}

void CCertStore::Close() noexcept
{
    if (m_hStore == nullptr)
    {
        return;
    }
    if (!::CertCloseStore(m_hStore, 0))
    {
        QC_LOG_ERROR(kLogSource) << L"CertCloseStore failed with error " << ::GetLastError();
    }
    m_hStore = nullptr;
}

} // namespace Quillcast::Certificates
