#include <gtest/gtest.h>

#include <windows.h>

#include <climits>
#include <cstdint>
#include <cwchar>
#include <functional>
#include <string>
#include <vector>

#include "logging/DefaultLogger.h"
#include "logging/Log.h"
#include "logging/LogPostfixPoint.h"
#include "support/CapturingStream.h"
#include "support/LogCapture.h"

using Quillcast::Logging::CDefaultLogger;
using Quillcast::Logging::CLogger;
using Quillcast::Logging::CLogPostfixPoint;
using Quillcast::Logging::CLogPrefix;
using Quillcast::System::IO::COutputStream;

namespace {

std::wstring ProcessThreadPrefix()
{
    wchar_t text[64] = {};
    ::_snwprintf(text, 63, L"PID(0x%X) TID(0x%X) ", static_cast<unsigned>(::GetCurrentProcessId()),
                 static_cast<unsigned>(::GetCurrentThreadId()));
    return text;
}

ULONGLONG ToSeconds(const SYSTEMTIME& time)
{
    FILETIME fileTime{};
    ::SystemTimeToFileTime(&time, &fileTime);
    return ((static_cast<ULONGLONG>(fileTime.dwHighDateTime) << 32) | fileTime.dwLowDateTime) / 10000000u;
}

// A prefix or postfix with a fixed text; one that cannot be cloned plays a
// clone that failed for lack of memory.
class CTextPiece : public CLogPrefix
{
public:
    explicit CTextPiece(const wchar_t* pText, bool bClonable = true) : m_pText(pText), m_bClonable(bClonable) {}
    void Write(COutputStream<wchar_t>& stream) const override
    {
        stream.Write(m_pText, static_cast<uint32_t>(::wcslen(m_pText)));
    }
    CLogable* Clone() const override { return m_bClonable ? new CTextPiece(*this) : nullptr; }

private:
    const wchar_t* m_pText;
    bool m_bClonable;
};

// A logger without postfix, so that a line is the prefixes followed by exactly what was appended.
class LoggerAppend : public ::testing::Test
{
protected:
    std::wstring Logged(const std::function<void(CLogger&)>& append)
    {
        m_Stream.m_Lines.clear();
        m_Logger.Begin(Quillcast::Logging::LOG_LEVEL_INFO);
        append(m_Logger);
        m_Logger.End(false);
        EXPECT_EQ(m_Stream.m_Lines.size(), 1u);
        return m_Stream.m_Lines.empty() ? L"" : QcTest::WithoutPrefixes(m_Stream.m_Lines.back());
    }

    QcTest::CCapturingStream m_Stream;
    CDefaultLogger m_Logger{&m_Stream};
};

} // namespace

TEST(LoggerLayout, ErrorEntryHasDateThreadMarkerSourceBodyAndPoint)
{
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    logger.AddPostfix(CLogPostfixPoint());

    SYSTEMTIME before{}, after{};
    ::GetLocalTime(&before);
    logger.Begin(1);
    logger.Source(L"MsiArguments", 38).Append(L"Invalid MSI handle");
    logger.End(false);
    ::GetLocalTime(&after);

    ASSERT_EQ(stream.m_Lines.size(), 1u);
    const std::wstring& line = stream.m_Lines[0];
    ASSERT_GT(QcTest::PrefixLength(line), 0u) << line;
    EXPECT_EQ(line.substr(20), ProcessThreadPrefix() + L"[ERROR] MsiArguments (38) Invalid MSI handle.");

    // Day first, then month, year, and the 24-hour clock.
    SYSTEMTIME logged{};
    ASSERT_EQ(::swscanf(line.c_str(), L"%2hu.%2hu.%4hu %2hu:%2hu:%2hu ", &logged.wDay, &logged.wMonth, &logged.wYear,
                        &logged.wHour, &logged.wMinute, &logged.wSecond),
              6);
    EXPECT_GE(ToSeconds(logged), ToSeconds(before)) << line;
    EXPECT_LE(ToSeconds(logged), ToSeconds(after)) << line;
}

