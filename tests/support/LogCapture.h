#pragma once

#include <windows.h>

#include <cwchar>
#include <string>
#include <vector>

#include "ActionHost.h"
#include "logging/DefaultLogger.h"
#include "logging/Log.h"
#include "logging/LogPostfixPoint.h"

namespace QcTest {

// Lines are compared as the action host renders them: without the date and
// process/thread prefixes, the source line number masked as "#".
using QcRunner::Body;
using QcRunner::WithoutPrefixes;

// "PID(0x..) TID(0x..) " as the logger writes it for a thread of this process.
inline std::wstring ThreadIds(DWORD threadId = ::GetCurrentThreadId())
{
    wchar_t ids[64] = {};
    ::_snwprintf(ids, 63, L"PID(0x%X) TID(0x%X) ", static_cast<unsigned>(::GetCurrentProcessId()),
                 static_cast<unsigned>(threadId));
    return ids;
}

// A line exactly as the logger writes it for `threadId`: the 20-character date
// "dd.mm.yyyy hh:mm:ss ", the process and thread, the rest ending in a point.
inline bool IsWholeLine(const std::wstring& line, DWORD threadId)
{
    const std::wstring ids = ThreadIds(threadId);
    return line.size() - WithoutPrefixes(line).size() == 20 + ids.size() && line.compare(20, ids.size(), ids) == 0 &&
           line.back() == L'.';
}

inline std::vector<std::wstring> Bodies(const std::vector<std::wstring>& lines)
{
    std::vector<std::wstring> bodies;
    for (const std::wstring& line : lines)
    {
        bodies.push_back(Body(line));
    }
    return bodies;
}

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

// A logger set up like the library's own (date and process/thread prefixes, the
// point postfix). While it lives it is the process-wide g_pLogger; the previous
// logger is put back when it dies. It keeps its lines in memory, or hands them
// to `pStream` (the installer log stream, for the frame's own tests) instead.
class CLogCapture
{
public:
    explicit CLogCapture(Quillcast::System::IO::COutputStream<wchar_t>* pStream = nullptr)
            : m_Logger(pStream != nullptr ? pStream : &m_Stream), m_pPrevious(g_pLogger)
    {
        m_Logger.AddPostfix(Quillcast::Logging::CLogPostfixPoint());
        g_pLogger = &m_Logger;
    }
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;
    ~CLogCapture() { g_pLogger = m_pPrevious; }

    Quillcast::Logging::CDefaultLogger& Logger() { return m_Logger; }
    const std::vector<std::wstring>& Lines() const { return m_Stream.m_Lines; }
    // Every line as Body() renders it.
    std::vector<std::wstring> Bodies() const { return QcTest::Bodies(m_Stream.m_Lines); }
    void Clear() { m_Stream.m_Lines.clear(); }

private:
    CCapturingStream m_Stream;
    Quillcast::Logging::CDefaultLogger m_Logger;
    Quillcast::Logging::CLogger* m_pPrevious;
};

} // namespace QcTest
