#include "host/ActionTable.h"

#include <cstddef>

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
constexpr const wchar_t* kAddPortArguments[] = {L"RULENAME",   L"RULEDESCRIPTION", L"PROFILE",
                                                L"LOCALPORTS", L"LOCALADDRESSES",  L"REMOTEPORTS",
                                                L"REMOTEADDRESSES", L"SERVICENAME"};
constexpr const wchar_t* kAddPortRequired[] = {L"RULENAME", L"LOCALPORTS"};
constexpr const wchar_t* kAddProgramArguments[] = {L"RULENAME",       L"RULEDESCRIPTION", L"PROFILE",
                                                   L"PROGRAMNAME",    L"LOCALPORTS",      L"LOCALADDRESSES",
                                                   L"REMOTEPORTS",    L"REMOTEADDRESSES", L"SERVICENAME"};
constexpr const wchar_t* kAddProgramRequired[] = {L"RULENAME", L"PROGRAMNAME"};
constexpr const wchar_t* kCloseProcessArguments[] = {L"PROCESSNAME", L"TIMEOUT"};
constexpr const wchar_t* kCloseProcessRequired[] = {L"PROCESSNAME"};
constexpr const wchar_t* kRootCertificate[] = {L"ROOTCERTNAME"};
constexpr const wchar_t* kCommandLine[] = {L"CMDLINE"};
constexpr const wchar_t* kRemovePort[] = {L"RULENAME", L"LOCALPORTS"};
constexpr const wchar_t* kRemoveProgram[] = {L"RULENAME", L"PROGRAMNAME"};
constexpr const wchar_t* kServiceArguments[] = {L"SERVICENAME", L"DEPENDENCIES", L"TIMEOUT"};
constexpr const wchar_t* kServiceRequired[] = {L"SERVICENAME"};
constexpr const wchar_t* kRemoteConfig[] = {L"REMOTECONFIG"};
constexpr const wchar_t* kShellExecute[] = {L"TARGET", L"WORKINGDIR"};
constexpr const wchar_t* kShowMessageArguments[] = {L"MESSAGE", L"TYPE"};
constexpr const wchar_t* kShowMessageRequired[] = {L"MESSAGE"};

#define QC_WIDEN(text) L##text
constexpr const wchar_t* kNames[] = {
#define QC_ACTION_NAME(name, arguments, required) QC_WIDEN(#name),
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
#define QC_ACTION_ROW(name, arguments, required) Row(k##arguments, k##required),
    QC_CUSTOM_ACTIONS(QC_ACTION_ROW)
#undef QC_ACTION_ROW
};

const wchar_t* const g_CustomActionNames[ACTION_COUNT] = {
#define QC_ACTION_NAME(name, arguments, required) kNames[ACTION_##name],
    QC_CUSTOM_ACTIONS(QC_ACTION_NAME)
#undef QC_ACTION_NAME
};

} // namespace Quillcast::Host
