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

TEST(DaemonObject, NullOrEmptyNameLogsInvalidParameterAndEitherOperationFailsAtItsFirstQuery)
{
    for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L""})
    {
        for (const bool start : {true, false})
        {
            SCOPED_TRACE(::testing::Message() << (name == nullptr ? "null name, " : "empty name, ")
                                              << (start ? "Start" : "Stop"));
            QcTest::CLogCapture log;
            CDaemon daemon(name);
            daemon.SetDependencies(true);

            EXPECT_FALSE(start ? daemon.Start() : daemon.Stop());

            EXPECT_EQ(log.Bodies(), Lines({L"[ERROR] Daemon (#) ERROR_INVALID_PARAMETER.",
                                           L"[ERROR] Daemon (#) QueryServiceStatus failed with error 6."}));
            EXPECT_EQ(daemon.LastError(), 87u);
        }
    }
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
