#pragma once

#include <windows.h>
#include <msi.h>

#include <cstdint>

#include "host/types/WideString.h"

namespace Quillcast::Host {

// Which of the two calls of a property read failed.
enum class PropertyReadStep
{
    None,      // read succeeded
    SizeQuery, // the size query did not answer ERROR_MORE_DATA
    Allocate,  // no memory for length + 1 characters
    Read,      // the read itself did not answer ERROR_SUCCESS
};

struct PropertyReadResult
{
    PropertyReadStep failedStep;
    UINT result; // what MsiGetPropertyW answered at that step (0 after an allocation failure)
};

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
