#pragma once

#include <cstdint>

#include "host/types/Buffer.h"
#include "logging/OutputStream.h"

namespace Quillcast::Logging {

// The line a logger builds its entry in. Its element count is the text length;
// it grows by exactly what each write needs and keeps its capacity when cleared.
class CLogStreamMem : public System::IO::COutputStream<wchar_t>
{
public:
    bool Write(const wchar_t* text, uint32_t length) override;

    // Empties the line (length 0, the whole capacity zeroed).
    void Clear() noexcept;
    // Appends the terminating zero so that Data() can be handed on as a string.
    [[nodiscard]] bool Terminate() noexcept;

    const wchar_t* Data() const noexcept { return m_Buffer.Data(); }
    uint32_t Length() const noexcept { return m_Buffer.Size(); }
    uint32_t Capacity() const noexcept { return m_Buffer.Capacity(); }

private:
    System::Types::CBuffer<wchar_t> m_Buffer;
};

} // namespace Quillcast::Logging
