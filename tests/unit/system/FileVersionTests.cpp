#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "system/FileVersion.h"

using Quillcast::System::CFileVersion;

TEST(FileVersion, TextIsTheFileVersionInFullSixteenBitWordsAndEveryFailureIsTheSystemsCode)
{
    wchar_t program[MAX_PATH] = {};
    const std::wstring path(program, ::GetModuleFileNameW(nullptr, program, MAX_PATH));
    const std::wstring folder = path.substr(0, path.find_last_of(L'\\') + 1);
    // The resource-only test DLL is built next to the test program, which has no resources at all.
    const std::pair<std::wstring, const wchar_t*> cases[] = {
        {folder + L"qc_test_version.dll", L"65535.2.32768.65534"}, {path, L""}, {folder + L"absent.dll", L""}};
    for (const auto& [file, expected] : cases)
    {
        // Which code a failure has is the platform's choice: ask the system itself.
        ::SetLastError(0);
        const DWORD dwExpected = ::GetFileVersionInfoSizeW(file.c_str(), nullptr) != 0 ? 0 : ::GetLastError();
        QcTest::CLogCapture log;
        const CFileVersion version(file.c_str());
        EXPECT_EQ(version.Error(), dwExpected);
        EXPECT_STREQ(version.Text(), expected);
        EXPECT_EQ(dwExpected == 0, *expected != L'\0') << "the file's version resource is not as the case needs";
        EXPECT_EQ(version.FixedInfo() != nullptr && version.FixedInfo()->dwSignature == VS_FFI_SIGNATURE,
                  dwExpected == 0);
        const std::wstring failure =
            L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error " + std::to_wstring(dwExpected) + L".";
        EXPECT_EQ(log.Bodies(), dwExpected == 0 ? std::vector<std::wstring>() : std::vector<std::wstring>{failure});
    }
    // Without a path: an invalid parameter, and no log entry.
    QcTest::CLogCapture log;
    for (const wchar_t* file : {static_cast<const wchar_t*>(nullptr), L""})
    {
        const CFileVersion version(file);
        EXPECT_EQ(version.Error(), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
        EXPECT_STREQ(version.Text(), L"");
        EXPECT_EQ(version.FixedInfo(), nullptr);
    }
    EXPECT_TRUE(log.Lines().empty());
}
