// DirectoryObjectPick: the options it reads, the window it shows the picker
// over, the exact initialisation the picker receives and what becomes of the
// selection; Wine's own picker where it answers like a cancelled dialog.
#include <gtest/gtest.h>

#include <windows.h>
#include <msiquery.h>

#include <cwchar>
#include <set>

#include "directory/ActionCall.h"
#include "directory/DirectoryDouble.h"
#include "system/Directory.h"
#include "support/ImportPatch.h"

namespace QcTest {
namespace {

constexpr wchar_t kTitle[] = L"Quillcast Picker Test";

enum Window
{
    kNone,        // no window carries the product's title
    kMsiDialog,   // the installer's wizard class
    kDialog,      // a standard dialog
    kBoth,        // both: the wizard's is taken
};

// A top-level window titled with the product name, for the case's length.
class CTitledWindow
{
public:
    explicit CTitledWindow(const wchar_t* className)
    {
        WNDCLASSW windowClass = {};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.lpszClassName = className;
        if (className[0] != L'#')
        {
            RegisterClassW(&windowClass); // fails harmlessly once registered
        }
        m_hWnd = CreateWindowExW(0, className, kTitle, WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr, nullptr,
                                 GetModuleHandleW(nullptr), nullptr);
    }
    CTitledWindow(const CTitledWindow&) = delete;
    CTitledWindow& operator=(const CTitledWindow&) = delete;
    ~CTitledWindow() { DestroyWindow(m_hWnd); }
    HWND Get() const { return m_hWnd; }

private:
    HWND m_hWnd = nullptr;
};

// Reads of the shipped DLL that fail: "NAME" fails the second call of that
// property, "NAME:size" its size query. Failing calls leave last error 1627.
std::set<std::wstring> g_FailingReads;
QcTest::CImportPatch* g_pPropertyPatch = nullptr;

UINT WINAPI FailingGetProperty(MSIHANDLE hInstall, LPCWSTR name, LPWSTR value, LPDWORD pcch)
{
    const bool bSizeQuery = pcch != nullptr && *pcch == 0;
    if (g_FailingReads.count(std::wstring(name) + (bSizeQuery ? L":size" : L"")) != 0)
    {
        SetLastError(ERROR_FUNCTION_FAILED);
        return ERROR_FUNCTION_FAILED;
    }
    return g_pPropertyPatch->Original<decltype(&MsiGetPropertyW)>()(hInstall, name, value, pcch);
}

struct PickCase
{
    const char* behaviour;
    bool bDouble;                   // false: Wine's own picker
    const wchar_t* userFlag;        // "PickUserFlagProperty"; null: unset
    const wchar_t* multiSelect;     // "PickMultiSelectProperty"; null: unset
    Window window;
    Lines selection;                // the double's answer; empty: a cancel; {L"missing"}: no server
    const wchar_t* failAt;          // the double's failing step, or null
    std::set<std::wstring> failingReads;
    UINT result;
    Lines lines;
    const wchar_t* pickResult;      // before: "earlier"
    Lines journal;                  // "{parent}" is the window expected as parent
};

void PrintTo(const PickCase& test, std::ostream* pStream)
{
    *pStream << test.behaviour;
}

class DirectoryObjectPick : public ::testing::TestWithParam<PickCase>
{
};

std::wstring Hex(HWND hWnd)
{
    wchar_t text[24];
    _snwprintf(text, 24, L"0x%lX", static_cast<unsigned long>(reinterpret_cast<ULONG_PTR>(hWnd)));
    return text;
}

TEST_P(DirectoryObjectPick, Case)
{
    const PickCase& test = GetParam();
    std::unique_ptr<CDirectoryDouble> pDouble;
    if (test.bDouble)
    {
        pDouble = std::make_unique<CDirectoryDouble>();
        ASSERT_TRUE(pDouble->IsRegistered());
        if (test.selection.empty())
        {
            CDirectoryDouble::Set(L"Cancel", 1);
        }
        if (test.selection == Lines{L"missing"})
        {
            CDirectoryDouble::RegisterMissingServer();
        }
        CDirectoryDouble::SetMulti(L"Selection", test.selection);
        if (test.failAt != nullptr)
        {
            CDirectoryDouble::Set(L"FailAt", test.failAt);
        }
    }
    std::unique_ptr<CTitledWindow> pMsiDialog;
    std::unique_ptr<CTitledWindow> pDialog;
    if (test.window == kMsiDialog || test.window == kBoth)
    {
        pMsiDialog = std::make_unique<CTitledWindow>(L"MsiDialogCloseClass");
        ASSERT_NE(pMsiDialog->Get(), nullptr);
    }
    if (test.window == kDialog || test.window == kBoth)
    {
        pDialog = std::make_unique<CTitledWindow>(L"#32770");
        ASSERT_NE(pDialog->Get(), nullptr);
    }
    Properties properties = {{L"ProductName", kTitle}, {L"PickResult", L"earlier"}};
    if (test.userFlag != nullptr)
    {
        properties.emplace_back(L"PickUserFlagProperty", test.userFlag);
    }
    if (test.multiSelect != nullptr)
    {
        properties.emplace_back(L"PickMultiSelectProperty", test.multiSelect);
    }
    CImportPatch patch(ShippedLibrary().Module(), "msi.dll", "MsiGetPropertyW",
                       reinterpret_cast<const void*>(&FailingGetProperty));
    ASSERT_TRUE(patch.IsApplied());
    g_pPropertyPatch = &patch;
    g_FailingReads = test.failingReads;

    const ActionOutcome outcome = RunAction("DirectoryObjectPick", properties, {L"PickResult"});

    g_FailingReads.clear();
    EXPECT_EQ(outcome.result, test.result);
    EXPECT_EQ(outcome.lines, test.lines);
    EXPECT_EQ(outcome.properties, (Properties{{L"PickResult", test.pickResult}}));
    if (test.bDouble)
    {
        const HWND hParent = pMsiDialog ? pMsiDialog->Get() : pDialog ? pDialog->Get() : nullptr;
        Lines journal = test.journal;
        for (std::wstring& line : journal)
        {
            const size_t at = line.find(L"{parent}");
            if (at != std::wstring::npos)
            {
                line.replace(at, 8, Hex(hParent));
            }
        }
        EXPECT_EQ(CDirectoryDouble::Journal(), journal);
    }
    // Whatever the outcome, COM is left as the action found it.
    EXPECT_EQ(outcome.comAfter, S_OK);
}

// The initialisation for each user flag, and the second scope record, all zero.
const std::wstring kUsersAndGroups = L"scope size=ok type=0x37E scope=0xE2 both=0x2A7 mixed=0x0 native=0x0 "
                                     L"downlevel=0x80020007 dc=null path=null";
const std::wstring kUsers = L"scope size=ok type=0x37E scope=0x62 both=0x3 mixed=0x0 native=0x0 "
                            L"downlevel=0x80000001 dc=null path=null";
const std::wstring kGroups = L"scope size=ok type=0x37E scope=0xA2 both=0x2A1 mixed=0x0 native=0x0 "
                             L"downlevel=0x80000006 dc=null path=null";
const std::wstring kZeroScope =
    L"scope size=0 type=0x0 scope=0x0 both=0x0 mixed=0x0 native=0x0 downlevel=0x0 dc=null path=null";

Lines Picked(const wchar_t* options, const std::wstring& scope, const Lines& end)
{
    Lines journal = {std::wstring(L"Initialize scopes=2 target=null options=") + options + L" attributes=0", scope,
                     kZeroScope, L"InvokeDialog parent={parent}"};
    journal.insert(journal.end(), end.begin(), end.end());
    journal.push_back(L"Picker released");
    return journal;
}
const Lines kSelectionReleased = {L"Selection medium released", L"Selection released"};
const Lines kOneUser = {L"WinNT://CORP/alice"};

// The thread's last-error value after a failed picker: what Wine's COM leaves
// on the thread (14007, ERROR_SXS_KEY_NOT_FOUND), not the picker's HRESULT.
const std::wstring kShowFailed = L"[ERROR] Various (#) ShowObjectPicker failed with error 14007.";
const std::wstring kCancelled = L"[ERROR] Directory (#) ProcessSelectedObjects failed with error 2147942487.";

const PickCase kPickCases[] = {
    {"UnsetOptionsOfferUsersAndGroupsForOneChoice", true, nullptr, nullptr, kBoth, kOneUser, nullptr, {}, 0, {},
     L"CORP\\alice", Picked(L"0x0", kUsersAndGroups, kSelectionReleased)},
    {"UserFlag0WithMultiSelect", true, L"0", L"1", kMsiDialog, kOneUser, nullptr, {}, 0, {}, L"CORP\\alice",
     Picked(L"0x1", kUsersAndGroups, kSelectionReleased)},
    {"UserFlag1OffersUsers", true, L"1", L"0", kMsiDialog, kOneUser, nullptr, {}, 0, {}, L"CORP\\alice",
     Picked(L"0x0", kUsers, kSelectionReleased)},
    {"UserFlag2OffersGroupsWithMultiSelect", true, L"2", L"1", kMsiDialog, kOneUser, nullptr, {}, 0, {},
     L"CORP\\alice", Picked(L"0x1", kGroups, kSelectionReleased)},
    // Any number but 0 turns multi-selection on.
    {"UserFlag3IsLikeUserFlag0", true, L"3", L" 7 apples", kMsiDialog, kOneUser, nullptr, {}, 0, {},
     L"CORP\\alice", Picked(L"0x1", kUsersAndGroups, kSelectionReleased)},
    // The records stay unprepared; the picker refuses them and no dialog is shown.
    {"UserFlag4IsRefusedAndNoDialogShown", true, L"4", L"1", kMsiDialog, kOneUser, nullptr, {}, 1603,
     {L"[ERROR] Directory (#) dwUserFlag not valid.",
      L"[ERROR] Directory (#) InitObjectPicker failed with error 2147942487.",
      kShowFailed},
     L"earlier", {L"Initialize refused", L"Picker released"}},
    {"TwoSelectedObjectsAreJoinedAsDomainBackslashName", true, L"0", L"1", kMsiDialog,
     {L"WinNT://CORP/alice", L"WinNT://CORP/Print Operators"}, nullptr, {}, 0, {},
     L"CORP\\alice;CORP\\Print Operators", Picked(L"0x1", kUsersAndGroups, kSelectionReleased)},
    {"SelectionWithoutPathAddsAnEmptyEntry", true, L"0", L"1", kMsiDialog, {L"(null)", L"WinNT://CORP/bob"},
     nullptr, {}, 0, {}, L";CORP\\bob", Picked(L"0x1", kUsersAndGroups, kSelectionReleased)},
    {"StandardDialogIsTheParentWithoutTheWizard", true, L"1", L"0", kDialog, kOneUser, nullptr, {}, 0, {},
     L"CORP\\alice", Picked(L"0x0", kUsers, kSelectionReleased)},
    // A cancel (S_FALSE without a selection) is a failure.
    {"CancelledPickerFailsAndKeepsPickResult", true, L"0", L"0", kMsiDialog, {}, nullptr, {}, 1603,
     {kCancelled, kShowFailed}, L"earlier",
     Picked(L"0x0", kUsersAndGroups, {})},
    {"WinesOwnPickerEndsLikeACancel", false, L"0", L"0", kMsiDialog, {}, nullptr, {}, 1603,
     {kCancelled, kShowFailed}, L"earlier", {}},
    // E_ACCESSDENIED is 0x80070005.
    {"FailingPickerFails", true, L"0", L"0", kMsiDialog, kOneUser, L"InvokeDialog", {}, 1603,
     {L"[ERROR] Directory (#) InvokeDialog failed with error 2147942405.",
      kShowFailed},
     L"earlier", Picked(L"0x0", kUsersAndGroups, {})},
    // No picker to initialise or show: the action ends without using one.
    {"PickerThatCannotBeCreatedIsNotUsed", true, L"0", L"0", kMsiDialog, {L"missing"}, nullptr, {}, 1603,
     {L"[ERROR] Various (#) ShowObjectPicker failed with error 126."}, L"earlier", {}},
    // A silent installation has no dialog: no picker is created.
    {"NoWindowWithTheProductTitleFails", true, L"0", L"0", kNone, kOneUser, nullptr, {}, 1603,
     {L"[ERROR] Various (#) FindWindow failed with error 0."}, L"earlier", {}},
    {"UnreadableOptionsAreWarningsAndReadAsZero", true, L"2", L"1", kMsiDialog, kOneUser, nullptr,
     {L"PickUserFlagProperty", L"PickMultiSelectProperty"}, 0,
     {L"[WARNING] Various (#) MsiGetProperty PickUserFlagProperty failed with error 1627.",
      L"[WARNING] Various (#) MsiGetProperty PickMultiSelectProperty failed with error 1627."},
     L"CORP\\alice", Picked(L"0x0", kUsersAndGroups, kSelectionReleased)},
    {"OptionsWhoseSizeCannotBeAskedReadAsZeroSilently", true, L"2", L"1", kMsiDialog, kOneUser, nullptr,
     {L"PickUserFlagProperty:size", L"PickMultiSelectProperty:size"}, 0, {}, L"CORP\\alice",
     Picked(L"0x0", kUsersAndGroups, kSelectionReleased)},
    {"ProductNameWhoseSizeCannotBeAskedFails", true, L"0", L"0", kMsiDialog, kOneUser, nullptr,
     {L"ProductName:size"}, 1603, {L"[ERROR] Various (#) MsiGetProperty ProductName failed with error 1627."},
     L"earlier", {}},
    // Another text than for the size query, on purpose.
    {"UnreadableProductNameFailsWithItsOwnText", true, L"0", L"0", kMsiDialog, kOneUser, nullptr, {L"ProductName"},
     1603, {L"[ERROR] Various (#) MsiGetProperty strProductName failed with error 1627."}, L"earlier", {}},
};

INSTANTIATE_TEST_SUITE_P(Cases, DirectoryObjectPick, ::testing::ValuesIn(kPickCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

// A caller already in the multithreaded apartment: the picker is created there
// all the same, and the destructor's CoUninitialize, unbalanced on purpose,
// ends the caller's own initialisation.
TEST(DirectoryObjectPickApartment, MultithreadedCallerIsUninitialisedOnceMore)
{
    CDirectoryDouble directoryDouble;
    ASSERT_TRUE(directoryDouble.IsRegistered());
    CDirectoryDouble::SetMulti(L"Selection", kOneUser);
    CTitledWindow window(L"MsiDialogCloseClass");

    const ActionOutcome outcome = RunAction("DirectoryObjectPick", {{L"ProductName", kTitle}}, {L"PickResult"},
                                            COINIT_MULTITHREADED);

    EXPECT_EQ(outcome.result, 0u);
    EXPECT_EQ(outcome.lines, Lines{});
    EXPECT_EQ(outcome.properties, (Properties{{L"PickResult", L"CORP\\alice"}}));
    // A balanced object would leave the caller initialised (S_FALSE).
    EXPECT_EQ(outcome.comAfter, S_OK);
}

// A failed initialisation uninitialises COM at once and the destructor does
// so again, both on purpose: a caller's own apartment-threaded initialisation
// ends with the action (a balanced object would leave it, S_FALSE).
TEST(DirectoryObjectPickApartment, FailedInitialisationUninitialisesTwice)
{
    CDirectoryDouble directoryDouble;
    ASSERT_TRUE(directoryDouble.IsRegistered());
    CTitledWindow window(L"MsiDialogCloseClass");

    const ActionOutcome outcome = RunAction("DirectoryObjectPick",
                                            {{L"ProductName", kTitle}, {L"PickUserFlagProperty", L"4"}},
                                            {L"PickResult"}, COINIT_APARTMENTTHREADED);

    EXPECT_EQ(outcome.result, 1603u);
    EXPECT_EQ(outcome.lines.size(), 3u);
    EXPECT_EQ(outcome.comAfter, S_OK);
}

// Initialising without a picker is refused before any COM call.
TEST(DirectoryObject, InitialisingWithoutAPickerFailsWithInvalidArgument)
{
    CLogCapture log;
    Quillcast::System::CDirectory directory(0, false);
    EXPECT_EQ(directory.InitObjectPicker(), E_INVALIDARG);
    EXPECT_EQ(log.Bodies(), Lines{L"[ERROR] Directory (#) !pDsObjectPicker."});
}

} // namespace
} // namespace QcTest
