// The four certificate actions of the shipped DLL: what they log, what they
// leave in the machine's stores and key containers.
#include "certificates/CertificateFixture.h"

namespace QcTest {
namespace {

Lines Concat(std::initializer_list<Lines> parts)
{
    Lines all;
    for (const Lines& part : parts)
    {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

std::wstring Failed(const std::wstring& what, int code)
{
    return L"[ERROR] Certificates (#) " + what + L" failed with error " + std::to_wstring(code) + L".";
}

using CertificateActions = CertificateActionTest;

TEST_F(CertificateActions, RootIsCreatedAndInstalledInTheMachineRootStoreWithItsKeyInTheMachineKeySet)
{
    const ActionOutcome outcome = Run("CreateAndInstallRootCertificate", L"Quillcast Test Root");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(outcome.lines, Concat({CreationStart(), ImportEntries()}));
    const std::vector<StoredCertificate> added = Added(L"Root");
    ASSERT_EQ(added.size(), 1u);
    EXPECT_EQ(added[0].subject, L"Quillcast Test Root");
    EXPECT_EQ(added[0].issuer, L"Quillcast Test Root");
    EXPECT_TRUE(added[0].machineKey);
    // Local machine, exportable: CRYPT_MACHINE_KEYSET | CRYPT_EXPORTABLE.
    EXPECT_EQ(CPfxSeam::ImportFlags(), std::vector<DWORD>({0x21}));
    // The only new container is the imported key's: the run's own and "QcTeMp" are gone.
    std::set<std::string> expected = m_MachineContainers;
    expected.insert(std::string(added[0].container.begin(), added[0].container.end()));
    EXPECT_EQ(KeyContainers(true), expected);
    EXPECT_EQ(KeyContainers(false), m_UserContainers);
    EXPECT_TRUE(Added(L"MY").empty());
}

TEST_F(CertificateActions, ServerCertificateForThisComputerIsSignedByTheRootAndInstalledInMy)
{
    const std::wstring root = CreateRoot(L"Quillcast Chain Root");

    const ActionOutcome outcome = Run("CreateAndInstallSignedServerCertificate", L"Quillcast Chain Root");

    EXPECT_EQ(outcome.result, 0u);
    const Lines expected = Concat({{L"ComputerName (#) Computer name is '" + HostName() + L"'."},
                                   CreationStart(),
                                   {Engine(L"FindCertificate()")},
                                   ImportEntries()});
    EXPECT_EQ(WithoutNameChecks(outcome.lines), expected);
    EXPECT_GE(CountNameChecks(outcome.lines), 1u);
    const std::vector<StoredCertificate> added = Added(L"MY");
    ASSERT_EQ(added.size(), 1u);
    EXPECT_EQ(added[0].subject, HostName());
    EXPECT_EQ(added[0].issuer, L"Quillcast Chain Root");
    EXPECT_TRUE(added[0].machineKey);
    EXPECT_EQ(Thumbprints(Added(L"Root")), std::set<std::wstring>({root}));

    // The pair OpenSSL judges (check-certificates.sh).
    const std::wstring folder = OutputFolder();
    EXPECT_TRUE(WriteFile(folder + L"\\root.der", MachineCertificates(L"Root", L"Quillcast Chain Root").at(0).der));
    EXPECT_TRUE(WriteFile(folder + L"\\server.der", added[0].der));
}

TEST_F(CertificateActions, ServerCertificateWithoutItsRootFailsAndLeavesNothingBehind)
{
    const ActionOutcome outcome = Run("CreateAndInstallSignedServerCertificate", L"Quillcast Missing Root");

    EXPECT_EQ(outcome.result, 1603u);
    const Lines expected =
        Concat({{L"ComputerName (#) Computer name is '" + HostName() + L"'."},
                CreationStart(),
                {Engine(L"FindCertificate()"),
                 Engine(L"FindCertificate() - ERROR: valid certificate 'Quillcast Missing Root' not found."),
                 Engine(L"PrepareCertificateExtensions() - ERROR: FindCertificate failed."),
                 Engine(L"InternalCreateCertificate() - ERROR: PrepareCertificateExtensions failed."),
                 Failed(L"CreateCertificate", -6)}});
    EXPECT_EQ(WithoutNameChecks(outcome.lines), expected);
    EXPECT_TRUE(Added(L"MY").empty());
    EXPECT_EQ(KeyContainers(false), m_UserContainers);
    EXPECT_EQ(KeyContainers(true), m_MachineContainers);
}

TEST_F(CertificateActions, RootNamesAreCaseSensitive)
{
    const std::wstring root = CreateRoot(L"Quillcast Case Root");
    const std::wstring server = CreateServer(L"Quillcast Case Root");

    EXPECT_EQ(Run("UninstallSignedCertificate", L"quillcast case root").result, 0u);
    EXPECT_EQ(Run("UninstallRootCertificate", L"quillcast case root").result, 0u);
    const ActionOutcome create = Run("CreateAndInstallSignedServerCertificate", L"quillcast case root");

    EXPECT_EQ(create.result, 1603u);
    EXPECT_EQ(WithoutNameChecks(create.lines).back(), Failed(L"CreateCertificate", -6));
    EXPECT_EQ(Thumbprints(Added(L"Root")), std::set<std::wstring>({root}));
    EXPECT_EQ(Thumbprints(Added(L"MY")), std::set<std::wstring>({server}));
}

TEST_F(CertificateActions, TwoRootsOfOneNameAreDistinctAndEachUninstallRemovesOne)
{
    const std::wstring first = CreateRoot(L"Quillcast Twin Root");
    const std::wstring second = CreateRoot(L"Quillcast Twin Root");
    ASSERT_NE(first, second);
    EXPECT_EQ(Added(L"Root").size(), 2u);

    const ActionOutcome once = Run("UninstallRootCertificate", L"Quillcast Twin Root");
    EXPECT_EQ(once.result, 0u);
    EXPECT_EQ(once.lines, Lines());
    EXPECT_EQ(Added(L"Root").size(), 1u);

    EXPECT_EQ(Run("UninstallRootCertificate", L"Quillcast Twin Root").result, 0u);
    EXPECT_EQ(Added(L"Root").size(), 0u);
    // Nothing left to remove is no failure.
    const ActionOutcome none = Run("UninstallRootCertificate", L"Quillcast Twin Root");
    EXPECT_EQ(none.result, 0u);
    EXPECT_EQ(none.lines, Lines());
}

TEST_F(CertificateActions, UninstallSignedRemovesEveryCertificateOfThatIssuerAndNothingElse)
{
    CreateRoot(L"Quillcast Issuer A");
    CreateRoot(L"Quillcast Issuer B");
    CreateServer(L"Quillcast Issuer A");
    CreateServer(L"Quillcast Issuer A");
    const std::wstring other = CreateServer(L"Quillcast Issuer B");
    ASSERT_EQ(Added(L"MY").size(), 3u);

    const ActionOutcome outcome = Run("UninstallSignedCertificate", L"Quillcast Issuer A");

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(outcome.lines, Lines());
    EXPECT_EQ(Thumbprints(Added(L"MY")), std::set<std::wstring>({other}));
    EXPECT_EQ(Added(L"Root").size(), 2u);
}

class EveryCertificateAction : public CertificateActionTest, public ::testing::WithParamInterface<const char*>
{
};

TEST_P(EveryCertificateAction, EmptyRootNameIsRejectedBeforeAnyCertificateWork)
{
    QcRunner::CActionHost host;
    ASSERT_TRUE(host.SetCustomActionData(L";ROOTCERTNAME="));

    EXPECT_EQ(host.Call(s_pLibrary->Find(GetParam())), 1603u);
    ASSERT_FALSE(host.LogLines().empty());
    EXPECT_EQ(QcRunner::Body(host.LogLines().back()), L"[ERROR] Workbench (#) Argument[ROOTCERTNAME] is invalid.");
    EXPECT_EQ(CPfxSeam::ImportFlags(), std::vector<DWORD>());
}

INSTANTIATE_TEST_SUITE_P(AllFour, EveryCertificateAction,
                         ::testing::Values("CreateAndInstallRootCertificate",
                                           "CreateAndInstallSignedServerCertificate", "UninstallRootCertificate",
                                           "UninstallSignedCertificate"));

// The DLL exactly as shipped, on Wine's own PKCS #12 export.
class WineStubbedPfxExport : public CertificateActionTest
{
protected:
    bool WithPfxSeam() const override { return false; }
};

TEST_F(WineStubbedPfxExport, RootCreationFailsAtTheExportAndLeavesNoKeyContainerBehind)
{
    const ActionOutcome outcome = Run("CreateAndInstallRootCertificate", L"Quillcast Stub Root");

    EXPECT_EQ(outcome.result, 1603u);
    // Wine's stub returns FALSE and sets no error.
    EXPECT_EQ(outcome.lines,
              Concat({CreationStart(),
                      {Engine(L"CreateCertAndConvertToPFX()"),
                       Engine(L"CreateCertAndConvertToPFX() - ERROR: PFXExportCertStoreEx1 failed (0)."),
                       Engine(L"InternalCreateCertificate() - ERROR: CreateCertAndConvertToPFX failed."),
                       Failed(L"CreateCertificate", -6)}}));
    EXPECT_TRUE(Added(L"Root").empty());
    EXPECT_EQ(KeyContainers(false), m_UserContainers);
    EXPECT_EQ(KeyContainers(true), m_MachineContainers);
}

} // namespace
} // namespace QcTest
