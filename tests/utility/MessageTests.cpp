// ShowMessageDeferred and ShowMessageImmediately: the installer's answer
// decides; the quiet-mode box is shown system-modal and decides nothing.
#include "utility/UtilityTest.h"

namespace QcTest {
namespace {

// The user message as the runner records it, with the installer's answer.
std::wstring Message(const wchar_t* typeHex, const std::wstring& text, int answer)
{
    return std::wstring(typeHex) + L": [1]|" + text + L"| -> " + std::to_wstring(answer);
}

class ShowMessage : public UtilityTest
{
};

TEST_F(ShowMessage, DeferredResultFollowsTheAnswer)
{
    // 0 is no answer at all, as in a silent installation.
    const std::vector<std::pair<int, UINT>> answers = {{0, 0},    {IDOK, 0},       {IDRETRY, 0},    {IDIGNORE, 0},
                                                       {IDYES, 0}, {IDCONTINUE, 0}, {IDCANCEL, 1602}, {IDABORT, 1602},
                                                       {IDNO, 1602}, {IDTRYAGAIN, 1602}, {-1, 1602}};
    for (const auto& [answer, result] : answers)
    {
        SetUp();
        m_Host->SetCustomActionData(L";MESSAGE=Continue setup?;TYPE=4");
        m_Host->QueueAnswer(answer);
        EXPECT_EQ(Run("ShowMessageDeferred"), result) << answer;
        EXPECT_EQ(m_Host->Messages(), Lines{Message(L"0x03000004", L"Continue setup?", answer)}) << answer;
        EXPECT_EQ(ActionLines(), result == 0 ? Lines{} : Lines{Error(L"Continue setup?")}) << answer;
    }
}

TEST_F(ShowMessage, DeferredTypeIsConvertedAsDecimalAndAMissingOneIsZero)
{
    m_Host->SetCustomActionData(L";MESSAGE=Low disk space;TYPE=48 and more");
    EXPECT_EQ(Run("ShowMessageDeferred"), 0u);
    m_Host->SetCustomActionData(L";MESSAGE=Done;OTHER=1");
    EXPECT_EQ(Run("ShowMessageDeferred"), 0u);
    EXPECT_EQ(m_Host->Messages(), (Lines{Message(L"0x03000030", L"Low disk space", IDOK),
                                         Message(L"0x03000000", L"Done", IDOK)}));
    // Only the frame's listing notes the absent TYPE.
    EXPECT_EQ(ActionLines(), Lines{L"[ERROR] Workbench (#) Argument[TYPE] = NOT DEFINED."});
}

struct ImmediateCase
{
    const char* behaviour;
    const wchar_t* caption;     // null: the property is unset
    const wchar_t* quietMode;   // null: the property is unset
    const wchar_t* failingRead; // a property whose read fails; null: none
    const wchar_t* data;        // CustomActionData; null: unset
    int answer;                 // the installer's
    UINT result;
    Lines lines;
    bool box; // a direct box, dismissed with Cancel
};

class ShowMessageImmediately : public UtilityTest, public ::testing::WithParamInterface<ImmediateCase>
{
};

Lines Details(const std::wstring& caption, const std::wstring& quietMode, const std::wstring& number)
{
    return {Detail(L"ShowMessageTextProperty = Install the printer driver?"), Detail(L"ShowMessageTypeProperty = 4"),
            Detail(L"ShowMessageCaptionProperty = " + caption), Detail(L"ShowMessageQuietModeProperty = " + quietMode),
            Detail(L"dwShowInQuietMode = " + number)};
}

Lines With(Lines lines, size_t at, const std::wstring& line)
{
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at), line);
    return lines;
}

