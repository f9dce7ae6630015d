// CDaemon built directly, for the cases the action frame never lets through
// (a null or empty service name) and the operations no action reaches.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "system/Daemon.h"

namespace {

using Quillcast::System::CDaemon;
using Lines = std::vector<std::wstring>;

TEST(DaemonObject, NullNameLogsInvalidParameterAndStartFailsAtTheFirstQuery)
{
    QcTest::CLogCapture log;
    CDaemon daemon(nullptr);
    EXPECT_EQ(daemon.LastError(), 87u);

    EXPECT_FALSE(daemon.Start());

    EXPECT_EQ(log.Bodies(), Lines({L"[ERROR] Daemon (#) ERROR_INVALID_PARAMETER.",
                                   L"[ERROR] Daemon (#) QueryServiceStatus failed with error 6."}));
    EXPECT_EQ(daemon.LastError(), 87u);
}

TEST(DaemonObject, EmptyNameLogsInvalidParameterAndStopFailsAtTheFirstQuery)
{
    QcTest::CLogCapture log;
    CDaemon daemon(L"");
    daemon.SetDependencies(true);

    EXPECT_FALSE(daemon.Stop());

    EXPECT_EQ(log.Bodies(), Lines({L"[ERROR] Daemon (#) ERROR_INVALID_PARAMETER.",
                                   L"[ERROR] Daemon (#) QueryServiceStatus failed with error 6."}));
    EXPECT_EQ(daemon.LastError(), 87u);
}

TEST(DaemonObject, HandleDependenciesWithAnUnknownActionDoesNothingAndSucceeds)
{
    CDaemon daemon(nullptr);
    QcTest::CLogCapture log;

    for (uint32_t action : {0u, 2u, 3u, 5u, 8u})
    {
        EXPECT_TRUE(daemon.HandleDependencies(action)) << action;
    }

    EXPECT_EQ(log.Bodies(), Lines());
    EXPECT_EQ(daemon.LastError(), 87u);
}

} // namespace
