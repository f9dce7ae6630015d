// GetDomain and DirectoryObjectPick: Wine's own WMI and picker where they answer as Windows does (a workgroup
// machine, a cancelled dialog), otherwise the test double, which records every call it receives and every release.
#include <gtest/gtest.h>

#include <windows.h>
#include <msiquery.h>

#include <set>

#include "directory/ActionCall.h"
#include "directory/DirectoryDouble.h"
#include "support/ImportPatch.h"
#include "system/Directory.h"

namespace QcTest {
namespace {

constexpr wchar_t kTitle[] = L"Quillcast Picker Test";

// The windows that carry the product's title.
enum Windows
{
    kMsiDialog = 1, // one of the installer's wizard class
    kDialog = 2,    // a standard dialog
};

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

std::wstring Error(const std::wstring& source, const std::wstring& text)
{
    return L"[ERROR] " + source + L" (#) " + text + L".";
}

// Each table is instantiated under the name of its action.
struct Case
{
    const char* name;
    Properties answers;    // the double's (DirectoryDoubleControl.h, and "MissingServer"); none: Wine's own parts
    Properties properties; // besides the product name and the earlier values of the results
    UINT result;
    Lines lines;
    Lines values;  // afterwards: MACHINEDOMAIN and PARTOFDOMAIN, or PickResult
    Lines journal; // what the double received
    std::set<std::wstring> failingReads = {};
    int windows = kMsiDialog;
    HRESULT comAfter = S_OK; // CoInitializeEx in the caller's apartment afterwards
    int apartment = -1;      // the caller's COM apartment; -1: a thread without COM
};

using DirectoryAction = ::testing::TestWithParam<Case>;

TEST_P(DirectoryAction, Case)
{
    const Case& test = GetParam();
    const std::string suite = ::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name();
    const std::string action = suite.substr(0, suite.find('/'));
    const auto pDouble = test.answers.empty() ? nullptr : std::make_unique<CDirectoryDouble>();
    ASSERT_TRUE(!pDouble || pDouble->IsRegistered());
    for (const auto& answer : test.answers)
    {
        if (answer.first == L"MissingServer")
        {
            CDirectoryDouble::RegisterMissingServer();
        }
        CDirectoryDouble::Set(answer.first.c_str(), answer.second);
    }
    const WNDCLASSW wizard = {0, DefWindowProcW, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                              L"MsiDialogCloseClass"};
    RegisterClassW(&wizard); // fails harmlessly once registered
    // Both windows exist, titled as the case says; the wizard's is found although it is not the newest.
    const auto window = [&](const wchar_t* className, int windows) {
        const wchar_t* title = (test.windows & windows) != 0 ? kTitle : L"Other";
        return std::unique_ptr<HWND__, BOOL(WINAPI*)(HWND)>(
            CreateWindowExW(0, className, title, 0, 0, 0, 200, 100, nullptr, nullptr, nullptr, nullptr), DestroyWindow);
    };
    const auto msiDialog = window(L"MsiDialogCloseClass", kMsiDialog);
    const auto dialog = window(L"#32770", kDialog);
    CImportPatch patch(ShippedLibrary().Module(), "msi.dll", "MsiGetPropertyW",
                       reinterpret_cast<const void*>(&FailingGetProperty));
    ASSERT_TRUE(patch.IsApplied());
    g_FailingReads = test.failingReads;
    Properties properties = {{L"ProductName", kTitle}, {L"PickResult", L"earlier"},
                             {L"MACHINEDOMAIN", L"earlier.example"}, {L"PARTOFDOMAIN", L"earlier"}};
    properties.insert(properties.end(), test.properties.begin(), test.properties.end());

    const ActionOutcome outcome =
        RunAction(action.c_str(), properties,
                  action == "GetDomain" ? Lines{L"MACHINEDOMAIN", L"PARTOFDOMAIN"} : Lines{L"PickResult"},
                  test.apartment);

    EXPECT_EQ(outcome.result, test.result);
    EXPECT_EQ(outcome.lines, test.lines);
    EXPECT_EQ(outcome.values, test.values);
    EXPECT_EQ(CDirectoryDouble::Journal(), test.journal);
    EXPECT_EQ(outcome.comAfter, test.comAfter);
}

const std::wstring kConnecting = L"WmiConnection (#) Connecting to namespace ROOT\\CIMV2.";
const std::wstring kQuerying = L"WmiConnection (#) Processing query Select * from Win32_ComputerSystem.";
const std::wstring kConnect =
    L"ConnectServer ROOT\\CIMV2 user=null password=null locale=null flags=128 authority=null context=null";
const std::wstring kBlanket = L" authn=10 authz=0 principal=QcDouble level=2 imp=3 identity=null capabilities=0";
const std::wstring kServicesBlanket = L"SetBlanket Services" + kBlanket;
const std::wstring kEnumeratorBlanket = L"SetBlanket Enumerator" + kBlanket;
const std::wstring kQuery = L"ExecQuery WQL 'Select * from Win32_ComputerSystem' flags=48 context=null";
const std::wstring kNext = L"Next timeout=-1 count=1";
const std::wstring kQueryFailed = Error(L"Various", L"Query for Win32_ComputerSystem failed");
const std::wstring kBlanketFailed = Error(L"WmiConnection", L"CoSetProxyBlanket failed");
const std::wstring kConnectFailed = L"[ERROR] Various (#) WMI Connection failed with error ";
const Lines kBothReads = {L"Get PartOfDomain flags=0", L"Get Domain flags=0"};
const Lines kEarlier = {L"earlier.example", L"earlier"};
const Lines kJoinedValues = {L"corp.example", L"1"};

// The calls of a run from the connection on, ending with `rest` and the releases of the connection.
Lines Calls(Lines calls, const Lines& rest = {})
{
    calls.insert(calls.end(), rest.begin(), rest.end());
    calls.insert(calls.end(), {L"Services released", L"Locator released"});
    return calls;
}
// The calls of a full run, with what lies between the enumeration and the end.
Lines FullRun(ULONG nexts, const Lines& reads, ULONG instances)
{
    Lines rest(nexts, kNext);
    rest.push_back(L"Enumerator released");
    rest.insert(rest.end(), reads.begin(), reads.end());
    rest.insert(rest.end(), instances, L"Win32_ComputerSystem released");
    return Calls({kConnect, kServicesBlanket, kQuery, kEnumeratorBlanket}, rest);
}

// A domain member's answers, and more.
Properties Joined(const Properties& more = {})
{
    Properties answers = {{L"Domain", L"corp.example"}, {L"PartOfDomain", L"1"}};
    answers.insert(answers.end(), more.begin(), more.end());
    return answers;
}

const Case kDomainCases[] = {
    // Wine answers like a workgroup machine: without "PartOfDomain" the flag counts as false.
    {"WineWorkgroupMachineSetsTheWorkgroupAndKeepsPartOfDomain", {}, {}, 0,
     {kConnecting, kQuerying, L"[ERROR] WmiClassObject (#) Get for property 'PartOfDomain' failed."},
     {L"WORKGROUP", L"earlier"}, {}},
    // An apartment-threaded caller: RPC_E_CHANGED_MODE (0x80010106) is logged, the query still runs, and the
    // caller's apartment stays initialised.
    {"JoinedMachineSetsDomainAndPartOfDomainForAnApartmentThreadedCaller", Joined(), {}, 0,
     {Error(L"WmiConnection", L"CoInitializeEx failed with result 2147549446"), kConnecting, kQuerying},
     kJoinedValues, FullRun(2, kBothReads, 1), {}, kMsiDialog, S_FALSE, COINIT_APARTMENTTHREADED},
    // "MACHINEDOMAIN" is set also to the empty text, which removes it.
    {"DomainOfAnotherCimTypeFailsWith1804AndEmptiesMachineDomain", Joined({{L"DomainCimType", L"3"}}), {}, 0,
     {kConnecting, kQuerying, L"[ERROR] WmiClassObject (#) Got type mismatch for property 'Domain' Expected=8 Is=3."},
     {L"", L"1"}, FullRun(2, kBothReads, 1)},
    // A CIM_STRING without a value (VT_NULL) is the empty text; a machine outside a domain keeps an earlier flag.
    {"WorkgroupMemberWithoutDomainEmptiesMachineDomainAndKeepsPartOfDomain", {{L"PartOfDomain", L"0"}}, {}, 0,
     {kConnecting, kQuerying}, {L"", L"earlier"}, FullRun(2, kBothReads, 1)},
    {"EmptyQueryResultFindsNoComputerSystem", Joined({{L"Instances", L"0"}}), {}, 1603,
     {kConnecting, kQuerying, Error(L"Various", L"No Win32_ComputerSystem found")}, kEarlier, FullRun(1, {}, 0)},
    {"OnlyTheFirstComputerSystemCounts", Joined({{L"Instances", L"2"}}), {}, 0, {kConnecting, kQuerying},
     kJoinedValues, FullRun(3, kBothReads, 2)},
    {"ProxyAlreadyImpersonatingKeepsItsBlanket", Joined({{L"ImpersonationLevel", L"3"}}), {}, 0,
     {kConnecting, kQuerying}, kJoinedValues,
     Calls({kConnect, kQuery, kNext, kNext, L"Enumerator released"},
           {kBothReads[0], kBothReads[1], L"Win32_ComputerSystem released"})},
    // The thread's last-error value, not the HRESULT, ends the action's entry; 14007 (ERROR_SXS_KEY_NOT_FOUND) is
    // what Wine's COM leaves on the thread.
    {"FailedConnectFailsWithTheThreadsLastError", {{L"FailAt", L"ConnectServer"}}, {}, 1603,
     {kConnecting, Error(L"WmiConnection", L"Connecting Wmi Services failed"), kConnectFailed + L"5."}, kEarlier,
     {kConnect, L"Locator released"}},
    {"FailedServicesBlanketFailsTheConnect", {{L"FailAt", L"SetBlanket"}}, {}, 1603,
     {kConnecting, kBlanketFailed, kConnectFailed + L"14007."}, kEarlier, Calls({kConnect, kServicesBlanket})},
    // The query's failure takes the "set" text too, on purpose.
    {"FailedBlanketQueryFailsTheConnectWithTheSetText", {{L"FailAt", L"QueryBlanket"}}, {}, 1603,
     {kConnecting, kBlanketFailed, kConnectFailed + L"14007."}, kEarlier, Calls({kConnect})},
    {"MissingLocatorFailsTheConnect", {{L"MissingServer", L""}}, {}, 1603,
     {Error(L"WmiConnection", L"Creating WbemLocator failed"), kConnectFailed + L"126."}, kEarlier, {}},
    {"FailedQueryFails", {{L"FailAt", L"ExecQuery"}}, {}, 1603,
     {kConnecting, kQuerying, Error(L"WmiConnection", L"Processing query failed"), kQueryFailed}, kEarlier,
     Calls({kConnect, kServicesBlanket, kQuery})},
    // WBEM_E_ACCESS_DENIED is 0x80041003.
    {"FailedEnumerationFails", {{L"FailAt", L"Next"}}, {}, 1603,
     {kConnecting, kQuerying,
      Error(L"WmiConnection", L"Enumerating class objects failed with error 2147749891 returned = 0"), kQueryFailed},
     kEarlier, Calls({kConnect, kServicesBlanket, kQuery, kEnumeratorBlanket, kNext, L"Enumerator released"})},
};

// The initialisation for each user flag, and the second scope record, all zero.
const std::wstring kUsersAndGroups = L"scope size=ok type=0x37E scope=0xE2 both=0x2A7 downlevel=0x80020007";
const std::wstring kUsers = L"scope size=ok type=0x37E scope=0x62 both=0x3 downlevel=0x80000001";
const std::wstring kGroups = L"scope size=ok type=0x37E scope=0xA2 both=0x2A1 downlevel=0x80000006";
const std::wstring kZeroScope = L"scope size=0 type=0x0 scope=0x0 both=0x0 downlevel=0x0";

// The calls of a picker shown over the window of that class; a selection's data object and medium are released.
Lines Picked(const wchar_t* options, const std::wstring& scope, bool bSelection = true,
             const std::wstring& parent = L"MsiDialogCloseClass")
{
    Lines journal = {std::wstring(L"Initialize scopes=2 target=null options=") + options + L" attributes=0", scope,
                     kZeroScope, L"InvokeDialog parent=" + parent, L"Selection medium released",
                     L"Selection released", L"Picker released"};
    return bSelection ? journal : Lines{journal[0], journal[1], journal[2], journal[3], journal[6]};
}
Properties Options(const wchar_t* userFlag, const wchar_t* multiSelect)
{
    return {{L"PickUserFlagProperty", userFlag}, {L"PickMultiSelectProperty", multiSelect}};
}
const Properties kOneUser = {{L"Selection", L"WinNT://CORP/alice"}};
const Lines kAlice = {L"CORP\\alice"};
const Lines kPickEarlier = {L"earlier"};

// The thread's last-error value after a failed picker: what Wine's COM leaves on the thread (14007,
// ERROR_SXS_KEY_NOT_FOUND), not the picker's HRESULT.
const std::wstring kShowFailed = Error(L"Various", L"ShowObjectPicker failed with error 14007");
const std::wstring kCancelled = Error(L"Directory", L"ProcessSelectedObjects failed with error 2147942487");

const Case kPickCases[] = {
    {"UnsetOptionsOfferUsersAndGroupsForOneChoiceOverTheWizard", kOneUser, {}, 0, {}, kAlice,
     Picked(L"0x0", kUsersAndGroups), {}, kMsiDialog | kDialog},
    // A multithreaded caller: the picker is created there all the same, and the destructor's CoUninitialize,
    // unbalanced on purpose, ends the caller's own initialisation (a balanced object would leave it, S_FALSE).
    // User flag 3 is like 0, and any number but 0 turns multi-selection on.
    {"UserFlag3WithMultiSelectInAMultithreadedCaller", kOneUser, Options(L"3", L" 7 apples"), 0, {}, kAlice,
     Picked(L"0x1", kUsersAndGroups), {}, kMsiDialog, S_OK, COINIT_MULTITHREADED},
    {"UserFlag1OffersUsersUnderTheStandardDialogWithoutTheWizard", kOneUser, Options(L"1", L"0"), 0, {}, kAlice,
     Picked(L"0x0", kUsers, true, L"#32770"), {}, kDialog},
    {"UserFlag2OffersGroupsWithMultiSelect", kOneUser, Options(L"2", L"1"), 0, {}, kAlice, Picked(L"0x1", kGroups)},
    // The records stay unprepared; the picker refuses them and no dialog is shown. COM is uninitialised at once
    // and again by the destructor, both on purpose: the caller's own initialisation ends with the action.
    {"UserFlag4IsRefusedAndNoDialogShown", kOneUser, Options(L"4", L"1"), 1603,
     {Error(L"Directory", L"dwUserFlag not valid"),
      Error(L"Directory", L"InitObjectPicker failed with error 2147942487"), kShowFailed},
     kPickEarlier, {L"Initialize refused", L"Picker released"}, {}, kMsiDialog, S_OK, COINIT_APARTMENTTHREADED},
    // Each path becomes DOMAIN\name; one without a path adds an empty entry.
    {"SelectedObjectsAreJoinedAsDomainBackslashName",
     {{L"Selection", L"WinNT://CORP/alice;(null);WinNT://CORP/Print Operators"}}, Options(L"0", L"1"), 0, {},
     {L"CORP\\alice;;CORP\\Print Operators"}, Picked(L"0x1", kUsersAndGroups)},
    // A cancel (S_FALSE without a selection) is a failure.
    {"CancelledPickerFailsAndKeepsPickResult", {{L"Cancel", L"1"}}, {}, 1603, {kCancelled, kShowFailed},
     kPickEarlier, Picked(L"0x0", kUsersAndGroups, false)},
    {"WinesOwnPickerEndsLikeACancel", {}, {}, 1603, {kCancelled, kShowFailed}, kPickEarlier, {}},
    // E_ACCESSDENIED is 0x80070005.
    {"FailingPickerFails", {{L"FailAt", L"InvokeDialog"}}, {}, 1603,
     {Error(L"Directory", L"InvokeDialog failed with error 2147942405"), kShowFailed}, kPickEarlier,
     Picked(L"0x0", kUsersAndGroups, false)},
    // No picker to initialise or show: the action ends without using one.
    {"PickerThatCannotBeCreatedIsNotUsed", {{L"MissingServer", L""}}, {}, 1603,
     {Error(L"Various", L"ShowObjectPicker failed with error 126")}, kPickEarlier, {}},
    // A silent installation has no dialog: no picker is created.
    {"NoWindowWithTheProductTitleFails", kOneUser, {}, 1603, {Error(L"Various", L"FindWindow failed with error 0")},
     kPickEarlier, {}, {}, 0},
    {"UnreadableOptionsAreWarningsAndReadAsZero", kOneUser, Options(L"2", L"1"), 0,
     {L"[WARNING] Various (#) MsiGetProperty PickUserFlagProperty failed with error 1627.",
      L"[WARNING] Various (#) MsiGetProperty PickMultiSelectProperty failed with error 1627."},
     kAlice, Picked(L"0x0", kUsersAndGroups), {L"PickUserFlagProperty", L"PickMultiSelectProperty"}},
    {"OptionsWhoseSizeCannotBeAskedReadAsZeroSilently", kOneUser, Options(L"2", L"1"), 0, {}, kAlice,
     Picked(L"0x0", kUsersAndGroups), {L"PickUserFlagProperty:size", L"PickMultiSelectProperty:size"}},
    {"ProductNameWhoseSizeCannotBeAskedFails", kOneUser, {}, 1603,
     {Error(L"Various", L"MsiGetProperty ProductName failed with error 1627")}, kPickEarlier, {},
     {L"ProductName:size"}},
    // Another text than for the size query, on purpose.
    {"UnreadableProductNameFailsWithItsOwnText", kOneUser, {}, 1603,
     {Error(L"Various", L"MsiGetProperty strProductName failed with error 1627")}, kPickEarlier, {}, {L"ProductName"}},
};

INSTANTIATE_TEST_SUITE_P(GetDomain, DirectoryAction, ::testing::ValuesIn(kDomainCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.name); });
INSTANTIATE_TEST_SUITE_P(DirectoryObjectPick, DirectoryAction, ::testing::ValuesIn(kPickCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.name); });

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
