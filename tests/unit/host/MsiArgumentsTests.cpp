#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "host/MsiArguments.h"
#include "host/types/WideString.h"
#include "support/LogCapture.h"

using Quillcast::Host::CMsiArguments;
using Quillcast::System::Types::Text;

namespace {

using PairList = std::vector<std::pair<std::wstring, std::wstring>>;

PairList PairsOf(const CMsiArguments& arguments)
{
    PairList pairs;
    for (const auto& pair : arguments.Pairs())
    {
        pairs.emplace_back(Text(pair.m_Name), Text(pair.m_Value));
    }
    return pairs;
}

PairList Parsed(const wchar_t* data)
{
    CMsiArguments arguments;
    arguments.Parse(data);
    EXPECT_EQ(arguments.Count(), arguments.Pairs().size());
    return PairsOf(arguments);
}

} // namespace

TEST(MsiArgumentsParse, FirstCharacterIsTheSeparator)
{
    EXPECT_EQ(Parsed(L";RULENAME=Rule 1;LOCALPORTS=8080"), (PairList{{L"RULENAME", L"Rule 1"}, {L"LOCALPORTS", L"8080"}}));
    EXPECT_EQ(Parsed(L"|CMDLINE=a.exe x=1;y"), (PairList{{L"CMDLINE", L"a.exe x=1;y"}}));
    EXPECT_EQ(Parsed(L"=A=1=B=2"), (PairList{{L"A", L"1"}, {L"B", L"2"}}));
}

TEST(MsiArgumentsParse, TrimsBlanksAtBothEndsButTabsOnlyInFront)
{
    EXPECT_EQ(Parsed(L";  NAME\t =\t value  "), (PairList{{L"NAME\t", L"value"}}));
    EXPECT_EQ(Parsed(L"; A = \t ;B=\t"), (PairList{{L"A", L""}, {L"B", L""}}));
}

TEST(MsiArgumentsParse, TextWithoutEqualsBecomesTheFrontOfTheNextName)
{
    EXPECT_EQ(Parsed(L";A;B=1"), (PairList{{L"A;B", L"1"}}));
    EXPECT_EQ(Parsed(L";A=1;junk"), (PairList{{L"A", L"1"}}));
}

TEST(MsiArgumentsParse, KeepsEmptyValuesEmptyNamesAndDuplicatesInOrder)
{
    EXPECT_EQ(Parsed(L";TIMEOUT="), (PairList{{L"TIMEOUT", L""}}));
    EXPECT_EQ(Parsed(L";A=;=v;A=2;"), (PairList{{L"A", L""}, {L"", L"v"}, {L"A", L"2"}}));
    EXPECT_EQ(Parsed(L";K==v="), (PairList{{L"K", L"=v="}}));
}

TEST(MsiArgumentsParse, NothingToParseYieldsNoPairs)
{
    for (const wchar_t* data : {static_cast<const wchar_t*>(nullptr), L"", L";", L";;;", L";NAME", L" "})
    {
        EXPECT_TRUE(Parsed(data).empty()) << (data != nullptr ? data : L"(null)");
    }
}

TEST(MsiArgumentsLookup, IgnoresAsciiCaseAndTheFirstDuplicateWins)
{
    CMsiArguments arguments;
    arguments.Parse(L";SERVICENAME=Spooler;servicename=Other;TIMEOUT=");
    EXPECT_STREQ(arguments.GetArgument(L"servicename"), L"Spooler");
    EXPECT_STREQ(arguments.GetArgument(L"ServiceName"), L"Spooler");
    const wchar_t* pTimeout = arguments.GetArgument(L"timeout");
    ASSERT_NE(pTimeout, nullptr);
    EXPECT_STREQ(pTimeout, L"");
    EXPECT_EQ(arguments.GetArgument(L"SERVICE"), nullptr);
    EXPECT_EQ(arguments.GetArgument(L"SERVICENAMES"), nullptr);
    EXPECT_EQ(arguments.GetArgument(nullptr), nullptr);
}

TEST(MsiArgumentsLookup, FoldsOnlyAsciiLetters)
{
    CMsiArguments arguments;
    arguments.Parse(L";\u00C4X=umlaut;A[=bracket;@B=at;\u0130D=dotted");
    EXPECT_STREQ(arguments.GetArgument(L"\u00C4x"), L"umlaut");
    EXPECT_EQ(arguments.GetArgument(L"\u00E4x"), nullptr);
    // Characters 0x20 apart that are not letters must not match.
    EXPECT_STREQ(arguments.GetArgument(L"a["), L"bracket");
    EXPECT_EQ(arguments.GetArgument(L"a{"), nullptr);
    EXPECT_EQ(arguments.GetArgument(L"`b"), nullptr);
    EXPECT_EQ(arguments.GetArgument(L"id"), nullptr);
}

TEST(MsiArgumentsLookup, AnEmptyNameIsNeverFound)
{
    CMsiArguments arguments;
    arguments.Parse(L";=first; =second;A=1");
    ASSERT_EQ(arguments.Count(), 3u);
    EXPECT_EQ(arguments.GetArgument(L""), nullptr);
    EXPECT_STREQ(arguments.GetArgument(L"a"), L"1");
}

TEST(MsiArgumentsRead, SessionHandleZeroIsLoggedAndLeavesTheListEmpty)
{
    QcTest::CLogCapture log;
    CMsiArguments arguments(0);
    EXPECT_EQ(arguments.Count(), 0u);
    EXPECT_EQ(log.Bodies(), std::vector<std::wstring>{L"[ERROR] MsiArguments (#) Invalid MSI handle."});
}

TEST(MsiArgumentsRead, FailedPropertyQueryIsLoggedWithItsCode)
{
    QcTest::CLogCapture log;
    CMsiArguments arguments(0x7FFF1234);
    EXPECT_EQ(arguments.Count(), 0u);
    EXPECT_EQ(log.Bodies(),
              std::vector<std::wstring>{L"[ERROR] MsiArguments (#) MsiGetProperty failed with error 6."});
}
