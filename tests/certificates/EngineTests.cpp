// The creation engine, the import and the store classes called directly, with
// the PKCS #12 stand-in on this program's own imports.
#include <gtest/gtest.h>

#include <winsock2.h>

#include <windows.h>
#include <wincrypt.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "certificates/CertName.h"
#include "certificates/CertStore.h"
#include "certificates/Certificates.h"
#include "certificates/CertificateFixture.h"
#include "support/LogCapture.h"
#include "system/ComputerName.h"

namespace QcTest {
namespace {

namespace Cert = Quillcast::Certificates;
using Quillcast::System::Types::Text;

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr wchar_t kIssuerStore[] = L"QcEngineIssuers"; // of the current user

HCERTSTORE OpenIssuerStore()
{
    return ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, kEncoding, 0, CERT_SYSTEM_STORE_CURRENT_USER, kIssuerStore);
}

// A created certificate, decoded.
struct Created
{
    int32_t result = 0;
    std::vector<BYTE> der;
    PCCERT_CONTEXT pCert = nullptr;
    Lines lines; // the engine's bodies after the CreateCertificate entries, addresses masked

    Created() = default;
    Created(const Created&) = delete;
    Created& operator=(const Created&) = delete;
    ~Created()
    {
        if (pCert != nullptr)
        {
            ::CertFreeCertificateContext(pCert);
        }
    }
    std::vector<std::string> ExtensionOids() const
    {
        std::vector<std::string> oids;
        for (DWORD i = 0; pCert != nullptr && i < pCert->pCertInfo->cExtension; ++i)
        {
            oids.emplace_back(pCert->pCertInfo->rgExtension[i].pszObjId);
            EXPECT_FALSE(pCert->pCertInfo->rgExtension[i].fCritical) << oids.back();
        }
        return oids;
    }
    const CERT_EXTENSION* Extension(const char* oid) const
    {
        return ::CertFindExtension(oid, pCert->pCertInfo->cExtension, pCert->pCertInfo->rgExtension);
    }
};

class Engine : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_Seam.IsInstalled()) << "the test program does not import the PKCS #12 functions";
        CPfxSeam::Clear();
        m_UserContainers = KeyContainers(false);
        m_MachineContainers = KeyContainers(true);
    }
    void TearDown() override
    {
        for (const std::wstring& container : m_IssuerContainers)
        {
            HCRYPTPROV hProv = 0;
            ::CryptAcquireContextW(&hProv, container.c_str(), MS_DEF_PROV_W, PROV_RSA_FULL, CRYPT_DELETEKEYSET);
        }
        HCERTSTORE hStore = OpenIssuerStore();
        for (PCCERT_CONTEXT p = ::CertEnumCertificatesInStore(hStore, nullptr); p != nullptr;
             p = ::CertEnumCertificatesInStore(hStore, nullptr))
        {
            ::CertDeleteCertificateFromStore(p);
        }
        ::CertControlStore(hStore, 0, CERT_STORE_CTRL_COMMIT, nullptr);
        ::CertCloseStore(hStore, 0);
        EXPECT_EQ(KeyContainers(false), m_UserContainers);
        EXPECT_EQ(KeyContainers(true), m_MachineContainers);
    }

    // Root-like defaults (self-signed, signature key, 51 years) changed by `change`.
    static Cert::CreateCertificateParams Params(const wchar_t* subject,
                                                const std::function<void(Cert::CreateCertificateParams&)>& change = {})
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
        return params;
    }

    void Create(Cert::CreateCertificateParams params, Created& created)
    {
        CLogCapture capture;
        created.result = Cert::CreateCertificate(&params);
        bool after = false;
        for (const std::wstring& body : capture.Bodies())
        {
            if (after)
            {
                created.lines.push_back(MaskAddresses(body));
            }
            after = after || body.find(L"CreateCertificate(pParam->dwSize") != std::wstring::npos;
        }
        if (created.result == 0)
        {
            created.der = CPfxSeam::CertificateOf(params.pbPfx, params.cbPfx);
            created.pCert = ::CertCreateCertificateContext(X509_ASN_ENCODING, created.der.data(),
                                                           static_cast<DWORD>(created.der.size()));
            EXPECT_NE(created.pCert, nullptr);
            Cert::FreeCertificateMemory(params.pbPfx);
        }
        EXPECT_EQ(params.pbPfx == nullptr, created.result != 0);
    }

    // A certificate with a key in the user's key set and no extensions, in the
    // user's issuer store; valid now unless `expired`.
    std::wstring AddIssuer(const std::wstring& name, bool expired, bool withKey = true)
    {
        // Unique, so that a container left by an aborted run never collides.
        GUID guid{};
        wchar_t unique[64] = {};
        (void)::CoCreateGuid(&guid);
        ::StringFromGUID2(guid, unique, 64);
        const std::wstring container = std::wstring(L"QcEngineIssuer") + unique;
        m_IssuerContainers.push_back(container);
        SYSTEMTIME from = UtcNow();
        SYSTEMTIME to = AddYears(from, 1);
        if (expired)
        {
            from = AddYears(from, -2);
            to = AddYears(to, -2);
        }
        const std::vector<BYTE> der = MakeSelfSigned(name, container, from, to);
        HCERTSTORE hStore = OpenIssuerStore();
        PCCERT_CONTEXT pCert = nullptr;
        EXPECT_TRUE(::CertAddEncodedCertificateToStore(hStore, X509_ASN_ENCODING, der.data(),
                                                       static_cast<DWORD>(der.size()), CERT_STORE_ADD_NEW, &pCert));
        if (withKey && pCert != nullptr)
        {
            CRYPT_KEY_PROV_INFO info{const_cast<LPWSTR>(container.c_str()), const_cast<LPWSTR>(MS_DEF_PROV_W),
                                     PROV_RSA_FULL, 0, 0, nullptr, AT_SIGNATURE};
            EXPECT_TRUE(::CertSetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
        }
        ::CertFreeCertificateContext(pCert);
        ::CertCloseStore(hStore, 0);
        return container;
    }

    // The subjects of the issuer store in enumeration order, each with its expiry state.
    static std::vector<bool> IssuerStoreExpiredFlags()
    {
        std::vector<bool> expired;
        HCERTSTORE hStore = OpenIssuerStore();
        for (PCCERT_CONTEXT p = ::CertEnumCertificatesInStore(hStore, nullptr); p != nullptr;
             p = ::CertEnumCertificatesInStore(hStore, p))
        {
            expired.push_back(::CertVerifyTimeValidity(nullptr, p->pCertInfo) != 0);
        }

        ::CertCloseStore(hStore, 0);
        return expired;
    }

    CPfxSeam m_Seam{::GetModuleHandleW(nullptr)};
    std::set<std::string> m_UserContainers;
    std::set<std::string> m_MachineContainers;
    std::vector<std::wstring> m_IssuerContainers;
};

