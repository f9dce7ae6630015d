#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "logging/LogStreamMem.h"
#include "logging/msi/LogStreamMsi.h"

using Quillcast::Logging::CLogStreamMem;
using Quillcast::Logging::MSI::CLogStreamMsi;

namespace {

std::wstring TextOf(const CLogStreamMem& line)
{
    return line.Length() == 0 ? L"" : std::wstring(line.Data(), line.Length());
}

// A thread that stays alive (keeping its id) and runs work on request, one item
// at a time, so that a test can step several bound threads in turn.
class CWorkerThread
{
public:
    CWorkerThread() : m_Thread([this] { Loop(); }) {}
    CWorkerThread(const CWorkerThread&) = delete;
    CWorkerThread& operator=(const CWorkerThread&) = delete;
    ~CWorkerThread()
    {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_bStop = true;
        }
        m_Changed.notify_all();
        m_Thread.join();
    }

    // Runs `work` on this thread and waits for it to finish.
    void Run(std::function<void()> work)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Work = std::move(work);
        m_Changed.notify_all();
        m_Changed.wait(lock, [this] { return !m_Work; });
    }

private:
    void Loop()
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        for (;;)
        {
            m_Changed.wait(lock, [this] { return m_bStop || m_Work; });
            if (!m_Work)
            {
                return;
            }
            m_Work();
            m_Work = nullptr;
            m_Changed.notify_all();
        }
    }

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::function<void()> m_Work;
    bool m_bStop = false;
    std::thread m_Thread;
};

} // namespace

TEST(LogStreamMem, WriteWithoutTextOrLengthFailsAndKeepsTheLine)
{
    CLogStreamMem line;
    ASSERT_TRUE(line.Write(L"abc", 3));
    EXPECT_FALSE(line.Write(nullptr, 4));
    EXPECT_FALSE(line.Write(L"def", 0));
    EXPECT_EQ(TextOf(line), L"abc");
    EXPECT_EQ(line.Capacity(), 3u);
}

TEST(LogStreamMem, WriteGrowsExactlyByTheGivenLength)
{
    CLogStreamMem line;
    ASSERT_TRUE(line.Write(L"abc", 3));
    EXPECT_EQ(line.Length(), 3u);
    EXPECT_EQ(line.Capacity(), 3u);
    ASSERT_TRUE(line.Write(L"defgh", 2));
    EXPECT_EQ(line.Length(), 5u);
    EXPECT_EQ(line.Capacity(), 5u);
    EXPECT_EQ(TextOf(line), L"abcde");
}

TEST(LogStreamMem, ClearKeepsTheCapacityAndTerminateAddsOneZero)
{
    CLogStreamMem line;
    ASSERT_TRUE(line.Write(L"abcdef", 6));
    line.Clear();
    EXPECT_EQ(line.Length(), 0u);
    EXPECT_EQ(line.Capacity(), 6u);
    ASSERT_TRUE(line.Write(L"xy", 2));
    EXPECT_EQ(line.Capacity(), 6u);
    ASSERT_TRUE(line.Terminate());
    EXPECT_EQ(line.Length(), 3u);
    EXPECT_STREQ(line.Data(), L"xy");
}

TEST(LogStreamMsi, BindingHandleZeroIsRefusedAndAddsNothing)
{
    CLogStreamMsi stream;
    EXPECT_FALSE(stream.Bind(0));
    EXPECT_EQ(stream.BindingCount(), 0u);
    EXPECT_EQ(stream.BoundSession(), 0u);
}

TEST(LogStreamMsi, BindingAgainSwitchesTheSessionOfTheOneEntry)
{
    CLogStreamMsi stream;
    ASSERT_TRUE(stream.Bind(101));
    ASSERT_TRUE(stream.Bind(202));
    EXPECT_EQ(stream.BindingCount(), 1u);
    EXPECT_EQ(stream.BoundSession(), 202u);
    EXPECT_FALSE(stream.Bind(0));
    EXPECT_EQ(stream.BoundSession(), 202u);
    stream.Unbind();
    EXPECT_EQ(stream.BindingCount(), 0u);
}

TEST(LogStreamMsi, UnbindingRemovesOnlyTheCallingThread)
{
    CLogStreamMsi stream;
    CWorkerThread a, b, c;
    a.Run([&] { EXPECT_TRUE(stream.Bind(101)); });
    b.Run([&] { EXPECT_TRUE(stream.Bind(102)); });
    c.Run([&] { EXPECT_TRUE(stream.Bind(103)); });
    ASSERT_EQ(stream.BindingCount(), 3u);

    // This thread was never bound: nothing changes.
    stream.Unbind();
    EXPECT_EQ(stream.BindingCount(), 3u);

    b.Run([&] { stream.Unbind(); });
    EXPECT_EQ(stream.BindingCount(), 2u);
    MSIHANDLE sessions[3] = {};
    a.Run([&] { sessions[0] = stream.BoundSession(); });
    b.Run([&] { sessions[1] = stream.BoundSession(); });
    c.Run([&] { sessions[2] = stream.BoundSession(); });
    EXPECT_EQ(sessions[0], 101u);
    EXPECT_EQ(sessions[1], 0u);
    EXPECT_EQ(sessions[2], 103u);

    c.Run([&] { stream.Unbind(); });
    b.Run([&] { EXPECT_TRUE(stream.Bind(104)); });
    a.Run([&] { sessions[0] = stream.BoundSession(); });
    b.Run([&] { sessions[1] = stream.BoundSession(); });
    EXPECT_EQ(stream.BindingCount(), 2u);
    EXPECT_EQ(sessions[0], 101u);
    EXPECT_EQ(sessions[1], 104u);
    a.Run([&] { stream.Unbind(); });
    b.Run([&] { stream.Unbind(); });
    EXPECT_EQ(stream.BindingCount(), 0u);
}

TEST(LogStreamMsi, ConcurrentBindingsNeverSeeEachOther)
{
    constexpr uint32_t kThreads = 8;
    CLogStreamMsi stream;
    std::atomic<uint32_t> mismatches{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([&, t] {
            const MSIHANDLE hOwn = 1000 + t;
            for (int i = 0; i < 2000; ++i)
            {
                mismatches += !stream.Bind(hOwn) || stream.BoundSession() != hOwn;
                stream.Unbind();
                mismatches += stream.BoundSession() != 0;
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(mismatches.load(), 0u);
    EXPECT_EQ(stream.BindingCount(), 0u);
}

TEST(LogStreamMsi, WriteFailsWithoutTextOrABoundSession)
{
    CLogStreamMsi stream;
    EXPECT_FALSE(stream.Write(L"line", 4));

    ASSERT_TRUE(stream.Bind(0x7FFF4321));
    EXPECT_FALSE(stream.Write(nullptr, 4));
    EXPECT_FALSE(stream.Write(L"line", 0));
    // Bound, but to a handle that is no installer session.
    EXPECT_FALSE(stream.Write(L"line", 4));
    stream.Unbind();
}
