// AddIcaClient and RemoveIcaClient on the ICA client's virtual-driver list in
// the 32-bit registry view; SetRemoteConfigDeferred and SetRemoteConfigImmediately
// writing "RmtConf" as REG_MULTI_SZ. Values are compared byte for byte.
#include "utility/UtilityTest.h"

namespace QcTest {
namespace {

using namespace std::string_literals;

const wchar_t kModules[] = L"SOFTWARE\\Citrix\\ICA Client\\Engine\\Configuration\\Advanced\\Modules\\ICA 3.0";
const wchar_t kName[] = L"VirtualDriver";
constexpr DWORD kNoKey = ~0u; // as the type before: no key in the 32-bit view either
const std::wstring kKept = L"(kept)";
const std::wstring kNone = L"(none)";
const char* const kAdd = "AddIcaClient";
const char* const kRemove = "RemoveIcaClient";

struct IcaCase
{
    const char* behaviour;
    const char* action;
    DWORD type;          // of the value before; REG_NONE: the key exists, the value does not
    std::wstring before; // its bytes, as characters
    std::wstring after;  // the list written as REG_SZ with its terminator; kKept; kNone: no value
    UINT result = 0;
    Lines lines = {};
    bool refused = false; // the registry refuses the write
};

using IcaClient = UtilityCases<IcaCase>;

TEST_P(IcaClient, ChangesTheVirtualDriverList)
{
    const IcaCase& test = GetParam();
    ASSERT_TRUE(test.type == kNoKey ||
                SetValue(KEY_WOW64_32KEY, kModules, test.type ? kName : nullptr, test.type, test.before));
    g_Imports.bRefuseWrites = test.refused;

    const ActionOutcome outcome = RunAction(test.action, {}, {});
    EXPECT_EQ(std::make_pair(outcome.result, outcome.lines), std::make_pair(test.result, test.lines));
    const auto expected = test.after == kKept   ? std::make_pair(test.type, test.before)
                          : test.after == kNone ? std::make_pair(DWORD{REG_NONE}, L""s)
                                                : std::make_pair(DWORD{REG_SZ}, test.after + L'\0');
    EXPECT_EQ(ReadValue(KEY_WOW64_32KEY, kModules, kName), expected);
}

const std::wstring kLong(10000, L'D');
const std::wstring kFound = Warning(L"Found QCClnIca registry value");
const std::wstring kNoValue = Error(L"Query registry value failed with error 4242");
const std::wstring kRefused = Error(L"Set registry value failed with error 4242");
const std::wstring kReplace = Error(L"Replace failed with error 87");
const std::wstring kNoOpen = Error(L"Open registry key failed with error 4242");

const IcaCase kIcaCases[] = {
    {"AddAppendsCommaAndEntryAsText", kAdd, REG_EXPAND_SZ, L"DrvA,DrvB\0"s, L"DrvA,DrvB,QCClnIca"},
    {"AddTakesAValueWithoutDataAsAnEmptyList", kAdd, REG_SZ, L"", L"QCClnIca"},
    {"AddReadsAValueStoredWithoutTerminator", kAdd, REG_BINARY, L"DrvA", L"DrvA,QCClnIca"},
    // Nothing is undone or retried: the list stays unchanged.
    {"AddFailsWhenTheWriteIsRefused", kAdd, REG_SZ, L"DrvA\0"s, kKept, 1603, {kRefused}, true},
    {"AddCountsALongerNameContainingTheEntry", kAdd, REG_SZ, L"DrvA,QCClnIca64\0"s, kKept, 0, {kFound}},
    {"AddExtendsAListOfTenThousandCharacters", kAdd, REG_SZ, kLong + L'\0', kLong + L",QCClnIca"},
    {"AddFailsWithoutTheValue", kAdd, REG_NONE, L"", kNone, 1603, {kNoValue}},
    {"AddFailsWithoutTheKeyInThe32BitView", kAdd, kNoKey, L"", kNone, 1603, {kNoOpen}},
    {"RemoveLeavesAListWithoutTheEntry", kRemove, REG_EXPAND_SZ, L"DrvA,DrvB\0"s, kKept},
    {"RemoveDeletesTheValueHoldingOnlyTheEntry", kRemove, REG_SZ, L"QCClnIca\0"s, kNone},
    {"RemoveTakesEveryOccurrence", kRemove, REG_SZ, L"QCClnIca,DrvA,QCClnIca\0"s, L"DrvA"},
    // Removing ",QCClnIca" first joins a new "QCClnIca," at the front, which the second removal takes: only this
    // order of the first two leaves DrvA.
    {"RemoveTakesCommaAndEntryBeforeEntryAndComma", kRemove, REG_SZ, L"QCCl,QCClnIcanIca,DrvA\0"s, L"DrvA"},
    // The order of the removals leaves an empty text for the next one, which fails: kept as it is.
    {"RemoveFailsOnCommaAndEntry", kRemove, REG_SZ, L",QCClnIca\0"s, kKept, 1603, {kReplace}},
    {"RemoveFailsOnEntryAndComma", kRemove, REG_SZ, L"QCClnIca,\0"s, kKept, 1603, {kReplace}},
    {"RemoveFailsWithoutTheValue", kRemove, REG_NONE, L"", kNone, 1603, {kNoValue}},
};

INSTANTIATE_TEST_SUITE_P(Cases, IcaClient, ::testing::ValuesIn(kIcaCases), kByBehaviour);

const wchar_t kClient[] = L"SOFTWARE\\Quillcast\\Client";
const char* const kDeferred = "SetRemoteConfigDeferred";
const char* const kImmediate = "SetRemoteConfigImmediately";
const std::wstring kUnread = Error(L"MsiGetProperty RMTCONF failed with error 4242");

struct RemoteConfigCase
{
    const char* behaviour;
    const char* action;
    const wchar_t* list; // REMOTECONFIG or RMTCONF
    std::wstring bytes;  // the value's exact data, as characters; empty: no value
    UINT result = 0;
    Lines lines = {};
    const wchar_t* failingRead = L""; // a property whose read fails
    bool refused = false;             // the registry refuses the write
    REGSAM keyView = KEY_WOW64_64KEY; // where the key exists
};

using RemoteConfig = UtilityCases<RemoteConfigCase>;

TEST_P(RemoteConfig, WritesTheListAsStrings)
{
    const RemoteConfigCase& test = GetParam();
    ASSERT_TRUE(SetValue(test.keyView, kClient, nullptr, REG_NONE, L""));
    g_Imports.failingRead = test.failingRead;
    g_Imports.bRefuseWrites = test.refused;
    // Not ";" as the separator: the list itself holds semicolons.
    const ActionOutcome outcome = RunAction(
        test.action, {{L"CustomActionData", L"|REMOTECONFIG=" + std::wstring(test.list)}, {L"RMTCONF", test.list}}, {});
    EXPECT_EQ(std::make_pair(outcome.result, outcome.lines), std::make_pair(test.result, test.lines));
    EXPECT_EQ(ReadValue(test.keyView, kClient, L"RmtConf"),
              std::make_pair(test.bytes.empty() ? DWORD{REG_NONE} : DWORD{REG_MULTI_SZ}, test.bytes));
}

const RemoteConfigCase kRemoteConfigCases[] = {
    // One terminator only: the count leaves out the list's second zero.
    {"DeferredWritesEachHostAsAString", kDeferred, L"host1;host2", L"host1\0host2\0"s},
    {"TrailingSemicolonGivesAnEmptyLastString", kImmediate, L"a;b;", L"a\0b\0\0"s},
    {"KeyIn32BitViewOnlyIsNoKey", kDeferred, L"host1", L"", 1603, {kNoOpen}, L"", false, KEY_WOW64_32KEY},
    {"UnreadablePropertyFailsAndWritesNothing", kImmediate, L"host1", L"", 1603, {kUnread}, L"RMTCONF"},
    {"RefusedWriteFails", kDeferred, L"host1", L"", 1603, {kRefused}, L"", true},
};

INSTANTIATE_TEST_SUITE_P(Cases, RemoteConfig, ::testing::ValuesIn(kRemoteConfigCases), kByBehaviour);

} // namespace
} // namespace QcTest
