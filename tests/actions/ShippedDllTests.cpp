// The shipped DLL itself, loaded as the installer loads it and driven through
// real installer sessions.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cwctype>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ActionHost.h"
#include "support/ShippedDll.h"

using QcRunner::Body;
using QcRunner::CActionHost;
using QcRunner::CActionLibrary;
using QcRunner::CustomActionFunction;

namespace {

// The exports that exist today; the rest of the thirty are added with their workers.
const std::set<std::string> kExpectedExports = {
    "CompareVersionString",
    "CreateAndInstallRootCertificate",
    "CreateAndInstallSignedServerCertificate",
    "GetCustomActionVersion",
    "ServiceRestart",
    "ServiceStart",
    "ServiceStop",
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

    static std::vector<std::wstring> Bodies(const CActionHost& host)
    {
        std::vector<std::wstring> bodies;
        for (const std::wstring& line : host.LogLines())
        {
            bodies.push_back(Body(line));
        }
        return bodies;
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

// A line exactly as the logger writes it: date, process and thread of the
// writer, an optional marker, source and line, the body and the closing point.
bool IsWholeLine(const std::wstring& line, DWORD dwThreadId)
{
    wchar_t ids[64] = {};
    _snwprintf(ids, 63, L"PID(0x%X) TID(0x%X) ", static_cast<unsigned>(GetCurrentProcessId()),
               static_cast<unsigned>(dwThreadId));
    return line.size() > 20 && line.compare(20, wcslen(ids), ids) == 0 && line.back() == L'.' &&
           QcRunner::WithoutPrefixes(line).find(L"Workbench (") == 0;
}

} // namespace

TEST_F(ShippedDll, ExportsExactlyTheImplementedActionsByTheirPlainNames)
{
    const IMAGE_DATA_DIRECTORY& directory = NtHeaders()->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    ASSERT_NE(directory.VirtualAddress, 0u);
    const auto* exports = AtRva<IMAGE_EXPORT_DIRECTORY>(directory.VirtualAddress);
    const auto* names = AtRva<DWORD>(exports->AddressOfNames);
    std::set<std::string> found;
    for (DWORD i = 0; i < exports->NumberOfNames; ++i)
    {
        found.insert(AtRva<char>(names[i]));
    }
    EXPECT_EQ(found, kExpectedExports);
}

TEST_F(ShippedDll, ImportsOnlyWindowsSystemLibraries)
{
    const std::set<std::wstring> allowed = {L"KERNEL32.DLL", L"MSI.DLL",     L"MSVCRT.DLL",  L"ADVAPI32.DLL",
                                            L"OLE32.DLL",    L"OLEAUT32.DLL", L"CRYPT32.DLL", L"RPCRT4.DLL",
                                            L"WS2_32.DLL",   L"VERSION.DLL", L"SHELL32.DLL", L"USER32.DLL"};
    const IMAGE_DATA_DIRECTORY& directory = NtHeaders()->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    ASSERT_NE(directory.VirtualAddress, 0u);
    int count = 0;
    for (const auto* entry = AtRva<IMAGE_IMPORT_DESCRIPTOR>(directory.VirtualAddress); entry->Name != 0; ++entry)
    {
        const std::wstring name = Upper(AtRva<char>(entry->Name));
        EXPECT_TRUE(allowed.count(name) == 1) << "imports " << std::string(name.begin(), name.end());
        ++count;
    }
    EXPECT_GT(count, 0);
}

TEST_F(ShippedDll, ImageIsHardened)
{
    const WORD characteristics = NtHeaders()->OptionalHeader.DllCharacteristics;
    EXPECT_TRUE(characteristics & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE);
    EXPECT_TRUE(characteristics & IMAGE_DLLCHARACTERISTICS_NX_COMPAT);
    EXPECT_TRUE(characteristics & IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA);
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
    EXPECT_TRUE(IsWholeLine(host.LogLines()[0], GetCurrentThreadId())) << host.LogLines()[0].size();
    EXPECT_EQ(Body(host.LogLines()[0]), VersionBody());
    EXPECT_EQ(host.CallWithHandle(Export("GetCustomActionVersion"), 0), 0u);
}

TEST_F(ShippedDll, CompareVersionStringWritesTheOutcomeOfTheFieldsBothVersionsHave)
{
    struct Case
    {
        const wchar_t* versionA;
        const wchar_t* versionB;
        const wchar_t* expected;
    };
    const Case cases[] = {
        {L"1.10", L"1.9", L"1"},       // fields compare as numbers, not text
        {L"2.0.0.1", L"2.0.0.1", L"0"},
        {L"1.2", L"1.2.3", L"0"},      // only the fields both have
        {L"1.2.3", L"1.2", L"0"},
        {L"01.2", L"1.2", L"0"},       // leading zeros
        {L"1.a", L"1.0", L"0"},        // no digits converts to 0
        {L"1.2b", L"1.3", L"-1"},      // conversion stops at the first non-digit
        {L"1.", L"1.0.5", L"0"},       // a trailing point leaves no second field
        {L"", L"3.0", L"0"},
        {L"3.0", L"", L"0"},
        {L"1.-1", L"1.0", L"-1"},      // a sign inside a field
        {L"1..2", L"1.0.3", L"-1"},    // an empty field is 0
        {L" 7.1", L"+7.0", L"1"},      // blanks and a plus sign before the digits
        {L"99999999999.0", L"2147483647.1", L"-1"}, // clamped to the 32-bit range, then equal
        {L"4.0", L"10.0", L"-1"},
    };
    for (const Case& c : cases)
    {
        CActionHost host;
        ASSERT_TRUE(host.IsOpen());
        host.SetProperty(L"VersionA", c.versionA);
        host.SetProperty(L"VersionB", c.versionB);
        host.SetProperty(L"CompareResult", L"untouched");
        EXPECT_EQ(host.Call(Export("CompareVersionString")), 0u);
        const std::wstring result = host.GetProperty(L"CompareResult");
        EXPECT_EQ(result, c.expected) << std::string(c.versionA, c.versionA + wcslen(c.versionA)) << " vs "
                                      << std::string(c.versionB, c.versionB + wcslen(c.versionB));
        EXPECT_EQ(Bodies(host), (Lines{VersionBody(), L"Workbench (#) Processing custom action: CompareVersionString."}));
    }
}

TEST_F(ShippedDll, CompareVersionStringWithoutASessionFailsAndLogsNothing)
{
    CActionHost host;
    ASSERT_TRUE(host.IsOpen());
    EXPECT_EQ(host.CallWithHandle(Export("CompareVersionString"), 0), 1603u);
    EXPECT_TRUE(host.LogLines().empty());
}

// Several threads, each with its own session, run actions at once: every line
// reaches the session of the thread that wrote it, whole and in full, and
// threads without a valid session deliver nothing anywhere.
TEST_F(ShippedDll, ConcurrentActionsDeliverEveryLineWholeToTheirOwnSessionOnly)
{
    constexpr int kSessions = 8;
    constexpr int kWithoutSession = 4;
    constexpr int kCalls = 40;
    std::vector<std::unique_ptr<CActionHost>> hosts;
    for (int i = 0; i < kSessions + kWithoutSession; ++i)
    {
        hosts.push_back(std::make_unique<CActionHost>());
        ASSERT_TRUE(hosts.back()->IsOpen());
        hosts.back()->SetProperty(L"VersionA", L"1." + std::to_wstring(i));
        hosts.back()->SetProperty(L"VersionB", L"1.3");
    }
    std::vector<DWORD> threadIds(hosts.size());
    std::vector<int> failures(hosts.size());
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < hosts.size(); ++i)
    {
        threads.emplace_back([&, i] {
            threadIds[i] = GetCurrentThreadId();
            ++ready;
            while (ready.load() < static_cast<int>(hosts.size()))
            {
                Sleep(0);
            }
            // The last threads pass a handle that is no session (0 or unknown).
            const MSIHANDLE hSession = i < kSessions ? hosts[i]->Session() : (i % 2 ? 0 : 0x7FFF0000 + i);
            for (int call = 0; call < kCalls; ++call)
            {
                const UINT expected = i < kSessions ? 0u : 1603u;
                if (hosts[i]->CallWithHandle(Export("CompareVersionString"), hSession) != expected)
                {
                    ++failures[i];
                }
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    for (size_t i = 0; i < hosts.size(); ++i)
    {
        EXPECT_EQ(failures[i], 0) << "thread " << i;
        const auto& lines = hosts[i]->LogLines();
        if (i >= kSessions)
        {
            EXPECT_TRUE(lines.empty()) << "thread " << i;
            continue;
        }
        ASSERT_EQ(lines.size(), static_cast<size_t>(2 * kCalls)) << "thread " << i;
        for (size_t n = 0; n < lines.size(); ++n)
        {
            EXPECT_TRUE(IsWholeLine(lines[n], threadIds[i])) << "thread " << i << " line " << n;
            EXPECT_EQ(Body(lines[n]), n % 2 == 0 ? VersionBody()
                                                 : L"Workbench (#) Processing custom action: CompareVersionString.");
        }
        EXPECT_EQ(hosts[i]->GetProperty(L"CompareResult"), i < 3 ? L"-1" : (i == 3 ? L"0" : L"1"));
    }
}
