#include "FormattedText.h"

#include <regex>

namespace QcChecker {

namespace {

std::wstring Mark(const std::wstring& name)
{
    return kReferenceBegin + WithoutReferences(name) + kReferenceEnd;
}

class CExpansion
{
public:
    CExpansion(const std::wstring& text, Scenario scenario,
               const std::function<PropertyLookup(const std::wstring&)>& lookup)
            : m_Text(text), m_Scenario(scenario), m_Lookup(lookup)
    {
    }

    // Expands up to `close` (consumed) or the end. `bMissing` tells whether a
    // property named on the way is unset, `bNamed` whether any was named.
    std::wstring Expand(wchar_t close, bool& bMissing, bool& bNamed)
    {
        std::wstring out;
        while (m_Position < m_Text.size())
        {
            const wchar_t ch = m_Text[m_Position++];
            if (ch == close)
            {
                return out;
            }
            if (ch == L'[' && m_Text.compare(m_Position, 1, L"\\") == 0 && m_Position + 2 < m_Text.size() &&
                m_Text[m_Position + 2] == L']')
            {
                out += m_Text[m_Position + 1]; // [\x] is the character x
                m_Position += 3;
            }
            else if (ch == L'[')
            {
                bool bInnerMissing = false;
                const std::wstring name = Expand(L']', bInnerMissing, bNamed);
                out += Resolve(name, bMissing, bNamed);
            }
            else if (ch == L'{')
            {
                bool bGroupMissing = false;
                bool bGroupNamed = false;
                const std::wstring group = Expand(L'}', bGroupMissing, bGroupNamed);
                bNamed = bNamed || bGroupNamed;
                if (!bGroupNamed)
                {
                    out += L'{' + group + L'}';
                }
                else if (!bGroupMissing)
                {
                    out += group;
                }
            }
            else
            {
                out += ch;
            }
        }
        return out;
    }

private:
    std::wstring Resolve(const std::wstring& name, bool& bMissing, bool& bNamed) const
    {
        if (name.empty())
        {
            return L"[]";
        }
        bNamed = true;
        // File paths, component folders, environment variables: known at install time only.
        if (std::wstring(L"#!$%").find(name[0]) != std::wstring::npos)
        {
            return Mark(name);
        }
        const bool bComposed = name.find(kReferenceBegin) != std::wstring::npos;
        const PropertyLookup found = bComposed ? PropertyLookup{PropertyState::Public, L""} : m_Lookup(name);
        if (found.state == PropertyState::Known)
        {
            return found.value;
        }
        if (found.state == PropertyState::Public && m_Scenario == Scenario::Unset)
        {
            bMissing = true;
            return L"";
        }
        return Mark(name);
    }

    const std::wstring& m_Text;
    Scenario m_Scenario;
    const std::function<PropertyLookup(const std::wstring&)>& m_Lookup;
    size_t m_Position = 0;
};

} // namespace

std::wstring ExpandFormatted(const std::wstring& text, Scenario scenario,
                             const std::function<PropertyLookup(const std::wstring&)>& lookup)
{
    bool bMissing = false;
    bool bNamed = false;
    return CExpansion(text, scenario, lookup).Expand(L'\0', bMissing, bNamed);
}

std::wstring WithoutReferences(const std::wstring& expanded)
{
    std::wstring out;
    int depth = 0;
    for (const wchar_t ch : expanded)
    {
        depth += ch == kReferenceBegin ? 1 : ch == kReferenceEnd ? -1 : 0;
        if (depth == 0 && ch != kReferenceEnd)
        {
            out += ch;
        }
    }
    return out;
}

std::vector<std::wstring> ReferencedNames(const std::wstring& expanded)
{
    std::vector<std::wstring> names;
    for (size_t begin = expanded.find(kReferenceBegin); begin != std::wstring::npos;
         begin = expanded.find(kReferenceBegin, begin + 1))
    {
        names.push_back(expanded.substr(begin + 1, expanded.find(kReferenceEnd, begin) - begin - 1));
    }
    return names;
}

std::vector<std::wstring> PropertiesNamedIn(const std::wstring& text)
{
    std::vector<std::wstring> names;
    const std::wregex reference(L"\\[([A-Za-z_][A-Za-z0-9_.]*)\\]");
    for (std::wsregex_iterator it(text.begin(), text.end(), reference), end; it != end; ++it)
    {
        names.push_back((*it)[1].str());
    }
    return names;
}

} // namespace QcChecker
