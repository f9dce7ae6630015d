#pragma once

#include <cstdint>

#include "logging/Logable.h"

namespace Quillcast::Logging {

// Entry levels; an entry is written when its level ANDed with the mask is non-zero.
enum LogLevel : uint32_t
{
    LOG_LEVEL_ERROR = 1,   // marked "[ERROR] "
    LOG_LEVEL_WARNING = 2, // marked "[WARNING] "
    LOG_LEVEL_INFO = 4,
    LOG_LEVEL_DETAIL = 8,
};

// One entry at a time: Begin(level), Source(file, line), appends, End(false).
// Begin takes the logger's lock and End releases it, so they must always pair.
// No operation throws.
class CLogger
{
public:
    virtual ~CLogger() = default;

    virtual void AddPrefix(const CLogable& prefix) = 0;
    virtual void AddPostfix(const CLogable& postfix) = 0;
    virtual void Begin(uint32_t level) = 0;
    virtual void End(bool bNoPostfix) = 0;

    // Upper-case hexadecimal without prefix.
    virtual void AppendHex(uint32_t value) = 0;
    virtual void Append(double value) = 0;
    virtual void Append(float value) = 0;
    // Written with "%u": only the low 32 bits appear.
    virtual void Append(uint64_t value) = 0;
    virtual void Append(uint32_t value) = 0;
    virtual void Append(int32_t value) = 0;
    virtual void Append(unsigned long value) = 0;
    virtual void Append(long value) = 0;
    virtual void Append(uint16_t value) = 0;
    virtual void Append(int16_t value) = 0;
    // "True" or "False".
    virtual void Append(bool value) = 0;
    virtual void Append(uint8_t value) = 0;
    // Nothing for null.
    virtual void Append(const wchar_t* text) = 0;
    // Converted from the ANSI code page; nothing for null or a failed conversion.
    virtual void Append(const char* text) = 0;
    virtual void Append(const CLogable& piece) = 0;

    // Appends "<file> (<line>) " and returns the logger for chaining.
    virtual CLogger& Source(const wchar_t* file, uint32_t line);
};

} // namespace Quillcast::Logging
