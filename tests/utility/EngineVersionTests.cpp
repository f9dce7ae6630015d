// GetEngineVersion: the edition property chosen from the engine's uninstall
// entry, the kind of system and the installer programs in the system directory.
#include "utility/UtilityTest.h"

namespace QcTest {
namespace {

const wchar_t kEngineKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\.lumen Engine";
const wchar_t kRdpEngineKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\.lumen RDP Engine";
const wchar_t* const kEditions[] = {L"SERVERKIT70",   L"RDPKIT70",   L"DESKTOPKIT70", L"DESKTOPKIT702",
                                    L"RDPKITXP70",    L"SERVERKIT76", L"RDPKIT76",    L"VDIKIT79"};

enum class Keys
{
    None,
    Engine,
    RdpEngine,
    Both,
    EngineIn32BitView, // only where a 32-bit product would register
};

struct EngineCase
{
    const char* behaviour;
    // "WinNT" runs in this process (the prefix is a workstation); "ServerNT"
    // and "LanmanNT" need a process started after the change: the runner.
    const wchar_t* productType;
    Keys keys;
    const wchar_t* version; // "DisplayVersion"; null: no such value
    bool marker;            // QCZDInst.exe in the system directory
    const wchar_t* second;  // the build's program placed as QRDPInst.exe; null: none
    UINT result;
    Lines lines; // "{SecondProgramError}": what the system answers for QRDPInst.exe
    const wchar_t* edition; // the one property set to "1"; null: none
};

std::wstring SystemProgramPath(const wchar_t* name)
{
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    return std::wstring(folder) + L"\\" + name;
}

class EngineVersion : public UtilityTest, public ::testing::WithParamInterface<EngineCase>
{
protected:
    void TearDown() override { RemoveKeys(); }
    static void RemoveKeys()
    {
        for (const REGSAM view : {KEY_WOW64_32KEY, KEY_WOW64_64KEY})
        {
            EXPECT_TRUE(DeleteKey(view, kEngineKey));
            EXPECT_TRUE(DeleteKey(view, kRdpEngineKey));
        }
    }
};

TEST_P(EngineVersion, SetsTheEditionProperty)
{
    const EngineCase& test = GetParam();
    RemoveKeys();
    const auto addKey = [&test](REGSAM view, const wchar_t* key) {
        ASSERT_TRUE(CreateKey(view, key));
        if (test.version != nullptr)
        {
            ASSERT_TRUE(SetString(view, key, L"DisplayVersion", test.version));
        }
    };
    if (test.keys == Keys::Engine || test.keys == Keys::Both)
    {
        addKey(KEY_WOW64_64KEY, kEngineKey);
    }
    if (test.keys == Keys::RdpEngine || test.keys == Keys::Both)
    {
        addKey(KEY_WOW64_64KEY, kRdpEngineKey);
    }
    if (test.keys == Keys::EngineIn32BitView)
    {
        addKey(KEY_WOW64_32KEY, kEngineKey);
    }
    std::unique_ptr<CSystemProgram> marker;
    if (test.marker)
    {
        marker = std::make_unique<CSystemProgram>(L"QcVersion_7_1_0_0.exe", L"QCZDInst.exe");
        ASSERT_TRUE(marker->IsPlaced());
    }
    std::unique_ptr<CSystemProgram> second;
    if (test.second != nullptr)
    {
        second = std::make_unique<CSystemProgram>(test.second, L"QRDPInst.exe");
        ASSERT_TRUE(second->IsPlaced());
    }
    DWORD handle = 0;
    const std::wstring secondPath = SystemProgramPath(L"QRDPInst.exe");
    const DWORD secondError = GetFileVersionInfoSizeW(secondPath.c_str(), &handle) == 0 ? GetLastError() : 0;
    Lines expected = test.lines;
    for (std::wstring& line : expected)
    {
        const std::wstring token = L"{SecondProgramError}";
        const size_t at = line.find(token);
        if (at != std::wstring::npos)
        {
            line.replace(at, token.size(), std::to_wstring(secondError));
        }
    }

    std::map<std::wstring, std::wstring> properties;
    if (std::wstring(test.productType) == L"WinNT")
    {
        EXPECT_EQ(Run("GetEngineVersion"), test.result);
        EXPECT_EQ(ActionLines(), expected);
        for (const wchar_t* edition : kEditions)
        {
            properties[edition] = m_Host->GetProperty(edition);
        }
    }
    else
    {
        const CProductType productType(test.productType);
        std::wstring arguments;
        for (const wchar_t* edition : kEditions)
        {
            arguments += std::wstring(L"--show ") + edition + L" ";
        }
        const RunnerOutcome outcome = RunInRunner(arguments + L"GetEngineVersion");
        EXPECT_EQ(outcome.result, static_cast<int>(test.result));
        EXPECT_EQ(outcome.lines, expected);
        properties = outcome.shown;
    }
    for (const wchar_t* edition : kEditions)
    {
        const bool bChosen = test.edition != nullptr && std::wstring(test.edition) == edition;
        EXPECT_EQ(properties[edition], bChosen ? L"1" : L"") << std::string(edition, edition + wcslen(edition));
    }
}

const std::wstring kNoFirstKey = Warning(L"Open registry key .lumen Engine failed with error {LastError}");
const std::wstring kNoSecondVersion =
    L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error {SecondProgramError}.";

const EngineCase kCases[] = {
    {"Version76UnderEngineKeySetsServerKit76", L"WinNT", Keys::Engine, L"7.6", false, nullptr, 0, {}, L"SERVERKIT76"},
    {"Version76UnderEngineKeySetsServerKit76OnAServerToo", L"ServerNT", Keys::Engine, L"7.6", true, nullptr, 0, {},
     L"SERVERKIT76"},
    {"Version76UnderRdpKeyWarnsAndSetsRdpKit76", L"WinNT", Keys::RdpEngine, L"7.6", false, nullptr, 0, {kNoFirstKey},
     L"RDPKIT76"},
    {"EngineKeyWinsOverRdpKey", L"WinNT", Keys::Both, L"7.6", false, nullptr, 0, {}, L"SERVERKIT76"},
    {"Version79SetsVdiKit79", L"WinNT", Keys::RdpEngine, L"7.9", true, nullptr, 0, {kNoFirstKey}, L"VDIKIT79"},
    {"Version70OnServerWithMarkerSetsServerKit70", L"ServerNT", Keys::Engine, L"7.0", true, nullptr, 0, {},
     L"SERVERKIT70"},
    {"Version70OnServerWithoutMarkerSetsRdpKit70", L"ServerNT", Keys::Engine, L"7.0", false, L"QcVersion_0_1_2_3.exe",
     0, {}, L"RDPKIT70"},
    {"Version70OnDomainControllerSetsNothing", L"LanmanNT", Keys::Engine, L"7.0", true, nullptr, 0, {}, nullptr},
    {"Version70OnWorkstationWithMarkerSetsDesktopKit70", L"WinNT", Keys::Engine, L"7.0", true,
     L"QcVersion_0_1_2_3.exe", 0, {}, L"DESKTOPKIT70"},
    {"Version70OnWorkstationWithSecondAt0_1SetsDesktopKit702", L"WinNT", Keys::Engine, L"7.0", false,
     L"QcVersion_0_1_2_3.exe", 0, {}, L"DESKTOPKIT702"},
    {"Version70OnWorkstationWithSecondAt0_0SetsRdpKitXp70", L"WinNT", Keys::Engine, L"7.0", false,
     L"QcVersion_0_0_5_6.exe", 0, {}, L"RDPKITXP70"},
    {"Version70OnWorkstationWithoutSecondSetsRdpKitXp70", L"WinNT", Keys::RdpEngine, L"7.0", false, nullptr, 0,
     {kNoFirstKey, kNoSecondVersion}, L"RDPKITXP70"},
    {"Version70OnWorkstationWithSecondWithoutVersionSetsRdpKitXp70", L"WinNT", Keys::Engine, L"7.0", false,
     L"QcVersionNone.exe", 0, {kNoSecondVersion}, L"RDPKITXP70"},
    {"Version70OnWorkstationWithSecondAt7_1SetsNothing", L"WinNT", Keys::Engine, L"7.0", false,
     L"QcVersion_7_1_0_0.exe", 0, {}, nullptr},
    // The whole high word of the file version is compared: minor 1 alone is not enough.
    {"Version70OnWorkstationWithSecondAt1_1SetsNothing", L"WinNT", Keys::Engine, L"7.0", false,
     L"QcVersion_1_1_0_0.exe", 0, {}, nullptr},
    // ... and minor 0 alone is not "no version".
    {"Version70OnWorkstationWithSecondAt1_0SetsNothing", L"WinNT", Keys::Engine, L"7.0", false,
     L"QcVersion_1_0_0_0.exe", 0, {}, nullptr},
    {"Version701IsNot70", L"WinNT", Keys::Engine, L"7.0.1", true, nullptr, 0, {}, nullptr},
    {"Version75SetsNothing", L"WinNT", Keys::Engine, L"7.5", true, nullptr, 0, {}, nullptr},
    {"Version80SetsNothing", L"WinNT", Keys::Engine, L"8.0", true, nullptr, 0, {}, nullptr},
    {"EmptyVersionSetsNothing", L"WinNT", Keys::Engine, L"", true, nullptr, 0, {}, nullptr},
    {"WithoutBothKeysFails", L"WinNT", Keys::None, L"7.6", false, nullptr, 1603,
     {kNoFirstKey, Error(L"Open registry key .lumen RDP engine failed with error {LastError}")}, nullptr},
    {"KeyIn32BitViewOnlyIsNoKey", L"WinNT", Keys::EngineIn32BitView, L"7.6", false, nullptr, 1603,
     {kNoFirstKey, Error(L"Open registry key .lumen RDP engine failed with error {LastError}")}, nullptr},
    {"WithoutDisplayVersionFails", L"WinNT", Keys::Engine, nullptr, false, nullptr, 1603,
     {Error(L"Query registry value failed with error {LastError}")}, nullptr},
};

INSTANTIATE_TEST_SUITE_P(Cases, EngineVersion, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

} // namespace
} // namespace QcTest
