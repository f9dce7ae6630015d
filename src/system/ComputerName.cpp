// Winsock 2 must come before windows.h, which the header pulls in.
#include <winsock2.h>

#include "system/ComputerName.h"

#include "logging/Log.h"

namespace Quillcast::System {

namespace {

constexpr wchar_t kLogSource[] = L"ComputerName";
constexpr int kHostNameBufferSize = 260;

} // namespace

Types::CWideBuffer QueryComputerName() noexcept
{
    Types::CWideBuffer name;
    WSADATA wsaData{};
    if (::WSAStartup(0x0002, &wsaData) != 0)
    {
        QC_LOG_ERROR(kLogSource) << L"WSAStartup failed with error " << ::WSAGetLastError();
        return name;
    }
    char hostName[kHostNameBufferSize] = {};
    if (::gethostname(hostName, kHostNameBufferSize) != 0)
    {
        QC_LOG_ERROR(kLogSource) << L"Gethostname failed with error " << ::WSAGetLastError();
        ::WSACleanup();
        return name;
    }
    // An unconvertible name stays empty; the caller decides what that means.
    (void)Types::AssignNarrow(name, hostName, CP_ACP);
    ::WSACleanup();
    QC_LOG_INFO(kLogSource) << L"Computer name is '" << Types::Text(name) << L"'";
    return name;
}

} // namespace Quillcast::System
