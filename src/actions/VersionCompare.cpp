// CompareVersionString: two dotted version strings from installer properties,
// compared field by field as numbers, the outcome written to a third property.
#include <windows.h>
#include <msiquery.h>

#include <climits>
#include <cwchar>

#include "actions/Workers.h"
#include "host/MsiProperty.h"
#include "host/types/WideString.h"
#include "logging/Log.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Various", 1000};

using System::Types::CWideBuffer;

// Takes the field at `position`, which lies inside `text` (up to the next "." or
// the end), and moves past its ".". Fields convert as wcstol converts: blanks and
// a sign accepted, stopping at the first non-digit, clamped to the 32-bit range.
// False when no memory is left for the field's copy.
[[nodiscard]] bool TakeField(const wchar_t* text, size_t length, size_t& position, long& value)
{
    const wchar_t* field = text + position;
    const wchar_t* point = ::wcsstr(field, L".");
    CWideBuffer fieldText;
    const size_t fieldLength = point != nullptr ? static_cast<size_t>(point - field) : length - position;
    if (!System::Types::Assign(fieldText, field, static_cast<uint32_t>(fieldLength)))
    {
        return false;
    }
    value = ::wcstol(System::Types::Text(fieldText), nullptr, 10);
    position += fieldLength + 1;
    return true;
}

const wchar_t* CompareVersions(const CWideBuffer& versionA, const CWideBuffer& versionB)
{
    const wchar_t* textA = System::Types::Text(versionA);
    const wchar_t* textB = System::Types::Text(versionB);
    const size_t lengthA = ::wcslen(textA);
    const size_t lengthB = ::wcslen(textB);
    size_t positionA = 0;
    size_t positionB = 0;
    for (;;)
    {
        // Only the fields both strings have are compared: "1.2" equals "1.2.5".
        if (lengthA == 0 || positionA >= lengthA || lengthB == 0 || positionB >= lengthB)
        {
            return L"0";
        }
        long fieldA = 0;
        long fieldB = 0;
        if (!TakeField(textA, lengthA, positionA, fieldA))
        {
            QC_LOG_WARNING(kLogSource) << L"Could not parse VersionA";
            return L"-50";
        }
        if (!TakeField(textB, lengthB, positionB, fieldB))
        {
            QC_LOG_WARNING(kLogSource) << L"Could not parse VersionB";
            return L"-50";
        }
        const int32_t numberA = static_cast<int32_t>(fieldA);
        const int32_t numberB = static_cast<int32_t>(fieldB);
        if (numberA < numberB)
        {
            return L"-1";
        }
        if (numberA > numberB)
        {
            return L"1";
        }
    }
}

} // namespace

UINT CompareVersionStringWorker(Host::CWorkbench* pWorkbench)
{
    const MSIHANDLE hInstall = pWorkbench->m_hInstall;
    CWideBuffer versionA;
    CWideBuffer versionB;
    if (!QC_READ_PROPERTY_OR_LOG(hInstall, L"VersionA", versionA, kLogSource) ||
        !QC_READ_PROPERTY_OR_LOG(hInstall, L"VersionB", versionB, kLogSource))
    {
        return ERROR_INSTALL_FAILURE;
    }
    // The result of setting the property is ignored: the action has nothing to report it to.
    (void)::MsiSetPropertyW(hInstall, L"CompareResult", CompareVersions(versionA, versionB));
    return ERROR_SUCCESS;
}

} // namespace Quillcast::Actions
