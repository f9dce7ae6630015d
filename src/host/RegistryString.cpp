#include "host/RegistryString.h"

namespace Quillcast::Host {

LSTATUS ReadRegistryString(HKEY hKey, const wchar_t* name, System::Types::CWideBuffer& value,
                           uint32_t spareCharacters) noexcept
{
    value = System::Types::CWideBuffer();
    DWORD cbData = 0;
    LSTATUS status = ::RegQueryValueExW(hKey, name, nullptr, nullptr, nullptr, &cbData);
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    const uint64_t characters = (static_cast<uint64_t>(cbData) + 1) / 2 + 1 + spareCharacters;
    System::Types::CWideBuffer text;
    if (characters > UINT32_MAX / sizeof(wchar_t) || !text.Allocate(static_cast<uint32_t>(characters)))
    {
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

} // namespace Quillcast::Host
