#include <windows.h>

#include <cstdlib>

#include "actions/Workers.h"
#include "host/ArgumentNames.h"
#include "network/Firewall.h"

namespace Quillcast::Actions {

namespace {

using Common::Network::CFirewall;
namespace Argument = Host::Argument;

enum class FirewallOperation
{
    AddPort,
    AddApplication,
    RemovePort,
    RemoveApplication,
};

// The optional settings of the two add actions, each only when present (an
// empty value is the empty text). "LOCALPORTS" is a setting of the program
// exception only; of the port exception it is the main argument.
void ApplySettings(CFirewall& firewall, const Host::CMsiArguments& arguments, bool bProgram)
{
    if (const wchar_t* value = arguments.GetArgument(Argument::kRuleDescription))
    {
        firewall.SetDescription(value);
    }
    if (const wchar_t* value = arguments.GetArgument(Argument::kProfile))
    {
        firewall.SetProfiles(::_wtoi(value));
    }
    if (const wchar_t* value = arguments.GetArgument(Argument::kRemoteAddresses))
    {
        firewall.SetRemoteAddresses(value);
    }
    if (const wchar_t* value = arguments.GetArgument(Argument::kRemotePorts))
    {
        firewall.SetRemotePorts(value);
    }
    if (const wchar_t* value = arguments.GetArgument(Argument::kLocalAddresses))
    {
        firewall.SetLocalAddresses(value);
    }
    if (bProgram)
    {
        if (const wchar_t* value = arguments.GetArgument(Argument::kLocalPorts))
        {
            firewall.SetLocalPorts(value);
        }
    }
    // The service name replaces the local addresses and never reaches the
    // rule's service: intentional, installers depend on this mapping.
    if (const wchar_t* value = arguments.GetArgument(Argument::kServiceName))
    {
        firewall.SetLocalAddresses(value);
    }
}

// The frame has validated the arguments; every message comes from CFirewall.
UINT RunFirewallOperation(const Host::CWorkbench* pWorkbench, FirewallOperation operation)
{
    const Host::CMsiArguments& arguments = pWorkbench->m_Arguments;
    // A bad name is logged by the constructor and fails the operation later.
    CFirewall firewall(arguments.GetArgument(Argument::kRuleName));

    const bool bPort = operation == FirewallOperation::AddPort || operation == FirewallOperation::RemovePort;
    if (operation == FirewallOperation::AddPort || operation == FirewallOperation::AddApplication)
    {
        ApplySettings(firewall, arguments, !bPort);
    }
    const wchar_t* pszMain = arguments.GetArgument(bPort ? Argument::kLocalPorts : Argument::kProgramName);
    if (pszMain == nullptr)
    {
        return ERROR_INVALID_PARAMETER;
    }

    bool bDone = false;
    switch (operation)
    {
    case FirewallOperation::AddPort:
        bDone = firewall.AddPort(pszMain);
        break;
    case FirewallOperation::AddApplication:
        bDone = firewall.AddApplication(pszMain);
        break;
    case FirewallOperation::RemovePort:
        bDone = firewall.RemovePort(pszMain);
        break;
    case FirewallOperation::RemoveApplication:
        bDone = firewall.RemoveApplication(pszMain);
        break;
    }
    return bDone ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace

UINT AddPortExceptionWorker(Host::CWorkbench* pWorkbench)
{
    return RunFirewallOperation(pWorkbench, FirewallOperation::AddPort);
}

UINT AddProgramExceptionWorker(Host::CWorkbench* pWorkbench)
{
    return RunFirewallOperation(pWorkbench, FirewallOperation::AddApplication);
}

UINT RemovePortExceptionWorker(Host::CWorkbench* pWorkbench)
{
    return RunFirewallOperation(pWorkbench, FirewallOperation::RemovePort);
}

UINT RemoveProgramExceptionWorker(Host::CWorkbench* pWorkbench)
{
    return RunFirewallOperation(pWorkbench, FirewallOperation::RemoveApplication);
}

} // namespace Quillcast::Actions
