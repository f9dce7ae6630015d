#include "host/MsiProperty.h"

#include <msiquery.h>

#include "logging/LogHelpers.h"

namespace Quillcast::Host {

PropertyReadResult ReadProperty(MSIHANDLE hInstall, const wchar_t* name, System::Types::CWideBuffer& value) noexcept
{
    return System::Types::ReadTwoCallString(
        [hInstall, name](wchar_t* pszValue, DWORD* pcch) { return ::MsiGetPropertyW(hInstall, name, pszValue, pcch); },
        value);
}

void LogPropertyReadFailure(uint32_t level, const wchar_t* name, const Logging::CLogSource& source,
                            uint32_t line) noexcept
{
    const uint32_t error = Logging::LastErrorCode();
    QC_LOG_AT(level, source, line) << L"MsiGetProperty " << name << L" failed with error " << error;
}

bool ReadPropertyOrLog(MSIHANDLE hInstall, const wchar_t* name, System::Types::CWideBuffer& value,
                       const Logging::CLogSource& source, uint32_t line) noexcept
{
    if (ReadProperty(hInstall, name, value).failedStep == PropertyReadStep::None)
    {
        return true;
    }
    LogPropertyReadFailure(Logging::LOG_LEVEL_ERROR, name, source, line);
    return false;
}

} // namespace Quillcast::Host
