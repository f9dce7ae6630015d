// The certificate creation engine: one run of InternalCreateCertificate builds
// a fresh RSA key in a key container of its own, an X.509 v3 certificate for
// it and a PKCS #12 blob holding both; the container is deleted again before
// the run returns, so the private key survives only inside the blob.
#include "certificates/QcCryptLog.h"

#include <objbase.h>
#include <rpc.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <new>

#include "certificates/Certificates.h"
#include "logging/Log.h"

namespace Quillcast::Certificates {

using System::Types::CCertContext;
using System::Types::CCertStoreHandle;
using System::Types::CCryptHash;
using System::Types::CCryptKey;
using System::Types::CCryptKeyContainer;
using System::Types::CCryptProvider;
using System::Types::CProcessHeapPtr;
using System::Types::CRegistryKey;
using System::Types::CRpcString;
using System::Types::CWipedProcessHeapPtr;

void QcCryptLog(const wchar_t* pszFormat, ...) noexcept
{
    // Not QcAlloc: its own failure is logged through here.
    CProcessHeapPtr<wchar_t> text;
    if (pszFormat == nullptr || *pszFormat == L'\0')
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
    }
    else
    {
        va_list arguments;
        va_start(arguments, pszFormat);
        const int length = ::_vscwprintf(pszFormat, arguments);
        va_end(arguments);
        if (length >= 0)
        {
            const size_t count = static_cast<size_t>(length) + 1;
            text.Reset(static_cast<wchar_t*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, count * sizeof(wchar_t))));
            if (text)
            {
                va_start(arguments, pszFormat);
                (void)::_vsnwprintf(text.Get(), count, pszFormat, arguments); // measured above: it fits
                va_end(arguments);
            }
        }
    }
    const wchar_t* pszText = text ? text.Get() : L"";
    const uint32_t level =
        ::wcsstr(pszText, L"ERROR") != nullptr ? Logging::LOG_LEVEL_ERROR : Logging::LOG_LEVEL_INFO;
    QC_LOG(level, L"QcCryptLog") << pszText;
}

void* QcAlloc(size_t size) noexcept
{
    void* pMemory = ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, size);
    if (pMemory == nullptr)
    {
        QcCryptLog(L"QcAlloc() - ERROR: Memory allocation failed (%d bytes).", static_cast<int>(size));
    }
    return pMemory;
}

namespace {

constexpr wchar_t kBaseProvider[] = L"Microsoft Base Cryptographic Provider v1.0";
constexpr wchar_t kScratchContainer[] = L"QcTeMp";
constexpr wchar_t kProviderListKey[] = L"SOFTWARE\\Microsoft\\Cryptography\\Defaults\\Provider";
constexpr DWORD kProviderNameLength = 1024;
constexpr DWORD kMaxExtensions = 5;
constexpr DWORD kPreferredKeyBits = 2048;

struct Purpose
{
    DWORD dwBit;
    const char* pszOid;
};

// The extended-key-usage list follows this order, whatever order the bits have.
constexpr Purpose kPurposes[] = {
    {0x01, "1.3.6.1.5.5.7.3.1"}, // server authentication
    {0x02, "1.3.6.1.5.5.7.3.2"}, // client authentication
    {0x04, "1.3.6.1.5.5.7.3.3"}, // code signing
    {0x08, "1.3.6.1.5.5.7.3.4"}, // secure e-mail
    {0x10, "1.3.6.1.5.5.7.3.8"}, // time stamping
};

// The working context of one run. Members only own; ~CertificateEnvironment
// releases them in the one order that keeps every reference valid and deletes
// the key containers last but one.
struct CertificateEnvironment
{
    CertificateEnvironment() = default;
    CertificateEnvironment(const CertificateEnvironment&) = delete;
    CertificateEnvironment& operator=(const CertificateEnvironment&) = delete;
    ~CertificateEnvironment()
    {
        memoryCertificate.Reset();
        memoryStore.Reset();
        encodedCertificate.Reset();
        for (CProcessHeapPtr<BYTE>& value : extensionValues)
        {
            value.Reset();
        }
        issuerCertificate.Reset();
        issuerProvider.Reset();
        hash.Reset();
        publicKeyInfo.Reset();
        key.Reset();
        newContainer.Reset();
        containerName.Reset();
        scratchContainer.Reset();
        purposes.Reset();
        subject.Reset();
        subjectName.Reset();
        issuerKeyIdentifier.Reset();
    }

