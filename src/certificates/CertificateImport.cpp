// The engine's import of its PKCS #12 blobs into a system store.
#include "certificates/Certificates.h"

#include "certificates/CertificateHelpers.h"
#include "certificates/QcCryptLog.h"
#include "certificates/StoreCertificates.h"

namespace Quillcast::Certificates {

using System::Types::CCertContext;
using System::Types::CCertStoreHandle;
using System::Types::CProcessHeapPtr;

namespace {

constexpr Logging::CLogSource kLogSource{L"QcCryptLog", 4000}; // the engine's line bases: QcCryptLog.h
constexpr DWORD kStoreEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// Until dismissed, deletes the key containers that a PKCS #12 import created
// for the certificates of `hImported`: a refused import leaves no private key
// behind on the machine.
class CImportedKeys
{
public:
    explicit CImportedKeys(HCERTSTORE hImported) noexcept : m_hImported(hImported) {}
    CImportedKeys(const CImportedKeys&) = delete;
    CImportedKeys& operator=(const CImportedKeys&) = delete;
    ~CImportedKeys()
    {
        if (m_hImported == nullptr)
        {
            return;
        }
        const DWORD dwError = ::GetLastError();
        for (PCCERT_CONTEXT pCertificate : CStoreCertificates(m_hImported))
        {
            DWORD cbInfo = 0;
            if (!::CertGetCertificateContextProperty(pCertificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &cbInfo))
            {
                continue;
            }
            CProcessHeapPtr<CRYPT_KEY_PROV_INFO> info(
                static_cast<CRYPT_KEY_PROV_INFO*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, cbInfo)));
            if (info &&
                ::CertGetCertificateContextProperty(pCertificate, CERT_KEY_PROV_INFO_PROP_ID, info.Get(), &cbInfo))
            {
                HCRYPTPROV hDeleted = 0;
                (void)::CryptAcquireContextW(&hDeleted, info.Get()->pwszContainerName, info.Get()->pwszProvName,
                                             info.Get()->dwProvType,
                                             (info.Get()->dwFlags & CRYPT_MACHINE_KEYSET) | CRYPT_DELETEKEYSET);
            }
        }
        ::SetLastError(dwError);
    }
    void Dismiss() noexcept { m_hImported = nullptr; }

private:
    HCERTSTORE m_hImported;
};

} // namespace

DWORD StoreLocationFlag(DWORD dwLocation) noexcept
{
    switch (dwLocation)
    {
    case 0:
        return CERT_SYSTEM_STORE_CURRENT_USER;
    case 1:
        return CERT_SYSTEM_STORE_LOCAL_MACHINE;
    case 2:
        return CERT_SYSTEM_STORE_SERVICES;
    default:
        return 0;
    }
}

int32_t ImportCertificate(ImportCertificateParams* pParam) noexcept
{
    QC_CRYPT_LOG(L"ImportCertificate(pParam = %X)", LogAddress(pParam));
    if (pParam == nullptr)
    {
        return -1;
    }
    QC_CRYPT_LOG(L"ImportCertificate(pParam->dwSize = %d | Expected = %d)", static_cast<int>(pParam->dwSize),
                 static_cast<int>(kImportCertificateParamsSize));
    if (pParam->dwSize < kImportCertificateParamsSize)
    {
        return -1;
    }
    return InternalImportCertificate(pParam);
}

int32_t InternalImportCertificate(ImportCertificateParams* pParam) noexcept
{
    QC_CRYPT_LOG(L"InternalImportCertificate()");
    if (pParam->pbPfx == nullptr || pParam->cbPfx == 0 || IsEmpty(pParam->pszStoreName))
    {
        QC_CRYPT_LOG(L"InternalImportCertificate() - ERROR: Got invalid parameters.");
        return -1;
    }
    CRYPT_DATA_BLOB pfx{pParam->cbPfx, pParam->pbPfx};
    const DWORD dwFlags = (pParam->dwStoreLocation == 0 ? CRYPT_USER_KEYSET : CRYPT_MACHINE_KEYSET) |
                          (pParam->bExportable != 0 ? CRYPT_EXPORTABLE : 0);
    CCertStoreHandle imported(::PFXImportCertStore(&pfx, nullptr, dwFlags));
    if (!imported)
    {
        QC_CRYPT_LOG(L"InternalImportCertificate() - ERROR: PFXImportCertStore failed (%d).", LastError());
        return -7;
    }
    CImportedKeys importedKeys(imported.Get());

    CCertContext certificate(::CertEnumCertificatesInStore(imported.Get(), nullptr));
    if (!certificate)
    {
        QC_CRYPT_LOG(L"InternalImportCertificate() - ERROR: CertEnumCertificatesInStore failed (%d).", LastError());
        return -2;
    }
    if (::CertVerifyTimeValidity(nullptr, certificate.Get()->pCertInfo) != 0)
    {
        QC_CRYPT_LOG(L"InternalImportCertificate() - ERROR: CertVerifyTimeValidity failed.");
        return -8;
    }
    CCertStoreHandle target(::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, kStoreEncoding, 0,
                                            StoreLocationFlag(pParam->dwStoreLocation), pParam->pszStoreName));
    if (!target)
    {
        QC_CRYPT_LOG(L"InternalImportCertificate() - ERROR: CertOpenStore failed (%d).", LastError());
        return -2;
    }
    if (!::CertAddCertificateContextToStore(target.Get(), certificate.Get(), CERT_STORE_ADD_REPLACE_EXISTING, nullptr))
    {
        QC_CRYPT_LOG(L"InternalImportCertificate() - ERROR: CertAddCertificateContextToStore failed (%d).",
                     LastError());
        return -2;
    }
    // Released by declaration order: the target store, the certificate, the imported store.
    importedKeys.Dismiss();
    return 0;
}

} // namespace Quillcast::Certificates
