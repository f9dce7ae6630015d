// The certificate creation engine's log routine, allocator and run: one run of
// InternalCreateCertificate builds a fresh RSA key in a key container of its
// own, an X.509 v3 certificate for it and a PKCS #12 blob holding both; the
// container is deleted again before the run returns, so the private key
// survives only inside the blob. The steps up to the key container are here,
// the later ones in CertificateSigning.cpp.
#include "certificates/QcCryptLog.h"

#include <objbase.h>
#include <rpc.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <new>

#include "certificates/CertificateEnvironment.h"
#include "certificates/Certificates.h"
#include "logging/Log.h"

namespace Quillcast::Certificates {

using System::Types::CCryptKeyContainer;
using System::Types::CProcessHeapPtr;
using System::Types::CRegistryKey;

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

using Engine::CertificateEnvironment;
using Engine::EnvironmentPtr;
using Engine::kBaseProvider;
using Engine::kProviderNameLength;
using Engine::LastError;

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

unsigned LogAddress(const void* pAddress) noexcept
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pAddress));
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
    if (!Engine::PrepareCertificateParams(*environment, param))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: PrepareCertificateParams failed.");
        return -3;
    }
    if (!Engine::PrepareCertificateExtensions(*environment, param, dwLocationFlags))
    {
        QcCryptLog(L"InternalCreateCertificate() - ERROR: PrepareCertificateExtensions failed.");
        return -6;
    }
    if (!Engine::CreateCertAndConvertToPFX(*environment, param))
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
