// GetDomain: Wine's own WMI for a workgroup machine; the test double for a
// domain member, odd answers and failing steps.
#include <gtest/gtest.h>

#include "directory/ActionCall.h"
#include "directory/DirectoryDouble.h"

namespace QcTest {
namespace {

const std::wstring kConnecting = L"WmiConnection (#) Connecting to namespace ROOT\\CIMV2.";
const std::wstring kQuerying = L"WmiConnection (#) Processing query Select * from Win32_ComputerSystem.";
const std::wstring kConnect =
    L"ConnectServer ROOT\\CIMV2 user=null password=null locale=null flags=128 authority=null context=null";
const std::wstring kServicesBlanket =
    L"SetBlanket Services authn=10 authz=0 principal=QcDouble level=2 imp=3 identity=null capabilities=0";
const std::wstring kQuery = L"ExecQuery WQL 'Select * from Win32_ComputerSystem' flags=48 context=null";
const std::wstring kEnumeratorBlanket =
    L"SetBlanket Enumerator authn=10 authz=0 principal=QcDouble level=2 imp=3 identity=null capabilities=0";
const std::wstring kNext = L"Next timeout=-1 count=1";

struct DomainCase
{
    const char* behaviour;
    bool bDouble;                    // false: Wine's own WMI
    void (*answer)();                // the double's answers
    int apartmentBefore;             // -1: a thread without COM
    UINT result;
    Lines lines;
    const wchar_t* machineDomain;    // before: "earlier.example"
    const wchar_t* partOfDomain;     // before: "earlier"
    Lines journal;
    HRESULT comAfter;
};

void PrintTo(const DomainCase& test, std::ostream* pStream)
{
    *pStream << test.behaviour;
}

class GetDomain : public ::testing::TestWithParam<DomainCase>
{
};

TEST_P(GetDomain, Case)
{
    const DomainCase& test = GetParam();
    std::unique_ptr<CDirectoryDouble> pDouble;
    if (test.bDouble)
    {
        pDouble = std::make_unique<CDirectoryDouble>();
        ASSERT_TRUE(pDouble->IsRegistered());
        test.answer();
    }
    const ActionOutcome outcome =
        RunAction("GetDomain", {{L"MACHINEDOMAIN", L"earlier.example"}, {L"PARTOFDOMAIN", L"earlier"}},
                  {L"MACHINEDOMAIN", L"PARTOFDOMAIN"}, test.apartmentBefore);

    EXPECT_EQ(outcome.result, test.result);
    EXPECT_EQ(outcome.lines, test.lines);
    EXPECT_EQ(outcome.properties, (Properties{{L"MACHINEDOMAIN", test.machineDomain},
                                              {L"PARTOFDOMAIN", test.partOfDomain}}));
    if (test.bDouble)
    {
        EXPECT_EQ(CDirectoryDouble::Journal(), test.journal);
    }
    EXPECT_EQ(outcome.comAfter, test.comAfter);
}

void Joined()
{
    CDirectoryDouble::Set(L"Domain", L"corp.example");
    CDirectoryDouble::Set(L"PartOfDomain", 1);
}
void Workgroup()
{
    CDirectoryDouble::Set(L"Domain", L"OFFICE");
    CDirectoryDouble::Set(L"PartOfDomain", 0);
}
void DomainAsNumber()
{
    Joined();
    CDirectoryDouble::Set(L"DomainCimType", 3); // CIM_SINT32
}
void DomainWithoutValue()
{
    CDirectoryDouble::Set(L"PartOfDomain", 1);
}
void NoInstance()
{
    Joined();
    CDirectoryDouble::Set(L"Instances", 0);
}
void TwoInstances()
{
    Joined();
    CDirectoryDouble::Set(L"Instances", 2);
}
void AlreadyImpersonating()
{
    Joined();
    CDirectoryDouble::Set(L"ImpersonationLevel", 3);
}
template <const wchar_t* step>
void FailAt()
{
    Joined();
    CDirectoryDouble::Set(L"FailAt", step);
}
void MissingServer()
{
    CDirectoryDouble::RegisterMissingServer();
}
constexpr wchar_t kQueryBlanket[] = L"QueryBlanket";
constexpr wchar_t kConnectServer[] = L"ConnectServer";
constexpr wchar_t kExecQuery[] = L"ExecQuery";
constexpr wchar_t kNextStep[] = L"Next";
constexpr wchar_t kSetBlanket[] = L"SetBlanket";

// The calls of a full run, with what lies between the enumeration and the end.
Lines FullRun(ULONG nexts, const Lines& reads, ULONG instances)
{
    Lines journal = {kConnect, kServicesBlanket, kQuery, kEnumeratorBlanket};
    journal.insert(journal.end(), nexts, kNext);
    journal.push_back(L"Enumerator released");
    journal.insert(journal.end(), reads.begin(), reads.end());
    journal.insert(journal.end(), instances, L"Win32_ComputerSystem released");
    journal.insert(journal.end(), {L"Services released", L"Locator released"});
    return journal;
}
const Lines kBothReads = {L"Get PartOfDomain flags=0", L"Get Domain flags=0"};

const DomainCase kDomainCases[] = {
    // Wine answers like a workgroup machine: "Domain" holds the workgroup and
    // "PartOfDomain" is missing, so the flag counts as false.
    {"WineWorkgroupMachineSetsTheWorkgroupAndKeepsPartOfDomain", false, nullptr, -1, 0,
     {kConnecting, kQuerying, L"[ERROR] WmiClassObject (#) Get for property 'PartOfDomain' failed."}, L"WORKGROUP",
     L"earlier", {}, S_OK},
    {"JoinedMachineSetsDomainAndPartOfDomain", true, Joined, -1, 0, {kConnecting, kQuerying}, L"corp.example", L"1",
     FullRun(2, kBothReads, 1), S_OK},
    {"WorkgroupMemberSetsItsWorkgroupAndKeepsAnEarlierPartOfDomain", true, Workgroup, -1, 0,
     {kConnecting, kQuerying}, L"OFFICE", L"earlier", FullRun(2, kBothReads, 1), S_OK},
    // "MACHINEDOMAIN" is set also to the empty text, which removes it.
    {"DomainOfAnotherCimTypeFailsWith1804AndEmptiesMachineDomain", true, DomainAsNumber, -1, 0,
     {kConnecting, kQuerying,
      L"[ERROR] WmiClassObject (#) Got type mismatch for property 'Domain' Expected=8 Is=3."},
     L"", L"1", FullRun(2, kBothReads, 1), S_OK},
    {"DomainWithoutValueEmptiesMachineDomain", true, DomainWithoutValue, -1, 0, {kConnecting, kQuerying}, L"",
     L"1", FullRun(2, kBothReads, 1), S_OK},
    {"EmptyQueryResultFindsNoComputerSystem", true, NoInstance, -1, 1603,
     {kConnecting, kQuerying, L"[ERROR] Various (#) No Win32_ComputerSystem found."}, L"earlier.example",
     L"earlier", FullRun(1, {}, 0), S_OK},
    {"OnlyTheFirstComputerSystemCounts", true, TwoInstances, -1, 0, {kConnecting, kQuerying}, L"corp.example",
     L"1", FullRun(3, kBothReads, 2), S_OK},
    {"ProxyAlreadyImpersonatingKeepsItsBlanket", true, AlreadyImpersonating, -1, 0, {kConnecting, kQuerying},
     L"corp.example", L"1",
     {kConnect, kQuery, kNext, kNext, L"Enumerator released", kBothReads[0], kBothReads[1],
      L"Win32_ComputerSystem released", L"Services released", L"Locator released"},
     S_OK},
    // The thread's last-error value, not the HRESULT, ends the action's entry.
    {"FailedConnectFailsWithTheThreadsLastError", true, FailAt<kConnectServer>, -1, 1603,
     {kConnecting, L"[ERROR] WmiConnection (#) Connecting Wmi Services failed.",
      L"[ERROR] Various (#) WMI Connection failed with error 5."},
     L"earlier.example", L"earlier", {kConnect, L"Locator released"}, S_OK},
    // 14007 (ERROR_SXS_KEY_NOT_FOUND) is what Wine's COM leaves on the thread.
    {"FailedServicesBlanketFailsTheConnect", true, FailAt<kSetBlanket>, -1, 1603,
     {kConnecting, L"[ERROR] WmiConnection (#) CoSetProxyBlanket failed.",
      L"[ERROR] Various (#) WMI Connection failed with error 14007."},
     L"earlier.example", L"earlier", {kConnect, kServicesBlanket, L"Services released", L"Locator released"}, S_OK},
    // The query's failure takes the "set" text too, on purpose.
    {"FailedBlanketQueryFailsTheConnectWithTheSetText", true, FailAt<kQueryBlanket>, -1, 1603,
     {kConnecting, L"[ERROR] WmiConnection (#) CoSetProxyBlanket failed.",
      L"[ERROR] Various (#) WMI Connection failed with error 14007."},
     L"earlier.example", L"earlier", {kConnect, L"Services released", L"Locator released"}, S_OK},
    {"MissingLocatorFailsTheConnect", true, MissingServer, -1, 1603,
     {L"[ERROR] WmiConnection (#) Creating WbemLocator failed.",
      L"[ERROR] Various (#) WMI Connection failed with error 126."},
     L"earlier.example", L"earlier", {}, S_OK},
    {"FailedQueryFails", true, FailAt<kExecQuery>, -1, 1603,
     {kConnecting, kQuerying, L"[ERROR] WmiConnection (#) Processing query failed.",
      L"[ERROR] Various (#) Query for Win32_ComputerSystem failed."},
     L"earlier.example", L"earlier", {kConnect, kServicesBlanket, kQuery, L"Services released", L"Locator released"},
     S_OK},
    // WBEM_E_ACCESS_DENIED is 0x80041003.
    {"FailedEnumerationFails", true, FailAt<kNextStep>, -1, 1603,
     {kConnecting, kQuerying,
      L"[ERROR] WmiConnection (#) Enumerating class objects failed with error 2147749891 returned = 0.",
      L"[ERROR] Various (#) Query for Win32_ComputerSystem failed."},
     L"earlier.example", L"earlier",
     {kConnect, kServicesBlanket, kQuery, kEnumeratorBlanket, kNext, L"Enumerator released", L"Services released",
      L"Locator released"},
     S_OK},
    // RPC_E_CHANGED_MODE (0x80010106) is logged, the query still runs, and the
    // caller's apartment is not uninitialised (a second CoInitializeEx answers S_FALSE).
    {"ApartmentThreadedCallerIsUsedAsItIsAndStaysInitialised", true, Joined, COINIT_APARTMENTTHREADED, 0,
     {L"[ERROR] WmiConnection (#) CoInitializeEx failed with result 2147549446.", kConnecting, kQuerying},
     L"corp.example", L"1", FullRun(2, kBothReads, 1), S_FALSE},
};

INSTANTIATE_TEST_SUITE_P(Cases, GetDomain, ::testing::ValuesIn(kDomainCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

} // namespace
} // namespace QcTest
