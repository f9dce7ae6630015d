// The installer utility actions of the shipped DLL in real installer sessions (RunAction), against the registry and
// the version resources of the test run's Wine prefix. What Wine cannot show (another kind of system, a message box,
// a refused write) is seen through the DLL's own imports.
#include <gtest/gtest.h>

#include <windows.h>
#include <msiquery.h>

#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "host/types/Handles.h"
#include "support/ActionCall.h"
#include "support/ImportPatch.h"

namespace QcTest {
namespace {

using namespace std::string_literals;

// The actions log the thread's last-error value, not what a failing call answered; the frame leaves it at 0, so
// each of the DLL's registry opens and failing property reads sets this marker first, to tell the two apart.
constexpr DWORD kLastErrorMarker = 4242;

// Expected lines as Body() renders them.
const auto Error = [](const std::wstring& text) { return L"[ERROR] Various (#) " + text + L"."; };
const auto Warning = [](const std::wstring& text) { return L"[WARNING] Various (#) " + text + L"."; };
const auto Detail = [](const std::wstring& text) { return L"Various (#) " + text + L"."; };

// What the DLL's redirected imports do in a case; the rest calls the real functions.
struct Imports
{
    std::wstring failingRead;              // reads of it answer ERROR_INVALID_HANDLE, as if the session went away
    bool bRefuseWrites = false;            // registry writes answer ERROR_ACCESS_DENIED, the last error untouched
    BYTE productType = VER_NT_WORKSTATION; // what GetVersionEx reports
    Lines boxes;                           // message boxes, not shown but noted as "caption|text|type" and cancelled
};
Imports g_Imports;
std::vector<std::pair<REGSAM, std::wstring>> g_Keys; // made by SetValue()
std::vector<std::wstring> g_Files;                   // programs placed by a case

// A case of `Case` rows, each named after its `behaviour`: the DLL's imports are redirected as g_Imports says,
// and every key and file the case made is deleted after it.
template <typename Case>
class UtilityCases : public ::testing::TestWithParam<Case>
{
protected:
    void SetUp() override
    {
        g_Imports = Imports();
        const auto openKey = [](HKEY hKey, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY phResult) {
            SetLastError(kLastErrorMarker);
            return RegOpenKeyExW(hKey, subKey, options, access, phResult);
        };
        const auto getProperty = [](MSIHANDLE hInstall, LPCWSTR property, LPWSTR value, LPDWORD pcch) -> UINT {
            if (property != nullptr && g_Imports.failingRead == property)
            {
                SetLastError(kLastErrorMarker);
                return ERROR_INVALID_HANDLE;
            }
            return MsiGetPropertyW(hInstall, property, value, pcch);
        };
        const auto setValue = [](HKEY hKey, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* pData, DWORD cb) {
            return g_Imports.bRefuseWrites ? LSTATUS{ERROR_ACCESS_DENIED}
                                           : RegSetValueExW(hKey, name, reserved, type, pData, cb);
        };
        const auto getVersion = [](OSVERSIONINFOW* pInfo) {
            const BOOL bResult = GetVersionExW(pInfo);
            reinterpret_cast<OSVERSIONINFOEXW*>(pInfo)->wProductType = g_Imports.productType;
            return bResult;
        };
        const auto messageBox = [](HWND, LPCWSTR text, LPCWSTR caption, UINT type) {
            const std::wstring shown = std::wstring(caption ? caption : L"(null)") + L"|" + text + L"|";
            g_Imports.boxes.push_back(shown + std::to_wstring(type));
            return IDCANCEL;
        };
        const std::tuple<const char*, const char*, const void*> imports[] = {
            {"advapi32.dll", "RegOpenKeyExW", reinterpret_cast<const void*>(+openKey)},
            {"msi.dll", "MsiGetPropertyW", reinterpret_cast<const void*>(+getProperty)},
            {"advapi32.dll", "RegSetValueExW", reinterpret_cast<const void*>(+setValue)},
            {"kernel32.dll", "GetVersionExW", reinterpret_cast<const void*>(+getVersion)},
            {"user32.dll", "MessageBoxW", reinterpret_cast<const void*>(+messageBox)}};
        for (const auto& [dll, function, replacement] : imports)
        {
            m_Patches.push_back(std::make_unique<CImportPatch>(ShippedLibrary().Module(), dll, function, replacement));
            EXPECT_TRUE(m_Patches.back()->IsApplied()) << function;
        }
    }
    void TearDown() override
    {
        for (const auto& [view, key] : std::exchange(g_Keys, {}))
        {
            RegDeleteKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), view, 0);
        }
        for (const std::wstring& path : std::exchange(g_Files, {}))
        {
            DeleteFileW(path.c_str());
        }
    }

