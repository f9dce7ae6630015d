#pragma once

// The local machine's certificate stores and the key containers, read and restored by the certificate
// tests, the end-to-end cases' store tool and the benchmark; and the PKCS #12 stand-in (CPfxSeam, below).
#include <windows.h>
#include <wincrypt.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "certificates/StoreCertificates.h"
#include "host/types/Handles.h"
#include "support/ImportPatch.h"

namespace QcTest {

using Quillcast::Certificates::CStoreCertificates;
using Quillcast::System::Types::CCertStoreHandle;
namespace Types = Quillcast::System::Types;

// One certificate of a store, as the tests compare them.
struct StoredCertificate
{
    std::wstring subject; // simple display names
    std::wstring issuer;
    std::vector<BYTE> der;
};

inline CCertStoreHandle OpenMachineStore(const wchar_t* store)
{
    return CCertStoreHandle(::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                            CERT_SYSTEM_STORE_LOCAL_MACHINE, store));
}

inline StoredCertificate Describe(PCCERT_CONTEXT pCert)
{
    StoredCertificate certificate;
    wchar_t name[512] = {};
    ::CertGetNameStringW(pCert, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, name, 512);
    certificate.subject = name;
    ::CertGetNameStringW(pCert, CERT_NAME_SIMPLE_DISPLAY_TYPE, CERT_NAME_ISSUER_FLAG, nullptr, name, 512);
    certificate.issuer = name;
    certificate.der.assign(pCert->pbCertEncoded, pCert->pbCertEncoded + pCert->cbCertEncoded);
    return certificate;
}

// The certificate's key-provider property (a CRYPT_KEY_PROV_INFO); empty without one.
inline std::vector<BYTE> KeyProviderInfo(PCCERT_CONTEXT pCert)
{
    DWORD cbInfo = 0;
    std::vector<BYTE> info;
    if (::CertGetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &cbInfo))
    {
        info.resize(cbInfo);
        ::CertGetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, info.data(), &cbInfo);
    }
    return info;
}

