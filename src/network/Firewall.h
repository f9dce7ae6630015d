#pragma once

#include <windows.h>
#include <netfw.h>

#include <cstdint>
#include <optional>

#include "host/types/ComPtr.h"
#include "host/types/ErrorHandler.h"

namespace Quillcast::Logging {
struct CLogSource;
} // namespace Quillcast::Logging

namespace Quillcast::Common::Network {

// One named inbound exception in the Windows Firewall: a set of TCP ports or a
// program. When the rule interface (INetFwPolicy2) answers at construction the
// exception is one rule of that name; otherwise every operation works on the
// current profile's lists of open ports and authorized programs (INetFwMgr).
// Every failure is logged (source "Firewall") where it is found and answered
// with false; the HRESULT or Win32 code stays in LastError(): 87 for a bad
// name, E_OUTOFMEMORY for a failed string copy, 80 after a rule of the name
// was found, 2 after it was not.
class CFirewall : public System::Types::CErrorHandler
{
public:
    // Initialises COM (apartment-threaded) and connects to the rule interface.
    // A bad name or a COM failure is logged here and leaves an object whose
    // operations fail in their turn. COM is uninitialised on destruction when
    // the initialisation here succeeded, and also when the thread was already
    // in the multithreaded model (RPC_E_CHANGED_MODE): that unbalanced
    // CoUninitialize is intentional.
    explicit CFirewall(const wchar_t* pszName) noexcept;
    CFirewall(const CFirewall&) = delete;
    CFirewall& operator=(const CFirewall&) = delete;
    ~CFirewall() override = default;

    // Optional settings, to be made between construction and the operation.
    // A copy that cannot be allocated leaves the setting unset, unreported:
    // the exception is then made without it, as if it had not been given.
    void SetDescription(const wchar_t* pszDescription) noexcept;
    void SetProfiles(int32_t lProfiles) noexcept { m_lProfiles = lProfiles; }
    void SetRemoteAddresses(const wchar_t* pszAddresses) noexcept;
    void SetRemotePorts(const wchar_t* pszPorts) noexcept;
    void SetLocalAddresses(const wchar_t* pszAddresses) noexcept;
    void SetLocalPorts(const wchar_t* pszPorts) noexcept;

    // Rule path: the rule, for the ports given as one list. An existing rule
    // of the name is only enabled again. Legacy path: each port of the
    // comma-separated list opened (or enabled again) for TCP.
    [[nodiscard]] bool AddPort(const wchar_t* pszPorts) noexcept;
    // Rule path: the rule for the program, any protocol. Legacy path: the
    // program authorized (or enabled again).
    [[nodiscard]] bool AddApplication(const wchar_t* pszPath) noexcept;
    // Rule path: removes the rule of the name, the ports are not looked at; a
    // missing rule is success. Legacy path: each port must be open and enabled,
    // and is then closed.
    [[nodiscard]] bool RemovePort(const wchar_t* pszPorts) noexcept;
    // As RemovePort, for the authorized program on the legacy path.
    [[nodiscard]] bool RemoveApplication(const wchar_t* pszPath) noexcept;

    // True when the port (as written, converted as _wtoi converts) is in the
    // current profile's open-port list and enabled; on the rule path, when a
    // rule of the name exists.
    [[nodiscard]] bool CheckPort(const wchar_t* pszPort) noexcept;
    // True when the program is authorized and enabled; on the rule path, when
    // a rule of the name exists.
    [[nodiscard]] bool CheckApplication(const wchar_t* pszPath) noexcept;

private:
    // One public operation as data: what it keeps of its argument and what it
    // does on the legacy lists and on the rule interface (Firewall.cpp).
    struct Operation;

    // The shared front end of the six public operations.
    [[nodiscard]] bool Run(const Operation& operation, const wchar_t* pszArgument) noexcept;
    const wchar_t* Construct(const wchar_t* pszName) noexcept;