TEST_P(ShowMessageImmediately, ShowsTheMessage)
{
    const ImmediateCase& test = GetParam();
    Properties properties = {{L"ShowMessageTextProperty", L"Install the printer driver?"},
                             {L"ShowMessageTypeProperty", L"4"}};
    if (test.caption != nullptr)
    {
        properties.emplace_back(L"ShowMessageCaptionProperty", test.caption);
    }
    if (test.quietMode != nullptr)
    {
        properties.emplace_back(L"ShowMessageQuietModeProperty", test.quietMode);
    }
    if (test.data != nullptr)
    {
        m_Host->SetCustomActionData(test.data);
    }
    std::unique_ptr<CFailingPropertyRead> failing;
    if (test.failingRead != nullptr)
    {
        failing = std::make_unique<CFailingPropertyRead>(Module(), test.failingRead, false);
        ASSERT_TRUE(failing->IsApplied());
    }
    m_Host->QueueAnswer(test.answer);

    CMessageBoxWatcher watcher;
    const UINT result = Run("ShowMessageImmediately", properties);
    const std::vector<SeenBox> boxes = watcher.Stop();

    EXPECT_EQ(result, test.result);
    EXPECT_EQ(ActionLines(), test.lines);
    const bool bShown = test.result != 1603;
    EXPECT_EQ(m_Host->Messages(),
              bShown ? Lines{Message(L"0x03000004", L"Install the printer driver?", test.answer)} : Lines{});
    ASSERT_EQ(boxes.size(), test.box ? 1u : 0u);
    if (test.box)
    {
        const SeenBox& box = boxes[0];
        EXPECT_EQ(box.caption, test.caption != nullptr && test.failingRead == nullptr ? test.caption : L"");
        EXPECT_NE(std::find(box.texts.begin(), box.texts.end(), L"Install the printer driver?"), box.texts.end());
        EXPECT_TRUE(box.topmost) << "system-modal";
        EXPECT_EQ(box.buttons, (std::vector<int>{IDYES, IDNO})) << "the message type's buttons";
    }
}

const ImmediateCase kCases[] = {
    // Silent installation: the installer answers nothing; the box is the only
    // way the user sees the message, and cancelling it changes nothing.
    {"QuietModeOneShowsASystemModalBoxThatDecidesNothing", L"Quillcast Setup", L"1", nullptr, nullptr, 0, 0,
     Details(L"Quillcast Setup", L"1", L"1"), true},
    {"QuietModeOneWithInstallerYesSucceeds", L"Quillcast Setup", L"1", nullptr, nullptr, IDYES, 0,
     Details(L"Quillcast Setup", L"1", L"1"), true},
    // The refusal's entry is the MESSAGE argument, empty for an immediate action.
    {"InstallerNoFailsWithAnEmptyEntry", L"Quillcast Setup", L"1", nullptr, nullptr, IDNO, 1602,
     With(Details(L"Quillcast Setup", L"1", L"1"), 5, L"[ERROR] Various (#) ."), true},
    {"InstallerCancelLogsTheMessageArgument", L"Quillcast Setup", L"0", nullptr, L";MESSAGE=from the data", IDCANCEL,
     1602, With(Details(L"Quillcast Setup", L"0", L"0"), 5, Error(L"from the data")), false},
    {"SilentInstallWithoutQuietModeShowsNothingAndSucceeds", L"Quillcast Setup", nullptr, nullptr, nullptr, 0, 0,
     Details(L"Quillcast Setup", L"", L"0"), false},
    {"QuietModeTwoIsNotOne", L"Quillcast Setup", L"2", nullptr, nullptr, IDYES, 0,
     Details(L"Quillcast Setup", L"2", L"2"), false},
    {"QuietModeYesIsNotOne", L"Quillcast Setup", L"yes", nullptr, nullptr, IDYES, 0,
     Details(L"Quillcast Setup", L"yes", L"0"), false},
    {"UnsetCaptionGivesAnEmptyCaption", nullptr, L"1", nullptr, nullptr, IDOK, 0, Details(L"", L"1", L"1"), true},
    {"UnreadableCaptionIsLoggedAndEmpty", L"Quillcast Setup", L"1", L"ShowMessageCaptionProperty", nullptr, IDOK, 0,
     With(Details(L"", L"1", L"1"), 2,
          Error(L"MsiGetProperty ShowMessageCaptionProperty failed with error {LastError}")),
     true},
    {"UnreadableQuietModeIsLoggedAndZero", L"Quillcast Setup", L"1", L"ShowMessageQuietModeProperty", nullptr, IDOK, 0,
     With(Details(L"Quillcast Setup", L"", L"0"), 3,
          Error(L"MsiGetProperty ShowMessageQuietModeProperty failed with error {LastError}")),
     false},
    {"UnreadableTextFails", L"Quillcast Setup", L"1", L"ShowMessageTextProperty", nullptr, IDOK, 1603,
     {Error(L"MsiGetProperty ShowMessageTextProperty failed with error {LastError}")}, false},
    {"UnreadableTypeFails", L"Quillcast Setup", L"1", L"ShowMessageTypeProperty", nullptr, IDOK, 1603,
     {Detail(L"ShowMessageTextProperty = Install the printer driver?"),
      Error(L"MsiGetProperty ShowMessageTypeProperty failed with error {LastError}")},
     false},
};

INSTANTIATE_TEST_SUITE_P(Cases, ShowMessageImmediately, ::testing::ValuesIn(kCases),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.behaviour); });

} // namespace
} // namespace QcTest