    std::vector<std::unique_ptr<CImportPatch>> m_Patches;
};
constexpr auto kByBehaviour = [](const auto& info) { return std::string(info.param.behaviour); };

// HKLM\key in one registry view (KEY_WOW64_32KEY or KEY_WOW64_64KEY). A null name only creates the key; the bytes
// are given as characters.
bool SetValue(REGSAM view, const std::wstring& key, const wchar_t* name, DWORD type, const std::wstring& bytes)
{
    g_Keys.emplace_back(view, key);
    Quillcast::System::Types::CRegistryKey hKey;
    return RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, hKey.Put(),
                           nullptr) == ERROR_SUCCESS &&
           (name == nullptr || RegSetValueExW(hKey.Get(), name, 0, type, reinterpret_cast<const BYTE*>(bytes.c_str()),
                                              static_cast<DWORD>(bytes.size() * sizeof(wchar_t))) == ERROR_SUCCESS);
}

// The value's type and its bytes as characters; type REG_NONE and no bytes when it does not exist.
std::pair<DWORD, std::wstring> ReadValue(REGSAM view, const std::wstring& key, const wchar_t* name)
{
    std::pair<DWORD, std::wstring> value(REG_NONE, L"");
    Quillcast::System::Types::CRegistryKey hKey;
    DWORD cbData = 0;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_QUERY_VALUE | view, hKey.Put()) == ERROR_SUCCESS &&
        RegQueryValueExW(hKey.Get(), name, nullptr, &value.first, nullptr, &cbData) == ERROR_SUCCESS)
    {
        value.second.resize(cbData / sizeof(wchar_t));
        RegQueryValueExW(hKey.Get(), name, nullptr, &value.first, reinterpret_cast<BYTE*>(&value.second[0]), &cbData);
    }
    return value;
}

// ---- AddIcaClient and RemoveIcaClient: the ICA client's virtual-driver list in the 32-bit view; SetRemoteConfig*:
// "RmtConf" in the 64-bit view; each value compared byte for byte ----

const wchar_t kModules[] = L"SOFTWARE\\Citrix\\ICA Client\\Engine\\Configuration\\Advanced\\Modules\\ICA 3.0";
const wchar_t kClient[] = L"SOFTWARE\\Quillcast\\Client";
constexpr DWORD kNoKey = ~0u; // as the type before: the key only in the other view
const std::wstring kKept = L"(kept)";
const std::wstring kNone = L"(none)";
const char* const kAdd = "AddIcaClient";
const char* const kRemove = "RemoveIcaClient";
const char* const kDeferred = "SetRemoteConfigDeferred";
const char* const kImmediate = "SetRemoteConfigImmediately";

struct RegistryCase
{
    const char* behaviour;
    const char* action;
    DWORD type;          // of the value before; REG_NONE: the key exists, the value does not
    std::wstring before; // the list's bytes, as characters; for SetRemoteConfig* the list given instead
    std::wstring after;  // the bytes written (REG_SZ for the list, REG_MULTI_SZ for "RmtConf"); kKept; kNone: no value
    UINT result = 0;
    Lines lines = {};
    bool bRefused = false; // the registry refuses the write
};

using RegistryValue = UtilityCases<RegistryCase>;

TEST_P(RegistryValue, IsWrittenAsTheActionSays)
{
    const RegistryCase& test = GetParam();
    const bool bIca = std::string(test.action).find("IcaClient") != std::string::npos;
    const auto [key, name, view] = bIca ? std::make_tuple(kModules, L"VirtualDriver", KEY_WOW64_32KEY)
                                        : std::make_tuple(kClient, L"RmtConf", KEY_WOW64_64KEY);
    const REGSAM keyView = test.type == kNoKey ? view ^ (KEY_WOW64_32KEY | KEY_WOW64_64KEY) : view;
    ASSERT_TRUE(SetValue(keyView, key, bIca && (test.type == REG_SZ || test.type == REG_EXPAND_SZ) ? name : nullptr,
                         test.type, test.before));
    g_Imports.bRefuseWrites = test.bRefused;
    // Not ";" as the separator: the list itself holds semicolons.
    const Properties list = {{L"CustomActionData", L"|REMOTECONFIG=" + test.before}, {L"RMTCONF", test.before}};

    const ActionOutcome outcome = RunAction(test.action, bIca ? Properties{} : list, {});
    EXPECT_EQ(std::make_pair(outcome.result, outcome.lines), std::make_pair(test.result, test.lines));
    const auto expected = test.after == kKept ? std::make_pair(test.type, test.before)
                          : test.after == kNone
                              ? std::make_pair(DWORD{REG_NONE}, L""s)
                              : std::make_pair(bIca ? DWORD{REG_SZ} : DWORD{REG_MULTI_SZ}, test.after);
    EXPECT_EQ(ReadValue(view, key, name), expected);
}

