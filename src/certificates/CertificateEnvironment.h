#pragma once

// The creation engine's working context and the steps that share it; private
// to the engine (QcCryptLog.cpp, CertificateSigning.cpp).
#include <windows.h>
#include <wincrypt.h>

#include <memory>

#include "certificates/Certificates.h"
#include "host/types/Handles.h"

namespace Quillcast::Certificates::Engine {

constexpr wchar_t kBaseProvider[] = L"Microsoft Base Cryptographic Provider v1.0";
constexpr DWORD kProviderNameLength = 1024;
constexpr DWORD kMaxExtensions = 5;

// One run's context. Members only own; the destructor releases them in the
// one order that keeps every reference valid: the certificate and its store,
// the encoded data, the issuer, the hash, the key, then the new key container
// (released and deleted), its name, the scratch container (deleted), and the
// subject and purpose buffers.
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
        for (System::Types::CProcessHeapPtr<BYTE>& value : extensionValues)
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

    CERT_INFO certInfo{};
    CERT_EXTENSION extensions[kMaxExtensions] = {};
    CERT_AUTHORITY_KEY_ID_INFO authorityKeyId{};
    CERT_ENHKEY_USAGE enhancedKeyUsage{};
    System::Types::CProcessHeapPtr<BYTE> extensionValues[kMaxExtensions];
    System::Types::CProcessHeapPtr<wchar_t> subject; // "CN=" + the subject name
    System::Types::CProcessHeapPtr<BYTE> subjectName;
    System::Types::CRpcString containerName;
    System::Types::CCryptKeyContainer scratchContainer;
    System::Types::CCryptKeyContainer newContainer;
    System::Types::CCryptKey key;
    System::Types::CCryptHash hash;
    System::Types::CCryptProvider issuerProvider;
    System::Types::CCertContext issuerCertificate;
    System::Types::CProcessHeapPtr<CRYPT_DATA_BLOB> issuerKeyIdentifier;
    System::Types::CCertStoreHandle memoryStore;
    System::Types::CCertContext memoryCertificate;
    System::Types::CProcessHeapPtr<const char*> purposes;
    System::Types::CProcessHeapPtr<CERT_PUBLIC_KEY_INFO> publicKeyInfo;
    System::Types::CProcessHeapPtr<BYTE> encodedCertificate;
    System::Types::CWipedProcessHeapPtr<BYTE> pfx;
    CERT_BASIC_CONSTRAINTS2_INFO basicConstraints{};
    DWORD cExtensions = 0;
    DWORD cbSubjectName = 0;
    DWORD providerType = PROV_RSA_FULL;
    DWORD issuerKeySpec = 0;
    DWORD cbPublicKeyInfo = 0;
    DWORD cbEncodedCertificate = 0;
    DWORD cbPfx = 0;
    DWORD cbSubjectKeyIdentifier = 0;
    BYTE subjectKeyIdentifier[20] = {};
    BYTE containerBytes[16] = {};
    BYTE serialNumber[16] = {};
    wchar_t providerName[kProviderNameLength] = {};
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

// The thread's last error as the engine's messages print it (%d).
inline int LastError() noexcept
{
    return static_cast<int>(::GetLastError());
}

// The steps after the key container exists; each logs its name and its failures.
bool PrepareCertificateParams(CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept;
// `dwLocationFlags`: the issuer store's location (issuer-signed only).
bool PrepareCertificateExtensions(CertificateEnvironment& environment, const CreateCertificateParams& param,
                                  DWORD dwLocationFlags) noexcept;
bool CreateCertAndConvertToPFX(CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept;

} // namespace Quillcast::Certificates::Engine