    CERT_BASIC_CONSTRAINTS2_INFO basicConstraints{};
    CERT_AUTHORITY_KEY_ID_INFO authorityKeyId{};
    CERT_ENHKEY_USAGE enhancedKeyUsage{};
    BYTE subjectKeyIdentifier[20] = {};
    DWORD cbSubjectKeyIdentifier = 0;
    CERT_EXTENSION extensions[kMaxExtensions] = {};
    CProcessHeapPtr<BYTE> extensionValues[kMaxExtensions];
    DWORD cExtensions = 0;
    CProcessHeapPtr<wchar_t> subject; // "CN=" + the subject name
    CProcessHeapPtr<BYTE> subjectName;
    DWORD cbSubjectName = 0;
    CERT_INFO certInfo{};
    BYTE containerBytes[16] = {};
    CRpcString containerName;
    wchar_t providerName[kProviderNameLength] = {};
    DWORD providerType = PROV_RSA_FULL;
    CCryptKeyContainer scratchContainer;
    CCryptKeyContainer newContainer;
    CCryptKey key;
    CCryptHash hash;
    CCryptProvider issuerProvider;
    DWORD issuerKeySpec = 0;
    CCertContext issuerCertificate;
    CProcessHeapPtr<CRYPT_DATA_BLOB> issuerKeyIdentifier;
    CCertStoreHandle memoryStore;
    CCertContext memoryCertificate;
    CProcessHeapPtr<const char*> purposes;
    CProcessHeapPtr<CERT_PUBLIC_KEY_INFO> publicKeyInfo;
    DWORD cbPublicKeyInfo = 0;
    CProcessHeapPtr<BYTE> encodedCertificate;
    DWORD cbEncodedCertificate = 0;
    CWipedProcessHeapPtr<BYTE> pfx;
    DWORD cbPfx = 0;
    BYTE serialNumber[16] = {};
};

// The context lives in QcAlloc memory, so that a failed allocation is logged like every other.
struct EnvironmentDeleter
{
    void operator()(CertificateEnvironment* pEnvironment) const noexcept
    {
        pEnvironment->~CertificateEnvironment();
        ::HeapFree(::GetProcessHeap(), 0, pEnvironment);
    }
};
using EnvironmentPtr = std::unique_ptr<CertificateEnvironment, EnvironmentDeleter>;

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

EnvironmentPtr InitializeCreateEnvironment(const CreateCertificateParams& param) noexcept
{
    QcCryptLog(L"InitializeCreateEnvironment()");
    void* pMemory = QcAlloc(sizeof(CertificateEnvironment));
    if (pMemory == nullptr)
    {
        return nullptr;
    }
    EnvironmentPtr environment(new (pMemory) CertificateEnvironment());
    environment->providerType = PROV_RSA_FULL;
    ::wcscpy(environment->providerName, kBaseProvider);
    if (IsEmpty(param.pszSubjectName))
    {
        return nullptr;
    }
    const size_t length = ::wcslen(param.pszSubjectName) + 4;
    environment->subject.Reset(QcAllocAs<wchar_t>(length * sizeof(wchar_t)));
    if (!environment->subject)
    {
        return nullptr;
    }
    ::wcscat(environment->subject.Get(), L"CN=");
    ::wcscat(environment->subject.Get(), param.pszSubjectName);
    return environment;
}

bool CheckParameters(const CreateCertificateParams& param) noexcept
{
    QcCryptLog(L"CheckParameters(pParam = %X)", LogAddress(&param));
    if (param.dwKeyType != AT_KEYEXCHANGE && param.dwKeyType != AT_SIGNATURE)
    {
        QcCryptLog(L"CheckParameters() - ERROR: Invalid keytype specified.");
        return false;
    }
    if (param.dwPurposes > 31)
    {
        QcCryptLog(L"CheckParameters() - ERROR: Invalid purposes bitmask specified.");
        return false;
    }
    if (param.nProviderIndex < -1)
    {
        QcCryptLog(L"CheckParameters() - ERROR: Invalid encryption provider index specified.");
        return false;
    }
    if (param.bSelfSigned == 0)
    {
        if (IsEmpty(param.pszIssuerName))
        {
            QcCryptLog(L"CheckParameters() - ERROR: Invalid issuer certificate name specified.");
            return false;
        }
        if (IsEmpty(param.pszIssuerStore))
        {
            QcCryptLog(L"CheckParameters() - ERROR: Invalid issuer certificate store specified.");
            return false;
        }
    }
    return true;
}

// The provider at `index` of the machine's provider list: its sub-key name and "Type".
bool GetCryptProvider(int32_t index, wchar_t* pszName, DWORD* pdwType) noexcept
{
    QcCryptLog(L"GetCryptProvider(dwIndex == %d)", index);
    if (index < 0 || pszName == nullptr || pdwType == nullptr)
    {
        QcCryptLog(L"GetCryptProvider() - ERROR: Invalid parameters specified.");
        return false;
    }
    CRegistryKey providers;
    LSTATUS status = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProviderListKey, 0, KEY_READ, providers.Put());
    if (status != ERROR_SUCCESS)
    {
        QcCryptLog(L"GetCryptProvider() - ERROR: Can't open main regkey (Error=%d).", static_cast<int>(status));
        return false;
    }
    DWORD cchName = kProviderNameLength;
    status = ::RegEnumKeyExW(providers.Get(), static_cast<DWORD>(index), pszName, &cchName, nullptr, nullptr,
                             nullptr, nullptr);
    if (status != ERROR_SUCCESS)
    {
        QcCryptLog(L"GetCryptProvider() - ERROR: RegEnumKeyEx failed (Error=%d).", static_cast<int>(status));
        return false;
    }
    CRegistryKey provider;
    status = ::RegOpenKeyExW(providers.Get(), pszName, 0, KEY_READ, provider.Put());
    if (status != ERROR_SUCCESS)
    {
        QcCryptLog(L"GetCryptProvider() - ERROR: Open provider key failed (Error=%d).", static_cast<int>(status));
        return false;
    }
    DWORD dwType = 0;
    DWORD cbType = sizeof(dwType);
    status = ::RegGetValueW(provider.Get(), nullptr, L"Type", RRF_RT_REG_DWORD, nullptr, &dwType, &cbType);
    if (status != ERROR_SUCCESS)
    {
        QcCryptLog(L"GetCryptProvider() - ERROR: Query of provider type failed (Error=%d).", static_cast<int>(status));
        return false;
    }
    *pdwType = dwType;
    return true;
}

