#pragma once

// The installer utility actions of the shipped DLL, run in real installer
// sessions against the real registry, version resources and message boxes of
// the test run's Wine prefix.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/ShippedDll.h"
#include "ActionHost.h"
#include "support/ImportPatch.h"

namespace QcTest {

using Lines = std::vector<std::wstring>;
using Properties = std::vector<std::pair<std::wstring, std::wstring>>;

// The actions log the thread's last-error value, not what a failing registry or
// installer call answered. The frame leaves that value at 0, which would not
// tell the two apart, so the suite wraps the shipped DLL's RegOpenKeyExW to set
// this marker just before each real open, and the failing property read sets it
// too; entries that log the thread's last error show it as "{LastError}".
constexpr DWORD kLastErrorMarker = 4242;

// Expected lines as Body() renders them; "{LastError}" stands for the marker.
std::wstring Error(const std::wstring& text);
std::wstring Warning(const std::wstring& text);
std::wstring Detail(const std::wstring& text);

class UtilityTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;

    // Sets the properties, calls the export in this test's session and returns its result.
    UINT Run(const char* exportName, const Properties& properties = {});
    // The bodies of the lines the action wrote after the frame's own.
    Lines ActionLines() const;

    static HMODULE Module() { return s_pLibrary->Module(); }

    std::unique_ptr<QcRunner::CActionHost> m_Host;
    static QcRunner::CActionLibrary* s_pLibrary;
};

// HKLM in one registry view (KEY_WOW64_32KEY or KEY_WOW64_64KEY).
bool CreateKey(REGSAM view, const std::wstring& key);
bool SetValue(REGSAM view, const std::wstring& key, const std::wstring& name, DWORD type, const void* data,
              DWORD cbData);
bool SetString(REGSAM view, const std::wstring& key, const std::wstring& name, const std::wstring& value);
// Deletes the key (which has no subkeys); true when it is gone.
bool DeleteKey(REGSAM view, const std::wstring& key);
bool KeyExists(REGSAM view, const std::wstring& key);
// The value's raw bytes and type; false when it does not exist.
bool ReadValue(REGSAM view, const std::wstring& key, const std::wstring& name, std::vector<BYTE>& data, DWORD& type);
std::wstring AsText(const std::vector<BYTE>& data);

// Makes the shipped DLL's read of one property fail (its size query or its
// read), as an installer whose session went away answers: ERROR_INVALID_HANDLE,
// with kLastErrorMarker as the thread's last-error value.
class CFailingPropertyRead
{
public:
    CFailingPropertyRead(HMODULE hModule, const std::wstring& name, bool bSizeQuery);
    ~CFailingPropertyRead();
    bool IsApplied() const { return m_Patch.IsApplied(); }

private:
    CImportPatch m_Patch;
};

// Makes the shipped DLL's registry writes fail as a value protected against
// writing does: ERROR_ACCESS_DENIED, nothing written, last error untouched.
class CFailingRegistryWrite
{
public:
    explicit CFailingRegistryWrite(HMODULE hModule);
    bool IsApplied() const { return m_Patch.IsApplied(); }

private:
    CImportPatch m_Patch;
};

// A message box of this process: its caption, the texts of its controls,
// whether it is topmost (system-modal) and which buttons it has.
struct SeenBox
{
    std::wstring caption;
    std::vector<std::wstring> texts;
    bool topmost = false;
    std::vector<int> buttons;
};

// Watches, on its own thread, for message boxes of this process and closes
// each with WM_COMMAND IDCANCEL after noting what it showed.
class CMessageBoxWatcher
{
public:
    CMessageBoxWatcher();
    CMessageBoxWatcher(const CMessageBoxWatcher&) = delete;
    CMessageBoxWatcher& operator=(const CMessageBoxWatcher&) = delete;
    ~CMessageBoxWatcher() { (void)Stop(); }
    // Stops watching and returns what was seen.
    std::vector<SeenBox> Stop();

private:
    std::atomic<bool> m_bStop{false};
    std::vector<SeenBox> m_Boxes;
    std::thread m_Thread;
};

// A program of the build tree copied into the prefix's system directory under
// `name` for the object's lifetime.
class CSystemProgram
{
public:
    CSystemProgram(const std::wstring& builtName, const std::wstring& name);
    CSystemProgram(const CSystemProgram&) = delete;
    CSystemProgram& operator=(const CSystemProgram&) = delete;
    ~CSystemProgram() { DeleteFileW(m_Path.c_str()); }
    bool IsPlaced() const { return m_bPlaced; }

private:
    std::wstring m_Path;
    bool m_bPlaced = false;
};

// The product type the system reports ("ServerNT" server, "LanmanNT" domain
// controller) to processes started while this object lives; then "WinNT" again.
class CProductType
{
public:
    explicit CProductType(const std::wstring& productType);
    CProductType(const CProductType&) = delete;
    CProductType& operator=(const CProductType&) = delete;
    ~CProductType();
};

// One action run by QcActionRunner.exe in a process of its own.
struct RunnerOutcome
{
    int result = -1;
    Lines lines;                                // bodies after the frame's lines
    std::map<std::wstring, std::wstring> shown; // properties printed with --show
};
RunnerOutcome RunInRunner(const std::wstring& arguments);

} // namespace QcTest
