// The certificate engine called directly and the shipped DLL's four certificate actions, against Wine's
// real CryptoAPI, key containers and stores; CertificateKit.h stands in for the PKCS #12 export and import Wine
// lacks, and OpenSSL judges the certificates written here (check-certificates.sh). Winsock 2 precedes windows.h.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "certificates/CertStore.h"
#include "certificates/CertificateKit.h"
#include "certificates/Certificates.h"
#include "support/ActionCall.h"

namespace QcTest {
namespace {

namespace Cert = Quillcast::Certificates;
using Change = std::function<void(Cert::CreateCertificateParams&)>;

constexpr wchar_t kIssuerStore[] = L"QcEngineIssuers"; // of the current user

// "QcCryptLog (#) <text>." with "[ERROR] " when the text contains ERROR.
std::wstring Crypt(const std::wstring& text)
{
    const bool error = text.find(L"ERROR") != std::wstring::npos;
    return std::wstring(error ? L"[ERROR] " : L"") + L"QcCryptLog (#) " + text + L".";
}

Lines CryptLines(Lines texts)
{
    std::transform(texts.begin(), texts.end(), texts.begin(), Crypt);
    return texts;
}

Lines Then(Lines items, const Lines& more)
{
    items.insert(items.end(), more.begin(), more.end());
    return items;
}

// The engine's entries of a creation: the record checks, the first `steps` of
// the steps before the certificate's fields, in the order it logs them, then `more`.
Lines Creation(size_t steps, const Lines& more)
{
    const Lines all = {L"CreateCertificate(pParam = #)",
                       L"CreateCertificate(pParam->dwSize = 80 | Expected = 80)",
                       L"InternalCreateCertificate()",
                       L"InitializeCreateEnvironment()",
                       L"CheckParameters(pParam = #)",
                       L"ConvertCertNameToBlob()",
                       L"PreparePurposes()",
                       L"CreateTemporaryCryptContainer()",
                       L"PrepareCertificateParams()"};
    return CryptLines(Then(Lines(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(3 + steps)), more));
}

// Bodies with every "pParam = <hex>" and "pCertMem = <hex>" masked as "#".
Lines Masked(Lines bodies)
{
    static const std::wregex address(L"(pParam|pCertMem) = [0-9A-F]+");
    std::transform(bodies.begin(), bodies.end(), bodies.begin(),
                   [](const std::wstring& body) { return std::regex_replace(body, address, L"$1 = #"); });
    return bodies;
}

// Keeps `der` as `name` in the build's folder that the OpenSSL judge reads (made when CMake configures).
void KeepForOpenSsl(const wchar_t* name, const std::vector<BYTE>& der)
{
    std::ofstream file(std::filesystem::path(BinFolder() + L"..\\tests\\certificates\\out") / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(der.data()), static_cast<std::streamsize>(der.size()));
    EXPECT_TRUE(file.good()) << "cannot write the file for OpenSSL";
}

// Whether each certificate of the user's issuer store has expired, in enumeration order.
std::vector<bool> IssuerStoreExpiry()
{
    std::vector<bool> expired;
    const Types::CCertStoreHandle hStore(::CertOpenSystemStoreW(0, kIssuerStore));
    for (PCCERT_CONTEXT pCert : CStoreCertificates(hStore.Get()))
    {
        expired.push_back(::CertVerifyTimeValidity(nullptr, pCert->pCertInfo) != 0);
    }
    return expired;
}

// The bytes of the engine's last public key export, as CryptExportPublicKeyInfo filled them.
std::vector<BYTE> g_ExportedKeyInfo;
decltype(&::CryptExportPublicKeyInfo) g_pExportPublicKeyInfo = nullptr; // the patched import's original

BOOL WINAPI RecordingExportPublicKeyInfo(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE hProv, DWORD dwKeySpec, DWORD dwEncoding,
                                         PCERT_PUBLIC_KEY_INFO pInfo, DWORD* pcbInfo)
{
    const BOOL bExported = g_pExportPublicKeyInfo(hProv, dwKeySpec, dwEncoding, pInfo, pcbInfo);
    if (bExported && pInfo != nullptr)
    {
        g_ExportedKeyInfo.assign(reinterpret_cast<const BYTE*>(pInfo), reinterpret_cast<const BYTE*>(pInfo) + *pcbInfo);
    }
    return bExported;
}

struct Created
{
    int32_t result = 0;
    std::vector<BYTE> pfx;
    std::vector<BYTE> der;
    Types::CCertContext certificate; // empty unless created
    Lines lines;                     // the engine's bodies, addresses masked
};

// A certificate of the engine linked into this program: the defaults changed by `change`.
Created Create(
    const wchar_t* subject, const Change& change = [](Cert::CreateCertificateParams&) {})
{
    Cert::CreateCertificateParams params{};
    params.dwSize = 80;
    Cert::InitializeCreateCertificateParams(&params);
    params.pszSubjectName = subject;
    change(params);
    Created created;
    CLogCapture capture;
    created.result = Cert::CreateCertificate(&params);
    created.lines = Masked(capture.Bodies());
    EXPECT_EQ(params.pbPfx == nullptr, created.result != 0);
    if (created.result == 0)
    {
        created.pfx.assign(params.pbPfx, params.pbPfx + params.cbPfx);
        created.der = CPfxSeam::CertificateOf(params.pbPfx, params.cbPfx);
        created.certificate.Reset(::CertCreateCertificateContext(X509_ASN_ENCODING, created.der.data(),
                                                                 static_cast<DWORD>(created.der.size())));
        EXPECT_TRUE(created.certificate);
        Cert::FreeCertificateMemory(params.pbPfx);
    }
    return created;
}

// The import of `pfx` into the user's issuer store: its result and the last entry it logged.
std::pair<int32_t, std::wstring> ImportIntoIssuerStore(const std::vector<BYTE>& pfx, DWORD exportable)
{
    Cert::ImportCertificateParams params{
        32, const_cast<BYTE*>(pfx.data()), static_cast<DWORD>(pfx.size()), 0, kIssuerStore, exportable};
    CLogCapture capture;
    const int32_t result = Cert::ImportCertificate(&params);
    return {result, capture.Bodies().back()};
}

// A sha1RSA root of the engine in the user's issuer store, valid for a year (the default) or expired a year
// ago; an expired one goes in without its key, if made (Wine's store crashes on none). Returns its PKCS #12 blob.
std::vector<BYTE> AddIssuer(const wchar_t* name, bool expired)
{
    const Created issuer = Create(name, [expired](auto& p) {
        p.dwHashAlgorithm = 2;
        p.stValidTo.wYear = static_cast<WORD>(p.stValidTo.wYear - (expired ? 2 : 0));
    });
    const Types::CCertStoreHandle hStore(::CertOpenSystemStoreW(0, kIssuerStore));
    EXPECT_TRUE(expired ? issuer.certificate && ::CertAddCertificateContextToStore(
                                                    hStore.Get(), issuer.certificate.Get(), CERT_STORE_ADD_NEW, nullptr)
                        : ImportIntoIssuerStore(issuer.pfx, 0).first == 0);
    return issuer.pfx;
}

constexpr wchar_t kChainRoot[] = L"Quillcast Chain Root"; // the actions' root

// Every test leaves the key containers, the machine's "Root" and "MY" (of the chain root's certificates) and
// the user's issuer store as it found them, and fails when the code under test left a key container behind.
class CertificateTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(ShippedLibrary().IsLoaded()) << "cannot load the DLL";
        ASSERT_TRUE(m_EngineSeam.IsInstalled() && m_LibrarySeam.IsInstalled())
            << "a module does not import the PKCS #12 functions";
        m_Containers = KeyContainers();
    }
    void TearDown() override
    {
        for (const wchar_t* store : {L"Root", L"MY"})
        {
            RemoveCertificates(OpenMachineStore(store).Get(), kChainRoot);
        }
        RemoveCertificates(CCertStoreHandle(::CertOpenSystemStoreW(0, kIssuerStore)).Get(), nullptr);
        EXPECT_EQ(KeyContainers(), m_Containers);
    }

