#pragma once

#include "logging/Logable.h"

namespace Quillcast::Logging {

// Local time as "dd.mm.yyyy hh:mm:ss " (day first, 24-hour clock, trailing blank).
class CLogPrefixDate : public CLogPrefix
{
public:
    void Write(System::IO::COutputStream<wchar_t>& stream) const override;
    CLogable* Clone() const override;
};

} // namespace Quillcast::Logging