const std::wstring kLong(10000, L'D');
const std::wstring kFound = Warning(L"Found QCClnIca registry value");
const std::wstring kNoValue = Error(L"Query registry value failed with error 4242");
const std::wstring kReplace = Error(L"Replace failed with error 87");
const std::wstring kNoOpen = Error(L"Open registry key failed with error 4242");
const std::wstring kRefused = Error(L"Set registry value failed with error 4242");

const RegistryCase kRegistryCases[] = {
    // The value's type is not looked at; the list goes back as REG_SZ.
    {"AddAppendsCommaAndEntryAsText", kAdd, REG_EXPAND_SZ, L"DrvA,DrvB\0"s, L"DrvA,DrvB,QCClnIca\0"s},
    {"AddTakesAValueWithoutDataAsAnEmptyList", kAdd, REG_SZ, L"", L"QCClnIca\0"s},
    {"AddCountsALongerNameContainingTheEntry", kAdd, REG_SZ, L"DrvA,QCClnIca64\0"s, kKept, 0, {kFound}},
    {"AddExtendsAListOfTenThousandCharacters", kAdd, REG_SZ, kLong + L'\0', kLong + L",QCClnIca" + L'\0'},
    {"AddFailsWithoutTheValue", kAdd, REG_NONE, L"", kNone, 1603, {kNoValue}},
    {"AddFailsWithTheKeyIn64BitViewOnly", kAdd, kNoKey, L"", kNone, 1603, {kNoOpen}},
    {"RemoveDeletesTheValueHoldingOnlyTheEntry", kRemove, REG_SZ, L"QCClnIca\0"s, kNone},
    {"RemoveTakesEveryOccurrence", kRemove, REG_SZ, L"QCClnIca,DrvA,QCClnIca\0"s, L"DrvA\0"s},
    // Removing ",QCClnIca" first joins a new "QCClnIca," at the front, which the second removal takes: only this
    // order of the first two leaves DrvA.
    {"RemoveTakesCommaAndEntryBeforeEntryAndComma", kRemove, REG_SZ, L"QCCl,QCClnIcanIca,DrvA\0"s, L"DrvA\0"s},
    // The order of the removals leaves an empty text for the next one, which fails: kept as it is.
    {"RemoveFailsOnCommaAndEntry", kRemove, REG_SZ, L",QCClnIca\0"s, kKept, 1603, {kReplace}},
    {"RemoveFailsOnEntryAndComma", kRemove, REG_SZ, L"QCClnIca,\0"s, kKept, 1603, {kReplace}},
    // Each ";" becomes a string's end; one terminator only: the count leaves out the list's second zero.
    {"RemoteConfigGivesAnEmptyLastStringAfterATrailingSemicolon", kImmediate, REG_NONE, L"a;b;", L"a\0b\0\0"s},
    {"RemoteConfigFailsWithTheKeyIn32BitViewOnly", kDeferred, kNoKey, L"host1", kNone, 1603, {kNoOpen}},
    {"RemoteConfigWriteRefusedFails", kDeferred, REG_NONE, L"host1", kNone, 1603, {kRefused}, true},
};

INSTANTIATE_TEST_SUITE_P(Cases, RegistryValue, ::testing::ValuesIn(kRegistryCases), kByBehaviour);

// ---- ShowMessage*: the installer's answer decides; the quiet-mode box, shown system-modal, decides nothing ----

// The user message as the runner records it, with the installer's answer.
const auto Message = [](const wchar_t* typeHex, const std::wstring& text, int answer) {
    return std::wstring(typeHex) + L": [1]|" + text + L"| -> " + std::to_wstring(answer);
};

// The result, the action's lines and the user messages.
std::tuple<UINT, Lines, Lines> Show(const char* exportName, const Properties& properties, int answer)
{
    const ActionOutcome outcome = RunAction(exportName, properties, {}, -1, answer);
    return {outcome.result, outcome.lines, outcome.messages};
}

