// The certificate engine called directly and the shipped DLL's four certificate
// actions, against Wine's real CryptoAPI, key containers and stores. Only the
// PKCS #12 export and import, which Wine lacks, are answered by the stand-in of
// PfxSeam.h. OpenSSL judges the certificates written here (check-certificates.sh):
// version, algorithms, key sizes, names, validity, the extensions and the chain.
// Winsock 2 must come before windows.h.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "certificates/CertName.h"
#include "certificates/CertStore.h"
#include "certificates/CertificateKit.h"
#include "certificates/Certificates.h"
#include "certificates/PfxSeam.h"
#include "support/LogCapture.h"
#include "support/ShippedDll.h"

namespace QcTest {
namespace {

namespace Cert = Quillcast::Certificates;
using Lines = std::vector<std::wstring>;
using Change = std::function<void(Cert::CreateCertificateParams&)>;

constexpr wchar_t kIssuerStore[] = L"QcEngineIssuers"; // of the current user

// The engine's steps up to the certificate's fields, in the order it logs them.
const Lines kSteps = {L"InitializeCreateEnvironment()", L"CheckParameters(pParam = #)", L"ConvertCertNameToBlob()",
                      L"PreparePurposes()", L"CreateTemporaryCryptContainer()", L"PrepareCertificateParams()"};

// "QcCryptLog (#) <text>." with "[ERROR] " when the text contains ERROR.
std::wstring Crypt(const std::wstring& text)
{
    const bool error = text.find(L"ERROR") != std::wstring::npos;
    return std::wstring(error ? L"[ERROR] " : L"") + L"QcCryptLog (#) " + text + L".";
}

// The engine's entries for `texts`, with the first `steps` of kSteps after the first text.
Lines CryptLines(Lines texts, size_t steps = 0)
{
    texts.insert(texts.begin() + 1, kSteps.begin(), kSteps.begin() + static_cast<std::ptrdiff_t>(steps));
    std::transform(texts.begin(), texts.end(), texts.begin(), Crypt);
    return texts;
}

// `items` followed by `more`.
template <typename T>
std::vector<T> Then(std::vector<T> items, const std::vector<T>& more)
{
    items.insert(items.end(), more.begin(), more.end());
    return items;
}

// Bodies with every "pParam = <hex>" and "pCertMem = <hex>" masked as "#".
Lines Masked(Lines bodies)
{
    static const std::wregex address(L"(pParam|pCertMem) = [0-9A-F]+");
    for (std::wstring& body : bodies)
    {
        body = std::regex_replace(body, address, L"$1 = #");
    }
    return bodies;
}

// Without the "IsCertNameEqualTo()" entries, one per certificate a look-up walks.
Lines WithoutNameChecks(Lines lines)
{
    lines.erase(std::remove(lines.begin(), lines.end(), Crypt(L"IsCertNameEqualTo()")), lines.end());
    return lines;
}

HCERTSTORE OpenIssuerStore()
{
    return ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                           CERT_SYSTEM_STORE_CURRENT_USER, kIssuerStore);
}

// The issuer store's certificates in enumeration order: whether each has expired.
// With `clear`, they are removed instead.
std::vector<bool> IssuerStoreExpiry(bool clear = false)
{
    std::vector<bool> expired;
    HCERTSTORE hStore = OpenIssuerStore();
    for (PCCERT_CONTEXT p = ::CertEnumCertificatesInStore(hStore, nullptr); p != nullptr;
         p = ::CertEnumCertificatesInStore(hStore, clear ? nullptr : p))
    {
        expired.push_back(::CertVerifyTimeValidity(nullptr, p->pCertInfo) != 0);
        if (clear)
        {
            ::CertDeleteCertificateFromStore(p);
        }
    }
    ::CertControlStore(hStore, 0, CERT_STORE_CTRL_COMMIT, nullptr);
    ::CertCloseStore(hStore, 0);
    return expired;
}

// Issuer-signed by the issuer store's `name`.
Change IssuedBy(const wchar_t* name)
{
    return [name](Cert::CreateCertificateParams& p) {
        p.bSelfSigned = 0, p.pszIssuerName = name, p.pszIssuerStore = kIssuerStore, p.dwIssuerStoreLocation = 0;
    };
}

// Every test leaves the key containers of the machine and the user, the
// machine's "Root" and "MY" and the user's issuer store as it found them, and
// fails when the code under test left a key container behind.
class CertificateTest : public ::testing::Test
{
protected:
    static QcRunner::CActionLibrary& Library()
    {
        // Loaded once and never unloaded while tests still run.
        static auto* pLibrary = new QcRunner::CActionLibrary(ShippedDllPath());
        return *pLibrary;
    }
    // The module whose PKCS #12 imports the stand-in answers.
    virtual HMODULE SeamModule() const { return Library().Module(); }

