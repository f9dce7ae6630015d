#include <windows.h>

#include <cstdint>
#include <cstdlib>
#include <cwchar>

#include "actions/Workers.h"
#include "host/ArgumentNames.h"
#include "system/Daemon.h"

namespace Quillcast::Actions {

namespace {

enum class ServiceOperation
{
    Start,
    Stop,
    Restart,
};

// The frame has validated the arguments; every message comes from CDaemon.
UINT RunServiceOperation(const Host::CWorkbench* pWorkbench, ServiceOperation operation)
{
    const Host::CMsiArguments& arguments = pWorkbench->m_Arguments;
    System::CDaemon daemon(arguments.GetArgument(Host::Argument::kServiceName));

    // Exactly "1": "true", "01" or an empty value leave the dependents alone.
    const wchar_t* dependencies = arguments.GetArgument(Host::Argument::kDependencies);
    if (dependencies != nullptr && ::wcscmp(dependencies, L"1") == 0)
    {
        daemon.SetDependencies(true);
    }
    // Seconds to milliseconds in 32-bit unsigned arithmetic: -1 wraps to
    // 4294966296 ms, in effect no limit; junk and "" give 0.
    const wchar_t* timeout = arguments.GetArgument(Host::Argument::kTimeout);
    if (timeout != nullptr)
    {
        daemon.SetTimeout(static_cast<uint32_t>(::_wtoi(timeout)) * 1000u);
    }

    bool bDone = false;
    switch (operation)
    {
    case ServiceOperation::Start:
        bDone = daemon.Start();
        break;
    case ServiceOperation::Stop:
        bDone = daemon.Stop();
        break;
    case ServiceOperation::Restart:
        // One object for both: Start() restarts the dependents Stop() stopped.
        bDone = daemon.Stop() && daemon.Start();
        break;
    }
    return bDone ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace

UINT ServiceStartWorker(Host::CWorkbench* pWorkbench)
{
    return RunServiceOperation(pWorkbench, ServiceOperation::Start);
}

UINT ServiceStopWorker(Host::CWorkbench* pWorkbench)
{
    return RunServiceOperation(pWorkbench, ServiceOperation::Stop);
}

UINT ServiceRestartWorker(Host::CWorkbench* pWorkbench)
{
    return RunServiceOperation(pWorkbench, ServiceOperation::Restart);
}

} // namespace Quillcast::Actions
