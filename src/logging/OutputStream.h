#pragma once

#include <cstdint>

namespace Quillcast::System::IO {

template <typename T>
class COutputStream
{
public:
    virtual ~COutputStream() = default;
    // Writes `length` elements of `text`. False when nothing was written. The
    // logger ignores the result on purpose: a line that cannot be delivered
    // has nowhere else to go.
    virtual bool Write(const T* text, uint32_t length) = 0;
};

} // namespace Quillcast::System::IO
