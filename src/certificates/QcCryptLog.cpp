// The certificate engine's log routine and allocator.
#include "certificates/QcCryptLog.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>

#include "host/types/Handles.h"
#include "logging/LogHelpers.h"

namespace Quillcast::Certificates {

namespace {

constexpr Logging::CLogSource kLogSource{L"QcCryptLog", 1000}; // the engine's line bases: QcCryptLog.h

} // namespace

void QcCryptLog(const Logging::CLogSource& source, uint32_t line, const wchar_t* pszFormat, ...) noexcept
{
    // Not QcAlloc: its own failure is logged through here.
    System::Types::CProcessHeapPtr<wchar_t> text;
    if (pszFormat == nullptr || *pszFormat == L'\0')
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
    }
    else
    {
        va_list arguments;
        va_start(arguments, pszFormat);
        const int length = ::_vscwprintf(pszFormat, arguments);
        va_end(arguments);
        if (length >= 0)
        {
            const size_t count = static_cast<size_t>(length) + 1;
            text.Reset(
                static_cast<wchar_t*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, count * sizeof(wchar_t))));
            if (text)
            {
                va_start(arguments, pszFormat);
                (void)::_vsnwprintf(text.Get(), count, pszFormat, arguments); // measured above: it fits
                va_end(arguments);
            }
        }
    }
    const wchar_t* pszText = text ? text.Get() : L"";
    const uint32_t level = ::wcsstr(pszText, L"ERROR") != nullptr ? Logging::LOG_LEVEL_ERROR : Logging::LOG_LEVEL_INFO;
    QC_LOG_AT(level, source, line) << pszText;
}

void* QcAlloc(size_t size) noexcept
{
    void* pMemory = ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, size);
    if (pMemory == nullptr)
    {
        QC_CRYPT_LOG(L"QcAlloc() - ERROR: Memory allocation failed (%d bytes).", static_cast<int>(size));
    }
    return pMemory;
}

} // namespace Quillcast::Certificates
