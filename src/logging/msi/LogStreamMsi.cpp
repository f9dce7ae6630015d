#include "logging/msi/LogStreamMsi.h"

#include <msiquery.h>

#include "host/types/Handles.h"

// A static object: it exists before DllMain creates the logger and after
// DllMain has deleted it.
Quillcast::Logging::MSI::CLogStreamMsi g_MsiLogStream;

namespace Quillcast::Logging::MSI {

using System::Synchronization::CSingleLock;

uint32_t CLogStreamMsi::FindCurrentThread() const noexcept
{
    const uint32_t dwThreadId = ::GetCurrentThreadId();
    for (uint32_t i = 0; i < m_Assignments.Size(); ++i)
    {
        if (m_Assignments[i].dwThreadId == dwThreadId)
        {
            return i;
        }
    }
    return UINT32_MAX;
}

bool CLogStreamMsi::Bind(MSIHANDLE hInstall)
{
    if (hInstall == 0)
    {
        return false;
    }
    CSingleLock lock(m_Lock);
    const uint32_t index = FindCurrentThread();
    if (index != UINT32_MAX)
    {
        m_Assignments[index].hInstall = hInstall;
        return true;
    }
    const uint32_t count = m_Assignments.Size();
    if (!m_Assignments.Resize(count + 1))
    {
        return false;
    }
    m_Assignments[count] = {static_cast<uint32_t>(::GetCurrentThreadId()), hInstall};
    return true;
}

void CLogStreamMsi::Unbind()
{
    CSingleLock lock(m_Lock);
    const uint32_t index = FindCurrentThread();
    if (index == UINT32_MAX)
    {
        return;
    }
    const uint32_t count = m_Assignments.Size();
    for (uint32_t i = index + 1; i < count; ++i)
    {
        m_Assignments[i - 1] = m_Assignments[i];
    }
    // Resize zeroes the freed place and keeps the capacity.
    (void)m_Assignments.Resize(count - 1);
}

MSIHANDLE CLogStreamMsi::BoundSession()
{
    CSingleLock lock(m_Lock);
    const uint32_t index = FindCurrentThread();
    return index == UINT32_MAX ? 0 : m_Assignments[index].hInstall;
}

uint32_t CLogStreamMsi::BindingCount()
{
    CSingleLock lock(m_Lock);
    return m_Assignments.Size();
}

bool CLogStreamMsi::Write(const wchar_t* text, uint32_t length)
{
    if (text == nullptr || length == 0)
    {
        return false;
    }
    // Copied out under the lock; the installer is called without it, so a slow
    // session never blocks binding on other threads.
    const MSIHANDLE hInstall = BoundSession();
    if (hInstall == 0)
    {
        return false;
    }
    System::Types::CMsiHandle record(::MsiCreateRecord(2));
    if (!record)
    {
        return false;
    }
    if (::MsiRecordSetStringW(record.Get(), 0, L"[1]") != ERROR_SUCCESS ||
        ::MsiRecordSetStringW(record.Get(), 1, text) != ERROR_SUCCESS)
    {
        return false;
    }
    const int answer = ::MsiProcessMessage(hInstall, INSTALLMESSAGE_INFO, record.Get());
    return answer == 0 || answer == IDOK;
}

} // namespace Quillcast::Logging::MSI
