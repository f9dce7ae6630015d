#include <gtest/gtest.h>

#include <windows.h>

#include <regex>
#include <string>

#include "logging/DefaultLogger.h"
#include "logging/LogPostfixPoint.h"
#include "support/CapturingStream.h"

using Quillcast::Logging::CDefaultLogger;
using Quillcast::Logging::CLogPostfixPoint;

namespace {

std::wstring ProcessThreadPrefix()
{
    wchar_t text[64];
    _snwprintf(text, 63, L"PID(0x%X) TID(0x%X) ", static_cast<unsigned>(GetCurrentProcessId()),
               static_cast<unsigned>(GetCurrentThreadId()));
    return text;
}

} // namespace

TEST(LoggerLayout, ErrorEntryHasDateThreadMarkerSourceBodyAndPoint)
{
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    logger.AddPostfix(CLogPostfixPoint());

    logger.Begin(1);
    logger.Source(L"MsiArguments", 38).Append(L"Invalid MSI handle");
    logger.End(false);

    ASSERT_EQ(stream.m_Lines.size(), 1u);
    const std::wstring& line = stream.m_Lines[0];
    const std::wregex date(L"^\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d ");
    EXPECT_TRUE(std::regex_search(line, date)) << line;
    EXPECT_EQ(line.substr(20), ProcessThreadPrefix() + L"[ERROR] MsiArguments (38) Invalid MSI handle.");
}
