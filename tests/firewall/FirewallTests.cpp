// The four firewall actions of the shipped DLL (RunAction) against the test
// firewall, and CFirewall itself where the actions do not show its behaviour:
// arguments in; the result, the messages (exact text), the firewall's rules
// and lists and, where the order matters, the calls the firewall saw, out.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "actions/Workers.h"
#include "support/ActionCall.h"
#include "firewall/TestFirewall.h"
#include "network/Firewall.h"
#include "support/ComChangedMode.h"

namespace QcTest {
namespace {

using Quillcast::Common::Network::CFirewall;

constexpr const wchar_t* kInvalidArg = L"2147942487";   // E_INVALIDARG
constexpr const wchar_t* kNotFound = L"2147942402";     // HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)
constexpr const wchar_t* kAccessDenied = L"2147942405"; // E_ACCESSDENIED, the code the switches inject
constexpr const wchar_t* kClassNotReg = L"2147746132";  // REGDB_E_CLASSNOTREG

std::wstring Failed(const std::wstring& text, const wchar_t* code = kAccessDenied)
{
    return L"[ERROR] Firewall (#) " + text + L" with error " + code + L".";
}
// The switch that makes `method` of the test firewall fail with E_ACCESSDENIED.
const auto Fails = [](const std::wstring& method) { return L"Fail\\" + method + L"=" + kAccessDenied; };
const std::wstring kLegacyWarning =
    L"[WARNING] Firewall (#) Failed to get firewall exceptions object with error " + std::wstring(kClassNotReg) + L".";

struct Call
{
    const char* action;
    std::wstring data;
};

// The adds' CustomActionData ends with unknown names, enough for the count check (the number of pairs must
// reach that of the known names) to pass without setting any optional argument.
const std::wstring kPad = L";PAD1=;PAD2=;PAD3=;PAD4=;PAD5=;PAD6=;PAD7=;PAD8=";
const auto AddPort = [](const std::wstring& pairs) { return Call{"AddPortException", L";" + pairs + kPad}; };
const auto AddProgram = [](const std::wstring& pairs) { return Call{"AddProgramException", L";" + pairs + kPad}; };
const auto RemovePort = [](const std::wstring& pairs) { return Call{"RemovePortException", L";" + pairs}; };
const auto RemoveProgram = [](const std::wstring& pairs) { return Call{"RemoveProgramException", L";" + pairs}; };

// The list entries an add makes with no optional argument.
std::wstring OpenPort(int port, const std::wstring& name)
{
    return L"OpenPorts\\" + std::to_wstring(port) + L"-6: Enabled=1; Name=" + name + L"; Port=" +
           std::to_wstring(port) + L"; Protocol=6";
}
std::wstring App(const std::wstring& name, const std::wstring& path, const std::wstring& more = L"")
{
    return L"AuthorizedApplications\\1: Enabled=1; Name=" + name + L"; ProcessImageFileName=" + path + more;
}

// One action after the calls of `before`: a row names what differs from a call
// that succeeds, logs nothing and leaves nothing behind.
struct FirewallCase
{
    std::string behaviour;
    Lines setup = {};              // CTestFirewall::Set assignments; "Sub\Name=" ones after `before`
    std::vector<Call> before = {}; // each must succeed
    Call call = {};
    UINT result = 0;
    Lines lines = {};   // every line but the frame's information lines
    Lines state = {};   // the firewall afterwards
    Lines journal = {}; // the firewall's calls during `call`, when given
};

// A program an authorized-application entry may name: it must exist.
const std::wstring kApp = L"C:\\Program Files\\Internet Explorer\\iexplore.exe";
const std::wstring kR80 = L"RULENAME=R;LOCALPORTS=80";
const std::wstring kP = L"RULENAME=P;PROGRAMNAME=" + kApp;
const std::wstring kAddPortFailed = L"Failed to add port exception";
const std::wstring kFindFailed = L"Failed trying to find existing exception";
const std::wstring kCheckPortFailed = L"Failed to check local ports";

// Rows on the legacy lists: the policy class not registered, its warning first.
FirewallCase Legacy(FirewallCase test)
{
    test.setup.insert(test.setup.begin(), L"NoPolicy2=1");
    test.lines.insert(test.lines.begin(), kLegacyWarning);
    return test;
}

// `method` of the test firewall fails with E_ACCESSDENIED: its message, then the operation's own summary (if
// any), each with that code, after the legacy warning where the lists are used; result 1603, nothing made.
FirewallCase Switch(const Call& call, const std::wstring& method, const Lines& texts)
{
    std::string name = call.action + std::string("FailsAt") + std::string(method.begin(), method.end());
    name.erase(std::remove(name.begin(), name.end(), '.'), name.end());
    FirewallCase test{.behaviour = name, .setup = {Fails(method)}, .call = call, .result = 1603};
    for (const std::wstring& text : texts)
    {
        test.lines.push_back(Failed(text));
    }
    return method.rfind(L"Rule", 0) != 0 ? Legacy(test) : test;
}

const FirewallCase kCases[] = {
    // ------------------------------------------------------------ rule path
    // The service name replaces the local addresses (and is never the rule's service).
    {.behaviour = "PortRuleIsBuiltInTheFixedOrderWithEverySetting",
     .call = AddPort(L"RULENAME=Full;RULEDESCRIPTION=Print server;PROFILE=3;LOCALPORTS=8080-8090,9100;"
                     L"LOCALADDRESSES=192.168.1.10;REMOTEPORTS=1024-65535;REMOTEADDRESSES=LocalSubnet;"
                     L"SERVICENAME=10.0.0.7"),
     .state = {L"Rules\\1: Description=Print server; Direction=1; EdgeTraversalOptions=2; Enabled=1; "
               L"LocalAddresses=10.0.0.7; LocalPorts=8080-8090,9100; Name=Full; Profiles=3; Protocol=6; "
               L"RemoteAddresses=LocalSubnet; RemotePorts=1024-65535"},
     .journal = {L"Create.NetFwPolicy2", L"Policy2.Rules", L"Policy2.CurrentProfileTypes", L"Rules.Item",
                 L"Create.NetFwRule", L"Rule.Name", L"Rule.Profiles", L"Rule.Description", L"Rule.Direction",
                 L"Rule.Protocol", L"Rule.RemoteAddresses", L"Rule.LocalAddresses", L"Rule.RemotePorts",
                 L"Rule.LocalPorts", L"Rule.EdgeTraversalOptions", L"Rule.Enabled", L"Rules.Add"}},
    // The connection read the current profiles (domain and public); the rule still gets all profiles. A rule
    // without INetFwRule2 takes the older edge traversal flag.
    {.behaviour = "ProgramRuleTakesAnyProtocolAllProfilesAndWithoutRule2TheOlderFlag",
     .setup = {L"CurrentProfileTypes=5", L"NoRule2=1"},
     .call = AddProgram(kP),
     .state = {L"Rules\\1: ApplicationName=" + kApp +
               L"; Direction=1; EdgeTraversal=1; Enabled=1; Name=P; Profiles=2147483647; Protocol=256"}},
    {.behaviour = "SecondAddOnlyEnablesTheRuleFoundByName",
     .setup = {L"Rules\\1\\Enabled=0"},
     .before = {AddPort(L"RULENAME=Rule A;LOCALPORTS=80")},
     .call = AddPort(L"RULENAME=Rule A;LOCALPORTS=443;RULEDESCRIPTION=new"),
     .state = {L"Rules\\1: Direction=1; EdgeTraversalOptions=2; Enabled=1; LocalPorts=80; Name=Rule A; "
               L"Profiles=2147483647; Protocol=6"}},
    {.behaviour = "HexadecimalProfileConvertsToZeroWhichTheFirewallRefuses",
     .call = AddPort(kR80 + L";PROFILE=0x7FFFFFFF"),
     .result = 1603,
     .lines = {Failed(L"Failed to set exception profile", kInvalidArg), Failed(kAddPortFailed, kInvalidArg)}},
    {.behaviour = "ProgramRuleWithLocalPortsFailsAtTheLocalPorts",
     .call = AddProgram(kP + L";LOCALPORTS=80"),
     .result = 1603,
     .lines = {Failed(L"Failed to set authorized local ports", kInvalidArg),
               Failed(L"Failed to add exception", kInvalidArg)}},
    {.behaviour = "RemovePortRemovesTheRuleByItsNameAlone",
     .before = {AddPort(kR80)},
     .call = RemovePort(L"RULENAME=R;LOCALPORTS=1")},
    {.behaviour = "RemovalOfAMissingRuleSucceeds", .call = RemoveProgram(kP)},
    // ------------------------------------------------------------ rule path failures
    {.behaviour = "UnreadableCurrentProfileIsAnErrorAndTheListsAreUsed",
     .setup = {Fails(L"Policy2.CurrentProfileTypes")},
     .call = AddPort(kR80),
     .lines = {Failed(L"Failed to get firewall current profile")},
     .state = {OpenPort(80, L"R")}},
    {.behaviour = "FailedSearchIsLoggedTwiceBeforeTheSummary",
     .setup = {Fails(L"Rules.Item")},
     .call = AddPort(kR80),
     .result = 1603,
     .lines = {Failed(kFindFailed), Failed(kFindFailed), Failed(kAddPortFailed)}},
    {.behaviour = "FailedSearchFailsTheRemoval",
     .setup = {Fails(L"Rules.Item")},
     .call = RemovePort(kR80),
     .result = 1603,
     .lines = {Failed(kFindFailed), Failed(L"Failed to check exception"), Failed(L"Failed to remove exception")}},
    // ------------------------------------------------------------ legacy lists
    // Each port for TCP: one already open is only enabled, a range opens its first port, a trailing comma nothing.
    Legacy({.behaviour = "LegacyPortListOpensEachPortForTcp",
            .setup = {L"OpenPorts\\80-6\\Enabled=0"},
            .before = {AddPort(L"RULENAME=Old;LOCALPORTS=80")},
            .call = AddPort(L"RULENAME=R;LOCALPORTS=80,443,8080-8090,"),
            .state = {OpenPort(443, L"R"), OpenPort(80, L"Old"), OpenPort(8080, L"R")}}),
    Legacy({.behaviour = "LegacyProgramGetsItsRemoteAddressesTwice",
            .call = AddProgram(kP + L";REMOTEADDRESSES=10.1.0.0/16"),
            .state = {App(L"P", kApp, L"; RemoteAddresses=10.1.0.0/16")},
            .journal = {L"Create.NetFwMgr", L"Mgr.LocalPolicy", L"Policy.CurrentProfile",
                        L"Profile.AuthorizedApplications", L"AuthorizedApps.Item", L"Create.NetFwAuthorizedApplication",
                        L"AuthorizedApp.Name", L"AuthorizedApp.ProcessImageFileName", L"AuthorizedApp.RemoteAddresses",
                        L"AuthorizedApp.RemoteAddresses", L"AuthorizedApp.Enabled", L"AuthorizedApps.Add"}}),
    Legacy({.behaviour = "LegacyAuthorizedProgramIsOnlyEnabled",
            .setup = {L"AuthorizedApplications\\1\\Enabled=0"},
            .before = {AddProgram(kP)},
            .call = AddProgram(L"RULENAME=Q;PROGRAMNAME=" + kApp + L";REMOTEADDRESSES=10.0.0.1"),
            .state = {App(L"P", kApp)}}),
    Legacy({.behaviour = "LegacyRemovalOfAPortNotOpenFails",
            .call = RemovePort(kR80),
            .result = 1603,
            .lines = {Failed(L"Failed to retrieve open port", kNotFound), Failed(kCheckPortFailed, kNotFound)}}),
    // Exceptions the profile does not allow, read well, do not stop the removal.
    Legacy({.behaviour = "LegacyRemovalClosesEachPort",
            .setup = {L"ExceptionsNotAllowed=1"},
            .before = {AddPort(L"RULENAME=R;LOCALPORTS=80,443,8080")},
            .call = RemovePort(L"RULENAME=R;LOCALPORTS=80,443"),
            .state = {OpenPort(8080, L"R")}}),
    // The check answers "disabled" without a code of its own: the code
    // logged is the last one kept, the connection's REGDB_E_CLASSNOTREG.
    Legacy({.behaviour = "LegacyRemovalOfADisabledPortFailsWithTheLastCodeKept",
            .setup = {L"OpenPorts\\80-6\\Enabled=0"},
            .call = RemovePort(kR80),
            .result = 1603,
            .lines = {Failed(kCheckPortFailed, kClassNotReg)},
            .state = {L"OpenPorts\\80-6: Enabled=0"}}),
    // A failed read of the not-allowed flag that answers no does not stop it.
    Legacy({.behaviour = "LegacyRemovalRemovesTheProgramByItsPath",
            .setup = {Fails(L"Profile.ExceptionsNotAllowed")},
            .before = {AddProgram(kP)},
            .call = RemoveProgram(L"RULENAME=Other;PROGRAMNAME=" + kApp)}),
    // ------------------------------------------------------------ legacy failures
    Legacy({.behaviour = "LegacyNotAllowedExceptionsFailTheCheckOnlyWhenTheReadFails",
            .setup = {L"ExceptionsNotAllowed=1", Fails(L"Profile.ExceptionsNotAllowed")},
            .before = {AddPort(kR80)},
            .call = RemovePort(kR80),
            .result = 1603,
            .lines = {Failed(L"Failed to get list of not allowed exceptions"), Failed(kCheckPortFailed)},
            .state = {OpenPort(80, L"R")}}),
    Legacy({.behaviour = "LegacyFailedPortRemovalNamesThePortAsWritten",
            .setup = {Fails(L"OpenPorts.Remove")},
            .before = {AddPort(kR80)},
            .call = RemovePort(L"RULENAME=R;LOCALPORTS=80x"),
            .result = 1603,
            .lines = {Failed(L"Failed to remove open port 80x, protocol 6")},
            .state = {OpenPort(80, L"R")}}),
    Legacy({.behaviour = "LegacyFailedProgramRemovalKeepsItsTwoBlanks",
            .setup = {Fails(L"AuthorizedApps.Remove")},
            .before = {AddProgram(kP)},
            .call = RemoveProgram(kP),
            .result = 1603,
            .lines = {Failed(L"Failed to remove app " + kApp + L" ")},
            .state = {App(L"P", kApp)}}),
    // ------------------------------------------------------------ one failure switch per kind of message
    // The doubled "to" of each enabling kept; a connection that fails before the
    // lists; a search that fails otherwise than "not found" stops an add.
    Switch(AddPort(kR80), L"Rule.Enabled", {L"Failed to to enable exception", kAddPortFailed}),
    Switch(AddPort(kR80), L"OpenPort.Enabled", {L"Failed to to enable port"}),
    Switch(AddProgram(kP), L"AuthorizedApp.Enabled", {L"Failed to to enable app"}),
    Switch(AddPort(kR80), L"Create.NetFwMgr",
           {L"Failed to connect to Windows Firewall", L"Failed to get current profile"}),
    Switch(AddPort(kR80), L"OpenPorts.Item", {L"Failed trying to find existing port"}),
    Switch(AddProgram(kP), L"AuthorizedApps.Item", {L"Failed trying to find existing app"}),
};

void SetAll(const Lines& assignments, bool bValuesBelow)
{
    for (const std::wstring& assignment : assignments)
    {
        if ((assignment.find(L'\\') != std::wstring::npos) == bValuesBelow)
        {
            CTestFirewall::Set(assignment);
        }
    }
}

class FirewallTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // Registered once for the whole run; Wine's registration is put back at its end.
        static const CTestFirewall firewall;
        ASSERT_TRUE(firewall.IsRegistered()) << "cannot register QcTestFirewall.dll";
        CTestFirewall::Reset();
    }
};

