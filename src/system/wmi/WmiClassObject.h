#pragma once

#include <windows.h>
#include <wbemcli.h>

#include "host/types/ComPtr.h"
#include "host/types/ErrorHandler.h"

namespace Quillcast::WMI {

// One instance returned by a WMI query, read property by property with the
// CIM type the caller expects. Failures are logged (source "WmiClassObject")
// and keep their code as the last error: an HRESULT, 87 for a missing name,
// 1804 (ERROR_INVALID_DATATYPE) for a property of another CIM type.
class CWmiClassObject : public System::Types::CErrorHandler
{
public:
    // Takes over the caller's reference.
    explicit CWmiClassObject(IWbemClassObject* pClassObject) noexcept;
    CWmiClassObject(const CWmiClassObject&) = delete;
    CWmiClassObject& operator=(const CWmiClassObject&) = delete;
    ~CWmiClassObject() override = default;

    // Reads `pszName` into `pValue`, which must hold nothing (it is
    // initialised here). True only when WMI reports the CIM type `expected`;
    // the caller then owns the VARIANT. On false the VARIANT is empty.
    [[nodiscard]] bool Get(const wchar_t* pszName, VARIANT* pValue, CIMTYPE expected) noexcept;

private:
    System::Types::CComPtr<IWbemClassObject> m_pClassObject;
};

} // namespace Quillcast::WMI
