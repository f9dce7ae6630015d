// SetRemoteConfigDeferred and SetRemoteConfigImmediately: "RmtConf" as REG_MULTI_SZ,
// read back byte for byte.
#include "utility/UtilityTest.h"

namespace QcTest {
namespace {

const wchar_t kClient[] = L"SOFTWARE\\Quillcast\\Client";

struct RemoteConfigCase
{
    const char* behaviour;
    const char* action;
    const wchar_t* list; // REMOTECONFIG or RMTCONF
    REGSAM keyView;      // where the key exists; 0: nowhere
    bool failingRead;    // the read of RMTCONF fails
    bool failingWrite;   // the registry refuses the write
    UINT result;
    Lines lines;
    bool written;
    std::wstring bytes; // the value's exact data, as characters
};

class RemoteConfig : public UtilityTest, public ::testing::WithParamInterface<RemoteConfigCase>
{
protected:
    void TearDown() override
    {
        EXPECT_TRUE(DeleteKey(KEY_WOW64_64KEY, kClient));
        EXPECT_TRUE(DeleteKey(KEY_WOW64_32KEY, kClient));
    }
};

TEST_P(RemoteConfig, WritesTheListAsStrings)
{
    const RemoteConfigCase& test = GetParam();
    ASSERT_TRUE(DeleteKey(KEY_WOW64_64KEY, kClient));
    ASSERT_TRUE(DeleteKey(KEY_WOW64_32KEY, kClient));
    if (test.keyView != 0)
    {
        ASSERT_TRUE(CreateKey(test.keyView, kClient));
    }
    std::unique_ptr<CFailingPropertyRead> failing;
    if (test.failingRead)
    {
        failing = std::make_unique<CFailingPropertyRead>(Module(), L"RMTCONF", true);
        ASSERT_TRUE(failing->IsApplied());
    }
    std::unique_ptr<CFailingRegistryWrite> refusing;
    if (test.failingWrite)
    {
        refusing = std::make_unique<CFailingRegistryWrite>(Module());
        ASSERT_TRUE(refusing->IsApplied());
    }
    // Not ";" as the separator: the list itself holds semicolons.
    m_Host->SetCustomActionData(std::wstring(L"|REMOTECONFIG=") + test.list);

    EXPECT_EQ(Run(test.action, {{L"RMTCONF", test.list}}), test.result);
    EXPECT_EQ(ActionLines(), test.lines);
    std::vector<BYTE> data;
    DWORD type = 0;
    const bool bFound = test.keyView != 0 && ReadValue(test.keyView, kClient, L"RmtConf", data, type);
    ASSERT_EQ(bFound, test.written);
    if (bFound)
    {
        EXPECT_EQ(type, static_cast<DWORD>(REG_MULTI_SZ));
        EXPECT_EQ(data.size(), test.bytes.size() * sizeof(wchar_t));
        EXPECT_EQ(AsText(data), test.bytes);
    }
    EXPECT_EQ(KeyExists(KEY_WOW64_64KEY, kClient), test.keyView == KEY_WOW64_64KEY) << "the key is never created";
}

using namespace std::string_literals;

const RemoteConfigCase kCases[] = {
    // One terminator only: the count leaves out the list's second zero.
    {"DeferredWritesEachHostAsAString", "SetRemoteConfigDeferred", L"host1;host2", KEY_WOW64_64KEY, false, false, 0,
     {}, true, L"host1\0host2\0"s},
    {"ImmediateWritesEachHostAsAString", "SetRemoteConfigImmediately", L"host1;host2", KEY_WOW64_64KEY, false, false,
     0, {}, true, L"host1\0host2\0"s},
    {"TrailingSemicolonGivesAnEmptyLastString", "SetRemoteConfigDeferred", L"a;b;", KEY_WOW64_64KEY, false, false, 0,
     {}, true, L"a\0b\0\0"s},
    {"EmptyTextWritesOneZeroCharacter", "SetRemoteConfigImmediately", L"", KEY_WOW64_64KEY, false, false, 0, {}, true,
     L"\0"s},
    {"DeferredFailsWithoutTheKey", "SetRemoteConfigDeferred", L"host1", 0, false, false, 1603,
     {Error(L"Open registry key failed with error {LastError}")}, false, L""},
    {"KeyIn32BitViewOnlyIsNoKey", "SetRemoteConfigImmediately", L"host1", KEY_WOW64_32KEY, false, false, 1603,
     {Error(L"Open registry key failed with error {LastError}")}, false, L""},
    {"UnreadablePropertyFailsAndWritesNothing", "SetRemoteConfigImmediately", L"host1", KEY_WOW64_64KEY, true, false,
     1603, {Error(L"MsiGetProperty RMTCONF failed with error {LastError}")}, false, L""},
    {"RefusedWriteFails", "SetRemoteConfigDeferred", L"host1", KEY_WOW64_64KEY, false, true, 1603,
     {Error(L"Set registry value failed with error {LastError}")}, false, L""},
};

INSTANTIATE_TEST_SUITE_P(Cases, RemoteConfig, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

} // namespace
} // namespace QcTest