class FirewallAction : public FirewallTest, public ::testing::WithParamInterface<FirewallCase>
{
};

TEST_P(FirewallAction, Case)
{
    const FirewallCase& test = GetParam();
    SetAll(test.setup, false);
    // Each action in a fresh session; the lines are those the frame did not write.
    const auto run = [](const Call& call) { return RunAction(call.action, {{L"CustomActionData", call.data}}, {}); };
    for (const Call& call : test.before)
    {
        const ActionOutcome outcome = run(call);
        ASSERT_EQ(outcome.result, 0u) << ::testing::PrintToString(outcome.lines);
    }
    SetAll(test.setup, true); // failure switches and changes to what `before` made
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFirewallRoot, L"Journal");

    const ActionOutcome outcome = run(test.call);
    EXPECT_EQ(std::make_pair(outcome.result, outcome.lines), std::make_pair(test.result, test.lines));
    EXPECT_EQ(CTestFirewall::State(), test.state);
    std::wstring journal, expected; // the firewall's calls, one a line, when the row names them
    for (const std::wstring& method : test.journal)
    {
        expected += method + L"\n";
    }
    EXPECT_TRUE(test.journal.empty() || ReadText(kFirewallRoot, L"Journal", journal));
    EXPECT_EQ(journal, expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, FirewallAction, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return paramInfo.param.behaviour; });

