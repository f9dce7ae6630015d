#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "system/FileVersion.h"

using Quillcast::System::CFileVersion;

namespace {

// The resource-only test DLLs are built next to the test program.
std::wstring TestFile(const wchar_t* name)
{
    wchar_t path[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, length);
    return folder.substr(0, folder.find_last_of(L'\\') + 1) + name;
}

} // namespace

TEST(FileVersion, TextIsTheFileVersionWhateverProductVersionAndStringsSay)
{
    QcTest::CLogCapture log;
    CFileVersion version(TestFile(L"qc_test_version1234.dll").c_str());
    EXPECT_EQ(version.Error(), 0u);
    EXPECT_STREQ(version.Text(), L"1.2.3.4");
    ASSERT_NE(version.FixedInfo(), nullptr);
    EXPECT_EQ(version.FixedInfo()->dwProductVersionMS, 0x00090008u);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(FileVersion, WordsUseTheFullUnsignedSixteenBitRange)
{
    CFileVersion version(TestFile(L"qc_test_versionmax.dll").c_str());
    EXPECT_EQ(version.Error(), 0u);
    EXPECT_STREQ(version.Text(), L"65535.65535.65535.65534");
}

TEST(FileVersion, FileWithoutVersionResourceIsLoggedWithTheSystemsCode)
{
    const std::wstring path = TestFile(L"qc_test_noversion.dll");
    // Which code is the platform's choice (Wine answers 1812 here): ask the system itself.
    DWORD dwHandle = 0;
    ::SetLastError(0);
    ASSERT_EQ(::GetFileVersionInfoSizeW(path.c_str(), &dwHandle), 0u);
    const DWORD dwExpected = ::GetLastError();
    ASSERT_NE(dwExpected, 0u);

    QcTest::CLogCapture log;
    CFileVersion version(path.c_str());
    EXPECT_EQ(version.Error(), dwExpected);
    EXPECT_STREQ(version.Text(), L"");
    EXPECT_EQ(version.FixedInfo(), nullptr);
    EXPECT_EQ(log.Bodies(), std::vector<std::wstring>{L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error " +
                                                      std::to_wstring(dwExpected) + L"."});
}

TEST(FileVersion, MissingFileIsLoggedWithFileNotFound)
{
    QcTest::CLogCapture log;
    CFileVersion version(TestFile(L"qc_test_absent.dll").c_str());
    EXPECT_EQ(version.Error(), static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
    EXPECT_STREQ(version.Text(), L"");
    EXPECT_EQ(log.Bodies(),
              std::vector<std::wstring>{L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed with error 2."});
}

TEST(FileVersion, NullOrEmptyPathIsAnInvalidParameterWithoutLogEntry)
{
    QcTest::CLogCapture log;
    for (const wchar_t* path : {static_cast<const wchar_t*>(nullptr), L""})
    {
        CFileVersion version(path);
        EXPECT_EQ(version.Error(), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
        EXPECT_STREQ(version.Text(), L"");
        EXPECT_EQ(version.FixedInfo(), nullptr);
    }
    EXPECT_TRUE(log.Lines().empty());
}
