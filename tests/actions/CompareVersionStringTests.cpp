// The version comparison worker where no installer session can provide its properties.
#include <gtest/gtest.h>

#include <windows.h>

#include "actions/Workers.h"
#include "logging/DefaultLogger.h"
#include "logging/Log.h"
#include "logging/LogPostfixPoint.h"
#include "support/CapturingStream.h"

namespace {

class CapturedLog
{
public:
    CapturedLog() : m_pPrevious(g_pLogger), m_Logger(&m_Stream)
    {
        m_Logger.AddPostfix(Quillcast::Logging::CLogPostfixPoint());
        g_pLogger = &m_Logger;
    }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;
    ~CapturedLog() { g_pLogger = m_pPrevious; }
    const std::vector<std::wstring>& Lines() const { return m_Stream.m_Lines; }

private:
    Quillcast::Logging::CLogger* m_pPrevious;
    QcTest::CCapturingStream m_Stream;
    Quillcast::Logging::CDefaultLogger m_Logger;
};

} // namespace

TEST(CompareVersionStringWorker, UnreadablePropertyFailsWithTheThreadsLastErrorAndWritesNothing)
{
    CapturedLog log;
    Quillcast::Host::CWorkbench workbench(0);
    const DWORD dwMarker = 4242;
    SetLastError(dwMarker);
    EXPECT_EQ(Quillcast::Actions::CompareVersionStringWorker(&workbench), 1603u);
    const DWORD dwLastError = GetLastError();
    ASSERT_EQ(log.Lines().size(), 2u); // the argument read's own entry, then the worker's
    const std::wstring& line = log.Lines()[1];
    ASSERT_NE(line.find(L"[ERROR] Various ("), std::wstring::npos) << std::string(line.begin(), line.end());
    const std::wstring tail = L") MsiGetProperty VersionA failed with error " + std::to_wstring(dwLastError) + L".";
    EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
    // The number is the thread's last-error value, not the installer's answer
    // (ERROR_INVALID_HANDLE), as installer logs have always shown it.
    EXPECT_EQ(dwLastError, dwMarker);
}