// The workers themselves, as the frame would call them after a validation that
// their main argument would have failed: 87 and nothing logged; without a rule
// name the firewall object logs ERROR_INVALID_PARAMETER first and the add fails.
TEST_F(FirewallTest, WorkersWithoutTheirMainArgument)
{
    using Worker = UINT (*)(Quillcast::Host::CWorkbench*);
    const std::tuple<Worker, const wchar_t*, UINT, const wchar_t*> cases[] = {
        {Quillcast::Actions::AddPortExceptionWorker, L";RULENAME=R;PROGRAMNAME=x", 87, L""},
        {Quillcast::Actions::AddProgramExceptionWorker, L";RULENAME=R;LOCALPORTS=80", 87, L""},
        {Quillcast::Actions::AddPortExceptionWorker, L";LOCALPORTS=80", 1603,
         L"[ERROR] Firewall (#) ERROR_INVALID_PARAMETER."},
    };
    for (const auto& [worker, data, result, firstLine] : cases)
    {
        QcRunner::CActionHost host;
        ASSERT_TRUE(host.IsOpen() && host.SetCustomActionData(data));
        const CLogCapture capture;
        Quillcast::Host::CWorkbench workbench(host.Session());
        EXPECT_EQ(worker(&workbench), result) << data;
        EXPECT_EQ(capture.Bodies().empty() ? L"" : capture.Bodies().front(), firstLine) << data;
        EXPECT_EQ(CTestFirewall::State(), Lines()) << data;
    }
}

