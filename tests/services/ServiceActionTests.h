#pragma once

// The shipped DLL's service actions driven through real installer sessions
// against real services of the test run's Wine prefix. Only the dependent
// enumeration, which Wine stubs, is answered by the test (DependentsSeam.h).
#include <gtest/gtest.h>

#include <windows.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "services/DependentsSeam.h"
#include "services/StatusQueryCounter.h"
#include "services/TestServices.h"

namespace QcTest {

// What one action call left behind.
struct ActionOutcome
{
    UINT result = 0;
    std::vector<std::wstring> lines; // raw log records
    DWORD threadId = 0;              // the thread that ran the action
    bool watchdogFired = false;
};

class ServiceActionTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;

    static HMODULE Module();

    // A unique name for this test: "QcSvc_<test>_<role>".
    std::wstring Name(const std::wstring& role) const;
    // Registers a service for this test (deleted when the test ends).
    CTestService& Add(const std::wstring& role, const std::wstring& options = L"",
                      DWORD startType = SERVICE_DEMAND_START, const std::vector<std::wstring>& dependsOn = {});
    CTestService& Add(const ServiceSpec& spec);

    // Runs the export on its own thread with a fresh session whose
    // CustomActionData is `data`, and waits for it. Should it not return within
    // minutes, every test service is told to continue, so that a wrong wait
    // ends as a failed test instead of a hung one.
    ActionOutcome Run(const char* exportName, const std::wstring& data);
    // The same, without waiting.
    std::future<ActionOutcome> RunAsync(const char* exportName, const std::wstring& data);
    // Run(), continuing `service` (ending its held pending state) once the
    // action has made `queries` status queries: its first reading counts as
    // one, each poll as one more. No race with the poll interval.
    ActionOutcome RunAndContinueAfter(const char* exportName, const std::wstring& data, CTestService& service,
                                      int queries);

    // The bodies of the lines not written by the action frame, in order: the
    // service controller's lines (the workers write none themselves).
    static std::vector<std::wstring> WorkerLines(const ActionOutcome& outcome);
    static std::vector<std::wstring> Bodies(const ActionOutcome& outcome);
    static std::wstring Warning(const std::wstring& text) { return L"[WARNING] Daemon (#) " + text + L"."; }
    static std::wstring Error(const std::wstring& text) { return L"[ERROR] Daemon (#) " + text + L"."; }

    std::vector<std::wstring> Journal() const { return m_Services.Journal(); }
    void ClearJournal() { m_Services.ClearJournal(); }

    static QcRunner::CActionLibrary* s_pLibrary;
    static CDependentsSeam* s_pSeam;
    CTestServices m_Services;
};

// The expected state, with its name in the failure message.
#define EXPECT_STATE(service, expected)                                                                           \
    EXPECT_EQ(std::wstring(::QcTest::StateName((service).State())), std::wstring(::QcTest::StateName(expected))) \
        << "service " << ::testing::PrintToString((service).Name())

} // namespace QcTest
