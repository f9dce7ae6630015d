// The certificate creation engine's public entry points and its run up to the
// key container: one run of InternalCreateCertificate builds a fresh RSA key in
// a key container of its own, an X.509 v3 certificate for it and a PKCS #12
// blob holding both; the container is deleted again before the run returns, so
// the private key survives only inside the blob. The later steps are in
// CertificateSigning.cpp.
#include "certificates/Certificates.h"

#include <objbase.h>
#include <rpc.h>

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>

#include "certificates/CertificateEnvironment.h"
#include "certificates/CertificateHelpers.h"
#include "certificates/QcCryptLog.h"
#include "system/Registry.h"

namespace Quillcast::Certificates {

using System::Types::CRegistryKey;
using System::Types::CWipedProcessHeapPtr;

namespace {

using Engine::CertificateEnvironment;
using Engine::EnvironmentPtr;
using Engine::kBaseProvider;
using Engine::kProviderNameLength;

constexpr Logging::CLogSource kLogSource{L"QcCryptLog", 2000}; // the engine's line bases: QcCryptLog.h

constexpr wchar_t kScratchContainer[] = L"QcTeMp";
constexpr wchar_t kProviderListKey[] = L"SOFTWARE\\Microsoft\\Cryptography\\Defaults\\Provider";

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

EnvironmentPtr InitializeCreateEnvironment(const CreateCertificateParams& param) noexcept
{
    QC_CRYPT_LOG(L"InitializeCreateEnvironment()");
    void* pMemory = QcAlloc(sizeof(CertificateEnvironment));
    if (pMemory == nullptr)
    {
        return nullptr;
    }
    EnvironmentPtr environment(new (pMemory) CertificateEnvironment());
    environment->providerType = PROV_RSA_FULL;
    static_assert(sizeof(kBaseProvider) <= sizeof(environment->providerName));
    ::wmemcpy(environment->providerName, kBaseProvider, sizeof(kBaseProvider) / sizeof(wchar_t));
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
    // The buffer is zero-filled and one character longer than "CN=" and the name.
    ::wmemcpy(environment->subject.Get(), L"CN=", 3);
    ::wmemcpy(environment->subject.Get() + 3, param.pszSubjectName, length - 4);
    return environment;
}

bool CheckParameters(const CreateCertificateParams& param) noexcept
{
    QC_CRYPT_LOG(L"CheckParameters(pParam = %X)", LogAddress(&param));
    if (param.dwKeyType != AT_KEYEXCHANGE && param.dwKeyType != AT_SIGNATURE)
    {
        QC_CRYPT_LOG(L"CheckParameters() - ERROR: Invalid keytype specified.");
        return false;
    }
    if (param.dwPurposes > 31)
    {
        QC_CRYPT_LOG(L"CheckParameters() - ERROR: Invalid purposes bitmask specified.");
        return false;
    }
    if (param.nProviderIndex < -1)
    {
        QC_CRYPT_LOG(L"CheckParameters() - ERROR: Invalid encryption provider index specified.");
        return false;
    }
    if (param.bSelfSigned == 0)
    {
        if (IsEmpty(param.pszIssuerName))
        {
            QC_CRYPT_LOG(L"CheckParameters() - ERROR: Invalid issuer certificate name specified.");
            return false;
        }
        if (IsEmpty(param.pszIssuerStore))
        {
            QC_CRYPT_LOG(L"CheckParameters() - ERROR: Invalid issuer certificate store specified.");
            return false;
        }
    }
    return true;
}

// The provider at `index` of the machine's provider list: its sub-key name and "Type".
bool GetCryptProvider(int32_t index, wchar_t* pszName, DWORD* pdwType) noexcept
{
    QC_CRYPT_LOG(L"GetCryptProvider(dwIndex == %d)", index);
    if (index < 0 || pszName == nullptr || pdwType == nullptr)
    {
        QC_CRYPT_LOG(L"GetCryptProvider() - ERROR: Invalid parameters specified.");
        return false;
    }
    CRegistryKey providers;
    LSTATUS status = System::OpenKey(HKEY_LOCAL_MACHINE, kProviderListKey, KEY_READ, providers);
    if (status != ERROR_SUCCESS)
    {
        QC_CRYPT_LOG(L"GetCryptProvider() - ERROR: Can't open main regkey (Error=%d).", static_cast<int>(status));
        return false;
    }
    DWORD cchName = kProviderNameLength;
    status = ::RegEnumKeyExW(providers.Get(), static_cast<DWORD>(index), pszName, &cchName, nullptr, nullptr, nullptr,
                             nullptr);
    if (status != ERROR_SUCCESS)
    {
        QC_CRYPT_LOG(L"GetCryptProvider() - ERROR: RegEnumKeyEx failed (Error=%d).", static_cast<int>(status));
        return false;
    }
    CRegistryKey provider;
    status = System::OpenKey(providers.Get(), pszName, KEY_READ, provider);
    if (status != ERROR_SUCCESS)
    {
        QC_CRYPT_LOG(L"GetCryptProvider() - ERROR: Open provider key failed (Error=%d).", static_cast<int>(status));
        return false;
    }
    DWORD dwType = 0;
    DWORD cbType = sizeof(dwType);
    status = ::RegGetValueW(provider.Get(), nullptr, L"Type", RRF_RT_REG_DWORD, nullptr, &dwType, &cbType);
    if (status != ERROR_SUCCESS)
    {
        QC_CRYPT_LOG(L"GetCryptProvider() - ERROR: Query of provider type failed (Error=%d).",
                     static_cast<int>(status));
        return false;
    }
    *pdwType = dwType;
    return true;
}

bool ConvertCertNameToBlob(CertificateEnvironment& environment) noexcept
{
    QC_CRYPT_LOG(L"ConvertCertNameToBlob()");
    DWORD cbName = 0;
    if (!::CertStrToNameW(X509_ASN_ENCODING, environment.subject.Get(), CERT_X500_NAME_STR, nullptr, nullptr, &cbName,
                          nullptr))
    {
        QC_CRYPT_LOG(L"ConvertCertNameToBlob() - ERROR: CertStrToName1 failed (%d).", LastError());
        return false;
    }
    environment.subjectName.Reset(QcAllocAs<BYTE>(cbName));
    if (!environment.subjectName)
    {
        QC_CRYPT_LOG(L"ConvertCertNameToBlob() - ERROR: QcAlloc failed (%d).", LastError());
        return false;
    }
    if (!::CertStrToNameW(X509_ASN_ENCODING, environment.subject.Get(), CERT_X500_NAME_STR, nullptr,
                          environment.subjectName.Get(), &cbName, nullptr))
    {
        QC_CRYPT_LOG(L"ConvertCertNameToBlob() - ERROR: CertStrToName2 failed (%d).", LastError());
        return false;
    }
    environment.cbSubjectName = cbName;
    environment.certInfo.Subject.cbData = cbName;
    environment.certInfo.Subject.pbData = environment.subjectName.Get();
    return true;
}

bool PreparePurposes(CertificateEnvironment& environment, DWORD dwPurposes) noexcept
{
    QC_CRYPT_LOG(L"PreparePurposes()");
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
        QC_CRYPT_LOG(L"PreparePurposes() - ERROR: QcAlloc failed (%d).", LastError());
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
    QC_CRYPT_LOG(L"CreateTemporaryCryptContainer()");
    HCRYPTPROV hScratch = 0;
    if (::CryptAcquireContextW(&hScratch, kScratchContainer, kBaseProvider, PROV_RSA_FULL, CRYPT_NEWKEYSET))
    {
        environment.scratchContainer.Attach(hScratch, kScratchContainer, kBaseProvider, PROV_RSA_FULL, 0);
    }
    else if (::GetLastError() == static_cast<DWORD>(NTE_EXISTS))
    {
        // Another run holds it: share it; whoever finishes first deletes it.
        QC_CRYPT_LOG(
            L"CreateTemporaryCryptContainer() - CryptAcquireContext (create new) failed -> try to open existing.");
        if (!::CryptAcquireContextW(&hScratch, kScratchContainer, kBaseProvider, PROV_RSA_FULL, 0))
        {
            QC_CRYPT_LOG(L"CreateTemporaryCryptContainer() - ERROR: CryptAcquireContext2 failed (%d).", LastError());
            return false;
        }
        environment.scratchContainer.Attach(hScratch, kScratchContainer, kBaseProvider, PROV_RSA_FULL, 0);
    }
    else
    {
        QC_CRYPT_LOG(L"CreateTemporaryCryptContainer() - ERROR: CryptAcquireContext failed (%d).", LastError());
        return false;
    }

    if (!::CryptGenRandom(environment.scratchContainer.Get(), sizeof(environment.containerBytes),
                          environment.containerBytes))
    {
        QC_CRYPT_LOG(L"CreateTemporaryCryptContainer() - ERROR: CryptGenRandom failed (%d).", LastError());
        return false;
    }
    environment.scratchContainer.Reset();

    UUID uuid{};
    static_assert(sizeof(uuid) == sizeof(environment.containerBytes));
    ::memcpy(&uuid, environment.containerBytes, sizeof(uuid));
    const RPC_STATUS status = ::UuidToStringW(&uuid, environment.containerName.Put());
    if (status != RPC_S_OK)
    {
        QC_CRYPT_LOG(L"CreateTemporaryCryptContainer() - ERROR: UuidToString failed (%d).", static_cast<int>(status));
        return false;
    }

    const wchar_t* pszContainer = reinterpret_cast<const wchar_t*>(environment.containerName.Get());
    HCRYPTPROV hProv = 0;
    if (!::CryptAcquireContextW(&hProv, pszContainer, environment.providerName, environment.providerType,
                                CRYPT_NEWKEYSET))
    {
        QC_CRYPT_LOG(L"CreateTemporaryCryptContainer() - ERROR: CryptAcquireContext failed (%d).", LastError());
        return false;
    }
    environment.newContainer.Attach(hProv, pszContainer, environment.providerName, environment.providerType, 0);
    return true;
}

} // namespace

void InitializeCreateCertificateParams(CreateCertificateParams* pParam) noexcept
{
    // "ERROR" in the first entry is intentional: it is written on every call,
    // and at error level, as installers' log readers have always seen it.
    QC_CRYPT_LOG(L"InitializeCreateCertificateParams ERROR(pParam = %X)", LogAddress(pParam));
    if (pParam == nullptr)
    {
        return;
    }
    QC_CRYPT_LOG(L"InitializeCreateCertificateParams(pParam->dwSize = %d | Expected = %d)",
                 static_cast<int>(pParam->dwSize), static_cast<int>(kCreateCertificateParamsSize));
    if (pParam->dwSize < kCreateCertificateParamsSize)
    {
        return;
    }
    QC_CRYPT_LOG(L"InternalInitializeCreateCertificateParams()");
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
    QC_CRYPT_LOG(L"CreateCertificate(pParam = %X)", LogAddress(pParam));
    if (pParam == nullptr)
    {
        return -1;
    }
    QC_CRYPT_LOG(L"CreateCertificate(pParam->dwSize = %d | Expected = %d)", static_cast<int>(pParam->dwSize),
                 static_cast<int>(kCreateCertificateParamsSize));
    if (pParam->dwSize < kCreateCertificateParamsSize)
    {
        return -1;
    }
    return InternalCreateCertificate(pParam);
}

void FreeCertificateMemory(void* pCertMem) noexcept
{
    QC_CRYPT_LOG(L"FreeCertificateMemory(pCertMem = %X)", LogAddress(pCertMem));
    // The blob carries a private key: wiped before the heap takes it back.
    CWipedProcessHeapPtr<BYTE> pfx(static_cast<BYTE*>(pCertMem));
}

int32_t InternalCreateCertificate(CreateCertificateParams* pParam) noexcept
{
    QC_CRYPT_LOG(L"InternalCreateCertificate()");
    const CreateCertificateParams& param = *pParam;
    EnvironmentPtr environment = InitializeCreateEnvironment(param);
    if (!environment)
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: InitializeCreateEnvironment failed.");
        return -3;
    }
    if (!CheckParameters(param))
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: CheckParameters failed.");
        return -1;
    }
    if (param.nProviderIndex >= 0 &&
        !GetCryptProvider(param.nProviderIndex, environment->providerName, &environment->providerType))
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: Invalid provider index specified (%i).",
                     param.nProviderIndex);
        return -1;
    }
    const DWORD dwLocationFlags = param.bSelfSigned == 0 ? StoreLocationFlag(param.dwIssuerStoreLocation) : 0;
    if (!ConvertCertNameToBlob(*environment))
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: ConvertCertNameToBlob failed.");
        return -5;
    }
    if (!PreparePurposes(*environment, param.dwPurposes))
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: PreparePurposes failed.");
        return -3;
    }
    if (!CreateTemporaryCryptContainer(*environment))
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: CreateTemporaryCryptContainer failed.");
        return -2;
    }
    if (!Engine::PrepareCertificateParams(*environment, param))
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: PrepareCertificateParams failed.");
        return -3;
    }
    if (!Engine::PrepareCertificateExtensions(*environment, param, dwLocationFlags))
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: PrepareCertificateExtensions failed.");
        return -6;
    }
    if (!Engine::CreateCertAndConvertToPFX(*environment, param))
    {
        QC_CRYPT_LOG(L"InternalCreateCertificate() - ERROR: CreateCertAndConvertToPFX failed.");
        environment->pfx.Reset();
        return -6;
    }
    pParam->pbPfx = environment->pfx.Detach();
    pParam->cbPfx = environment->cbPfx;
    return 0;
}

} // namespace Quillcast::Certificates
