#include "logging/LogPostfixPoint.h"

#include <new>

namespace Quillcast::Logging {

void CLogPostfixPoint::Write(System::IO::COutputStream<wchar_t>& stream) const
{
    stream.Write(L".", 1);
}

CLogable* CLogPostfixPoint::Clone() const
{
    return new (std::nothrow) CLogPostfixPoint(*this);
}

} // namespace Quillcast::Logging
