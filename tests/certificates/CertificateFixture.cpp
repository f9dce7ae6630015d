// Winsock 2 must come before windows.h.
#include <winsock2.h>

#include "certificates/CertificateFixture.h"

#include <algorithm>
#include <regex>

#include "support/ShippedDll.h"

namespace QcTest {

QcRunner::CActionLibrary* CertificateActionTest::s_pLibrary = nullptr;

std::wstring Engine(const std::wstring& text)
{
    const bool error = text.find(L"ERROR") != std::wstring::npos;
    return std::wstring(error ? L"[ERROR] " : L"") + L"QcCryptLog (#) " + text + L".";
}

std::wstring MaskAddresses(const std::wstring& body)
{
    static const std::wregex address(L"(pParam|pCertMem) = [0-9A-F]+");
    return std::regex_replace(body, address, L"$1 = #");
}

Lines WithoutNameChecks(const Lines& lines)
{
    Lines kept;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(kept),
                 [](const std::wstring& line) { return line != Engine(L"IsCertNameEqualTo()"); });
    return kept;
}

size_t CountNameChecks(const Lines& lines)
{
    return lines.size() - WithoutNameChecks(lines).size();
}

Lines CreationStart()
{
    return {Engine(L"InitializeCreateCertificateParams ERROR(pParam = #)"),
            Engine(L"InitializeCreateCertificateParams(pParam->dwSize = 80 | Expected = 80)"),
            Engine(L"InternalInitializeCreateCertificateParams()"),
            Engine(L"CreateCertificate(pParam = #)"),
            Engine(L"CreateCertificate(pParam->dwSize = 80 | Expected = 80)"),
            Engine(L"InternalCreateCertificate()"),
            Engine(L"InitializeCreateEnvironment()"),
            Engine(L"CheckParameters(pParam = #)"),
            Engine(L"ConvertCertNameToBlob()"),
            Engine(L"PreparePurposes()"),
            Engine(L"CreateTemporaryCryptContainer()"),
            Engine(L"PrepareCertificateParams()"),
            Engine(L"PrepareCertificateExtensions()")};
}

Lines ImportEntries()
{
    return {Engine(L"CreateCertAndConvertToPFX()"), Engine(L"ImportCertificate(pParam = #)"),
            Engine(L"ImportCertificate(pParam->dwSize = 32 | Expected = 32)"), Engine(L"InternalImportCertificate()"),
            Engine(L"FreeCertificateMemory(pCertMem = #)")};
}

void CertificateActionTest::SetUpTestSuite()
{
    if (s_pLibrary == nullptr)
    {
        s_pLibrary = new QcRunner::CActionLibrary(ShippedDllPath());
    }
}

void CertificateActionTest::TearDownTestSuite()
{
    delete s_pLibrary;
    s_pLibrary = nullptr;
}

void CertificateActionTest::SetUp()
{
    ASSERT_TRUE(s_pLibrary->IsLoaded()) << "cannot load the DLL";
    if (WithPfxSeam())
    {
        m_pSeam = std::make_unique<CPfxSeam>(s_pLibrary->Module());
        ASSERT_TRUE(m_pSeam->IsInstalled()) << "the DLL does not import the PKCS #12 functions";
    }
    CPfxSeam::Clear();
    m_UserContainers = KeyContainers(false);
    m_MachineContainers = KeyContainers(true);
    m_Root = Thumbprints(MachineCertificates(L"Root"));
    m_My = Thumbprints(MachineCertificates(L"MY"));
}

void CertificateActionTest::TearDown()
{
    RemoveMachineCertificates(L"Root", Thumbprints(Added(L"Root")));
    RemoveMachineCertificates(L"MY", Thumbprints(Added(L"MY")));
    for (const std::wstring& container : m_CreatedContainers)
    {
        HCRYPTPROV hProv = 0;
        ::CryptAcquireContextW(&hProv, container.c_str(), MS_ENHANCED_PROV_W, PROV_RSA_FULL,
                               CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET);
    }
    m_pSeam.reset();
    EXPECT_EQ(KeyContainers(false), m_UserContainers);
    EXPECT_EQ(KeyContainers(true), m_MachineContainers);
    EXPECT_EQ(Thumbprints(MachineCertificates(L"Root")), m_Root);
    EXPECT_EQ(Thumbprints(MachineCertificates(L"MY")), m_My);
}

ActionOutcome CertificateActionTest::Run(const char* exportName, const std::wstring& rootName)
{
    ActionOutcome outcome;
    const QcRunner::CustomActionFunction action = s_pLibrary->Find(exportName);
    QcRunner::CActionHost host;
    if (action == nullptr || !host.IsOpen() || !host.SetCustomActionData(L";ROOTCERTNAME=" + rootName))
    {
        ADD_FAILURE() << "no export or no session: " << ::testing::PrintToString(host.Error());
        outcome.result = 0xFFFFFFFF;
        return outcome;
    }
    outcome.result = host.Call(action);
    for (const std::wstring& line : host.LogLines())
    {
        const std::wstring body = QcRunner::Body(line);
        if (body.rfind(L"Workbench (#) ", 0) != 0)
        {
            outcome.lines.push_back(MaskAddresses(body));
        }
    }
    return outcome;
}

std::vector<StoredCertificate> CertificateActionTest::Added(const wchar_t* store) const
{
    const std::set<std::wstring>& before = ::_wcsicmp(store, L"Root") == 0 ? m_Root : m_My;
    std::vector<StoredCertificate> added;
    for (StoredCertificate& certificate : MachineCertificates(store))
    {
        if (before.count(certificate.thumbprint) == 0)
        {
            added.push_back(std::move(certificate));
        }
    }
    return added;
}

std::wstring CertificateActionTest::CreateRoot(const std::wstring& name)
{
    const std::set<std::wstring> before = Thumbprints(MachineCertificates(L"Root"));
    const ActionOutcome outcome = Run("CreateAndInstallRootCertificate", name);
    EXPECT_EQ(outcome.result, 0u) << ::testing::PrintToString(outcome.lines);
    for (const StoredCertificate& certificate : MachineCertificates(L"Root", name))
    {
        if (before.count(certificate.thumbprint) == 0)
        {
            m_CreatedContainers.push_back(certificate.container);
            return certificate.thumbprint;
        }
    }
    ADD_FAILURE() << "no new root " << ::testing::PrintToString(name);
    return L"";
}

std::wstring CertificateActionTest::CreateServer(const std::wstring& rootName)
{
    const std::set<std::wstring> before = Thumbprints(MachineCertificates(L"MY"));
    const ActionOutcome outcome = Run("CreateAndInstallSignedServerCertificate", rootName);
    EXPECT_EQ(outcome.result, 0u) << ::testing::PrintToString(outcome.lines);
    for (const StoredCertificate& certificate : MachineCertificates(L"MY"))
    {
        if (before.count(certificate.thumbprint) == 0)
        {
            m_CreatedContainers.push_back(certificate.container);
            return certificate.thumbprint;
        }
    }
    ADD_FAILURE() << "no new server certificate for " << ::testing::PrintToString(rootName);
    return L"";
}

std::wstring CertificateActionTest::HostName()
{
    WSADATA data{};
    char name[260] = {};
    if (::WSAStartup(MAKEWORD(2, 0), &data) == 0)
    {
        ::gethostname(name, sizeof(name));
        ::WSACleanup();
    }
    return std::wstring(name, name + std::strlen(name));
}

} // namespace QcTest
