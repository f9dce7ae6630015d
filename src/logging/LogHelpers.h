#pragma once

#include <windows.h>

#include <cstdint>

#include "logging/Log.h"

// Entries that a helper writes on behalf of its caller carry the caller's line,
// so that a source name and a line in the installer log lead to the call site
// and not to the helper. Such a helper takes `line` as a parameter and is called
// through a macro that passes __LINE__ (see QC_LOG_LAST_ERROR below).
#define QC_LOG_AT(level, source, line) ::Quillcast::Logging::CLogEntry((level), (source), (line))

namespace Quillcast::Logging {

// The thread's last-error value as the unsigned number an entry prints.
[[nodiscard]] inline uint32_t LastErrorCode() noexcept
{
    return static_cast<uint32_t>(::GetLastError());
}

// An HRESULT as the unsigned number an entry prints.
[[nodiscard]] inline uint32_t Code(HRESULT hr) noexcept
{
    return static_cast<uint32_t>(hr);
}

// Logs the error entry "<text><the thread's last error>" from `source` at `line`
// and returns that error, read before the entry is opened.
inline uint32_t LogLastError(const CLogSource& source, uint32_t line, const wchar_t* text) noexcept
{
    const uint32_t error = LastErrorCode();
    QC_LOG_AT(LOG_LEVEL_ERROR, source, line) << text << error;
    return error;
}

} // namespace Quillcast::Logging

// QC_LOG_LAST_ERROR(kLogSource, L"OpenProcess failed with error ");
#define QC_LOG_LAST_ERROR(source, text) ::Quillcast::Logging::LogLastError((source), __LINE__, (text))
