#include "system/Registry.h"

#include "logging/LogHelpers.h"

namespace Quillcast::System {

LSTATUS ReadRegistryString(HKEY hKey, const wchar_t* name, Types::CWideBuffer& value, uint32_t spareCharacters,
                           RegistrySizeQuery sizeQuery) noexcept
{
    value = Types::CWideBuffer();
    DWORD cbData = 0;
    LSTATUS status = ::RegQueryValueExW(hKey, name, nullptr, nullptr, nullptr, &cbData);
    if (status != ERROR_SUCCESS && sizeQuery == RegistrySizeQuery::Decides)
    {
        return status;
    }
    const uint64_t characters = (static_cast<uint64_t>(cbData) + 1) / 2 + 1 + spareCharacters;
    Types::CWideBuffer text;
    if (characters > UINT32_MAX / sizeof(wchar_t) || !text.Allocate(static_cast<uint32_t>(characters)))
    {
        if (sizeQuery == RegistrySizeQuery::Advisory)
        {
            ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        }
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    // Only the bytes the size query reported: the terminator and the spare room stay zero.
    status = ::RegQueryValueExW(hKey, name, nullptr, nullptr, reinterpret_cast<BYTE*>(text.Data()), &cbData);
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    value = text;
    return ERROR_SUCCESS;
}

LSTATUS OpenKey(HKEY root, const wchar_t* subKey, REGSAM access, Types::CRegistryKey& key) noexcept
{
    return ::RegOpenKeyExW(root, subKey, 0, access, key.Put());
}

bool OpenKeyOrLog(HKEY root, const wchar_t* subKey, REGSAM access, Types::CRegistryKey& key, uint32_t level,
                  const Logging::CLogSource& source, uint32_t line, const wchar_t* text) noexcept
{
    if (OpenKey(root, subKey, access, key) == ERROR_SUCCESS)
    {
        return true;
    }
    const uint32_t error = Logging::LastErrorCode();
    QC_LOG_AT(level, source, line) << text << error;
    return false;
}

} // namespace Quillcast::System
