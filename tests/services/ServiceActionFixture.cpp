#include "services/ServiceActionFixture.h"

#include <algorithm>
#include <chrono>
#include <cwchar>
#include <cwctype>

#include "support/LogCapture.h"
#include "support/ShippedDll.h"

namespace QcTest {

namespace {

// Far beyond any wait the tests expect (the longest is a few poll intervals).
constexpr auto kWatchdog = std::chrono::minutes(3);

} // namespace

QcRunner::CActionLibrary* ServiceActionTest::s_pLibrary = nullptr;
CDependentsSeam* ServiceActionTest::s_pSeam = nullptr;

void ServiceActionTest::SetUpTestSuite()
{
    if (s_pLibrary == nullptr)
    {
        s_pLibrary = new QcRunner::CActionLibrary(ShippedDllPath());
        s_pSeam = new CDependentsSeam(s_pLibrary->Module());
    }
}

void ServiceActionTest::TearDownTestSuite()
{
    delete s_pSeam;
    s_pSeam = nullptr;
    delete s_pLibrary;
    s_pLibrary = nullptr;
}

void ServiceActionTest::SetUp()
{
    ASSERT_TRUE(s_pLibrary->IsLoaded()) << "cannot load the DLL";
    ASSERT_TRUE(s_pSeam->IsInstalled()) << "the DLL does not import EnumDependentServicesW";
    CDependentsSeam::ClearCalls();
}

std::wstring ServiceActionTest::Name(const std::wstring& role) const
{
    std::wstring name = L"QcSvc_";
    for (const char* p = ::testing::UnitTest::GetInstance()->current_test_info()->name(); *p != '\0'; ++p)
    {
        name += std::iswalnum(static_cast<wint_t>(*p)) ? static_cast<wchar_t>(*p) : L'_';
    }
    return name + L"_" + role;
}

Lines ServiceActionTest::Expand(Lines lines) const
{
    for (std::wstring& line : lines)
    {
        for (size_t open = line.find(L'{'); open != std::wstring::npos; open = line.find(L'{', open))
        {
            const size_t close = line.find(L'}', open);
            line.replace(open, close - open + 1, Name(line.substr(open + 1, close - open - 1)));
        }
    }
    return lines;
}

CTestService& ServiceActionTest::Add(const std::wstring& role, const std::wstring& options, DWORD startType,
                                     const std::vector<std::wstring>& dependsOnRoles)
{
    ServiceDefinition definition{Name(role), options, startType, {}};
    for (const std::wstring& dependency : dependsOnRoles)
    {
        definition.dependsOn.push_back(Name(dependency));
    }
    CTestService& service = m_Services.Add(definition);
    EXPECT_TRUE(service.IsRegistered()) << ::testing::PrintToString(service.Error());
    return service;
}

std::future<ActionOutcome> ServiceActionTest::RunAsync(const char* exportName, const std::wstring& data)
{
    const QcRunner::CustomActionFunction action = s_pLibrary->Find(exportName);
    return std::async(std::launch::async, [action, data]() {
        ActionOutcome outcome;
        outcome.threadId = ::GetCurrentThreadId();
        QcRunner::CActionHost host;
        if (action == nullptr || !host.IsOpen() || !host.SetCustomActionData(data))
        {
            outcome.result = 0xFFFFFFFF;
            outcome.lines.push_back(L"(no action or no session) " + host.Error());
            return outcome;
        }
        outcome.result = host.Call(action);
        outcome.lines = host.LogLines();
        return outcome;
    });
}

ActionOutcome ServiceActionTest::Run(const char* exportName, const std::wstring& data, CTestService* pHeld,
                                     int queries)
{
    const CServiceCallRecorder recorder(s_pLibrary->Module());
    EXPECT_TRUE(recorder.IsInstalled());
    std::future<ActionOutcome> call = RunAsync(exportName, data);
    if (pHeld != nullptr)
    {
        const auto giveUp = std::chrono::steady_clock::now() + kWatchdog;
        while (recorder.Count() < queries && std::chrono::steady_clock::now() < giveUp &&
               call.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready)
        {
        }
        EXPECT_GE(recorder.Count(), queries) << "the action made fewer status queries";
        pHeld->Continue();
    }
    if (call.wait_for(kWatchdog) != std::future_status::ready)
    {
        m_Services.ContinueAll();
        ADD_FAILURE() << "the action did not return by itself";
    }
    ActionOutcome outcome = call.get();
    outcome.calls = CServiceCallRecorder::Calls();
    const ServiceCalls& c = outcome.calls;
    EXPECT_TRUE(c.opens.empty() || c.opens[0] == L"manager 0xF003F") << ::testing::PrintToString(c.opens);
    EXPECT_EQ(std::count(c.sleeps.begin(), c.sleeps.end(), 1500u), static_cast<long>(c.sleeps.size()));
    // Released at the end: the manager, the service and the last dependent opened
    // (each dependent's handle replaces the one before without closing it).
    std::vector<HANDLE> expected;
    for (size_t i = 0; i < c.opened.size(); ++i)
    {
        if (c.opened[i] != nullptr && (i < 2 || i + 1 == c.opened.size()))
        {
            expected.push_back(c.opened[i]);
        }
    }
    std::vector<HANDLE> closed = c.closedByCloseHandle;
    std::sort(expected.begin(), expected.end());
    std::sort(closed.begin(), closed.end());
    EXPECT_EQ(closed, expected);
    EXPECT_EQ(c.closeServiceHandleCalls, 0);
    return outcome;
}

Lines ServiceActionTest::ControllerLines(const ActionOutcome& outcome)
{
    Lines lines;
    for (const std::wstring& line : outcome.lines)
    {
        EXPECT_TRUE(IsWholeLine(line, outcome.threadId)) << ::testing::PrintToString(line);
        const std::wstring body = QcRunner::Body(line);
        // The frame's lines open with "Workbench (#) " after an optional marker.
        const size_t frame = body.find(L"Workbench (#) ");
        if (frame != 0 && frame != 8 && frame != 10)
        {
            lines.push_back(body);
        }
    }
    return lines;
}

} // namespace QcTest
