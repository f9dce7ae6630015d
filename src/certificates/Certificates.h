#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <cstdint>

#include "host/types/Handles.h"

// The certificate engine's public records and entry points. Results are 0 on
// success and small negative numbers on failure; every step logs through
// QcCryptLog (source "QcCryptLog"). The creation is in CertificateCreation.cpp
// and CertificateSigning.cpp (with the issuer's look-up), the import in
// CertificateImport.cpp.
namespace Quillcast::Certificates {

#pragma pack(push, 4)

// Filled by the caller, versioned by dwSize (at least sizeof, 80 bytes).
struct CreateCertificateParams
{
    DWORD dwSize;
    const wchar_t* pszSubjectName; // common name, without "CN="
    DWORD dwKeyType;               // AT_KEYEXCHANGE (1) or AT_SIGNATURE (2)
    DWORD dwHashAlgorithm;         // 1: md5RSA, anything else: sha1RSA
    SYSTEMTIME stValidTo;          // NotAfter, UTC
    DWORD dwPurposes;              // extended key usages, bits 0x01..0x10
    DWORD bSelfSigned;             // nonzero: a self-signed CA
    int32_t nProviderIndex;        // -1: Base provider; else a sub-key of the provider list
    const wchar_t* pszIssuerName;  // issuer's simple display name (not self-signed)
    const wchar_t* pszIssuerStore; // system store holding the issuer
    DWORD dwIssuerStoreLocation;   // 0 current user, 1 local machine, 2 services
    BYTE* pbPfx;                   // out: PKCS #12 blob, freed with FreeCertificateMemory
    DWORD cbPfx;                   // out
};

// Versioned by dwSize (at least sizeof, 32 bytes).
struct ImportCertificateParams
{
    DWORD dwSize;
    BYTE* pbPfx;
    DWORD cbPfx;
    DWORD dwStoreLocation;       // 0 current user, 1 local machine, 2 services
    const wchar_t* pszStoreName; // e.g. "Root", "MY"
    DWORD bExportable;           // nonzero: the imported private key stays exportable
};

#pragma pack(pop)

static_assert(sizeof(CreateCertificateParams) == 80, "the record's declared size");
static_assert(sizeof(ImportCertificateParams) == 32, "the record's declared size");

constexpr DWORD kCreateCertificateParamsSize = sizeof(CreateCertificateParams);
constexpr DWORD kImportCertificateParamsSize = sizeof(ImportCertificateParams);

// Zero-fills a record of at least 80 bytes (dwSize bytes of it) and sets the
// defaults: key exchange key, md5RSA, self-signed, default provider, valid
// until one year from now. A smaller record is left untouched.
void InitializeCreateCertificateParams(CreateCertificateParams* pParam) noexcept;
// -1 for a record smaller than 80 bytes; otherwise InternalCreateCertificate.
[[nodiscard]] int32_t CreateCertificate(CreateCertificateParams* pParam) noexcept;
// 0 with pbPfx/cbPfx set, or -1 parameters, -2 key container, -3 environment,
// purposes or certificate fields, -5 subject name, -6 extensions, signing or export.
[[nodiscard]] int32_t InternalCreateCertificate(CreateCertificateParams* pParam) noexcept;
// Wipes and frees a PKCS #12 blob from CreateCertificate; null is ignored.
void FreeCertificateMemory(void* pCertMem) noexcept;

// -1 for a record smaller than 32 bytes; otherwise InternalImportCertificate.
[[nodiscard]] int32_t ImportCertificate(ImportCertificateParams* pParam) noexcept;
// Imports the blob's first certificate into the system store: 0, or -1 bad
// parameters, -2 enumeration, open or add failure, -7 PKCS #12 import failure,
// -8 certificate outside its validity period (the store is left alone).
[[nodiscard]] int32_t InternalImportCertificate(ImportCertificateParams* pParam) noexcept;

// The first certificate of the system store (location flag such as
// CERT_SYSTEM_STORE_LOCAL_MACHINE) whose subject is `pszName` and which is
// valid now; with it a context on its private key and the key's kind (AT_KEYEXCHANGE or AT_SIGNATURE),
// and its decoded subject key identifier (null when it has none). Null after a
// logged failure; the out-parameters are cleared first.
System::Types::CCertContext FindCertificate(const wchar_t* pszName, const wchar_t* pszStoreName, DWORD dwLocationFlags,
                                            System::Types::CProcessHeapPtr<CRYPT_DATA_BLOB>* pKeyIdentifier,
                                            System::Types::CCryptProvider* pIssuerProvider,
                                            DWORD* pdwIssuerKeySpec) noexcept;
// The subject's simple display name equals `pszName` exactly (case-sensitive).
[[nodiscard]] bool IsCertNameEqualTo(PCCERT_CONTEXT pCertificate, const wchar_t* pszName) noexcept;

// The system-store location flag of a location number: 0 current user,
// 1 local machine, 2 services, anything else 0.
DWORD StoreLocationFlag(DWORD dwLocation) noexcept;

} // namespace Quillcast::Certificates