bool ConvertCertNameToBlob(CertificateEnvironment& environment) noexcept
{
    QcCryptLog(L"ConvertCertNameToBlob()");
    DWORD cbName = 0;
    if (!::CertStrToNameW(X509_ASN_ENCODING, environment.subject.Get(), CERT_X500_NAME_STR, nullptr, nullptr,
                          &cbName, nullptr))
    {
        QcCryptLog(L"ConvertCertNameToBlob() - ERROR: CertStrToName1 failed (%d).", LastError());
        return false;
    }
    environment.subjectName.Reset(QcAllocAs<BYTE>(cbName));
    if (!environment.subjectName)
    {
        QcCryptLog(L"ConvertCertNameToBlob() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    if (!::CertStrToNameW(X509_ASN_ENCODING, environment.subject.Get(), CERT_X500_NAME_STR, nullptr,
                          environment.subjectName.Get(), &cbName, nullptr))
    {
        QcCryptLog(L"ConvertCertNameToBlob() - ERROR: CertStrToName2 failed (%d).", LastError());
        return false;
    }
    environment.cbSubjectName = cbName;
    environment.certInfo.Subject.cbData = cbName;
    environment.certInfo.Subject.pbData = environment.subjectName.Get();
    return true;
}

bool PreparePurposes(CertificateEnvironment& environment, DWORD dwPurposes) noexcept
{
    QcCryptLog(L"PreparePurposes()");
    DWORD count = 0;
    for (const Purpose& purpose : kPurposes)
    {
        if ((dwPurposes & purpose.dwBit) == purpose.dwBit)
        {
            ++count;
        }
    }
    if (count == 0)
    {
        return true;
    }
    environment.purposes.Reset(QcAllocAs<const char*>(count * sizeof(const char*)));
    if (!environment.purposes)
    {
        QcCryptLog(L"PreparePurposes() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    DWORD index = 0;
    for (const Purpose& purpose : kPurposes)
    {
        if ((dwPurposes & purpose.dwBit) == purpose.dwBit)
        {
            environment.purposes.Get()[index++] = purpose.pszOid;
        }
    }
    environment.enhancedKeyUsage.cUsageIdentifier = count;
    environment.enhancedKeyUsage.rgpszUsageIdentifier = const_cast<LPSTR*>(environment.purposes.Get());
    return true;
}

// A random container name, taken from the short-lived "QcTeMp" container of
// the Base provider, and a new container of the chosen provider under it.
bool CreateTemporaryCryptContainer(CertificateEnvironment& environment) noexcept
{
    QcCryptLog(L"CreateTemporaryCryptContainer()");
    HCRYPTPROV hScratch = 0;
    if (::CryptAcquireContextW(&hScratch, kScratchContainer, kBaseProvider, PROV_RSA_FULL, CRYPT_NEWKEYSET))
    {
        environment.scratchContainer.Attach(hScratch, kScratchContainer, kBaseProvider, PROV_RSA_FULL, 0);
    }
    else if (::GetLastError() == static_cast<DWORD>(NTE_EXISTS))
    {
        // Another run holds it: share it; whoever finishes first deletes it.
        QcCryptLog(L"CreateTemporaryCryptContainer() - CryptAcquireContext (create new) failed -> try to open existing.");
        if (!::CryptAcquireContextW(&hScratch, kScratchContainer, kBaseProvider, PROV_RSA_FULL, 0))
        {
            QcCryptLog(L"CreateTemporaryCryptContainer() - ERROR: CryptAcquireContext2 failed (%d).", LastError());
            return false;
        }
        environment.scratchContainer.Attach(hScratch, kScratchContainer, kBaseProvider, PROV_RSA_FULL, 0);
    }
    else
    {
        QcCryptLog(L"CreateTemporaryCryptContainer() - ERROR: CryptAcquireContext failed (%d).", LastError());
        return false;
    }

    if (!::CryptGenRandom(environment.scratchContainer.Get(), sizeof(environment.containerBytes),
                          environment.containerBytes))
    {
        QcCryptLog(L"CreateTemporaryCryptContainer() - ERROR: CryptGenRandom failed (%d).", LastError());
        return false;
    }
    environment.scratchContainer.Reset();

    UUID uuid{};
    static_assert(sizeof(uuid) == sizeof(environment.containerBytes));
    ::memcpy(&uuid, environment.containerBytes, sizeof(uuid));
    const RPC_STATUS status = ::UuidToStringW(&uuid, environment.containerName.Put());
    if (status != RPC_S_OK)
    {
        QcCryptLog(L"CreateTemporaryCryptContainer() - ERROR: UuidToString failed (%d).", static_cast<int>(status));
        return false;
    }

    const wchar_t* pszContainer = reinterpret_cast<const wchar_t*>(environment.containerName.Get());
    HCRYPTPROV hProv = 0;
    if (!::CryptAcquireContextW(&hProv, pszContainer, environment.providerName, environment.providerType,
                                CRYPT_NEWKEYSET))
    {
        QcCryptLog(L"CreateTemporaryCryptContainer() - ERROR: CryptAcquireContext failed (%d).", LastError());
        return false;
    }
    environment.newContainer.Attach(hProv, pszContainer, environment.providerName, environment.providerType, 0);
    return true;
}

// 2048 bits where the provider allows them for this key type, else its largest
// (Microsoft's Base provider: 1024 for key exchange keys); 2048 when the
// provider does not say.
DWORD KeyLength(HCRYPTPROV hProv, DWORD dwKeyType) noexcept
{
    const ALG_ID algorithm = dwKeyType == AT_SIGNATURE ? CALG_RSA_SIGN : CALG_RSA_KEYX;
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

bool PrepareCertificateParams(CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept
{
    QcCryptLog(L"PrepareCertificateParams()");
    const HCRYPTPROV hProv = environment.newContainer.Get();
    const DWORD dwKeyBits = KeyLength(hProv, param.dwKeyType);
    if (!::CryptGenKey(hProv, param.dwKeyType, (dwKeyBits << 16) | CRYPT_EXPORTABLE, environment.key.Put()))
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: CryptGenKey failed (%d).", LastError());
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
        QcCryptLog(L"PrepareCertificateParams() - ERROR: CoCreateGuid failed (%d) -> fallback to CryptGenRandom.",
                   static_cast<int>(hr));
        if (!::CryptGenRandom(hProv, sizeof(environment.serialNumber), environment.serialNumber))
        {
            QcCryptLog(L"PrepareCertificateParams() - ERROR: CryptGenRandom failed (%d).", LastError());
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
        QcCryptLog(L"PrepareCertificateParams() - ERROR: SystemTimeToFileTime1 failed (%d).", LastError());
        return false;
    }
    if (!::SystemTimeToFileTime(&param.stValidTo, &certInfo.NotAfter))
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: SystemTimeToFileTime2 failed (%d).", LastError());
        return false;
    }

    DWORD cbInfo = 0;
    if (!::CryptExportPublicKeyInfo(hProv, param.dwKeyType, X509_ASN_ENCODING, nullptr, &cbInfo))
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: CryptExportPublicKeyInfo1 failed (%d).", LastError());
        return false;
    }
    environment.publicKeyInfo.Reset(QcAllocAs<CERT_PUBLIC_KEY_INFO>(cbInfo));
    if (!environment.publicKeyInfo)
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    if (!::CryptExportPublicKeyInfo(hProv, param.dwKeyType, X509_ASN_ENCODING, environment.publicKeyInfo.Get(),
                                    &cbInfo))
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: CryptExportPublicKeyInfo2 failed (%d).", LastError());
        return false;
    }
    environment.cbPublicKeyInfo = cbInfo;
    certInfo.SubjectPublicKeyInfo = *environment.publicKeyInfo.Get();

    // Deliberately the SHA-1 of the whole exported buffer (the structure, its
    // pointers included, and the data behind it), not of the encoded key: every
    // identifier made so far was computed this way.
    if (!::CryptCreateHash(hProv, CALG_SHA1, 0, 0, environment.hash.Put()))
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: CryptCreateHash failed (%d).", LastError());
        return false;
    }
    if (!::CryptHashData(environment.hash.Get(), reinterpret_cast<const BYTE*>(environment.publicKeyInfo.Get()),
                         environment.cbPublicKeyInfo, 0))
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: CryptHashData failed (%d).", LastError());
        return false;
    }
    DWORD cbHash = 0;
    if (!::CryptGetHashParam(environment.hash.Get(), HP_HASHVAL, nullptr, &cbHash, 0))
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: CryptGetHashParam1 failed (%d).", LastError());
        return false;
    }
    // A hash longer than SHA-1's 20 bytes does not fit and fails the second call.
    cbHash = cbHash < sizeof(environment.subjectKeyIdentifier) ? cbHash : sizeof(environment.subjectKeyIdentifier);
    if (!::CryptGetHashParam(environment.hash.Get(), HP_HASHVAL, environment.subjectKeyIdentifier, &cbHash, 0))
    {
        QcCryptLog(L"PrepareCertificateParams() - ERROR: CryptGetHashParam2 failed (%d).", LastError());
        return false;
    }
    environment.cbSubjectKeyIdentifier = cbHash;
    return true;
}

