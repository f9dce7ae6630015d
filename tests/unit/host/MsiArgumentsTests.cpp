#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/MsiArguments.h"
#include "host/types/WideString.h"

using Quillcast::Host::CMsiArguments;
using Quillcast::System::Types::Text;
using PairList = std::vector<std::pair<std::wstring, std::wstring>>;

TEST(MsiArgumentsParse, FirstCharacterSeparatesPairsThatAreTrimmedAndKeptInOrder)
{
    const std::pair<const wchar_t*, PairList> cases[] = {
        {L";RULENAME=Rule 1;LOCALPORTS=8080", {{L"RULENAME", L"Rule 1"}, {L"LOCALPORTS", L"8080"}}},
        {L"|CMDLINE=a.exe x=1;y", {{L"CMDLINE", L"a.exe x=1;y"}}},
        // Blanks go at both ends, TABs only in front.
        {L";  NAME\t =\t value  ", {{L"NAME\t", L"value"}}},
        {L"; A = \t ;B=\t", {{L"A", L""}, {L"B", L""}}},
        // Text without "=" is the front of the next name, or dropped at the end.
        {L";A;B=1", {{L"A;B", L"1"}}},
        {L";A=;=v;A=2;", {{L"A", L""}, {L"", L"v"}, {L"A", L"2"}}},
        {nullptr, {}},
        {L"", {}},
        {L";NAME", {}},
    };
    // Each text ends right before a page that cannot be read: a parser reading
    // past the terminator crashes (FailFastOnCrash turns that into a failure).
    const auto release = [](wchar_t* pPages) { ::VirtualFree(pPages, 0, MEM_RELEASE); };
    const std::unique_ptr<wchar_t, decltype(release)> pages(
        static_cast<wchar_t*>(::VirtualAlloc(nullptr, 8192, MEM_COMMIT, PAGE_READWRITE)), release);
    wchar_t* const pPage = pages.get();
    DWORD dwOld = 0;
    ASSERT_TRUE(pPage != nullptr && ::VirtualProtect(pPage + 2048, 4096, PAGE_NOACCESS, &dwOld));
    for (const auto& [data, expected] : cases)
    {
        const std::wstring text = data != nullptr ? data : L"";
        wchar_t* const pText = pPage + 2047 - text.size();
        *std::copy(text.begin(), text.end(), pText) = L'\0';
        CMsiArguments arguments;
        arguments.Parse(data != nullptr ? pText : nullptr);
        PairList parsed;
        for (const auto& pair : arguments.Pairs())
        {
            parsed.emplace_back(Text(pair.m_Name), Text(pair.m_Value));
        }
        EXPECT_EQ(parsed, expected) << (data != nullptr ? data : L"(null)");
        EXPECT_EQ(arguments.Count(), parsed.size());
    }
}

TEST(MsiArgumentsLookup, FoldsOnlyAsciiLettersTheFirstDuplicateWinsAndAnEmptyNameIsNeverFound)
{
    CMsiArguments arguments;
    arguments.Parse(L";SERVICENAME=Spooler;servicename=Other;TIMEOUT=;\u00C4X=umlaut;A[=bracket;=empty; =blank");
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"servicename", L"Spooler"}, {L"timeout", L""},       {L"SERVICE", nullptr},
        {L"SERVICENAMES", nullptr},   {L"\u00C4x", L"umlaut"}, {L"\u00E4x", nullptr},
        {L"a[", L"bracket"},          {L"a{", nullptr},        {L"", nullptr},
        {nullptr, nullptr},
    };
    for (const auto& [name, expected] : cases)
    {
        EXPECT_STREQ(arguments.GetArgument(name), expected) << (name != nullptr ? name : L"(null)");
    }
}
