#pragma once

// The creation engine's working context and the steps that share it; private
// to the engine (CertificateCreation.cpp, CertificateSigning.cpp).
#include <windows.h>
#include <wincrypt.h>

#include <memory>

#include "certificates/Certificates.h"
#include "host/types/Handles.h"

namespace Quillcast::Certificates::Engine {

constexpr wchar_t kBaseProvider[] = L"Microsoft Base Cryptographic Provider v1.0";
constexpr DWORD kProviderNameLength = 1024;
constexpr DWORD kMaxExtensions = 5;

// One run's context. Its owners are released by declaration order (the last
// declared first), in the order that keeps every reference valid and that the
// platform has always seen: the memory store's certificate, the memory store,
// the encoded certificate, the extension values (their buffers last to first,
// which nothing can tell), the issuer's certificate and provider context, the
// hash and the key before the context on their container, that container
// (released, then deleted) before the name it borrows, the scratch container
// (still held only when a run failed before letting it go), the purposes, the
// subject and its encoded name, the issuer's key identifier, and the PKCS #12
// blob (handed out or freed earlier by every run).
struct CertificateEnvironment
{
    CertificateEnvironment() = default;
    CertificateEnvironment(const CertificateEnvironment&) = delete;
    CertificateEnvironment& operator=(const CertificateEnvironment&) = delete;

    CERT_INFO certInfo{};
    CERT_EXTENSION extensions[kMaxExtensions] = {};
    CERT_AUTHORITY_KEY_ID_INFO authorityKeyId{};
    CERT_ENHKEY_USAGE enhancedKeyUsage{};
    // The owners, in the reverse of their release order.
    System::Types::CWipedProcessHeapPtr<BYTE> pfx;
    System::Types::CProcessHeapPtr<CRYPT_DATA_BLOB> issuerKeyIdentifier;
    System::Types::CProcessHeapPtr<BYTE> subjectName;
    System::Types::CProcessHeapPtr<wchar_t> subject; // "CN=" + the subject name
    System::Types::CProcessHeapPtr<const char*> purposes;
    System::Types::CCryptKeyContainer scratchContainer;
    System::Types::CRpcString containerName;
    System::Types::CCryptKeyContainer newContainer; // borrows containerName and providerName
    System::Types::CCryptKey key;
    System::Types::CProcessHeapPtr<CERT_PUBLIC_KEY_INFO> publicKeyInfo;
    System::Types::CCryptHash hash;
    System::Types::CCryptProvider issuerProvider;
    System::Types::CCertContext issuerCertificate;
    System::Types::CProcessHeapPtr<BYTE> extensionValues[kMaxExtensions];
    System::Types::CProcessHeapPtr<BYTE> encodedCertificate;
    System::Types::CCertStoreHandle memoryStore;
    System::Types::CCertContext memoryCertificate;
    // Plain data.
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

// The steps after the key container exists; each logs its name and its failures.
bool PrepareCertificateParams(CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept;
// `dwLocationFlags`: the issuer store's location (issuer-signed only).
bool PrepareCertificateExtensions(CertificateEnvironment& environment, const CreateCertificateParams& param,
                                  DWORD dwLocationFlags) noexcept;
bool CreateCertAndConvertToPFX(CertificateEnvironment& environment, const CreateCertificateParams& param) noexcept;

} // namespace Quillcast::Certificates::Engine
