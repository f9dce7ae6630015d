#include "system/FileVersion.h"

#include <winver.h>

#include "host/types/WideString.h"
#include "logging/LogHelpers.h"

namespace Quillcast::System {

namespace {

constexpr Logging::CLogSource kLogSource{L"FileVersion", 0};

} // namespace

CFileVersion::CFileVersion(const wchar_t* path)
{
    if (path == nullptr || *path == L'\0')
    {
        m_dwError = ERROR_INVALID_PARAMETER;
        return;
    }
    DWORD dwIgnored = 0;
    const DWORD dwSize = ::GetFileVersionInfoSizeW(path, &dwIgnored);
    if (dwSize == 0)
    {
        m_dwError = Logging::LastErrorCode();
        QC_LOG_ERROR(kLogSource) << L"GetFileVersionInfoSize failed with error " << m_dwError;
        return;
    }
    if (!m_Block.Allocate(dwSize))
    {
        m_dwError = ERROR_NOT_ENOUGH_MEMORY;
        QC_LOG_ERROR(kLogSource) << L"allocation of " << static_cast<uint32_t>(dwSize) << L" bytes failed";
        return;
    }
    if (!::GetFileVersionInfoW(path, 0, dwSize, m_Block.Data()))
    {
        m_dwError = Logging::LastErrorCode();
        QC_LOG_ERROR(kLogSource) << L"GetFileVersionInfo failed with error " << m_dwError;
        return;
    }
    void* pFixedInfo = nullptr;
    UINT cbFixedInfo = 0;
    if (!::VerQueryValueW(m_Block.Data(), L"\\", &pFixedInfo, &cbFixedInfo))
    {
        m_dwError = Logging::LastErrorCode();
        QC_LOG_ERROR(kLogSource) << L"VerQueryValue failed with error " << m_dwError;
        m_pFixedInfo = nullptr;
        return;
    }
    m_pFixedInfo = static_cast<VS_FIXEDFILEINFO*>(pFixedInfo);
    const DWORD dwMS = m_pFixedInfo != nullptr ? m_pFixedInfo->dwFileVersionMS : 0;
    const DWORD dwLS = m_pFixedInfo != nullptr ? m_pFixedInfo->dwFileVersionLS : 0;
    (void)Types::Format(m_Text, L"%u.%u.%u.%u", static_cast<unsigned>(HIWORD(dwMS)),
                        static_cast<unsigned>(LOWORD(dwMS)), static_cast<unsigned>(HIWORD(dwLS)),
                        static_cast<unsigned>(LOWORD(dwLS)));
}

const wchar_t* CFileVersion::Text() const noexcept
{
    return Types::Text(m_Text);
}

} // namespace Quillcast::System
