// AddIcaClient and RemoveIcaClient on the ICA client's virtual-driver list in
// the 32-bit registry view.
#include "utility/UtilityTest.h"

namespace QcTest {
namespace {

const wchar_t kModules[] = L"SOFTWARE\\Citrix\\ICA Client\\Engine\\Configuration\\Advanced\\Modules\\ICA 3.0";
const wchar_t kName[] = L"VirtualDriver";

enum class Before
{
    NoKey,      // the key exists only in the 64-bit view, holding "Drv64"
    NoValue,    // the key exists, the value does not
    Value,      // the value holds `value`, of type `type`
    ZeroBytes,  // the value exists with no data at all
    Unterminated, // `value` stored as REG_BINARY without a terminator
};

struct IcaCase
{
    const char* behaviour;
    const char* action;
    Before before;
    std::wstring value;
    DWORD type;
    UINT result;
    Lines lines;
    bool valueAfter;    // whether the value exists afterwards
    std::wstring after; // then its text, written as REG_SZ with its terminator
    bool failingWrite = false; // the registry refuses the write
};

// A list of 10,000 characters: "DrvNNNN," repeated, without the entry.
std::wstring LongList()
{
    std::wstring list;
    for (int i = 0; list.size() < 10000; ++i)
    {
        wchar_t entry[16] = {};
        _snwprintf(entry, 15, L"Drv%04d,", i);
        list += entry;
    }
    list.resize(9999);
    return list + L"X";
}

class IcaClient : public UtilityTest, public ::testing::WithParamInterface<IcaCase>
{
protected:
    void TearDown() override
    {
        EXPECT_TRUE(DeleteKey(KEY_WOW64_32KEY, kModules));
        EXPECT_TRUE(DeleteKey(KEY_WOW64_64KEY, kModules));
    }
};

TEST_P(IcaClient, ChangesTheVirtualDriverList)
{
    const IcaCase& test = GetParam();
    ASSERT_TRUE(DeleteKey(KEY_WOW64_32KEY, kModules));
    ASSERT_TRUE(DeleteKey(KEY_WOW64_64KEY, kModules));
    // The 64-bit view holds a list of its own that neither action may touch.
    ASSERT_TRUE(SetString(KEY_WOW64_64KEY, kModules, kName, L"Drv64"));
    switch (test.before)
    {
    case Before::NoKey:
        break;
    case Before::NoValue:
        ASSERT_TRUE(CreateKey(KEY_WOW64_32KEY, kModules));
        break;
    case Before::Value:
        ASSERT_TRUE(SetValue(KEY_WOW64_32KEY, kModules, kName, test.type, test.value.c_str(),
                             static_cast<DWORD>((test.value.size() + 1) * sizeof(wchar_t))));
        break;
    case Before::ZeroBytes:
        ASSERT_TRUE(SetValue(KEY_WOW64_32KEY, kModules, kName, REG_SZ, L"", 0));
        break;
    case Before::Unterminated:
        ASSERT_TRUE(SetValue(KEY_WOW64_32KEY, kModules, kName, REG_BINARY, test.value.c_str(),
                             static_cast<DWORD>(test.value.size() * sizeof(wchar_t))));
        break;
    }
    std::unique_ptr<CFailingRegistryWrite> failing;
    if (test.failingWrite)
    {
        failing = std::make_unique<CFailingRegistryWrite>(Module());
        ASSERT_TRUE(failing->IsApplied());
    }

    EXPECT_EQ(Run(test.action), test.result);
    EXPECT_EQ(ActionLines(), test.lines);

    std::vector<BYTE> data;
    DWORD type = 0;
    EXPECT_EQ(KeyExists(KEY_WOW64_32KEY, kModules), test.before != Before::NoKey) << "the key is never created";
    EXPECT_EQ(ReadValue(KEY_WOW64_32KEY, kModules, kName, data, type), test.valueAfter);
    if (test.valueAfter)
    {
        const std::wstring expected = test.after + L'\0';
        EXPECT_EQ(AsText(data), expected);
        EXPECT_EQ(data.size(), expected.size() * sizeof(wchar_t));
        const bool bWritten = test.before != Before::Value || test.after != test.value;
        EXPECT_EQ(type, bWritten ? static_cast<DWORD>(REG_SZ) : test.type);
    }
    ASSERT_TRUE(ReadValue(KEY_WOW64_64KEY, kModules, kName, data, type));
    EXPECT_EQ(AsText(data), std::wstring(L"Drv64") + L'\0');
}

const std::wstring kLong = LongList();

const IcaCase kCases[] = {
    {"AddAppendsCommaAndEntryToAList", "AddIcaClient", Before::Value, L"DrvA,DrvB", REG_SZ, 0, {}, true,
     L"DrvA,DrvB,QCClnIca"},
    {"AddWritesTheEntryAloneIntoAnEmptyValue", "AddIcaClient", Before::Value, L"", REG_SZ, 0, {}, true, L"QCClnIca"},
    {"AddTakesAValueWithoutDataAsAnEmptyList", "AddIcaClient", Before::ZeroBytes, L"", REG_SZ, 0, {}, true,
     L"QCClnIca"},
    {"AddIgnoresTheValueTypeAndWritesText", "AddIcaClient", Before::Value, L"DrvA", REG_EXPAND_SZ, 0, {}, true,
     L"DrvA,QCClnIca"},
    {"AddReadsAValueStoredWithoutTerminator", "AddIcaClient", Before::Unterminated, L"DrvA", REG_BINARY, 0, {}, true,
     L"DrvA,QCClnIca"},
    // Nothing is undone or retried: the list stays as it was.
    {"AddFailsWhenTheWriteIsRefused", "AddIcaClient", Before::Value, L"DrvA", REG_SZ, 1603,
     {Error(L"Set registry value failed with error {LastError}")}, true, L"DrvA", true},
    {"RemoveFailsWhenTheWriteIsRefused", "RemoveIcaClient", Before::Value, L"DrvA,QCClnIca", REG_SZ, 1603,
     {Error(L"Set registry value failed with error {LastError}")}, true, L"DrvA,QCClnIca", true},
    {"AddOnlyWarnsWhenTheEntryIsThere", "AddIcaClient", Before::Value, L"QCClnIca", REG_SZ, 0,
     {Warning(L"Found QCClnIca registry value")}, true, L"QCClnIca"},
    {"AddCountsALongerNameContainingTheEntry", "AddIcaClient", Before::Value, L"DrvA,QCClnIca64", REG_SZ, 0,
     {Warning(L"Found QCClnIca registry value")}, true, L"DrvA,QCClnIca64"},
    {"AddExtendsAListOfTenThousandCharacters", "AddIcaClient", Before::Value, kLong, REG_SZ, 0, {}, true,
     kLong + L",QCClnIca"},
    {"AddFailsWithoutTheValue", "AddIcaClient", Before::NoValue, L"", REG_SZ, 1603,
     {Error(L"Query registry value failed with error {LastError}")}, false, L""},
    {"AddFailsWithoutTheKeyInThe32BitView", "AddIcaClient", Before::NoKey, L"", REG_SZ, 1603,
     {Error(L"Open registry key failed with error {LastError}")}, false, L""},

    {"RemoveLeavesAListWithoutTheEntry", "RemoveIcaClient", Before::Value, L"DrvA,DrvB", REG_SZ, 0, {}, true,
     L"DrvA,DrvB"},
    {"RemoveLeavesAnEmptyValue", "RemoveIcaClient", Before::Value, L"", REG_SZ, 0, {}, true, L""},
    {"RemoveDeletesTheValueHoldingOnlyTheEntry", "RemoveIcaClient", Before::Value, L"QCClnIca", REG_SZ, 0, {},
     false, L""},
    {"RemoveTakesTheEntryFromTheMiddle", "RemoveIcaClient", Before::Value, L"DrvA,QCClnIca,DrvB", REG_SZ, 0, {}, true,
     L"DrvA,DrvB"},
    {"RemoveTakesTheEntryFromTheFront", "RemoveIcaClient", Before::Value, L"QCClnIca,DrvB", REG_SZ, 0, {}, true,
     L"DrvB"},
    {"RemoveTakesTheEntryFromTheEnd", "RemoveIcaClient", Before::Value, L"DrvA,QCClnIca", REG_SZ, 0, {}, true,
     L"DrvA"},
    {"RemoveTakesEveryOccurrence", "RemoveIcaClient", Before::Value, L"QCClnIca,DrvA,QCClnIca", REG_SZ, 0, {}, true,
     L"DrvA"},
    {"RemoveTakesTheEntryFromTenThousandCharacters", "RemoveIcaClient", Before::Value, L"QCClnIca," + kLong, REG_SZ,
     0, {}, true, kLong},
    // The order of the removals leaves an empty text for the next one, which fails: kept as it is.
    {"RemoveFailsOnCommaAndEntry", "RemoveIcaClient", Before::Value, L",QCClnIca", REG_SZ, 1603,
     {Error(L"Replace failed with error 87")}, true, L",QCClnIca"},
    {"RemoveFailsOnEntryAndComma", "RemoveIcaClient", Before::Value, L"QCClnIca,", REG_SZ, 1603,
     {Error(L"Replace failed with error 87")}, true, L"QCClnIca,"},
    {"RemoveFailsWithoutTheValue", "RemoveIcaClient", Before::NoValue, L"", REG_SZ, 1603,
     {Error(L"Query registry value failed with error {LastError}")}, false, L""},
    {"RemoveFailsWithoutTheKeyInThe32BitView", "RemoveIcaClient", Before::NoKey, L"", REG_SZ, 1603,
     {Error(L"Open registry key failed with error {LastError}")}, false, L""},
};

INSTANTIATE_TEST_SUITE_P(Cases, IcaClient, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

} // namespace
} // namespace QcTest
