#pragma once

#include <windows.h>
#include <msi.h>

#include <cstdint>

#include "host/types/TwoCallString.h"
#include "host/types/WideString.h"

namespace Quillcast::Host {

using PropertyReadStep = System::Types::TwoCallStep;
using PropertyReadResult = System::Types::TwoCallResult;

// Reads an installer property the way the installer requires: a size query with
// an empty buffer (which must answer ERROR_MORE_DATA), then the read into
// length + 1 characters. Logs nothing; on failure `value` is left empty.
[[nodiscard]] PropertyReadResult ReadProperty(MSIHANDLE hInstall, const wchar_t* name,
                                              System::Types::CWideBuffer& value) noexcept;

// ReadProperty that logs a failure as the error entry
// "MsiGetProperty <name> failed with error <GetLastError()>" from `source`.
[[nodiscard]] bool ReadPropertyOrLog(MSIHANDLE hInstall, const wchar_t* name, System::Types::CWideBuffer& value,
                                     const wchar_t* source, uint32_t line) noexcept;

} // namespace Quillcast::Host