    // The PKCS #12 stand-in for the engine linked into this program and for the shipped DLL.
    const CPfxSeam m_EngineSeam{::GetModuleHandleW(nullptr)};
    const CPfxSeam m_LibrarySeam{ShippedLibrary().Module()};
    std::set<std::string> m_Containers; // as KeyContainers() names them
};

// ================================================================ the engine of this program

using Engine = CertificateTest;

// `step`'s failure with `error`, as the step and then InternalCreateCertificate log it.
Lines Failed(const std::wstring& step, const std::wstring& error)
{
    return {step + L"() - ERROR: " + error, L"InternalCreateCertificate() - ERROR: " + step + L" failed."};
}

struct FailureCase
{
    const char* behaviour;
    Change change;
    Lines failure; // logged after the steps
    int32_t result = -1;
    size_t steps = 2;
};

const FailureCase kFailures[] = {
    {"KeyTypeZero", [](auto& p) { p.dwKeyType = 0; }, Failed(L"CheckParameters", L"Invalid keytype specified.")},
    {"EmptySubject",
     [](auto& p) { p.pszSubjectName = L""; },
     {L"InternalCreateCertificate() - ERROR: InitializeCreateEnvironment failed."},
     -3,
     1},
    // An unknown attribute makes it no X.500 name: CRYPT_E_INVALID_X500_STRING.
    {"SubjectThatIsNoX500Name", [](auto& p) { p.pszSubjectName = L"Quillcast, Bogus=1"; },
     Failed(L"ConvertCertNameToBlob", L"CertStrToName1 failed (-2146885597)."), -5, 3},
};

