#pragma once

#include "logging/OutputStream.h"

namespace Quillcast::Logging {

// A piece of text that a logger writes before (prefix) or after (postfix) each entry.
class CLogable
{
public:
    // Loggers own their pieces through base pointers, so deletion must be virtual.
    virtual ~CLogable() = default;
    virtual void Write(System::IO::COutputStream<wchar_t>& stream) const = 0;
    // A new heap copy, or null when memory is exhausted.
    virtual CLogable* Clone() const = 0;
};

class CLogPrefix : public CLogable
{
};

class CLogPostfix : public CLogable
{
};

} // namespace Quillcast::Logging
