#pragma once

#include <windows.h>
#include <wbemcli.h>

#include "host/types/ComPtr.h"
#include "host/types/ErrorHandler.h"
#include "host/types/PointerList.h"
#include "system/wmi/WmiClassObject.h"

namespace Quillcast::WMI {

// A WMI client of the local "ROOT\CIMV2" namespace for the one query the
// library needs. The constructor initialises COM multithreaded for the calling
// thread (a thread already in another apartment model is used as it is) and
// the process's COM security; the destructor releases the services and the
// locator and then uninitialises COM, only when this object initialised it.
// Failures are logged (source "WmiConnection") and keep their HRESULT as the
// last error; nothing throws.
class CWmiConnection : public System::Types::CErrorHandler
{
public:
    CWmiConnection() noexcept;
    CWmiConnection(const CWmiConnection&) = delete;
    CWmiConnection& operator=(const CWmiConnection&) = delete;
    // Releases the services and the locator, then COM (declaration order).
    ~CWmiConnection() override = default;

    // Drops any earlier connection, then connects with the caller's identity
    // and impersonation allowed on the services proxy.
    [[nodiscard]] bool Connect() noexcept;
    // Runs "Select * from Win32_ComputerSystem" and replaces the list's
    // contents with one object per instance returned (none is success too).
    [[nodiscard]] bool QueryComputerSystem(System::Types::CPointerList<CWmiClassObject>& list) noexcept;

private:
    // Makes sure `pProxy` lets the server impersonate the caller.
    bool SetProxySecurity(IUnknown* pProxy) noexcept;
    void Disconnect() noexcept;

    // Declared first: COM stays initialised until the interfaces are released.
    System::Types::CComInitialization m_ComInitialization;
    System::Types::CComPtr<IWbemLocator> m_pLocator;
    System::Types::CComPtr<IWbemServices> m_pServices;
};

} // namespace Quillcast::WMI