TEST_F(Engine, FailuresEndWithTheirCodeAndMessagesAndLeaveNoContainer)
{
    for (const FailureCase& row : kFailures)
    {
        SCOPED_TRACE(row.behaviour);
        const Created created = Create(L"Quillcast Engine", row.change);
        EXPECT_EQ(created.result, row.result);
        EXPECT_EQ(created.lines, Creation(row.steps, row.failure));
    }
}

TEST_F(Engine, SelfSignedCertificateOfAProviderChosenByIndexSharingAnExistingScratchContainer)
{
    // Another run's scratch container: opened, and deleted after use (TearDown finds it gone).
    Types::CCryptProvider scratch;
    ASSERT_TRUE(::CryptAcquireContextW(scratch.Put(), L"QcTeMp", MS_DEF_PROV_W, PROV_RSA_FULL, CRYPT_NEWKEYSET));
    scratch.Reset();
    const CImportPatch exportPatch(::GetModuleHandleW(nullptr), "CRYPT32.dll", "CryptExportPublicKeyInfo",
                                   reinterpret_cast<const void*>(&RecordingExportPublicKeyInfo));
    ASSERT_TRUE(exportPatch.IsApplied());
    g_pExportPublicKeyInfo = exportPatch.Original<decltype(&::CryptExportPublicKeyInfo)>();
    // Microsoft's Enhanced provider, which allows 2048-bit exchange keys, is the fifth of Wine's provider list.
    const Created created = Create(L"Quillcast Engine Purposes",
                                   [](auto& p) { p.nProviderIndex = 4, p.dwPurposes = 0x11, p.dwHashAlgorithm = 2; });
    ASSERT_EQ(created.result, 0) << ::testing::PrintToString(created.lines);
    EXPECT_EQ(created.lines.at(9), Crypt(L"CreateTemporaryCryptContainer() - CryptAcquireContext (create new) failed "
                                         L"-> try to open existing."));
    CERT_INFO& info = *created.certificate.Get()->pCertInfo;
    // 16 random bytes; DER drops a redundant leading byte of the number one time in 256.
    EXPECT_GE(info.SerialNumber.cbData, 15u);
    // Deliberately not the SHA-1 of the public key's bits (RFC 5280's usual identifier): the SHA-1 of the whole
    // buffer the export filled, the structure with its trailing data, exactly as many bytes as it reported.
    const CERT_EXTENSION* ski = ::CertFindExtension(szOID_SUBJECT_KEY_IDENTIFIER, info.cExtension, info.rgExtension);
    ASSERT_TRUE(ski != nullptr && ski->Value.cbData == 22u && g_ExportedKeyInfo.size() > sizeof(CERT_PUBLIC_KEY_INFO));
    std::vector<BYTE> keyHash(20);
    DWORD cbKeyHash = 20;
    ASSERT_TRUE(::CryptHashCertificate(0, CALG_SHA1, 0, g_ExportedKeyInfo.data(),
                                       static_cast<DWORD>(g_ExportedKeyInfo.size()), keyHash.data(), &cbKeyHash));
    EXPECT_EQ(keyHash, std::vector<BYTE>(ski->Value.pbData + 2, ski->Value.pbData + 22));
    // OpenSSL judges the rest: sha1RSA, the Enhanced provider's 2048-bit key, the usages of purposes 0x11.
    KeepForOpenSsl(L"purposes.der", created.der);
}

