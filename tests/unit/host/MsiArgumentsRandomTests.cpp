// Parses many generated "CustomActionData" strings and compares every result
// with an independent model of the grammar. Each string is parsed in place right
// before an inaccessible page, so reading past its terminator crashes the test
// (FailFastOnCrash turns that into a failed exit).
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <random>
#include <string>
#include <vector>

#include "host/MsiArguments.h"
#include "host/types/WideString.h"

using Quillcast::Host::CMsiArguments;
using Quillcast::System::Types::Text;

namespace {

constexpr size_t kMaxChars = 60000;

struct ModelPair
{
    std::wstring name;
    std::wstring value;
};

std::wstring ModelTrim(const std::wstring& text)
{
    const size_t first = text.find_first_not_of(L" \t");
    if (first == std::wstring::npos)
    {
        return {};
    }
    return text.substr(first, text.find_last_not_of(L' ') - first + 1);
}

// The grammar as a two-state scanner: a name runs to the first "=" (separators
// included), a value to the next separator. A name still open at the end is dropped.
std::vector<ModelPair> ModelParse(const std::wstring& data)
{
    std::vector<ModelPair> pairs;
    if (data.empty())
    {
        return pairs;
    }
    const wchar_t separator = data[0];
    ModelPair open;
    bool bInValue = false;
    const auto close = [&] {
        pairs.push_back({ModelTrim(open.name), ModelTrim(open.value)});
        open = {};
        bInValue = false;
    };
    for (size_t i = 1; i < data.size(); ++i)
    {
        const wchar_t ch = data[i];
        if (!bInValue)
        {
            if (ch == L'=')
            {
                bInValue = true;
            }
            else
            {
                open.name += ch;
            }
        }
        else if (ch == separator)
        {
            close();
        }
        else
        {
            open.value += ch;
        }
    }
    if (bInValue)
    {
        close();
    }
    return pairs;
}

bool ModelNamesMatch(const std::wstring& left, const std::wstring& right)
{
    const auto fold = [](wchar_t ch) { return (ch >= L'A' && ch <= L'Z') ? static_cast<wchar_t>(ch + 32) : ch; };
    if (left.size() != right.size())
    {
        return false;
    }
    for (size_t i = 0; i < left.size(); ++i)
    {
        if (fold(left[i]) != fold(right[i]))
        {
            return false;
        }
    }
    return true;
}

class CDataGenerator
{
public:
    std::wstring Next()
    {
        if (Below(64) == 0)
        {
            return {};
        }
        static const wchar_t kSeparators[] = {L';', L'|', L' ', L'=', L'\t', L',', L'\u00E9', L'\u4E2D'};
        m_Separator = kSeparators[Below(sizeof(kSeparators) / sizeof(kSeparators[0]))];
        std::wstring data(1, m_Separator);
        const uint32_t pieces = Below(14);
        for (uint32_t i = 0; i < pieces; ++i)
        {
            AppendPiece(data);
        }
        return data;
    }

private:
    uint32_t Below(uint32_t bound) { return static_cast<uint32_t>(m_Random() % bound); }

    wchar_t Letter()
    {
        static const wchar_t kLetters[] = L"AbCdeFXyz019_.\\:";
        return kLetters[Below(sizeof(kLetters) / sizeof(kLetters[0]) - 1)];
    }

    wchar_t Odd()
    {
        static const wchar_t kOdd[] = {L'\u00C4', L'\u00E4', L'\u0130', L'\u00A0', L'\u4E2D', L'\uFFFD', L'\xD83D', L'\xDE00'};
        return kOdd[Below(sizeof(kOdd) / sizeof(kOdd[0]))];
    }

    void AppendWord(std::wstring& data)
    {
        for (uint32_t n = 1 + Below(6); n > 0; --n)
        {
            data += Below(5) == 0 ? Odd() : Letter();
        }
    }

    void AppendLongText(std::wstring& data)
    {
        const size_t length = 1000 + Below(6000);
        if (data.size() + length > kMaxChars)
        {
            return;
        }
        for (size_t n = 0; n < length; ++n)
        {
            const uint32_t pick = Below(16);
            data += pick == 0 ? L' ' : pick == 1 ? L'=' : pick == 2 ? L'\t' : Letter();
        }
    }

    void AppendPiece(std::wstring& data)
    {
        switch (Below(11))
        {
        case 0: data += m_Separator; break;
        case 1: data += L'='; break;
        case 2: data.append(1 + Below(3), L' '); break;
        case 3: data += L'\t'; break;
        case 4: AppendWord(data); break;
        case 5: data += Odd(); break;
        case 6: data += Below(2) == 0 ? L';' : L'|'; break;
        case 7: // a well-formed pair, blanks and TABs around name and value
            data += m_Separator;
            data.append(Below(3), Below(2) == 0 ? L' ' : L'\t');
            AppendWord(data);
            data.append(Below(3), Below(2) == 0 ? L' ' : L'\t');
            data += L'=';
            data.append(Below(3), L' ');
            AppendWord(data);
            data.append(Below(3), L' ');
            break;
        case 8: // an empty pair
            data += m_Separator;
            data += L'=';
            break;
        case 9:
            if (Below(30) == 0)
            {
                data += m_Separator;
                AppendWord(data);
                data += L'=';
                AppendLongText(data);
            }
            break;
        default: // a pair without a value
            data += m_Separator;
            AppendWord(data);
            data += L'=';
            break;
        }
    }

