// The creation engine's later steps: the key and the certificate's fields,
// its extensions with the look-up of the issuer, the signature and the PKCS #12
// export.
#include <objbase.h>

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <utility>

#include "certificates/CertName.h"
#include "certificates/CertificateEnvironment.h"
#include "certificates/CertificateHelpers.h"
#include "certificates/QcCryptLog.h"
#include "certificates/StoreCertificates.h"

namespace Quillcast::Certificates {

using System::Types::CCertContext;
using System::Types::CCertStoreHandle;
using System::Types::CCryptProvider;
using System::Types::CProcessHeapPtr;

namespace {

constexpr Logging::CLogSource kLogSource{L"QcCryptLog", 3000}; // the engine's line bases: QcCryptLog.h
constexpr DWORD kStoreEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

} // namespace

namespace Engine {

namespace {

constexpr DWORD kPreferredKeyBits = 2048;

// 2048 bits where the provider allows them for this key type, else its largest
// (Microsoft's Base provider: 1024 for key exchange keys); 2048 when the
// provider does not say.
DWORD KeyLength(const CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept
{
    const HCRYPTPROV hProv = environment.newContainer.Get();
    const ALG_ID algorithm = param.dwKeyType == AT_SIGNATURE ? CALG_RSA_SIGN : CALG_RSA_KEYX;
    PROV_ENUMALGS_EX info{};
    DWORD cbInfo = sizeof(info);
    for (DWORD dwFlags = CRYPT_FIRST;
         ::CryptGetProvParam(hProv, PP_ENUMALGS_EX, reinterpret_cast<BYTE*>(&info), &cbInfo, dwFlags);
         dwFlags = CRYPT_NEXT, cbInfo = sizeof(info))
    {
        if (info.aiAlgid == algorithm && info.dwMaxLen != 0)
        {
            return info.dwMaxLen < kPreferredKeyBits ? info.dwMaxLen : kPreferredKeyBits;
        }
    }
    return kPreferredKeyBits;
}

} // namespace

bool PrepareCertificateParams(CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept
{
    QC_CRYPT_LOG(L"PrepareCertificateParams()");
    const HCRYPTPROV hProv = environment.newContainer.Get();
    const DWORD dwKeyBits = KeyLength(environment, param);
    if (!::CryptGenKey(hProv, param.dwKeyType, (dwKeyBits << 16) | CRYPT_EXPORTABLE, environment.key.Put()))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CryptGenKey failed (%d).", LastError());
        return false;
    }
    CERT_INFO& certInfo = environment.certInfo;
    certInfo.dwVersion = CERT_V3;

    GUID serial{};
    static_assert(sizeof(serial) == sizeof(environment.serialNumber));
    const HRESULT hr = ::CoCreateGuid(&serial);
    if (SUCCEEDED(hr))
    {
        ::memcpy(environment.serialNumber, &serial, sizeof(serial));
    }
    else
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CoCreateGuid failed (%d) -> fallback to CryptGenRandom.",
                     static_cast<int>(hr));
        if (!::CryptGenRandom(hProv, sizeof(environment.serialNumber), environment.serialNumber))
        {
            QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CryptGenRandom failed (%d).", LastError());
            return false;
        }
    }
    certInfo.SerialNumber.cbData = sizeof(environment.serialNumber);
    certInfo.SerialNumber.pbData = environment.serialNumber;

    certInfo.SignatureAlgorithm.pszObjId =
        const_cast<LPSTR>(param.dwHashAlgorithm == 1 ? szOID_RSA_MD5RSA : szOID_RSA_SHA1RSA);

