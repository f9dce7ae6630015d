#pragma once

#include <windows.h>

#include "host/types/ComPtr.h"
#include "host/types/ErrorHandler.h"

namespace Quillcast::System {

// Opens a target (document, program, anything the shell can open) with its
// default verb in a given working directory, after checking that the directory
// exists and the target is accessible. Failures are logged (source "Shell")
// once and answered with false; LastError() then holds 0xFFFFFFFF for a
// missing directory, the system's code for one that is not a directory, and
// an HRESULT for a refused shell call.
class CShell : public Types::CErrorHandler
{
public:
    // Initialises COM apartment-threaded; a failure (other than the thread
    // already running the other model) is logged here.
    CShell() noexcept;
    CShell(const CShell&) = delete;
    CShell& operator=(const CShell&) = delete;
    ~CShell() override = default;

    [[nodiscard]] bool Execute(const wchar_t* pszTarget, const wchar_t* pszDirectory) noexcept;

private:
    // Undone on destruction when it succeeded and, deliberately, also after
    // RPC_E_CHANGED_MODE: the wrapper counts the other model as its own
    // initialisation, like the firewall wrapper.
    Types::CComInitialization m_ComInitialization;
};

} // namespace Quillcast::System