TEST_F(Engine, IssuerNamesakesAreLookedUpValidAndInTheirOwnCaseAndImportsRefuseOrReplace)
{
    // The expired one carries no key: had it been taken, the look-up would fail. Whatever order the store
    // keeps (insertion or thumbprint), one of a few fresh pairs lists the expired one first.
    const std::vector<bool> expiredFirst = {true, false};
    std::vector<BYTE> expired;
    std::vector<BYTE> valid;
    for (int attempt = 0; attempt < 16 && IssuerStoreExpiry() != expiredFirst; ++attempt)
    {
        RemoveCertificates(CCertStoreHandle(::CertOpenSystemStoreW(0, kIssuerStore)).Get(), nullptr);
        expired = AddIssuer(L"Quillcast Engine Namesake", true);
        valid = AddIssuer(L"Quillcast Engine Namesake", false);
    }
    ASSERT_EQ(IssuerStoreExpiry(), expiredFirst) << "the store lists the expired one first";
    // Issuer-signed by the issuer store's `name` (location 0, the current user's).
    const auto issuedBy = [](const wchar_t* name) -> Change {
        return [name](auto& p) { p.bSelfSigned = 0, p.pszIssuerName = name, p.pszIssuerStore = kIssuerStore; };
    };
    const Created created = Create(L"Quillcast Engine Leaf", issuedBy(L"Quillcast Engine Namesake"));
    ASSERT_EQ(created.result, 0) << ::testing::PrintToString(created.lines);
    // Signed with the issuer's own algorithm (sha1RSA) while the to-be-signed part keeps the md5RSA asked
    // for: kept as it is.
    EXPECT_STREQ(created.certificate.Get()->pCertInfo->SignatureAlgorithm.pszObjId, szOID_RSA_MD5RSA);
    // The outer algorithm is the one place the DER can hold sha1RSA's OID (1.2.840.113549.1.1.5).
    const std::vector<BYTE> sha1Rsa = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x05};
    EXPECT_NE(std::search(created.der.begin(), created.der.end(), sha1Rsa.begin(), sha1Rsa.end()), created.der.end());
    // Names compare case-sensitively: in other case, neither namesake is the issuer.
    const Created other = Create(L"Quillcast Engine Leaf", issuedBy(L"quillcast engine namesake"));
    EXPECT_EQ(other.result, -6);
    EXPECT_EQ(other.lines, Creation(6, Then({L"PrepareCertificateExtensions()", L"FindCertificate()",
                                             L"IsCertNameEqualTo()", L"IsCertNameEqualTo()",
                                             L"FindCertificate() - ERROR: valid certificate 'quillcast engine "
                                             L"namesake' not found."},
                                            Failed(L"PrepareCertificateExtensions", L"FindCertificate failed."))));

    // The import refuses bad bytes and the expired namesake, and replaces the valid one rather than add it twice.
    const std::wstring refused = L"InternalImportCertificate() - ERROR: ";
    EXPECT_EQ(ImportIntoIssuerStore({1, 2, 3}, 1),
              std::make_pair(-7, Crypt(refused + L"PFXImportCertStore failed (-2146885630).")));
    EXPECT_EQ(ImportIntoIssuerStore(expired, 1),
              std::make_pair(-8, Crypt(refused + L"CertVerifyTimeValidity failed.")));
    EXPECT_EQ(ImportIntoIssuerStore(valid, 0).first, 0);
    EXPECT_EQ(IssuerStoreExpiry().size(), 2u);
    // Current user: CRYPT_USER_KEYSET, with CRYPT_EXPORTABLE when asked.
    const std::vector<DWORD>& flags = CPfxSeam::ImportFlags();
    EXPECT_EQ(std::vector<DWORD>(flags.end() - 3, flags.end()), std::vector<DWORD>({0x1001, 0x1001, 0x1000}));
    // The valid namesake's two imports each made a key container of the user; the replaced copy's is an orphan,
    // as the import leaves it. Both go here; the refused import and the engine's own left none.
    size_t made = 0;
    for (const std::string& container : KeyContainers())
    {
        HCRYPTPROV hProv = 0;
        if (m_Containers.count(container) == 0 && // deleted by its name past "user:"
            ::CryptAcquireContextA(&hProv, container.substr(5).c_str(), nullptr, PROV_RSA_FULL, CRYPT_DELETEKEYSET))
        {
            ++made;
        }
    }
    EXPECT_EQ(made, 2u);
}

