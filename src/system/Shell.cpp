#include "system/Shell.h"

#include <shellapi.h>

#include <cstdint>
#include <io.h>

#include "logging/LogHelpers.h"

namespace Quillcast::System {

namespace {

constexpr Logging::CLogSource kLogSource{L"Shell", 0};

// ShellExecuteW's small return values as HRESULTs.
uint32_t ShellResultToHresult(INT_PTR result) noexcept
{
    switch (result)
    {
    case SE_ERR_FNF:
        return 0x80070002;
    case SE_ERR_PNF:
        return 0x80070003;
    case SE_ERR_ACCESSDENIED:
        return 0x80070005;
    case SE_ERR_OOM:
        return 0x8007000E;
    case ERROR_BAD_FORMAT:
        return 0x8007000B;
    case SE_ERR_ASSOCINCOMPLETE:
    case SE_ERR_NOASSOC:
        return 0x80070483;
    case SE_ERR_DDETIMEOUT:
    case SE_ERR_DDEFAIL:
    case SE_ERR_DDEBUSY:
        return 0x80070484;
    case SE_ERR_DLLNOTFOUND:
        return 0x80070485;
    default:
        return 0x80004005; // E_FAIL
    }
}

} // namespace

CShell::CShell() noexcept : m_ComInitialization(COINIT_APARTMENTTHREADED, true)
{
    SetLastErrorCode(ERROR_SUCCESS);
    if (!m_ComInitialization.Usable())
    {
        SetLastErrorCode(Logging::Code(m_ComInitialization.Result()));
        QC_LOG_ERROR(kLogSource) << L"CoInitializeEx failed";
    }
}

bool CShell::Execute(const wchar_t* pszTarget, const wchar_t* pszDirectory) noexcept
{
    const DWORD dwAttributes = ::GetFileAttributesW(pszDirectory);
    if (dwAttributes == INVALID_FILE_ATTRIBUTES)
    {
        // The attribute value itself, not GetLastError(): intentional.
        SetLastErrorCode(INVALID_FILE_ATTRIBUTES);
        QC_LOG_ERROR(kLogSource) << L"Invalid File Attributes";
        return false;
    }
    if ((dwAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
    {
        SetLastErrorCode(Logging::LastErrorCode());
        QC_LOG_ERROR(kLogSource) << L"Invalid Directory";
        return false;
    }
    if (::_waccess(pszTarget, 0) == -1)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"Access failed with error ");
        return false;
    }

    const auto result =
        reinterpret_cast<INT_PTR>(::ShellExecuteW(nullptr, nullptr, pszTarget, nullptr, pszDirectory, SW_SHOWDEFAULT));
    if (result > 32)
    {
        return true;
    }
    SetLastErrorCode(ShellResultToHresult(result));
    // No blank between text and number: intentional, as installer logs show it.
    QC_LOG_ERROR(kLogSource) << L"ShellExec failed with return code" << static_cast<long>(result);
    return false;
}

} // namespace Quillcast::System
