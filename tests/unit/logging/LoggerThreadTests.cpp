#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <cwchar>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "logging/DefaultLogger.h"
#include "logging/LogPostfixPoint.h"
#include "support/CapturingStream.h"
#include "support/LogCapture.h"

using Quillcast::Logging::CDefaultLogger;

namespace {

std::wstring ExpectedBody(uint32_t thread, uint32_t line)
{
    return L"[WARNING] Worker (" + std::to_wstring(thread) + L") line " + std::to_wstring(line) + L" " +
           std::wstring(40, static_cast<wchar_t>(L'a' + thread)) + L" end.";
}

DWORD ThreadIdOf(const std::wstring& line)
{
    const size_t at = line.find(L"TID(0x");
    return at == std::wstring::npos ? 0 : static_cast<DWORD>(::wcstoul(line.c_str() + at + 6, nullptr, 16));
}

} // namespace

TEST(LoggerThreads, ConcurrentEntriesComeOutWholeAndInOrderPerThread)
{
    constexpr uint32_t kThreads = 6;
    constexpr uint32_t kLines = 500;
    QcTest::CCapturingStream stream;
    CDefaultLogger logger(&stream);
    logger.AddPostfix(Quillcast::Logging::CLogPostfixPoint());

    std::vector<DWORD> threadIds(kThreads);
    std::atomic<uint32_t> ready{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([&, t] {
            threadIds[t] = ::GetCurrentThreadId();
            const std::wstring padding(40, static_cast<wchar_t>(L'a' + t));
            ++ready;
            while (ready.load() < kThreads)
            {
                std::this_thread::yield();
            }
            for (uint32_t i = 0; i < kLines; ++i)
            {
                // Many small appends per entry, so that unserialised entries would mix.
                logger.Begin(2);
                logger.Source(L"Worker", t);
                logger.Append(L"line ");
                logger.Append(i);
                logger.Append(L" ");
                logger.Append(padding.c_str());
                logger.Append(L" end");
                logger.End(false);
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    ASSERT_EQ(stream.m_Lines.size(), kThreads * kLines);
    std::map<DWORD, uint32_t> threadOf;
    for (uint32_t t = 0; t < kThreads; ++t)
    {
        threadOf[threadIds[t]] = t;
    }
    std::vector<uint32_t> nextLine(kThreads, 0);
    int failures = 0;
    for (const std::wstring& line : stream.m_Lines)
    {
        const auto found = threadOf.find(ThreadIdOf(line));
        ASSERT_NE(found, threadOf.end()) << line;
        const uint32_t t = found->second;
        if (QcTest::WithoutPrefixes(line) != ExpectedBody(t, nextLine[t]) && ++failures <= 5)
        {
            ADD_FAILURE() << "thread " << t << " line " << nextLine[t] << ": " << line;
        }
        ++nextLine[t];
    }
    EXPECT_EQ(failures, 0);
}