    // Valid from this moment: no back-dating.
    SYSTEMTIME now{};
    ::GetSystemTime(&now);
    if (!::SystemTimeToFileTime(&now, &certInfo.NotBefore))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: SystemTimeToFileTime1 failed (%d).", LastError());
        return false;
    }
    if (!::SystemTimeToFileTime(&param.stValidTo, &certInfo.NotAfter))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: SystemTimeToFileTime2 failed (%d).", LastError());
        return false;
    }

    DWORD cbInfo = 0;
    if (!::CryptExportPublicKeyInfo(hProv, param.dwKeyType, X509_ASN_ENCODING, nullptr, &cbInfo))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CryptExportPublicKeyInfo1 failed (%d).", LastError());
        return false;
    }
    environment.publicKeyInfo.Reset(QcAllocAs<CERT_PUBLIC_KEY_INFO>(cbInfo));
    if (!environment.publicKeyInfo)
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    if (!::CryptExportPublicKeyInfo(hProv, param.dwKeyType, X509_ASN_ENCODING, environment.publicKeyInfo.Get(),
                                    &cbInfo))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CryptExportPublicKeyInfo2 failed (%d).", LastError());
        return false;
    }
    environment.cbPublicKeyInfo = cbInfo;
    certInfo.SubjectPublicKeyInfo = *environment.publicKeyInfo.Get();

    // Deliberately the SHA-1 of the whole exported buffer (the structure, its
    // pointers included, and the data behind it), not of the encoded key: every
    // identifier made so far was computed this way.
    if (!::CryptCreateHash(hProv, CALG_SHA1, 0, 0, environment.hash.Put()))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CryptCreateHash failed (%d).", LastError());
        return false;
    }
    if (!::CryptHashData(environment.hash.Get(), reinterpret_cast<const BYTE*>(environment.publicKeyInfo.Get()),
                         environment.cbPublicKeyInfo, 0))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CryptHashData failed (%d).", LastError());
        return false;
    }
    DWORD cbHash = 0;
    if (!::CryptGetHashParam(environment.hash.Get(), HP_HASHVAL, nullptr, &cbHash, 0))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CryptGetHashParam1 failed (%d).", LastError());
        return false;
    }
    // A hash longer than SHA-1's 20 bytes does not fit and fails the second call.
    cbHash = cbHash < sizeof(environment.subjectKeyIdentifier) ? cbHash : sizeof(environment.subjectKeyIdentifier);
    if (!::CryptGetHashParam(environment.hash.Get(), HP_HASHVAL, environment.subjectKeyIdentifier, &cbHash, 0))
    {
        QC_CRYPT_LOG(L"PrepareCertificateParams() - ERROR: CryptGetHashParam2 failed (%d).", LastError());
        return false;
    }
    environment.cbSubjectKeyIdentifier = cbHash;
    return true;
}

namespace {

// One extension to encode: `firstCall` numbers the size query in the error
// text, the next number the encoding itself; `line` is the line of the
// AddExtension call, which its entries carry.
struct ExtensionEncoding
{
    const char* pszOid;
    LPCSTR pszStructType;
    int firstCall;
    const wchar_t* pszAllocFailure;
    uint32_t line;
};

// Encodes one non-critical extension into its own buffer and appends it.
bool AddExtension(CertificateEnvironment& environment, const ExtensionEncoding& encoding, const void* pvStruct) noexcept
{
    constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
    constexpr wchar_t kEncodeFailed[] = L"PrepareCertificateExtensions() - ERROR: CryptEncodeObject%d failed (%d).";
    DWORD cbEncoded = 0;
    if (!::CryptEncodeObject(kEncoding, encoding.pszStructType, pvStruct, nullptr, &cbEncoded))
    {
        QcCryptLog(kLogSource, encoding.line, kEncodeFailed, encoding.firstCall, LastError());
        return false;
    }
    System::Types::CProcessHeapPtr<BYTE>& value = environment.extensionValues[environment.cExtensions];
    value.Reset(QcAllocAs<BYTE>(cbEncoded));
    if (!value)
    {
        QcCryptLog(kLogSource, encoding.line, encoding.pszAllocFailure, LastError());
        return false;
    }
    if (!::CryptEncodeObject(kEncoding, encoding.pszStructType, pvStruct, value.Get(), &cbEncoded))
    {
        QcCryptLog(kLogSource, encoding.line, kEncodeFailed, encoding.firstCall + 1, LastError());
        return false;
    }
    CERT_EXTENSION& extension = environment.extensions[environment.cExtensions++];
    extension.pszObjId = const_cast<LPSTR>(encoding.pszOid);
    extension.fCritical = FALSE;
    extension.Value.cbData = cbEncoded;
    extension.Value.pbData = value.Get();
    return true;
}

} // namespace

