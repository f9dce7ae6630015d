#pragma once

#include <cstdint>

namespace Quillcast::Host {

// One row of the action table: the CustomActionData keys an action knows (in
// the order they are logged) and those that must be present and non-empty (in
// the order they are checked). The argument count is also the minimum number
// of pairs CustomActionData must carry.
struct CustomActionEntry
{
    const wchar_t* const* ppszArguments;
    const wchar_t* const* ppszRequired;
    uint32_t dwArgumentCount;
    uint32_t dwRequiredCount;
};

// The one list of actions: X(export name, known arguments, required arguments),
// where the argument lists name arrays of ActionTable.cpp and None means no
// names. The position is the row index each export passes to the validation;
// it must stay alphabetical by export name (ActionTable.cpp checks it), since
// installer packages rely on the index of each action.
#define QC_CUSTOM_ACTIONS(X)                                                          \
    X(AddIcaClient, None, None)                                                       \
    X(AddPortException, AddPortArguments, AddPortRequired)                            \
    X(AddProgramException, AddProgramArguments, AddProgramRequired)                   \
    X(CloseAutoConnect, None, None)                                                   \
    X(CloseProcessDeferred, CloseProcessArguments, CloseProcessRequired)              \
    X(CloseProcessImmediately, None, None)                                            \
    X(CompareVersionString, None, None)                                               \
    X(CreateAndInstallRootCertificate, RootCertificate, RootCertificate)              \
    X(CreateAndInstallSignedServerCertificate, RootCertificate, RootCertificate)      \
    X(CreateProcessDeferred, CommandLine, CommandLine)                                \
    X(CreateProcessImmediately, None, None)                                           \
    X(DirectoryObjectPick, None, None)                                                \
    X(GetCustomActionVersion, None, None)                                             \
    X(GetDomain, None, None)                                                          \
    X(GetEngineVersion, None, None)                                                   \
    X(GetFileVersion, None, None)                                                     \
    X(RemoveIcaClient, None, None)                                                    \
    X(RemovePortException, RemovePort, RemovePort)                                    \
    X(RemoveProgramException, RemoveProgram, RemoveProgram)                           \
    X(ServiceRestart, ServiceArguments, ServiceRequired)                              \
    X(ServiceStart, ServiceArguments, ServiceRequired)                                \
    X(ServiceStop, ServiceArguments, ServiceRequired)                                 \
    X(SetRemoteConfigDeferred, RemoteConfig, RemoteConfig)                            \
    X(SetRemoteConfigImmediately, None, None)                                         \
    X(ShellExecuteDeferred, ShellExecute, ShellExecute)                               \
    X(ShellExecuteImmediately, None, None)                                            \
    X(ShowMessageDeferred, ShowMessageArguments, ShowMessageRequired)                 \
    X(ShowMessageImmediately, None, None)                                             \
    X(UninstallRootCertificate, RootCertificate, RootCertificate)                     \
    X(UninstallSignedCertificate, RootCertificate, RootCertificate)

// Row indices: ACTION_<export name>.
enum ActionIndex : uint32_t
{
#define QC_ACTION_ENUMERATOR(name, arguments, required) ACTION_##name,
    QC_CUSTOM_ACTIONS(QC_ACTION_ENUMERATOR)
#undef QC_ACTION_ENUMERATOR
    ACTION_COUNT
};
static_assert(ACTION_COUNT == 30, "the library exports thirty actions");

extern const CustomActionEntry g_CustomActionTable[ACTION_COUNT];
// The export name of each row; used only in the "Processing custom action: " entry.
extern const wchar_t* const g_CustomActionNames[ACTION_COUNT];

} // namespace Quillcast::Host
