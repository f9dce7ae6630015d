#include "certificates/CertificateKit.h"
#include "support/ShippedDll.h"

#include <cstdio>
#include <cstdlib>

namespace QcTest {

namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

HCERTSTORE OpenMachineStore(const wchar_t* store)
{
    return ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, kEncoding, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, store);
}

std::wstring NameOf(PCCERT_CONTEXT pCert, DWORD flags)
{
    wchar_t name[512] = {};
    ::CertGetNameStringW(pCert, CERT_NAME_SIMPLE_DISPLAY_TYPE, flags, nullptr, name, 512);
    return name;
}

StoredCertificate Describe(PCCERT_CONTEXT pCert)
{
    StoredCertificate certificate;
    BYTE hash[20] = {};
    DWORD cbHash = sizeof(hash);
    if (::CertGetCertificateContextProperty(pCert, CERT_SHA1_HASH_PROP_ID, hash, &cbHash))
    {
        wchar_t hex[3] = {};
        for (DWORD i = 0; i < cbHash; ++i)
        {
            _snwprintf(hex, 3, L"%02X", hash[i]);
            certificate.thumbprint += hex;
        }
    }
    certificate.subject = NameOf(pCert, 0);
    certificate.issuer = NameOf(pCert, CERT_NAME_ISSUER_FLAG);
    certificate.der.assign(pCert->pbCertEncoded, pCert->pbCertEncoded + pCert->cbCertEncoded);
    DWORD cbInfo = 0;
    if (::CertGetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &cbInfo))
    {
        std::vector<BYTE> bytes(cbInfo);
        auto* info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(bytes.data());
        if (::CertGetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, info, &cbInfo))
        {
            certificate.container = info->pwszContainerName;
            certificate.machineKey = (info->dwFlags & CRYPT_MACHINE_KEYSET) != 0;
        }
    }
    return certificate;
}

} // namespace

std::set<std::string> KeyContainers(bool machine)
{
    // Wine keeps every container as a registry key (PP_ENUMCONTAINERS does not
    // reach the machine key set from a verification context).
    std::set<std::string> names;
    HKEY hKey = nullptr;
    if (::RegOpenKeyExA(machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER, "Software\\Wine\\Crypto\\RSA", 0, KEY_READ,
                        &hKey) != ERROR_SUCCESS)
    {
        return names;
    }
    char name[1024] = {};
    for (DWORD index = 0, length = sizeof(name);
         ::RegEnumKeyExA(hKey, index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index, length = sizeof(name))
    {
        names.insert(name);
    }
    ::RegCloseKey(hKey);
    return names;
}

std::vector<StoredCertificate> MachineCertificates(const wchar_t* store)
{
    std::vector<StoredCertificate> certificates;
    HCERTSTORE hStore = OpenMachineStore(store);
    for (PCCERT_CONTEXT pCert = hStore ? ::CertEnumCertificatesInStore(hStore, nullptr) : nullptr; pCert != nullptr;
         pCert = ::CertEnumCertificatesInStore(hStore, pCert))
    {
        certificates.push_back(Describe(pCert));
    }
    if (hStore != nullptr)
    {
        ::CertCloseStore(hStore, 0);
    }
    return certificates;
}

std::vector<StoredCertificate> MachineCertificates(const wchar_t* store, const std::wstring& subject)
{
    std::vector<StoredCertificate> matching;
    for (StoredCertificate& certificate : MachineCertificates(store))
    {
        if (certificate.subject == subject)
        {
            matching.push_back(std::move(certificate));
        }
    }
    return matching;
}

std::set<std::wstring> Thumbprints(const std::vector<StoredCertificate>& certificates)
{
    std::set<std::wstring> thumbprints;
    for (const StoredCertificate& certificate : certificates)
    {
        thumbprints.insert(certificate.thumbprint);
    }
    return thumbprints;
}

void RemoveMachineCertificates(const wchar_t* store, const std::set<std::wstring>& thumbprints)
{
    HCERTSTORE hStore = OpenMachineStore(store);
    if (hStore == nullptr)
    {
        return;
    }
    for (bool removed = true; removed;)
    {
        removed = false;
        for (PCCERT_CONTEXT pCert = ::CertEnumCertificatesInStore(hStore, nullptr); pCert != nullptr;
             pCert = ::CertEnumCertificatesInStore(hStore, pCert))
        {
            const StoredCertificate certificate = Describe(pCert);
            if (thumbprints.count(certificate.thumbprint) == 0)
            {
                continue;
            }
            if (!certificate.container.empty())
            {
                HCRYPTPROV hProv = 0;
                ::CryptAcquireContextW(&hProv, certificate.container.c_str(), MS_ENHANCED_PROV_W, PROV_RSA_FULL,
                                       CRYPT_DELETEKEYSET | (certificate.machineKey ? CRYPT_MACHINE_KEYSET : 0));
            }
            ::CertDeleteCertificateFromStore(pCert);
            removed = true;
            break;
        }
    }
    ::CertControlStore(hStore, 0, CERT_STORE_CTRL_COMMIT, nullptr);
    ::CertCloseStore(hStore, 0);
}

bool AddMachineCertificate(const wchar_t* store, const std::vector<BYTE>& der)
{
    HCERTSTORE hStore = OpenMachineStore(store);
    const bool added =
        hStore != nullptr &&
        ::CertAddEncodedCertificateToStore(hStore, X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()),
                                           CERT_STORE_ADD_NEW, nullptr) &&
        ::CertControlStore(hStore, 0, CERT_STORE_CTRL_COMMIT, nullptr);
    if (hStore != nullptr)
    {
        ::CertCloseStore(hStore, 0);
    }
    return added;
}