bool PrepareCertificateExtensions(CertificateEnvironment& environment, const CreateCertificateParams& param,
                                  DWORD dwLocationFlags) noexcept
{
    QC_CRYPT_LOG(L"PrepareCertificateExtensions()");
    constexpr wchar_t kQcAllocFailed[] = L"PrepareCertificateExtensions() - ERROR: QcAlloc failed (%d).";
    // The word differs for the last extension's buffer only: it always has in the installers' logs.
    constexpr wchar_t kMallocFailed[] = L"PrepareCertificateExtensions() - ERROR: malloc failed (%d).";
    CERT_INFO& certInfo = environment.certInfo;
    const bool bSelfSigned = param.bSelfSigned != 0;

    if (bSelfSigned)
    {
        certInfo.Issuer = certInfo.Subject;
    }
    else
    {
        environment.issuerCertificate =
            FindCertificate(param.pszIssuerName, param.pszIssuerStore, dwLocationFlags,
                            &environment.issuerKeyIdentifier, &environment.issuerProvider, &environment.issuerKeySpec);
        if (!environment.issuerCertificate)
        {
            QC_CRYPT_LOG(L"PrepareCertificateExtensions() - ERROR: FindCertificate failed.");
            return false;
        }
        certInfo.Issuer = environment.issuerCertificate.Get()->pCertInfo->Subject;
    }

    CRYPT_DATA_BLOB subjectKeyIdentifier{environment.cbSubjectKeyIdentifier, environment.subjectKeyIdentifier};
    if (!AddExtension(environment, {szOID_SUBJECT_KEY_IDENTIFIER, X509_OCTET_STRING, 1, kQcAllocFailed, __LINE__},
                      &subjectKeyIdentifier))
    {
        return false;
    }

    BYTE keyUsage = param.dwKeyType == AT_SIGNATURE
                        ? (CERT_DIGITAL_SIGNATURE_KEY_USAGE | CERT_NON_REPUDIATION_KEY_USAGE |
                           CERT_KEY_CERT_SIGN_KEY_USAGE | CERT_CRL_SIGN_KEY_USAGE)
                        : (CERT_DIGITAL_SIGNATURE_KEY_USAGE | CERT_KEY_ENCIPHERMENT_KEY_USAGE |
                           CERT_DATA_ENCIPHERMENT_KEY_USAGE | CERT_KEY_AGREEMENT_KEY_USAGE);
    static_assert((CERT_DIGITAL_SIGNATURE_KEY_USAGE | CERT_NON_REPUDIATION_KEY_USAGE | CERT_KEY_CERT_SIGN_KEY_USAGE |
                   CERT_CRL_SIGN_KEY_USAGE) == 0xC6);
    static_assert((CERT_DIGITAL_SIGNATURE_KEY_USAGE | CERT_KEY_ENCIPHERMENT_KEY_USAGE |
                   CERT_DATA_ENCIPHERMENT_KEY_USAGE | CERT_KEY_AGREEMENT_KEY_USAGE) == 0xB8);
    CRYPT_BIT_BLOB keyUsageBits{1, &keyUsage, 0};
    if (!AddExtension(environment, {szOID_KEY_USAGE, X509_KEY_USAGE, 3, kQcAllocFailed, __LINE__}, &keyUsageBits))
    {
        return false;
    }

    if (environment.enhancedKeyUsage.cUsageIdentifier > 0 &&
        !AddExtension(environment, {szOID_ENHANCED_KEY_USAGE, X509_ENHANCED_KEY_USAGE, 5, kQcAllocFailed, __LINE__},
                      &environment.enhancedKeyUsage))
    {
        return false;
    }

    environment.basicConstraints.fCA = bSelfSigned ? TRUE : FALSE;
    environment.basicConstraints.fPathLenConstraint = bSelfSigned ? TRUE : FALSE;
    environment.basicConstraints.dwPathLenConstraint = bSelfSigned ? 1 : 0;
    if (!AddExtension(environment, {szOID_BASIC_CONSTRAINTS2, X509_BASIC_CONSTRAINTS2, 7, kQcAllocFailed, __LINE__},
                      &environment.basicConstraints))
    {
        return false;
    }

    // The older authority key identifier (2.5.29.1) on purpose: the clients
    // that trust these roots have always been given this one.
    CERT_AUTHORITY_KEY_ID_INFO& authorityKeyId = environment.authorityKeyId;
    if (bSelfSigned)
    {
        authorityKeyId.KeyId = subjectKeyIdentifier;
        authorityKeyId.CertIssuer = certInfo.Issuer;
        authorityKeyId.CertSerialNumber = certInfo.SerialNumber;
    }
    else if (environment.issuerKeyIdentifier)
    {
        const CERT_INFO& issuerInfo = *environment.issuerCertificate.Get()->pCertInfo;
        authorityKeyId.KeyId = *environment.issuerKeyIdentifier.Get();
        authorityKeyId.CertIssuer = issuerInfo.Issuer;
        authorityKeyId.CertSerialNumber = issuerInfo.SerialNumber;
    }
    else
    {
        certInfo.cExtension = environment.cExtensions;
        certInfo.rgExtension = environment.extensions;
        return true;
    }
    if (!AddExtension(environment, {szOID_AUTHORITY_KEY_IDENTIFIER, X509_AUTHORITY_KEY_ID, 9, kMallocFailed, __LINE__},
                      &authorityKeyId))
    {
        return false;
    }
    certInfo.cExtension = environment.cExtensions;
    certInfo.rgExtension = environment.extensions;
    return true;
}

