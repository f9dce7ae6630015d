#include "system/wmi/WmiClassObject.h"

#include <cstdint>

#include "logging/LogHelpers.h"

namespace Quillcast::WMI {

namespace {

constexpr Logging::CLogSource kLogSource{L"WmiClassObject", 0};

// What the type variable holds before WMI answers: no CIM type at all.
constexpr CIMTYPE kNoType = 4095;

} // namespace

CWmiClassObject::CWmiClassObject(IWbemClassObject* pClassObject) noexcept
{
    m_pClassObject.Reset(pClassObject);
}

bool CWmiClassObject::Get(const wchar_t* pszName, VARIANT* pValue, CIMTYPE expected) noexcept
{
    if (pszName == nullptr || *pszName == L'\0' || pValue == nullptr)
    {
        SetLastErrorCode(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::VariantInit(pValue);
    CIMTYPE type = kNoType;
    const HRESULT hResult = m_pClassObject ? m_pClassObject->Get(pszName, 0, pValue, &type, nullptr) : E_POINTER;
    if (FAILED(hResult))
    {
        SetLastErrorCode(Logging::Code(hResult));
        QC_LOG_ERROR(kLogSource) << L"Get for property '" << pszName << L"' failed";
        (void)::VariantClear(pValue); // an empty VARIANT either way
        return false;
    }
    // CIM types, not VARIANT types: a CIM_STRING and a CIM_DATETIME are both VT_BSTR.
    if (type != expected)
    {
        SetLastErrorCode(ERROR_INVALID_DATATYPE);
        QC_LOG_ERROR(kLogSource) << L"Got type mismatch for property '" << pszName << L"' Expected="
                                 << static_cast<uint32_t>(expected) << L" Is=" << static_cast<uint32_t>(type);
        (void)::VariantClear(pValue); // an empty VARIANT either way
        return false;
    }
    return true;
}

} // namespace Quillcast::WMI