// ---------------------------------------------------------------- failures

struct FailureCase
{
    const char* behaviour;
    std::function<void(Cert::CreateCertificateParams&)> change;
    int32_t result;
    Lines lines; // after "InternalCreateCertificate()"
};

class EngineFailure : public Engine, public ::testing::WithParamInterface<FailureCase>
{
};

TEST_P(EngineFailure, FailsWithItsCodeAndMessagesAndLeavesNoContainer)
{
    Created created;
    Create(Params(L"Quillcast Engine", GetParam().change), created);

    EXPECT_EQ(created.result, GetParam().result);
    Lines expected = {::QcTest::Engine(L"InternalCreateCertificate()")};
    for (const std::wstring& text : GetParam().lines)
    {
        expected.push_back(::QcTest::Engine(text));
    }
    EXPECT_EQ(created.lines, expected);
}

const Lines kChecked = {L"InitializeCreateEnvironment()", L"CheckParameters(pParam = #)"};
const Lines kUpToParams = {L"InitializeCreateEnvironment()", L"CheckParameters(pParam = #)",
                           L"ConvertCertNameToBlob()",       L"PreparePurposes()",
                           L"CreateTemporaryCryptContainer()", L"PrepareCertificateParams()"};

Lines With(Lines lines, std::initializer_list<std::wstring> more)
{
    lines.insert(lines.end(), more);
    return lines;
}

