// The engine's public entry points, the import of its PKCS #12 blobs into a
// system store and the look-up of an issuer certificate by name. Everything
// logs through QcCryptLog.
#include "certificates/Certificates.h"

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <utility>

#include "certificates/QcCryptLog.h"

namespace Quillcast::Certificates {

using System::Types::CCertContext;
using System::Types::CCertStoreHandle;
using System::Types::CCryptProvider;
using System::Types::CProcessHeapPtr;
using System::Types::CWipedProcessHeapPtr;

namespace {

constexpr DWORD kStoreEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

unsigned LogAddress(const void* pAddress) noexcept
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pAddress));
}

int LastError() noexcept
{
    return static_cast<int>(::GetLastError());
}

bool IsEmpty(const wchar_t* pszText) noexcept
{
    return pszText == nullptr || *pszText == L'\0';
}

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
        for (PCCERT_CONTEXT pCertificate = ::CertEnumCertificatesInStore(m_hImported, nullptr);
             pCertificate != nullptr; pCertificate = ::CertEnumCertificatesInStore(m_hImported, pCertificate))
        {
            DWORD cbInfo = 0;
            if (!::CertGetCertificateContextProperty(pCertificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &cbInfo))
            {
                continue;
            }
            CProcessHeapPtr<CRYPT_KEY_PROV_INFO> info(
                static_cast<CRYPT_KEY_PROV_INFO*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, cbInfo)));
            if (info && ::CertGetCertificateContextProperty(pCertificate, CERT_KEY_PROV_INFO_PROP_ID, info.Get(),
                                                            &cbInfo))
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

void InitializeCreateCertificateParams(CreateCertificateParams* pParam) noexcept
{
    // "ERROR" in the first entry is intentional: it is written on every call,
    // and at error level, as installers' log readers have always seen it.
    QcCryptLog(L"InitializeCreateCertificateParams ERROR(pParam = %X)", LogAddress(pParam));
    if (pParam == nullptr)
    {
        return;
    }
    QcCryptLog(L"InitializeCreateCertificateParams(pParam->dwSize = %d | Expected = %d)",
               static_cast<int>(pParam->dwSize), static_cast<int>(kCreateCertificateParamsSize));
    if (pParam->dwSize < kCreateCertificateParamsSize)
    {
        return;
    }
    QcCryptLog(L"InternalInitializeCreateCertificateParams()");
    const DWORD dwSize = pParam->dwSize;
    ::memset(pParam, 0, dwSize);
    pParam->dwSize = dwSize;
    pParam->dwKeyType = AT_KEYEXCHANGE;
    ::GetSystemTime(&pParam->stValidTo);
    pParam->stValidTo.wYear = static_cast<WORD>(pParam->stValidTo.wYear + 1);
    pParam->dwHashAlgorithm = 1;
    pParam->bSelfSigned = 1;
    pParam->nProviderIndex = -1;
}

int32_t CreateCertificate(CreateCertificateParams* pParam) noexcept
{
    QcCryptLog(L"CreateCertificate(pParam = %X)", LogAddress(pParam));
    if (pParam == nullptr)
    {
        return -1;
    }
    QcCryptLog(L"CreateCertificate(pParam->dwSize = %d | Expected = %d)", static_cast<int>(pParam->dwSize),
               static_cast<int>(kCreateCertificateParamsSize));
    if (pParam->dwSize < kCreateCertificateParamsSize)
    {
        return -1;
    }
    return InternalCreateCertificate(pParam);
}

void FreeCertificateMemory(void* pCertMem) noexcept
{
    QcCryptLog(L"FreeCertificateMemory(pCertMem = %X)", LogAddress(pCertMem));
    // The blob carries a private key: wiped before the heap takes it back.
    CWipedProcessHeapPtr<BYTE> pfx(static_cast<BYTE*>(pCertMem));
}

int32_t ImportCertificate(ImportCertificateParams* pParam) noexcept
{
    QcCryptLog(L"ImportCertificate(pParam = %X)", LogAddress(pParam));
    if (pParam == nullptr)
    {
        return -1;
    }
    QcCryptLog(L"ImportCertificate(pParam->dwSize = %d | Expected = %d)", static_cast<int>(pParam->dwSize),
               static_cast<int>(kImportCertificateParamsSize));
    if (pParam->dwSize < kImportCertificateParamsSize)
    {
        return -1;
    }
    return InternalImportCertificate(pParam);
}

