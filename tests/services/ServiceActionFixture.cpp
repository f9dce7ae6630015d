#include "services/ServiceActionFixture.h"

#include <algorithm>
#include <chrono>
#include <cwchar>
#include <cwctype>

#include "services/StatusQueryCounter.h"
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
    const CStatusQueryCounter counter(s_pLibrary->Module());
    std::future<ActionOutcome> call = RunAsync(exportName, data);
    if (pHeld != nullptr)
    {
        const auto giveUp = std::chrono::steady_clock::now() + kWatchdog;
        while (counter.IsInstalled() && counter.Count() < queries && std::chrono::steady_clock::now() < giveUp &&
               call.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready)
        {
        }
        EXPECT_GE(counter.Count(), queries) << "the action made fewer status queries";
        pHeld->Continue();
    }
    if (call.wait_for(kWatchdog) != std::future_status::ready)
    {
        m_Services.ContinueAll();
        ADD_FAILURE() << "the action did not return by itself";
    }
    return call.get();
}

Lines ServiceActionTest::ControllerLines(const ActionOutcome& outcome)
{
    wchar_t ids[64] = {};
    _snwprintf(ids, 63, L"PID(0x%X) TID(0x%X) ", static_cast<unsigned>(::GetCurrentProcessId()),
               static_cast<unsigned>(outcome.threadId));
    const size_t idsLength = std::wcslen(ids);
    const Lines frame = {L"Workbench (#) ", L"[ERROR] Workbench (#) ", L"[WARNING] Workbench (#) "};
    Lines lines;
    for (const std::wstring& line : outcome.lines)
    {
        // "dd.mm.yyyy hh:mm:ss " comes first.
        EXPECT_EQ(line.size() - QcRunner::WithoutPrefixes(line).size(), 20 + idsLength)
            << ::testing::PrintToString(line);
        EXPECT_EQ(line.compare(20, idsLength, ids), 0) << ::testing::PrintToString(line);
        const std::wstring body = QcRunner::Body(line);
        const auto opens = [&body](const std::wstring& start) { return body.rfind(start, 0) == 0; };
        if (std::none_of(frame.begin(), frame.end(), opens))
        {
            lines.push_back(body);
        }
    }
    return lines;
}

} // namespace QcTest
