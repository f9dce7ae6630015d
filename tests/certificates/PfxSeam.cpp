#include "certificates/PfxSeam.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace QcTest {

namespace {

constexpr char kMagic[6] = {'Q', 'C', 'P', 'F', 'X', '1'};
constexpr wchar_t kImportProvider[] = MS_ENHANCED_PROV_W;

std::mutex g_Lock;
std::vector<DWORD> g_ImportFlags;
// The context that created each container (by name), as last seen.
std::map<std::wstring, HCRYPTPROV> g_Creators;

using AcquireFunction = BOOL(WINAPI*)(HCRYPTPROV*, LPCWSTR, LPCWSTR, DWORD, DWORD);
// The real function: a patched module's own calls would come back here.
AcquireFunction g_RealAcquire = nullptr;

BOOL WINAPI AcquireWatcher(HCRYPTPROV* phProv, LPCWSTR szContainer, LPCWSTR szProvider, DWORD dwProvType, DWORD dwFlags)
{
    const BOOL acquired = g_RealAcquire(phProv, szContainer, szProvider, dwProvType, dwFlags);
    if (acquired && szContainer != nullptr && (dwFlags & CRYPT_NEWKEYSET) != 0)
    {
        const DWORD error = ::GetLastError();
        {
            const std::lock_guard<std::mutex> lock(g_Lock);
            g_Creators[szContainer] = *phProv;
        }
        ::SetLastError(error);
    }
    return acquired;
}

HCRYPTPROV CreatorOf(const wchar_t* container)
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    const auto found = g_Creators.find(container);
    return found == g_Creators.end() ? 0 : found->second;
}

void Wipe(std::vector<BYTE>& bytes)
{
    ::SecureZeroMemory(bytes.data(), bytes.size());
}

void Put(std::vector<BYTE>& out, const BYTE* pb, DWORD cb)
{
    out.insert(out.end(), reinterpret_cast<const BYTE*>(&cb), reinterpret_cast<const BYTE*>(&cb) + sizeof(cb));
    out.insert(out.end(), pb, pb + cb);
}

// Reads one length-prefixed part at `offset`; false when the blob ends early.
bool Take(const BYTE* pb, DWORD cb, DWORD& offset, const BYTE*& part, DWORD& cbPart)
{
    if (cb - offset < sizeof(DWORD))
    {
        return false;
    }
    std::memcpy(&cbPart, pb + offset, sizeof(DWORD));
    offset += sizeof(DWORD);
    if (cb - offset < cbPart)
    {
        return false;
    }
    part = pb + offset;
    offset += cbPart;
    return true;
}

struct Parsed
{
    const BYTE* pbCert = nullptr;
    DWORD cbCert = 0;
    const BYTE* pbSpec = nullptr;
    DWORD cbSpec = 0;
    const BYTE* pbKey = nullptr;
    DWORD cbKey = 0;
};

bool Parse(const BYTE* pb, DWORD cb, Parsed& parsed)
{
    DWORD offset = sizeof(kMagic);
    return pb != nullptr && cb >= sizeof(kMagic) && std::memcmp(pb, kMagic, sizeof(kMagic)) == 0 &&
           Take(pb, cb, offset, parsed.pbCert, parsed.cbCert) && Take(pb, cb, offset, parsed.pbSpec, parsed.cbSpec) &&
           parsed.cbSpec == sizeof(DWORD) && Take(pb, cb, offset, parsed.pbKey, parsed.cbKey) && offset == cb;
}

// The private key of `pCert` as a PRIVATEKEYBLOB, read through its key-provider property.
bool ExportPrivateKey(PCCERT_CONTEXT pCert, std::vector<BYTE>& key, DWORD& keySpec)
{
    DWORD cbInfo = 0;
    if (!::CertGetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &cbInfo))
    {
        return false;
    }
    std::vector<BYTE> infoBytes(cbInfo);
    auto* info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(infoBytes.data());
    if (!::CertGetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, info, &cbInfo))
    {
        return false;
    }
    HCRYPTPROV hProv = CreatorOf(info->pwszContainerName);
    const bool borrowed = hProv != 0;
    if (!borrowed && !::CryptAcquireContextW(&hProv, info->pwszContainerName, info->pwszProvName, info->dwProvType,
                                             info->dwFlags & CRYPT_MACHINE_KEYSET))
    {
        return false;
    }
    HCRYPTKEY hKey = 0;
    DWORD cbKey = 0;
    bool done = ::CryptGetUserKey(hProv, info->dwKeySpec, &hKey) &&
                ::CryptExportKey(hKey, 0, PRIVATEKEYBLOB, 0, nullptr, &cbKey);
    if (done)
    {
        key.resize(cbKey);
        done = ::CryptExportKey(hKey, 0, PRIVATEKEYBLOB, 0, key.data(), &cbKey);
        key.resize(cbKey);
    }
    const DWORD error = ::GetLastError();
    if (hKey != 0)
    {
        ::CryptDestroyKey(hKey);
    }
    if (!borrowed)
    {
        ::CryptReleaseContext(hProv, 0);
    }
    keySpec = info->dwKeySpec;
    ::SetLastError(error);
    return done;
}

