// GetDomain and DirectoryObjectPick against Wine's own parts, or the test double that records calls and releases.
#include <gtest/gtest.h>

#include <windows.h>
#include <msiquery.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "directory/DirectoryDouble.h"
#include "support/ActionCall.h"
#include "support/ImportPatch.h"
#include "system/Directory.h"

namespace QcTest {
namespace {

constexpr wchar_t kTitle[] = L"Quillcast Picker Test";
constexpr wchar_t kDialogTitle[] = L"Quillcast Dialog"; // only a standard dialog has it

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

struct Case
{
    const char* name;
    Properties answers; // the double's (DirectoryDoubleControl.h, and "MissingServer"); none: Wine's own parts
    Lines lines;
    Lines values;  // afterwards: MACHINEDOMAIN and PARTOFDOMAIN, or PickResult; none: it fails, they stay as they were
    Lines journal; // what the double received
    Properties properties = {}; // besides the product name and the earlier values of the results
    int apartment = -1;         // the caller's COM apartment; -1: a thread without COM
    std::set<std::wstring> failingReads = {};
};

using DirectoryAction = ::testing::TestWithParam<Case>;

TEST_P(DirectoryAction, Case)
{
    const Case& test = GetParam();
    const bool bDomain = std::strstr(::testing::UnitTest::GetInstance()->current_test_suite()->name(), "GetDomain");
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
    g_FailingReads = test.failingReads;
    Properties properties = {{L"ProductName", kTitle},
                             {L"PickResult", L"earlier"},
                             {L"MACHINEDOMAIN", L"earlier.example"},
                             {L"PARTOFDOMAIN", L"earlier"}};
    properties.insert(properties.end(), test.properties.begin(), test.properties.end());

    const ActionOutcome outcome =
        RunAction(bDomain ? "GetDomain" : "DirectoryObjectPick", properties,
                  bDomain ? Lines{L"MACHINEDOMAIN", L"PARTOFDOMAIN"} : Lines{L"PickResult"}, test.apartment);

    EXPECT_EQ(outcome.result, test.values.empty() ? 1603U : 0U);
    EXPECT_EQ(outcome.lines, test.lines);
    const Lines earlier = bDomain ? Lines{L"earlier.example", L"earlier"} : Lines{L"earlier"};
    EXPECT_EQ(outcome.values, test.values.empty() ? earlier : test.values);
    EXPECT_EQ(CDirectoryDouble::Journal(), test.journal);
    // GetDomain leaves a caller's apartment initialised; the picker's unbalanced CoUninitialize ends it.
    EXPECT_EQ(outcome.comAfter, bDomain && test.apartment != -1 ? S_FALSE : S_OK);
}

const std::wstring kConnecting = L"WmiConnection (#) Connecting to namespace ROOT\\CIMV2.";
const std::wstring kQuerying = L"WmiConnection (#) Processing query Select * from Win32_ComputerSystem.";
const std::wstring kConnect =
    L"ConnectServer ROOT\\CIMV2 user=null password=null locale=null flags=128 authority=null context=null";
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
    // The queried blanket handed back, only the impersonation level raised to 3.
    const auto blanket = [](const std::wstring& proxy) {
        return L"SetBlanket " + proxy + L" authn=9 authz=1 principal=QcDouble/" + proxy +
               L" level=6 imp=3 identity=queried capabilities=32";
    };
    Lines calls = {kConnect, blanket(L"Services"),
                   L"ExecQuery WQL 'Select * from Win32_ComputerSystem' flags=48 context=null", blanket(L"Enumerator")};
    calls.resize(steps);
    calls.insert(calls.end(), rest.begin(), rest.end());
    calls.insert(calls.end(), {L"Services released", L"Locator released"});
    return calls;
}
// The end of an enumeration that finds nothing (more).
const Lines kNoneLeft = {L"Next timeout=-1 count=1", L"Enumerator released"};
// A run that finds `instances` computer systems and reads the first; without `bBlankets` no blanket is set.
Lines FullRun(size_t instances, bool bBlankets = true)
{
    Lines rest(instances, L"Next timeout=-1 count=1");
    rest.insert(rest.end(), {kNoneLeft[0], kNoneLeft[1], L"Get PartOfDomain flags=0", L"Get Domain flags=0"});
    rest.insert(rest.end(), instances, L"Win32_ComputerSystem released");
    Lines calls = Calls(4, rest);
    const auto isBlanket = [&](const std::wstring& call) { return !bBlankets && call.rfind(L"SetBlanket", 0) == 0; };
    calls.erase(std::remove_if(calls.begin(), calls.end(), isBlanket), calls.end());
    return calls;
}

const Case kDomainCases[] = {
    // Wine answers like a workgroup machine: without "PartOfDomain" the flag counts as false.
    {"WineWorkgroupMachineSetsTheWorkgroupAndKeepsPartOfDomain",
     {},
     {kConnecting, kQuerying, L"[ERROR] WmiClassObject (#) Get for property 'PartOfDomain' failed."},
     {L"WORKGROUP", L"earlier"},
     {}},
    // RPC_E_CHANGED_MODE (0x80010106) is logged and the query still runs; only the first computer system is read.
    // A CIM_STRING without a value (VT_NULL) is the empty text; a machine outside a domain keeps an earlier flag.
    {"FirstOfTwoWorkgroupMembersCountsForAnApartmentThreadedCaller",
     {{L"PartOfDomain", L"0"}, {L"Instances", L"2"}},
     {Error(L"WmiConnection", L"CoInitializeEx failed with result 2147549446"), kConnecting, kQuerying},
     {L"", L"earlier"},
     FullRun(2),
     {},
     COINIT_APARTMENTTHREADED},
    // A proxy impersonating at level 4 (delegate) is set to 3 all the same.
    {"DomainMemberSetsItsDomainAndPartOfDomain",
     {{L"PartOfDomain", L"1"}, {L"Domain", L"corp.example"}, {L"ImpersonationLevel", L"4"}},
     {kConnecting, kQuerying},
     {L"corp.example", L"1"},
     FullRun(1)},
    // "MACHINEDOMAIN" is set also to the empty text, which removes it. A proxy already impersonating keeps its blanket.
    // The CIM types differ although both values are VT_BSTR.
    {"DomainOfAnotherCimTypeEmptiesMachineDomainThroughAnImpersonatingProxy",
     {{L"PartOfDomain", L"1"}, {L"Domain", L"corp.example"}, {L"DomainCimType", L"101"}, {L"ImpersonationLevel", L"3"}},
     {kConnecting, kQuerying, L"[ERROR] WmiClassObject (#) Got type mismatch for property 'Domain' Expected=8 Is=101."},
     {L"", L"1"},
     FullRun(1, false)},
    {"EmptyQueryResultFindsNoComputerSystem",
     {{L"Instances", L"0"}},
     {kConnecting, kQuerying, Error(L"Various", L"No Win32_ComputerSystem found")},
     {},
     Calls(4, kNoneLeft)},
    {"FailedConnectFailsWithTheThreadsLastError",
     {{L"FailAt", L"ConnectServer"}},
     {kConnecting, Error(L"WmiConnection", L"Connecting Wmi Services failed"), kConnectFailed + L"5."},
     {},
     {kConnect, L"Locator released"}},
    {"FailedServicesBlanketFailsTheConnect", {{L"FailAt", L"SetBlanket"}}, kBlanketFailed, {}, Calls(2)},
    // The query's failure takes the "set" text too, on purpose.
    {"FailedBlanketQueryFailsTheConnectWithTheSetText", {{L"FailAt", L"QueryBlanket"}}, kBlanketFailed, {}, Calls(1)},
    {"MissingLocatorFailsTheConnect",
     {{L"MissingServer", L""}},
     {Error(L"WmiConnection", L"Creating WbemLocator failed"), kConnectFailed + L"126."},
     {},
     {}},
    {"FailedQueryFails",
     {{L"FailAt", L"ExecQuery"}},
     {kConnecting, kQuerying, Error(L"WmiConnection", L"Processing query failed"), kQueryFailed},
     {},
     Calls(3)},
    // Any answer but S_OK and S_FALSE ends the walk, a success code (WBEM_S_TIMEDOUT) too.
    {"EnumerationAnsweringNeitherOkNorFalseFails",
     {{L"FailAt", L"Next"}},
     {kConnecting, kQuerying,
      Error(L"WmiConnection", L"Enumerating class objects failed with error 262148 returned = 0"), kQueryFailed},
     {},
     Calls(4, kNoneLeft)},
};

const std::wstring kUsersAndGroups = L"scope size=ok type=0x37E scope=0xE2 both=0x2A7 downlevel=0x80020007";
const std::wstring kUsers = L"scope size=ok type=0x37E scope=0x62 both=0x3 downlevel=0x80000001";
const std::wstring kGroups = L"scope size=ok type=0x37E scope=0xA2 both=0x2A1 downlevel=0x80000006";

// The calls of a picker shown over the window of that class; a selection's data object and medium are released.
Lines Picked(const wchar_t* options, const std::wstring& scope, bool bSelection = true,
             const std::wstring& parent = L"MsiDialogCloseClass")
{
    Lines journal = {std::wstring(L"Initialize scopes=2 target=null options=") + options + L" attributes=0",
                     scope,
                     L"scope size=0 type=0x0 scope=0x0 both=0x0 downlevel=0x0",
                     L"InvokeDialog parent=" + parent,
                     L"Selection medium released",
                     L"Selection released",
                     L"Picker released"};
    return bSelection ? journal : Lines{journal[0], journal[1], journal[2], journal[3], journal[6]};
}
Properties Options(const wchar_t* userFlag, const wchar_t* multiSelect)
{
    return {{L"PickUserFlagProperty", userFlag}, {L"PickMultiSelectProperty", multiSelect}};
}
const Properties kOneUser = {{L"Selection", L"WinNT://CORP/alice"}};
const Lines kAlice = {L"CORP\\alice"};

const Case kPickCases[] = {
    // Only a failed read of an option is worth a warning, not a failed size query; both read as 0. Each path
    // becomes DOMAIN\name; one without a path adds an empty entry.
    {"UnreadableOptionsOfferUsersAndGroupsOverTheWizardAndJoinTheSelection",
     {{L"Selection", L"WinNT://CORP/alice;(null);WinNT://CORP/Print Operators"}},
     {L"[WARNING] Various (#) MsiGetProperty PickUserFlagProperty failed with error 1627."},
     {L"CORP\\alice;;CORP\\Print Operators"},
     Picked(L"0x0", kUsersAndGroups),
     Options(L"2", L"1"),
     -1,
     {L"PickUserFlagProperty", L"PickMultiSelectProperty:size"}},
    // A multithreaded caller: the picker is created there all the same, and the destructor's CoUninitialize,
    // unbalanced on purpose, ends the caller's own initialisation (a balanced object would leave it, S_FALSE).
    // User flag 3 is like 0, and any number but 0 turns multi-selection on, a negative one too.
    {"UserFlag3WithMultiSelectInAMultithreadedCaller",
     kOneUser,
     {},
     kAlice,
     Picked(L"0x1", kUsersAndGroups),
     Options(L"3", L" -7 apples"),
     COINIT_MULTITHREADED},
    {"UserFlag1OffersUsersUnderTheStandardDialogWithoutTheWizard",
     kOneUser,
     {},
     kAlice,
     Picked(L"0x0", kUsers, true, L"#32770"),
     {{L"ProductName", kDialogTitle}, {L"PickUserFlagProperty", L"1"}}},
    // The records stay unprepared; the picker refuses them and no dialog is shown. COM is uninitialised at once
    // and again by the destructor, both on purpose: the caller's own initialisation ends with the action.
    {"UserFlag4IsRefusedAndNoDialogShown",
     kOneUser,
     {Error(L"Directory", L"dwUserFlag not valid"),
      Error(L"Directory", L"InitObjectPicker failed with error 2147942487"), kShowFailed},
     {},
     {L"Initialize refused", L"Picker released"},
     Options(L"4", L"1"),
     COINIT_APARTMENTTHREADED},
    // Wine's picker answers S_FALSE without a selection, like a cancel, which is a failure.
    {"WinesOwnPickerEndsLikeACancel",
     {},
     {Error(L"Directory", L"ProcessSelectedObjects failed with error 2147942487"), kShowFailed},
     {},
     {}},
    {"FailingPickerOfGroupsWithMultiSelectFails",
     {{L"FailAt", L"InvokeDialog"}},
     {Error(L"Directory", L"InvokeDialog failed with error 2147942405"), kShowFailed},
     {},
     Picked(L"0x1", kGroups, false),
     Options(L"2", L"1")},
    {"PickerThatCannotBeCreatedIsNotUsed",
     {{L"MissingServer", L""}},
     {Error(L"Various", L"ShowObjectPicker failed with error 126")},
     {},
     {}},
    {"NoWindowWithTheProductTitleFails",
     kOneUser,
     {Error(L"Various", L"FindWindow failed with error 0")},
     {},
     {},
     {{L"ProductName", L"Quillcast Silent"}}},
    {"ProductNameWhoseSizeCannotBeAskedFails",
     kOneUser,
     {Error(L"Various", L"MsiGetProperty ProductName failed with error 1627")},
     {},
     {},
     {},
     -1,
     {L"ProductName:size"}},
    // Another text than for the size query, on purpose.
    {"UnreadableProductNameFailsWithItsOwnText",
     kOneUser,
     {Error(L"Various", L"MsiGetProperty strProductName failed with error 1627")},
     {},
     {},
     {},
     -1,
     {L"ProductName"}},
};

const auto kName = [](const auto& paramInfo) { return std::string(paramInfo.param.name); };
INSTANTIATE_TEST_SUITE_P(GetDomain, DirectoryAction, ::testing::ValuesIn(kDomainCases), kName);
INSTANTIATE_TEST_SUITE_P(DirectoryObjectPick, DirectoryAction, ::testing::ValuesIn(kPickCases), kName);

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