// An entry that CFirewall writes through its failure helper names the line of
// the helper's call, counted from the line base of the file that holds the
// call, so that "Firewall" and the line lead to one place in one file. (The
// source tree is found through QC_SOURCE_DIR, which CTest sets.)
TEST_F(FirewallTest, FailureEntriesCarryTheLineOfTheirCallInTheirFile)
{
    const std::tuple<std::string, uint32_t, std::wstring> rows[] = {
        {"Firewall.cpp", 1000, L"Failed to get firewall current profile"},
        {"FirewallLegacyLists.cpp", 2000, L"Failed to connect to Windows Firewall"},
    };
    const char* root = std::getenv("QC_SOURCE_DIR");
    ASSERT_NE(root, nullptr);
    // The constructor fails in the first file; the lists it falls back to, in the second.
    CTestFirewall::Set(Fails(L"Policy2.CurrentProfileTypes"));
    CTestFirewall::Set(Fails(L"Create.NetFwMgr"));
    const CLogCapture capture;
    EXPECT_FALSE(CFirewall(L"R").AddPort(L"80"));
    for (const auto& [file, lineBase, text] : rows)
    {
        std::ifstream source("Z:" + std::string(root) + "/src/network/" + file);
        const std::string call = "QC_FIREWALL_FAIL(L\"" + std::string(text.begin(), text.end()) + " with error \"";
        uint32_t number = 1;
        for (std::string line; std::getline(source, line) && line.find(call) == std::string::npos;)
        {
            ++number;
        }
        ASSERT_TRUE(source.good()) << file << " has no " << call;
        const std::wstring entry = L"[ERROR] Firewall (" + std::to_wstring(lineBase + number) + L") " + text +
                                   L" with error " + kAccessDenied + L".";
        EXPECT_EQ(std::count_if(capture.Lines().begin(), capture.Lines().end(),
                                [&](const std::wstring& line) { return WithoutPrefixes(line) == entry; }),
                  1)
            << file;
    }
}

// The constructor counts RPC_E_CHANGED_MODE as its own initialisation and the
// destructor uninitialises all the same: the thread's multithreaded COM then
// ends with it, and initialising it again starts anew (S_OK, not S_FALSE).
TEST_F(FirewallTest, ChangedModeIsUninitialisedByTheDestructorAllTheSame)
{
    const ChangedModeOutcome outcome = WrapperOnMultithreadedThread<CFirewall>(L"R");
    EXPECT_EQ(std::make_tuple(outcome.first, outcome.lastError, outcome.again), std::make_tuple(S_OK, 0u, S_OK));
}

} // namespace
} // namespace QcTest