std::vector<BYTE> MakeSelfSigned(const std::wstring& commonName, const std::wstring& container, const SYSTEMTIME& from,
                                 const SYSTEMTIME& to)
{
    std::vector<BYTE> der;
    const std::wstring x500 = L"CN=" + commonName;
    DWORD cbName = 0;
    ::CertStrToNameW(X509_ASN_ENCODING, x500.c_str(), CERT_X500_NAME_STR, nullptr, nullptr, &cbName, nullptr);
    std::vector<BYTE> name(cbName);
    if (!::CertStrToNameW(X509_ASN_ENCODING, x500.c_str(), CERT_X500_NAME_STR, nullptr, name.data(), &cbName, nullptr))
    {
        return der;
    }
    HCRYPTPROV hProv = 0;
    HCRYPTKEY hKey = 0;
    if (!::CryptAcquireContextW(&hProv, container.c_str(), MS_DEF_PROV_W, PROV_RSA_FULL, CRYPT_NEWKEYSET))
    {
        return der;
    }
    if (::CryptGenKey(hProv, AT_SIGNATURE, (1024u << 16), &hKey))
    {
        ::CryptDestroyKey(hKey);
        CERT_NAME_BLOB subject{cbName, name.data()};
        CRYPT_KEY_PROV_INFO info{const_cast<LPWSTR>(container.c_str()),
                                 const_cast<LPWSTR>(MS_DEF_PROV_W),
                                 PROV_RSA_FULL,
                                 0,
                                 0,
                                 nullptr,
                                 AT_SIGNATURE};
        SYSTEMTIME start = from;
        SYSTEMTIME end = to;
        PCCERT_CONTEXT pCert =
            ::CertCreateSelfSignCertificate(hProv, &subject, 0, &info, nullptr, &start, &end, nullptr);
        if (pCert != nullptr)
        {
            der.assign(pCert->pbCertEncoded, pCert->pbCertEncoded + pCert->cbCertEncoded);
            ::CertFreeCertificateContext(pCert);
        }
    }
    ::CryptReleaseContext(hProv, 0);
    return der;
}

std::wstring OutputFolder()
{
    const std::wstring folder = BinFolder() + L"..\\tests\\certificates\\out";
    ::CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

bool WriteFile(const std::wstring& path, const std::vector<BYTE>& bytes)
{
    FILE* file = _wfopen(path.c_str(), L"wb");
    if (file == nullptr)
    {
        return false;
    }
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    return std::fclose(file) == 0 && written;
}

SYSTEMTIME AddYears(SYSTEMTIME time, int years)
{
    time.wYear = static_cast<WORD>(time.wYear + years);
    return time;
}

SYSTEMTIME UtcNow()
{
    SYSTEMTIME now{};
    ::GetSystemTime(&now);
    return now;
}

} // namespace QcTest
