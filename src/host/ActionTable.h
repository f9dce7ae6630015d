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

// The one list of actions: X(export name, known arguments, required arguments,
// frame), where the argument lists name arrays of ActionTable.cpp (None means no
// names) and the frame is Worker (the common frame around <name>Worker of
// actions/) or VersionOnly. The exports, their workers' declarations and the
// rows all follow from this list: a new action is one line here and its worker.
// The position is the row index each export passes to the validation, and the
// list stays in alphabetical order of export names (ActionTable.cpp checks it);
// packages name entry points, never indices.
#define QC_CUSTOM_ACTIONS(X)                                                                                           \
    X(AddIcaClient, None, None, Worker)                                                                                \
    X(AddPortException, AddPortArguments, AddPortRequired, Worker)                                                     \
    X(AddProgramException, AddProgramArguments, AddProgramRequired, Worker)                                            \
    X(CloseAutoConnect, None, None, Worker)                                                                            \
    X(CloseProcessDeferred, CloseProcessArguments, CloseProcessRequired, Worker)                                       \
    X(CloseProcessImmediately, None, None, Worker)                                                                     \
    X(CompareVersionString, None, None, Worker)                                                                        \
    X(CreateAndInstallRootCertificate, RootCertificate, RootCertificate, Worker)                                       \
    X(CreateAndInstallSignedServerCertificate, RootCertificate, RootCertificate, Worker)                               \
    X(CreateProcessDeferred, CommandLine, CommandLine, Worker)                                                         \
    X(CreateProcessImmediately, None, None, Worker)                                                                    \
    X(DirectoryObjectPick, None, None, Worker)                                                                         \
    X(GetCustomActionVersion, None, None, VersionOnly)                                                                 \
    X(GetDomain, None, None, Worker)                                                                                   \
    X(GetEngineVersion, None, None, Worker)                                                                            \
    X(GetFileVersion, None, None, Worker)                                                                              \
    X(RemoveIcaClient, None, None, Worker)                                                                             \
    X(RemovePortException, RemovePort, RemovePort, Worker)                                                             \
    X(RemoveProgramException, RemoveProgram, RemoveProgram, Worker)                                                    \
    X(ServiceRestart, ServiceArguments, ServiceRequired, Worker)                                                       \
    X(ServiceStart, ServiceArguments, ServiceRequired, Worker)                                                         \
    X(ServiceStop, ServiceArguments, ServiceRequired, Worker)                                                          \
    X(SetRemoteConfigDeferred, RemoteConfig, RemoteConfig, Worker)                                                     \
    X(SetRemoteConfigImmediately, None, None, Worker)                                                                  \
    X(ShellExecuteDeferred, ShellExecute, ShellExecute, Worker)                                                        \
    X(ShellExecuteImmediately, None, None, Worker)                                                                     \
    X(ShowMessageDeferred, ShowMessageArguments, ShowMessageRequired, Worker)                                          \
    X(ShowMessageImmediately, None, None, Worker)                                                                      \
    X(UninstallRootCertificate, RootCertificate, RootCertificate, Worker)                                              \
    X(UninstallSignedCertificate, RootCertificate, RootCertificate, Worker)

// Row indices: ACTION_<export name>.
enum ActionIndex : uint32_t
{
#define QC_ACTION_ENUMERATOR(name, arguments, required, frame) ACTION_##name,
    QC_CUSTOM_ACTIONS(QC_ACTION_ENUMERATOR)
#undef QC_ACTION_ENUMERATOR
    ACTION_COUNT
};
static_assert(ACTION_COUNT == 30, "the library exports thirty actions");

extern const CustomActionEntry g_CustomActionTable[ACTION_COUNT];
// The export name of each row; used only in the "Processing custom action: " entry.
extern const wchar_t* const g_CustomActionNames[ACTION_COUNT];

} // namespace Quillcast::Host