const FailureCase kFailures[] = {
    {"KeyTypeThree", [](auto& p) { p.dwKeyType = 3; }, -1,
     With(kChecked, {L"CheckParameters() - ERROR: Invalid keytype specified.",
                     L"InternalCreateCertificate() - ERROR: CheckParameters failed."})},
    {"KeyTypeZero", [](auto& p) { p.dwKeyType = 0; }, -1,
     With(kChecked, {L"CheckParameters() - ERROR: Invalid keytype specified.",
                     L"InternalCreateCertificate() - ERROR: CheckParameters failed."})},
    {"PurposesThirtyTwo", [](auto& p) { p.dwPurposes = 32; }, -1,
     With(kChecked, {L"CheckParameters() - ERROR: Invalid purposes bitmask specified.",
                     L"InternalCreateCertificate() - ERROR: CheckParameters failed."})},
    {"ProviderIndexMinusTwo", [](auto& p) { p.nProviderIndex = -2; }, -1,
     With(kChecked, {L"CheckParameters() - ERROR: Invalid encryption provider index specified.",
                     L"InternalCreateCertificate() - ERROR: CheckParameters failed."})},
    {"IssuerNameMissing", [](auto& p) { p.bSelfSigned = 0, p.pszIssuerStore = L"Root"; }, -1,
     With(kChecked, {L"CheckParameters() - ERROR: Invalid issuer certificate name specified.",
                     L"InternalCreateCertificate() - ERROR: CheckParameters failed."})},
    {"IssuerStoreEmpty", [](auto& p) { p.bSelfSigned = 0, p.pszIssuerName = L"X", p.pszIssuerStore = L""; }, -1,
     With(kChecked, {L"CheckParameters() - ERROR: Invalid issuer certificate store specified.",
                     L"InternalCreateCertificate() - ERROR: CheckParameters failed."})},
    // ERROR_NO_MORE_ITEMS from the provider list.
    {"ProviderIndexBeyondTheLast", [](auto& p) { p.nProviderIndex = 999; }, -1,
     With(kChecked, {L"GetCryptProvider(dwIndex == 999)", L"GetCryptProvider() - ERROR: RegEnumKeyEx failed (Error=259).",
                     L"InternalCreateCertificate() - ERROR: Invalid provider index specified (999)."})},
    {"NoSubject", [](auto& p) { p.pszSubjectName = nullptr; }, -3,
     {L"InitializeCreateEnvironment()", L"InternalCreateCertificate() - ERROR: InitializeCreateEnvironment failed."}},
    {"EmptySubject", [](auto& p) { p.pszSubjectName = L""; }, -3,
     {L"InitializeCreateEnvironment()", L"InternalCreateCertificate() - ERROR: InitializeCreateEnvironment failed."}},
    // An unknown attribute makes it no X.500 name: CRYPT_E_INVALID_X500_STRING.
    {"SubjectThatIsNoX500Name", [](auto& p) { p.pszSubjectName = L"Quillcast, Bogus=1"; }, -5,
     With(kChecked, {L"ConvertCertNameToBlob()", L"ConvertCertNameToBlob() - ERROR: CertStrToName1 failed (-2146885597).",
                     L"InternalCreateCertificate() - ERROR: ConvertCertNameToBlob failed."})},
    // Windows refuses 29 February of a year like 2027 here; Wine 8 takes it for
    // 1 March, so a date no calendar has stands in: ERROR_INVALID_PARAMETER,
    // after the key was made.
    {"EndOfValidityThatIsNoDate", [](auto& p) { p.stValidTo = {2027, 2, 0, 32, 12, 0, 0, 0}; }, -3,
     With(kUpToParams, {L"PrepareCertificateParams() - ERROR: SystemTimeToFileTime2 failed (87).",
                        L"InternalCreateCertificate() - ERROR: PrepareCertificateParams failed."})},
};

INSTANTIATE_TEST_SUITE_P(Cases, EngineFailure, ::testing::ValuesIn(kFailures),
                         [](const auto& param) { return std::string(param.param.behaviour); });

TEST_F(Engine, RecordSmallerThanItsDeclaredSizeIsRefusedUntouched)
{
    Cert::CreateCertificateParams params{};
    params.dwSize = 79;
    params.dwKeyType = 7;
    CLogCapture capture;

    Cert::InitializeCreateCertificateParams(&params);
    const int32_t result = Cert::CreateCertificate(&params);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(params.dwKeyType, 7u);
    Lines lines;
    for (const std::wstring& body : capture.Bodies())
    {
        lines.push_back(MaskAddresses(body));
    }
    EXPECT_EQ(lines, Lines({::QcTest::Engine(L"InitializeCreateCertificateParams ERROR(pParam = #)"),
                            ::QcTest::Engine(L"InitializeCreateCertificateParams(pParam->dwSize = 79 | Expected = 80)"),
                            ::QcTest::Engine(L"CreateCertificate(pParam = #)"),
                            ::QcTest::Engine(L"CreateCertificate(pParam->dwSize = 79 | Expected = 80)")}));
}

TEST_F(Engine, DefaultsAreAKeyExchangeKeyMd5SelfSignedDefaultProviderAndOneYear)
{
    Cert::CreateCertificateParams params{};
    params.dwSize = 80;
    params.dwPurposes = 31;
    const SYSTEMTIME before = UtcNow();
    Cert::InitializeCreateCertificateParams(&params);

    EXPECT_EQ(params.dwKeyType, 1u);
    EXPECT_EQ(params.dwHashAlgorithm, 1u);
    EXPECT_EQ(params.bSelfSigned, 1u);
    EXPECT_EQ(params.nProviderIndex, -1);
    EXPECT_EQ(params.dwPurposes, 0u);
    EXPECT_EQ(params.stValidTo.wYear, before.wYear + 1);
}

// ---------------------------------------------------------------- certificates made

