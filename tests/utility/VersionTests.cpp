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
enum Keys
{
    kEngine,
    kRdp,
    kBoth,
    kEngine32
};

struct EngineCase
{
    const char* behaviour;
    Keys keys;
    const wchar_t* version;          // "DisplayVersion"; null: no such value
    const wchar_t* edition;          // the one property set to "1"; null: none
    const wchar_t* second = nullptr; // QcVersion<second>.exe placed in the system directory as QRDPInst.exe
    bool marker = false;             // QCZDInst.exe in the system directory
    BYTE productType = Ws;
    Lines lines = {};
    UINT result = 0;
};

using EngineVersion = UtilityCases<EngineCase>;

TEST_P(EngineVersion, SetsTheEditionProperty)
{
    const EngineCase& test = GetParam();
    const wchar_t* name = test.version ? L"DisplayVersion" : nullptr;
    const std::wstring version = std::wstring(test.version ? test.version : L"") + L'\0';
    const REGSAM engineView = test.keys == kEngine32 ? KEY_WOW64_32KEY : KEY_WOW64_64KEY;
    ASSERT_TRUE(test.keys == kRdp || SetValue(engineView, kUninstall + L".lumen Engine", name, REG_SZ, version));
    ASSERT_TRUE((test.keys != kRdp && test.keys != kBoth) ||
                SetValue(KEY_WOW64_64KEY, kUninstall + L".lumen RDP Engine", name, REG_SZ, version));
    ASSERT_TRUE(!test.marker || Place(L"QcVersion_7_1_0_0.exe", L"QCZDInst.exe"));
    ASSERT_TRUE(!test.second || Place(L"QcVersion" + std::wstring(test.second) + L".exe", L"QRDPInst.exe"));
    g_Imports.productType = test.productType;

    const ActionOutcome outcome = RunAction("GetEngineVersion", {}, kEditions);
    EXPECT_EQ(std::make_pair(outcome.result, outcome.lines), std::make_pair(test.result, test.lines));
    std::wstring set; // every edition property that is not empty
    for (size_t i = 0; i < kEditions.size(); ++i)
    {
        set += outcome.values[i].empty() ? L"" : kEditions[i] + L"=" + outcome.values[i];
    }
    EXPECT_EQ(set, test.edition ? test.edition + std::wstring(L"=1") : L"");
}

