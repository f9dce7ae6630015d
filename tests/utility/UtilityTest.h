#pragma once

// The installer utility actions of the shipped DLL, run in real installer
// sessions (RunAction) against the real registry and version resources of the
// test run's Wine prefix; what Wine cannot show (another kind of system, a
// message box) is seen through the DLL's own imports.
#include <gtest/gtest.h>

#include <windows.h>

#include <memory>
#include <string>

#include "directory/ActionCall.h"
#include "support/ImportPatch.h"

namespace QcTest {

// The actions log the thread's last-error value, not what a failing registry or
// installer call answered. The frame leaves that value at 0, which would not
// tell the two apart, so the suite wraps the shipped DLL's RegOpenKeyExW to set
// this marker (4242) just before each real open, and a failing property read
// sets it too; expected lines write it as "{LastError}".
constexpr DWORD kLastErrorMarker = 4242;

// Expected lines as Body() renders them.
std::wstring Error(const std::wstring& text);
std::wstring Warning(const std::wstring& text);
std::wstring Detail(const std::wstring& text);

class UtilityTest : public ::testing::Test
{
protected:
    void SetUp() override;
    // Deletes every key SetValue() made and every file Place() put.
    void TearDown() override;

    // Redirects the DLL's import of dll!function for this test.
    void Patch(const char* dll, const char* function, const void* replacement);
    // The DLL's read of property `name` (its size query or its read) fails as
    // in a session that went away: ERROR_INVALID_HANDLE, the marker as last error.
    void FailPropertyRead(const std::wstring& name, bool bSizeQuery);
    // The DLL's registry writes fail as on a protected value: ERROR_ACCESS_DENIED,
    // nothing written, the last error untouched.
    void RefuseRegistryWrites();
    // GetVersionEx tells the DLL this product type (VER_NT_SERVER, ...).
    void ReportProductType(BYTE productType);
    // The DLL's message boxes are not shown but noted as "caption|text|type in hex".
    const Lines& NoteMessageBoxes();

    std::vector<std::unique_ptr<CImportPatch>> m_Patches;
};

template <typename Case>
class UtilityCases : public UtilityTest, public ::testing::WithParamInterface<Case>
{
};
// Names each case after its `behaviour`.
constexpr auto kByBehaviour = [](const auto& info) { return std::string(info.param.behaviour); };

// HKLM\key in one registry view (KEY_WOW64_32KEY or KEY_WOW64_64KEY). A null
// name only creates the key; the bytes are given as characters.
bool SetValue(REGSAM view, const std::wstring& key, const wchar_t* name, DWORD type, const std::wstring& bytes);
// The value's type and its bytes as characters; type REG_NONE and no bytes when it does not exist.
std::pair<DWORD, std::wstring> ReadValue(REGSAM view, const std::wstring& key, const wchar_t* name);
// Copies the build's program `program` into the system directory as `name`.
bool Place(const std::wstring& program, const wchar_t* name);

} // namespace QcTest
