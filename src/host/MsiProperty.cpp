#include "host/MsiProperty.h"

#include <msiquery.h>

#include "logging/Log.h"

namespace Quillcast::Host {

PropertyReadResult ReadProperty(MSIHANDLE hInstall, const wchar_t* name, System::Types::CWideBuffer& value) noexcept
{
    return System::Types::ReadTwoCallString(
        [hInstall, name](wchar_t* pszValue, DWORD* pcch) { return ::MsiGetPropertyW(hInstall, name, pszValue, pcch); },
        value);
}

bool ReadPropertyOrLog(MSIHANDLE hInstall, const wchar_t* name, System::Types::CWideBuffer& value,
                       const wchar_t* source, uint32_t line) noexcept
{
    if (ReadProperty(hInstall, name, value).failedStep == PropertyReadStep::None)
    {
        return true;
    }
    // Intentionally the thread's last-error value, not the installer's answer:
    // the property readers' entries carry that code.
    const DWORD dwError = ::GetLastError();
    Logging::CLogEntry(Logging::LOG_LEVEL_ERROR, source, line)
        << L"MsiGetProperty " << name << L" failed with error " << dwError;
    return false;
}

} // namespace Quillcast::Host
