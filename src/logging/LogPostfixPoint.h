#pragma once

#include "logging/Logable.h"

namespace Quillcast::Logging {

// Closes every line with ".", also after a body that already ends in one.
class CLogPostfixPoint : public CLogPostfix
{
public:
    void Write(System::IO::COutputStream<wchar_t>& stream) const override;
    CLogable* Clone() const override;
};

} // namespace Quillcast::Logging