int32_t InternalImportCertificate(ImportCertificateParams* pParam) noexcept
{
    QcCryptLog(L"InternalImportCertificate()");
    if (pParam->pbPfx == nullptr || pParam->cbPfx == 0 || IsEmpty(pParam->pszStoreName))
    {
        QcCryptLog(L"InternalImportCertificate() - ERROR: Got invalid parameters.");
        return -1;
    }
    CRYPT_DATA_BLOB pfx{pParam->cbPfx, pParam->pbPfx};
    const DWORD dwFlags = (pParam->dwStoreLocation == 0 ? CRYPT_USER_KEYSET : CRYPT_MACHINE_KEYSET) |
                          (pParam->bExportable != 0 ? CRYPT_EXPORTABLE : 0);
    CCertStoreHandle imported(::PFXImportCertStore(&pfx, nullptr, dwFlags));
    if (!imported)
    {
        QcCryptLog(L"InternalImportCertificate() - ERROR: PFXImportCertStore failed (%d).", LastError());
        return -7;
    }
    CImportedKeys importedKeys(imported.Get());

    CCertContext certificate(::CertEnumCertificatesInStore(imported.Get(), nullptr));
    if (!certificate)
    {
        QcCryptLog(L"InternalImportCertificate() - ERROR: CertEnumCertificatesInStore failed (%d).", LastError());
        return -2;
    }
    if (::CertVerifyTimeValidity(nullptr, certificate.Get()->pCertInfo) != 0)
    {
        QcCryptLog(L"InternalImportCertificate() - ERROR: CertVerifyTimeValidity failed.");
        return -8;
    }
    CCertStoreHandle target(::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, kStoreEncoding, 0,
                                            StoreLocationFlag(pParam->dwStoreLocation), pParam->pszStoreName));
    if (!target)
    {
        QcCryptLog(L"InternalImportCertificate() - ERROR: CertOpenStore failed (%d).", LastError());
        return -2;
    }
    if (!::CertAddCertificateContextToStore(target.Get(), certificate.Get(), CERT_STORE_ADD_REPLACE_EXISTING,
                                            nullptr))
    {
        QcCryptLog(L"InternalImportCertificate() - ERROR: CertAddCertificateContextToStore failed (%d).",
                   LastError());
        return -2;
    }
    importedKeys.Dismiss();
    target.Reset();
    certificate.Reset();
    imported.Reset();
    return 0;
}

