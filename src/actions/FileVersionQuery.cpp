// GetFileVersion: the file version of any file, asked for through properties.
#include <windows.h>
#include <msiquery.h>

#include <io.h>

#include "actions/Workers.h"
#include "host/MsiProperty.h"
#include "host/types/WideString.h"
#include "logging/LogHelpers.h"
#include "system/FileVersion.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Various", 4000};
constexpr wchar_t kResultProperty[] = L"GFV_Result";

} // namespace

UINT GetFileVersionWorker(Host::CWorkbench* pWorkbench)
{
    const MSIHANDLE hInstall = pWorkbench->m_hInstall;
    System::Types::CWideBuffer folder;
    System::Types::CWideBuffer name;
    if (!QC_READ_PROPERTY_OR_LOG(hInstall, L"GFV_FILEPATH", folder, kLogSource) ||
        !QC_READ_PROPERTY_OR_LOG(hInstall, L"GFV_FILENAME", name, kLogSource))
    {
        return ERROR_INSTALL_FAILURE;
    }
    // Always one separator, also after a folder that ends in one: the file
    // system accepts the doubled separator, and it is left so on purpose.
    System::Types::CWideBuffer path;
    if (!System::Types::Format(path, L"%s\\%s", System::Types::Text(folder), System::Types::Text(name)) ||
        ::_waccess(System::Types::Text(path), 0) != 0)
    {
        QC_LOG_LAST_ERROR(kLogSource, L"Access failed with error ");
        ::MsiSetPropertyW(hInstall, kResultProperty, L"-1");
        return ERROR_INSTALL_FAILURE;
    }
    // Empty when the file has no readable version; the reader has logged why.
    const System::CFileVersion version(System::Types::Text(path));
    ::MsiSetPropertyW(hInstall, kResultProperty, version.Text());
    return ERROR_SUCCESS;
}

} // namespace Quillcast::Actions