// The engine's files all log as "QcCryptLog", each with its own line base (QcCryptLog.h): the printed line, less
// the base, is the line of the call that wrote the entry, in that file.
TEST(EngineLog, EntriesCarryTheLineOfTheirCallInTheFileOfTheirLineBase)
{
    const char* pszSource = std::getenv("QC_SOURCE_DIR"); // a Unix path: Wine maps the root to Z:
    ASSERT_NE(pszSource, nullptr) << "QC_SOURCE_DIR is set by CTest";
    CLogCapture capture;
    Cert::CreateCertificateParams create{};
    Cert::ImportCertificateParams import{};
    EXPECT_EQ(Cert::CreateCertificate(&create), -1);
    EXPECT_EQ(Cert::ImportCertificate(&import), -1);
    ASSERT_EQ(capture.Lines().size(), 4u) << ::testing::PrintToString(capture.Lines());
    // The first entry of each: its file, that file's line base and the call.
    const std::tuple<std::wstring, const char*, unsigned, const char*> rows[] = {
        {capture.Lines()[0], "CertificateCreation.cpp", 2000, "QC_CRYPT_LOG(L\"CreateCertificate(pParam = %X)\""},
        {capture.Lines()[2], "CertificateImport.cpp", 4000, "QC_CRYPT_LOG(L\"ImportCertificate(pParam = %X)\""},
    };
    for (const auto& [entry, file, base, call] : rows)
    {
        std::wsmatch match;
        ASSERT_TRUE(std::regex_search(entry, match, std::wregex(L" QcCryptLog \\(([0-9]+)\\) ")));
        // A line below the base, or beyond the file, ends on another line than the call's.
        std::ifstream source("Z:" + std::string(pszSource) + "/src/certificates/" + file);
        std::string text;
        for (unsigned long line = std::stoul(match[1].str()); line > base && std::getline(source, text); --line)
        {
        }
        EXPECT_NE(text.find(call), std::string::npos) << file << " (" << match[1].str() << ")";
    }
}

TEST(CertStore, RefusesEmptyNamesAndDeletesOnlyFromAnOpenStore)
{
    CLogCapture capture;
    Cert::CCertStore store;
    // Refused with ERROR_INVALID_OPERATION or ERROR_INVALID_PARAMETER as the last error, silently.
    const auto refused = [&store](bool done) { return done ? 0u : static_cast<unsigned>(store.LastError()); };
    EXPECT_EQ(refused(store.DeleteBySubject(L"X")), 4317u);
    ASSERT_TRUE(store.Open(L"Root"));
    EXPECT_EQ(refused(store.DeleteByIssuer(L"")), 87u);
    store.Close();
    EXPECT_EQ(refused(store.DeleteByIssuer(L"X")), 4317u);
    EXPECT_EQ(capture.Bodies(), Lines());
}

