#include <gtest/gtest.h>

#include <windows.h>
#include <msiquery.h>

#include <atomic>
#include <thread>
#include <vector>

#include "logging/msi/LogStreamMsi.h"
#include "support/ImportPatch.h"

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

} // namespace

TEST(LogStreamMsi, EachThreadHasOneEntryThatBindSwitchesAndUnbindRemovesWithoutDisturbingOthers)
{
    CLogStreamMsi stream;
    EXPECT_FALSE(stream.Bind(0));
    stream.Unbind();
    EXPECT_EQ(stream.BindingCount(), 0u);
    ASSERT_TRUE(stream.Bind(100));
    ASSERT_TRUE(stream.Bind(101));
    EXPECT_EQ(stream.BindingCount(), 1u);
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
                // A second unbinding finds no entry of its own and must change nothing.
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
    EXPECT_EQ(stream.BoundSession(), 101u);
    // An entry after this thread's (its thread gone, the entry kept) stays when this one goes.
    std::thread([&stream] { EXPECT_TRUE(stream.Bind(7)); }).join();
    stream.Unbind();
    EXPECT_EQ(stream.BoundSession(), 0u);
    EXPECT_EQ(stream.BindingCount(), 1u);
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
