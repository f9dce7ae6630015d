#pragma once

#include <string>
#include <vector>

#include "logging/OutputStream.h"

namespace QcTest {

// An output stream that keeps every line it is handed, exactly as handed.
class CCapturingStream : public Quillcast::System::IO::COutputStream<wchar_t>
{
public:
    bool Write(const wchar_t* text, uint32_t length) override
    {
        m_Lines.emplace_back(text, length);
        return true;
    }
    std::vector<std::wstring> m_Lines;
};

} // namespace QcTest