TEST_F(Engine, SelfSignedWithoutPurposesHasExactlyFourExtensionsAndAnOldAuthorityKeyIdOfItself)
{
    Created created;
    const Cert::CreateCertificateParams params = Params(L"Quillcast Engine Root");
    // Certificates keep whole seconds.
    FILETIME notBefore{};
    SYSTEMTIME now = UtcNow();
    now.wMilliseconds = 0;
    ::SystemTimeToFileTime(&now, &notBefore);
    Create(params, created);

    ASSERT_EQ(created.result, 0) << ::testing::PrintToString(created.lines);
    const CERT_INFO& info = *created.pCert->pCertInfo;
    EXPECT_EQ(info.dwVersion, static_cast<DWORD>(CERT_V3));
    EXPECT_STREQ(info.SignatureAlgorithm.pszObjId, szOID_RSA_MD5RSA);
    EXPECT_EQ(created.ExtensionOids(), std::vector<std::string>({"2.5.29.14", "2.5.29.15", "2.5.29.19", "2.5.29.1"}));
    FILETIME notAfter{};
    SYSTEMTIME validTo = params.stValidTo;
    validTo.wMilliseconds = 0;
    ::SystemTimeToFileTime(&validTo, &notAfter);
    EXPECT_EQ(::CompareFileTime(&info.NotAfter, &notAfter), 0);
    // Not back-dated: from the moment of creation.
    EXPECT_GE(::CompareFileTime(&info.NotBefore, &notBefore), 0);
    EXPECT_EQ(info.SerialNumber.cbData, 16u);
    EXPECT_EQ(::CertGetPublicKeyLength(X509_ASN_ENCODING, &created.pCert->pCertInfo->SubjectPublicKeyInfo), 2048u);

    DWORD size = 0;
    const CERT_EXTENSION* aki = created.Extension(szOID_AUTHORITY_KEY_IDENTIFIER);
    ASSERT_NE(aki, nullptr);
    ASSERT_TRUE(::CryptDecodeObject(kEncoding, X509_AUTHORITY_KEY_ID, aki->Value.pbData, aki->Value.cbData, 0,
                                    nullptr, &size));
    std::vector<BYTE> akiBytes(size);
    ASSERT_TRUE(::CryptDecodeObject(kEncoding, X509_AUTHORITY_KEY_ID, aki->Value.pbData, aki->Value.cbData, 0,
                                    akiBytes.data(), &size));
    const auto* authority = reinterpret_cast<const CERT_AUTHORITY_KEY_ID_INFO*>(akiBytes.data());
    EXPECT_TRUE(::CertCompareCertificateName(X509_ASN_ENCODING, const_cast<CERT_NAME_BLOB*>(&authority->CertIssuer),
                                             const_cast<CERT_NAME_BLOB*>(&info.Issuer)));
    EXPECT_TRUE(::CertCompareIntegerBlob(const_cast<CRYPT_INTEGER_BLOB*>(&authority->CertSerialNumber),
                                         const_cast<CRYPT_INTEGER_BLOB*>(&info.SerialNumber)));
    const CERT_EXTENSION* ski = created.Extension(szOID_SUBJECT_KEY_IDENTIFIER);
    ASSERT_NE(ski, nullptr);
    // The key identifier's octet string (4 + 20 bytes) ends the same 20 bytes.
    ASSERT_EQ(authority->KeyId.cbData, 20u);
    ASSERT_EQ(ski->Value.cbData, 22u);
    EXPECT_EQ(std::memcmp(authority->KeyId.pbData, ski->Value.pbData + 2, 20), 0);
    // Deliberately not the SHA-1 of the public key's bits (RFC 5280's usual
    // identifier): the engine hashes its exported key structure.
    BYTE keyHash[20] = {};
    DWORD cbKeyHash = sizeof(keyHash);
    ASSERT_TRUE(::CryptHashCertificate(0, CALG_SHA1, 0, info.SubjectPublicKeyInfo.PublicKey.pbData,
                                       info.SubjectPublicKeyInfo.PublicKey.cbData, keyHash, &cbKeyHash));
    EXPECT_NE(std::memcmp(keyHash, ski->Value.pbData + 2, 20), 0);
    EXPECT_TRUE(::CryptVerifyCertificateSignature(0, X509_ASN_ENCODING, created.der.data(),
                                                  static_cast<DWORD>(created.der.size()),
                                                  &created.pCert->pCertInfo->SubjectPublicKeyInfo));
}

