#pragma once

#include <cstdint>

namespace Quillcast::System::Types {

// The last error of a system wrapper: a Windows error code or an HRESULT. It is
// informational; callers decide by the boolean results of the operations.
class CErrorHandler
{
public:
    CErrorHandler() noexcept = default;
    virtual ~CErrorHandler() = default;

    uint32_t LastError() const noexcept { return m_dwLastError; }

protected:
    void SetLastErrorCode(uint32_t dwError) noexcept { m_dwLastError = dwError; }

private:
    uint32_t m_dwLastError = 0;
};

} // namespace Quillcast::System::Types
