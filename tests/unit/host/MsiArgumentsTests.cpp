#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/MsiArguments.h"
#include "host/types/WideString.h"
#include "support/LogCapture.h"

using Quillcast::Host::CMsiArguments;
using Quillcast::System::Types::Text;
using PairList = std::vector<std::pair<std::wstring, std::wstring>>;

TEST(MsiArgumentsParse, FirstCharacterSeparatesPairsThatAreTrimmedAndKeptInOrder)
{
    const struct
    {
        const wchar_t* data;
        PairList expected;
    } cases[] = {
        {L";RULENAME=Rule 1;LOCALPORTS=8080", {{L"RULENAME", L"Rule 1"}, {L"LOCALPORTS", L"8080"}}},
        {L"|CMDLINE=a.exe x=1;y", {{L"CMDLINE", L"a.exe x=1;y"}}},
        {L"=A=1=B=2", {{L"A", L"1"}, {L"B", L"2"}}},
        // Blanks go at both ends, TABs only in front.
        {L";  NAME\t =\t value  ", {{L"NAME\t", L"value"}}},
        {L"; A = \t ;B=\t", {{L"A", L""}, {L"B", L""}}},
        // Text without "=" is the front of the next name, or dropped at the end.
        {L";A;B=1", {{L"A;B", L"1"}}},
        {L";A=;=v;A=2;", {{L"A", L""}, {L"", L"v"}, {L"A", L"2"}}},
        {L";K==v=", {{L"K", L"=v="}}},
        {nullptr, {}},
        {L"", {}},
        {L";NAME", {}},
    };
    // Each text ends right before a page that cannot be read: a parser reading
    // past the terminator crashes (FailFastOnCrash turns that into a failure).
    wchar_t* const pPage = static_cast<wchar_t*>(::VirtualAlloc(nullptr, 8192, MEM_COMMIT, PAGE_READWRITE));
    DWORD dwOld = 0;
    ASSERT_TRUE(pPage != nullptr && ::VirtualProtect(pPage + 2048, 4096, PAGE_NOACCESS, &dwOld));
    for (const auto& sample : cases)
    {
        const std::wstring text = sample.data != nullptr ? sample.data : L"";
        wchar_t* const pText = pPage + 2047 - text.size();
        *std::copy(text.begin(), text.end(), pText) = L'\0';
        CMsiArguments arguments;
        arguments.Parse(sample.data != nullptr ? pText : nullptr);
        PairList parsed;
        for (const auto& pair : arguments.Pairs())
        {
            parsed.emplace_back(Text(pair.m_Name), Text(pair.m_Value));
        }
        EXPECT_EQ(parsed, sample.expected) << (sample.data != nullptr ? sample.data : L"(null)");
        EXPECT_EQ(arguments.Count(), parsed.size());
    }
    ::VirtualFree(pPage, 0, MEM_RELEASE);
}

