#include "DataCheck.h"

#include "ClosestName.h"
#include "host/ActionTable.h"
#include "host/MsiArguments.h"
#include "host/types/WideString.h"

namespace QcRunner {

namespace {

using Quillcast::Host::CMsiArguments;
using Quillcast::Host::EqualsIgnoringAsciiCase;

std::wstring Join(const wchar_t* const* names, uint32_t count)
{
    std::wstring text;
    for (uint32_t i = 0; i < count; ++i)
    {
        text += (i == 0 ? L"" : L", ") + std::wstring(names[i]);
    }
    return text;
}

bool IsAsciiLetterOrDigit(wchar_t c)
{
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9');
}

// "[NAME]" and nothing else: the installer puts the property's value there,
// which is empty when nobody set it.
bool IsOnlyAPropertyReference(const std::wstring& value)
{
    return value.size() > 2 && value.front() == L'[' && value.back() == L']' &&
           value.find_first_of(L"[]", 1) == value.size() - 1;
}

// How many pairs carry `name` (names match without regard to ASCII case).
size_t CountNamed(const CMsiArguments& arguments, const wchar_t* name)
{
    size_t count = 0;
    for (const auto& pair : arguments.Pairs())
    {
        count += EqualsIgnoringAsciiCase(Quillcast::System::Types::Text(pair.m_Name), name) ? 1 : 0;
    }
    return count;
}

} // namespace

std::vector<DataFinding> CheckCustomActionData(uint32_t index, const std::wstring& data)
{
    using namespace Quillcast::Host;
    std::vector<DataFinding> findings;
    if (index >= ACTION_COUNT)
    {
        return findings;
    }
    const CustomActionEntry& row = g_CustomActionTable[index];
    const std::wstring action = g_CustomActionNames[index];
    if (row.dwArgumentCount == 0)
    {
        if (!data.empty())
        {
            findings.push_back({false, action + L" reads no \"CustomActionData\": the value is ignored"});
        }
        return findings;
    }
    if (!data.empty() && IsAsciiLetterOrDigit(data[0]))
    {
        findings.push_back({false, L"the first character, '" + data.substr(0, 1) +
                                       L"', is the separator: start the value with the separator (';' or '|')"});
    }
    CMsiArguments arguments;
    arguments.Parse(data.c_str());
    if (arguments.Count() < row.dwArgumentCount)
    {
        findings.push_back({true, action + L" needs " + std::to_wstring(row.dwArgumentCount) + L" pairs (" +
                                      Join(row.ppszArguments, row.dwArgumentCount) + L"), the value gives " +
                                      std::to_wstring(arguments.Count())});
    }
    for (uint32_t i = 0; i < row.dwRequiredCount; ++i)
    {
        const wchar_t* name = row.ppszRequired[i];
        const wchar_t* value = arguments.GetArgument(name);
        if (value == nullptr || *value == L'\0')
        {
            findings.push_back({true, std::wstring(name) + L" is required and " + (value ? L"empty" : L"missing")});
        }
        else if (IsOnlyAPropertyReference(value))
        {
            findings.push_back({false, std::wstring(name) + L" is only the property reference " + value +
                                           L": empty at run time when that property is not set, and then " + action +
                                           L" fails"});
        }
    }
    std::vector<std::wstring> absentKeys;
    for (uint32_t i = 0; i < row.dwArgumentCount; ++i)
    {
        const wchar_t* name = row.ppszArguments[i];
        const size_t count = CountNamed(arguments, name);
        if (count == 0)
        {
            absentKeys.emplace_back(name);
        }
        else if (count > 1)
        {
            findings.push_back({false, std::wstring(name) + L" is given " + std::to_wstring(count) +
                                           L" times: the first (" + arguments.GetArgument(name) + L") wins"});
        }
    }
    // An unknown name pads an optional key on purpose; one close to a key that is
    // missing is a typo, and the key silently keeps its default.
    for (const auto& pair : arguments.Pairs())
    {
        const std::wstring name = Quillcast::System::Types::Text(pair.m_Name);
        const std::wstring key = ClosestName(name, absentKeys);
        if (!key.empty())
        {
            findings.push_back({false, name + L" is not a key of " + action + L": did you mean " + key + L"?"});
        }
    }
    return findings;
}

} // namespace QcRunner