bool CreateCertAndConvertToPFX(CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept
{
    QC_CRYPT_LOG(L"CreateCertAndConvertToPFX()");
    // Issuer-signed: the issuer's key and the issuer certificate's own
    // algorithm sign, while the to-be-signed part keeps the requested one.
    const bool bSelfSigned = param.bSelfSigned != 0;
    const HCRYPTPROV hSigner = bSelfSigned ? environment.newContainer.Get() : environment.issuerProvider.Get();
    const DWORD dwSignerKeySpec = bSelfSigned ? param.dwKeyType : environment.issuerKeySpec;
    CRYPT_ALGORITHM_IDENTIFIER* pAlgorithm = bSelfSigned
                                                 ? &environment.certInfo.SignatureAlgorithm
                                                 : &environment.issuerCertificate.Get()->pCertInfo->SignatureAlgorithm;
    const int firstCall = bSelfSigned ? 1 : 3;

    DWORD cbEncoded = 0;
    if (!::CryptSignAndEncodeCertificate(hSigner, dwSignerKeySpec, X509_ASN_ENCODING, X509_CERT_TO_BE_SIGNED,
                                         &environment.certInfo, pAlgorithm, nullptr, nullptr, &cbEncoded))
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: CryptSignAndEncodeCertificate%d failed (%d).", firstCall,
                     LastError());
        return false;
    }
    environment.encodedCertificate.Reset(QcAllocAs<BYTE>(cbEncoded));
    if (!environment.encodedCertificate)
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    if (!::CryptSignAndEncodeCertificate(hSigner, dwSignerKeySpec, X509_ASN_ENCODING, X509_CERT_TO_BE_SIGNED,
                                         &environment.certInfo, pAlgorithm, nullptr,
                                         environment.encodedCertificate.Get(), &cbEncoded))
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: CryptSignAndEncodeCertificate%d failed (%d).",
                     firstCall + 1, LastError());
        return false;
    }
    environment.cbEncodedCertificate = cbEncoded;

    environment.memoryStore.Reset(::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
    if (!environment.memoryStore)
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: CertOpenStore failed (%d).", LastError());
        return false;
    }
    if (!::CertAddEncodedCertificateToStore(environment.memoryStore.Get(), X509_ASN_ENCODING,
                                            environment.encodedCertificate.Get(), cbEncoded,
                                            CERT_STORE_ADD_REPLACE_EXISTING, environment.memoryCertificate.Put()))
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: CertAddEncodedCertificateToStore1 failed (%d).",
                     LastError());
        return false;
    }

    CRYPT_KEY_PROV_INFO keyProvInfo{};
    keyProvInfo.pwszContainerName = reinterpret_cast<LPWSTR>(environment.containerName.Get());
    keyProvInfo.pwszProvName = environment.providerName;
    keyProvInfo.dwProvType = environment.providerType;
    keyProvInfo.dwFlags = 0;
    keyProvInfo.cProvParam = 0;
    keyProvInfo.rgProvParam = nullptr;
    keyProvInfo.dwKeySpec = param.dwKeyType;
    if (!::CertSetCertificateContextProperty(environment.memoryCertificate.Get(), CERT_KEY_PROV_INFO_PROP_ID, 0,
                                             &keyProvInfo))
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: CertSetCertificateContextProperty failed (%d).",
                     LastError());
        return false;
    }

    CRYPT_DATA_BLOB pfx{0, nullptr};
    if (!::PFXExportCertStoreEx(environment.memoryStore.Get(), &pfx, nullptr, nullptr, EXPORT_PRIVATE_KEYS))
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: PFXExportCertStoreEx1 failed (%d).", LastError());
        return false;
    }
    environment.pfx.Reset(QcAllocAs<BYTE>(pfx.cbData));
    if (!environment.pfx)
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    pfx.pbData = environment.pfx.Get();
    if (!::PFXExportCertStoreEx(environment.memoryStore.Get(), &pfx, nullptr, nullptr, EXPORT_PRIVATE_KEYS))
    {
        QC_CRYPT_LOG(L"CreateCertAndConvertToPFX() - ERROR: PFXExportCertStoreEx2 failed (%d).", LastError());
        return false;
    }
    environment.cbPfx = pfx.cbData;
    return true;
}

} // namespace Engine

