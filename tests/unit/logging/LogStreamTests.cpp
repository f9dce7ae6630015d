#include <gtest/gtest.h>

#include <windows.h>
#include <msiquery.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "logging/LogStreamMem.h"
#include "logging/msi/LogStreamMsi.h"
#include "support/ImportPatch.h"

using Quillcast::Logging::CLogStreamMem;
using Quillcast::Logging::MSI::CLogStreamMsi;

namespace {

// The installer's answer to each log record; how many records reached it.
int g_Answer = 0;
int g_nMessages = 0;

int WINAPI AnswerMessage(MSIHANDLE, INSTALLMESSAGE, MSIHANDLE)
{
    ++g_nMessages;
    return g_Answer;
}

// Runs the steps one after another, each on the thread it names (0, 1, ...). Every
// thread lives, and keeps its id, until the last step is done.
void RunInTurn(int threads, const std::vector<std::pair<int, std::function<void()>>>& steps)
{
    std::atomic<size_t> next{0};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
    {
        pool.emplace_back([&, t] {
            for (size_t step = next; step < steps.size(); step = next)
            {
                if (steps[step].first == t)
                {
                    steps[step].second();
                    ++next;
                }
                std::this_thread::yield();
            }
        });
    }
    for (std::thread& thread : pool)
    {
        thread.join();
    }
}

} // namespace

TEST(LogStreamMem, WriteGrowsExactlyRefusesAnEmptyWriteAndClearKeepsTheCapacity)
{
    CLogStreamMem line;
    ASSERT_TRUE(line.Write(L"abc", 3));
    EXPECT_FALSE(line.Write(nullptr, 4));
    EXPECT_FALSE(line.Write(L"def", 0));
    ASSERT_TRUE(line.Write(L"defgh", 2));
    EXPECT_EQ(std::wstring(line.Data(), line.Length()), L"abcde");
    EXPECT_EQ(line.Capacity(), 5u);

    line.Clear();
    ASSERT_TRUE(line.Write(L"xy", 2));
    ASSERT_TRUE(line.Terminate());
    EXPECT_EQ(line.Length(), 3u);
    EXPECT_EQ(line.Capacity(), 5u);
    EXPECT_STREQ(line.Data(), L"xy");
}

TEST(LogStreamMsi, EachThreadHasOneEntryThatBindSwitchesAndUnbindRemovesWithoutDisturbingOthers)
{
    CLogStreamMsi stream;
    MSIHANDLE seen[3] = {};
    const auto bind = [&](MSIHANDLE h) { return [&, h] { EXPECT_EQ(stream.Bind(h), h != 0); }; };
    const auto unbind = [&] { stream.Unbind(); };
    const auto look = [&](int t) { return [&, t] { seen[t] = stream.BoundSession(); }; };
    // Thread 3 was never bound: its unbinding changes nothing.
    RunInTurn(4, {{0, bind(0)}, {0, bind(100)}, {0, bind(101)}, {1, bind(102)}, {2, bind(103)}, {3, unbind},
                  {1, unbind}, {0, look(0)}, {1, look(1)}, {2, look(2)}});
    EXPECT_EQ(stream.BindingCount(), 2u);
    EXPECT_EQ(seen[0], 101u);
    EXPECT_EQ(seen[1], 0u);
    EXPECT_EQ(seen[2], 103u);
}

TEST(LogStreamMsi, ConcurrentBindingsNeverSeeEachOther)
{
    CLogStreamMsi stream;
    std::atomic<uint32_t> ready{0}, mismatches{0};
    std::vector<std::thread> threads;
    for (MSIHANDLE hOwn = 1000; hOwn < 1008; ++hOwn)
    {
        threads.emplace_back([&, hOwn] {
            // Start together, so that the table really is changed by several threads at once.
            for (++ready; ready < 8;)
            {
                std::this_thread::yield();
            }
            for (int i = 0; i < 20000; ++i)
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

TEST(LogStreamMsi, WriteNeedsTextAndABoundThreadAndSucceedsOnlyWhenTheInstallerAnswers0OrIdok)
{
    const QcTest::CImportPatch patch(::GetModuleHandleW(nullptr), "msi.dll", "MsiProcessMessage",
                                     reinterpret_cast<const void*>(&AnswerMessage));
    ASSERT_TRUE(patch.IsApplied());
    g_nMessages = 0;
    CLogStreamMsi stream;
    EXPECT_FALSE(stream.Write(L"line", 4));
    ASSERT_TRUE(stream.Bind(0x7FFF4321));
    EXPECT_FALSE(stream.Write(nullptr, 4));
    EXPECT_FALSE(stream.Write(L"line", 0));
    EXPECT_EQ(g_nMessages, 0);
    for (const int answer : {0, IDOK, -1, IDCANCEL, IDABORT, IDNO})
    {
        g_Answer = answer;
        EXPECT_EQ(stream.Write(L"line", 4), answer == 0 || answer == IDOK) << answer;
    }
    EXPECT_EQ(g_nMessages, 6);
    stream.Unbind();
}