// ================================================================ the shipped DLL's actions

// The entries of a creation up to its extensions, which every action run shares.
const Lines kCreationStart = Then(CryptLines({L"InitializeCreateCertificateParams ERROR(pParam = #)",
                                              L"InitializeCreateCertificateParams(pParam->dwSize = 80 | Expected = 80)",
                                              L"InternalInitializeCreateCertificateParams()"}),
                                  Creation(6, {L"PrepareCertificateExtensions()"}));

const Lines kImport = CryptLines({L"CreateCertAndConvertToPFX()", L"ImportCertificate(pParam = #)",
                                  L"ImportCertificate(pParam->dwSize = 32 | Expected = 32)",
                                  L"InternalImportCertificate()", L"FreeCertificateMemory(pCertMem = #)"});

using CertificateActions = CertificateTest;

// The action's result and the bodies of the lines the frame did not write, addresses masked.
using Outcome = std::pair<UINT, Lines>;

Outcome RunWithRoot(const char* exportName, const std::wstring& rootName)
{
    const ActionOutcome outcome = RunAction(exportName, {{L"CustomActionData", L";ROOTCERTNAME=" + rootName}}, {});
    return {outcome.result, Masked(outcome.lines)};
}

TEST_F(CertificateActions, RootAndServerCertificatesAreInstalledAndNamesInOtherCaseUninstallNothing)
{
    EXPECT_EQ(RunWithRoot("CreateAndInstallRootCertificate", kChainRoot), Outcome(0, Then(kCreationStart, kImport)));
    // This program's Winsock stays usable: the action pairs its own start and
    // clean-up. (Wine's gethostname works without a start; socket does not.)
    const Types::CWinsockInitialization winsock(MAKEWORD(2, 2));
    ASSERT_TRUE(winsock);
    Outcome server = RunWithRoot("CreateAndInstallSignedServerCertificate", kChainRoot);
    const SOCKET probe = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_NE(probe, INVALID_SOCKET) << ::WSAGetLastError();
    ::closesocket(probe);
    // The certificates the chain root issued, itself included.
    const std::vector<StoredCertificate> roots = MachineCertificates(L"Root", kChainRoot);
    const std::vector<StoredCertificate> servers = MachineCertificates(L"MY", kChainRoot);
    ASSERT_TRUE(roots.size() == 1 && servers.size() == 1);
    // The stored name is the log's oracle; OpenSSL judges it against the host.
    // One "IsCertNameEqualTo()" per certificate of "Root" the look-up walks.
    Lines& lines = server.second;
    lines.erase(std::remove(lines.begin(), lines.end(), Crypt(L"IsCertNameEqualTo()")), lines.end());
    const std::wstring host = L"ComputerName (#) Computer name is '" + servers[0].subject + L"'.";
    EXPECT_EQ(server, Outcome(0, Then(Then({host}, kCreationStart), Then({Crypt(L"FindCertificate()")}, kImport))));
    // Local machine, exportable: CRYPT_MACHINE_KEYSET | CRYPT_EXPORTABLE.
    EXPECT_EQ(CPfxSeam::ImportFlags(), std::vector<DWORD>({0x21, 0x21}));
    KeepForOpenSsl(L"root.der", roots[0].der);
    KeepForOpenSsl(L"server.der", servers[0].der);
    // Names are case-sensitive: one in other case matches nothing, which is no failure. (The end-to-end
    // case removes certificates by their exact name.)
    for (const char* exportName : {"UninstallSignedCertificate", "UninstallRootCertificate"})
    {
        EXPECT_EQ(RunWithRoot(exportName, L"quillcast chain root"), Outcome(0, Lines())) << exportName;
    }
    EXPECT_EQ(MachineCertificates(L"Root", kChainRoot).size() + MachineCertificates(L"MY", kChainRoot).size(), 2u);
}

} // namespace
} // namespace QcTest
