#include "host/Workbench.h"

#include <cwchar>

#include "host/ArgumentNames.h"
#include "host/Globals.h"
#include "host/types/Buffer.h"
#include "logging/LogHelpers.h"
#include "logging/msi/LogStreamMsi.h"
#include "system/FileVersion.h"

namespace Quillcast::Host {

namespace {

constexpr Logging::CLogSource kLogSource{L"Workbench", 0};

// GetModuleFileNameW is handed fewer characters than are allocated; the error
// text names the number handed over.
constexpr uint32_t kModulePathAllocated = 65536;
constexpr uint32_t kModulePathHandedOver = 32767;

} // namespace

CWorkbench::CWorkbench(MSIHANDLE hInstall) : m_Arguments(hInstall)
{
    // Unbound (handle 0, or no memory to grow the table), the call goes on and
    // its entries are dropped.
    (void)g_MsiLogStream.Bind(hInstall);
    m_hInstall = hInstall;
}

CWorkbench::~CWorkbench()
{
    g_MsiLogStream.Unbind();
}

bool HasArgument(CWorkbench& workbench, const wchar_t* name)
{
    const wchar_t* value = workbench.m_Arguments.GetArgument(name);
    if (value != nullptr && *value != L'\0')
    {
        QC_LOG_INFO(kLogSource) << L"Argument[" << name << L"] = " << value;
        return true;
    }
    QC_LOG_WARNING(kLogSource) << L"Argument[" << name << L"] = NOT DEFINED";
    return false;
}

bool ListArguments(CWorkbench& workbench, const wchar_t* const* names, uint32_t count)
{
    if (names == nullptr || count == 0)
    {
        return true;
    }
    for (uint32_t i = 0; i < count; ++i)
    {
        const wchar_t* value = workbench.m_Arguments.GetArgument(names[i]);
        if (value != nullptr)
        {
            QC_LOG_INFO(kLogSource) << L"Argument[" << names[i] << L"] = " << value;
        }
        else
        {
            // An error here, a warning in HasArgument: both levels are intended.
            QC_LOG_ERROR(kLogSource) << L"Argument[" << names[i] << L"] = NOT DEFINED";
        }
    }
    const uint64_t received = workbench.m_Arguments.Count();
    if (received >= count)
    {
        return true;
    }
    QC_LOG_ERROR(kLogSource) << L"Got less arguments than expected -> expected=" << count << L" received="
                             << static_cast<uint32_t>(received);
    return false;
}

bool CheckRequiredArguments(CWorkbench& workbench, const wchar_t* const* names, uint32_t count)
{
    if (names == nullptr || count == 0)
    {
        return true;
    }
    for (uint32_t i = 0; i < count; ++i)
    {
        const wchar_t* value = workbench.m_Arguments.GetArgument(names[i]);
        if (value == nullptr || *value == L'\0')
        {
            QC_LOG_ERROR(kLogSource) << L"Argument[" << names[i] << L"] is invalid";
            return false;
        }
        if (!CheckArgumentValue(names[i], value))
        {
            return false;
        }
    }
    return true;
}

bool CheckArgumentValue(const wchar_t* name, const wchar_t* value)
{
    if (name == nullptr || value == nullptr)
    {
        return false;
    }
    if (!EqualsIgnoringAsciiCase(name, Argument::kDependencies))
    {
        return true;
    }
    // Intentionally kept although no row requires DEPENDENCIES, so the rule is
    // dormant: a row that requires it gets the check.
    if (::wcscmp(value, L"1") == 0 || ::wcscmp(value, L"0") == 0)
    {
        return true;
    }
    QC_LOG_ERROR(kLogSource) << L"Argument[" << name << L"] is invalid";
    return false;
}

bool ValidateAction(CWorkbench& workbench, uint32_t index)
{
    if (index >= ACTION_COUNT)
    {
        return false;
    }
    QC_LOG_INFO(kLogSource) << L"Processing custom action: " << g_CustomActionNames[index];
    const CustomActionEntry& row = g_CustomActionTable[index];
    return ListArguments(workbench, row.ppszArguments, row.dwArgumentCount) &&
           CheckRequiredArguments(workbench, row.ppszRequired, row.dwRequiredCount);
}

void LogModuleVersion()
{
    if (g_hModule == nullptr)
    {
        return;
    }
    System::Types::CBuffer<wchar_t> path;
    if (!path.Allocate(kModulePathAllocated))
    {
        QC_LOG_ERROR(kLogSource) << L"Allocating " << kModulePathHandedOver << L" characters failed.";
        return;
    }
    if (::GetModuleFileNameW(g_hModule, path.Data(), kModulePathHandedOver) == 0)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"GetModuleFileName failed with error ");
        return;
    }
    const System::CFileVersion version(path.Data());
    QC_LOG_INFO(kLogSource) << L"Custom Action Dll '" << path.Data() << L"' has version '" << version.Text() << L"'";
}

UINT RunAction(MSIHANDLE hInstall, uint32_t index, ActionWorker worker)
{
    CWorkbench workbench(hInstall);
    LogModuleVersion();
    if (!ValidateAction(workbench, index) || worker == nullptr)
    {
        return ERROR_INSTALL_FAILURE;
    }
    return worker(&workbench);
}

UINT RunVersionOnly(MSIHANDLE hInstall)
{
    CWorkbench workbench(hInstall);
    LogModuleVersion();
    return ERROR_SUCCESS;
}

UINT Dispatch(MSIHANDLE hInstall, uint32_t index, ActionWorker worker) noexcept
{
    try
    {
        return RunAction(hInstall, index, worker);
    }
    catch (...)
    {
        return ERROR_INSTALL_FAILURE;
    }
}

UINT DispatchVersionOnly(MSIHANDLE hInstall) noexcept
{
    try
    {
        return RunVersionOnly(hInstall);
    }
    catch (...)
    {
        return ERROR_INSTALL_FAILURE;
    }
}

} // namespace Quillcast::Host
