#pragma once

#include "logging/DefaultLogger.h"
#include "logging/Log.h"
#include "logging/LogPostfixPoint.h"
#include "logging/msi/LogStreamMsi.h"

namespace QcTest {

// Gives a test program the logger the DLL installs at load: a default logger
// with the point postfix, writing into the installer log stream. Restores the
// previous logger on destruction.
class CLibraryLogger
{
public:
    CLibraryLogger() : m_pPrevious(g_pLogger), m_Logger(&g_MsiLogStream)
    {
        m_Logger.AddPostfix(Quillcast::Logging::CLogPostfixPoint());
        g_pLogger = &m_Logger;
    }
    CLibraryLogger(const CLibraryLogger&) = delete;
    CLibraryLogger& operator=(const CLibraryLogger&) = delete;
    ~CLibraryLogger() { g_pLogger = m_pPrevious; }

private:
    Quillcast::Logging::CLogger* m_pPrevious;
    Quillcast::Logging::CDefaultLogger m_Logger;
};

} // namespace QcTest
