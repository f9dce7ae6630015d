#pragma once

#include <windows.h>

#include <cstdint>

#include "host/types/WideString.h"

namespace Quillcast::Host {

// Reads a registry value as text the way the registry requires: a size query,
// then the read into a zero-filled buffer of that many bytes (rounded up to whole
// characters) plus a terminator plus `spareCharacters`, so that a value stored
// without its terminator still ends in one and a caller can append up to
// `spareCharacters` in place. The value's type is not looked at. Logs nothing;
// returns what the failing registry call answered (ERROR_SUCCESS when read), and
// on failure `value` is left empty.
[[nodiscard]] LSTATUS ReadRegistryString(HKEY hKey, const wchar_t* name, System::Types::CWideBuffer& value,
                                         uint32_t spareCharacters = 0) noexcept;

} // namespace Quillcast::Host
