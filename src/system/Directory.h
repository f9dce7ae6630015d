#pragma once

#include <windows.h>
#include <objbase.h>
#include <objsel.h>

#include <cstdint>

#include "host/types/ComPtr.h"
#include "host/types/ErrorHandler.h"
#include "host/types/WideString.h"

namespace Quillcast::System {

// Shows the directory object picker so that the user can choose users and/or
// groups of the machine's domain, and returns them as "DOMAIN\name" entries
// joined by ";". COM is initialised apartment-threaded by the constructor and
// uninitialised by the destructor. Failures are logged (source "Directory")
// and keep their HRESULT or Win32 code as the last error.
class CDirectory : public Types::CErrorHandler
{
public:
    // `dwUserFlag`: 0 or 3 users and groups, 1 users, 2 groups. A failed COM
    // initialisation or another flag is logged and leaves the picker's records
    // unprepared (last error 87 for the flag).
    CDirectory(uint32_t dwUserFlag, bool bMultiSelect) noexcept;
    CDirectory(const CDirectory&) = delete;
    CDirectory& operator=(const CDirectory&) = delete;
    // Releases the data object and the picker, then COM (declaration order).
    ~CDirectory() override = default;

    // Creates and initialises a new picker, shows it modally over `hwndParent`
    // and appends the selection to `result`. False for a cancelled dialog
    // (nothing appended, last error E_INVALIDARG) and after any logged failure.
    [[nodiscard]] bool InvokeDialog(HWND hwndParent, Types::CWideBuffer& result) noexcept;
    // Initialises the picker with the prepared records; E_INVALIDARG without one.
    [[nodiscard]] HRESULT InitObjectPicker() noexcept;
    // Appends the entries of the last selection; E_INVALIDARG without one.
    [[nodiscard]] HRESULT ProcessSelectedObjects(Types::CWideBuffer& result) noexcept;

private:
    // Null when ready, else the text to log.
    const wchar_t* Prepare(uint32_t dwUserFlag, bool bMultiSelect) noexcept;

    DSOP_SCOPE_INIT_INFO m_aScopeInit[2];
    DSOP_INIT_INFO m_InitInfo;
    // Undone on destruction when it succeeded and, intentionally, also after
    // RPC_E_CHANGED_MODE (an unbalanced CoUninitialize). Declared before the
    // interfaces, so that COM outlives them.
    Types::CComInitialization m_ComInitialization;
    Types::CComPtr<IDsObjectPicker> m_pDsObjectPicker;
    Types::CComPtr<IDataObject> m_pDataObject;
};

} // namespace Quillcast::System
