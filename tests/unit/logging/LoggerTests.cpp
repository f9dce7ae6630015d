#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cwchar>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "logging/DefaultLogger.h"
#include "logging/Log.h"
#include "logging/LogPostfixPoint.h"
#include "support/LogCapture.h"

using Quillcast::Logging::CDefaultLogger;
using Quillcast::Logging::CLogger;
using Quillcast::Logging::CLogPostfixPoint;
using Quillcast::Logging::CLogPrefix;
using Quillcast::System::IO::COutputStream;
using Lines = std::vector<std::wstring>;

namespace {

// A prefix or postfix with a fixed text; one that cannot be cloned plays a clone that failed for lack of memory.
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

void LogEntry(CLogger& logger, uint32_t level, const std::function<void(CLogger&)>& append, bool bNoPostfix = false)
{
    logger.Begin(level);
    append(logger);
    logger.End(bNoPostfix);
}

} // namespace

// Between the prefixes and the postfixes, each in attach order, exactly what was appended.
TEST(LoggerLayout, EveryAppendWritesItsFormatBetweenCopiesOfThePrefixesAndPostfixes)
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
    const std::pair<std::function<void(CLogger&)>, std::wstring> cases[] = {
        {[](CLogger& log) { log.Append(true); }, L"True"},
        {[](CLogger& log) { log.Append(false); }, L"False"},
        {[](CLogger& log) { log.Append(static_cast<uint32_t>(UINT32_MAX)); }, L"4294967295"},
        {[](CLogger& log) { log.AppendHex(0xDEADBEEF); }, L"DEADBEEF"},
        // Only the low 32 bits of a 64-bit number appear.
        {[](CLogger& log) { log.Append(static_cast<uint64_t>(0x100000005ull)); }, L"5"},
        {[](CLogger& log) { log.Append(static_cast<int32_t>(INT32_MIN)); }, L"-2147483648"},
        {[](CLogger& log) { log.Append("narrow text"); }, L"narrow text"},
        {[](CLogger& log) { log.Append(CTextPiece(L"piece")); }, L"piece"},
        {[](CLogger& log) { log.Source(L"Daemon", 4294967295u); }, L"Daemon (4294967295) "},
        {[](CLogger& log) { log.Append(static_cast<const wchar_t*>(nullptr)); }, L""},
        {[](CLogger& log) { log.Append(static_cast<const char*>(nullptr)); }, L""},
    };
    for (const auto& [append, expected] : cases)
    {
        stream.m_Lines.clear();
        LogEntry(logger, 2, append);
        EXPECT_EQ(stream.m_Lines.size() == 1 ? QcTest::WithoutPrefixes(stream.m_Lines[0]) : L"?",
                  L"<one> <two> [WARNING] " + expected + L"|tail.");
    }
    LogEntry(
        logger, 4, [](CLogger& log) { log.Append(L"bare"); }, true);
    EXPECT_EQ(QcTest::WithoutPrefixes(stream.m_Lines.back()), L"<one> <two> bare");
}

TEST(LogMacros, EntryCarriesDateThreadLevelSourceAndStreamedValuesKeepsTheLastErrorAndNeedsALogger)
{
    QcTest::CLogCapture log;
    SYSTEMTIME before{}, after{}, logged{};
    ::GetLocalTime(&before);
    ::SetLastError(5);
    QC_LOG_ERROR(L"Daemon") << L"OpenService failed with error " << ::GetLastError() << L" / " << DWORD{1060};
    EXPECT_EQ(::GetLastError(), 5u);
    QC_LOG_WARNING(L"Shell") << "narrow " << -3 << L" " << true;
    QC_LOG_INFO(L"Various") << static_cast<uint64_t>(12) << L" " << static_cast<uint16_t>(65535);
    // The point follows even a body that ends in one; a level outside the mask writes nothing.
    QC_LOG_DETAIL(L"Various") << L"detail.";
    QC_LOG(16, L"Various") << L"masked";
    ::GetLocalTime(&after);

    CLogger* pInstalled = g_pLogger;
    g_pLogger = nullptr;
    ::SetLastError(1603);
    QC_LOG_ERROR(L"Daemon") << L"dropped " << 1u;
    EXPECT_EQ(::GetLastError(), 1603u);
    g_pLogger = pInstalled;
    EXPECT_EQ(log.Bodies(),
              (Lines{L"[ERROR] Daemon (#) OpenService failed with error 5 / 1060.",
                     L"[WARNING] Shell (#) narrow -3 True.", L"Various (#) 12 65535.", L"Various (#) detail.."}));
    // Day first, then month, year and the 24-hour clock, then this process and thread.
    const std::wstring& line = log.Lines()[0];
    EXPECT_TRUE(QcTest::IsWholeLine(line, ::GetCurrentThreadId())) << line;
    ASSERT_EQ(::swscanf(line.c_str(), L"%2hu.%2hu.%4hu %2hu:%2hu:%2hu ", &logged.wDay, &logged.wMonth, &logged.wYear,
                        &logged.wHour, &logged.wMinute, &logged.wSecond),
              6);
    const auto order = [](const SYSTEMTIME& t) {
        return std::tie(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond);
    };
    EXPECT_TRUE(order(before) <= order(logged) && order(logged) <= order(after)) << line;
}

TEST(LoggerThreads, ConcurrentEntriesComeOutWholeAndInOrderWithTheirOwnThreadId)
{
    constexpr uint32_t kThreads = 6, kLines = 500;
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    logger.AddPostfix(CLogPostfixPoint());
    // Each thread's own lines, in order, behind its own process and thread ids.
    std::vector<std::wstring> expected(kThreads), written(kThreads);
    std::atomic<uint32_t> ready{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < kLines; ++i)
            {
                expected[t] += QcTest::ThreadIds() + L"[WARNING] Worker (" + std::to_wstring(t) + L") line " +
                               std::to_wstring(i) + L" end.\n";
            }
            for (++ready; ready < kThreads;)
            {
                std::this_thread::yield();
            }
            // Many small appends and a yield per entry: unserialised entries mix even on a loaded machine.
            for (uint32_t i = 0; i < kLines; ++i)
            {
                LogEntry(logger, 2, [&](CLogger& log) {
                    log.Source(L"Worker", t).Append(L"line ");
                    std::this_thread::yield();
                    log.Append(i);
                    log.Append(L" end");
                });
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    for (const std::wstring& line : stream.m_Lines)
    {
        uint32_t t = 0;
        ::swscanf(QcTest::WithoutPrefixes(line).c_str(), L"[WARNING] Worker (%u)", &t);
        written[t % kThreads] += line.substr(std::min<size_t>(20, line.size())) + L"\n";
    }
    EXPECT_EQ(written, expected);
}
