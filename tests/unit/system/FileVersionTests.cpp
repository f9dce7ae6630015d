#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "support/LogCapture.h"
#include "system/FileVersion.h"

using Quillcast::System::CFileVersion;

namespace {

// The resource-only test DLLs are built next to the test program.
std::wstring TestFile(const wchar_t* name)
{
    wchar_t path[MAX_PATH] = {};
    const std::wstring program(path, ::GetModuleFileNameW(nullptr, path, MAX_PATH));
    return program.substr(0, program.find_last_of(L'\\') + 1) + name;
}

} // namespace

TEST(FileVersion, TextIsTheFileVersionInFullSixteenBitWordsWhateverProductVersionAndStringsSay)
{
    QcTest::CLogCapture log;
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"qc_test_version1234.dll", L"1.2.3.4"},
        {L"qc_test_versionmax.dll", L"65535.65535.65535.65534"},
    };
    for (const auto& [name, expected] : cases)
    {
        CFileVersion version(TestFile(name).c_str());
        EXPECT_EQ(version.Error(), 0u);
        EXPECT_STREQ(version.Text(), expected);
        ASSERT_NE(version.FixedInfo(), nullptr);
        EXPECT_EQ(version.FixedInfo()->dwSignature, static_cast<DWORD>(VS_FFI_SIGNATURE));
    }
    EXPECT_TRUE(log.Lines().empty());
}

TEST(FileVersion, FileWithoutVersionResourceOrMissingIsLoggedWithTheSystemsCode)
{
    for (const wchar_t* name : {L"qc_test_noversion.dll", L"qc_test_absent.dll"})
    {
        // Which code is the platform's choice (Wine answers 1812 for no resource): ask the system itself.
        const std::wstring path = TestFile(name);
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
        EXPECT_EQ(log.Bodies(), std::vector<std::wstring>{L"[ERROR] FileVersion (#) GetFileVersionInfoSize failed "
                                                          L"with error " + std::to_wstring(dwExpected) + L"."});
    }
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