// Encodes one non-critical extension into its own buffer and appends it.
// `firstCall` numbers the size query in the error text, the next number the
// encoding itself.
bool AddExtension(CertificateEnvironment& environment, const char* pszOid, LPCSTR pszStructType,
                  const void* pvStruct, int firstCall, const wchar_t* pszAllocFailure) noexcept
{
    constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
    DWORD cbEncoded = 0;
    if (!::CryptEncodeObject(kEncoding, pszStructType, pvStruct, nullptr, &cbEncoded))
    {
        QcCryptLog(L"PrepareCertificateExtensions() - ERROR: CryptEncodeObject%d failed (%d).", firstCall,
                   LastError());
        return false;
    }
    CProcessHeapPtr<BYTE>& value = environment.extensionValues[environment.cExtensions];
    value.Reset(QcAllocAs<BYTE>(cbEncoded));
    if (!value)
    {
        QcCryptLog(pszAllocFailure, LastError());
        return false;
    }
    if (!::CryptEncodeObject(kEncoding, pszStructType, pvStruct, value.Get(), &cbEncoded))
    {
        QcCryptLog(L"PrepareCertificateExtensions() - ERROR: CryptEncodeObject%d failed (%d).", firstCall + 1,
                   LastError());
        return false;
    }
    CERT_EXTENSION& extension = environment.extensions[environment.cExtensions++];
    extension.pszObjId = const_cast<LPSTR>(pszOid);
    extension.fCritical = FALSE;
    extension.Value.cbData = cbEncoded;
    extension.Value.pbData = value.Get();
    return true;
}

