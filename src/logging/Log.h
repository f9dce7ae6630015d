#pragma once

#include <windows.h>

#include <cstdint>

#include "logging/Logger.h"

// The process-wide logger, created at process attach; null before and after.
extern Quillcast::Logging::CLogger* g_pLogger;

namespace Quillcast::Logging {

// Where an entry comes from: the source name the log shows and a line base.
// Files that share a source name (the utility actions all log as "Various")
// each take their own base, a multiple of 1000, so that a name and a line lead
// to one place: line 38 of the file with base 2000 logs as 2038. Every other
// file takes base 0 and logs its own line numbers. docs/log-sources.md maps the
// names and bases to files; configuring checks that no two files share a name
// and a base, and that a file with a base stays under 1000 lines.
struct CLogSource
{
    const wchar_t* pszName;
    uint32_t dwLineBase;
};

// One log entry for the span of a full expression:
//   QC_LOG_ERROR(L"Daemon") << L"StartService failed with error " << dwError;
// Tests g_pLogger, opens the entry with its level and source, forwards every
// << to the logger's Append and closes the entry when the temporary dies.
// Opening and closing the entry preserve the thread's last-error value, so an
// argument such as ::GetLastError() still sees the failing call's code.
class CLogEntry
{
public:
    CLogEntry(uint32_t level, const wchar_t* source, uint32_t line) noexcept : m_pLogger(g_pLogger)
    {
        if (m_pLogger != nullptr)
        {
            const DWORD dwError = ::GetLastError();
            m_pLogger->Begin(level);
            m_pLogger->Source(source, line);
            ::SetLastError(dwError);
        }
    }
    CLogEntry(uint32_t level, const CLogSource& source, uint32_t line) noexcept
            : CLogEntry(level, source.pszName, source.dwLineBase + line)
    {
    }
    CLogEntry(const CLogEntry&) = delete;
    CLogEntry& operator=(const CLogEntry&) = delete;
    ~CLogEntry()
    {
        if (m_pLogger != nullptr)
        {
            const DWORD dwError = ::GetLastError();
            m_pLogger->End(false);
            ::SetLastError(dwError);
        }
    }

    template <typename T>
    CLogEntry& operator<<(const T& value) noexcept
    {
        if (m_pLogger != nullptr)
        {
            m_pLogger->Append(value);
        }
        return *this;
    }
    CLogEntry& operator<<(const wchar_t* text) noexcept
    {
        if (m_pLogger != nullptr)
        {
            m_pLogger->Append(text);
        }
        return *this;
    }
    CLogEntry& operator<<(wchar_t* text) noexcept { return *this << static_cast<const wchar_t*>(text); }

private:
    CLogger* m_pLogger;
};

} // namespace Quillcast::Logging

#define QC_LOG(level, source) ::Quillcast::Logging::CLogEntry((level), (source), __LINE__)
#define QC_LOG_ERROR(source) QC_LOG(::Quillcast::Logging::LOG_LEVEL_ERROR, source)
#define QC_LOG_WARNING(source) QC_LOG(::Quillcast::Logging::LOG_LEVEL_WARNING, source)
#define QC_LOG_INFO(source) QC_LOG(::Quillcast::Logging::LOG_LEVEL_INFO, source)
#define QC_LOG_DETAIL(source) QC_LOG(::Quillcast::Logging::LOG_LEVEL_DETAIL, source)
