// GetDomain and DirectoryObjectPick against the test double, which records calls and releases, in the place of
// Wine's WMI and picker (the e2e cases run GetDomain on Wine's own WMI).
#include <gtest/gtest.h>

#include <windows.h>
#include <msiquery.h>
#include <objsel.h>
#include <wbemcli.h>

#include <cstring>
#include <memory>
#include <numeric>
#include <set>

#include "support/ActionCall.h"
#include "support/ComServer.h"
#include "support/ImportPatch.h"
#include "system/Directory.h"

namespace QcTest {
namespace {

constexpr wchar_t kTitle[] = L"Quillcast Picker Test";
constexpr wchar_t kDialogTitle[] = L"Quillcast Dialog"; // only a standard dialog has it
const std::wstring kDoubleServer = BinFolder() + L"QcDirectoryDouble.dll";
// Where the double takes its answers from and writes its journal to (QcDirectoryDouble.cpp lists the values).
const std::wstring kDoubleKey = L"Software\\Quillcast\\Tests\\DirectoryDouble";
const std::wstring kSavedServers = kDoubleKey + L"\\Saved servers";
// A server that cannot be loaded: creating the class fails with ERROR_MOD_NOT_FOUND.
const std::wstring kMissingServer = L"C:\\windows\\system32\\QcMissingServer.dll";

// Reads of the shipped DLL that fail: "NAME" fails the second call of that property, "NAME:size" its size
// query. Failing calls leave last error 1627.
std::set<std::wstring> g_FailingReads;

UINT WINAPI FailingGetProperty(MSIHANDLE hInstall, LPCWSTR name, LPWSTR value, LPDWORD pcch)
{
    if (g_FailingReads.count(std::wstring(name) + (pcch != nullptr && *pcch == 0 ? L":size" : L"")) != 0)
    {
        SetLastError(ERROR_FUNCTION_FAILED);
        return ERROR_FUNCTION_FAILED;
    }
    return ::MsiGetPropertyW(hInstall, name, value, pcch);
}

const auto Error = [](const std::wstring& source, const std::wstring& text) {
    return L"[ERROR] " + source + L" (#) " + text + L".";
};
// The double's answer that makes `call` answer hResult instead of going on.
const auto Fail = [](const wchar_t* call, HRESULT hResult) {
    return std::make_pair(std::wstring(call), std::to_wstring(static_cast<unsigned long>(hResult)));
};

// One run of an action. A row names what differs from the default: the double serving both classes with its
// default answers, a thread without COM, the product's wizard on screen, every property read succeeding, the
// action failing (1603) and leaving the results as they were, nothing logged, no call of the double.
struct Row
{
    const char* name = "";
    std::wstring server = kDoubleServer;
    Properties answers = {};    // the double's
    Properties properties = {}; // besides the product name and the results' earlier values
    std::set<std::wstring> failingReads = {};
    int apartment = -1; // the caller's COM apartment
    Lines lines = {};
    Lines values = {};  // on success: MACHINEDOMAIN and PARTOFDOMAIN, or PickResult
    Lines journal = {}; // what the double received and released
};

class DirectoryAction : public ::testing::TestWithParam<Row>
{
protected:
    // The servers the double stood in for (Wine's own) are put back, and its answers and journal dropped.
    void TearDown() override
    {
        RestoreServer(CLSID_WbemLocator, kSavedServers);
        RestoreServer(CLSID_DsObjectPicker, kSavedServers);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kDoubleKey.c_str());
    }
};

TEST_P(DirectoryAction, Case)
{
    const Row& row = GetParam();
    const bool bDomain = std::strstr(::testing::UnitTest::GetInstance()->current_test_suite()->name(), "GetDomain");
    // `server` serves CLSID_WbemLocator and CLSID_DsObjectPicker in the test prefix for the case.
    ASSERT_TRUE(ReplaceServer(CLSID_WbemLocator, row.server, kSavedServers) &&
                ReplaceServer(CLSID_DsObjectPicker, row.server, kSavedServers));
    for (const auto& answer : row.answers)
    {
        WriteText(kDoubleKey, answer.first.c_str(), answer.second);
    }
    const WNDCLASSW wizard = {0,       DefWindowProcW, 0,       0,       nullptr,
                              nullptr, nullptr,        nullptr, nullptr, L"MsiDialogCloseClass"};
    RegisterClassW(&wizard); // fails harmlessly once registered
    // The wizard carrying the product's title is found although a newer standard dialog carries it too.
    const auto window = [](const wchar_t* className, const wchar_t* title) {
        return std::unique_ptr<HWND__, BOOL(WINAPI*)(HWND)>(
            CreateWindowExW(0, className, title, 0, 0, 0, 200, 100, nullptr, nullptr, nullptr, nullptr), DestroyWindow);
    };
    const auto windows = {window(L"MsiDialogCloseClass", kTitle), window(L"#32770", kTitle),
                          window(L"#32770", kDialogTitle)};
    CImportPatch patch(ShippedLibrary().Module(), "msi.dll", "MsiGetPropertyW",
                       reinterpret_cast<const void*>(&FailingGetProperty));
    ASSERT_TRUE(patch.IsApplied());
    g_FailingReads = row.failingReads;
    Properties properties = {{L"ProductName", kTitle},
                             {L"PickResult", L"earlier"},
                             {L"MACHINEDOMAIN", L"earlier.example"},
                             {L"PARTOFDOMAIN", L"earlier"}};
    properties.insert(properties.end(), row.properties.begin(), row.properties.end());

    const ActionOutcome outcome =
        RunAction(bDomain ? "GetDomain" : "DirectoryObjectPick", properties,
                  bDomain ? Lines{L"MACHINEDOMAIN", L"PARTOFDOMAIN"} : Lines{L"PickResult"}, row.apartment);

    EXPECT_EQ(outcome.result, row.values.empty() ? 1603U : 0U);
    EXPECT_EQ(outcome.lines, row.lines);
    const Lines earlier = bDomain ? Lines{L"earlier.example", L"earlier"} : Lines{L"earlier"};
    EXPECT_EQ(outcome.values, row.values.empty() ? earlier : row.values);
    std::wstring journal;
    ReadText(kDoubleKey, L"Journal", journal);
    const auto addLine = [](const std::wstring& text, const std::wstring& line) { return text + line + L"\n"; };
    EXPECT_EQ(journal, std::accumulate(row.journal.begin(), row.journal.end(), std::wstring(), addLine));
    // GetDomain leaves a caller's apartment initialised; the picker's unbalanced CoUninitialize ends it.
    EXPECT_EQ(outcome.comAfter, bDomain && row.apartment != -1 ? S_FALSE : S_OK);
}

const std::wstring kConnecting = L"WmiConnection (#) Connecting to namespace ROOT\\CIMV2.";
const std::wstring kQuerying = L"WmiConnection (#) Processing query Select * from Win32_ComputerSystem.";
const std::wstring kConnect = L"ConnectServer ROOT\\CIMV2 null null null 128 null";
const std::wstring kQueryFailed = Error(L"Various", L"Query for Win32_ComputerSystem failed");
const std::wstring kConnectFailed = L"[ERROR] Various (#) WMI Connection failed with error ";

// After a failure the thread's last-error value, not the HRESULT, ends the action's entry; 14007
// (ERROR_SXS_KEY_NOT_FOUND) is what Wine's COM leaves on the thread.
const std::wstring kShowFailed = Error(L"Various", L"ShowObjectPicker failed with error 14007");
const Lines kBlanketFailed = {kConnecting, Error(L"WmiConnection", L"CoSetProxyBlanket failed"),
                              kConnectFailed + L"14007."};

// The first `steps` calls of a run up to the enumeration, then `rest` and the releases of the connection.
Lines Calls(size_t steps, const Lines& rest = {})
{
    // The queried blanket handed back (authentication, authorisation, principal, level, impersonation, identity,
    // capabilities), only the impersonation level raised to 3.
    const auto blanket = [](const std::wstring& proxy) {
        return L"SetBlanket " + proxy + L" 9 1 QcDouble/" + proxy + L" 6 3 queried 32";
    };
    Lines calls = {kConnect, blanket(L"Services"), L"ExecQuery WQL Select * from Win32_ComputerSystem 48",
                   blanket(L"Enumerator")};
    calls.resize(steps);
    calls.insert(calls.end(), rest.begin(), rest.end());
    calls.insert(calls.end(), {L"Services released", L"Locator released"});
    return calls;
}
// A run that finds `instances` computer systems and reads the first; without `bBlankets` no blanket is set.
Lines FullRun(size_t instances, bool bBlankets = true)
{
    Lines rest(instances + 1, L"Next -1 1"); // the last finds none left
    rest.insert(rest.end(), {L"Enumerator released", L"Get PartOfDomain", L"Get Domain"});
    rest.insert(rest.end(), instances, L"Win32_ComputerSystem released");
    Lines calls = Calls(4, rest);
    const auto isBlanket = [&](const std::wstring& call) { return !bBlankets && call.rfind(L"SetBlanket", 0) == 0; };
    calls.erase(std::remove_if(calls.begin(), calls.end(), isBlanket), calls.end());
    return calls;
}

const Row kDomainRows[] = {
    // RPC_E_CHANGED_MODE (0x80010106) is logged and the query still runs; only one computer system is read.
    // A CIM_STRING without a value (VT_NULL) is the empty text; a machine outside a domain keeps an earlier flag.
    {.name = "OneOfTwoWorkgroupMembersCountsForAnApartmentThreadedCaller",
     .answers = {{L"PartOfDomain", L"11:0"}, {L"Domain", L"8:"}, {L"Instances", L"2"}},
     .apartment = COINIT_APARTMENTTHREADED,
     .lines = {Error(L"WmiConnection", L"CoInitializeEx failed with result 2147549446"), kConnecting, kQuerying},
     .values = {L"", L"earlier"},
     .journal = FullRun(2)},
    // A proxy impersonating at level 4 (delegate) is set to 3 all the same.
    {.name = "DomainMemberSetsItsDomainAndPartOfDomain",
     .answers = {{L"PartOfDomain", L"11:1"}, {L"Domain", L"8:corp.example"}, {L"ImpersonationLevel", L"4"}},
     .lines = {kConnecting, kQuerying},
     .values = {L"corp.example", L"1"},
     .journal = FullRun(1)},
    // "MACHINEDOMAIN" is set also to the empty text, which removes it. A proxy already impersonating keeps its
    // blanket. CIM_DATETIME (101), a number no VARIANT type has, arrives as a VT_BSTR like a CIM_STRING.
    {.name = "DomainOfAnotherCimTypeEmptiesMachineDomainThroughAnImpersonatingProxy",
     .answers = {{L"PartOfDomain", L"11:1"}, {L"Domain", L"101:corp.example"}, {L"ImpersonationLevel", L"3"}},
     .lines = {kConnecting, kQuerying,
               L"[ERROR] WmiClassObject (#) Got type mismatch for property 'Domain' Expected=8 Is=101."},
     .values = {L"", L"1"},
     .journal = FullRun(1, false)},
    {.name = "FailedConnectFailsWithTheThreadsLastError",
     .answers = {Fail(L"ConnectServer", WBEM_E_ACCESS_DENIED)},
     .lines = {kConnecting, Error(L"WmiConnection", L"Connecting Wmi Services failed"), kConnectFailed + L"5."},
     .journal = {kConnect, L"Locator released"}},
    {.name = "FailedServicesBlanketFailsTheConnect",
     .answers = {Fail(L"SetBlanket", WBEM_E_ACCESS_DENIED)},
     .lines = kBlanketFailed,
     .journal = Calls(2)},
    // The query's failure takes the "set" text too, on purpose.
    {.name = "FailedBlanketQueryFailsTheConnectWithTheSetText",
     .answers = {Fail(L"QueryBlanket", WBEM_E_ACCESS_DENIED)},
     .lines = kBlanketFailed,
     .journal = Calls(1)},
    {.name = "MissingLocatorFailsTheConnect",
     .server = kMissingServer,
     .lines = {Error(L"WmiConnection", L"Creating WbemLocator failed"), kConnectFailed + L"126."}},
    {.name = "FailedQueryFails",
     .answers = {Fail(L"ExecQuery", WBEM_E_ACCESS_DENIED)},
     .lines = {kConnecting, kQuerying, Error(L"WmiConnection", L"Processing query failed"), kQueryFailed},
     .journal = Calls(3)},
    // Any answer but S_OK and S_FALSE ends the walk, a success code (WBEM_S_TIMEDOUT) too.
    {.name = "EnumerationAnsweringNeitherOkNorFalseFails",
     .answers = {Fail(L"Next", WBEM_S_TIMEDOUT)},
     .lines = {kConnecting, kQuerying,
               Error(L"WmiConnection", L"Enumerating class objects failed with error 262148 returned = 0"),
               kQueryFailed},
     .journal = Calls(4, {L"Next -1 1", L"Enumerator released"})},
};

// The first scope record (size, types, scope flags, uplevel both/mixed/native filters, downlevel filter, domain
// controller, path), by what the picker offers; the second record stays all zero.
const std::wstring kScope = L"Scope " + std::to_wstring(sizeof(DSOP_SCOPE_INIT_INFO)) + L" 0x37E ";
const std::wstring kUsersAndGroups = kScope + L"0xE2 0x2A7 0x0 0x0 0x80020007 null null";
const std::wstring kUsers = kScope + L"0x62 0x3 0x0 0x0 0x80000001 null null";
const std::wstring kGroups = kScope + L"0xA2 0x2A1 0x0 0x0 0x80000006 null null";

// The calls of a picker shown over the window of that class.
Lines Picked(const wchar_t* options, const std::wstring& scope, const std::wstring& parent = L"MsiDialogCloseClass")
{
    // The record's size, the target computer, the number of scopes, the options, the attributes to fetch.
    return {L"Initialize " + std::to_wstring(sizeof(DSOP_INIT_INFO)) + L" null 2 " + options + L" 0", scope,
            L"Scope 0 0x0 0x0 0x0 0x0 0x0 0x0 null null", L"InvokeDialog " + parent, L"Picker released"};
}
// The picker's one selection (QcDirectoryDouble.cpp) as DOMAIN\name each, the entry without a path adding nothing.
const Lines kPicked = {L"CORP\\alice;;CORP\\Print Operators"};

const Row kPickRows[] = {
    // Only a failed read of an option is worth a warning, not a failed size query; both read as 0.
    {.name = "UnreadableOptionsOfferUsersAndGroupsOverTheWizardAndJoinTheSelection",
     .properties = {{L"PickUserFlagProperty", L"2"}, {L"PickMultiSelectProperty", L"1"}},
     .failingReads = {L"PickUserFlagProperty", L"PickMultiSelectProperty:size"},
     .lines = {L"[WARNING] Various (#) MsiGetProperty PickUserFlagProperty failed with error 1627."},
     .values = kPicked,
     .journal = Picked(L"0x0", kUsersAndGroups)},
    // A multithreaded caller: the picker is created there all the same, and the destructor's CoUninitialize,
    // unbalanced on purpose, ends the caller's own initialisation (a balanced object would leave it, S_FALSE).
    // User flag 3 is like 0, and any number but 0 turns multi-selection on, a negative one too.
    {.name = "UserFlag3WithMultiSelectInAMultithreadedCaller",
     .properties = {{L"PickUserFlagProperty", L"3"}, {L"PickMultiSelectProperty", L" -7 apples"}},
     .apartment = COINIT_MULTITHREADED,
     .values = kPicked,
     .journal = Picked(L"0x1", kUsersAndGroups)},
    // A cancel, S_FALSE without a selection, is a failure.
    {.name = "CancelledPickerOfUsersUnderTheStandardDialogWithoutTheWizardFails",
     .answers = {Fail(L"InvokeDialog", S_FALSE)},
     .properties = {{L"ProductName", kDialogTitle}, {L"PickUserFlagProperty", L"1"}},
     .lines = {Error(L"Directory", L"ProcessSelectedObjects failed with error 2147942487"), kShowFailed},
     .journal = Picked(L"0x0", kUsers, L"#32770")},
    // The records stay unprepared; the picker refuses them and no dialog is shown. COM is uninitialised at once
    // and again by the destructor, both on purpose: the caller's own initialisation ends with the action.
    {.name = "UserFlag4IsRefusedAndNoDialogShown",
     .properties = {{L"PickUserFlagProperty", L"4"}, {L"PickMultiSelectProperty", L"1"}},
     .apartment = COINIT_APARTMENTTHREADED,
     .lines = {Error(L"Directory", L"dwUserFlag not valid"),
               Error(L"Directory", L"InitObjectPicker failed with error 2147942487"), kShowFailed},
     .journal = {L"Initialize 0 null 0 0x0 0", L"Picker released"}},
    {.name = "FailingPickerOfGroupsWithMultiSelectFails",
     .answers = {Fail(L"InvokeDialog", E_ACCESSDENIED)},
     .properties = {{L"PickUserFlagProperty", L"2"}, {L"PickMultiSelectProperty", L"1"}},
     .lines = {Error(L"Directory", L"InvokeDialog failed with error 2147942405"), kShowFailed},
     .journal = Picked(L"0x1", kGroups)},
    {.name = "PickerThatCannotBeCreatedIsNotUsed",
     .server = kMissingServer,
     .lines = {Error(L"Various", L"ShowObjectPicker failed with error 126")}},
    {.name = "NoWindowWithTheProductTitleFails",
     .properties = {{L"ProductName", L"Quillcast Silent"}},
     .lines = {Error(L"Various", L"FindWindow failed with error 0")}},
    // Another text than for the size query, on purpose.
    {.name = "UnreadableProductNameFailsWithItsOwnText",
     .failingReads = {L"ProductName"},
     .lines = {Error(L"Various", L"MsiGetProperty strProductName failed with error 1627")}},
};

const auto kName = [](const auto& paramInfo) { return paramInfo.param.name; };
INSTANTIATE_TEST_SUITE_P(GetDomain, DirectoryAction, ::testing::ValuesIn(kDomainRows), kName);
INSTANTIATE_TEST_SUITE_P(DirectoryObjectPick, DirectoryAction, ::testing::ValuesIn(kPickRows), kName);

// Initialising without a picker is refused before any COM call.
TEST(DirectoryObject, InitialisingWithoutAPickerFailsWithInvalidArgument)
{
    CLogCapture log;
    Quillcast::System::CDirectory directory(0, false);
    EXPECT_EQ(directory.InitObjectPicker(), E_INVALIDARG);
    EXPECT_EQ(log.Bodies(), Lines{Error(L"Directory", L"!pDsObjectPicker")});
}

} // namespace
} // namespace QcTest