    void SetUp() override
    {
        ASSERT_TRUE(Library().IsLoaded()) << "cannot load the DLL";
        m_pSeam = std::make_unique<CPfxSeam>(SeamModule());
        ASSERT_TRUE(m_pSeam->IsInstalled()) << "the module does not import the PKCS #12 functions";
        CPfxSeam::Clear();
        m_UserContainers = KeyContainers(false);
        m_MachineContainers = KeyContainers(true);
        for (const wchar_t* store : {L"Root", L"MY"})
        {
            m_Before[store] = Thumbprints(MachineCertificates(store));
        }
    }
    void TearDown() override
    {
        for (const wchar_t* store : {L"Root", L"MY"})
        {
            RemoveMachineCertificates(store, Thumbprints(Added(store)));
        }
        IssuerStoreExpiry(true);
        for (const auto& [container, machine] : m_Owned)
        {
            HCRYPTPROV hProv = 0;
            ::CryptAcquireContextW(&hProv, container.c_str(), MS_ENHANCED_PROV_W, PROV_RSA_FULL,
                                   CRYPT_DELETEKEYSET | (machine ? CRYPT_MACHINE_KEYSET : 0));
        }
        m_pSeam.reset();
        EXPECT_EQ(KeyContainers(false), m_UserContainers);
        EXPECT_EQ(KeyContainers(true), m_MachineContainers);
    }

    // The certificates added to the machine store since SetUp.
    std::vector<StoredCertificate> Added(const wchar_t* store) const
    {
        const std::set<std::wstring>& before = m_Before.at(store);
        std::vector<StoredCertificate> added = MachineCertificates(store);
        added.erase(std::remove_if(added.begin(), added.end(),
                                   [&before](const auto& certificate) { return before.count(certificate.thumbprint); }),
                    added.end());
        return added;
    }

    std::unique_ptr<CPfxSeam> m_pSeam;
    std::set<std::string> m_UserContainers;
    std::set<std::string> m_MachineContainers;
    std::map<std::wstring, std::set<std::wstring>> m_Before; // thumbprints of the machine's "Root" and "MY"
    // Key containers deleted when the test ends (name, machine key set): the
    // uninstall actions remove certificates, not their keys.
    std::vector<std::pair<std::wstring, bool>> m_Owned;
};

// ================================================================ the engine of this program

struct Created
{
    int32_t result = 0;
    std::vector<BYTE> pfx;
    std::vector<BYTE> der;
    std::shared_ptr<const CERT_CONTEXT> pCert; // null unless created
    Lines lines;                               // the engine's bodies after the record checks, addresses masked
};

class Engine : public CertificateTest
{
protected:
    HMODULE SeamModule() const override { return ::GetModuleHandleW(nullptr); }

    // Root-like defaults (self-signed, signature key, 51 years) changed by `change`.
    static Created Create(const wchar_t* subject, const Change& change = {})
    {
        Cert::CreateCertificateParams params{};
        params.dwSize = 80;
        Cert::InitializeCreateCertificateParams(&params);
        params.pszSubjectName = subject;
        params.dwKeyType = AT_SIGNATURE;
        params.stValidTo.wYear = static_cast<WORD>(params.stValidTo.wYear + 50);
        if (change)
        {
            change(params);
        }
        Created created;
        CLogCapture capture;
        created.result = Cert::CreateCertificate(&params);
        const Lines bodies = Masked(capture.Bodies());
        const auto checked = std::find(bodies.begin(), bodies.end(),
                                       Crypt(L"CreateCertificate(pParam->dwSize = 80 | Expected = 80)"));
        created.lines.assign(checked == bodies.end() ? checked : checked + 1, bodies.end());
        EXPECT_EQ(params.pbPfx == nullptr, created.result != 0);
        if (created.result == 0)
        {
            created.pfx.assign(params.pbPfx, params.pbPfx + params.cbPfx);
            created.der = CPfxSeam::CertificateOf(params.pbPfx, params.cbPfx);
            created.pCert.reset(::CertCreateCertificateContext(X509_ASN_ENCODING, created.der.data(),
                                                               static_cast<DWORD>(created.der.size())),
                                ::CertFreeCertificateContext);
            EXPECT_NE(created.pCert, nullptr);
            Cert::FreeCertificateMemory(params.pbPfx);
        }
        return created;
    }

