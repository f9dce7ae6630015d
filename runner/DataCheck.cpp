#include "DataCheck.h"

#include "ClosestName.h"
#include "PackageRules.h"
#include "PackageTables.h"
#include "host/ActionTable.h"
#include "host/MsiArguments.h"
#include "host/types/WideString.h"

namespace QcRunner {

namespace {

using Quillcast::Host::CMsiArguments;
using Quillcast::Host::EqualsIgnoringAsciiCase;

constexpr int kDeferredDllFromBinary = 1 | 0x400;
constexpr int kSetProperty = 51;
constexpr wchar_t kSetter[] = L"QcRunnerSetData";

bool IsAsciiLetterOrDigit(wchar_t c)
{
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9');
}

// The checker judges packages: the action becomes one made in memory, its
// deferred row and, scheduled before it, the setter whose value is `data`.
// Only the findings about the value are the checker's "CustomActionData" rules.
void CheckAsThePackageCheckerDoes(const std::wstring& action, const std::wstring& data,
                                  std::vector<DataFinding>& findings)
{
    QcChecker::CPackage package;
    package.m_CustomActions = {{action, kDeferredDllFromBinary, L"QcRunnerBinary", action},
                               {kSetter, kSetProperty, action, data}};
    package.m_Sequences = {{L"InstallExecuteSequence", kSetter, L"", 1}, {L"InstallExecuteSequence", action, L"", 2}};
    size_t rows = 0;
    for (const QcChecker::Finding& finding : QcChecker::CheckPackage(package, rows))
    {
        if (finding.row == kSetter)
        {
            findings.push_back({finding.severity == QcChecker::Severity::Error, finding.text});
        }
    }
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

// Slips of a value typed by hand, which a package's rules do not look for: a
// value that starts with its first name, and a name one typo away from a key
// that is missing (the key silently keeps its default; an unknown name is
// otherwise a deliberate pad for an optional key).
void CheckTyping(uint32_t index, const std::wstring& data, std::vector<DataFinding>& findings)
{
    const Quillcast::Host::CustomActionEntry& row = Quillcast::Host::g_CustomActionTable[index];
    if (!data.empty() && IsAsciiLetterOrDigit(data[0]))
    {
        findings.push_back({false, L"the first character, '" + data.substr(0, 1) +
                                       L"', is the separator: start the value with the separator (';' or '|')"});
    }
    CMsiArguments arguments;
    arguments.Parse(data.c_str());
    std::vector<std::wstring> absentKeys;
    for (uint32_t i = 0; i < row.dwArgumentCount; ++i)
    {
        if (CountNamed(arguments, row.ppszArguments[i]) == 0)
        {
            absentKeys.emplace_back(row.ppszArguments[i]);
        }
    }
    for (const auto& pair : arguments.Pairs())
    {
        const std::wstring name = Quillcast::System::Types::Text(pair.m_Name);
        const std::wstring key = ClosestName(name, absentKeys);
        if (!key.empty())
        {
            findings.push_back({false, name + L" is not a key of " + Quillcast::Host::g_CustomActionNames[index] +
                                           L": did you mean " + key + L"?"});
        }
    }
}

} // namespace

std::vector<DataFinding> CheckCustomActionData(uint32_t index, const std::wstring& data)
{
    std::vector<DataFinding> findings;
    if (index >= Quillcast::Host::ACTION_COUNT)
    {
        return findings;
    }
    const std::wstring action = Quillcast::Host::g_CustomActionNames[index];
    if (Quillcast::Host::g_CustomActionTable[index].dwArgumentCount == 0)
    {
        if (!data.empty())
        {
            findings.push_back({false, action + L" reads no \"CustomActionData\": the value is ignored"});
        }
        return findings;
    }
    CheckTyping(index, data, findings);
    CheckAsThePackageCheckerDoes(action, data, findings);
    return findings;
}

} // namespace QcRunner
