#pragma once

#include <windows.h>
#include <msi.h>

#include <cstdint>

#include "host/types/TwoCallString.h"
#include "host/types/WideString.h"
#include "logging/Log.h"

namespace Quillcast::Host {

using PropertyReadStep = System::Types::TwoCallStep;
using PropertyReadResult = System::Types::TwoCallResult;

// Reads an installer property the way the installer requires: a size query with
// an empty buffer (which must answer ERROR_MORE_DATA), then the read into
// length + 1 characters. Logs nothing; on failure `value` is left empty.
[[nodiscard]] PropertyReadResult ReadProperty(MSIHANDLE hInstall, const wchar_t* name,
                                              System::Types::CWideBuffer& value) noexcept;

// Logs the entry "MsiGetProperty <name> failed with error <the thread's last
// error>" at `level` from the caller's `source` and `line`. Intentionally the
// last error, not the installer's answer: the property readers' entries have
// always carried that value. Call it through QC_LOG_PROPERTY_READ_FAILURE.
void LogPropertyReadFailure(uint32_t level, const wchar_t* name, const Logging::CLogSource& source,
                            uint32_t line) noexcept;

// ReadProperty that logs any failed step as the error entry of
// LogPropertyReadFailure and returns false. Call it through QC_READ_PROPERTY_OR_LOG.
[[nodiscard]] bool ReadPropertyOrLog(MSIHANDLE hInstall, const wchar_t* name, System::Types::CWideBuffer& value,
                                     const Logging::CLogSource& source, uint32_t line) noexcept;

} // namespace Quillcast::Host

// if (!QC_READ_PROPERTY_OR_LOG(hInstall, L"VersionA", versionA, kLogSource)) ...
#define QC_READ_PROPERTY_OR_LOG(hInstall, name, value, source)                                                         \
    ::Quillcast::Host::ReadPropertyOrLog((hInstall), (name), (value), (source), __LINE__)

// QC_LOG_PROPERTY_READ_FAILURE(Logging::LOG_LEVEL_WARNING, kLogSource, L"CloseProcessTimeout");
#define QC_LOG_PROPERTY_READ_FAILURE(level, source, name)                                                              \
    ::Quillcast::Host::LogPropertyReadFailure((level), (name), (source), __LINE__)