    // A certificate of CertCreateSelfSignCertificate (sha1RSA, no extensions)
    // in the user's issuer store, valid for a year from now, or expired; it
    // names its new key container unless `withKey` is false. Returns the container.
    std::wstring AddIssuer(const std::wstring& name, bool expired, bool withKey = true)
    {
        // Unique, so that a container left by an aborted run never collides.
        GUID guid{};
        wchar_t unique[64] = {};
        (void)::CoCreateGuid(&guid);
        ::StringFromGUID2(guid, unique, 64);
        const std::wstring container = std::wstring(L"QcEngineIssuer") + unique;
        m_Owned.emplace_back(container, false);
        const SYSTEMTIME from = AddYears(UtcNow(), expired ? -2 : 0);
        const std::vector<BYTE> der = MakeSelfSigned(name, container, from, AddYears(from, 1));
        HCERTSTORE hStore = OpenIssuerStore();
        PCCERT_CONTEXT pCert = nullptr;
        EXPECT_TRUE(::CertAddEncodedCertificateToStore(hStore, X509_ASN_ENCODING, der.data(),
                                                       static_cast<DWORD>(der.size()), CERT_STORE_ADD_NEW, &pCert));
        CRYPT_KEY_PROV_INFO info{const_cast<LPWSTR>(container.c_str()), const_cast<LPWSTR>(MS_DEF_PROV_W),
                                 PROV_RSA_FULL, 0, 0, nullptr, AT_SIGNATURE};
        if (withKey && pCert != nullptr)
        {
            EXPECT_TRUE(::CertSetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
        }
        ::CertFreeCertificateContext(pCert);
        ::CertCloseStore(hStore, 0);
        return container;
    }

    // The import of `pfx` into the user's `store`; the last entry it logged in *pLast.
    static int32_t Import(const std::vector<BYTE>& pfx, const wchar_t* store, DWORD exportable,
                          std::wstring* pLast = nullptr)
    {
        Cert::ImportCertificateParams params{32, const_cast<BYTE*>(pfx.data()), static_cast<DWORD>(pfx.size()), 0,
                                             store, exportable};
        CLogCapture capture;
        const int32_t result = Cert::ImportCertificate(&params);
        if (pLast != nullptr)
        {
            *pLast = capture.Bodies().back();
        }
        return result;
    }
};

// "Quillcast Engine Keyless" in the issuer store: none, naming no key container, naming one that is gone.
enum class Issuer { None, Keyless, KeyGone };

struct FailureCase
{
    const char* behaviour;
    Change change;
    int32_t result;
    size_t steps; // of kSteps, logged after "InternalCreateCertificate()"
    Lines failure;
    Issuer issuer = Issuer::None;
};

class EngineFailure : public Engine, public ::testing::WithParamInterface<FailureCase>
{
};

TEST_P(EngineFailure, FailsWithItsCodeAndMessagesAndLeavesNoContainer)
{
    const FailureCase& row = GetParam();
    if (row.issuer != Issuer::None)
    {
        const std::wstring container = AddIssuer(L"Quillcast Engine Keyless", false, row.issuer == Issuer::KeyGone);
        HCRYPTPROV hProv = 0;
        ASSERT_TRUE(row.issuer == Issuer::Keyless || ::CryptAcquireContextW(&hProv, container.c_str(), MS_DEF_PROV_W,
                                                                             PROV_RSA_FULL, CRYPT_DELETEKEYSET));
    }

    const Created created = Create(L"Quillcast Engine", row.change);

    EXPECT_EQ(created.result, row.result);
    EXPECT_EQ(created.lines, CryptLines(Then({L"InternalCreateCertificate()"}, row.failure), row.steps));
}

const std::wstring kCheckFailed = L"InternalCreateCertificate() - ERROR: CheckParameters failed.";
const std::wstring kNoEnvironment = L"InternalCreateCertificate() - ERROR: InitializeCreateEnvironment failed.";
const Lines kNoIssuer = {L"PrepareCertificateExtensions() - ERROR: FindCertificate failed.",
                         L"InternalCreateCertificate() - ERROR: PrepareCertificateExtensions failed."};

const FailureCase kFailures[] = {
    {"KeyTypeThree", [](auto& p) { p.dwKeyType = 3; }, -1, 2,
     {L"CheckParameters() - ERROR: Invalid keytype specified.", kCheckFailed}},
    {"KeyTypeZero", [](auto& p) { p.dwKeyType = 0; }, -1, 2,
     {L"CheckParameters() - ERROR: Invalid keytype specified.", kCheckFailed}},
    {"PurposesThirtyTwo", [](auto& p) { p.dwPurposes = 32; }, -1, 2,
     {L"CheckParameters() - ERROR: Invalid purposes bitmask specified.", kCheckFailed}},
    {"ProviderIndexMinusTwo", [](auto& p) { p.nProviderIndex = -2; }, -1, 2,
     {L"CheckParameters() - ERROR: Invalid encryption provider index specified.", kCheckFailed}},
    {"IssuerNameMissing", [](auto& p) { p.bSelfSigned = 0, p.pszIssuerStore = L"Root"; }, -1, 2,
     {L"CheckParameters() - ERROR: Invalid issuer certificate name specified.", kCheckFailed}},
    {"IssuerStoreEmpty", [](auto& p) { p.bSelfSigned = 0, p.pszIssuerName = L"X", p.pszIssuerStore = L""; }, -1, 2,
     {L"CheckParameters() - ERROR: Invalid issuer certificate store specified.", kCheckFailed}},
    // ERROR_NO_MORE_ITEMS from the provider list.
    {"ProviderIndexBeyondTheLast", [](auto& p) { p.nProviderIndex = 999; }, -1, 2,
     {L"GetCryptProvider(dwIndex == 999)", L"GetCryptProvider() - ERROR: RegEnumKeyEx failed (Error=259).",
      L"InternalCreateCertificate() - ERROR: Invalid provider index specified (999)."}},
    {"NoSubject", [](auto& p) { p.pszSubjectName = nullptr; }, -3, 1, {kNoEnvironment}},
    {"EmptySubject", [](auto& p) { p.pszSubjectName = L""; }, -3, 1, {kNoEnvironment}},
    // An unknown attribute makes it no X.500 name: CRYPT_E_INVALID_X500_STRING.
    {"SubjectThatIsNoX500Name", [](auto& p) { p.pszSubjectName = L"Quillcast, Bogus=1"; }, -5, 3,
     {L"ConvertCertNameToBlob() - ERROR: CertStrToName1 failed (-2146885597).",
      L"InternalCreateCertificate() - ERROR: ConvertCertNameToBlob failed."}},
    // Windows refuses 29 February of a year like 2027 here; Wine 8 takes it for
    // 1 March, so a date no calendar has stands in: ERROR_INVALID_PARAMETER,
    // after the key was made.
    {"EndOfValidityThatIsNoDate", [](auto& p) { p.stValidTo = {2027, 2, 0, 32, 12, 0, 0, 0}; }, -3, 6,
     {L"PrepareCertificateParams() - ERROR: SystemTimeToFileTime2 failed (87).",
      L"InternalCreateCertificate() - ERROR: PrepareCertificateParams failed."}},
    // CRYPT_E_NOT_FOUND, then NTE_BAD_KEYSET: the issuer's private key is out of reach.
    {"IssuerWithoutKeyProperty", IssuedBy(L"Quillcast Engine Keyless"), -6, 6,
     Then({L"PrepareCertificateExtensions()", L"FindCertificate()", L"IsCertNameEqualTo()",
           L"FindCertificate() - ERROR: CertGetCertificateContextProperty1 failed (Error=-2146885628)."},
          kNoIssuer),
     Issuer::Keyless},
    {"IssuerKeyContainerGone", IssuedBy(L"Quillcast Engine Keyless"), -6, 6,
     Then({L"PrepareCertificateExtensions()", L"FindCertificate()", L"IsCertNameEqualTo()",
           L"FindCertificate() - ERROR: CryptAcquireContext failed (Error=-2146893802)."},
          kNoIssuer),
     Issuer::KeyGone},
};

INSTANTIATE_TEST_SUITE_P(Cases, EngineFailure, ::testing::ValuesIn(kFailures),
                         [](const auto& param) { return std::string(param.param.behaviour); });

TEST_F(Engine, DefaultsAndARecordSmallerThanItsDeclaredSizeLeftUntouched)
{
    Cert::CreateCertificateParams params{};
    params.dwSize = 80;
    params.dwPurposes = 31;
    const int year = UtcNow().wYear;
    Cert::InitializeCreateCertificateParams(&params);
    // Key exchange key, md5RSA, self-signed, the Base provider, no purposes, one year.
    EXPECT_EQ(std::vector<int>({static_cast<int>(params.dwKeyType), static_cast<int>(params.dwHashAlgorithm),
                                static_cast<int>(params.bSelfSigned), params.nProviderIndex,
                                static_cast<int>(params.dwPurposes), params.stValidTo.wYear - year}),
              std::vector<int>({1, 1, 1, -1, 0, 1}));

    params.dwSize = 79;
    params.dwKeyType = 7;
    CLogCapture capture;
    Cert::InitializeCreateCertificateParams(&params);
    EXPECT_EQ(Cert::CreateCertificate(&params), -1);
    EXPECT_EQ(params.dwKeyType, 7u);
    EXPECT_EQ(Masked(capture.Bodies()),
              CryptLines({L"InitializeCreateCertificateParams ERROR(pParam = #)",
                          L"InitializeCreateCertificateParams(pParam->dwSize = 79 | Expected = 80)",
                          L"CreateCertificate(pParam = #)",
                          L"CreateCertificate(pParam->dwSize = 79 | Expected = 80)"}));
}

TEST_F(Engine, SelfSignedCertificateOfAProviderChosenByIndexKeepsItsNamePurposesAndOwnSignature)
{
    // The index of Microsoft's Enhanced provider, which allows 2048-bit exchange keys, in the provider list.
    wchar_t name[256] = {};
    DWORD index = 0;
    for (DWORD type = 0, size = sizeof(name); ::CryptEnumProvidersW(index, nullptr, 0, &type, name, &size) &&
                                              std::wstring(name) != MS_ENHANCED_PROV_W;
         size = sizeof(name))
    {
        ++index;
    }
    ASSERT_STREQ(name, MS_ENHANCED_PROV_W);

    const Created created = Create(L"Quillcast, O=Printing", [index](auto& p) {
        p.dwKeyType = AT_KEYEXCHANGE, p.nProviderIndex = static_cast<int32_t>(index), p.dwPurposes = 0x11,
        p.dwHashAlgorithm = 2;
    });

    ASSERT_EQ(created.result, 0) << ::testing::PrintToString(created.lines);
    EXPECT_EQ(created.lines[3], Crypt(L"GetCryptProvider(dwIndex == " + std::to_wstring(index) + L")"));
    CERT_INFO& info = *created.pCert->pCertInfo;
    EXPECT_EQ(::CertGetPublicKeyLength(X509_ASN_ENCODING, &info.SubjectPublicKeyInfo), 2048u);
    // The comma starts a second attribute of the name.
    ::CertNameToStrW(X509_ASN_ENCODING, &info.Subject, CERT_X500_NAME_STR, name, 256);
    EXPECT_STREQ(name, L"CN=Quillcast, O=Printing");
    EXPECT_EQ(info.SerialNumber.cbData, 16u);
    EXPECT_TRUE(::CryptVerifyCertificateSignature(0, X509_ASN_ENCODING, created.der.data(),
                                                  static_cast<DWORD>(created.der.size()), &info.SubjectPublicKeyInfo));
    // Deliberately not the SHA-1 of the public key's bits (RFC 5280's usual
    // identifier): the engine hashes its exported key structure.
    const CERT_EXTENSION* ski = ::CertFindExtension(szOID_SUBJECT_KEY_IDENTIFIER, info.cExtension, info.rgExtension);
    ASSERT_TRUE(ski != nullptr && ski->Value.cbData == 22u);
    BYTE keyHash[20] = {};
    DWORD cbKeyHash = sizeof(keyHash);
    ASSERT_TRUE(::CryptHashCertificate(0, CALG_SHA1, 0, info.SubjectPublicKeyInfo.PublicKey.pbData,
                                       info.SubjectPublicKeyInfo.PublicKey.cbData, keyHash, &cbKeyHash));
    EXPECT_NE(std::memcmp(keyHash, ski->Value.pbData + 2, 20), 0);
    // OpenSSL judges sha1RSA, the usages of purposes 0x11 and the extensions' order.
    EXPECT_TRUE(WriteFile(OutputFolder() + L"\\purposes.der", created.der));
}

TEST_F(Engine, ExpiredNamesakeIsPassedOverAndAnIssuerWithoutKeyIdentifierGivesNoAuthorityKeyIdentifier)
{
    // The expired one carries no key: had it been taken, the look-up would fail.
    // Whatever order the store keeps (insertion or thumbprint), one of a few
    // fresh pairs lists the expired one first.
    const std::vector<bool> expiredFirst = {true, false};
    for (int attempt = 0; attempt < 16 && IssuerStoreExpiry() != expiredFirst; ++attempt)
    {
        IssuerStoreExpiry(true);
        AddIssuer(L"Quillcast Engine Namesake", true, false);
        AddIssuer(L"Quillcast Engine Namesake", false);
    }
    ASSERT_EQ(IssuerStoreExpiry(), expiredFirst) << "the store lists the expired one first";

    const Created created = Create(L"Quillcast Engine Leaf", IssuedBy(L"Quillcast Engine Namesake"));

    ASSERT_EQ(created.result, 0) << ::testing::PrintToString(created.lines);
    const CERT_INFO& info = *created.pCert->pCertInfo;
    EXPECT_EQ(info.cExtension, 3u);
    EXPECT_EQ(::CertFindExtension(szOID_AUTHORITY_KEY_IDENTIFIER, info.cExtension, info.rgExtension), nullptr);
    // Signed with the issuer's own algorithm (CertCreateSelfSignCertificate's
    // sha1RSA) while the to-be-signed part keeps the md5RSA asked for: kept as it is.
    EXPECT_STREQ(info.SignatureAlgorithm.pszObjId, szOID_RSA_MD5RSA);
    CERT_SIGNED_CONTENT_INFO* pSigned = nullptr;
    DWORD size = 0;
    ASSERT_TRUE(::CryptDecodeObjectEx(X509_ASN_ENCODING, X509_CERT, created.der.data(),
                                      static_cast<DWORD>(created.der.size()), CRYPT_DECODE_ALLOC_FLAG, nullptr,
                                      &pSigned, &size));
    EXPECT_STREQ(pSigned->SignatureAlgorithm.pszObjId, szOID_RSA_SHA1RSA);
    ::LocalFree(pSigned);
}

TEST_F(Engine, ExistingScratchContainerIsOpenedAndDeletedAfterUse)
{
    HCRYPTPROV hProv = 0;
    ASSERT_TRUE(::CryptAcquireContextW(&hProv, L"QcTeMp", MS_DEF_PROV_W, PROV_RSA_FULL, CRYPT_NEWKEYSET));
    ::CryptReleaseContext(hProv, 0);

    const Created created = Create(L"Quillcast Engine Shared");

    EXPECT_EQ(created.result, 0);
    ASSERT_GE(created.lines.size(), 7u);
    EXPECT_EQ(created.lines[6], Crypt(L"CreateTemporaryCryptContainer() - CryptAcquireContext (create new) failed "
                                      L"-> try to open existing."));
    // TearDown finds "QcTeMp" gone.
}

TEST_F(Engine, ImportRefusesBadInputAndExpiredCertificatesAndReplacesTheSameCertificate)
{
    const std::vector<BYTE> garbage = {1, 2, 3};
    const std::wstring invalid = Crypt(L"InternalImportCertificate() - ERROR: Got invalid parameters.");
    std::wstring last;
    EXPECT_EQ(Import(garbage, kIssuerStore, 1, &last), -7);
    EXPECT_EQ(last, Crypt(L"InternalImportCertificate() - ERROR: PFXImportCertStore failed (-2146885630)."));
    EXPECT_EQ(Import({}, kIssuerStore, 1, &last), -1);
    EXPECT_EQ(last, invalid);
    EXPECT_EQ(Import(garbage, L"", 1, &last), -1);
    EXPECT_EQ(last, invalid);
    Cert::ImportCertificateParams small{31, const_cast<BYTE*>(garbage.data()), 3, 0, kIssuerStore, 1};
    EXPECT_EQ(Cert::ImportCertificate(&small), -1);

    const Created expired = Create(L"Quillcast Import", [](auto& p) { p.stValidTo = AddYears(UtcNow(), -1); });
    EXPECT_EQ(Import(expired.pfx, kIssuerStore, 1, &last), -8);
    EXPECT_EQ(last, Crypt(L"InternalImportCertificate() - ERROR: CertVerifyTimeValidity failed."));

    // The same certificate twice is replaced, not duplicated.
    const Created created = Create(L"Quillcast Import");
    EXPECT_EQ(Import(created.pfx, kIssuerStore, 0), 0);
    EXPECT_EQ(Import(created.pfx, kIssuerStore, 0), 0);
    EXPECT_EQ(IssuerStoreExpiry().size(), 1u);
    // Current user: CRYPT_USER_KEYSET, with CRYPT_EXPORTABLE when asked.
    EXPECT_EQ(CPfxSeam::ImportFlags(), std::vector<DWORD>({0x1001, 0x1001, 0x1000, 0x1000}));
    // Each import made a key container; the replaced copy's is an orphan, as
    // the import leaves it. Both go here; the engine's own left none.
    for (const std::string& name : KeyContainers(false))
    {
        if (m_UserContainers.count(name) == 0)
        {
            m_Owned.emplace_back(std::wstring(name.begin(), name.end()), false);
        }
    }
    EXPECT_EQ(m_Owned.size(), 2u);
}

TEST(CertStore, RefusesEmptyNamesAndDeletesOnlyFromAnOpenStoreAndANullCertificateHasNoName)
{
    CLogCapture capture;
    Cert::CCertStore store;
    // Refused with ERROR_INVALID_OPERATION or ERROR_INVALID_PARAMETER as the last error, silently.
    const auto refused = [&store](bool done) { return done ? 0u : static_cast<unsigned>(store.LastError()); };
    EXPECT_EQ(refused(store.DeleteBySubject(L"X")), 4317u);
    EXPECT_EQ(refused(store.Open(nullptr)), 87u);
    ASSERT_TRUE(store.Open(L"Root"));
    EXPECT_EQ(refused(store.DeleteByIssuer(L"")), 87u);
    EXPECT_EQ(refused(store.DeleteBySubject(nullptr)), 87u);
    store.Close();
    EXPECT_EQ(refused(store.DeleteByIssuer(L"X")), 4317u);
    EXPECT_STREQ(Quillcast::System::Types::Text(Cert::CCertName::OfSubject(nullptr)), L"");
    EXPECT_EQ(capture.Bodies(), Lines());
}

// ================================================================ the shipped DLL's actions

const std::wstring kCreationFailed = L"[ERROR] Certificates (#) CreateCertificate failed with error -6.";

// The entries of a creation up to its extensions, which every action run shares.
const Lines kCreationStart =
    Then(CryptLines({L"InitializeCreateCertificateParams ERROR(pParam = #)",
                     L"InitializeCreateCertificateParams(pParam->dwSize = 80 | Expected = 80)",
                     L"InternalInitializeCreateCertificateParams()", L"CreateCertificate(pParam = #)",
                     L"CreateCertificate(pParam->dwSize = 80 | Expected = 80)"}),
         CryptLines({L"InternalCreateCertificate()", L"PrepareCertificateExtensions()"}, kSteps.size()));
// The entries of a server certificate's creation for the computer `name` up to its extensions.
Lines ServerStart(const std::wstring& name)
{
    return Then({L"ComputerName (#) Computer name is '" + name + L"'."}, kCreationStart);
}

const Lines kImport = CryptLines({L"CreateCertAndConvertToPFX()", L"ImportCertificate(pParam = #)",
                                  L"ImportCertificate(pParam->dwSize = 32 | Expected = 32)",
                                  L"InternalImportCertificate()", L"FreeCertificateMemory(pCertMem = #)"});

class CertificateActions : public CertificateTest
{
protected:
    struct Outcome
    {
        UINT result = 0;
        Lines lines; // bodies of the lines not written by the frame, addresses masked
    };

