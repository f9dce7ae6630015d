// The four firewall actions of the shipped DLL through real installer
// sessions, against the test firewall: arguments in; the action's result, its
// warnings and errors (exact text), the firewall's rules and lists and, where
// the order matters, the calls the firewall saw, out.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "ActionHost.h"
#include "actions/Workers.h"
#include "firewall/TestFirewall.h"
#include "support/LogCapture.h"
#include "support/ShippedDll.h"

namespace QcTest {
namespace {

using Lines = std::vector<std::wstring>;

constexpr const wchar_t* kInvalidArg = L"2147942487";    // E_INVALIDARG
constexpr const wchar_t* kNotFound = L"2147942402";      // HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)
constexpr const wchar_t* kAccessDenied = L"2147942405";  // E_ACCESSDENIED, the code the switches inject
constexpr const wchar_t* kClassNotReg = L"2147746132";   // REGDB_E_CLASSNOTREG
constexpr const wchar_t* kFail = L"Fail\\";

std::wstring Error(const std::wstring& text)
{
    return L"[ERROR] Firewall (#) " + text + L".";
}
std::wstring Failed(const std::wstring& text, const wchar_t* code = kAccessDenied)
{
    return Error(text + code);
}
std::wstring Fails(const std::wstring& method)
{
    return kFail + method + L"=" + kAccessDenied;
}
// The warning that sends every operation to the legacy lists.
const std::wstring kLegacyWarning =
    std::wstring(L"[WARNING] Firewall (#) Failed to get firewall exceptions object with error ") + kClassNotReg + L".";
const std::wstring kLegacy = L"NoPolicy2=1";

// CustomActionData from `pairs`, filled up with unknown names to `count` pairs
// so that the count check passes without setting any optional argument.
std::wstring Data(const std::wstring& pairs, int count)
{
    std::wstring data = L";" + pairs;
    int given = 1;
    for (wchar_t c : pairs)
    {
        given += c == L';' ? 1 : 0;
    }
    for (int i = given; i < count; ++i)
    {
        data += L";PAD" + std::to_wstring(i) + L"=";
    }
    return data;
}
std::wstring AddPort(const std::wstring& pairs) { return Data(pairs, 8); }
std::wstring AddProgram(const std::wstring& pairs) { return Data(pairs, 9); }

// The rule an add makes with no optional argument; `more` are further values.
std::wstring PortRule(const std::wstring& name, const std::wstring& ports, const std::wstring& more = L"",
                      int id = 1)
{
    return L"Rules\\" + std::to_wstring(id) +
           L": Action=1; Direction=1; EdgeTraversal=0; EdgeTraversalOptions=2; Enabled=1; LocalPorts=" + ports +
           L"; Name=" + name + L"; Profiles=2147483647; Protocol=6" + more;
}
std::wstring ProgramRule(const std::wstring& name, const std::wstring& path, int id = 1)
{
    return L"Rules\\" + std::to_wstring(id) + L": Action=1; ApplicationName=" + path +
           L"; Direction=1; EdgeTraversal=0; EdgeTraversalOptions=2; Enabled=1; Name=" + name +
           L"; Profiles=2147483647; Protocol=256";
}
std::wstring OpenPort(int port, const std::wstring& name, const std::wstring& enabled = L"1")
{
    return L"OpenPorts\\" + std::to_wstring(port) + L"-6: Enabled=" + enabled + L"; IpVersion=2; Name=" + name +
           L"; Port=" + std::to_wstring(port) + L"; Protocol=6; Scope=0";
}
std::wstring App(const std::wstring& name, const std::wstring& path, const std::wstring& more = L"", int id = 1)
{
    return L"AuthorizedApplications\\" + std::to_wstring(id) + L": Enabled=1; IpVersion=2; Name=" + name +
           L"; ProcessImageFileName=" + path + more + L"; Scope=0";
}

// 2000 characters with letters outside ASCII, and none that CustomActionData or a rule name refuses.
std::wstring LongName()
{
    std::wstring name;
    while (name.size() < 2000)
    {
        name += L"R\u00e9gle \u0444\u0430\u0439\u0440\u0432\u043e\u043b \u9632\u706b\u5899 ";
    }
    name.pop_back(); // a trailing blank would be trimmed off the argument
    return name;
}

struct Call
{
    const char* action;
    std::wstring data;
};

struct FirewallCase
{
    const char* behaviour;
    std::vector<Call> before;  // made first, each must succeed
    Lines setup;               // then: switches and state changes (CTestFirewall::Set)
    Call call;
    UINT result;
    Lines lines;  // every line but the frame's information lines
    Lines state;  // the firewall afterwards
    Lines journal = {};  // the firewall's calls during `call`, when given
};

const char* const kAddPort = "AddPortException";
const char* const kAddProgram = "AddProgramException";
const char* const kRemovePort = "RemovePortException";
const char* const kRemoveProgram = "RemoveProgramException";

const Lines kRuleAddJournal = {L"Create.NetFwPolicy2", L"Policy2.Rules", L"Policy2.CurrentProfileTypes",
                               L"Rules.Item", L"Create.NetFwRule", L"Rule.Name", L"Rule.Profiles",
                               L"Rule.Description", L"Rule.Direction", L"Rule.Protocol", L"Rule.RemoteAddresses",
                               L"Rule.LocalAddresses", L"Rule.RemotePorts", L"Rule.LocalPorts",
                               L"Rule.EdgeTraversalOptions", L"Rule.Enabled", L"Rules.Add"};

std::vector<FirewallCase> Cases()
{
    const std::wstring full = L"RULENAME=Full;RULEDESCRIPTION=Print server;PROFILE=3;LOCALPORTS=8080-8090,9100;"
                              L"LOCALADDRESSES=192.168.1.10;REMOTEPORTS=1024-65535;REMOTEADDRESSES=LocalSubnet";
    const std::wstring app = L"C:\\Program Files\\Quillcast\\qc.exe";
    return {
        // ------------------------------------------------------------ rule path
        {"PortRuleIsBuiltInTheFixedOrderWithEverySetting", {}, {}, {kAddPort, AddPort(full)}, 0, {},
         {L"Rules\\1: Action=1; Description=Print server; Direction=1; EdgeTraversal=0; EdgeTraversalOptions=2; "
          L"Enabled=1; LocalAddresses=192.168.1.10; LocalPorts=8080-8090,9100; Name=Full; Profiles=3; Protocol=6; "
          L"RemoteAddresses=LocalSubnet; RemotePorts=1024-65535"},
         kRuleAddJournal},
        // The connection read the current profiles (domain and public); the rule still gets all profiles.
        {"ProgramRuleTakesAnyProtocolAndAllProfiles", {}, {L"CurrentProfileTypes=5"},
         {kAddProgram, AddProgram(L"RULENAME=Program;PROGRAMNAME=" + app)}, 0, {}, {ProgramRule(L"Program", app)}},
        {"SecondAddOnlyEnablesTheRuleFoundByNameInAnyCase", {{kAddPort, AddPort(L"RULENAME=Rule A;LOCALPORTS=80")}},
         {L"Rules\\1\\Enabled=0"}, {kAddPort, AddPort(L"RULENAME=RULE a;LOCALPORTS=443;RULEDESCRIPTION=new")}, 0, {},
         {PortRule(L"Rule A", L"80")},
         {L"Create.NetFwPolicy2", L"Policy2.Rules", L"Policy2.CurrentProfileTypes", L"Rules.Item", L"Rule.Enabled"}},
        {"HexadecimalProfileConvertsToZeroWhichTheFirewallRefuses", {}, {},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80;PROFILE=0x7FFFFFFF")}, 1603,
         {Failed(L"Failed to set exception profile with error ", kInvalidArg),
          Failed(L"Failed to add port exception with error ", kInvalidArg)},
         {}},
        {"ServiceNameBecomesTheLocalAddressesAndIsRefused", {}, {},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80;LOCALADDRESSES=10.0.0.1;SERVICENAME=Spooler")}, 1603,
         {Failed(L"Failed to set authorized local addresses with error ", kInvalidArg),
          Failed(L"Failed to add port exception with error ", kInvalidArg)},
         {}},
        {"EmptyServiceNameStillReplacesTheLocalAddresses", {}, {},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80;LOCALADDRESSES=10.0.0.1;SERVICENAME=")}, 0, {},
         {L"Rules\\1: Action=1; Direction=1; EdgeTraversal=0; EdgeTraversalOptions=2; Enabled=1; LocalAddresses=; "
          L"LocalPorts=80; Name=R; Profiles=2147483647; Protocol=6"}},
        {"ProgramRuleWithLocalPortsFailsAtTheLocalPorts", {}, {},
         {kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=" + app + L";LOCALPORTS=80")}, 1603,
         {Failed(L"Failed to set authorized local ports with error ", kInvalidArg),
          Failed(L"Failed to add exception with error ", kInvalidArg)},
         {}},
        {"ProgramRuleWithRemotePortsFailsAtTheRemotePorts", {}, {},
         {kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=" + app + L";REMOTEPORTS=80")}, 1603,
         {Failed(L"Failed to set authorized remote ports with error ", kInvalidArg),
          Failed(L"Failed to add exception with error ", kInvalidArg)},
         {}},
        {"RuleNameWithAVerticalBarIsRefused", {}, {}, {kAddPort, AddPort(L"RULENAME=a|b;LOCALPORTS=80")}, 1603,
         {Failed(L"Failed to set exception friendly name with error ", kInvalidArg),
          Failed(L"Failed to add port exception with error ", kInvalidArg)},
         {}},
        {"LongNonAsciiRuleNameMakesItsRule", {}, {}, {kAddPort, AddPort(L"RULENAME=" + LongName() + L";LOCALPORTS=80")},
         0, {}, {PortRule(LongName(), L"80")}},
        {"LongNonAsciiProgramPathMakesItsRule", {}, {},
         {kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=C:\\" + LongName() + L".exe")}, 0, {},
         {ProgramRule(L"P", L"C:\\" + LongName() + L".exe")}},
        {"WithoutRule2EdgeTraversalIsTheOlderFlag", {}, {L"NoRule2=1"}, {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")},
         0, {},
         {L"Rules\\1: Action=1; Direction=1; EdgeTraversal=1; EdgeTraversalOptions=0; Enabled=1; LocalPorts=80; "
          L"Name=R; Profiles=2147483647; Protocol=6"}},
        {"RemovingAMissingRuleSucceedsSilently", {}, {}, {kRemovePort, L";RULENAME=R;LOCALPORTS=80"}, 0, {}, {}},
        {"RemovePortRemovesTheRuleByItsNameAlone", {{kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}}, {},
         {kRemovePort, L";RULENAME=r;LOCALPORTS=1"}, 0, {}, {}},
        {"RemoveProgramRemovesTheRuleByItsNameAlone",
         {{kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=" + app)}}, {},
         {kRemoveProgram, L";RULENAME=P;PROGRAMNAME=C:\\other.exe"}, 0, {}, {}},
        // ------------------------------------------------------------ arguments
        {"MissingRuleNameFailsValidation", {}, {}, {kRemovePort, L";LOCALPORTS=80;PAD=1"}, 1603,
         {L"[ERROR] Workbench (#) Argument[RULENAME] is invalid."}, {}},
        {"EmptyRuleNameFailsValidation", {}, {}, {kRemoveProgram, L";RULENAME=;PROGRAMNAME=C:\\a.exe"}, 1603,
         {L"[ERROR] Workbench (#) Argument[RULENAME] is invalid."}, {}},
        {"EmptyProgramNameFailsValidation", {}, {}, {kRemoveProgram, L";RULENAME=P;PROGRAMNAME="}, 1603,
         {L"[ERROR] Workbench (#) Argument[PROGRAMNAME] is invalid."}, {}},
        {"MissingProgramNameFailsValidation", {}, {}, {kAddProgram, AddProgram(L"RULENAME=P")}, 1603,
         {L"[ERROR] Workbench (#) Argument[PROGRAMNAME] is invalid."}, {}},
        // ------------------------------------------------------------ rule path failures
        {"UnavailablePolicyIsAWarningAndTheListsAreUsed", {}, {Fails(L"Create.NetFwPolicy2")},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}, 0,
         {L"[WARNING] Firewall (#) Failed to get firewall exceptions object with error 2147942405."}, {OpenPort(80, L"R")}},
        {"UnreadableRuleListIsAWarningAndTheListsAreUsed", {}, {Fails(L"Policy2.Rules")},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}, 0,
         {L"[WARNING] Firewall (#) Failed to get firewall exceptions object with error 2147942405."}, {OpenPort(80, L"R")}},
        {"UnreadableCurrentProfileIsAnErrorAndTheListsAreUsed", {}, {Fails(L"Policy2.CurrentProfileTypes")},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}, 0,
         {Failed(L"Failed to get firewall current profile with error ")}, {OpenPort(80, L"R")}},
        {"FailedSearchIsLoggedTwiceBeforeTheSummary", {}, {Fails(L"Rules.Item")},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}, 1603,
         {Failed(L"Failed trying to find existing exception with error "),
          Failed(L"Failed trying to find existing exception with error "),
          Failed(L"Failed to add port exception with error ")},
         {}},
        {"FailedSearchFailsTheRemoval", {}, {Fails(L"Rules.Item")}, {kRemovePort, L";RULENAME=R;LOCALPORTS=80"}, 1603,
         {Failed(L"Failed trying to find existing exception with error "),
          Failed(L"Failed to check exception with error "), Failed(L"Failed to remove exception with error ")},
         {}},
        {"FailedRemovalIsLoggedWithTheSummary", {{kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}},
         {Fails(L"Rules.Remove")}, {kRemoveProgram, L";RULENAME=R;PROGRAMNAME=C:\\a.exe"}, 1603,
         {Failed(L"Failed to remove exception with error "), Failed(L"Failed to remove exception with error ")},
         {PortRule(L"R", L"80")}},
        // ------------------------------------------------------------ legacy lists
        {"LegacyPortListOpensEachPortForTcp", {}, {kLegacy}, {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80,443")}, 0,
         {kLegacyWarning}, {OpenPort(443, L"R"), OpenPort(80, L"R")}},
        {"LegacyRangeOpensItsFirstPortAndATrailingCommaNothing", {}, {kLegacy},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=8080-8090,")}, 0, {kLegacyWarning}, {OpenPort(8080, L"R")}},
        {"LegacyLeadingCommaTriesPortZeroFirst", {}, {kLegacy}, {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=,80")},
         1603, {kLegacyWarning, Failed(L"Failed to set port number with error ", kInvalidArg)}, {}},
        {"LegacyOpenPortIsOnlyEnabledAndTheNextOneOpened", {{kAddPort, AddPort(L"RULENAME=Old;LOCALPORTS=80")}},
         {kLegacy, L"OpenPorts\\80-6\\Enabled=0"}, {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80,443")}, 0,
         {kLegacyWarning}, {OpenPort(443, L"R"), OpenPort(80, L"Old")}},
        {"LegacyProgramGetsItsRemoteAddressesTwice", {}, {kLegacy},
         {kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=" + app + L";REMOTEADDRESSES=10.1.0.0/16")}, 0,
         {kLegacyWarning}, {App(L"P", app, L"; RemoteAddresses=10.1.0.0/16")},
         {L"Create.NetFwMgr", L"Mgr.LocalPolicy", L"Policy.CurrentProfile",
          L"Profile.AuthorizedApplications", L"AuthorizedApps.Item", L"Create.NetFwAuthorizedApplication",
          L"AuthorizedApp.Name", L"AuthorizedApp.ProcessImageFileName", L"AuthorizedApp.RemoteAddresses",
          L"AuthorizedApp.RemoteAddresses", L"AuthorizedApp.Enabled", L"AuthorizedApps.Add"}},
        {"LegacyAuthorizedProgramIsOnlyEnabled", {{kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=" + app)}},
         {kLegacy, L"AuthorizedApplications\\1\\Enabled=0"},
         {kAddProgram, AddProgram(L"RULENAME=Q;PROGRAMNAME=" + app + L";REMOTEADDRESSES=10.0.0.1")}, 0,
         {kLegacyWarning}, {App(L"P", app)},
         {L"Create.NetFwMgr", L"Mgr.LocalPolicy", L"Policy.CurrentProfile", L"Profile.AuthorizedApplications",
          L"AuthorizedApps.Item", L"AuthorizedApp.Enabled"}},
        {"LegacyLongNonAsciiProgramPathIsAuthorized", {}, {kLegacy},
         {kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=C:\\" + LongName() + L".exe")}, 0, {kLegacyWarning},
         {App(L"P", L"C:\\" + LongName() + L".exe")}},
        {"LegacyRemovalOfAPortNotOpenFails", {}, {kLegacy}, {kRemovePort, L";RULENAME=R;LOCALPORTS=80"}, 1603,
         {kLegacyWarning, Failed(L"Failed to retrieve open port with error ", kNotFound),
          Failed(L"Failed to check local ports with error ", kNotFound)},
         {}},
        {"LegacyRemovalClosesEachPort", {{kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80,443,8080")}}, {kLegacy},
         {kRemovePort, L";RULENAME=R;LOCALPORTS=80,443"}, 0, {kLegacyWarning}, {OpenPort(8080, L"R")}},
        // The check answers "disabled" without a code of its own: the code
        // logged is the last one kept, the connection's REGDB_E_CLASSNOTREG.
        {"LegacyRemovalOfADisabledPortFailsWithTheLastCodeKept", {}, {kLegacy, L"OpenPorts\\80-6\\Enabled=0"},
         {kRemovePort, L";RULENAME=R;LOCALPORTS=80"}, 1603,
         {kLegacyWarning, Failed(L"Failed to check local ports with error ", kClassNotReg)},
         {L"OpenPorts\\80-6: Enabled=0"}},
        {"LegacyRemovalOfAMissingProgramFails", {}, {kLegacy}, {kRemoveProgram, L";RULENAME=P;PROGRAMNAME=" + app},
         1603,
         {kLegacyWarning, Failed(L"Failed to retrieve authorized app with error ", kNotFound),
          Failed(L"Failed to check app exception with error ", kNotFound)},
         {}},
        {"LegacyRemovalRemovesTheProgramByItsPath", {{kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=" + app)}},
         {kLegacy}, {kRemoveProgram, L";RULENAME=Other;PROGRAMNAME=c:\\program files\\quillcast\\QC.EXE"}, 0,
         {kLegacyWarning}, {}},
        // ------------------------------------------------------------ legacy failures
        {"LegacyManagerUnavailable", {}, {kLegacy, Fails(L"Create.NetFwMgr")},
         {kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}, 1603,
         {kLegacyWarning, Failed(L"Failed to connect to Windows Firewall with error "),
          Failed(L"Failed to get current profile with error ")},
         {}},
        {"LegacyProfileUnavailableOnRemoval", {}, {kLegacy, Fails(L"Policy.CurrentProfile")},
         {kRemoveProgram, L";RULENAME=P;PROGRAMNAME=" + app}, 1603,
         {kLegacyWarning, Failed(L"Failed to connect to Windows Firewall with error "),
          Failed(L"Failed to get current profile with error "),
          Failed(L"Failed to check app exception with error ")},
         {}},
        {"LegacyNotAllowedExceptionsFailTheCheckOnlyWhenTheReadFails",
         {{kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}},
         {kLegacy, L"ExceptionsNotAllowed=1", Fails(L"Profile.ExceptionsNotAllowed")},
         {kRemovePort, L";RULENAME=R;LOCALPORTS=80"}, 1603,
         {kLegacyWarning, Failed(L"Failed to get list of not allowed exceptions with error "),
          Failed(L"Failed to check local ports with error ")},
         {OpenPort(80, L"R")}},
        {"LegacyNotAllowedExceptionsReadWellDoNotStopTheRemoval", {{kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}},
         {kLegacy, L"ExceptionsNotAllowed=1"}, {kRemovePort, L";RULENAME=R;LOCALPORTS=80"}, 0, {kLegacyWarning}, {}},
        {"LegacyFailedPortRemovalNamesThePortAsWritten", {{kAddPort, AddPort(L"RULENAME=R;LOCALPORTS=80")}},
         {kLegacy, Fails(L"OpenPorts.Remove")}, {kRemovePort, L";RULENAME=R;LOCALPORTS=80x"}, 1603,
         {kLegacyWarning, Failed(L"Failed to remove open port 80x, protocol 6 with error ")}, {OpenPort(80, L"R")}},
        {"LegacyFailedProgramRemovalKeepsItsTwoBlanks", {{kAddProgram, AddProgram(L"RULENAME=P;PROGRAMNAME=" + app)}},
         {kLegacy, Fails(L"AuthorizedApps.Remove")}, {kRemoveProgram, L";RULENAME=P;PROGRAMNAME=" + app}, 1603,
         {kLegacyWarning, Failed(L"Failed to remove app " + app + L"  with error ")}, {App(L"P", app)}},
    };
}

// One failure switch per message: the call that fails, its message, then the summary (if any).
struct SwitchCase
{
    const char* behaviour;
    bool bLegacy;
    Lines setup;
    Call call;
    const wchar_t* method;
    Lines lines;
};

std::vector<SwitchCase> SwitchCases()
{
    const std::wstring port = AddPort(L"RULENAME=R;LOCALPORTS=80;RULEDESCRIPTION=d;REMOTEADDRESSES=*;"
                                      L"LOCALADDRESSES=*;REMOTEPORTS=*");
    const std::wstring program = AddProgram(L"RULENAME=P;PROGRAMNAME=C:\\a.exe;REMOTEADDRESSES=*");
    const std::wstring addPort = L"Failed to add port exception with error ";
    const std::wstring addProgram = L"Failed to add exception with error ";
    const std::wstring checkPort = L"Failed to check local ports with error ";
    const std::wstring checkApp = L"Failed to check app exception with error ";
    const std::wstring remove80 = L";RULENAME=R;LOCALPORTS=80";
    const std::wstring removeApp = L";RULENAME=P;PROGRAMNAME=C:\\a.exe";
    return {
        {"RuleCreate", false, {}, {kAddPort, port}, L"Create.NetFwRule",
         {L"Failed to create NetFwRule object with error ", addPort}},
        {"RuleName", false, {}, {kAddPort, port}, L"Rule.Name", {L"Failed to set exception friendly name with error ", addPort}},
        {"RuleProfiles", false, {}, {kAddPort, port}, L"Rule.Profiles", {L"Failed to set exception profile with error ", addPort}},
        {"RuleDescription", false, {}, {kAddPort, port}, L"Rule.Description",
         {L"Failed to set exception description with error ", addPort}},
        {"RuleDirection", false, {}, {kAddPort, port}, L"Rule.Direction",
         {L"Failed to set exception direction with error ", addPort}},
        {"RuleProtocol", false, {}, {kAddPort, port}, L"Rule.Protocol", {L"Failed to set exception protocol with error ", addPort}},
        {"RuleApplication", false, {}, {kAddProgram, program}, L"Rule.ApplicationName",
         {L"Failed to set application name with error ", addProgram}},
        {"RuleRemoteAddresses", false, {}, {kAddPort, port}, L"Rule.RemoteAddresses",
         {L"Failed to set authorized remote addresses with error ", addPort}},
        {"RuleLocalAddresses", false, {}, {kAddPort, port}, L"Rule.LocalAddresses",
         {L"Failed to set authorized local addresses with error ", addPort}},
        {"RuleRemotePorts", false, {}, {kAddPort, port}, L"Rule.RemotePorts",
         {L"Failed to set authorized remote ports with error ", addPort}},
        {"RuleLocalPorts", false, {}, {kAddPort, port}, L"Rule.LocalPorts",
         {L"Failed to set authorized local ports with error ", addPort}},
        {"RuleEdgeTraversalOptions", false, {}, {kAddPort, port}, L"Rule.EdgeTraversalOptions",
         {L"Failed to set EdgeTraversal to deferapp with error ", addPort}},
        {"RuleEdgeTraversal", false, {L"NoRule2=1"}, {kAddPort, port}, L"Rule.EdgeTraversal",
         {L"Failed to set EdgeTraversal to yes with error ", addPort}},
        {"RuleEnabled", false, {}, {kAddPort, port}, L"Rule.Enabled", {L"Failed to to enable exception with error ", addPort}},
        {"RulesAdd", false, {}, {kAddProgram, program}, L"Rules.Add",
         {L"Failed to add exception to the authorized list with error ", addProgram}},
        {"LegacyLocalPolicy", true, {}, {kAddProgram, program}, L"Mgr.LocalPolicy",
         {L"Failed to connect to Windows Firewall with error ", L"Failed to get current profile with error "}},
        {"LegacyOpenPorts", true, {}, {kAddPort, port}, L"Profile.GloballyOpenPorts",
         {L"Failed to get list of open ports with error "}},
        {"LegacyPortItem", true, {}, {kAddPort, port}, L"OpenPorts.Item", {L"Failed trying to find existing port with error "}},
        {"LegacyPortCreate", true, {}, {kAddPort, port}, L"Create.NetFwOpenPort",
         {L"Failed to create new open port with error "}},
        {"LegacyPortName", true, {}, {kAddPort, port}, L"OpenPort.Name", {L"Failed to set port name with error "}},
        {"LegacyPortProtocol", true, {}, {kAddPort, port}, L"OpenPort.Protocol", {L"Failed to set port protocol with error "}},
        {"LegacyPortNumber", true, {}, {kAddPort, port}, L"OpenPort.Port", {L"Failed to set port number with error "}},
        {"LegacyPortRemoteAddresses", true, {}, {kAddPort, port}, L"OpenPort.RemoteAddresses",
         {L"Failed to set port remote addresses with error "}},
        {"LegacyPortEnabled", true, {}, {kAddPort, port}, L"OpenPort.Enabled", {L"Failed to to enable port with error "}},
        {"LegacyPortAdd", true, {}, {kAddPort, port}, L"OpenPorts.Add",
         {L"Failed to add port to the open ports list with error "}},
        {"LegacyApps", true, {}, {kAddProgram, program}, L"Profile.AuthorizedApplications",
         {L"Failed to get list of authorized apps with error "}},
        {"LegacyAppItem", true, {}, {kAddProgram, program}, L"AuthorizedApps.Item",
         {L"Failed trying to find existing app with error "}},
        {"LegacyAppCreate", true, {}, {kAddProgram, program}, L"Create.NetFwAuthorizedApplication",
         {L"Failed to create authorized app with error "}},
        {"LegacyAppName", true, {}, {kAddProgram, program}, L"AuthorizedApp.Name",
         {L"Failed to set authorized app name with error "}},
        {"LegacyAppPath", true, {}, {kAddProgram, program}, L"AuthorizedApp.ProcessImageFileName",
         {L"Failed to set authorized app path with error "}},
        {"LegacyAppRemoteAddresses", true, {}, {kAddProgram, program}, L"AuthorizedApp.RemoteAddresses",
         {L"Failed to set authorized app remote addresses with error "}},
        {"LegacyAppEnabled", true, {}, {kAddProgram, program}, L"AuthorizedApp.Enabled",
         {L"Failed to to enable app with error "}},
        {"LegacyAppAdd", true, {}, {kAddProgram, program}, L"AuthorizedApps.Add",
         {L"Failed to add app to the authorized apps list with error "}},
        {"LegacyCheckOpenPorts", true, {}, {kRemovePort, remove80}, L"Profile.GloballyOpenPorts",
         {L"Failed to get list of open ports with error ", checkPort}},
        {"LegacyCheckPortEnabled", true, {L"OpenPorts\\80-6\\Enabled=1"}, {kRemovePort, remove80},
         L"OpenPort.GetEnabled", {L"Failed to retrieve open port with error ", checkPort}},
        {"LegacyCheckApps", true, {}, {kRemoveProgram, removeApp}, L"Profile.AuthorizedApplications",
         {L"Failed to get list of authorized apps with error ", checkApp}},
        {"LegacyCheckAppItem", true, {}, {kRemoveProgram, removeApp}, L"AuthorizedApps.Item",
         {L"Failed to retrieve authorized app with error ", checkApp}},
    };
}

class FirewallTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_pLibrary = new QcRunner::CActionLibrary(ShippedDllPath());
        s_pFirewall = new CTestFirewall();
    }
    static void TearDownTestSuite()
    {
        delete s_pFirewall;
        s_pFirewall = nullptr;
        delete s_pLibrary;
        s_pLibrary = nullptr;
    }
    void SetUp() override
    {
        ASSERT_TRUE(s_pLibrary->IsLoaded()) << "cannot load the DLL";
        ASSERT_TRUE(s_pFirewall->IsRegistered()) << "cannot register QcTestFirewall.dll";
        CTestFirewall::Reset();
    }

    struct Outcome
    {
        UINT result = 0xFFFFFFFF;
        Lines lines;
    };

    // One action in a fresh session; the lines without the frame's information lines.
    static Outcome Run(const Call& call)
    {
        Outcome outcome;
        QcRunner::CActionHost host;
        const QcRunner::CustomActionFunction action = s_pLibrary->Find(call.action);
        if (action == nullptr || !host.IsOpen() || !host.SetCustomActionData(call.data))
        {
            outcome.lines.push_back(L"(no action or no session) " + host.Error());
            return outcome;
        }
        outcome.result = host.Call(action);
        for (const std::wstring& line : host.LogLines())
        {
            EXPECT_GT(PrefixLength(line), 0u) << ::testing::PrintToString(line);
            // The frame's listing of the arguments is not this suite's matter; its verdicts are.
            const std::wstring body = Body(line);
            const bool bFrame = body.find(L"Workbench (#) ") != std::wstring::npos;
            if (!bFrame || body.find(L"] is invalid") != std::wstring::npos)
            {
                outcome.lines.push_back(body);
            }
        }
        return outcome;
    }

    // Sets the switches of `setup`, runs the calls of `before` (each must
    // succeed), then makes the state changes of `setup` and clears the journal.
    static void Prepare(const std::vector<Call>& before, const Lines& setup)
    {
        const auto isStateChange = [](const std::wstring& assignment) {
            return assignment.rfind(L"Rules\\", 0) == 0 || assignment.rfind(L"OpenPorts\\", 0) == 0 ||
                   assignment.rfind(L"AuthorizedApplications\\", 0) == 0;
        };
        for (const std::wstring& assignment : setup)
        {
            if (!isStateChange(assignment))
            {
                CTestFirewall::Set(assignment);
            }
        }
        for (const Call& call : before)
        {
            const Outcome outcome = Run(call);
            ASSERT_EQ(outcome.result, 0u) << ::testing::PrintToString(outcome.lines);
        }
        for (const std::wstring& assignment : setup)
        {
            if (isStateChange(assignment))
            {
                CTestFirewall::Set(assignment);
            }
        }
        ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"Software\\QuillcastTest\\Firewall", L"Journal");
    }

    static QcRunner::CActionLibrary* s_pLibrary;
    static CTestFirewall* s_pFirewall;
};

QcRunner::CActionLibrary* FirewallTest::s_pLibrary = nullptr;
CTestFirewall* FirewallTest::s_pFirewall = nullptr;

class FirewallAction : public FirewallTest, public ::testing::WithParamInterface<FirewallCase>
{
};

TEST_P(FirewallAction, Case)
{
    const FirewallCase& test = GetParam();
    Prepare(test.before, test.setup);

    const Outcome outcome = Run(test.call);

    EXPECT_EQ(outcome.result, test.result);
    EXPECT_EQ(outcome.lines, test.lines);
    EXPECT_EQ(CTestFirewall::State(), test.state);
    if (!test.journal.empty())
    {
        EXPECT_EQ(CTestFirewall::Journal(), test.journal);
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, FirewallAction, ::testing::ValuesIn(Cases()),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

class FirewallFailure : public FirewallTest, public ::testing::WithParamInterface<SwitchCase>
{
};

// The call named by the row fails with E_ACCESSDENIED: its message, then the
// operation's own summary where it has one, each with that code; result 1603.
TEST_P(FirewallFailure, EachMessageCarriesTheFailingCode)
{
    const SwitchCase& test = GetParam();
    Lines setup = test.setup;
    if (test.bLegacy)
    {
        setup.push_back(kLegacy);
    }
    setup.push_back(Fails(test.method));
    Prepare({}, setup);

    const Outcome outcome = Run(test.call);

    Lines expected;
    if (test.bLegacy)
    {
        expected.push_back(kLegacyWarning);
    }
    for (const std::wstring& text : test.lines)
    {
        expected.push_back(Failed(text));
    }
    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(outcome.lines, expected);
}

INSTANTIATE_TEST_SUITE_P(Switches, FirewallFailure, ::testing::ValuesIn(SwitchCases()),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

// The workers themselves, as the frame would call them after a validation
// that their main argument would have failed: 87, and the firewall untouched.
struct WorkerCase
{
    const char* behaviour;
    UINT (*worker)(Quillcast::Host::CWorkbench*);
    const wchar_t* data;
};

class FirewallWorker : public FirewallTest, public ::testing::WithParamInterface<WorkerCase>
{
};

TEST_P(FirewallWorker, MissingMainArgumentAnswersInvalidParameter)
{
    QcRunner::CActionHost host;
    ASSERT_TRUE(host.IsOpen());
    ASSERT_TRUE(host.SetCustomActionData(GetParam().data));
    const CLogCapture capture;
    Quillcast::Host::CWorkbench workbench(host.Session());

    EXPECT_EQ(GetParam().worker(&workbench), 87u);
    EXPECT_EQ(capture.Bodies(), Lines());
    EXPECT_EQ(CTestFirewall::State(), Lines());
}

INSTANTIATE_TEST_SUITE_P(
    Workers, FirewallWorker,
    ::testing::Values(WorkerCase{"AddPort", Quillcast::Actions::AddPortExceptionWorker, L";RULENAME=R;PROGRAMNAME=x"},
                      WorkerCase{"AddProgram", Quillcast::Actions::AddProgramExceptionWorker, L";RULENAME=R;LOCALPORTS=80"},
                      WorkerCase{"RemovePort", Quillcast::Actions::RemovePortExceptionWorker, L";RULENAME=R"},
                      WorkerCase{"RemoveProgram", Quillcast::Actions::RemoveProgramExceptionWorker, L";RULENAME=R"}),
    [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

TEST_F(FirewallTest, WorkerWithoutRuleNameLogsInvalidParameterAndFails)
{
    QcRunner::CActionHost host;
    ASSERT_TRUE(host.IsOpen());
    ASSERT_TRUE(host.SetCustomActionData(L";LOCALPORTS=80"));
    const CLogCapture capture;
    Quillcast::Host::CWorkbench workbench(host.Session());

    EXPECT_EQ(Quillcast::Actions::AddPortExceptionWorker(&workbench), 1603u);
    ASSERT_FALSE(capture.Bodies().empty());
    EXPECT_EQ(capture.Bodies().front(), L"[ERROR] Firewall (#) ERROR_INVALID_PARAMETER.");
    EXPECT_EQ(CTestFirewall::State(), Lines());
}

} // namespace
} // namespace QcTest
