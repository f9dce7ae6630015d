#include <windows.h>

#include <new>

#include "host/Globals.h"
#include "logging/DefaultLogger.h"
#include "logging/Log.h"
#include "logging/LogPostfixPoint.h"
#include "logging/msi/LogStreamMsi.h"

namespace {

void OnProcessAttach(HMODULE hModule) noexcept
{
    g_hModule = hModule;
    Quillcast::Logging::CDefaultLogger* pLogger = nullptr;
    try
    {
        pLogger = new Quillcast::Logging::CDefaultLogger(&g_MsiLogStream);
    }
    catch (...)
    {
        pLogger = nullptr;
    }
    if (pLogger != nullptr)
    {
        pLogger->AddPostfix(Quillcast::Logging::CLogPostfixPoint());
    }
    // A second attach in one process replaces the earlier logger instead of leaking it.
    delete g_pLogger;
    g_pLogger = pLogger;
    ::DisableThreadLibraryCalls(hModule);
}

void OnProcessDetach() noexcept
{
    delete g_pLogger;
    g_pLogger = nullptr;
}

} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE hModule, DWORD dwReason, LPVOID /*lpReserved*/)
{
    if (dwReason == DLL_PROCESS_ATTACH)
    {
        OnProcessAttach(hModule);
    }
    else if (dwReason == DLL_PROCESS_DETACH)
    {
        OnProcessDetach();
    }
    return TRUE;
}