const std::wstring kNoEngineKey = Warning(L"Open registry key .lumen Engine failed with error 4242");
const Lines kNoSecond = {kNoEngineKey, L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error 2."};
const Lines kNoKeys = {kNoEngineKey, Error(L"Open registry key .lumen RDP engine failed with error 4242")};
const Lines kNoValue = {Error(L"Query registry value failed with error 4242")};

const EngineCase kEngineCases[] = {
    {"Version76UnderRdpKeyWarnsAndSetsRdpKit76", kRdp, L"7.6", L"RDPKIT76", nullptr, false, Ws, {kNoEngineKey}},
    {"EngineKeyWinsOverRdpKey", kBoth, L"7.6", L"SERVERKIT76"},
    {"Version79SetsVdiKit79", kRdp, L"7.9", L"VDIKIT79", nullptr, false, Ws, {kNoEngineKey}},
    {"Version70OnServerWithMarkerSetsServerKit70", kEngine, L"7.0", L"SERVERKIT70", nullptr, true, Server},
    {"Version70OnServerWithoutMarkerSetsRdpKit70", kEngine, L"7.0", L"RDPKIT70", L"_0_1_2_3", false, Server},
    {"Version70OnDomainControllerSetsNothing", kEngine, L"7.0", nullptr, nullptr, true, Dc},
    {"Version70WithMarkerSetsDesktopKit70", kEngine, L"7.0", L"DESKTOPKIT70", L"_0_1_2_3", true},
    {"Version70WithSecondAt0_1SetsDesktopKit702", kEngine, L"7.0", L"DESKTOPKIT702", L"_0_1_2_3"},
    {"Version70WithSecondAt0_0SetsRdpKitXp70", kEngine, L"7.0", L"RDPKITXP70", L"_0_0_5_6"},
    {"Version70WithoutSecondSetsRdpKitXp70", kRdp, L"7.0", L"RDPKITXP70", nullptr, false, Ws, kNoSecond},
    // The whole high word of the file version is compared: neither minor 1 nor minor 0 alone decides.
    {"Version70WithSecondAt1_1SetsNothing", kEngine, L"7.0", nullptr, L"_1_1_0_0"},
    {"Version70WithSecondAt1_0SetsNothing", kEngine, L"7.0", nullptr, L"_1_0_0_0"},
    {"Version701IsNot70", kEngine, L"7.0.1", nullptr, nullptr, true},
    {"EmptyVersionSetsNothing", kEngine, L"", nullptr, nullptr, true},
    {"KeyIn32BitViewOnlyIsNoKey", kEngine32, L"7.6", nullptr, nullptr, false, Ws, kNoKeys, 1603},
    {"WithoutDisplayVersionFails", kEngine, nullptr, nullptr, nullptr, false, Ws, kNoValue, 1603},
};

INSTANTIATE_TEST_SUITE_P(Cases, EngineVersion, ::testing::ValuesIn(kEngineCases), kByBehaviour);

struct FileVersionCase
{
    const char* behaviour;
    const wchar_t* folderSuffix; // appended to the build's bin folder (without its backslash)
    const wchar_t* name;
    const wchar_t* gfvResult; // "untouched" when the action must not write it
    Lines lines = {};
    UINT result = 0;
    const wchar_t* failingRead = L""; // a property whose read fails
};

using GetFileVersion = UtilityCases<FileVersionCase>;

TEST_P(GetFileVersion, WritesTheFileVersion)
{
    const FileVersionCase& test = GetParam();
    g_Imports.failingRead = test.failingRead;
    const std::wstring folder = BinFolder().substr(0, BinFolder().size() - 1) + test.folderSuffix;
    const ActionOutcome outcome = RunAction(
        "GetFileVersion", {{L"GFV_FILEPATH", folder}, {L"GFV_FILENAME", test.name}, {L"GFV_Result", L"untouched"}},
        {L"GFV_Result"});
    EXPECT_EQ(std::make_tuple(outcome.result, outcome.lines, outcome.values[0]),
              std::make_tuple(test.result, test.lines, std::wstring(test.gfvResult)));
}

const wchar_t k1234[] = L"QcVersion_1_2_3_4.exe";

const Lines kNoResource = {L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error 1812."}; // Wine's code
const Lines kNoFile = {Error(L"Access failed with error 2")}, kNoFolder = {Error(L"Access failed with error 3")};
const Lines kPathUnread = {Error(L"MsiGetProperty GFV_FILEPATH failed with error 4242")};
const Lines kNameUnread = {Error(L"MsiGetProperty GFV_FILENAME failed with error 4242")};

const FileVersionCase kFileCases[] = {
    {"FileVersionOfAVersionResource", L"", L"QcVersion_65535_0_0_65535.exe", L"65535.0.0.65535"},
    // The folder's own backslash and the joining one make two; the file is still found.
    {"FolderEndingInBackslash", L"\\", k1234, L"1.2.3.4"},
    {"FileWithoutVersionResourceGivesEmptyResult", L"", L"QcVersionNone.exe", L"", kNoResource},
    {"MissingFileGivesMinusOneAndFails", L"", L"QcMissing.exe", L"-1", kNoFile, 1603},
    {"MissingFolderGivesMinusOneAndFails", L"\\QcMissingFolder", k1234, L"-1", kNoFolder, 1603},
    {"UnreadableFolderFailsAndWritesNothing", L"", k1234, L"untouched", kPathUnread, 1603, L"GFV_FILEPATH"},
    {"UnreadableNameFailsAndWritesNothing", L"", k1234, L"untouched", kNameUnread, 1603, L"GFV_FILENAME"},
};

INSTANTIATE_TEST_SUITE_P(Cases, GetFileVersion, ::testing::ValuesIn(kFileCases), kByBehaviour);

} // namespace
} // namespace QcTest
