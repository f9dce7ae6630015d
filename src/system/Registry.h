#pragma once

#include <windows.h>

#include <cstdint>

#include "host/types/Handles.h"
#include "host/types/WideString.h"
#include "logging/Log.h"

namespace Quillcast::System {

// What ReadRegistryString does after its size query.
enum class RegistrySizeQuery
{
    // A failed size query ends the read with its answer.
    Decides,
    // The read is made whatever the size query answered, into a buffer sized from
    // whatever size it left (none: one character), so that a missing value fails
    // the read, not the query. A buffer that cannot be had is also left as the
    // thread's last error (ERROR_NOT_ENOUGH_MEMORY): the service image path has
    // always been read so, and its caller logs the last error.
    Advisory,
};

// Reads a registry value as text the way the registry requires: a size query,
// then the read into a zero-filled buffer of that many bytes (rounded up to whole
// characters) plus a terminator plus `spareCharacters`, so that a value stored
// without its terminator still ends in one and a caller can append up to
// `spareCharacters` in place. The value's type is not looked at and nothing is
// expanded. Logs nothing; returns what the failing registry call answered
// (ERROR_SUCCESS when read, ERROR_NOT_ENOUGH_MEMORY when the buffer could not be
// had), and on failure `value` is left empty.
[[nodiscard]] LSTATUS ReadRegistryString(HKEY hKey, const wchar_t* name, Types::CWideBuffer& value,
                                         uint32_t spareCharacters = 0,
                                         RegistrySizeQuery sizeQuery = RegistrySizeQuery::Decides) noexcept;

// Opens `subKey` of `root` with `access` into `key` (which releases what it held
// first) and returns what RegOpenKeyExW answered. Logs nothing.
[[nodiscard]] LSTATUS OpenKey(HKEY root, const wchar_t* subKey, REGSAM access, Types::CRegistryKey& key) noexcept;

// OpenKey that logs its failure: logs "<text><the thread's last error>" at `level`, from the
// caller's `source` and `line`, and returns false. Intentionally the last error,
// not the status RegOpenKeyExW answered: the system's entries have always carried
// that value, although a failed open does not set it (under Wine it stays as it
// was; see the callers' tests). Call it through QC_OPEN_KEY_OR_LOG.
[[nodiscard]] bool OpenKeyOrLog(HKEY root, const wchar_t* subKey, REGSAM access, Types::CRegistryKey& key,
                                uint32_t level, const Logging::CLogSource& source, uint32_t line,
                                const wchar_t* text) noexcept;

} // namespace Quillcast::System

// if (!QC_OPEN_KEY_OR_LOG(HKEY_LOCAL_MACHINE, kKey, KEY_READ, key, Logging::LOG_LEVEL_ERROR, kLogSource,
//                         L"Open registry key failed with error "))
#define QC_OPEN_KEY_OR_LOG(root, subKey, access, key, level, source, text)                                             \
    ::Quillcast::System::OpenKeyOrLog((root), (subKey), (access), (key), (level), (source), __LINE__, (text))