    std::mt19937 m_Random{20261115u};
    wchar_t m_Separator = L';';
};

// A read-write region whose end touches a PAGE_NOACCESS page.
class CGuardedRegion
{
public:
    explicit CGuardedRegion(size_t maxChars)
    {
        SYSTEM_INFO info{};
        ::GetSystemInfo(&info);
        const size_t page = info.dwPageSize;
        const size_t bytes = ((maxChars + 1) * sizeof(wchar_t) + page - 1) / page * page;
        m_pBase = static_cast<BYTE*>(::VirtualAlloc(nullptr, bytes + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD dwOld = 0;
        if (m_pBase != nullptr && ::VirtualProtect(m_pBase + bytes, page, PAGE_NOACCESS, &dwOld))
        {
            m_pEnd = reinterpret_cast<wchar_t*>(m_pBase + bytes);
        }
    }
    CGuardedRegion(const CGuardedRegion&) = delete;
    CGuardedRegion& operator=(const CGuardedRegion&) = delete;
    ~CGuardedRegion()
    {
        if (m_pBase != nullptr)
        {
            ::VirtualFree(m_pBase, 0, MEM_RELEASE);
        }
    }

    // Where the first character past the region lies: the guard page.
    const wchar_t* End() const { return m_pEnd; }

    // Copies `text` so that its terminator is the last character before the guard.
    const wchar_t* Place(const std::wstring& text)
    {
        wchar_t* pText = m_pEnd - (text.size() + 1);
        ::wmemcpy(pText, text.data(), text.size());
        pText[text.size()] = L'\0';
        return pText;
    }

private:
    BYTE* m_pBase = nullptr;
    wchar_t* m_pEnd = nullptr;
};

// The start of `text` with everything outside printable ASCII as \uXXXX.
std::string Printable(const std::wstring& text)
{
    std::string out;
    for (size_t i = 0; i < text.size() && i < 160; ++i)
    {
        char escaped[8] = {};
        std::snprintf(escaped, sizeof(escaped), (text[i] >= 0x20 && text[i] < 0x7F) ? "%c" : "\\u%04X",
                      static_cast<unsigned>(text[i]));
        out += escaped;
    }
    return text.size() > 160 ? out + "... (" + std::to_string(text.size()) + " chars)" : out;
}

::testing::AssertionResult MatchesModel(const CMsiArguments& arguments, const std::vector<ModelPair>& expected)
{
    if (arguments.Count() != expected.size())
    {
        return ::testing::AssertionFailure() << arguments.Count() << " pairs, expected " << expected.size();
    }
    size_t index = 0;
    for (const auto& pair : arguments.Pairs())
    {
        if (expected[index].name != Text(pair.m_Name) || expected[index].value != Text(pair.m_Value))
        {
            return ::testing::AssertionFailure() << "pair " << index;
        }
        ++index;
    }
    for (const ModelPair& wanted : expected)
    {
        if (wanted.name.empty())
        {
            continue;
        }
        const ModelPair* pFirst = &wanted;
        for (const ModelPair& candidate : expected)
        {
            if (ModelNamesMatch(candidate.name, wanted.name))
            {
                pFirst = &candidate;
                break;
            }
        }
        const wchar_t* pFound = arguments.GetArgument(wanted.name.c_str());
        if (pFound == nullptr || pFirst->value != pFound)
        {
            return ::testing::AssertionFailure() << "look-up of pair " << (pFirst - expected.data());
        }
    }
    return ::testing::AssertionSuccess();
}

} // namespace

TEST(MsiArgumentsRandom, HundredThousandGeneratedStringsMatchTheModelWithoutOverreading)
{
    CGuardedRegion region(kMaxChars);
    ASSERT_NE(region.End(), nullptr);
    MEMORY_BASIC_INFORMATION guard{};
    ASSERT_NE(::VirtualQuery(region.End(), &guard, sizeof(guard)), 0u);
    ASSERT_EQ(guard.Protect, static_cast<DWORD>(PAGE_NOACCESS));

    CDataGenerator generator;
    size_t pairs = 0, emptyNames = 0, emptyValues = 0, tabEndedNames = 0, separatorInName = 0, longValues = 0;
    int failures = 0;
    for (int round = 0; round < 100000 && failures < 5; ++round)
    {
        const std::wstring data = generator.Next();
        const std::vector<ModelPair> expected = ModelParse(data);

        CMsiArguments arguments;
        arguments.Parse(region.Place(data));
        const ::testing::AssertionResult result = MatchesModel(arguments, expected);
        if (!result)
        {
            ++failures;
            ADD_FAILURE() << "round " << round << ": " << result.message() << " for \"" << Printable(data) << "\"";
        }

        pairs += expected.size();
        for (const ModelPair& pair : expected)
        {
            emptyNames += pair.name.empty();
            emptyValues += pair.value.empty();
            tabEndedNames += !pair.name.empty() && pair.name.back() == L'\t';
            separatorInName += pair.name.find(data[0]) != std::wstring::npos;
            longValues += pair.value.size() >= 1000;
        }
    }

    // The generator must keep reaching the cases that matter.
    EXPECT_GT(pairs, 200000u);
    EXPECT_GT(emptyNames, 1000u);
    EXPECT_GT(emptyValues, 1000u);
    EXPECT_GT(tabEndedNames, 1000u);
    EXPECT_GT(separatorInName, 1000u);
    EXPECT_GT(longValues, 100u);
}
