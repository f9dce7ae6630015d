#pragma once

#include "logging/Logable.h"

namespace Quillcast::Logging {

// "PID(0x<hex>) TID(0x<hex>) " of the writing process and thread.
class CLogPrefixTIdPId : public CLogPrefix
{
public:
    void Write(System::IO::COutputStream<wchar_t>& stream) const override;
    CLogable* Clone() const override;
};

} // namespace Quillcast::Logging