TEST(ShowMessage, DeferredResultFollowsTheAnswerAndTheTypeIsDecimal)
{
    // 0 is no answer at all, as in a silent installation.
    const std::pair<int, UINT> answers[] = {{0, 0},       {IDOK, 0},          {IDRETRY, 0},     {IDIGNORE, 0},
                                            {IDYES, 0},   {IDCONTINUE, 0},    {IDCANCEL, 1602}, {IDABORT, 1602},
                                            {IDNO, 1602}, {IDTRYAGAIN, 1602}, {-1, 1602}};
    for (const auto& [answer, result] : answers)
    {
        EXPECT_EQ(Show("ShowMessageDeferred", {{L"CustomActionData", L";MESSAGE=Continue?;TYPE=48 and more"}}, answer),
                  std::make_tuple(result, result == 0 ? Lines{} : Lines{Error(L"Continue?")},
                                  Lines{Message(L"0x03000030", L"Continue?", answer)}));
    }
    EXPECT_EQ(Show("ShowMessageDeferred", {{L"CustomActionData", L";MESSAGE=Done;OTHER=1"}}, IDOK),
              std::make_tuple(0u, Lines{}, Lines{Message(L"0x03000000", L"Done", IDOK)}));
}

struct ImmediateCase
{
    const char* behaviour;
    const wchar_t* quietMode;
    int answer; // the installer's
    Lines lines;
    std::wstring box = L""; // the box shown, "caption|text|type"; empty: none
    UINT result = 0;
    const wchar_t* failingRead = L""; // a property whose read fails
};

using ShowMessageImmediately = UtilityCases<ImmediateCase>;

const wchar_t kText[] = L"Install the printer driver?";
const wchar_t kCaption[] = L"Quillcast Setup";

// The property lines.
Lines Details(const std::wstring& caption, const std::wstring& quietMode)
{
    return {Detail(L"ShowMessageTextProperty = " + std::wstring(kText)), Detail(L"ShowMessageTypeProperty = 4"),
            Detail(L"ShowMessageCaptionProperty = " + caption), Detail(L"ShowMessageQuietModeProperty = " + quietMode),
            Detail(L"dwShowInQuietMode = " + quietMode)};
}

Lines With(Lines lines, size_t at, const std::wstring& line)
{
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at), line);
    return lines;
}

TEST_P(ShowMessageImmediately, ShowsTheMessage)
{
    const ImmediateCase& test = GetParam();
    g_Imports.failingRead = test.failingRead;
    const Properties properties = {{L"ShowMessageTextProperty", kText},
                                   {L"ShowMessageTypeProperty", L"4"},
                                   {L"ShowMessageCaptionProperty", kCaption},
                                   {L"ShowMessageQuietModeProperty", test.quietMode}};
    EXPECT_EQ(Show("ShowMessageImmediately", properties, test.answer),
              std::make_tuple(test.result, test.lines,
                              test.result != 1603 ? Lines{Message(L"0x03000004", kText, test.answer)} : Lines{}));
    EXPECT_EQ(g_Imports.boxes, test.box.empty() ? Lines{} : Lines{test.box});
}

const Lines kTextUnread = {Error(L"MsiGetProperty ShowMessageTextProperty failed with error 4242")};
const std::wstring kBox = L"Quillcast Setup|Install the printer driver?|" + std::to_wstring(MB_SYSTEMMODAL | MB_YESNO);

const ImmediateCase kImmediateCases[] = {
    // The refusal's entry is the MESSAGE argument, absent for an immediate action.
    {"InstallerNoFailsWithAnEmptyEntry", L"1", IDNO, With(Details(kCaption, L"1"), 5, L"[ERROR] Various (#) ."), kBox,
     1602},
    {"QuietModeTwoIsNotOne", L"2", IDYES, Details(kCaption, L"2")},
    // Silent installation: the installer answers nothing; the system-modal box is the only way the user sees the
    // message, and cancelling it changes nothing.
    {"UnreadableCaptionIsLoggedAndEmptyInTheBoxThatDecidesNothing", L"1", 0,
     With(Details(L"", L"1"), 2, Error(L"MsiGetProperty ShowMessageCaptionProperty failed with error 4242")),
     kBox.substr(kBox.find(L'|')), 0, L"ShowMessageCaptionProperty"},
    {"UnreadableTextFails", L"1", IDOK, kTextUnread, L"", 1603, L"ShowMessageTextProperty"},
};

INSTANTIATE_TEST_SUITE_P(Cases, ShowMessageImmediately, ::testing::ValuesIn(kImmediateCases), kByBehaviour);

