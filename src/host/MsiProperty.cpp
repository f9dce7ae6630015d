#include "host/MsiProperty.h"

#include <msiquery.h>

#include "logging/Log.h"

namespace Quillcast::Host {

PropertyReadResult ReadProperty(MSIHANDLE hInstall, const wchar_t* name, System::Types::CWideBuffer& value) noexcept
{
    value = System::Types::CWideBuffer();
    DWORD cch = 0;
    wchar_t empty[1] = {L'\0'};
    UINT result = ::MsiGetPropertyW(hInstall, name, empty, &cch);
    if (result != ERROR_MORE_DATA)
    {
        return {PropertyReadStep::SizeQuery, result};
    }
    cch += 1;
    System::Types::CWideBuffer text;
    if (!text.Allocate(cch))
    {
        return {PropertyReadStep::Allocate, 0};
    }
    result = ::MsiGetPropertyW(hInstall, name, text.Data(), &cch);
    if (result != ERROR_SUCCESS)
    {
        return {PropertyReadStep::Read, result};
    }
    text[text.Size() - 1] = L'\0';
    value = text;
    return {PropertyReadStep::None, ERROR_SUCCESS};
}

bool ReadPropertyOrLog(MSIHANDLE hInstall, const wchar_t* name, System::Types::CWideBuffer& value,
                       const wchar_t* source, uint32_t line) noexcept
{
    if (ReadProperty(hInstall, name, value).failedStep == PropertyReadStep::None)
    {
        return true;
    }
    // The thread's last-error value, not the installer's answer: that is what
    // these entries have always carried.
    const DWORD dwError = ::GetLastError();
    Logging::CLogEntry(Logging::LOG_LEVEL_ERROR, source, line)
        << L"MsiGetProperty " << name << L" failed with error " << dwError;
    return false;
}

} // namespace Quillcast::Host
