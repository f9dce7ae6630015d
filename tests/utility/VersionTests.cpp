// GetEngineVersion: the edition property chosen from the engine's uninstall
// entry, the kind of system and the installer programs in the system directory.
// GetFileVersion: folder and file name from properties, the file version into "GFV_Result".
#include "utility/UtilityTest.h"

namespace QcTest {
namespace {

const std::wstring kUninstall = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\";
const Lines kEditions = {L"SERVERKIT70", L"RDPKIT70",    L"DESKTOPKIT70", L"DESKTOPKIT702",
                         L"RDPKITXP70",  L"SERVERKIT76", L"RDPKIT76",     L"VDIKIT79"};
constexpr BYTE Ws = VER_NT_WORKSTATION, Server = VER_NT_SERVER, Dc = VER_NT_DOMAIN_CONTROLLER;
// Which uninstall entries exist: the engine's, the RDP engine's, both, or the
// engine's only where a 32-bit product would register.
enum Keys { kNone, kEngine, kRdp, kBoth, kEngine32 };

struct EngineCase
{
    const char* behaviour;
    BYTE productType;
    Keys keys;
    const wchar_t* version; // "DisplayVersion"; null: no such value
    bool marker;            // QCZDInst.exe in the system directory
    const wchar_t* second;  // QcVersion<second>.exe placed there as QRDPInst.exe; null: none
    UINT result;
    Lines lines;
    const wchar_t* edition; // the one property set to "1"; null: none
};

using EngineVersion = UtilityCases<EngineCase>;

TEST_P(EngineVersion, SetsTheEditionProperty)
{
    const EngineCase& test = GetParam();
    const auto addKey = [&test](REGSAM view, const wchar_t* product) {
        ASSERT_TRUE(SetValue(view, kUninstall + product, test.version ? L"DisplayVersion" : nullptr, REG_SZ,
                             std::wstring(test.version ? test.version : L"") + L'\0'));
    };
    if (test.keys == kEngine || test.keys == kBoth || test.keys == kEngine32)
    {
        addKey(test.keys == kEngine32 ? KEY_WOW64_32KEY : KEY_WOW64_64KEY, L".lumen Engine");
    }
    if (test.keys == kRdp || test.keys == kBoth)
    {
        addKey(KEY_WOW64_64KEY, L".lumen RDP Engine");
    }
    ASSERT_TRUE(!test.marker || Place(L"QcVersion_7_1_0_0.exe", L"QCZDInst.exe"));
    ASSERT_TRUE(!test.second || Place(L"QcVersion" + std::wstring(test.second) + L".exe", L"QRDPInst.exe"));
    ReportProductType(test.productType);

    const ActionOutcome outcome = RunAction("GetEngineVersion", {}, kEditions);
    EXPECT_EQ(std::make_pair(outcome.result, outcome.lines), std::make_pair(test.result, test.lines));
    std::wstring set; // every edition property that is not empty
    for (size_t i = 0; i < kEditions.size(); ++i)
    {
        set += outcome.values[i].empty() ? L"" : kEditions[i] + L"=" + outcome.values[i];
    }
    EXPECT_EQ(set, test.edition ? test.edition + std::wstring(L"=1") : L"");
}

const std::wstring kNoEngineKey = Warning(L"Open registry key .lumen Engine failed with error {LastError}");
const std::wstring kNoRdpKey = Error(L"Open registry key .lumen RDP engine failed with error {LastError}");

const EngineCase kEngineCases[] = {
    {"Version76UnderEngineKeySetsServerKit76", Ws, kEngine, L"7.6", false, nullptr, 0, {}, L"SERVERKIT76"},
    {"Version76UnderRdpKeyWarnsAndSetsRdpKit76", Ws, kRdp, L"7.6", false, nullptr, 0, {kNoEngineKey}, L"RDPKIT76"},
    {"EngineKeyWinsOverRdpKey", Ws, kBoth, L"7.6", false, nullptr, 0, {}, L"SERVERKIT76"},
    {"Version79SetsVdiKit79", Ws, kRdp, L"7.9", false, nullptr, 0, {kNoEngineKey}, L"VDIKIT79"},
    {"Version70OnServerWithMarkerSetsServerKit70", Server, kEngine, L"7.0", true, nullptr, 0, {}, L"SERVERKIT70"},
    {"Version70OnServerWithoutMarkerSetsRdpKit70", Server, kEngine, L"7.0", false, L"_0_1_2_3", 0, {}, L"RDPKIT70"},
    {"Version70OnDomainControllerSetsNothing", Dc, kEngine, L"7.0", true, nullptr, 0, {}, nullptr},
    {"Version70WithMarkerSetsDesktopKit70", Ws, kEngine, L"7.0", true, L"_0_1_2_3", 0, {}, L"DESKTOPKIT70"},
    {"Version70WithSecondAt0_1SetsDesktopKit702", Ws, kEngine, L"7.0", false, L"_0_1_2_3", 0, {}, L"DESKTOPKIT702"},
    {"Version70WithSecondAt0_0SetsRdpKitXp70", Ws, kEngine, L"7.0", false, L"_0_0_5_6", 0, {}, L"RDPKITXP70"},
    {"Version70WithoutSecondSetsRdpKitXp70", Ws, kRdp, L"7.0", false, nullptr, 0,
     {kNoEngineKey, L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error 2."}, L"RDPKITXP70"},
    {"Version70WithSecondAt7_1SetsNothing", Ws, kEngine, L"7.0", false, L"_7_1_0_0", 0, {}, nullptr},
    // The whole high word of the file version is compared: neither minor 1 nor minor 0 alone decides.
    {"Version70WithSecondAt1_1SetsNothing", Ws, kEngine, L"7.0", false, L"_1_1_0_0", 0, {}, nullptr},
    {"Version70WithSecondAt1_0SetsNothing", Ws, kEngine, L"7.0", false, L"_1_0_0_0", 0, {}, nullptr},
    {"Version701IsNot70", Ws, kEngine, L"7.0.1", true, nullptr, 0, {}, nullptr},
    {"EmptyVersionSetsNothing", Ws, kEngine, L"", true, nullptr, 0, {}, nullptr},
    {"KeyIn32BitViewOnlyIsNoKey", Ws, kEngine32, L"7.6", false, nullptr, 1603, {kNoEngineKey, kNoRdpKey}, nullptr},
    {"WithoutDisplayVersionFails", Ws, kEngine, nullptr, false, nullptr, 1603,
     {Error(L"Query registry value failed with error {LastError}")}, nullptr},
};

INSTANTIATE_TEST_SUITE_P(Cases, EngineVersion, ::testing::ValuesIn(kEngineCases), kByBehaviour);

struct FileVersionCase
{
    const char* behaviour;
    const wchar_t* folderSuffix; // appended to the build's bin folder (without its backslash)
    const wchar_t* name;
    const wchar_t* failingRead; // a property whose read fails; null: none
    UINT result;
    Lines lines;
    const wchar_t* gfvResult; // "untouched" when the action must not write it
};

using GetFileVersion = UtilityCases<FileVersionCase>;

TEST_P(GetFileVersion, WritesTheFileVersion)
{
    const FileVersionCase& test = GetParam();
    if (test.failingRead != nullptr)
    {
        FailPropertyRead(test.failingRead, false);
    }
    const std::wstring folder = BinFolder().substr(0, BinFolder().size() - 1) + test.folderSuffix;
    const ActionOutcome outcome = RunAction(
        "GetFileVersion", {{L"GFV_FILEPATH", folder}, {L"GFV_FILENAME", test.name}, {L"GFV_Result", L"untouched"}},
        {L"GFV_Result"});
    EXPECT_EQ(std::make_tuple(outcome.result, outcome.lines, outcome.values[0]),
              std::make_tuple(test.result, test.lines, std::wstring(test.gfvResult)));
}

const FileVersionCase kFileCases[] = {
    {"FileVersionOfAVersionResource", L"", L"QcVersion_65535_0_0_65535.exe", nullptr, 0, {}, L"65535.0.0.65535"},
    // The folder's own backslash and the joining one make two; the file is still found.
    {"FolderEndingInBackslash", L"\\", L"QcVersion_1_2_3_4.exe", nullptr, 0, {}, L"1.2.3.4"},
    {"FileWithoutVersionResourceGivesEmptyResult", L"", L"QcVersionNone.exe", nullptr, 0,
     {L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error 1812."}, L""}, // Wine: no resource data
    {"MissingFileGivesMinusOneAndFails", L"", L"QcMissing.exe", nullptr, 1603, {Error(L"Access failed with error 2")},
     L"-1"},
    {"MissingFolderGivesMinusOneAndFails", L"\\QcMissingFolder", L"QcVersion_1_2_3_4.exe", nullptr, 1603,
     {Error(L"Access failed with error 3")}, L"-1"},
    {"UnreadableFolderFailsAndWritesNothing", L"", L"QcVersion_1_2_3_4.exe", L"GFV_FILEPATH", 1603,
     {Error(L"MsiGetProperty GFV_FILEPATH failed with error {LastError}")}, L"untouched"},
    {"UnreadableNameFailsAndWritesNothing", L"", L"QcVersion_1_2_3_4.exe", L"GFV_FILENAME", 1603,
     {Error(L"MsiGetProperty GFV_FILENAME failed with error {LastError}")}, L"untouched"},
};

INSTANTIATE_TEST_SUITE_P(Cases, GetFileVersion, ::testing::ValuesIn(kFileCases), kByBehaviour);

} // namespace
} // namespace QcTest
