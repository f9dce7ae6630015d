#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "directory/DirectoryDoubleControl.h"

namespace QcTest {

// For its lifetime, QcDirectoryDouble.dll serves CLSID_WbemLocator and
// CLSID_DsObjectPicker in the test prefix (HKLM registration, ThreadingModel
// Both); the registrations found before (Wine's own) are put back afterwards.
// The double's answers start from their defaults each time.
class CDirectoryDouble
{
public:
    CDirectoryDouble();
    CDirectoryDouble(const CDirectoryDouble&) = delete;
    CDirectoryDouble& operator=(const CDirectoryDouble&) = delete;
    ~CDirectoryDouble();

    bool IsRegistered() const { return m_bRegistered; }
    // Registers a server file that does not exist instead: creation then fails.
    static void RegisterMissingServer();

    // Answers (names in DirectoryDoubleControl.h).
    static void Set(const wchar_t* name, const std::wstring& value);
    // Every call the double received since the last reset, in order.
    static std::vector<std::wstring> Journal();
    // Back to the default answers, journal emptied.
    static void Reset();

private:
    struct SavedServer
    {
        std::wstring key;
        bool bHadPath = false;
        std::wstring path;
        bool bHadModel = false;
        std::wstring model;
    };
    std::vector<SavedServer> m_Saved;
    bool m_bRegistered = false;
};

} // namespace QcTest