CCertContext FindCertificate(const wchar_t* pszName, const wchar_t* pszStoreName, DWORD dwLocationFlags,
                             CProcessHeapPtr<CRYPT_DATA_BLOB>* pKeyIdentifier, CCryptProvider* pIssuerProvider,
                             DWORD* pdwIssuerKeySpec) noexcept
{
    QC_CRYPT_LOG(L"FindCertificate()");
    if (pszName == nullptr || pszStoreName == nullptr || pKeyIdentifier == nullptr || pIssuerProvider == nullptr ||
        pdwIssuerKeySpec == nullptr)
    {
        QC_CRYPT_LOG(L"FindCertificate() - ERROR: invalid parameters specified.");
        return CCertContext();
    }
    pKeyIdentifier->Reset();
    pIssuerProvider->Reset();

    CCertStoreHandle store(::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, kStoreEncoding, 0, dwLocationFlags, pszStoreName));
    if (!store)
    {
        QC_CRYPT_LOG(L"FindCertificate() - ERROR: CertOpenStore failed (%d).", LastError());
        return CCertContext();
    }
    // The first namesake that is valid now: expired and future ones are passed over.
    CCertContext certificate;
    CStoreCertificates candidates(store.Get());
    for (PCCERT_CONTEXT pCandidate : candidates)
    {
        if (IsCertNameEqualTo(pCandidate, pszName) && ::CertVerifyTimeValidity(nullptr, pCandidate->pCertInfo) == 0)
        {
            certificate.Reset(candidates.Detach());
            break;
        }
    }
    if (!certificate)
    {
        QC_CRYPT_LOG(L"FindCertificate() - ERROR: valid certificate '%s' not found.", pszName);
        return CCertContext();
    }

    DWORD cbInfo = 0;
    if (!::CertGetCertificateContextProperty(certificate.Get(), CERT_KEY_PROV_INFO_PROP_ID, nullptr, &cbInfo))
    {
        QC_CRYPT_LOG(L"FindCertificate() - ERROR: CertGetCertificateContextProperty1 failed (Error=%d).", LastError());
        return CCertContext();
    }
    CProcessHeapPtr<CRYPT_KEY_PROV_INFO> keyProvInfo(QcAllocAs<CRYPT_KEY_PROV_INFO>(cbInfo));
    if (!keyProvInfo)
    {
        QC_CRYPT_LOG(L"FindCertificate() - ERROR: QcAlloc failed (%d).", LastError());
        return CCertContext();
    }
    if (!::CertGetCertificateContextProperty(certificate.Get(), CERT_KEY_PROV_INFO_PROP_ID, keyProvInfo.Get(), &cbInfo))
    {
        QC_CRYPT_LOG(L"FindCertificate() - ERROR: CertGetCertificateContextProperty2 failed (Error=%d).", LastError());
        return CCertContext();
    }
    const CRYPT_KEY_PROV_INFO& info = *keyProvInfo.Get();
    const DWORD dwFlags =
        (dwLocationFlags == CERT_SYSTEM_STORE_LOCAL_MACHINE || dwLocationFlags == CERT_SYSTEM_STORE_SERVICES)
            ? CRYPT_MACHINE_KEYSET
            : 0;
    if (!::CryptAcquireContextW(pIssuerProvider->Put(), info.pwszContainerName, info.pwszProvName, info.dwProvType,
                                dwFlags))
    {
        QC_CRYPT_LOG(L"FindCertificate() - ERROR: CryptAcquireContext failed (Error=%d).", LastError());
        return CCertContext();
    }
    *pdwIssuerKeySpec = info.dwKeySpec;

    // Without a readable subject key identifier the identifier stays null.
    const CERT_INFO& certInfo = *certificate.Get()->pCertInfo;
    const CERT_EXTENSION* pExtension =
        ::CertFindExtension(szOID_SUBJECT_KEY_IDENTIFIER, certInfo.cExtension, certInfo.rgExtension);
    DWORD cbKeyIdentifier = 0;
    if (pExtension != nullptr && ::CryptDecodeObject(kStoreEncoding, X509_OCTET_STRING, pExtension->Value.pbData,
                                                     pExtension->Value.cbData, 0, nullptr, &cbKeyIdentifier))
    {
        CProcessHeapPtr<CRYPT_DATA_BLOB> keyIdentifier(QcAllocAs<CRYPT_DATA_BLOB>(cbKeyIdentifier));
        if (keyIdentifier && ::CryptDecodeObject(kStoreEncoding, X509_OCTET_STRING, pExtension->Value.pbData,
                                                 pExtension->Value.cbData, 0, keyIdentifier.Get(), &cbKeyIdentifier))
        {
            *pKeyIdentifier = std::move(keyIdentifier);
        }
    }
    // The look-up's last step: the store closes before the certificate is handed out.
    store.Reset();
    return certificate;
}

