#include "PackageRules.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <map>
#include <regex>

#include "FormattedText.h"
#include "PeExports.h"
#include "host/ActionTable.h"
#include "host/ArgumentNames.h"
#include "host/MsiArguments.h"
#include "host/types/WideString.h"

namespace QcChecker {

namespace {

using namespace Quillcast::Host;

// CustomAction types (the Type column's bits).
constexpr int kBaseType = 0x3F;
constexpr int kDllFromBinary = 1;
constexpr int kSetProperty = 51;
constexpr int kContinueOnFailure = 0x40; // Return="ignore"
constexpr int kInScript = 0x400;         // deferred, rollback and commit actions
constexpr wchar_t kExecuteSequence[] = L"InstallExecuteSequence";

// The actions whose work is on installer properties: a deferred run can read
// none of them and set none. (The other rows without arguments work on the
// machine alone, or only log, and run either way.)
constexpr ActionIndex kPropertyActions[] = {ACTION_CloseProcessImmediately,
                                            ACTION_CompareVersionString,
                                            ACTION_CreateProcessImmediately,
                                            ACTION_DirectoryObjectPick,
                                            ACTION_GetDomain,
                                            ACTION_GetEngineVersion,
                                            ACTION_GetFileVersion,
                                            ACTION_SetRemoteConfigImmediately,
                                            ACTION_ShellExecuteImmediately,
                                            ACTION_ShowMessageImmediately};

static_assert(ACTION_COUNT <= 32, "a rule's actions are bits of one 32-bit mask");
constexpr uint32_t Bit(ActionIndex action)
{
    return 1u << action;
}
constexpr uint32_t kFirewallAdds = Bit(ACTION_AddPortException) | Bit(ACTION_AddProgramException);

// How a value rule reads the argument it names.
enum class Bites
{
    NotDecimal,         // the part written as it stands (not a reference) holds more than digits
    Given,              // written outside a {...} group, with a value other than "*" (any)
    SemicolonSeparator, // the data's separator is ";"
    AboveMessageBox,    // a literal number with bits of the installer's message kind
};

// The rules that bite on single arguments of some rows; "%v" is the value as written.
struct ValueRule
{
    uint32_t actions;
    const wchar_t* pszArgument;
    Bites bites;
    Severity severity;
    const wchar_t* pszText;
};

constexpr ValueRule kValueRules[] = {
    {kFirewallAdds, Argument::kProfile, Bites::NotDecimal, Severity::Error,
     L"PROFILE \"%v\" is not decimal digits or a property reference: it reads as 0, and the rule's profiles "
     L"cannot be set"},
    {kFirewallAdds, Argument::kServiceName, Bites::Given, Severity::Warning,
     L"SERVICENAME replaces LOCALADDRESSES: the rule's local addresses become \"%v\", which the firewall refuses "
     L"unless it is an address list"},
    {Bit(ACTION_AddProgramException), Argument::kLocalPorts, Bites::Given, Severity::Error,
     L"LOCALPORTS on a program rule: its protocol (any) takes no ports, and adding the rule fails"},
    {Bit(ACTION_AddProgramException), Argument::kRemotePorts, Bites::Given, Severity::Error,
     L"REMOTEPORTS on a program rule: its protocol (any) takes no ports, and adding the rule fails"},
    {Bit(ACTION_SetRemoteConfigDeferred), Argument::kRemoteConfig, Bites::SemicolonSeparator, Severity::Error,
     L"REMOTECONFIG is passed with \";\" as the separator, which ends the value at the list's first \";\": "
     L"begin the value with another separator, such as \"|\""},
    {Bit(ACTION_ShowMessageDeferred), Argument::kType, Bites::AboveMessageBox, Severity::Error,
     L"TYPE %v has bits above the message-box flags (0xFF000000): they change the kind of installer message"},
};

// Words that say a property holds a secret.
const std::wregex kSecretName(L"password|secret|token|key", std::regex::icase);

std::wstring Join(const std::vector<std::wstring>& names, const wchar_t* separator)
{
    std::wstring text;
    for (const std::wstring& name : names)
    {
        text += (text.empty() ? L"" : separator) + name;
    }
    return text;
}

// An expansion as the author wrote it: each install-time value as [NAME].
std::wstring AsWritten(std::wstring text)
{
    std::replace(text.begin(), text.end(), kReferenceBegin, L'[');
    std::replace(text.begin(), text.end(), kReferenceEnd, L']');
    return text;
}

// Export names are ASCII.
std::string Narrow(const std::wstring& text)
{
    std::string narrow;
    for (const wchar_t ch : text)
    {
        narrow += ch < 0x80 ? static_cast<char>(ch) : '?';
    }
    return narrow;
}

// A public property: upper case, so the command line can set it.
bool IsPublic(const std::wstring& name)
{
    return std::regex_match(name, std::wregex(L"[A-Z_][A-Z0-9_.]*"));
}

// The first pair named `name` (names match without regard to ASCII case, as the
// library looks them up), and how many pairs carry that name.
const MsiArgument* Find(const CMsiArguments& arguments, const wchar_t* name, size_t* pCount = nullptr)
{
    const MsiArgument* pFirst = nullptr;
    size_t count = 0;
    for (const MsiArgument& pair : arguments.Pairs())
    {
        if (EqualsIgnoringAsciiCase(Quillcast::System::Types::Text(pair.m_Name), name))
        {
            pFirst = pFirst != nullptr ? pFirst : &pair;
            ++count;
        }
    }
    if (pCount != nullptr)
    {
        *pCount = count;
    }
    return pFirst;
}

std::wstring ValueOf(const MsiArgument* pPair)
{
    return pPair != nullptr ? Quillcast::System::Types::Text(pPair->m_Value) : L"";
}

class CChecker
{
public:
    explicit CChecker(const CPackage& package) : m_Package(package)
    {
        for (const CustomActionRow& row : package.m_CustomActions)
        {
            m_Actions.emplace(row.action, &row);
            if ((row.type & kBaseType) == kSetProperty)
            {
                m_Setters.emplace(row.source, &row);
            }
        }
        const auto interval = [&](const wchar_t* action) {
            const SequenceRow* pRow = FindSequence(action);
            return pRow != nullptr ? pRow->sequence : -1;
        };
        m_InstallInitialize = interval(L"InstallInitialize");
        m_InstallFinalize = interval(L"InstallFinalize");
        const auto hidden = package.m_Properties.find(L"MsiHiddenProperties");
        m_Hidden = L";" + (hidden != package.m_Properties.end() ? hidden->second : L"") + L";";
    }