BOOL WINAPI ExportStandIn(HCERTSTORE hStore, CRYPT_DATA_BLOB* pPFX, LPCWSTR /*szPassword*/, void* /*pvPara*/,
                          DWORD dwFlags)
{
    PCCERT_CONTEXT pCert = ::CertEnumCertificatesInStore(hStore, nullptr);
    if (pPFX == nullptr || pCert == nullptr)
    {
        if (pCert != nullptr)
        {
            ::CertFreeCertificateContext(pCert);
        }
        ::SetLastError(static_cast<DWORD>(E_INVALIDARG));
        return FALSE;
    }
    std::vector<BYTE> key;
    DWORD keySpec = 0;
    if ((dwFlags & EXPORT_PRIVATE_KEYS) != 0 && !ExportPrivateKey(pCert, key, keySpec))
    {
        const DWORD error = ::GetLastError();
        ::CertFreeCertificateContext(pCert);
        ::SetLastError(error);
        return FALSE;
    }
    std::vector<BYTE> blob(kMagic, kMagic + sizeof(kMagic));
    Put(blob, pCert->pbCertEncoded, pCert->cbCertEncoded);
    Put(blob, reinterpret_cast<const BYTE*>(&keySpec), sizeof(keySpec));
    Put(blob, key.data(), static_cast<DWORD>(key.size()));
    Wipe(key);
    ::CertFreeCertificateContext(pCert);

    BOOL result = TRUE;
    if (pPFX->pbData != nullptr && pPFX->cbData < blob.size())
    {
        ::SetLastError(ERROR_MORE_DATA);
        result = FALSE;
    }
    else if (pPFX->pbData != nullptr)
    {
        std::memcpy(pPFX->pbData, blob.data(), blob.size());
    }
    pPFX->cbData = static_cast<DWORD>(blob.size());
    Wipe(blob);
    return result;
}

HCERTSTORE WINAPI ImportStandIn(CRYPT_DATA_BLOB* pPFX, LPCWSTR /*szPassword*/, DWORD dwFlags)
{
    {
        const std::lock_guard<std::mutex> lock(g_Lock);
        g_ImportFlags.push_back(dwFlags);
    }
    Parsed parsed;
    if (pPFX == nullptr || !Parse(pPFX->pbData, pPFX->cbData, parsed))
    {
        ::SetLastError(static_cast<DWORD>(CRYPT_E_BAD_ENCODE));
        return nullptr;
    }
    HCERTSTORE hStore = ::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
    PCCERT_CONTEXT pCert = nullptr;
    if (hStore == nullptr || !::CertAddEncodedCertificateToStore(hStore, X509_ASN_ENCODING, parsed.pbCert,
                                                                 parsed.cbCert, CERT_STORE_ADD_NEW, &pCert))
    {
        return hStore == nullptr ? nullptr : (::CertCloseStore(hStore, 0), nullptr);
    }
    DWORD keySpec = 0;
    std::memcpy(&keySpec, parsed.pbSpec, sizeof(keySpec));
    if (parsed.cbKey != 0)
    {
        GUID guid{};
        wchar_t container[64] = {};
        (void)::CoCreateGuid(&guid);
        ::StringFromGUID2(guid, container, 64);
        const DWORD keySet = dwFlags & CRYPT_MACHINE_KEYSET;
        HCRYPTPROV hProv = 0;
        HCRYPTKEY hKey = 0;
        bool done = ::CryptAcquireContextW(&hProv, container, kImportProvider, PROV_RSA_FULL, CRYPT_NEWKEYSET | keySet);
        done = done && ::CryptImportKey(hProv, parsed.pbKey, parsed.cbKey, 0, dwFlags & CRYPT_EXPORTABLE, &hKey);
        CRYPT_KEY_PROV_INFO info{container, const_cast<LPWSTR>(kImportProvider), PROV_RSA_FULL, keySet, 0, nullptr,
                                 keySpec};
        done = done && ::CertSetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, 0, &info);
        const DWORD error = ::GetLastError();
        if (hKey != 0)
        {
            ::CryptDestroyKey(hKey);
        }
        if (hProv != 0)
        {
            ::CryptReleaseContext(hProv, 0);
        }
        if (!done)
        {
            ::CryptAcquireContextW(&hProv, container, kImportProvider, PROV_RSA_FULL, CRYPT_DELETEKEYSET | keySet);
            ::CertFreeCertificateContext(pCert);
            ::CertCloseStore(hStore, 0);
            ::SetLastError(error);
            return nullptr;
        }
    }
    ::CertFreeCertificateContext(pCert);
    return hStore;
}

} // namespace

CPfxSeam::CPfxSeam(HMODULE hModule)
        : m_Acquire(hModule, "advapi32.dll", "CryptAcquireContextW", reinterpret_cast<const void*>(&AcquireWatcher)),
          m_Export(hModule, "crypt32.dll", "PFXExportCertStoreEx", reinterpret_cast<const void*>(&ExportStandIn)),
          m_Import(hModule, "crypt32.dll", "PFXImportCertStore", reinterpret_cast<const void*>(&ImportStandIn))
{
    if (m_Acquire.IsApplied() && g_RealAcquire == nullptr)
    {
        g_RealAcquire = m_Acquire.Original<AcquireFunction>();
    }
}

std::vector<DWORD> CPfxSeam::ImportFlags()
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    return g_ImportFlags;
}

void CPfxSeam::Clear()
{
    const std::lock_guard<std::mutex> lock(g_Lock);
    g_ImportFlags.clear();
}

std::vector<BYTE> CPfxSeam::CertificateOf(const BYTE* pbPfx, DWORD cbPfx)
{
    Parsed parsed;
    if (!Parse(pbPfx, cbPfx, parsed))
    {
        return {};
    }
    return std::vector<BYTE>(parsed.pbCert, parsed.pbCert + parsed.cbCert);
}

} // namespace QcTest