bool IsCertNameEqualTo(PCCERT_CONTEXT pCertificate, const wchar_t* pszName) noexcept
{
    QC_CRYPT_LOG(L"IsCertNameEqualTo()");
    // CCertName's read of the subject, into QcAlloc memory and with this function's own texts.
    CProcessHeapPtr<wchar_t> name;
    const auto allocate = [&name](DWORD cchName) {
        name.Reset(QcAllocAs<wchar_t>(cchName * sizeof(wchar_t))); // 2 * length + 2 bytes
        return name.Get();
    };
    const bool bRead = CCertName::ReadSubject(pCertificate, allocate, [](CertNameStep step) {
        switch (step)
        {
        case CertNameStep::Length:
            QC_CRYPT_LOG(L"IsCertNameEqualTo() - ERROR: Acquire name length failed (%d).", LastError());
            break;
        case CertNameStep::Allocation:
            QC_CRYPT_LOG(L"IsCertNameEqualTo() - ERROR: QcAlloc failed (%d).", LastError());
            break;
        case CertNameStep::Text:
            QC_CRYPT_LOG(L"IsCertNameEqualTo() - ERROR: CertGetNameString failed (%d).", LastError());
            break;
        }
    });
    return bRead && pszName != nullptr && ::wcscmp(name.Get(), pszName) == 0;
}

} // namespace Quillcast::Certificates
