#pragma once

// The shipped DLL's certificate actions through real installer sessions
// against Wine's real CryptoAPI, key containers and machine stores. Only the
// PKCS #12 export and import, which Wine lacks, are answered by the stand-in
// of PfxSeam.h (unless a test runs without it).
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "certificates/CertificateKit.h"
#include "certificates/PfxSeam.h"

namespace QcTest {

using Lines = std::vector<std::wstring>;

struct ActionOutcome
{
    UINT result = 0;
    Lines lines; // bodies of the lines not written by the frame, addresses masked
};

// "QcCryptLog (#) <text>." with "[ERROR] " when the text contains ERROR.
std::wstring Engine(const std::wstring& text);
// Bodies with every "pParam = <hex>" and "pCertMem = <hex>" masked as "#".
std::wstring MaskAddresses(const std::wstring& body);
// Without the "IsCertNameEqualTo()" entries, one per certificate a look-up walks.
Lines WithoutNameChecks(const Lines& lines);
size_t CountNameChecks(const Lines& lines);

// The engine's entries of a creation up to its key container, which every run shares.
Lines CreationStart();
// The entries of an import of a created certificate and the blob's release.
Lines ImportEntries();

class CertificateActionTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    // Removes what the test added to "Root" and "MY" (with the keys), then
    // checks that the key containers of the machine and the user are those of SetUp.
    void TearDown() override;
    virtual bool WithPfxSeam() const { return true; }

    ActionOutcome Run(const char* exportName, const std::wstring& rootName);
    // A root named `name` through the action; its thumbprint. Its key container
    // is deleted when the test ends.
    std::wstring CreateRoot(const std::wstring& name);
    std::wstring CreateServer(const std::wstring& rootName);
    // The certificates added to the machine store since SetUp.
    std::vector<StoredCertificate> Added(const wchar_t* store) const;

    static std::wstring HostName();

    static QcRunner::CActionLibrary* s_pLibrary;
    std::unique_ptr<CPfxSeam> m_pSeam;
    std::set<std::string> m_UserContainers;
    std::set<std::string> m_MachineContainers;
    std::set<std::wstring> m_Root;
    std::set<std::wstring> m_My;
    // Machine key containers of certificates the test created: the uninstall
    // actions remove certificates, not their keys.
    std::vector<std::wstring> m_CreatedContainers;
};

} // namespace QcTest
