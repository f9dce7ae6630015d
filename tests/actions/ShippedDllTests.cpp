// The shipped DLL itself, loaded as the installer loads it and driven through real installer sessions.
#include <gtest/gtest.h>

#include <windows.h>
#include <msiquery.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <iterator>
#include <cctype>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/ActionCall.h"
#include "support/ImportPatch.h"

using QcTest::Lines;
using QcTest::ShippedLibrary;

namespace {

// All thirty custom actions, and nothing else.
const char kExpectedExports[] =
    "AddIcaClient AddPortException AddProgramException CloseAutoConnect CloseProcessDeferred CloseProcessImmediately "
    "CompareVersionString CreateAndInstallRootCertificate CreateAndInstallSignedServerCertificate "
    "CreateProcessDeferred CreateProcessImmediately DirectoryObjectPick GetCustomActionVersion GetDomain "
    "GetEngineVersion GetFileVersion RemoveIcaClient RemovePortException RemoveProgramException ServiceRestart "
    "ServiceStart ServiceStop SetRemoteConfigDeferred SetRemoteConfigImmediately ShellExecuteDeferred "
    "ShellExecuteImmediately ShowMessageDeferred ShowMessageImmediately UninstallRootCertificate "
    "UninstallSignedCertificate";

template <typename T>
const T* AtRva(DWORD rva)
{
    return reinterpret_cast<const T*>(reinterpret_cast<const BYTE*>(ShippedLibrary().Module()) + rva);
}

} // namespace