TEST_F(Engine, PurposesServerAuthenticationAndTimeStampingAreListedInTableOrder)
{
    Created created;
    Create(Params(L"Quillcast Engine Purposes", [](auto& p) { p.dwPurposes = 0x11, p.dwHashAlgorithm = 2; }),
           created);

    ASSERT_EQ(created.result, 0);
    EXPECT_STREQ(created.pCert->pCertInfo->SignatureAlgorithm.pszObjId, szOID_RSA_SHA1RSA);
    EXPECT_EQ(created.ExtensionOids(),
              std::vector<std::string>({"2.5.29.14", "2.5.29.15", "2.5.29.37", "2.5.29.19", "2.5.29.1"}));
    const CERT_EXTENSION* eku = created.Extension(szOID_ENHANCED_KEY_USAGE);
    DWORD size = 0;
    ASSERT_TRUE(::CryptDecodeObject(kEncoding, X509_ENHANCED_KEY_USAGE, eku->Value.pbData, eku->Value.cbData, 0,
                                    nullptr, &size));
    std::vector<BYTE> bytes(size);
    ASSERT_TRUE(::CryptDecodeObject(kEncoding, X509_ENHANCED_KEY_USAGE, eku->Value.pbData, eku->Value.cbData, 0,
                                    bytes.data(), &size));
    const auto* usage = reinterpret_cast<const CERT_ENHKEY_USAGE*>(bytes.data());
    ASSERT_EQ(usage->cUsageIdentifier, 2u);
    EXPECT_STREQ(usage->rgpszUsageIdentifier[0], "1.3.6.1.5.5.7.3.1");
    EXPECT_STREQ(usage->rgpszUsageIdentifier[1], "1.3.6.1.5.5.7.3.8");
    EXPECT_TRUE(WriteFile(OutputFolder() + L"\\purposes.der", created.der));
}

TEST_F(Engine, SubjectWithACommaAndAnotherAttributeHasTwoNameParts)
{
    Created created;
    Create(Params(L"Quillcast, O=Printing"), created);

    ASSERT_EQ(created.result, 0);
    wchar_t name[256] = {};
    ::CertNameToStrW(X509_ASN_ENCODING, &created.pCert->pCertInfo->Subject, CERT_X500_NAME_STR, name, 256);
    EXPECT_STREQ(name, L"CN=Quillcast, O=Printing");
}

TEST_F(Engine, KeyLengthIs2048WhereTheProviderAllowsItAndItsLargestOtherwise)
{
    Created signature;
    Created exchange;
    Create(Params(L"Quillcast Engine Signature"), signature);
    Create(Params(L"Quillcast Engine Exchange", [](auto& p) { p.dwKeyType = AT_KEYEXCHANGE; }), exchange);

    ASSERT_EQ(signature.result, 0);
    ASSERT_EQ(exchange.result, 0);
    EXPECT_EQ(::CertGetPublicKeyLength(X509_ASN_ENCODING, &signature.pCert->pCertInfo->SubjectPublicKeyInfo), 2048u);
    // Microsoft's Base provider allows key exchange keys of 1024 bits at most.
    EXPECT_EQ(::CertGetPublicKeyLength(X509_ASN_ENCODING, &exchange.pCert->pCertInfo->SubjectPublicKeyInfo), 1024u);
}

TEST_F(Engine, ProviderChosenByIndexIsReadFromTheProviderListAndAllows2048BitExchangeKeys)
{
    // The index of Microsoft's Enhanced provider in the machine's provider list.
    HKEY hKey = nullptr;
    ASSERT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Cryptography\\Defaults\\Provider", 0,
                              KEY_READ, &hKey),
              ERROR_SUCCESS);
    int32_t index = -1;
    wchar_t name[256] = {};
    for (DWORD i = 0, length = 256; ::RegEnumKeyExW(hKey, i, name, &length, nullptr, nullptr, nullptr, nullptr) ==
                                    ERROR_SUCCESS;
         ++i, length = 256)
    {
        if (std::wstring(name) == MS_ENHANCED_PROV_W)
        {
            index = static_cast<int32_t>(i);
        }
    }
    ::RegCloseKey(hKey);
    ASSERT_GE(index, 0);
    Created created;

    Create(Params(L"Quillcast Engine Enhanced", [index](auto& p) { p.dwKeyType = AT_KEYEXCHANGE, p.nProviderIndex = index; }),
           created);

    ASSERT_EQ(created.result, 0) << ::testing::PrintToString(created.lines);
    EXPECT_EQ(created.lines[3], ::QcTest::Engine(L"GetCryptProvider(dwIndex == " + std::to_wstring(index) + L")"));
    EXPECT_EQ(::CertGetPublicKeyLength(X509_ASN_ENCODING, &created.pCert->pCertInfo->SubjectPublicKeyInfo), 2048u);
}

struct IssuerCase
{
    const char* behaviour;
    bool withKey;          // the certificate names its key container
    bool containerDeleted; // ... which is gone
    std::wstring failure;  // FindCertificate's error
};

class IssuerFailure : public Engine, public ::testing::WithParamInterface<IssuerCase>
{
};