// Generated texts whose pairs are known by construction: padded "name=value"
// pieces, now and then text without "=" (it becomes the front of the next name),
// names ending in a TAB, long values. Each text ends right before a page that is
// reserved only, so an over-read crashes.
TEST(MsiArgumentsRandom, PairsAreTheGeneratedValuesInOrderBehindTrimmedNames)
{
    constexpr size_t kChars = 32768;
    wchar_t* const pRegion = static_cast<wchar_t*>(::VirtualAlloc(nullptr, kChars * 4, MEM_RESERVE, PAGE_NOACCESS));
    ASSERT_TRUE(pRegion != nullptr && ::VirtualAlloc(pRegion, kChars * 2, MEM_COMMIT, PAGE_READWRITE) != nullptr);
    std::mt19937 random(20261123u);
    for (int round = 0; round < 100000 && !::testing::Test::HasFailure(); ++round)
    {
        const wchar_t sep = L";| \t,\u00E9"[random() % 6];
        // Up to `most` characters of `alphabet`, never the separator.
        const auto pick = [&random, sep](std::wstring alphabet, size_t most) {
            alphabet.erase(std::remove(alphabet.begin(), alphabet.end(), sep), alphabet.end());
            std::wstring text(alphabet.empty() ? 0 : random() % (most + 1), L' ');
            std::generate(text.begin(), text.end(), [&] { return alphabet[random() % alphabet.size()]; });
            return text;
        };
        const std::wstring letters = L"AbZ09_.\\\u00C4\u0130\xD83D\xDE00";
        PairList pieces;
        std::wstring text(1, sep);
        for (size_t count = random() % 9; count > 0; --count)
        {
            const std::wstring junk = random() % 5 == 0 ? pick(letters, 4) + sep : L"";
            std::wstring name = pick(letters, 5);
            name += !name.empty() && random() % 4 == 0 ? pick(L"\t", 1) : L""; // a lone TAB is front padding
            const std::wstring value =
                random() % 50 == 0 ? L"x" + pick(L" =\tq", 3000) + L"x" : pick(letters + L"=", 5);
            text += junk + pick(L" \t", 2) + name + pick(L" ", 2) + L"=" + pick(L" \t", 2) + value + pick(L" ", 2);
            text += sep;
            pieces.emplace_back(name, value);
        }
        text.pop_back();
        wchar_t* const pText = pRegion + kChars - 1 - text.size();
        *std::copy(text.begin(), text.end(), pText) = L'\0';
        CMsiArguments arguments;
        arguments.Parse(pText);
        ASSERT_EQ(arguments.Count(), pieces.size()) << ::testing::PrintToString(text);
        size_t i = 0;
        for (const auto& pair : arguments.Pairs())
        {
            const std::wstring name = Text(pair.m_Name), suffix = pieces[i].first;
            EXPECT_EQ(Text(pair.m_Value), pieces[i++].second) << ::testing::PrintToString(text);
            EXPECT_TRUE(name.find_first_of(L" \t") != 0 && name.size() >= suffix.size() &&
                        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
                << ::testing::PrintToString(name) << " in " << ::testing::PrintToString(text);
        }
    }
    ::VirtualFree(pRegion, 0, MEM_RELEASE);
}

TEST(MsiArgumentsLookup, FoldsOnlyAsciiLettersTheFirstDuplicateWinsAndAnEmptyNameIsNeverFound)
{
    CMsiArguments arguments;
    arguments.Parse(L";SERVICENAME=Spooler;servicename=Other;TIMEOUT=;\u00C4X=umlaut;A[=bracket;@B=at;\u0130D=dotted;"
                    L"=empty; =blank");
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"servicename", L"Spooler"},
        {L"ServiceName", L"Spooler"},
        {L"timeout", L""},
        {L"SERVICE", nullptr},
        {L"SERVICENAMES", nullptr},
        {L"\u00C4x", L"umlaut"},
        {L"\u00E4x", nullptr},
        {L"a[", L"bracket"},
        {L"a{", nullptr},
        {L"`b", nullptr},
        {L"id", nullptr},
        {L"", nullptr},
        {nullptr, nullptr},
    };
    for (const auto& [name, expected] : cases)
    {
        EXPECT_STREQ(arguments.GetArgument(name), expected) << (name != nullptr ? name : L"(null)");
    }
}

TEST(MsiArgumentsRead, FailuresAreLoggedAndLeaveTheListEmpty)
{
    const std::pair<MSIHANDLE, const wchar_t*> cases[] = {
        {0, L"[ERROR] MsiArguments (#) Invalid MSI handle."},
        {0x7FFF1234, L"[ERROR] MsiArguments (#) MsiGetProperty failed with error 6."},
    };
    for (const auto& [hInstall, expected] : cases)
    {
        QcTest::CLogCapture log;
        CMsiArguments arguments(hInstall);
        EXPECT_EQ(arguments.Count(), 0u);
        EXPECT_EQ(log.Bodies(), std::vector<std::wstring>{expected});
    }
}
