#pragma once

// The small checks and numbers the certificate engine and the store wrapper share.
#include <windows.h>

#include <cstdint>

#include "logging/LogHelpers.h"

namespace Quillcast::Certificates {

// Null or empty: a name or store name the engine and the store wrapper refuse.
[[nodiscard]] inline bool IsEmpty(const wchar_t* pszText) noexcept
{
    return pszText == nullptr || *pszText == L'\0';
}

// The thread's last error as the engine's messages print it: signed, "%d"
// (so that an HRESULT such as CRYPT_E_NOT_FOUND reads as a negative number).
[[nodiscard]] inline int LastError() noexcept
{
    return static_cast<int>(Logging::LastErrorCode());
}

// An address as the engine's messages print it, "%X": its low 32 bits.
[[nodiscard]] inline unsigned LogAddress(const void* pAddress) noexcept
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pAddress));
}

} // namespace Quillcast::Certificates