TEST(LoggerLayout, OnlyErrorsAndWarningsCarryAMarkerAndEveryLevelIsWritten)
{
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    logger.AddPostfix(CLogPostfixPoint());
    const struct
    {
        uint32_t level;
        const wchar_t* expected;
    } cases[] = {{1, L"[ERROR] Workbench (7) body."},
                 {2, L"[WARNING] Workbench (7) body."},
                 {4, L"Workbench (7) body."},
                 {8, L"Workbench (7) body."}};
    for (const auto& sample : cases)
    {
        logger.Begin(sample.level);
        logger.Source(L"Workbench", 7).Append(L"body");
        logger.End(false);
        ASSERT_FALSE(stream.m_Lines.empty());
        EXPECT_EQ(QcTest::WithoutPrefixes(stream.m_Lines.back()), sample.expected) << sample.level;
    }
    EXPECT_EQ(stream.m_Lines.size(), 4u);
}

TEST(LoggerLayout, LevelOutsideTheMaskWritesNothing)
{
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    logger.Begin(16);
    logger.Source(L"Workbench", 7).Append(L"hidden");
    logger.End(false);
    EXPECT_TRUE(stream.m_Lines.empty());
}

TEST(LoggerLayout, BodyEndingInAPointEndsInTwoPoints)
{
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    logger.AddPostfix(CLogPostfixPoint());
    logger.Begin(1);
    logger.Source(L"Process", 12).Append(L"Converting 3 characters failed.");
    logger.End(false);
    ASSERT_EQ(stream.m_Lines.size(), 1u);
    EXPECT_EQ(QcTest::WithoutPrefixes(stream.m_Lines[0]), L"[ERROR] Process (12) Converting 3 characters failed..");
}

TEST(LoggerLayout, PrefixesAndPostfixesAreWrittenInAttachOrderAsCopies)
{
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    {
        // The temporaries die here: the logger must hold its own copies.
        logger.AddPrefix(CTextPiece(L"<one> "));
        logger.AddPrefix(CTextPiece(L"<never> ", false));
        logger.AddPrefix(CTextPiece(L"<two> "));
        logger.AddPostfix(CTextPiece(L"|tail"));
        logger.AddPostfix(CLogPostfixPoint());
    }
    logger.Begin(2);
    logger.Source(L"Shell", 3).Append(L"body");
    logger.End(false);
    logger.Begin(4);
    logger.Append(L"bare");
    logger.End(true);

    ASSERT_EQ(stream.m_Lines.size(), 2u);
    EXPECT_EQ(QcTest::WithoutPrefixes(stream.m_Lines[0]), L"<one> <two> [WARNING] Shell (3) body|tail.");
    EXPECT_EQ(QcTest::WithoutPrefixes(stream.m_Lines[1]), L"<one> <two> bare");
}

TEST(LoggerLayout, BeginDiscardsThePreviousLine)
{
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    logger.Begin(4);
    logger.Append(L"first");
    logger.End(false);
    logger.Begin(4);
    logger.Append(L"second");
    logger.End(false);
    ASSERT_EQ(stream.m_Lines.size(), 2u);
    EXPECT_EQ(QcTest::WithoutPrefixes(stream.m_Lines[1]), L"second");
    EXPECT_EQ(stream.m_Lines[1].size(), QcTest::PrefixLength(stream.m_Lines[1]) + 6);
}

