#include "host/ActionTable.h"

#include <cstddef>

#include "host/ArgumentNames.h"

namespace Quillcast::Host {

namespace {

template <uint32_t N, uint32_t M>
constexpr CustomActionEntry Row(const wchar_t* const (&arguments)[N], const wchar_t* const (&required)[M])
{
    return {arguments, required, N, M};
}

// A row without names: the validation passes whatever CustomActionData holds.
constexpr CustomActionEntry Row(std::nullptr_t, std::nullptr_t)
{
    return {nullptr, nullptr, 0, 0};
}

constexpr std::nullptr_t kNone = nullptr;
constexpr const wchar_t* kAddPortArguments[] = {
    Argument::kRuleName,       Argument::kRuleDescription, Argument::kProfile,         Argument::kLocalPorts,
    Argument::kLocalAddresses, Argument::kRemotePorts,     Argument::kRemoteAddresses, Argument::kServiceName};
constexpr const wchar_t* kAddPortRequired[] = {Argument::kRuleName, Argument::kLocalPorts};
constexpr const wchar_t* kAddProgramArguments[] = {
    Argument::kRuleName,    Argument::kRuleDescription, Argument::kProfile,
    Argument::kProgramName, Argument::kLocalPorts,      Argument::kLocalAddresses,
    Argument::kRemotePorts, Argument::kRemoteAddresses, Argument::kServiceName};
constexpr const wchar_t* kAddProgramRequired[] = {Argument::kRuleName, Argument::kProgramName};
constexpr const wchar_t* kCloseProcessArguments[] = {Argument::kProcessName, Argument::kTimeout};
constexpr const wchar_t* kCloseProcessRequired[] = {Argument::kProcessName};
constexpr const wchar_t* kRootCertificate[] = {Argument::kRootCertName};
constexpr const wchar_t* kCommandLine[] = {Argument::kCommandLine};
constexpr const wchar_t* kRemovePort[] = {Argument::kRuleName, Argument::kLocalPorts};
constexpr const wchar_t* kRemoveProgram[] = {Argument::kRuleName, Argument::kProgramName};
constexpr const wchar_t* kServiceArguments[] = {Argument::kServiceName, Argument::kDependencies, Argument::kTimeout};
constexpr const wchar_t* kServiceRequired[] = {Argument::kServiceName};
constexpr const wchar_t* kRemoteConfig[] = {Argument::kRemoteConfig};
constexpr const wchar_t* kShellExecute[] = {Argument::kTarget, Argument::kWorkingDir};
constexpr const wchar_t* kShowMessageArguments[] = {Argument::kMessage, Argument::kType};
constexpr const wchar_t* kShowMessageRequired[] = {Argument::kMessage};

#define QC_WIDEN(text) L##text
constexpr const wchar_t* kNames[] = {
#define QC_ACTION_NAME(name, arguments, required, frame) QC_WIDEN(#name),
    QC_CUSTOM_ACTIONS(QC_ACTION_NAME)
#undef QC_ACTION_NAME
};
#undef QC_WIDEN

constexpr bool IsBefore(const wchar_t* left, const wchar_t* right)
{
    for (; *left != L'\0' && *left == *right; ++left, ++right)
    {
    }
    return *left < *right;
}

constexpr bool IsAlphabetical()
{
    for (size_t i = 1; i < ACTION_COUNT; ++i)
    {
        if (!IsBefore(kNames[i - 1], kNames[i]))
        {
            return false;
        }
    }
    return true;
}

static_assert(sizeof(kNames) / sizeof(kNames[0]) == ACTION_COUNT);
static_assert(IsAlphabetical(), "the row index of an action is its place in alphabetical order");

} // namespace

const CustomActionEntry g_CustomActionTable[ACTION_COUNT] = {
#define QC_ACTION_ROW(name, arguments, required, frame) Row(k##arguments, k##required),
    QC_CUSTOM_ACTIONS(QC_ACTION_ROW)
#undef QC_ACTION_ROW
};

const wchar_t* const g_CustomActionNames[ACTION_COUNT] = {
#define QC_ACTION_NAME(name, arguments, required, frame) kNames[ACTION_##name],
    QC_CUSTOM_ACTIONS(QC_ACTION_NAME)
#undef QC_ACTION_NAME
};

} // namespace Quillcast::Host
