#include "services/ServiceActionTests.h"

#include <chrono>
#include <cwchar>
#include <cwctype>

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

HMODULE ServiceActionTest::Module()
{
    return s_pLibrary->Module();
}

std::wstring ServiceActionTest::Name(const std::wstring& role) const
{
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::wstring name = L"QcSvc_";
    for (const char* p = info->name(); *p != '\0'; ++p)
    {
        name += std::iswalnum(static_cast<wint_t>(*p)) ? static_cast<wchar_t>(*p) : L'_';
    }
    return name + L"_" + role;
}

CTestService& ServiceActionTest::Add(const std::wstring& role, const std::wstring& options, DWORD startType,
                                     const std::vector<std::wstring>& dependsOn)
{
    ServiceSpec spec;
    spec.name = Name(role);
    spec.options = options;
    spec.startType = startType;
    spec.dependsOn = dependsOn;
    return Add(spec);
}

CTestService& ServiceActionTest::Add(const ServiceSpec& spec)
{
    CTestService& service = m_Services.Add(spec);
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

ActionOutcome ServiceActionTest::Run(const char* exportName, const std::wstring& data)
{
    std::future<ActionOutcome> call = RunAsync(exportName, data);
    bool watchdogFired = false;
    if (call.wait_for(kWatchdog) != std::future_status::ready)
    {
        watchdogFired = true;
        m_Services.ContinueAll();
    }
    ActionOutcome outcome = call.get();
    outcome.watchdogFired = watchdogFired;
    EXPECT_FALSE(watchdogFired) << "the action did not return by itself";
    return outcome;
}

ActionOutcome ServiceActionTest::RunAndContinueAfter(const char* exportName, const std::wstring& data,
                                                     CTestService& service, int queries)
{
    const CStatusQueryCounter counter(Module());
    EXPECT_TRUE(counter.IsInstalled());
    std::future<ActionOutcome> call = RunAsync(exportName, data);
    const auto giveUp = std::chrono::steady_clock::now() + kWatchdog;
    while (counter.Count() < queries && std::chrono::steady_clock::now() < giveUp)
    {
        if (call.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready)
        {
            break;
        }
    }
    EXPECT_GE(counter.Count(), queries) << "the action made fewer status queries";
    service.Continue();
    if (call.wait_for(kWatchdog) != std::future_status::ready)
    {
        m_Services.ContinueAll();
        ADD_FAILURE() << "the action did not return by itself";
    }
    return call.get();
}

std::vector<std::wstring> ServiceActionTest::Bodies(const ActionOutcome& outcome)
{
    std::vector<std::wstring> bodies;
    for (const std::wstring& line : outcome.lines)
    {
        bodies.push_back(QcRunner::Body(line));
    }
    return bodies;
}

std::vector<std::wstring> ServiceActionTest::WorkerLines(const ActionOutcome& outcome)
{
    std::vector<std::wstring> lines;
    for (const std::wstring& body : Bodies(outcome))
    {
        std::wstring source = body;
        for (const wchar_t* marker : {L"[ERROR] ", L"[WARNING] "})
        {
            if (source.compare(0, std::wcslen(marker), marker) == 0)
            {
                source = source.substr(std::wcslen(marker));
            }
        }
        if (source.compare(0, 14, L"Workbench (#) ") != 0)
        {
            lines.push_back(body);
        }
    }
    return lines;
}

} // namespace QcTest