bool PrepareCertificateExtensions(CertificateEnvironment& environment, const CreateCertificateParams& param,
                                  DWORD dwLocationFlags) noexcept
{
    QcCryptLog(L"PrepareCertificateExtensions()");
    constexpr wchar_t kQcAllocFailed[] = L"PrepareCertificateExtensions() - ERROR: QcAlloc failed (%d).";
    // The word differs for the last extension's buffer only; kept as it is.
    constexpr wchar_t kMallocFailed[] = L"PrepareCertificateExtensions() - ERROR: malloc failed (%d).";
    CERT_INFO& certInfo = environment.certInfo;
    const bool bSelfSigned = param.bSelfSigned != 0;

    if (bSelfSigned)
    {
        certInfo.Issuer = certInfo.Subject;
    }
    else
    {
        environment.issuerCertificate = FindCertificate(param.pszIssuerName, param.pszIssuerStore, dwLocationFlags,
                                                        &environment.issuerKeyIdentifier,
                                                        &environment.issuerProvider, &environment.issuerKeySpec);
        if (!environment.issuerCertificate)
        {
            QcCryptLog(L"PrepareCertificateExtensions() - ERROR: FindCertificate failed.");
            return false;
        }
        certInfo.Issuer = environment.issuerCertificate.Get()->pCertInfo->Subject;
    }

    CRYPT_DATA_BLOB subjectKeyIdentifier{environment.cbSubjectKeyIdentifier, environment.subjectKeyIdentifier};
    if (!AddExtension(environment, szOID_SUBJECT_KEY_IDENTIFIER, X509_OCTET_STRING, &subjectKeyIdentifier, 1,
                      kQcAllocFailed))
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
    if (!AddExtension(environment, szOID_KEY_USAGE, X509_KEY_USAGE, &keyUsageBits, 3, kQcAllocFailed))
    {
        return false;
    }

    if (environment.enhancedKeyUsage.cUsageIdentifier > 0 &&
        !AddExtension(environment, szOID_ENHANCED_KEY_USAGE, X509_ENHANCED_KEY_USAGE, &environment.enhancedKeyUsage,
                      5, kQcAllocFailed))
    {
        return false;
    }

    environment.basicConstraints.fCA = bSelfSigned ? TRUE : FALSE;
    environment.basicConstraints.fPathLenConstraint = bSelfSigned ? TRUE : FALSE;
    environment.basicConstraints.dwPathLenConstraint = bSelfSigned ? 1 : 0;
    if (!AddExtension(environment, szOID_BASIC_CONSTRAINTS2, X509_BASIC_CONSTRAINTS2, &environment.basicConstraints,
                      7, kQcAllocFailed))
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
    if (!AddExtension(environment, szOID_AUTHORITY_KEY_IDENTIFIER, X509_AUTHORITY_KEY_ID, &authorityKeyId, 9,
                      kMallocFailed))
    {
        return false;
    }
    certInfo.cExtension = environment.cExtensions;
    certInfo.rgExtension = environment.extensions;
    return true;
}

