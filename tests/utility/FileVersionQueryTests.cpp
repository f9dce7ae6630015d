// GetFileVersion: folder and file name from properties, the file version into "GFV_Result".
#include "utility/UtilityTest.h"

namespace QcTest {
namespace {

struct FileVersionCase
{
    const char* behaviour;
    const wchar_t* folderSuffix; // appended to the build's bin folder (without its backslash)
    const wchar_t* name;
    const wchar_t* failingRead; // a property whose read fails; null: none
    UINT result;
    Lines lines; // "{NoResource}": the system's answer for a file without a version resource
    const wchar_t* gfvResult; // "untouched" when the action must not write it
};

class GetFileVersion : public UtilityTest, public ::testing::WithParamInterface<FileVersionCase>
{
};

TEST_P(GetFileVersion, WritesTheFileVersion)
{
    const FileVersionCase& test = GetParam();
    std::wstring folder = BinFolder();
    folder.pop_back();
    std::unique_ptr<CFailingPropertyRead> failing;
    if (test.failingRead != nullptr)
    {
        failing = std::make_unique<CFailingPropertyRead>(Module(), test.failingRead, false);
        ASSERT_TRUE(failing->IsApplied());
    }
    DWORD handle = 0;
    const std::wstring withoutResource = BinFolder() + L"QcVersionNone.exe";
    ASSERT_EQ(GetFileVersionInfoSizeW(withoutResource.c_str(), &handle), 0u);
    const DWORD noResource = GetLastError();

    EXPECT_EQ(Run("GetFileVersion", {{L"GFV_FILEPATH", folder + test.folderSuffix},
                                     {L"GFV_FILENAME", test.name},
                                     {L"GFV_Result", L"untouched"}}),
              test.result);
    Lines expected = test.lines;
    for (std::wstring& line : expected)
    {
        const size_t at = line.find(L"{NoResource}");
        if (at != std::wstring::npos)
        {
            line.replace(at, 12, std::to_wstring(noResource));
        }
    }
    EXPECT_EQ(ActionLines(), expected);
    EXPECT_EQ(m_Host->GetProperty(L"GFV_Result"), test.gfvResult);
}

const FileVersionCase kCases[] = {
    {"FileVersionOfAVersionResource", L"", L"QcVersion_1_2_3_4.exe", nullptr, 0, {}, L"1.2.3.4"},
    {"FullSixteenBitFields", L"", L"QcVersion_65535_0_0_65535.exe", nullptr, 0, {}, L"65535.0.0.65535"},
    // The folder's own backslash and the joining one make two; the file is still found.
    {"FolderEndingInBackslash", L"\\", L"QcVersion_1_2_3_4.exe", nullptr, 0, {}, L"1.2.3.4"},
    {"FileWithoutVersionResourceGivesEmptyResult", L"", L"QcVersionNone.exe", nullptr, 0,
     {L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error {NoResource}."}, L""},
    {"MissingFileGivesMinusOneAndFails", L"", L"QcMissing.exe", nullptr, 1603,
     {Error(L"Access failed with error 2")}, L"-1"},
    {"MissingFolderGivesMinusOneAndFails", L"\\QcMissingFolder", L"QcVersion_1_2_3_4.exe", nullptr, 1603,
     {Error(L"Access failed with error 3")}, L"-1"},
    {"UnreadableFolderFailsAndWritesNothing", L"", L"QcVersion_1_2_3_4.exe", L"GFV_FILEPATH", 1603,
     {Error(L"MsiGetProperty GFV_FILEPATH failed with error {LastError}")}, L"untouched"},
    {"UnreadableNameFailsAndWritesNothing", L"", L"QcVersion_1_2_3_4.exe", L"GFV_FILENAME", 1603,
     {Error(L"MsiGetProperty GFV_FILENAME failed with error {LastError}")}, L"untouched"},
};

INSTANTIATE_TEST_SUITE_P(Cases, GetFileVersion, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

} // namespace
} // namespace QcTest