// ---- GetEngineVersion: the edition from the uninstall entry, the kind of system and the sibling programs ----

const std::wstring kUninstall = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\";
const Lines kEditions = {L"SERVERKIT70", L"RDPKIT70",    L"DESKTOPKIT70", L"DESKTOPKIT702",
                         L"RDPKITXP70",  L"SERVERKIT76", L"RDPKIT76",     L"VDIKIT79"};
constexpr BYTE Ws = VER_NT_WORKSTATION, Server = VER_NT_SERVER, Dc = VER_NT_DOMAIN_CONTROLLER;
// Which uninstall entries exist: the engine's, the RDP engine's, both, or the engine's only where a 32-bit product
// would register.
constexpr int kEngine = 1, kRdp = 2, kBoth = kEngine | kRdp, kEngine32 = 4;

struct EngineCase
{
    const char* behaviour;
    int keys;
    const wchar_t* version;          // "DisplayVersion"
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
    const std::wstring version = test.version + L"\0"s;
    const REGSAM engineView = test.keys == kEngine32 ? KEY_WOW64_32KEY : KEY_WOW64_64KEY;
    ASSERT_TRUE(test.keys == kRdp ||
                SetValue(engineView, kUninstall + L".lumen Engine", L"DisplayVersion", REG_SZ, version));
    ASSERT_TRUE((test.keys & kRdp) == 0 ||
                SetValue(KEY_WOW64_64KEY, kUninstall + L".lumen RDP Engine", L"DisplayVersion", REG_SZ, version));
    // Copies the build's QcVersion<suffix>.exe into the system directory as `name`.
    const auto place = [](const std::wstring& suffix, const wchar_t* name) {
        wchar_t folder[MAX_PATH] = {};
        g_Files.push_back(std::wstring(folder, GetSystemDirectoryW(folder, MAX_PATH)) + L"\\" + name);
        return CopyFileW((BinFolder() + L"QcVersion" + suffix + L".exe").c_str(), g_Files.back().c_str(), FALSE);
    };
    ASSERT_TRUE(!test.marker || place(L"_7_1_0_0", L"QCZDInst.exe"));
    ASSERT_TRUE(!test.second || place(test.second, L"QRDPInst.exe"));
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
// "engine" in lower case in this one text, on purpose.
const Lines kNoKeys = {kNoEngineKey, Error(L"Open registry key .lumen RDP engine failed with error 4242")};

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
};

INSTANTIATE_TEST_SUITE_P(Cases, EngineVersion, ::testing::ValuesIn(kEngineCases), kByBehaviour);

// ---- GetFileVersion: folder and file name from properties, the file version into "GFV_Result" ----

struct FileVersionCase
{
    const char* behaviour;
    const wchar_t* folderSuffix; // appended to the build's bin folder (without its backslash)
    const wchar_t* name;
    const wchar_t* gfvResult; // written over "untouched", so that an empty result is seen to be written
    Lines lines = {};
    UINT result = 0;
};

using GetFileVersion = UtilityCases<FileVersionCase>;

TEST_P(GetFileVersion, WritesTheFileVersion)
{
    const FileVersionCase& test = GetParam();
    const std::wstring folder = BinFolder().substr(0, BinFolder().size() - 1) + test.folderSuffix;
    const ActionOutcome outcome = RunAction(
        "GetFileVersion", {{L"GFV_FILEPATH", folder}, {L"GFV_FILENAME", test.name}, {L"GFV_Result", L"untouched"}},
        {L"GFV_Result"});
    EXPECT_EQ(std::make_tuple(outcome.result, outcome.lines, outcome.values[0]),
              std::make_tuple(test.result, test.lines, std::wstring(test.gfvResult)));
}

// 1812 is Wine's code for a file without a version resource.
const std::wstring kNoResource = L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error 1812.";

const FileVersionCase kFileCases[] = {
    // The folder's own backslash and the joining one make two; the file is still found.
    {"FileVersionOfAVersionResource", L"\\", L"QcVersion_65535_0_0_65535.exe", L"65535.0.0.65535"},
    // The test program has no version resource.
    {"FileWithoutVersionResourceGivesEmptyResult", L"", L"qc_utility_tests.exe", L"", {kNoResource}},
    {"MissingFileGivesMinusOneAndFails", L"", L"QcMissing.exe", L"-1", {Error(L"Access failed with error 2")}, 1603},
};

INSTANTIATE_TEST_SUITE_P(Cases, GetFileVersion, ::testing::ValuesIn(kFileCases), kByBehaviour);

} // namespace
} // namespace QcTest
