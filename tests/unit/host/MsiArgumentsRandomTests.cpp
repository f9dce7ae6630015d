// Parses many generated "CustomActionData" strings whose pairs the generator
// knows by construction and checks invariants of the result. Each string ends
// right before uncommitted memory, so reading past its terminator crashes the
// test (FailFastOnCrash turns that into a failed exit).
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "host/MsiArguments.h"
#include "host/types/WideString.h"

namespace {

// Longer than any generated string; a multiple of the allocation granularity.
constexpr size_t kRegionChars = size_t{1} << 17;

struct Generated
{
    std::wstring data;
    std::vector<std::wstring> names, values; // cores of the pairs, without their padding
};

// Pairs "<sep> <name> = <value> " with blanks and TABs in front and blanks behind
// each core; now and then text without "=" (the front of the next name, or dropped
// at the end), names ending in a TAB, empty names and values, very long values.
Generated Generate(std::mt19937& random)
{
    const auto below = [&random](size_t bound) { return static_cast<size_t>(random() % bound); };
    Generated g;
    if (below(64) == 0)
    {
        return g;
    }
    const wchar_t* const kSeparators = L";| \t=,\u00E9\u4E2D";
    const wchar_t sep = kSeparators[below(8)];
    const auto pick = [&](size_t count, std::wstring alphabet) {
        alphabet.erase(std::remove(alphabet.begin(), alphabet.end(), sep), alphabet.end());
        std::wstring text;
        while (!alphabet.empty() && count-- > 0)
        {
            text += alphabet[below(alphabet.size())];
        }
        return text;
    };
    const std::wstring kLetters = L"AbCdeFXyz019_.\\:\u00C4\u00E4\u0130\u00A0\uFFFD\xD83D\xDE00";
    g.data = sep;
    for (size_t pieces = below(14); pieces > 0; --pieces)
    {
        if (below(6) == 0 && sep != L'=')
        {
            g.data += pick(1 + below(6), kLetters) + sep;
            continue;
        }
        std::wstring name = pick(below(4) == 0 ? 0 : 1 + below(6), kLetters);
        name += !name.empty() && below(4) == 0 ? L"\t" : L"";
        std::wstring value = pick(below(4) == 0 ? 0 : 1 + below(6), kLetters + L"=");
        if (below(150) == 0)
        {
            value = L"x" + pick(1000 + below(6000), L" =\tAbcdefXYZ\u00E4") + L"x";
        }
        g.data += pick(below(3), L" \t") + name + pick(below(3), L" ") + L"=" + pick(below(3), L" \t") + value +
                  pick(below(3), L" ") + sep;
        g.names.push_back(name);
        g.values.push_back(value);
    }
    g.data.pop_back();
    return g;
}

} // namespace

TEST(MsiArgumentsRandom, PairsAreTrimmedSubstringsOfTheTextInOrderAndNothingIsReadPastTheEnd)
{
    const auto release = [](void* pRegion) { ::VirtualFree(pRegion, 0, MEM_RELEASE); };
    const size_t bytes = kRegionChars * sizeof(wchar_t);
    std::unique_ptr<void, decltype(release)> region(::VirtualAlloc(nullptr, bytes + 65536, MEM_RESERVE, PAGE_NOACCESS),
                                                    release);
    ASSERT_NE(region, nullptr);
    ASSERT_NE(::VirtualAlloc(region.get(), bytes, MEM_COMMIT, PAGE_READWRITE), nullptr);
    wchar_t* const pEnd = static_cast<wchar_t*>(region.get()) + kRegionChars;

    std::mt19937 random(20261115u);
    // Cases that matter, reached often: empty names, empty values, names ending
    // in a TAB, names holding the separator, long values.
    size_t reached[5] = {};
    int failures = 0;
    for (int round = 0; round < 100000 && failures < 5; ++round)
    {
        const Generated g = Generate(random);
        wchar_t* const pText = std::copy(g.data.begin(), g.data.end(), pEnd - (g.data.size() + 1)) - g.data.size();
        pEnd[-1] = L'\0';
        Quillcast::Host::CMsiArguments arguments;
        arguments.Parse(pText);

        bool bHolds = arguments.Count() == g.names.size();
        size_t i = 0, from = 1;
        for (const auto& pair : arguments.Pairs())
        {
            const std::wstring name = Quillcast::System::Types::Text(pair.m_Name);
            const std::wstring value = Quillcast::System::Types::Text(pair.m_Value);
            // Each name, then its value, is found in the text after the pair before.
            const size_t at = g.data.find(name, from);
            from = at == std::wstring::npos ? at : g.data.find(value, at + name.size());
            bHolds = bHolds && i < g.names.size() && from != std::wstring::npos && value == g.values[i] &&
                     name.size() >= g.names[i].size() &&
                     name.compare(name.size() - g.names[i].size(), std::wstring::npos, g.names[i]) == 0 &&
                     name.find(L'=') == std::wstring::npos && name.find_first_of(L" \t") != 0 &&
                     (name.empty() || name.back() != L' ');
            from += value.size();
            reached[0] += name.empty();
            reached[1] += value.empty();
            reached[2] += !name.empty() && name.back() == L'\t';
            reached[3] += name.find(g.data[0]) != std::wstring::npos;
            reached[4] += value.size() >= 1000;
            ++i;
        }
        if (!bHolds && ++failures <= 5)
        {
            ADD_FAILURE() << "round " << round << ": " << arguments.Count() << " pairs for "
                          << ::testing::PrintToString(g.data.substr(0, 160)) << " (" << g.data.size() << " characters)";
        }
    }
    for (size_t count : reached)
    {
        EXPECT_GT(count, 500u);
    }
}