TEST(ShippedDll, ImageExportsTheActionsByPlainNameImportsOnlySystemLibrariesAndIsHardened)
{
    ASSERT_TRUE(ShippedLibrary().IsLoaded()) << "cannot load the DLL";
    const auto& header = AtRva<IMAGE_NT_HEADERS64>(AtRva<IMAGE_DOS_HEADER>(0)->e_lfanew)->OptionalHeader;
    const auto& directories = header.DataDirectory;
    const std::vector<std::string> found = ShippedLibrary().ExportNames();
    std::istringstream names(kExpectedExports);
    EXPECT_EQ(std::set<std::string>(found.begin(), found.end()),
              std::set<std::string>(std::istream_iterator<std::string>(names), std::istream_iterator<std::string>()));

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

TEST(ShippedDll, GetCustomActionVersionWritesOnlyTheVersionLineAndSucceeds)
{
    QcRunner::CActionHost host;
    // Arguments are ignored, however broken.
    ASSERT_TRUE(host.SetCustomActionData(L";=;==;SERVICENAME"));
    EXPECT_EQ(host.Call(ShippedLibrary().Find("GetCustomActionVersion")), 0u);
    EXPECT_EQ(QcTest::Bodies(host.LogLines()), Lines{L"Workbench (#) Custom Action Dll '" + ShippedLibrary().Path() +
                                                     L"' has version '" QC_PROJECT_VERSION L"'."});
    EXPECT_EQ(host.CallWithHandle(ShippedLibrary().Find("GetCustomActionVersion"), 0), 0u);
}

TEST(ShippedDll, CompareVersionStringWritesTheOutcomeOfTheFieldsBothVersionsHave)
{
    const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*> cases[] = {
        {L"01.2", L"1.2", L"0"},  // fields compare as numbers, not text
        {L"1.2", L"1.2.3", L"0"}, // only the fields both have
        {L"1.3b", L"1.3", L"0"},  // conversion stops at the first non-digit
        {L"1.", L"1.0.5", L"0"},  // a trailing point leaves no second field
        {L"", L"3.0", L"0"},
        {L"1.-1", L"1.0", L"-1"},                   // a sign inside a field
        {L"1..2", L"1.0.3", L"-1"},                 // an empty field is 0
        {L" 7.1", L"+7.0", L"1"},                   // blanks and a plus sign before the digits
        {L"99999999999.0", L"2147483647.1", L"-1"}, // clamped to the 32-bit range, then equal
    };
    for (const auto& [versionA, versionB, expected] : cases)
    {
        const QcTest::ActionOutcome outcome = QcTest::RunAction(
            "CompareVersionString",
            {{L"VersionA", versionA}, {L"VersionB", versionB}, {L"CompareResult", L"untouched"}}, {L"CompareResult"});
        // Nothing but the frame's lines.
        EXPECT_EQ(std::tie(outcome.result, outcome.values[0], outcome.lines), std::make_tuple(0u, expected, Lines{}))
            << ::testing::PrintToString(versionA) << " vs " << ::testing::PrintToString(versionB);
    }
}

namespace {

// What the DLL's installer calls did on the thread of one session.
thread_local MSIHANDLE t_hSession = 0;
thread_local uint32_t t_Delivered = 0, t_Misrouted = 0, t_Failed = 0;

MSIHANDLE WINAPI CreateRecord(UINT fields)
{
    const MSIHANDLE hRecord = ::MsiCreateRecord(fields);
    t_Failed += hRecord == 0;
    return hRecord;
}
UINT WINAPI SetRecordString(MSIHANDLE hRecord, UINT field, LPCWSTR text)
{
    const UINT result = ::MsiRecordSetStringW(hRecord, field, text);
    t_Failed += result != ERROR_SUCCESS;
    return result;
}
// The installer hands a record to the handler of the thread that sends it, whatever session it names: the session a
// record goes to is seen here, in the call.
int WINAPI ProcessMessage(MSIHANDLE hInstall, INSTALLMESSAGE type, MSIHANDLE hRecord)
{
    t_Misrouted += hInstall != t_hSession;
    const int answer = ::MsiProcessMessage(hInstall, type, hRecord);
    (answer == 0 || answer == IDOK ? t_Delivered : t_Failed) += 1;
    return answer;
}

} // namespace

// Several sessions log at once through the DLL's one logger. Under such traffic Wine's installer now and then drops a
// record, the call that carries it failing: a missing record is tolerated only then, a misrouted one never.
TEST(ShippedDll, ConcurrentSessionsEachGetTheirOwnRecordsAndLoseOnlyThoseWhoseCallFailed)
{
    constexpr uint32_t kSessions = 4, kCalls = 10, kRecordsPerCall = 6;
    const HMODULE hDll = ShippedLibrary().Module();
    const QcTest::CImportPatch patches[] = {
        {hDll, "msi.dll", "MsiCreateRecord", reinterpret_cast<const void*>(&CreateRecord)},
        {hDll, "msi.dll", "MsiRecordSetStringW", reinterpret_cast<const void*>(&SetRecordString)},
        {hDll, "msi.dll", "MsiProcessMessage", reinterpret_cast<const void*>(&ProcessMessage)}};
    ASSERT_TRUE(patches[0].IsApplied() && patches[1].IsApplied() && patches[2].IsApplied());
    std::atomic<uint32_t> ready{0};
    // For each session: the actions that failed, its records sent to another session, and its records delivered or
    // lost with a failed installer call.
    std::vector<std::array<uint32_t, 3>> counts(kSessions);
    std::vector<std::thread> sessions;
    for (uint32_t session = 0; session < kSessions; ++session)
    {
        sessions.emplace_back([&, session] {
            QcRunner::CActionHost host;
            t_hSession = host.Session();
            // One pair of three: the frame writes six records and fails before any worker runs.
            host.SetCustomActionData(L";SERVICENAME=Spooler");
            uint32_t failedActions = 0;
            for (++ready; ready < kSessions;)
            {
                std::this_thread::yield();
            }
            for (uint32_t call = 0; call < kCalls; ++call)
            {
                failedActions += host.Call(ShippedLibrary().Find("ServiceStart")) == ERROR_INSTALL_FAILURE;
            }
            counts[session] = {failedActions, t_Misrouted, t_Delivered + t_Failed};
        });
    }
    for (std::thread& session : sessions)
    {
        session.join();
    }
    const std::vector<std::array<uint32_t, 3>> expected(kSessions, {kCalls, 0, kCalls * kRecordsPerCall});
    EXPECT_EQ(counts, expected);
}
