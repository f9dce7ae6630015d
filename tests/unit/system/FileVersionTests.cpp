// The reader on real version resources is seen through GetFileVersion and GetEngineVersion (qc_utility_tests).
#include <gtest/gtest.h>

#include <windows.h>

#include "support/LogCapture.h"
#include "system/FileVersion.h"

TEST(FileVersion, WithoutAPathTheErrorIsAnInvalidParameterAndNothingIsLogged)
{
    QcTest::CLogCapture log;
    for (const wchar_t* file : {static_cast<const wchar_t*>(nullptr), L""})
    {
        const Quillcast::System::CFileVersion version(file);
        EXPECT_EQ(version.Error(), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
        EXPECT_STREQ(version.Text(), L"");
        EXPECT_EQ(version.FixedInfo(), nullptr);
    }
    EXPECT_TRUE(log.Lines().empty());
}