CCertContext FindCertificate(const wchar_t* pszName, const wchar_t* pszStoreName, DWORD dwLocationFlags,
                             CProcessHeapPtr<CRYPT_DATA_BLOB>* pKeyIdentifier, CCryptProvider* pIssuerProvider,
                             DWORD* pdwIssuerKeySpec) noexcept
{
    QcCryptLog(L"FindCertificate()");
    if (pszName == nullptr || pszStoreName == nullptr || pKeyIdentifier == nullptr || pIssuerProvider == nullptr ||
        pdwIssuerKeySpec == nullptr)
    {
        QcCryptLog(L"FindCertificate() - ERROR: invalid parameters specified.");
        return CCertContext();
    }
    pKeyIdentifier->Reset();
    pIssuerProvider->Reset();

    CCertStoreHandle store(
        ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, kStoreEncoding, 0, dwLocationFlags, pszStoreName));
    if (!store)
    {
        QcCryptLog(L"FindCertificate() - ERROR: CertOpenStore failed (%d).", LastError());
        return CCertContext();
    }
    // The first namesake that is valid now: expired and future ones are passed over.
    CCertContext certificate;
    for (PCCERT_CONTEXT pCandidate = ::CertEnumCertificatesInStore(store.Get(), nullptr); pCandidate != nullptr;
         pCandidate = ::CertEnumCertificatesInStore(store.Get(), pCandidate))
    {
        if (IsCertNameEqualTo(pCandidate, pszName) && ::CertVerifyTimeValidity(nullptr, pCandidate->pCertInfo) == 0)
        {
            certificate.Reset(pCandidate);
            break;
        }
    }
    if (!certificate)
    {
        QcCryptLog(L"FindCertificate() - ERROR: valid certificate '%s' not found.", pszName);
        return CCertContext();
    }

    DWORD cbInfo = 0;
    if (!::CertGetCertificateContextProperty(certificate.Get(), CERT_KEY_PROV_INFO_PROP_ID, nullptr, &cbInfo))
    {
        QcCryptLog(L"FindCertificate() - ERROR: CertGetCertificateContextProperty1 failed (Error=%d).", LastError());
        return CCertContext();
    }
    CProcessHeapPtr<CRYPT_KEY_PROV_INFO> keyProvInfo(QcAllocAs<CRYPT_KEY_PROV_INFO>(cbInfo));
    if (!keyProvInfo)
    {
        QcCryptLog(L"FindCertificate() - ERROR: QcAlloc failed (%d).", LastError());
        return CCertContext();
    }
    if (!::CertGetCertificateContextProperty(certificate.Get(), CERT_KEY_PROV_INFO_PROP_ID, keyProvInfo.Get(),
                                             &cbInfo))
    {
        QcCryptLog(L"FindCertificate() - ERROR: CertGetCertificateContextProperty2 failed (Error=%d).", LastError());
        return CCertContext();
    }
    const CRYPT_KEY_PROV_INFO& info = *keyProvInfo.Get();
    const DWORD dwFlags = (dwLocationFlags == CERT_SYSTEM_STORE_LOCAL_MACHINE ||
                           dwLocationFlags == CERT_SYSTEM_STORE_SERVICES)
                              ? CRYPT_MACHINE_KEYSET
                              : 0;
    if (!::CryptAcquireContextW(pIssuerProvider->Put(), info.pwszContainerName, info.pwszProvName, info.dwProvType,
                                dwFlags))
    {
        QcCryptLog(L"FindCertificate() - ERROR: CryptAcquireContext failed (Error=%d).", LastError());
        return CCertContext();
    }
    *pdwIssuerKeySpec = info.dwKeySpec;

    // Without a readable subject key identifier the identifier stays null.
    const CERT_INFO& certInfo = *certificate.Get()->pCertInfo;
    const CERT_EXTENSION* pExtension =
        ::CertFindExtension(szOID_SUBJECT_KEY_IDENTIFIER, certInfo.cExtension, certInfo.rgExtension);
    DWORD cbKeyIdentifier = 0;
    if (pExtension != nullptr &&
        ::CryptDecodeObject(kStoreEncoding, X509_OCTET_STRING, pExtension->Value.pbData, pExtension->Value.cbData, 0,
                            nullptr, &cbKeyIdentifier))
    {
        CProcessHeapPtr<CRYPT_DATA_BLOB> keyIdentifier(QcAllocAs<CRYPT_DATA_BLOB>(cbKeyIdentifier));
        if (keyIdentifier &&
            ::CryptDecodeObject(kStoreEncoding, X509_OCTET_STRING, pExtension->Value.pbData,
                                pExtension->Value.cbData, 0, keyIdentifier.Get(), &cbKeyIdentifier))
        {
            *pKeyIdentifier = std::move(keyIdentifier);
        }
    }
    store.Reset();
    return certificate;
}

bool IsCertNameEqualTo(PCCERT_CONTEXT pCertificate, const wchar_t* pszName) noexcept
{
    QcCryptLog(L"IsCertNameEqualTo()");
    const DWORD dwLength = ::CertGetNameStringW(pCertificate, CERT_NAME_SIMPLE_DISPLAY_TYPE,
                                                CERT_NAME_DISABLE_IE4_UTF8_FLAG, nullptr, nullptr, 0);
    if (dwLength == 0)
    {
        QcCryptLog(L"IsCertNameEqualTo() - ERROR: Acquire name length failed (%d).", LastError());
        return false;
    }
    CProcessHeapPtr<wchar_t> name(QcAllocAs<wchar_t>(2 * static_cast<size_t>(dwLength) + 2));
    if (!name)
    {
        QcCryptLog(L"IsCertNameEqualTo() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    if (::CertGetNameStringW(pCertificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, CERT_NAME_DISABLE_IE4_UTF8_FLAG, nullptr,
                             name.Get(), dwLength + 1) != dwLength)
    {
        QcCryptLog(L"IsCertNameEqualTo() - ERROR: CertGetNameString failed (%d).", LastError());
        return false;
    }
    return pszName != nullptr && ::wcscmp(name.Get(), pszName) == 0;
}

} // namespace Quillcast::Certificates