TEST_P(IssuerFailure, IssuerWithoutAReachablePrivateKeyFailsTheExtensionsStep)
{
    const std::wstring container = AddIssuer(L"Quillcast Engine Keyless", false, GetParam().withKey);
    if (GetParam().containerDeleted)
    {
        HCRYPTPROV hProv = 0;
        ASSERT_TRUE(::CryptAcquireContextW(&hProv, container.c_str(), MS_DEF_PROV_W, PROV_RSA_FULL, CRYPT_DELETEKEYSET));
    }
    Created created;

    Create(Params(L"Quillcast Engine Orphan",
                  [](auto& p) {
                      p.bSelfSigned = 0, p.pszIssuerName = L"Quillcast Engine Keyless", p.pszIssuerStore = kIssuerStore,
                      p.dwIssuerStoreLocation = 0;
                  }),
           created);

    EXPECT_EQ(created.result, -6);
    const Lines tail(created.lines.end() - 5, created.lines.end());
    EXPECT_EQ(tail, Lines({::QcTest::Engine(L"FindCertificate()"), ::QcTest::Engine(L"IsCertNameEqualTo()"),
                           ::QcTest::Engine(L"FindCertificate() - ERROR: " + GetParam().failure),
                           ::QcTest::Engine(L"PrepareCertificateExtensions() - ERROR: FindCertificate failed."),
                           ::QcTest::Engine(L"InternalCreateCertificate() - ERROR: PrepareCertificateExtensions failed.")}));
}

const IssuerCase kIssuerCases[] = {
    // CRYPT_E_NOT_FOUND
    {"NoKeyProviderProperty", false, false, L"CertGetCertificateContextProperty1 failed (Error=-2146885628)."},
    // NTE_BAD_KEYSET
    {"KeyContainerGone", true, true, L"CryptAcquireContext failed (Error=-2146893802)."},
};

INSTANTIATE_TEST_SUITE_P(Cases, IssuerFailure, ::testing::ValuesIn(kIssuerCases),
                         [](const auto& param) { return std::string(param.param.behaviour); });

TEST_F(Engine, ExistingScratchContainerIsOpenedAndDeletedAfterUse)
{
    HCRYPTPROV hProv = 0;
    ASSERT_TRUE(::CryptAcquireContextW(&hProv, L"QcTeMp", MS_DEF_PROV_W, PROV_RSA_FULL, CRYPT_NEWKEYSET));
    ::CryptReleaseContext(hProv, 0);
    Created created;

    Create(Params(L"Quillcast Engine Shared"), created);

    EXPECT_EQ(created.result, 0);
    ASSERT_GE(created.lines.size(), 7u);
    EXPECT_EQ(created.lines[6], ::QcTest::Engine(L"CreateTemporaryCryptContainer() - CryptAcquireContext (create "
                                                 L"new) failed -> try to open existing."));
    EXPECT_EQ(KeyContainers(false).count("QcTeMp"), 0u);
}

TEST_F(Engine, IssuerWithoutSubjectKeyIdentifierYieldsNoAuthorityKeyIdentifier)
{
    AddIssuer(L"Quillcast Engine Plain Issuer", false);
    Created created;

    Create(Params(L"Quillcast Engine Leaf",
                  [](auto& p) {
                      p.bSelfSigned = 0, p.dwKeyType = AT_KEYEXCHANGE, p.pszIssuerName = L"Quillcast Engine Plain Issuer",
                      p.pszIssuerStore = kIssuerStore, p.dwIssuerStoreLocation = 0;
                  }),
           created);

    ASSERT_EQ(created.result, 0) << ::testing::PrintToString(created.lines);
    EXPECT_EQ(created.ExtensionOids(), std::vector<std::string>({"2.5.29.14", "2.5.29.15", "2.5.29.19"}));
    wchar_t issuer[256] = {};
    ::CertNameToStrW(X509_ASN_ENCODING, &created.pCert->pCertInfo->Issuer, CERT_SIMPLE_NAME_STR, issuer, 256);
    EXPECT_STREQ(issuer, L"Quillcast Engine Plain Issuer");
    // Signed with the issuer's own algorithm (CertCreateSelfSignCertificate's
    // sha1RSA) while the to-be-signed part keeps the md5RSA asked for: kept as it is.
    EXPECT_STREQ(created.pCert->pCertInfo->SignatureAlgorithm.pszObjId, szOID_RSA_MD5RSA);
    DWORD size = 0;
    ASSERT_TRUE(::CryptDecodeObject(X509_ASN_ENCODING, X509_CERT, created.der.data(),
                                    static_cast<DWORD>(created.der.size()), 0, nullptr, &size));
    std::vector<BYTE> signedContent(size);
    ASSERT_TRUE(::CryptDecodeObject(X509_ASN_ENCODING, X509_CERT, created.der.data(),
                                    static_cast<DWORD>(created.der.size()), 0, signedContent.data(), &size));
    EXPECT_STREQ(reinterpret_cast<const CERT_SIGNED_CONTENT_INFO*>(signedContent.data())->SignatureAlgorithm.pszObjId,
                 szOID_RSA_SHA1RSA);
}