bool CreateCertAndConvertToPFX(CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept
{
    QcCryptLog(L"CreateCertAndConvertToPFX()");
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
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: CryptSignAndEncodeCertificate%d failed (%d).", firstCall,
                   LastError());
        return false;
    }
    environment.encodedCertificate.Reset(QcAllocAs<BYTE>(cbEncoded));
    if (!environment.encodedCertificate)
    {
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    if (!::CryptSignAndEncodeCertificate(hSigner, dwSignerKeySpec, X509_ASN_ENCODING, X509_CERT_TO_BE_SIGNED,
                                         &environment.certInfo, pAlgorithm, nullptr,
                                         environment.encodedCertificate.Get(), &cbEncoded))
    {
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: CryptSignAndEncodeCertificate%d failed (%d).",
                   firstCall + 1, LastError());
        return false;
    }
    environment.cbEncodedCertificate = cbEncoded;

    environment.memoryStore.Reset(
        ::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
    if (!environment.memoryStore)
    {
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: CertOpenStore failed (%d).", LastError());
        return false;
    }
    if (!::CertAddEncodedCertificateToStore(environment.memoryStore.Get(), X509_ASN_ENCODING,
                                            environment.encodedCertificate.Get(), cbEncoded,
                                            CERT_STORE_ADD_REPLACE_EXISTING, environment.memoryCertificate.Put()))
    {
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: CertAddEncodedCertificateToStore1 failed (%d).",
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
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: CertSetCertificateContextProperty failed (%d).",
                   LastError());
        return false;
    }

    CRYPT_DATA_BLOB pfx{0, nullptr};
    if (!::PFXExportCertStoreEx(environment.memoryStore.Get(), &pfx, nullptr, nullptr, EXPORT_PRIVATE_KEYS))
    {
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: PFXExportCertStoreEx1 failed (%d).", LastError());
        return false;
    }
    environment.pfx.Reset(QcAllocAs<BYTE>(pfx.cbData));
    if (!environment.pfx)
    {
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    pfx.pbData = environment.pfx.Get();
    if (!::PFXExportCertStoreEx(environment.memoryStore.Get(), &pfx, nullptr, nullptr, EXPORT_PRIVATE_KEYS))
    {
        QcCryptLog(L"CreateCertAndConvertToPFX() - ERROR: PFXExportCertStoreEx2 failed (%d).", LastError());
        return false;
    }
    environment.cbPfx = pfx.cbData;
    return true;
}

} // namespace

