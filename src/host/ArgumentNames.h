#pragma once

// The "CustomActionData" keys, written once: the action table's rows list them
// and the workers read their arguments through them, so that a row and the
// worker behind it cannot name an argument differently.
namespace Quillcast::Host::Argument {

inline constexpr wchar_t kRuleName[] = L"RULENAME";
inline constexpr wchar_t kRuleDescription[] = L"RULEDESCRIPTION";
inline constexpr wchar_t kProfile[] = L"PROFILE";
inline constexpr wchar_t kProgramName[] = L"PROGRAMNAME";
inline constexpr wchar_t kLocalPorts[] = L"LOCALPORTS";
inline constexpr wchar_t kLocalAddresses[] = L"LOCALADDRESSES";
inline constexpr wchar_t kRemotePorts[] = L"REMOTEPORTS";
inline constexpr wchar_t kRemoteAddresses[] = L"REMOTEADDRESSES";
inline constexpr wchar_t kServiceName[] = L"SERVICENAME";
inline constexpr wchar_t kProcessName[] = L"PROCESSNAME";
inline constexpr wchar_t kTimeout[] = L"TIMEOUT";
inline constexpr wchar_t kRootCertName[] = L"ROOTCERTNAME";
inline constexpr wchar_t kCommandLine[] = L"CMDLINE";
inline constexpr wchar_t kDependencies[] = L"DEPENDENCIES";
inline constexpr wchar_t kRemoteConfig[] = L"REMOTECONFIG";
inline constexpr wchar_t kTarget[] = L"TARGET";
inline constexpr wchar_t kWorkingDir[] = L"WORKINGDIR";
inline constexpr wchar_t kMessage[] = L"MESSAGE";
inline constexpr wchar_t kType[] = L"TYPE";

} // namespace Quillcast::Host::Argument