TEST_F(Engine, ExpiredNamesakeIsSkippedForAValidOneListedAfterIt)
{
    // The expired one carries no key: had it been taken, the look-up would fail.
    // Whatever order the store keeps (insertion or thumbprint), a few fresh
    // expired certificates bring one in front of the valid one.
    AddIssuer(L"Quillcast Engine Namesake", true, false);
    AddIssuer(L"Quillcast Engine Namesake", false);
    for (int attempt = 0; attempt < 32 && IssuerStoreExpiredFlags() != std::vector<bool>({true, false}); ++attempt)
    {
        HCERTSTORE hStore = OpenIssuerStore();
        for (PCCERT_CONTEXT p = ::CertEnumCertificatesInStore(hStore, nullptr); p != nullptr;
             p = ::CertEnumCertificatesInStore(hStore, p))
        {
            if (::CertVerifyTimeValidity(nullptr, p->pCertInfo) != 0)
            {
                ::CertDeleteCertificateFromStore(p);
                break;
            }
        }
        ::CertControlStore(hStore, 0, CERT_STORE_CTRL_COMMIT, nullptr);
        ::CertCloseStore(hStore, 0);
        AddIssuer(L"Quillcast Engine Namesake", true, false);
    }
    ASSERT_EQ(IssuerStoreExpiredFlags(), std::vector<bool>({true, false})) << "the store lists the expired one first";
    Created created;

    Create(Params(L"Quillcast Engine Namesake Leaf",
                  [](auto& p) {
                      p.bSelfSigned = 0, p.pszIssuerName = L"Quillcast Engine Namesake", p.pszIssuerStore = kIssuerStore,
                      p.dwIssuerStoreLocation = 0;
                  }),
           created);

    EXPECT_EQ(created.result, 0) << ::testing::PrintToString(created.lines);
    EXPECT_EQ(CountNameChecks(created.lines), 2u);
}

// ---------------------------------------------------------------- import

class Import : public Engine
{
protected:
    int32_t ImportInto(const std::vector<BYTE>& pfx, DWORD location, const wchar_t* store, DWORD exportable,
                       Lines* pLines = nullptr)
    {
        Cert::ImportCertificateParams params{32, const_cast<BYTE*>(pfx.data()), static_cast<DWORD>(pfx.size()),
                                             location, store, exportable};
        CLogCapture capture;
        const int32_t result = Cert::ImportCertificate(&params);
        if (pLines != nullptr)
        {
            for (const std::wstring& body : capture.Bodies())
            {
                pLines->push_back(MaskAddresses(body));
            }
        }
        return result;
    }
    std::vector<BYTE> MakePfx(const std::function<void(Cert::CreateCertificateParams&)>& change)
    {
        Cert::CreateCertificateParams params = Params(L"Quillcast Import", change);
        CLogCapture capture;
        EXPECT_EQ(Cert::CreateCertificate(&params), 0);
        std::vector<BYTE> pfx(params.pbPfx, params.pbPfx + params.cbPfx);
        Cert::FreeCertificateMemory(params.pbPfx);
        return pfx;
    }
    static size_t CountInIssuerStore()
    {
        HCERTSTORE hStore = OpenIssuerStore();
        size_t count = 0;
        for (PCCERT_CONTEXT p = ::CertEnumCertificatesInStore(hStore, nullptr); p != nullptr;
             p = ::CertEnumCertificatesInStore(hStore, p))
        {
            ++count;
        }
        ::CertCloseStore(hStore, 0);
        return count;
    }
};

TEST_F(Import, ExpiredCertificateIsRefusedAndTheStoreAndKeySetsStayUntouched)
{
    const std::vector<BYTE> pfx = MakePfx([](auto& p) { p.stValidTo = AddYears(UtcNow(), -1); });
    Lines lines;

    EXPECT_EQ(ImportInto(pfx, 0, kIssuerStore, 1, &lines), -8);

    EXPECT_EQ(lines.back(), ::QcTest::Engine(L"InternalImportCertificate() - ERROR: CertVerifyTimeValidity failed."));
    EXPECT_EQ(CountInIssuerStore(), 0u);
    EXPECT_EQ(CPfxSeam::ImportFlags().back(), 0x1001u);
}