    static Outcome Run(const char* exportName, const std::wstring& rootName)
    {
        QcRunner::CActionHost host;
        EXPECT_TRUE(host.SetCustomActionData(L";ROOTCERTNAME=" + rootName)) << ::testing::PrintToString(host.Error());
        Outcome outcome{host.Call(Library().Find(exportName)), {}};
        for (const std::wstring& line : host.LogLines())
        {
            if (QcRunner::Body(line).rfind(L"Workbench (#) ", 0) != 0)
            {
                outcome.lines.push_back(QcRunner::Body(line));
            }
        }
        outcome.lines = Masked(outcome.lines);
        return outcome;
    }
};

TEST_F(CertificateActions, RootGoesToTheMachineRootStoreAndAServerCertificateSignedByItToMy)
{
    const Outcome root = Run("CreateAndInstallRootCertificate", L"Quillcast Chain Root");

    EXPECT_EQ(root.result, 0u);
    EXPECT_EQ(root.lines, Then(kCreationStart, kImport));
    const std::vector<StoredCertificate> roots = Added(L"Root");
    ASSERT_EQ(roots.size(), 1u);

    // This program's Winsock stays usable: the action pairs its own start and
    // clean-up. (Wine's gethostname works without a start; socket does not.)
    WSADATA data{};
    ASSERT_EQ(::WSAStartup(MAKEWORD(2, 2), &data), 0);
    const Outcome server = Run("CreateAndInstallSignedServerCertificate", L"Quillcast Chain Root");
    const SOCKET probe = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_NE(probe, INVALID_SOCKET) << ::WSAGetLastError();
    ::closesocket(probe);
    ::WSACleanup();

    EXPECT_EQ(server.result, 0u);
    const std::vector<StoredCertificate> servers = Added(L"MY");
    ASSERT_EQ(servers.size(), 1u);
    EXPECT_EQ(WithoutNameChecks(server.lines),
              Then(ServerStart(servers[0].subject), Then({Crypt(L"FindCertificate()")}, kImport)));
    // Local machine, exportable: CRYPT_MACHINE_KEYSET | CRYPT_EXPORTABLE.
    EXPECT_EQ(CPfxSeam::ImportFlags(), std::vector<DWORD>({0x21, 0x21}));
    // The pair OpenSSL judges, names (the host's) included.
    EXPECT_TRUE(WriteFile(OutputFolder() + L"\\root.der", roots[0].der));
    EXPECT_TRUE(WriteFile(OutputFolder() + L"\\server.der", servers[0].der));
}

TEST_F(CertificateActions, UninstallsMatchNamesExactlyAndRemoveOneRootOrEveryCertificateOfTheIssuer)
{
    for (const wchar_t* root : {L"Quillcast Twin Root", L"Quillcast Twin Root", L"Quillcast Other Root"})
    {
        ASSERT_EQ(Run("CreateAndInstallRootCertificate", root).result, 0u);
        ASSERT_EQ(Run("CreateAndInstallSignedServerCertificate", root).result, 0u);
    }
    ASSERT_EQ(Added(L"Root").size(), 3u);
    ASSERT_EQ(Added(L"MY").size(), 3u);
    for (const StoredCertificate& certificate : Then(Added(L"Root"), Added(L"MY")))
    {
        m_Owned.emplace_back(certificate.container, true);
    }

    // Names are case-sensitive: nothing matches, and there is no root to sign with.
    EXPECT_EQ(Run("UninstallSignedCertificate", L"quillcast twin root").result, 0u);
    EXPECT_EQ(Run("UninstallRootCertificate", L"quillcast twin root").result, 0u);
    const Outcome create = Run("CreateAndInstallSignedServerCertificate", L"quillcast twin root");
    EXPECT_EQ(create.result, 1603u);
    EXPECT_EQ(WithoutNameChecks(create.lines),
              Then(ServerStart(Added(L"MY")[0].subject),
                   Then(CryptLines({L"FindCertificate()",
                                    L"FindCertificate() - ERROR: valid certificate 'quillcast twin root' not found.",
                                    L"PrepareCertificateExtensions() - ERROR: FindCertificate failed.",
                                    L"InternalCreateCertificate() - ERROR: PrepareCertificateExtensions failed."}),
                        {kCreationFailed})));
    EXPECT_EQ(Added(L"Root").size(), 3u);
    EXPECT_EQ(Added(L"MY").size(), 3u);

    const Outcome removed = Run("UninstallSignedCertificate", L"Quillcast Twin Root");
    EXPECT_EQ(removed.result, 0u);
    EXPECT_EQ(removed.lines, Lines());
    ASSERT_EQ(Added(L"MY").size(), 1u);
    EXPECT_EQ(Added(L"MY")[0].issuer, L"Quillcast Other Root");
    // One root per run; nothing left to remove is no failure.
    for (const size_t left : {2u, 1u, 1u})
    {
        const Outcome once = Run("UninstallRootCertificate", L"Quillcast Twin Root");
        EXPECT_EQ(once.result, 0u);
        EXPECT_EQ(once.lines, Lines());
        EXPECT_EQ(Added(L"Root").size(), left);
    }
}

TEST_F(CertificateActions, EmptyRootNameIsRejectedBeforeAnyCertificateWork)
{
    for (const char* exportName : {"CreateAndInstallRootCertificate", "CreateAndInstallSignedServerCertificate",
                                   "UninstallRootCertificate", "UninstallSignedCertificate"})
    {
        QcRunner::CActionHost host;
        ASSERT_TRUE(host.SetCustomActionData(L";ROOTCERTNAME="));
        EXPECT_EQ(host.Call(Library().Find(exportName)), 1603u) << exportName;
        ASSERT_FALSE(host.LogLines().empty());
        EXPECT_EQ(QcRunner::Body(host.LogLines().back()), L"[ERROR] Workbench (#) Argument[ROOTCERTNAME] is invalid.");
    }
    EXPECT_EQ(CPfxSeam::ImportFlags(), std::vector<DWORD>());
}

TEST_F(CertificateActions, RootCreationOnWinesOwnPkcs12ExportFailsAndLeavesNoKeyContainerBehind)
{
    m_pSeam.reset(); // the DLL exactly as shipped
    const Outcome outcome = Run("CreateAndInstallRootCertificate", L"Quillcast Stub Root");

    EXPECT_EQ(outcome.result, 1603u);
    // Wine's stub returns FALSE and sets no error.
    const Lines failure = CryptLines({L"CreateCertAndConvertToPFX()",
                                      L"CreateCertAndConvertToPFX() - ERROR: PFXExportCertStoreEx1 failed (0).",
                                      L"InternalCreateCertificate() - ERROR: CreateCertAndConvertToPFX failed."});
    EXPECT_EQ(outcome.lines, Then(Then(kCreationStart, failure), {kCreationFailed}));
    EXPECT_TRUE(Added(L"Root").empty());
}

} // namespace
} // namespace QcTest
