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

// Row indices, alphabetical by export name.
enum ActionIndex : uint32_t
{
    ACTION_AddIcaClient = 0,
    ACTION_AddPortException = 1,
    ACTION_AddProgramException = 2,
    ACTION_CloseAutoConnect = 3,
    ACTION_CloseProcessDeferred = 4,
    ACTION_CloseProcessImmediately = 5,
    ACTION_CompareVersionString = 6,
    ACTION_CreateAndInstallRootCertificate = 7,
    ACTION_CreateAndInstallSignedServerCertificate = 8,
    ACTION_CreateProcessDeferred = 9,
    ACTION_CreateProcessImmediately = 10,
    ACTION_DirectoryObjectPick = 11,
    ACTION_GetCustomActionVersion = 12,
    ACTION_GetDomain = 13,
    ACTION_GetEngineVersion = 14,
    ACTION_GetFileVersion = 15,
    ACTION_RemoveIcaClient = 16,
    ACTION_RemovePortException = 17,
    ACTION_RemoveProgramException = 18,
    ACTION_ServiceRestart = 19,
    ACTION_ServiceStart = 20,
    ACTION_ServiceStop = 21,
    ACTION_SetRemoteConfigDeferred = 22,
    ACTION_SetRemoteConfigImmediately = 23,
    ACTION_ShellExecuteDeferred = 24,
    ACTION_ShellExecuteImmediately = 25,
    ACTION_ShowMessageDeferred = 26,
    ACTION_ShowMessageImmediately = 27,
    ACTION_UninstallRootCertificate = 28,
    ACTION_UninstallSignedCertificate = 29,
    ACTION_COUNT = 30,
};

extern const CustomActionEntry g_CustomActionTable[ACTION_COUNT];
// The export name of each row; used only in the "Processing custom action: " entry.
extern const wchar_t* const g_CustomActionNames[ACTION_COUNT];

} // namespace Quillcast::Host
