#pragma once

// The local machine's certificate stores and the key containers, read and restored by the certificate
// tests, the end-to-end cases' store tool and the benchmark.
#include <windows.h>
#include <wincrypt.h>

#include <set>
#include <string>
#include <vector>

#include "certificates/StoreCertificates.h"
#include "host/types/Handles.h"

namespace QcTest {

using Quillcast::Certificates::CStoreCertificates;
using Quillcast::System::Types::CCertStoreHandle;

// One certificate of a store, as the tests compare them.
struct StoredCertificate
{
    std::wstring thumbprint; // SHA-1, a byte per character: compared, never shown
    std::wstring subject;    // simple display names
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
    BYTE hash[20] = {};
    DWORD cbHash = sizeof(hash);
    ::CertGetCertificateContextProperty(pCert, CERT_SHA1_HASH_PROP_ID, hash, &cbHash);
    certificate.thumbprint.assign(hash, hash + cbHash);
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

// The names of the key containers of the machine key set or the user's. Wine keeps each as a registry
// key (PP_ENUMCONTAINERS does not reach the machine key set from a verification context).
inline std::set<std::string> KeyContainers(bool machine)
{
    std::set<std::string> names;
    Quillcast::System::Types::CRegistryKey key;
    if (::RegOpenKeyExA(machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER, "Software\\Wine\\Crypto\\RSA", 0, KEY_READ,
                        key.Put()) == ERROR_SUCCESS)
    {
        char name[1024] = {};
        for (DWORD index = 0, length = sizeof(name);
             ::RegEnumKeyExA(key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
             ++index, length = sizeof(name))
        {
            names.insert(name);
        }
    }
    return names;
}

// Every certificate of the local machine's system store `store` ("Root", "MY").
inline std::vector<StoredCertificate> MachineCertificates(const wchar_t* store)
{
    std::vector<StoredCertificate> certificates;
    const CCertStoreHandle hStore = OpenMachineStore(store);
    for (PCCERT_CONTEXT pCert : CStoreCertificates(hStore.Get()))
    {
        certificates.push_back(Describe(pCert));
    }
    return certificates;
}

inline std::set<std::wstring> Thumbprints(const std::vector<StoredCertificate>& certificates)
{
    std::set<std::wstring> thumbprints;
    for (const StoredCertificate& certificate : certificates)
    {
        thumbprints.insert(certificate.thumbprint);
    }
    return thumbprints;
}

// Removes the certificates of `hStore` that `picked` chooses, with the key containers they name, and commits
// the store.
template <typename TPick>
void RemoveCertificates(HCERTSTORE hStore, TPick picked)
{
    CStoreCertificates certificates(hStore);
    for (PCCERT_CONTEXT pCert = certificates.Next(); pCert != nullptr; pCert = certificates.Next())
    {
        if (!picked(Describe(pCert)))
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

inline void RemoveMachineCertificates(const wchar_t* store, const std::set<std::wstring>& thumbprints)
{
    RemoveCertificates(OpenMachineStore(store).Get(),
                       [&](const StoredCertificate& certificate) { return thumbprints.count(certificate.thumbprint); });
}

} // namespace QcTest