    std::vector<Finding> Run(size_t& rowsOfTheLibrary)
    {
        rowsOfTheLibrary = 0;
        for (const CustomActionRow& row : m_Package.m_CustomActions)
        {
            if ((row.type & kBaseType) == kDllFromBinary && CheckBinary(row))
            {
                ++rowsOfTheLibrary;
            }
        }
        CheckSettersOfNoAction();
        return m_Findings;
    }

private:
    void Report(Severity severity, const std::wstring& row, const std::wstring& text)
    {
        m_Findings.push_back({severity, row, text});
    }

    PropertyLookup Lookup(const std::wstring& name) const
    {
        const auto known = m_Package.m_Properties.find(name);
        if (known != m_Package.m_Properties.end())
        {
            return {PropertyState::Known, known->second};
        }
        const bool bSet = m_Package.m_InstallTimeProperties.count(name) != 0 || m_Setters.count(name) != 0;
        return {bSet || !IsPublic(name) ? PropertyState::InstallTime : PropertyState::Public, L""};
    }

    std::wstring Expand(const std::wstring& text, Scenario scenario) const
    {
        return ExpandFormatted(text, scenario, [this](const std::wstring& name) { return Lookup(name); });
    }

    // The public properties named in an expansion that nothing in the package sets.
    std::wstring UnsetNames(const std::wstring& expanded) const
    {
        std::vector<std::wstring> names;
        for (const std::wstring& name : ReferencedNames(expanded))
        {
            if (Lookup(name).state == PropertyState::Public)
            {
                names.push_back(name);
            }
        }
        return names.empty() ? L"the properties it names are"
                             : Join(names, L", ") + (names.size() == 1 ? L" is" : L" are");
    }

    bool IsHidden(const std::wstring& property) const
    {
        return m_Hidden.find(L";" + property + L";") != std::wstring::npos;
    }

    const SequenceRow* FindSequence(const std::wstring& action) const
    {
        for (const SequenceRow& row : m_Package.m_Sequences)
        {
            if (row.action == action && row.table == kExecuteSequence)
            {
                return &row;
            }
        }
        return nullptr;
    }

