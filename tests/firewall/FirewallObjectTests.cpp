// CFirewall itself, where it has behaviour the actions do not show: the
// checks on the rule path, its last-error values and its COM initialisation.
#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>

#include <thread>

#include "firewall/TestFirewall.h"
#include "network/Firewall.h"
#include "support/ComChangedMode.h"
#include "support/LogCapture.h"

namespace QcTest {
namespace {

using Quillcast::Common::Network::CFirewall;
using Lines = std::vector<std::wstring>;

class FirewallObject : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { s_pFirewall = new CTestFirewall(); }
    static void TearDownTestSuite()
    {
        delete s_pFirewall;
        s_pFirewall = nullptr;
    }
    void SetUp() override
    {
        ASSERT_TRUE(s_pFirewall->IsRegistered());
        CTestFirewall::Reset();
    }

    static CTestFirewall* s_pFirewall;
};

CTestFirewall* FirewallObject::s_pFirewall = nullptr;

TEST_F(FirewallObject, ChecksOnTheRulePathAskForTheRuleByNameOnly)
{
    CLogCapture capture;
    {
        CFirewall firewall(L"R");
        EXPECT_FALSE(firewall.CheckPort(L"80"));
        EXPECT_EQ(firewall.LastError(), 2u);
        EXPECT_FALSE(firewall.CheckApplication(L"C:\\a.exe"));
        EXPECT_TRUE(firewall.AddPort(L"80"));
    }
    EXPECT_EQ(capture.Bodies(), Lines({L"[ERROR] Firewall (#) Failed to check port exception with error 2.",
                                       L"[ERROR] Firewall (#) Failed to check exception with error 2."}));
    capture.Clear();

    CFirewall firewall(L"r");
    EXPECT_TRUE(firewall.CheckPort(L"443"));
    EXPECT_EQ(firewall.LastError(), 80u);
    EXPECT_TRUE(firewall.CheckApplication(L"C:\\b.exe"));
    EXPECT_TRUE(firewall.RemovePort(L"1"));
    EXPECT_TRUE(firewall.RemovePort(L"1"));
    EXPECT_EQ(firewall.LastError(), 2u);
    EXPECT_EQ(capture.Bodies(), Lines());
}

// The constructor counts RPC_E_CHANGED_MODE as its own initialisation and the
// destructor uninitialises all the same: the thread's multithreaded COM then
// ends with it, and initialising it again starts anew (S_OK, not S_FALSE).
TEST_F(FirewallObject, ChangedModeIsUninitialisedByTheDestructorAllTheSame)
{
    const ChangedModeOutcome outcome = WrapperOnMultithreadedThread<CFirewall>(L"R");
    EXPECT_EQ(outcome.first, S_OK);
    EXPECT_EQ(outcome.lastError, 0u);
    EXPECT_EQ(outcome.again, S_OK);
}

} // namespace
} // namespace QcTest
