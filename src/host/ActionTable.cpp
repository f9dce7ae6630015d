#include "host/ActionTable.h"

namespace Quillcast::Host {

namespace {

template <uint32_t N>
constexpr CustomActionEntry Row(const wchar_t* const (&arguments)[N], const wchar_t* const* required,
                                uint32_t requiredCount)
{
    return {arguments, required, N, requiredCount};
}

template <uint32_t N, uint32_t M>
constexpr CustomActionEntry Row(const wchar_t* const (&arguments)[N], const wchar_t* const (&required)[M])
{
    return Row(arguments, required, M);
}

constexpr CustomActionEntry kNoArguments = {nullptr, nullptr, 0, 0};

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

} // namespace

const CustomActionEntry g_CustomActionTable[ACTION_COUNT] = {
    kNoArguments,                                         // AddIcaClient
    Row(kAddPortArguments, kAddPortRequired),             // AddPortException
    Row(kAddProgramArguments, kAddProgramRequired),       // AddProgramException
    kNoArguments,                                         // CloseAutoConnect
    Row(kCloseProcessArguments, kCloseProcessRequired),   // CloseProcessDeferred
    kNoArguments,                                         // CloseProcessImmediately
    kNoArguments,                                         // CompareVersionString
    Row(kRootCertificate, kRootCertificate),              // CreateAndInstallRootCertificate
    Row(kRootCertificate, kRootCertificate),              // CreateAndInstallSignedServerCertificate
    Row(kCommandLine, kCommandLine),                      // CreateProcessDeferred
    kNoArguments,                                         // CreateProcessImmediately
    kNoArguments,                                         // DirectoryObjectPick
    kNoArguments,                                         // GetCustomActionVersion
    kNoArguments,                                         // GetDomain
    kNoArguments,                                         // GetEngineVersion
    kNoArguments,                                         // GetFileVersion
    kNoArguments,                                         // RemoveIcaClient
    Row(kRemovePort, kRemovePort),                        // RemovePortException
    Row(kRemoveProgram, kRemoveProgram),                  // RemoveProgramException
    Row(kServiceArguments, kServiceRequired),             // ServiceRestart
    Row(kServiceArguments, kServiceRequired),             // ServiceStart
    Row(kServiceArguments, kServiceRequired),             // ServiceStop
    Row(kRemoteConfig, kRemoteConfig),                    // SetRemoteConfigDeferred
    kNoArguments,                                         // SetRemoteConfigImmediately
    Row(kShellExecute, kShellExecute),                    // ShellExecuteDeferred
    kNoArguments,                                         // ShellExecuteImmediately
    Row(kShowMessageArguments, kShowMessageRequired),     // ShowMessageDeferred
    kNoArguments,                                         // ShowMessageImmediately
    Row(kRootCertificate, kRootCertificate),              // UninstallRootCertificate
    Row(kRootCertificate, kRootCertificate),              // UninstallSignedCertificate
};

const wchar_t* const g_CustomActionNames[ACTION_COUNT] = {
    L"AddIcaClient",
    L"AddPortException",
    L"AddProgramException",
    L"CloseAutoConnect",
    L"CloseProcessDeferred",
    L"CloseProcessImmediately",
    L"CompareVersionString",
    L"CreateAndInstallRootCertificate",
    L"CreateAndInstallSignedServerCertificate",
    L"CreateProcessDeferred",
    L"CreateProcessImmediately",
    L"DirectoryObjectPick",
    L"GetCustomActionVersion",
    L"GetDomain",
    L"GetEngineVersion",
    L"GetFileVersion",
    L"RemoveIcaClient",
    L"RemovePortException",
    L"RemoveProgramException",
    L"ServiceRestart",
    L"ServiceStart",
    L"ServiceStop",
    L"SetRemoteConfigDeferred",
    L"SetRemoteConfigImmediately",
    L"ShellExecuteDeferred",
    L"ShellExecuteImmediately",
    L"ShowMessageDeferred",
    L"ShowMessageImmediately",
    L"UninstallRootCertificate",
    L"UninstallSignedCertificate",
};

} // namespace Quillcast::Host
