#include "logging/LogPrefixDate.h"

#include <windows.h>

#include <cstdio>
#include <new>

namespace Quillcast::Logging {

void CLogPrefixDate::Write(System::IO::COutputStream<wchar_t>& stream) const
{
    SYSTEMTIME now{};
    ::GetLocalTime(&now);
    wchar_t text[26] = {};
    const int length = ::_snwprintf(text, 25, L"%.2d.%.2d.%.4d %.2d:%.2d:%.2d ", now.wDay, now.wMonth, now.wYear,
                                    now.wHour, now.wMinute, now.wSecond);
    if (length > 0)
    {
        stream.Write(text, static_cast<uint32_t>(length));
    }
}

CLogable* CLogPrefixDate::Clone() const
{
    return new (std::nothrow) CLogPrefixDate(*this);
}

} // namespace Quillcast::Logging
