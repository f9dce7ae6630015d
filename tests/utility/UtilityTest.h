#pragma once

// The installer utility actions of the shipped DLL, run in real installer
// sessions (RunAction) against the real registry and version resources of the
// test run's Wine prefix; what Wine cannot show (another kind of system, a
// message box) is seen through the DLL's own imports.
#include <gtest/gtest.h>

#include <windows.h>

#include <memory>
#include <string>

#include "support/ActionCall.h"
#include "support/ImportPatch.h"

namespace QcTest {

// The actions log the thread's last-error value, not what a failing call
// answered; the frame leaves it at 0, so each of the DLL's registry opens and
// failing property reads sets this marker first, to tell the two apart.
constexpr DWORD kLastErrorMarker = 4242;

// Expected lines as Body() renders them.
inline const auto Error = [](const std::wstring& text) { return L"[ERROR] Various (#) " + text + L"."; };
inline const auto Warning = [](const std::wstring& text) { return L"[WARNING] Various (#) " + text + L"."; };
inline const auto Detail = [](const std::wstring& text) { return L"Various (#) " + text + L"."; };

// What the DLL's redirected imports do in a case; the rest calls the real functions.
struct Imports
{
    std::wstring failingRead;              // reads of it answer ERROR_INVALID_HANDLE, as if the session went away
    bool bRefuseWrites = false;            // registry writes answer ERROR_ACCESS_DENIED, the last error untouched
    BYTE productType = VER_NT_WORKSTATION; // what GetVersionEx reports
    Lines boxes;                           // message boxes, not shown but noted as "caption|text|type" and cancelled
};
extern Imports g_Imports;

class UtilityTest : public ::testing::Test
{
protected:
    void SetUp() override; // redirects the imports, as g_Imports says
    // Deletes every key SetValue() made and every file Place() put.
    void TearDown() override;

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