int32_t InternalCreateCertificate(CreateCertificateParams* pParam) noexcept
{
    QcCryptLog(L"InternalCreateCertificate()");
    const CreateCertificateParams& param = *pParam;
    EnvironmentPtr environment = InitializeCreateEnvironment(param);
    if (!environment)
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: InitializeCreateEnvironment failed.");
        return -3;
    }
    if (!CheckParameters(param))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: CheckParameters failed.");
        return -1;
    }
    if (param.nProviderIndex >= 0 &&
        !GetCryptProvider(param.nProviderIndex, environment->providerName, &environment->providerType))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: Invalid provider index specified (%i).",
                   param.nProviderIndex);
        return -1;
    }
    const DWORD dwLocationFlags = param.bSelfSigned == 0 ? StoreLocationFlag(param.dwIssuerStoreLocation) : 0;
    if (!ConvertCertNameToBlob(*environment))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: ConvertCertNameToBlob failed.");
        return -5;
    }
    if (!PreparePurposes(*environment, param.dwPurposes))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: PreparePurposes failed.");
        return -3;
    }
    if (!CreateTemporaryCryptContainer(*environment))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: CreateTemporaryCryptContainer failed.");
        return -2;
    }
    if (!PrepareCertificateParams(*environment, param))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: PrepareCertificateParams failed.");
        return -3;
    }
    if (!PrepareCertificateExtensions(*environment, param, dwLocationFlags))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: PrepareCertificateExtensions failed.");
        return -6;
    }
    if (!CreateCertAndConvertToPFX(*environment, param))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: CreateCertAndConvertToPFX failed.");
        environment->pfx.Reset();
        return -6;
    }
    pParam->pbPfx = environment->pfx.Detach();
    pParam->cbPfx = environment->cbPfx;
    return 0;
}

} // namespace Quillcast::Certificates
