#pragma once

#include <windows.h>

#include <cstdint>

#include "host/types/CriticalSection.h"
#include "host/types/PointerList.h"
#include "logging/LogStreamMem.h"
#include "logging/Logger.h"
#include "logging/OutputStream.h"

namespace Quillcast::Logging {

// Builds each entry in memory (prefixes, level marker, source, body, postfixes)
// and hands the finished line to its output stream, which it does not own.
// Construction attaches the date prefix and then the process/thread prefix.
class CDefaultLogger : public CLogger
{
public:
    explicit CDefaultLogger(System::IO::COutputStream<wchar_t>* pOutput);
    CDefaultLogger(const CDefaultLogger&) = delete;
    CDefaultLogger& operator=(const CDefaultLogger&) = delete;
    ~CDefaultLogger() override;

    void AddPrefix(const CLogable& prefix) override;
    void AddPostfix(const CLogable& postfix) override;
    void Begin(uint32_t level) override;
    void End(bool bNoPostfix) override;

    void AppendHex(uint32_t value) override;
    void Append(double value) override;
    void Append(float value) override;
    void Append(uint64_t value) override;
    void Append(uint32_t value) override;
    void Append(int32_t value) override;
    void Append(unsigned long value) override;
    void Append(long value) override;
    void Append(uint16_t value) override;
    void Append(int16_t value) override;
    void Append(bool value) override;
    void Append(uint8_t value) override;
    void Append(const wchar_t* text) override;
    void Append(const char* text) override;
    void Append(const CLogable& piece) override;
    using CLogger::Source;

private:
    // Under the lock, appends a copy of `piece` (the constructor's prefixes too,
    // without a virtual call from the constructor).
    void AttachClone(System::Types::CPointerList<CLogable>& pieces, const CLogable& piece);
    bool IsEnabled() const noexcept { return (m_dwLevel & m_dwMask) != 0; }
    template <size_t Capacity, typename... Args>
    void AppendFormatted(const wchar_t* format, Args... args);

    System::IO::COutputStream<wchar_t>* m_pOutput;
    uint32_t m_dwMask = 15;
    uint32_t m_dwLevel = 0;
    // Held from Begin to End: whole entries never interleave.
    System::Synchronization::CCriticalSection m_Lock;
    System::Types::CPointerList<CLogable> m_Prefixes;
    System::Types::CPointerList<CLogable> m_Postfixes;
    CLogStreamMem m_Line;
};

} // namespace Quillcast::Logging
