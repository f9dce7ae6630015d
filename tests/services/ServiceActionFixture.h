#pragma once

// The shipped DLL's service actions driven through real installer sessions
// against real services of the test run's Wine prefix. Only the dependent
// enumeration, which Wine stubs, is answered by the test (DependentsSeam.h).
#include <gtest/gtest.h>

#include <windows.h>

#include <future>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "services/DependentsSeam.h"
#include "services/StatusQueryCounter.h"
#include "services/TestServices.h"

namespace QcTest {

using Lines = std::vector<std::wstring>;

inline std::wstring Warning(const std::wstring& text)
{
    return L"[WARNING] Daemon (#) " + text + L".";
}
inline std::wstring Error(const std::wstring& text)
{
    return L"[ERROR] Daemon (#) " + text + L".";
}

// What one action call left behind.
struct ActionOutcome
{
    UINT result = 0;
    Lines lines;        // the raw log records
    DWORD threadId = 0; // the thread that ran the action
    ServiceCalls calls; // recorded by Run, not by RunAsync
};

class ServiceActionTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;

    // "QcSvc_<test>_<role>", unique per test.
    std::wstring Name(const std::wstring& role) const;
    // `lines` with every "{role}" replaced by Name(role).
    Lines Expand(Lines lines) const;
    // Registers the service Name(role) for this test.
    CTestService& Add(const std::wstring& role, const std::wstring& options = L"",
                      DWORD startType = SERVICE_DEMAND_START, const std::vector<std::wstring>& dependsOnRoles = {});

    // Runs the export on its own thread with a fresh session whose
    // CustomActionData is `data`, without waiting.
    std::future<ActionOutcome> RunAsync(const char* exportName, const std::wstring& data);
    // The same, waited for. With `pHeld`, continues that service (ends its held
    // pending state) once the action has made `queries` status queries: its
    // first reading counts as one, each poll as one more. Should the action not
    // return within minutes, every test service is continued, so that a wrong
    // wait ends as a failed test instead of a hung one. Checks on the way what
    // every service action must do: open the manager with all access, sleep
    // 1500 ms between polls, and release every handle it opened with CloseHandle.
    ActionOutcome Run(const char* exportName, const std::wstring& data, CTestService* pHeld = nullptr,
                      int queries = 0);

    // The bodies of the lines the frame did not write, in order: the service
    // controller's (the workers write none). Checks on the way that every raw
    // line carries the date and the process and thread that ran the action.
    static Lines ControllerLines(const ActionOutcome& outcome);
    Lines Journal() const { return m_Services.Journal(); }
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
