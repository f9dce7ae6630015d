// Parses many generated "CustomActionData" strings and compares every result
// with an independent model of the grammar. Each string ends right before
// uncommitted memory, so reading past its terminator crashes the test
// (FailFastOnCrash turns that into a failed exit).
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/MsiArguments.h"
#include "host/types/WideString.h"

using Quillcast::Host::CMsiArguments;
using Quillcast::System::Types::Text;
using PairList = std::vector<std::pair<std::wstring, std::wstring>>;

namespace {

// A multiple of the allocation granularity, and longer than any generated string.
constexpr size_t kRegionChars = size_t{1} << 17;

std::wstring ModelTrim(const std::wstring& text)
{
    const size_t first = text.find_first_not_of(L" \t");
    return first == std::wstring::npos ? L"" : text.substr(first, text.find_last_not_of(L' ') - first + 1);
}

std::wstring FoldAscii(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t ch) { return (ch >= L'A' && ch <= L'Z') ? static_cast<wchar_t>(ch + 32) : ch; });
    return text;
}

// The grammar as a two-state scanner: a name runs to the first "=" (separators
// included), a value to the next separator; a name still open at the end is dropped.
PairList ModelParse(const std::wstring& data)
{
    PairList pairs;
    std::wstring name, value;
    bool bInValue = false;
    for (size_t i = 1; i < data.size(); ++i)
    {
        if (!bInValue && data[i] == L'=')
        {
            bInValue = true;
        }
        else if (bInValue && data[i] == data[0])
        {
            pairs.emplace_back(ModelTrim(name), ModelTrim(value));
            name.clear();
            value.clear();
            bInValue = false;
        }
        else
        {
            (bInValue ? value : name) += data[i];
        }
    }
    if (bInValue)
    {
        pairs.emplace_back(ModelTrim(name), ModelTrim(value));
    }
    return pairs;
}

// Separators of every kind (also blank, TAB, "=" and non-ASCII), stray "=",
// blanks and TABs, text without "=", empty pairs, pairs with blanks and TABs
// around name and value, non-ASCII letters and now and then a very long value.
std::wstring Generate(std::mt19937& random)
{
    const auto below = [&random](size_t bound) { return static_cast<size_t>(random() % bound); };
    std::wstring data;
    const auto append = [&](size_t count, const wchar_t* alphabet) {
        for (const size_t size = ::wcslen(alphabet); count > 0; --count)
        {
            data += alphabet[below(size)];
        }
    };
    const wchar_t* const kLetters = L"AbCdeFXyz019_.\\:\u00C4\u00E4\u0130\u00A0\uFFFD\xD83D\xDE00";
    if (below(64) != 0)
    {
        append(1, L";| =\t,\u00E9\u4E2D");
    }
    for (size_t pieces = data.empty() ? 0 : below(14); pieces > 0; --pieces)
    {
        switch (below(10))
        {
        case 0: append(1, L" \t=;|"); break;
        case 1: append(1 + below(6), kLetters); break;
        case 2: data.append({data[0], L'='}); break;
        default:
            data += data[0];
            append(below(3), L" \t");
            append(1 + below(6), kLetters);
            append(below(3), L" \t");
            data += L'=';
            append(below(3), L" \t");
            if (below(150) == 0)
            {
                append(1000 + below(6000), L" =\tAbcdefXYZ\u00E4");
            }
            append(below(4) == 0 ? 0 : 1 + below(6), kLetters);
            append(below(3), L" \t");
        }
    }
    return data;
}

} // namespace

TEST(MsiArgumentsRandom, HundredThousandGeneratedStringsMatchTheModelWithoutReadingPastTheEnd)
{
    const auto release = [](void* pRegion) { ::VirtualFree(pRegion, 0, MEM_RELEASE); };
    const size_t bytes = kRegionChars * sizeof(wchar_t);
    std::unique_ptr<void, decltype(release)> region(::VirtualAlloc(nullptr, bytes + 65536, MEM_RESERVE, PAGE_NOACCESS),
                                                    release);
    ASSERT_NE(region, nullptr);
    ASSERT_NE(::VirtualAlloc(region.get(), bytes, MEM_COMMIT, PAGE_READWRITE), nullptr);
    wchar_t* const pEnd = static_cast<wchar_t*>(region.get()) + kRegionChars;
    MEMORY_BASIC_INFORMATION guard{};
    ASSERT_NE(::VirtualQuery(pEnd, &guard, sizeof(guard)), 0u);
    ASSERT_EQ(guard.State, static_cast<DWORD>(MEM_RESERVE));

    std::mt19937 random(20261115u);
    // How often the generator reached the cases that matter: empty names, empty values, names
    // ending in a TAB, names holding the separator, long values.
    size_t reached[5] = {};
    int failures = 0;
    for (int round = 0; round < 100000 && failures < 5; ++round)
    {
        const std::wstring data = Generate(random);
        wchar_t* const pText = std::copy(data.begin(), data.end(), pEnd - (data.size() + 1)) - data.size();
        pEnd[-1] = L'\0';
        CMsiArguments arguments;
        arguments.Parse(pText);

        const PairList expected = ModelParse(data);
        PairList parsed;
        for (const auto& pair : arguments.Pairs())
        {
            parsed.emplace_back(Text(pair.m_Name), Text(pair.m_Value));
        }
        // Every name, as written and folded, finds the first pair it matches ignoring ASCII case.
        std::map<std::wstring, std::wstring> firstValue;
        bool bLookupsMatch = arguments.GetArgument(L"") == nullptr;
        for (const auto& [name, value] : expected)
        {
            const std::wstring& wanted = firstValue.emplace(FoldAscii(name), value).first->second;
            for (const std::wstring& key : {name, FoldAscii(name)})
            {
                const wchar_t* pFound = arguments.GetArgument(key.c_str());
                bLookupsMatch = bLookupsMatch && (name.empty() || (pFound != nullptr && wanted == pFound));
            }
            reached[0] += name.empty();
            reached[1] += value.empty();
            reached[2] += !name.empty() && name.back() == L'\t';
            reached[3] += name.find(data[0]) != std::wstring::npos;
            reached[4] += value.size() >= 1000;
        }
        if (parsed != expected || !bLookupsMatch)
        {
            ++failures;
            ADD_FAILURE() << "round " << round << (parsed != expected ? ": pairs" : ": look-ups") << " differ for "
                          << ::testing::PrintToString(data.substr(0, 160)) << " (" << data.size() << " characters)";
        }
    }

    for (size_t count : reached)
    {
        EXPECT_GT(count, 500u);
    }
}
