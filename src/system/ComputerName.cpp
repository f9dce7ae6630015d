// Winsock 2 must come before windows.h, which the header pulls in.
#include <winsock2.h>

#include "system/ComputerName.h"

#include "host/types/Handles.h"
#include "logging/Log.h"

namespace Quillcast::System {

namespace {

constexpr Logging::CLogSource kLogSource{L"ComputerName", 0};
constexpr int kHostNameBufferSize = 260;

// Reads the host name into `name` while Winsock runs; false after a logged
// failure. Winsock is cleaned up when this returns, before the name is logged.
bool ReadHostName(Types::CWideBuffer& name) noexcept
{
    const Types::CWinsockInitialization winsock(0x0002);
    if (!winsock)
    {
        QC_LOG_ERROR(kLogSource) << L"WSAStartup failed with error " << ::WSAGetLastError();
        return false;
    }
    char hostName[kHostNameBufferSize] = {};
    if (::gethostname(hostName, kHostNameBufferSize) != 0)
    {
        QC_LOG_ERROR(kLogSource) << L"Gethostname failed with error " << ::WSAGetLastError();
        return false;
    }
    // An unconvertible name stays empty; the caller decides what that means.
    (void)Types::AssignNarrow(name, hostName, CP_ACP);
    return true;
}

} // namespace

Types::CWideBuffer QueryComputerName() noexcept
{
    Types::CWideBuffer name;
    if (ReadHostName(name))
    {
        QC_LOG_INFO(kLogSource) << L"Computer name is '" << Types::Text(name) << L"'";
    }
    return name;
}

} // namespace Quillcast::System
