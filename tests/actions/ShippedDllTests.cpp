// The shipped DLL itself, loaded as the installer loads it and driven through
// real installer sessions.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cwctype>
#include <set>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "support/LogCapture.h"
#include "support/ShippedDll.h"

using QcRunner::Body;
using QcRunner::CActionHost;
using QcRunner::CActionLibrary;
using QcRunner::CustomActionFunction;

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

class ShippedDll : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { s_pLibrary = new CActionLibrary(QcTest::ShippedDllPath()); }
    static void TearDownTestSuite()
    {
        delete s_pLibrary;
        s_pLibrary = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(s_pLibrary->IsLoaded()) << "cannot load the DLL"; }

    static CustomActionFunction Export(const char* name) { return s_pLibrary->Find(name); }
    static HMODULE Module() { return s_pLibrary->Module(); }

    static std::wstring ModulePath()
    {
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(Module(), path, MAX_PATH);
        return path;
    }
    static std::wstring VersionBody()
    {
        return L"Workbench (#) Custom Action Dll '" + ModulePath() + L"' has version '" QC_PROJECT_VERSION L"'.";
    }

    static const IMAGE_NT_HEADERS64* NtHeaders()
    {
        const auto* base = reinterpret_cast<const BYTE*>(Module());
        const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
        return reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    }
    template <typename T>
    static const T* AtRva(DWORD rva)
    {
        return reinterpret_cast<const T*>(reinterpret_cast<const BYTE*>(Module()) + rva);
    }

    static CActionLibrary* s_pLibrary;
};

CActionLibrary* ShippedDll::s_pLibrary = nullptr;

using Lines = std::vector<std::wstring>;

std::wstring Upper(std::string text)
{
    std::wstring wide(text.begin(), text.end());
    std::transform(wide.begin(), wide.end(), wide.begin(), [](wchar_t ch) { return std::towupper(ch); });
    return wide;
}

} // namespace

TEST_F(ShippedDll, ImageExportsTheActionsByPlainNameImportsOnlySystemLibrariesAndIsHardened)
{
    const IMAGE_OPTIONAL_HEADER64& header = NtHeaders()->OptionalHeader;
    const auto* exports = AtRva<IMAGE_EXPORT_DIRECTORY>(header.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    std::set<std::string> found;
    for (DWORD i = 0; i < exports->NumberOfNames; ++i)
    {
        found.insert(AtRva<char>(AtRva<DWORD>(exports->AddressOfNames)[i]));
    }
    EXPECT_EQ(found, kExpectedExports);

    const std::set<std::wstring> allowed = {L"KERNEL32.DLL", L"MSI.DLL",      L"MSVCRT.DLL",  L"ADVAPI32.DLL",
                                            L"OLE32.DLL",    L"OLEAUT32.DLL", L"CRYPT32.DLL", L"RPCRT4.DLL",
                                            L"WS2_32.DLL",   L"VERSION.DLL",  L"SHELL32.DLL", L"USER32.DLL"};
    int count = 0;
    for (const auto* entry = AtRva<IMAGE_IMPORT_DESCRIPTOR>(header.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
         entry->Name != 0; ++entry, ++count)
    {
        const std::wstring name = Upper(AtRva<char>(entry->Name));
        EXPECT_TRUE(allowed.count(name) == 1) << "imports " << std::string(name.begin(), name.end());
    }
    EXPECT_GT(count, 0);
    for (const WORD flag : {IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE, IMAGE_DLLCHARACTERISTICS_NX_COMPAT,
                            IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA})
    {
        EXPECT_TRUE(header.DllCharacteristics & flag) << flag;
    }
}

TEST_F(ShippedDll, VersionResourceCarriesTheReleaseNumberAsFileAndProductVersion)
{
    const std::wstring path = ModulePath();
    DWORD handle = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &handle);
    ASSERT_GT(size, 0u);
    std::vector<BYTE> block(size);
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, size, block.data()));
    VS_FIXEDFILEINFO* pInfo = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&pInfo), &length));
    wchar_t text[64] = {};
    _snwprintf(text, 63, L"%u.%u.%u.%u", HIWORD(pInfo->dwFileVersionMS), LOWORD(pInfo->dwFileVersionMS),
               HIWORD(pInfo->dwFileVersionLS), LOWORD(pInfo->dwFileVersionLS));
    EXPECT_STREQ(text, QC_PROJECT_VERSION);
    EXPECT_EQ(pInfo->dwProductVersionMS, pInfo->dwFileVersionMS);
    EXPECT_EQ(pInfo->dwProductVersionLS, pInfo->dwFileVersionLS);
}

TEST_F(ShippedDll, GetCustomActionVersionWritesOnlyTheVersionLineAndSucceeds)
{
    CActionHost host;
    ASSERT_TRUE(host.IsOpen());
    // Arguments are ignored, however broken.
    host.SetCustomActionData(L";=;==;SERVICENAME");
    EXPECT_EQ(host.Call(Export("GetCustomActionVersion")), 0u);
    ASSERT_EQ(host.LogLines().size(), 1u);
    EXPECT_TRUE(QcTest::IsWholeLine(host.LogLines()[0], GetCurrentThreadId())) << host.LogLines()[0].size();
    EXPECT_EQ(Body(host.LogLines()[0]), VersionBody());
    EXPECT_EQ(host.CallWithHandle(Export("GetCustomActionVersion"), 0), 0u);
}

TEST_F(ShippedDll, CompareVersionStringWritesTheOutcomeOfTheFieldsBothVersionsHave)
{
    const struct
    {
        const wchar_t *versionA, *versionB, *expected;
    } cases[] = {
        {L"1.10", L"1.9", L"1"},       // fields compare as numbers, not text
        {L"2.0.0.1", L"2.0.0.1", L"0"},
        {L"1.2", L"1.2.3", L"0"},      // only the fields both have
        {L"01.2", L"1.2", L"0"},       // leading zeros
        {L"1.a", L"1.0", L"0"},        // no digits converts to 0
        {L"1.2b", L"1.3", L"-1"},      // conversion stops at the first non-digit
        {L"1.", L"1.0.5", L"0"},       // a trailing point leaves no second field
        {L"", L"3.0", L"0"},
        {L"1.-1", L"1.0", L"-1"},      // a sign inside a field
        {L"1..2", L"1.0.3", L"-1"},    // an empty field is 0
        {L" 7.1", L"+7.0", L"1"},      // blanks and a plus sign before the digits
        {L"99999999999.0", L"2147483647.1", L"-1"}, // clamped to the 32-bit range, then equal
    };
    for (const auto& c : cases)
    {
        CActionHost host;
        ASSERT_TRUE(host.IsOpen());
        host.SetProperty(L"VersionA", c.versionA);
        host.SetProperty(L"VersionB", c.versionB);
        host.SetProperty(L"CompareResult", L"untouched");
        EXPECT_EQ(host.Call(Export("CompareVersionString")), 0u);
        EXPECT_EQ(host.GetProperty(L"CompareResult"), c.expected) << ::testing::PrintToString(c.versionA) << " vs "
                                                                   << ::testing::PrintToString(c.versionB);
        EXPECT_EQ(QcTest::Bodies(host.LogLines()), (Lines{VersionBody(), L"Workbench (#) Processing custom action: CompareVersionString."}));
    }
}
