// The version comparison worker where no installer session can provide its properties.
#include <gtest/gtest.h>

#include <windows.h>

#include "actions/Workers.h"
#include "support/LogCapture.h"

TEST(CompareVersionStringWorker, UnreadablePropertyFailsWithTheThreadsLastErrorAndWritesNothing)
{
    QcTest::CLogCapture log;
    Quillcast::Host::CWorkbench workbench(0);
    const DWORD dwMarker = 4242;
    SetLastError(dwMarker);
    EXPECT_EQ(Quillcast::Actions::CompareVersionStringWorker(&workbench), 1603u);
    const DWORD dwLastError = GetLastError();
    // The argument read's own entry, then the worker's.
    EXPECT_EQ(log.Bodies(), (std::vector<std::wstring>{
                                L"[ERROR] MsiArguments (#) Invalid MSI handle.",
                                L"[ERROR] Various (#) MsiGetProperty VersionA failed with error " +
                                    std::to_wstring(dwLastError) + L".",
                            }));
    // The number is the thread's last-error value, not the installer's answer
    // (ERROR_INVALID_HANDLE), as installer logs have always shown it.
    EXPECT_EQ(dwLastError, dwMarker);
}
