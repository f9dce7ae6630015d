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
        Quillcast::System::Types::CRegistryKey key;
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

} // namespace QcTest