    // The rule interface (Firewall.cpp).
    [[nodiscard]] bool ConnectPolicy2() noexcept;
    [[nodiscard]] bool FindRule() noexcept;
    [[nodiscard]] bool AddRule() noexcept;
    [[nodiscard]] bool CreateRule() noexcept;
    [[nodiscard]] bool SetRuleProperties() noexcept;
    [[nodiscard]] bool SetEdgeTraversal() noexcept;
    [[nodiscard]] bool RemoveRule() noexcept;

    // The legacy lists (FirewallLegacyLists.cpp). Each takes the public
    // operation's argument; the program ones work on its BSTR copy,
    // m_bstrApplication, instead, and the port checks on m_bstrLocalPorts.
    [[nodiscard]] bool ConnectLegacy() noexcept;
    [[nodiscard]] bool AddLegacyPorts(const wchar_t* pszPorts) noexcept;
    [[nodiscard]] bool AddLegacyPort(LONG lPort) noexcept;
    [[nodiscard]] bool AddLegacyApplication(const wchar_t* pszPath) noexcept;
    [[nodiscard]] bool RemoveLegacyPorts(const wchar_t* pszPorts) noexcept;
    [[nodiscard]] bool RemoveLegacyApplication(const wchar_t* pszPath) noexcept;
    [[nodiscard]] bool CheckLegacyPort(const wchar_t* pszPort) noexcept;
    [[nodiscard]] bool CheckLegacyApplication(const wchar_t* pszPath) noexcept;
    // The shared part of the two checks: `getList` reads the list from the
    // profile, `getEnabled` finds the entry in it and reads its Enabled flag.
    [[nodiscard]] bool CheckLegacyEntry(HRESULT (*getList)(CFirewall&), const wchar_t* pszListFailure,
                                        HRESULT (*getEnabled)(CFirewall&, VARIANT_BOOL&),
                                        const wchar_t* pszEntryFailure) noexcept;

    // Stores `hr` as the last error and logs `pszText` followed by it, as an
    // entry of the calling file's `source` at the caller's `line`: called
    // through QC_FIREWALL_FAIL (FirewallDetail.h).
    void Fail(const Logging::CLogSource& source, uint32_t line, const wchar_t* pszText, HRESULT hr) noexcept;

    // Destroyed in the reverse of this order: first the interfaces (the
    // legacy lists' objects, then the rule interface's), then the COM
    // initialisation, which must outlive them, then the strings.
    System::Types::CBstr m_bstrName;
    System::Types::CBstr m_bstrDescription;
    System::Types::CBstr m_bstrApplication;
    // Never filled by the actions; kept for the rule's ServiceName.
    System::Types::CBstr m_bstrService;
    System::Types::CBstr m_bstrLocalPorts;
    System::Types::CBstr m_bstrRemotePorts;
    System::Types::CBstr m_bstrRemoteAddresses;
    System::Types::CBstr m_bstrLocalAddresses;
    int32_t m_lDirection = NET_FW_RULE_DIR_IN;
    int32_t m_lProfiles = NET_FW_PROFILE2_ALL;
    int32_t m_lProtocol = NET_FW_IP_PROTOCOL_TCP;
    // Empty when the name was refused before COM was asked for.
    std::optional<System::Types::CComInitialization> m_ComInitialization;
    System::Types::CComPtr<INetFwRule2> m_pRule2;
    System::Types::CComPtr<INetFwRule> m_pRule;
    System::Types::CComPtr<INetFwRules> m_pRules;
    System::Types::CComPtr<INetFwMgr> m_pFwMgr;
    System::Types::CComPtr<INetFwProfile> m_pProfile;
    System::Types::CComPtr<INetFwPolicy2> m_pPolicy2;
    System::Types::CComPtr<INetFwPolicy> m_pPolicy;
    System::Types::CComPtr<INetFwOpenPort> m_pOpenPort;
    System::Types::CComPtr<INetFwOpenPorts> m_pOpenPorts;
    System::Types::CComPtr<INetFwAuthorizedApplication> m_pAuthorizedApp;
    System::Types::CComPtr<INetFwAuthorizedApplications> m_pAuthorizedApps;
    bool m_bPolicy2 = false;
};

} // namespace Quillcast::Common::Network