TEST_F(LoggerAppend, EveryOverloadWritesItsFormat)
{
    const struct
    {
        std::function<void(CLogger&)> append;
        const wchar_t* expected;
    } cases[] = {
        {[](CLogger& log) { log.Append(true); }, L"True"},
        {[](CLogger& log) { log.Append(false); }, L"False"},
        {[](CLogger& log) { log.Append(static_cast<uint32_t>(UINT32_MAX)); }, L"4294967295"},
        {[](CLogger& log) { log.Append(static_cast<unsigned long>(ULONG_MAX)); }, L"4294967295"},
        {[](CLogger& log) { log.AppendHex(255); }, L"FF"},
        {[](CLogger& log) { log.AppendHex(0xDEADBEEF); }, L"DEADBEEF"},
        {[](CLogger& log) { log.AppendHex(0); }, L"0"},
        // Only the low 32 bits of a 64-bit number appear.
        {[](CLogger& log) { log.Append(static_cast<uint64_t>(0x100000005ull)); }, L"5"},
        {[](CLogger& log) { log.Append(static_cast<uint64_t>(UINT64_MAX)); }, L"4294967295"},
        {[](CLogger& log) { log.Append(static_cast<int32_t>(INT32_MIN)); }, L"-2147483648"},
        {[](CLogger& log) { log.Append(-7L); }, L"-7"},
        {[](CLogger& log) { log.Append(static_cast<int16_t>(-32768)); }, L"-32768"},
        {[](CLogger& log) { log.Append(static_cast<uint16_t>(65535)); }, L"65535"},
        {[](CLogger& log) { log.Append(static_cast<uint8_t>(255)); }, L"255"},
        {[](CLogger& log) { log.Append(static_cast<uint8_t>(0)); }, L"0"},
        {[](CLogger& log) { log.Append(2.5); }, L"2.500000"},
        {[](CLogger& log) { log.Append(-0.125f); }, L"-0.125000"},
        {[](CLogger& log) { log.Append(1e20); }, L"100000000000000000000.000000"},
        {[](CLogger& log) { log.Append("narrow text"); }, L"narrow text"},
        {[](CLogger& log) { log.Append(CTextPiece(L"piece")); }, L"piece"},
        {[](CLogger& log) { log.Source(L"Daemon", 4294967295u); }, L"Daemon (4294967295) "},
    };
    for (const auto& sample : cases)
    {
        EXPECT_EQ(Logged(sample.append), sample.expected);
    }
}

TEST_F(LoggerAppend, NullOrEmptyTextAppendsNothing)
{
    EXPECT_EQ(Logged([](CLogger& log) {
                  log.Append(L"a");
                  log.Append(static_cast<const wchar_t*>(nullptr));
                  log.Append(static_cast<const char*>(nullptr));
                  log.Append("");
                  log.Append(L"");
                  log.Append(L"b");
              }),
              L"ab");
}

TEST(LogMacros, EntryCarriesLevelSourceAndStreamedValuesAndKeepsTheLastError)
{
    QcTest::CLogCapture log;
    const DWORD dwCode = 1060;
    ::SetLastError(5);
    QC_LOG_ERROR(L"Daemon") << L"OpenService failed with error " << ::GetLastError() << L" / " << dwCode;
    EXPECT_EQ(::GetLastError(), 5u);
    QC_LOG_WARNING(L"Shell") << "narrow " << -3 << L" " << true;
    QC_LOG_INFO(L"Various") << static_cast<uint64_t>(12) << L" " << static_cast<uint16_t>(65535);
    QC_LOG_DETAIL(L"Various") << L"detail";

    EXPECT_EQ(log.Bodies(), (std::vector<std::wstring>{L"[ERROR] Daemon (#) OpenService failed with error 5 / 1060.",
                                                       L"[WARNING] Shell (#) narrow -3 True.",
                                                       L"Various (#) 12 65535.", L"Various (#) detail."}));
}

TEST(LogMacros, WithoutALoggerNothingHappensAndTheLastErrorStays)
{
    QcTest::CLogCapture log;
    CLogger* pInstalled = g_pLogger;
    g_pLogger = nullptr;
    ::SetLastError(1603);
    QC_LOG_ERROR(L"Daemon") << L"dropped " << 1u;
    EXPECT_EQ(::GetLastError(), 1603u);
    g_pLogger = pInstalled;
    EXPECT_TRUE(log.Lines().empty());
}