// The key containers of the machine key set and the user's, as "machine:NAME" and "user:NAME". Wine keeps
// each as a registry key (PP_ENUMCONTAINERS does not reach the machine key set from a verification context).
inline std::set<std::string> KeyContainers()
{
    std::set<std::string> names;
    for (const bool machine : {true, false})
    {
        Types::CRegistryKey key;
        ::RegOpenKeyExA(machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER, "Software\\Wine\\Crypto\\RSA", 0, KEY_READ,
                        key.Put());
        char name[1024] = {};
        for (DWORD index = 0, length = sizeof(name);
             ::RegEnumKeyExA(key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
             ++index, length = sizeof(name))
        {
            names.insert(std::string(machine ? "machine:" : "user:") + name);
        }
    }
    return names;
}

// The certificates of the local machine's system store `store` ("Root", "MY"), all or those `issuer` issued.
inline std::vector<StoredCertificate> MachineCertificates(const wchar_t* store, const wchar_t* issuer = nullptr)
{
    std::vector<StoredCertificate> certificates;
    const CCertStoreHandle hStore = OpenMachineStore(store);
    for (PCCERT_CONTEXT pCert : CStoreCertificates(hStore.Get()))
    {
        certificates.push_back(Describe(pCert));
        if (issuer != nullptr && certificates.back().issuer != issuer)
        {
            certificates.pop_back();
        }
    }
    return certificates;
}

// Removes the certificates of `hStore` whose subject or issuer is `name` (every one for null), with the key
// containers they name, and commits the store.
inline void RemoveCertificates(HCERTSTORE hStore, const wchar_t* name)
{
    CStoreCertificates certificates(hStore);
    for (PCCERT_CONTEXT pCert = certificates.Next(); pCert != nullptr; pCert = certificates.Next())
    {
        const StoredCertificate certificate = Describe(pCert);
        if (name != nullptr && certificate.subject != name && certificate.issuer != name)
        {
            continue;
        }
        const std::vector<BYTE> bytes = KeyProviderInfo(pCert);
        if (!bytes.empty())
        {
            const auto& info = *reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(bytes.data());
            HCRYPTPROV hDeleted = 0;
            ::CryptAcquireContextW(&hDeleted, info.pwszContainerName, info.pwszProvName, info.dwProvType,
                                   (info.dwFlags & CRYPT_MACHINE_KEYSET) | CRYPT_DELETEKEYSET);
        }
        ::CertDeleteCertificateFromStore(certificates.Detach()); // the walk starts over
    }
    ::CertControlStore(hStore, 0, CERT_STORE_CTRL_COMMIT, nullptr);
}

// Wine's PFXExportCertStoreEx is a stub, and its PFXImportCertStore gives imported keys an unusable provider
// property. While a CPfxSeam lives, one module's imports of both are answered by a stand-in whose blob holds a
// header, the encoded certificate and the PRIVATEKEYBLOB, and which keeps Windows' rules where the engine meets
// them: the size query with a null buffer, ERROR_MORE_DATA for a small one; EXPORT_PRIVATE_KEYS reads the key the
// key-provider property names, which must be exportable (NTE_BAD_KEY_STATE otherwise); the import puts the key into
// a new container (machine key set with CRYPT_MACHINE_KEYSET, exportable only with CRYPT_EXPORTABLE) named in the
// key-provider property; other bytes fail with CRYPT_E_BAD_ENCODE.
//
// Wine writes a generated key into its container only when the context that made it is released, so a
// second context sees no key while the engine holds its own: the seam reads the key through the context
// that created the container (noted from the module's CryptAcquireContextW calls), as Windows would read
// it from the container itself; a key of any other container is not found.
namespace PfxStandIn {

struct Header
{
    char magic[8]; // "QCPFX1"
    DWORD cbCertificate;
    DWORD keySpec;
};

inline std::vector<DWORD> g_ImportFlags;
// The container last created with CRYPT_NEWKEYSET, and the context that created it.
inline std::wstring g_CreatedContainer;
inline HCRYPTPROV g_hCreator = 0;
// The real function: a patched module's own calls would come back to the watcher.
inline decltype(&::CryptAcquireContextW) g_pRealAcquire = nullptr;

inline BOOL WINAPI AcquireWatcher(HCRYPTPROV* phProv, LPCWSTR szContainer, LPCWSTR szProvider, DWORD dwProvType,
                                  DWORD dwFlags)
{
    const BOOL acquired = g_pRealAcquire(phProv, szContainer, szProvider, dwProvType, dwFlags);
    if (acquired && szContainer != nullptr && (dwFlags & CRYPT_NEWKEYSET) != 0)
    {
        g_CreatedContainer = szContainer;
        g_hCreator = *phProv;
    }
    return acquired;
}

// The header of a blob the stand-in made; null for any other bytes.
inline const Header* HeaderOf(const BYTE* pb, DWORD cb)
{
    const auto* header = reinterpret_cast<const Header*>(pb);
    const bool valid = pb != nullptr && cb >= sizeof(Header) && std::memcmp(header->magic, "QCPFX1", 7) == 0 &&
                       header->cbCertificate <= cb - sizeof(Header);
    return valid ? header : nullptr;
}

inline BOOL WINAPI ExportStandIn(HCERTSTORE hStore, CRYPT_DATA_BLOB* pPFX, LPCWSTR /*szPassword*/, void* /*pvPara*/,
                                 DWORD dwFlags)
{
    const Types::CCertContext certificate(::CertEnumCertificatesInStore(hStore, nullptr));
    Header header{"QCPFX1", certificate ? certificate.Get()->cbCertEncoded : 0, 0};
    std::vector<BYTE> key;
    if ((dwFlags & EXPORT_PRIVATE_KEYS) != 0)
    {
        // The key the certificate's key-provider property names, with its kind (AT_KEYEXCHANGE or AT_SIGNATURE).
        const std::vector<BYTE> bytes = KeyProviderInfo(certificate.Get());
        const auto* info = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(bytes.data());
        Types::CCryptKey hKey;
        DWORD cbKey = 0;
        const bool sized = info != nullptr && info->pwszContainerName != nullptr &&
                           info->pwszContainerName == g_CreatedContainer &&
                           ::CryptGetUserKey(g_hCreator, info->dwKeySpec, hKey.Put()) &&
                           ::CryptExportKey(hKey.Get(), 0, PRIVATEKEYBLOB, 0, nullptr, &cbKey);
        key.resize(cbKey);
        if (!sized || !::CryptExportKey(hKey.Get(), 0, PRIVATEKEYBLOB, 0, key.data(), &cbKey))
        {
            return FALSE;
        }
        header.keySpec = info->dwKeySpec;
    }
    std::vector<BYTE> blob(reinterpret_cast<const BYTE*>(&header), reinterpret_cast<const BYTE*>(&header + 1));
    blob.insert(blob.end(), certificate.Get()->pbCertEncoded, certificate.Get()->pbCertEncoded + header.cbCertificate);
    blob.insert(blob.end(), key.begin(), key.end());
    const bool fits = pPFX->pbData == nullptr || pPFX->cbData >= blob.size();
    if (pPFX->pbData != nullptr && fits)
    {
        std::memcpy(pPFX->pbData, blob.data(), blob.size());
    }
    pPFX->cbData = static_cast<DWORD>(blob.size());
    ::SetLastError(fits ? ERROR_SUCCESS : ERROR_MORE_DATA);
    return fits ? TRUE : FALSE;
}

inline HCERTSTORE WINAPI ImportStandIn(CRYPT_DATA_BLOB* pPFX, LPCWSTR /*szPassword*/, DWORD dwFlags)
{
    g_ImportFlags.push_back(dwFlags);
    const Header* header = pPFX == nullptr ? nullptr : HeaderOf(pPFX->pbData, pPFX->cbData);
    if (header == nullptr)
    {
        ::SetLastError(static_cast<DWORD>(CRYPT_E_BAD_ENCODE));
        return nullptr;
    }
    const BYTE* pbCertificate = pPFX->pbData + sizeof(Header);
    const DWORD cbKey = pPFX->cbData - sizeof(Header) - header->cbCertificate;
    Types::CCertStoreHandle store(::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
    Types::CCertContext certificate;
    if (!store || !::CertAddEncodedCertificateToStore(store.Get(), X509_ASN_ENCODING, pbCertificate,
                                                      header->cbCertificate, CERT_STORE_ADD_NEW, certificate.Put()))
    {
        return nullptr;
    }
    // A new container per import, also for the same certificate again.
    std::wstring container =
        L"QcPfxImport" + std::to_wstring(::GetTickCount64()) + L"." + std::to_wstring(g_ImportFlags.size());
    const DWORD keySet = dwFlags & CRYPT_MACHINE_KEYSET;
    CRYPT_KEY_PROV_INFO info{
        container.data(), const_cast<LPWSTR>(MS_ENHANCED_PROV_W), PROV_RSA_FULL, keySet, 0, nullptr, header->keySpec};
    Types::CCryptProvider provider;
    Types::CCryptKey key;
    const bool keyed =
        cbKey == 0 || (::CryptAcquireContextW(provider.Put(), container.c_str(), MS_ENHANCED_PROV_W, PROV_RSA_FULL,
                                              CRYPT_NEWKEYSET | keySet) &&
                       ::CryptImportKey(provider.Get(), pbCertificate + header->cbCertificate, cbKey, 0,
                                        dwFlags & CRYPT_EXPORTABLE, key.Put()) &&
                       ::CertSetCertificateContextProperty(certificate.Get(), CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
    return keyed ? store.Detach() : nullptr;
}

} // namespace PfxStandIn

// Installs the stand-in into the imports of `hModule` until destroyed.
class CPfxSeam
{
public:
    explicit CPfxSeam(HMODULE hModule)
            : m_Acquire(hModule, "advapi32.dll", "CryptAcquireContextW",
                        reinterpret_cast<const void*>(&PfxStandIn::AcquireWatcher)),
              m_Export(hModule, "crypt32.dll", "PFXExportCertStoreEx",
                       reinterpret_cast<const void*>(&PfxStandIn::ExportStandIn)),
              m_Import(hModule, "crypt32.dll", "PFXImportCertStore",
                       reinterpret_cast<const void*>(&PfxStandIn::ImportStandIn))
    {
        PfxStandIn::g_ImportFlags.clear();
        if (m_Acquire.IsApplied() && PfxStandIn::g_pRealAcquire == nullptr)
        {
            PfxStandIn::g_pRealAcquire = m_Acquire.Original<decltype(&::CryptAcquireContextW)>();
        }
    }

    bool IsInstalled() const { return m_Acquire.IsApplied() && m_Export.IsApplied() && m_Import.IsApplied(); }
    // The flags of each import since the seam was installed, in order.
    static const std::vector<DWORD>& ImportFlags() { return PfxStandIn::g_ImportFlags; }
    // The encoded certificate inside a blob the stand-in made; empty if it is none.
    static std::vector<BYTE> CertificateOf(const BYTE* pbPfx, DWORD cbPfx)
    {
        const PfxStandIn::Header* header = PfxStandIn::HeaderOf(pbPfx, cbPfx);
        const BYTE* pbCertificate = pbPfx + sizeof(PfxStandIn::Header);
        return header == nullptr ? std::vector<BYTE>()
                                 : std::vector<BYTE>(pbCertificate, pbCertificate + header->cbCertificate);
    }

private:
    CImportPatch m_Acquire;
    CImportPatch m_Export;
    CImportPatch m_Import;
};

} // namespace QcTest
