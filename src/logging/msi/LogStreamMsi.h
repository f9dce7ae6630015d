#pragma once

#include <windows.h>
#include <msi.h>

#include <cstdint>

#include "host/types/Buffer.h"
#include "host/types/CriticalSection.h"
#include "logging/OutputStream.h"

namespace Quillcast::Logging::MSI {

struct _tagMsiThreadAssignment
{
    uint32_t dwThreadId;
    MSIHANDLE hInstall;
};

// Delivers each finished line to the installer session that the writing thread
// is bound to, as one INSTALLMESSAGE_INFO record "[1]" / text. Lines from an
// unbound thread are dropped silently. Failures are results, never messages:
// a message from here would recurse into the logger.
class CLogStreamMsi : public System::IO::COutputStream<wchar_t>
{
public:
    CLogStreamMsi() noexcept = default;
    CLogStreamMsi(const CLogStreamMsi&) = delete;
    CLogStreamMsi& operator=(const CLogStreamMsi&) = delete;

    // Binds the calling thread to `hInstall` (re-binding switches sessions).
    // False for handle 0 or when the table cannot grow.
    [[nodiscard]] bool Bind(MSIHANDLE hInstall);
    // Removes the calling thread's binding, if any.
    void Unbind();
    // `text` must be zero-terminated: the record takes the whole string up to
    // its terminator, and `length` is only tested for zero (the installer's
    // record API has no length).
    bool Write(const wchar_t* text, uint32_t length) override;

    // The session bound to the calling thread, 0 when unbound.
    [[nodiscard]] MSIHANDLE BoundSession();
    uint32_t BindingCount();

private:
    // Index of the calling thread's entry, or UINT32_MAX. Call with the lock held.
    uint32_t FindCurrentThread() const noexcept;

    System::Types::CBuffer<_tagMsiThreadAssignment> m_Assignments;
    System::Synchronization::CCriticalSection m_Lock;
};

} // namespace Quillcast::Logging::MSI

extern Quillcast::Logging::MSI::CLogStreamMsi g_MsiLogStream;