TEST_F(Import, SameCertificateTwiceIsReplacedNotDuplicated)
{
    const std::vector<BYTE> pfx = MakePfx({});

    EXPECT_EQ(ImportInto(pfx, 0, kIssuerStore, 0), 0);
    EXPECT_EQ(ImportInto(pfx, 0, kIssuerStore, 0), 0);

    EXPECT_EQ(CountInIssuerStore(), 1u);
    // Current user, not exportable: CRYPT_USER_KEYSET.
    EXPECT_EQ(CPfxSeam::ImportFlags(), std::vector<DWORD>({0x1000, 0x1000}));
    // Each import made a key container; the replaced copy's is an orphan, as
    // the import leaves it. Both go here; the engine's own left none.
    std::vector<std::string> added;
    for (const std::string& name : KeyContainers(false))
    {
        if (m_UserContainers.count(name) == 0)
        {
            added.push_back(name);
        }
    }
    EXPECT_EQ(added.size(), 2u);
    for (const std::string& name : added)
    {
        HCRYPTPROV hProv = 0;
        ::CryptAcquireContextA(&hProv, name.c_str(), MS_ENHANCED_PROV_A, PROV_RSA_FULL, CRYPT_DELETEKEYSET);
    }
}

TEST_F(Import, BadParametersAndBlobsAreRefusedWithTheirCodes)
{
    const std::vector<BYTE> garbage = {1, 2, 3};
    Lines lines;
    EXPECT_EQ(ImportInto(garbage, 0, kIssuerStore, 1, &lines), -7);
    EXPECT_EQ(lines.back(),
              ::QcTest::Engine(L"InternalImportCertificate() - ERROR: PFXImportCertStore failed (-2146885630)."));
    lines.clear();
    EXPECT_EQ(ImportInto({}, 0, kIssuerStore, 1, &lines), -1);
    EXPECT_EQ(lines.back(), ::QcTest::Engine(L"InternalImportCertificate() - ERROR: Got invalid parameters."));
    lines.clear();
    EXPECT_EQ(ImportInto(garbage, 0, L"", 1, &lines), -1);
    EXPECT_EQ(lines.back(), ::QcTest::Engine(L"InternalImportCertificate() - ERROR: Got invalid parameters."));

    Cert::ImportCertificateParams small{31, const_cast<BYTE*>(garbage.data()), 3, 0, kIssuerStore, 1};
    EXPECT_EQ(Cert::ImportCertificate(&small), -1);
    EXPECT_EQ(CountInIssuerStore(), 0u);
}

// ---------------------------------------------------------------- store wrapper and names

TEST(CertStore, RefusesEmptyNamesAndDeletesOnlyFromAnOpenStore)
{
    CLogCapture capture;
    Cert::CCertStore store;
    EXPECT_FALSE(store.DeleteBySubject(L"X"));
    EXPECT_EQ(store.LastError(), 4317u);
    EXPECT_FALSE(store.Open(nullptr));
    EXPECT_EQ(store.LastError(), 87u);
    ASSERT_TRUE(store.Open(L"Root"));
    EXPECT_FALSE(store.DeleteByIssuer(L""));
    EXPECT_EQ(store.LastError(), 87u);
    EXPECT_FALSE(store.DeleteBySubject(nullptr));
    EXPECT_EQ(store.LastError(), 87u);
    store.Close();
    EXPECT_FALSE(store.DeleteByIssuer(L"X"));
    EXPECT_EQ(store.LastError(), 4317u);
    EXPECT_EQ(capture.Bodies(), Lines());
}

TEST(CertName, CommonNameAloneReadsWithoutItsLabelAndANullCertificateIsEmpty)
{
    BYTE encoded[128] = {};
    DWORD cb = sizeof(encoded);
    ASSERT_TRUE(::CertStrToNameW(X509_ASN_ENCODING, L"CN=Quillcast Root", CERT_X500_NAME_STR, nullptr, encoded, &cb,
                                 nullptr));
    CLogCapture capture;

    EXPECT_STREQ(Text(Cert::CCertName::OfEncodedName({cb, encoded})), L"Quillcast Root");
    EXPECT_STREQ(Text(Cert::CCertName::OfSubject(nullptr)), L"");
    EXPECT_EQ(capture.Bodies(), Lines());
}

TEST(ComputerName, IsTheHostNameFromWinsockAndIsLogged)
{
    WSADATA data{};
    char expected[260] = {};
    ASSERT_EQ(::WSAStartup(MAKEWORD(2, 2), &data), 0);
    ASSERT_EQ(::gethostname(expected, sizeof(expected)), 0);
    const std::wstring host(expected, expected + std::strlen(expected));
    CLogCapture capture;

    EXPECT_STREQ(Text(Quillcast::System::QueryComputerName()), host.c_str());
    EXPECT_EQ(capture.Bodies(), Lines({L"ComputerName (#) Computer name is '" + host + L"'."}));
    // Its own WSAStartup and WSACleanup were paired: this program's stays open.
    EXPECT_EQ(::gethostname(expected, sizeof(expected)), 0);
    ::WSACleanup();
}

} // namespace
} // namespace QcTest
