// Prints the cost of the action frame and of logging; it measures, it asserts nothing.
//   QcActionBenchmark.exe [seconds per figure, default 2]
#include <windows.h>
#include <msiquery.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ActionHost.h"
#include "logging/Log.h"
#include "logging/msi/LogStreamMsi.h"
#include "support/LogCapture.h"
#include "support/ShippedDll.h"

namespace {

using Clock = std::chrono::steady_clock;

double g_Seconds = 2.0;

// Calls `step` until the time is up; returns calls per second.
template <typename Step>
double Rate(Step step)
{
    const auto start = Clock::now();
    const auto until = start + std::chrono::duration<double>(g_Seconds);
    uint64_t calls = 0;
    for (;;)
    {
        for (int i = 0; i < 50; ++i, ++calls)
        {
            step();
        }
        const auto now = Clock::now();
        if (now >= until)
        {
            return static_cast<double>(calls) / std::chrono::duration<double>(now - start).count();
        }
    }
}

// What an action cannot avoid: reading one property with the size query and
// the read, and sending its log records.
void BareInstallerCalls(MSIHANDLE hInstall, int records)
{
    wchar_t empty[1] = {L'\0'};
    DWORD cch = 0;
    MsiGetPropertyW(hInstall, L"CustomActionData", empty, &cch);
    std::wstring value(cch + 1, L'\0');
    cch += 1;
    MsiGetPropertyW(hInstall, L"CustomActionData", &value[0], &cch);
    for (int i = 0; i < records; ++i)
    {
        const MSIHANDLE hRecord = MsiCreateRecord(2);
        MsiRecordSetStringW(hRecord, 0, L"[1]");
        MsiRecordSetStringW(hRecord, 1, L"22.11.2026 00:00:00 PID(0x20) TID(0x24) Workbench (125) Processing.");
        MsiProcessMessage(hInstall, INSTALLMESSAGE_INFO, hRecord);
        MsiCloseHandle(hRecord);
    }
}

void CompareWithBaseline(const char* name, QcRunner::CustomActionFunction action, int records)
{
    QcRunner::CActionHost host;
    host.SetProperty(L"VersionA", L"2.10.3.4");
    host.SetProperty(L"VersionB", L"2.10.3.5");
    const double actionRate = Rate([&] {
        host.Call(action);
        host.ClearCaptured();
    });
    const double bareRate = Rate([&] { BareInstallerCalls(host.Session(), records); });
    std::printf("%-24s %10.0f calls/s   bare installer calls %10.0f calls/s   ratio %.2f\n", name, actionRate, bareRate,
                bareRate / actionRate);
}

// The logger's line keeps the capacity of the longest line it ever built; one
// "CustomActionData" value of a million characters (logged whole by the
// validation, which then refuses the single pair) must not make every later
// entry of the process pay for that capacity.
void AfterOneLongLine(const QcRunner::CActionLibrary& library)
{
    QcRunner::CActionHost host;
    const auto version = library.Find("GetCustomActionVersion");
    const auto rate = [&] {
        return Rate([&] {
            host.Call(version);
            host.ClearCaptured();
        });
    };
    const double before = rate();
    host.SetCustomActionData(L";RULENAME=" + std::wstring(1000000, L'x'));
    host.Call(library.Find("RemovePortException"));
    host.ClearCaptured();
    host.SetCustomActionData(L"");
    const double after = rate();
    std::printf("GetCustomActionVersion   %10.0f calls/s before a line of 1,000,000 characters, %10.0f after\n", before,
                after);
}

constexpr int kLinesPerCall = 200;

UINT __stdcall LogLines(MSIHANDLE)
{
    for (int i = 0; i < kLinesPerCall; ++i)
    {
        QC_LOG_INFO(L"Benchmark") << L"Argument[SERVICENAME] = " << L"Spooler" << static_cast<uint32_t>(i);
    }
    return 0;
}

void LogLinesPerSecond(int threadCount)
{
    std::vector<std::unique_ptr<QcRunner::CActionHost>> hosts;
    for (int i = 0; i < threadCount; ++i)
    {
        hosts.push_back(std::make_unique<QcRunner::CActionHost>());
    }
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> lines{0};
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i)
    {
        threads.emplace_back([&, i] {
            (void)g_MsiLogStream.Bind(hosts[i]->Session());
            while (!stop.load())
            {
                LogLines(0);
                lines += kLinesPerCall;
            }
            g_MsiLogStream.Unbind();
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(g_Seconds));
    stop = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("log lines, %d thread%s        %10.0f lines/s\n", threadCount, threadCount == 1 ? " " : "s",
                static_cast<double>(lines.load()) / seconds);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc > 1)
    {
        g_Seconds = _wtof(argv[1]) > 0 ? _wtof(argv[1]) : g_Seconds;
    }
    QcRunner::CActionLibrary library(QcTest::ShippedDllPath());
    if (!library.IsLoaded())
    {
        std::printf("cannot load the DLL\n");
        return 1;
    }
    WIN32_FILE_ATTRIBUTE_DATA attributes{};
    if (GetFileAttributesExW(QcTest::ShippedDllPath().c_str(), GetFileExInfoStandard, &attributes))
    {
        std::printf("Quillcast.Common.System.dll: %lu bytes (stripped; its symbols are in the .debug file beside it)\n",
                    attributes.nFileSizeLow);
    }
    std::printf("Actions through the in-process host (one session), %.1f s per figure:\n", g_Seconds);
    CompareWithBaseline("GetCustomActionVersion", library.Find("GetCustomActionVersion"), 1);
    CompareWithBaseline("CompareVersionString", library.Find("CompareVersionString"), 2);
    AfterOneLongLine(library);

    std::printf("Logger into installer sessions (each thread its own session):\n");
    QcTest::CLogCapture logger(&g_MsiLogStream); // the logger the DLL installs at load
    LogLinesPerSecond(1);
    LogLinesPerSecond(8);
    return 0;
}
