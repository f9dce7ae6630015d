#include "logging/Logger.h"

namespace Quillcast::Logging {

CLogger& CLogger::Source(const wchar_t* file, uint32_t line)
{
    Append(file);
    Append(L" (");
    Append(static_cast<unsigned long>(line));
    Append(L") ");
    return *this;
}

} // namespace Quillcast::Logging
