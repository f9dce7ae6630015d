// The shipped DLL itself, loaded as the installer loads it and driven through real installer sessions.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "ActionHost.h"
#include "support/LogCapture.h"
#include "support/ShippedDll.h"
#include "system/FileVersion.h"

using QcRunner::CActionHost;
using QcRunner::CActionLibrary;
using Quillcast::System::CFileVersion;
using Lines = std::vector<std::wstring>;

namespace {

// All thirty custom actions, and nothing else.
const std::set<std::string> kExpectedExports = {
    "AddIcaClient",
    "AddPortException",
    "AddProgramException",
    "CloseAutoConnect",
    "CloseProcessDeferred",
    "CloseProcessImmediately",
    "CompareVersionString",
    "CreateAndInstallRootCertificate",
    "CreateAndInstallSignedServerCertificate",
    "CreateProcessDeferred",
    "CreateProcessImmediately",
    "DirectoryObjectPick",
    "GetCustomActionVersion",
    "GetDomain",
    "GetEngineVersion",
    "GetFileVersion",
    "RemoveIcaClient",
    "RemovePortException",
    "RemoveProgramException",
    "ServiceRestart",
    "ServiceStart",
    "ServiceStop",
    "SetRemoteConfigDeferred",
    "SetRemoteConfigImmediately",
    "ShellExecuteDeferred",
    "ShellExecuteImmediately",
    "ShowMessageDeferred",
    "ShowMessageImmediately",
    "UninstallRootCertificate",
    "UninstallSignedCertificate",
};

// Loaded once per test, as the installer loads it.
class ShippedDll : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_Library.IsLoaded()) << "cannot load the DLL"; }

    template <typename T>
    const T* AtRva(DWORD rva) const
    {
        return reinterpret_cast<const T*>(reinterpret_cast<const BYTE*>(m_Library.Module()) + rva);
    }
    std::wstring VersionBody() const
    {
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(m_Library.Module(), path, MAX_PATH);
        return L"Workbench (#) Custom Action Dll '" + std::wstring(path) + L"' has version '" QC_PROJECT_VERSION L"'.";
    }

    const CActionLibrary m_Library{QcTest::ShippedDllPath()};
};

} // namespace

TEST_F(ShippedDll, ImageExportsTheActionsByPlainNameImportsOnlySystemLibrariesAndIsHardened)
{
    const auto& header = AtRva<IMAGE_NT_HEADERS64>(AtRva<IMAGE_DOS_HEADER>(0)->e_lfanew)->OptionalHeader;
    const auto& directories = header.DataDirectory;
    const auto* exports = AtRva<IMAGE_EXPORT_DIRECTORY>(directories[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    std::set<std::string> found;
    for (DWORD i = 0; i < exports->NumberOfNames; ++i)
    {
        found.insert(AtRva<char>(AtRva<DWORD>(exports->AddressOfNames)[i]));
    }
    EXPECT_EQ(found, kExpectedExports);

    const std::set<std::string> allowed = {"KERNEL32.DLL", "MSI.DLL",      "MSVCRT.DLL",  "ADVAPI32.DLL",
                                           "OLE32.DLL",    "OLEAUT32.DLL", "CRYPT32.DLL", "RPCRT4.DLL",
                                           "WS2_32.DLL",   "VERSION.DLL",  "SHELL32.DLL", "USER32.DLL"};
    for (const auto* entry = AtRva<IMAGE_IMPORT_DESCRIPTOR>(directories[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
         entry->Name != 0; ++entry)
    {
        std::string name = AtRva<char>(entry->Name);
        std::transform(name.begin(), name.end(), name.begin(), [](char ch) { return std::toupper(ch); });
        EXPECT_EQ(allowed.count(name), 1u) << "imports " << name;
    }
    const WORD hardening = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT |
                           IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA;
    EXPECT_EQ(header.DllCharacteristics & hardening, hardening);
}

// The version line reads the DLL's file version; the product version is the same.
TEST_F(ShippedDll, GetCustomActionVersionWritesOnlyTheVersionLineAndSucceeds)
{
    CActionHost host;
    ASSERT_TRUE(host.IsOpen());
    // Arguments are ignored, however broken.
    host.SetCustomActionData(L";=;==;SERVICENAME");
    EXPECT_EQ(host.Call(m_Library.Find("GetCustomActionVersion")), 0u);
    EXPECT_EQ(QcTest::Bodies(host.LogLines()), Lines{VersionBody()});
    EXPECT_EQ(host.CallWithHandle(m_Library.Find("GetCustomActionVersion"), 0), 0u);
    const CFileVersion version(QcTest::ShippedDllPath().c_str());
    ASSERT_NE(version.FixedInfo(), nullptr);
    EXPECT_EQ(version.FixedInfo()->dwProductVersionMS, version.FixedInfo()->dwFileVersionMS);
    EXPECT_EQ(version.FixedInfo()->dwProductVersionLS, version.FixedInfo()->dwFileVersionLS);
}

TEST_F(ShippedDll, CompareVersionStringWritesTheOutcomeOfTheFieldsBothVersionsHave)
{
    const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*> cases[] = {
        {L"01.2", L"1.2", L"0"},  // fields compare as numbers, not text
        {L"1.2", L"1.2.3", L"0"}, // only the fields both have
        {L"1.a", L"1.0", L"0"},   // no digits converts to 0
        {L"1.2b", L"1.3", L"-1"}, // conversion stops at the first non-digit
        {L"1.", L"1.0.5", L"0"},  // a trailing point leaves no second field
        {L"", L"3.0", L"0"},
        {L"1.-1", L"1.0", L"-1"},                   // a sign inside a field
        {L"1..2", L"1.0.3", L"-1"},                 // an empty field is 0
        {L" 7.1", L"+7.0", L"1"},                   // blanks and a plus sign before the digits
        {L"99999999999.0", L"2147483647.1", L"-1"}, // clamped to the 32-bit range, then equal
    };
    for (const auto& [versionA, versionB, expected] : cases)
    {
        CActionHost host;
        ASSERT_TRUE(host.IsOpen());
        host.SetProperty(L"VersionA", versionA);
        host.SetProperty(L"VersionB", versionB);
        host.SetProperty(L"CompareResult", L"untouched");
        EXPECT_EQ(host.Call(m_Library.Find("CompareVersionString")), 0u);
        EXPECT_EQ(host.GetProperty(L"CompareResult"), expected)
            << ::testing::PrintToString(versionA) << " vs " << ::testing::PrintToString(versionB);
        EXPECT_EQ(QcTest::Bodies(host.LogLines()),
                  (Lines{VersionBody(), L"Workbench (#) Processing custom action: CompareVersionString."}));
    }
}