    // The row runs only when a public switch that nothing in the package sets
    // is on (its condition is NAME or NAME=VALUE, alone or beside others joined
    // by AND): the command line that turns it on also brings what it needs,
    // so install-time gaps are not reported.
    bool IsSwitchedOffAsBuilt(const std::wstring& action) const
    {
        const SequenceRow* pRow = FindSequence(action);
        std::wstring condition = pRow != nullptr ? pRow->condition : L"";
        const std::wregex group(L"\\([^()]*\\)");
        for (std::wstring flat; (flat = std::regex_replace(condition, group, L"()")) != condition;)
        {
            condition = flat;
        }
        if (std::regex_search(condition, std::wregex(L"\\sOR\\s", std::regex::icase)))
        {
            return false;
        }
        const std::wregex switchTerm(L"\\s*([A-Z_][A-Z0-9_.]*)\\s*(=\\s*(\"[^\"]+\"|[^\"\\s]+))?\\s*");
        const std::wregex conjunction(L"\\sAND\\s", std::regex::icase);
        std::wsmatch term;
        for (std::wsregex_token_iterator it(condition.begin(), condition.end(), conjunction, -1), end; it != end; ++it)
        {
            const std::wstring text = *it;
            if (std::regex_match(text, term, switchTerm) && Lookup(term[1].str()).state == PropertyState::Public)
            {
                return true;
            }
        }
        return false;
    }

    // True when the row calls the library; then every rule of the row is run.
    bool CheckBinary(const CustomActionRow& row)
    {
        auto cached = m_Exports.find(row.source);
        if (cached == m_Exports.end())
        {
            const auto image = m_Package.ReadBinary(row.source);
            cached = m_Exports.emplace(row.source, image ? ReadDllExports(*image) : std::nullopt).first;
        }
        const std::optional<std::set<std::string>>& exports = cached->second;
        const std::string entry = Narrow(row.target);
        int index = -1;
        bool bLibrary = false;
        for (uint32_t i = 0; i < ACTION_COUNT; ++i)
        {
            index = row.target == g_CustomActionNames[i] ? static_cast<int>(i) : index;
            bLibrary = bLibrary || index >= 0 || (exports && exports->count(Narrow(g_CustomActionNames[i])) != 0);
        }
        if (!bLibrary)
        {
            return false;
        }
        if (!exports)
        {
            Report(Severity::Error, row.action, L"Binary row " + row.source + L" is not a DLL");
        }
        else if (exports->count(entry) == 0)
        {
            std::wstring hint;
            for (const std::string& name : *exports)
            {
                const std::wstring exported(name.begin(), name.end());
                hint = _stricmp(name.c_str(), entry.c_str()) == 0
                           ? L" (entry names match case: the DLL exports " + exported + L")"
                           : hint;
            }
            Report(Severity::Error, row.action,
                   L"the DLL in Binary row " + row.source + L" has no export " + row.target + hint);
        }
        if (index >= 0)
        {
            CheckAction(row, static_cast<ActionIndex>(index));
        }
        return true;
    }

    void CheckAction(const CustomActionRow& row, ActionIndex index)
    {
        const wchar_t* const name = g_CustomActionNames[index];
        const CustomActionEntry& entry = g_CustomActionTable[index];
        const bool bDeferred = (row.type & kInScript) != 0;
        const std::wstring type = std::to_wstring(row.type);
        const bool bPropertyAction =
            std::find(std::begin(kPropertyActions), std::end(kPropertyActions), index) != std::end(kPropertyActions);
        if (entry.dwArgumentCount != 0 && !bDeferred)
        {
            Report(Severity::Error, row.action,
                   std::wstring(name) +
                       L" reads \"CustomActionData\", which only a "
                       L"deferred action gets: make the row deferred (its type " +
                       type + L" runs it immediately)");
        }
        if (bPropertyAction && bDeferred)
        {
            Report(Severity::Error, row.action,
                   std::wstring(name) +
                       L" works on installer properties, which a "
                       L"deferred action can neither read nor set: make the row immediate (its type " +
                       type + L" runs it in the script)");
        }
        for (const SequenceRow& sequence : m_Package.m_Sequences)
        {
            if (sequence.action != row.action)
            {
                continue;
            }
            const bool bInScript = sequence.table == kExecuteSequence &&
                                   (m_InstallInitialize < 0 || sequence.sequence > m_InstallInitialize) &&
                                   (m_InstallFinalize < 0 || sequence.sequence < m_InstallFinalize);
            if (bDeferred && !bInScript)
            {
                Report(Severity::Error, row.action,
                       L"a deferred action runs only in InstallExecuteSequence between "
                       L"InstallInitialize (" +
                           std::to_wstring(m_InstallInitialize) + L") and InstallFinalize (" +
                           std::to_wstring(m_InstallFinalize) + L"); it is at " + sequence.table + L" " +
                           std::to_wstring(sequence.sequence));
            }
            if (index == ACTION_DirectoryObjectPick && (row.type & kContinueOnFailure) == 0)
            {
                Report(Severity::Warning, row.action,
                       L"DirectoryObjectPick runs from " + sequence.table +
                           L" with its result checked: a cancelled picker (or an install without a dialog) fails the "
                           L"install; call it from a dialog's DoAction event");
            }
            if (index == ACTION_ShowMessageImmediately && IsQuietModeOn())
            {
                Report(Severity::Warning, row.action,
                       L"ShowMessageQuietModeProperty is 1: in an unattended install "
                       L"ShowMessageImmediately shows a system-modal box that waits for a click");
            }
        }
        if (entry.dwArgumentCount != 0 && bDeferred)
        {
            CheckSetters(row, index);
        }
    }

