#include "logging/LogStreamMem.h"

#include <cwchar>

namespace Quillcast::Logging {

bool CLogStreamMem::Write(const wchar_t* text, uint32_t length)
{
    if (text == nullptr || length == 0)
    {
        return false;
    }
    const uint32_t oldLength = m_Buffer.Size();
    if (length > UINT32_MAX - oldLength || !m_Buffer.Resize(oldLength + length))
    {
        return false;
    }
    const uint32_t gained = m_Buffer.Size() - oldLength;
    ::wmemcpy(m_Buffer.Data() + oldLength, text, length < gained ? length : gained);
    return true;
}

void CLogStreamMem::Clear() noexcept
{
    (void)m_Buffer.Resize(0);
}

bool CLogStreamMem::Terminate() noexcept
{
    const uint32_t length = m_Buffer.Size();
    if (length == UINT32_MAX || !m_Buffer.Resize(length + 1))
    {
        return false;
    }
    m_Buffer[length] = L'\0';
    return true;
}

} // namespace Quillcast::Logging
