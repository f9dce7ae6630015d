// The directory test server, QcDirectoryDouble.dll, as both sides see it: the
// values it takes its answers from and writes its journal to, and the tests'
// guard that puts it in the place of Wine's WMI locator and object picker.
#pragma once

#include <windows.h>
#include <objsel.h>
#include <wbemcli.h>

#include <string>

#include "support/ComServer.h"

namespace QcTest {

// Values under kDoubleKey, all text and all optional (numbers in decimal):
//   Instances           how many Win32_ComputerSystem the query finds (default 1)
//   Domain, PartOfDomain  each instance's property as "<CIM type>:<text>", "<CIM type>:" for one without a
//                       value; absent: WBEM_E_NOT_FOUND
//   ImpersonationLevel  what the proxies report before a set (default 2, identify)
//   ConnectServer, QueryBlanket, SetBlanket, ExecQuery, Next, InvokeDialog: the HRESULT that call answers instead
// Written by the server:
//   Journal             a line per call worth checking, its name and arguments in order, and one per object's
//                       final release, "<object> released", each ended by '\n'
const std::wstring kDoubleKey = L"Software\\Quillcast\\Tests\\DirectoryDouble";
const std::wstring kSavedServersKey = kDoubleKey + L"\\Saved servers";

// For its lifetime `server` serves CLSID_WbemLocator and CLSID_DsObjectPicker in the test prefix; the servers
// found before (Wine's own) are put back afterwards, and the answers and the journal are dropped.
class CDirectoryDouble
{
public:
    explicit CDirectoryDouble(const std::wstring& server)
            : m_bRegistered(ReplaceServer(CLSID_WbemLocator, server, kSavedServersKey) &&
                            ReplaceServer(CLSID_DsObjectPicker, server, kSavedServersKey))
    {
    }
    CDirectoryDouble(const CDirectoryDouble&) = delete;
    CDirectoryDouble& operator=(const CDirectoryDouble&) = delete;
    ~CDirectoryDouble()
    {
        RestoreServer(CLSID_WbemLocator, kSavedServersKey);
        RestoreServer(CLSID_DsObjectPicker, kSavedServersKey);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kDoubleKey.c_str());
    }

    bool IsRegistered() const { return m_bRegistered; }

private:
    bool m_bRegistered;
};

} // namespace QcTest