    bool IsQuietModeOn() const
    {
        constexpr wchar_t kQuietMode[] = L"ShowMessageQuietModeProperty";
        const PropertyLookup own = Lookup(kQuietMode);
        bool bOn = own.state == PropertyState::Known && ::_wtoi(own.value.c_str()) == 1;
        const auto setters = m_Setters.equal_range(kQuietMode);
        for (auto setter = setters.first; setter != setters.second; ++setter)
        {
            bOn = bOn || ::_wtoi(WithoutReferences(Expand(setter->second->target, Scenario::Set)).c_str()) == 1;
        }
        return bOn;
    }

    void CheckSetters(const CustomActionRow& row, ActionIndex index)
    {
        const auto setters = m_Setters.equal_range(row.action);
        if (setters.first == setters.second)
        {
            Report(Severity::Error, row.action,
                   L"nothing sets its \"CustomActionData\": add a type 51 action that "
                   L"sets the property " +
                       row.action + L" before it");
            return;
        }
        const SequenceRow* pAction = FindSequence(row.action);
        bool bSetBefore = pAction == nullptr;
        for (auto setter = setters.first; setter != setters.second; ++setter)
        {
            const SequenceRow* pSetter = FindSequence(setter->second->action);
            bSetBefore = bSetBefore || (pSetter != nullptr && pSetter->sequence < pAction->sequence);
            CheckData(*setter->second, index, IsSwitchedOffAsBuilt(row.action));
        }
        if (!bSetBefore)
        {
            Report(Severity::Error, row.action,
                   L"its setter " + setters.first->second->action +
                       L" is not scheduled before it in InstallExecuteSequence (" + row.action + L" is at " +
                       std::to_wstring(pAction->sequence) + L")");
        }
    }

    // The setter's value, read with the library's "CustomActionData" rules, once
    // as if every public property it names were set and once as if none were.
    void CheckData(const CustomActionRow& setter, ActionIndex index, bool bSwitchedOff)
    {
        const std::wstring name = g_CustomActionNames[index];
        const CustomActionEntry& entry = g_CustomActionTable[index];
        const std::wstring set = Expand(setter.target, Scenario::Set);
        const std::wstring unset = Expand(setter.target, Scenario::Unset);
        if (!set.empty() && set[0] == kReferenceBegin)
        {
            Report(Severity::Warning, setter.action,
                   L"the value's separator is known only at install time (" +
                       AsWritten(set.substr(0, set.find(kReferenceEnd) + 1)) + L"): its pairs are not checked");
            return;
        }
        CMsiArguments setPairs;
        CMsiArguments unsetPairs;
        setPairs.Parse(set.c_str());
        unsetPairs.Parse(unset.c_str());
        std::vector<std::wstring> arguments(entry.ppszArguments, entry.ppszArguments + entry.dwArgumentCount);
        const std::wstring needs = name + L" needs " + std::to_wstring(entry.dwArgumentCount) + L" pairs (" +
                                   Join(arguments, L", ") + L"), the value gives ";
        if (setPairs.Count() < entry.dwArgumentCount)
        {
            Report(Severity::Error, setter.action, needs + std::to_wstring(setPairs.Count()));
        }
        else if (unsetPairs.Count() < entry.dwArgumentCount && !bSwitchedOff)
        {
            Report(Severity::Warning, setter.action,
                   needs + std::to_wstring(unsetPairs.Count()) + L" unless " + UnsetNames(set) +
                       L" set at install time");
        }
        std::vector<const wchar_t*> notEmpty(entry.ppszRequired, entry.ppszRequired + entry.dwRequiredCount);
        if ((kFirewallAdds & Bit(index)) != 0 && Find(setPairs, Argument::kProfile) != nullptr)
        {
            notEmpty.push_back(Argument::kProfile); // an empty PROFILE reads 0, which no rule accepts
        }
        for (const wchar_t* argument : notEmpty)
        {
            const MsiArgument* pSet = Find(setPairs, argument);
            const std::wstring value = ValueOf(pSet);
            if (pSet == nullptr)
            {
                Report(Severity::Error, setter.action, name + L" needs " + argument + L", the value has no such pair");
            }
            else if (value.empty())
            {
                Report(Severity::Error, setter.action,
                       std::wstring(argument) + L" is empty, and " + name + L" fails without it");
            }
            else if (ValueOf(Find(unsetPairs, argument)).empty() && !bSwitchedOff)
            {
                Report(Severity::Warning, setter.action,
                       std::wstring(argument) + L" is empty unless " + UnsetNames(value) +
                           L" set at install time (nothing in the package sets it), and " + name +
                           L" fails without it");
            }
        }
        for (const std::wstring& argument : arguments)
        {
            size_t count = 0;
            (void)Find(setPairs, argument.c_str(), &count);
            if (count > 1)
            {
                Report(Severity::Warning, setter.action,
                       argument + L" is given " + std::to_wstring(count) + L" times: the first value counts");
            }
        }
        for (const ValueRule& rule : kValueRules)
        {
            const MsiArgument* pPair = Find(setPairs, rule.pszArgument);
            if ((rule.actions & Bit(index)) != 0 && pPair != nullptr && RuleBites(rule, set[0], pPair, unsetPairs))
            {
                std::wstring text = rule.pszText;
                const size_t at = text.find(L"%v");
                Report(rule.severity, setter.action,
                       at == std::wstring::npos ? text : text.replace(at, 2, AsWritten(ValueOf(pPair))));
            }
        }
        for (const std::wstring& property : PropertiesNamedIn(setter.target))
        {
            const bool bSecret = std::regex_search(property, kSecretName);
            if (IsHidden(property) || bSecret)
            {
                Report(Severity::Warning, setter.action,
                       L"the value names [" + property + L"], " +
                           (IsHidden(property) ? L"a hidden property (MsiHiddenProperties)"
                                               : L"whose name says it holds a secret") +
                           L", and " + name + L" writes its arguments into the installer log");
            }
        }
    }

    static bool RuleBites(const ValueRule& rule, wchar_t separator, const MsiArgument* pPair,
                          const CMsiArguments& unset)
    {
        const std::wstring value = ValueOf(pPair);
        const std::wstring literal = WithoutReferences(value);
        switch (rule.bites)
        {
        case Bites::NotDecimal:
            return literal.find_first_not_of(L"0123456789") != std::wstring::npos;
        case Bites::Given:
            return !value.empty() && value != L"*" && Find(unset, rule.pszArgument) != nullptr;
        case Bites::SemicolonSeparator:
            return separator == L';';
        case Bites::AboveMessageBox:
            return literal == value && (static_cast<uint32_t>(::_wtoi(value.c_str())) & 0xFF000000u) != 0;
        }
        return false;
    }

    // Type 51 rows whose value reads as "CustomActionData" of the library but
    // whose property is no action's Id: that data reaches nobody.
    void CheckSettersOfNoAction()
    {
        for (const auto& [property, pSetter] : m_Setters)
        {
            if (m_Actions.count(property) != 0)
            {
                continue;
            }
            CMsiArguments pairs;
            pairs.Parse(Expand(pSetter->target, Scenario::Set).c_str());
            bool bData = false;
            for (uint32_t i = 0; i < ACTION_COUNT && !bData; ++i)
            {
                for (uint32_t k = 0; k < g_CustomActionTable[i].dwArgumentCount && !bData; ++k)
                {
                    bData = Find(pairs, g_CustomActionTable[i].ppszArguments[k]) != nullptr;
                }
            }
            if (bData)
            {
                Report(Severity::Error, pSetter->action,
                       L"sets \"CustomActionData\" for " + property +
                           L", which is no custom action: the property must be the Id of the action that reads it");
            }
        }
    }

    const CPackage& m_Package;
    std::map<std::wstring, const CustomActionRow*> m_Actions;
    std::multimap<std::wstring, const CustomActionRow*> m_Setters; // by the property they set
    std::map<std::wstring, std::optional<std::set<std::string>>> m_Exports;
    std::wstring m_Hidden; // MsiHiddenProperties between semicolons
    int m_InstallInitialize = -1;
    int m_InstallFinalize = -1;
    std::vector<Finding> m_Findings;
};

} // namespace

std::vector<Finding> CheckPackage(const CPackage& package, size_t& rowsOfTheLibrary)
{
    return CChecker(package).Run(rowsOfTheLibrary);
}

} // namespace QcChecker
