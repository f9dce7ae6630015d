// ShowMessageDeferred and ShowMessageImmediately: the installer's answer
// decides; the quiet-mode box is shown system-modal and decides nothing.
#include "utility/UtilityTest.h"

#include <tuple>

namespace QcTest {
namespace {

// The user message as the runner records it, with the installer's answer.
std::wstring Message(const wchar_t* typeHex, const std::wstring& text, int answer)
{
    return std::wstring(typeHex) + L": [1]|" + text + L"| -> " + std::to_wstring(answer);
}

// The result, the action's lines and the user messages.
std::tuple<UINT, Lines, Lines> Show(const char* exportName, const Properties& properties, int answer)
{
    const ActionOutcome outcome = RunAction(exportName, properties, {}, -1, answer);
    return {outcome.result, outcome.lines, outcome.messages};
}

TEST(ShowMessage, DeferredResultFollowsTheAnswerAndTheTypeIsDecimal)
{
    // 0 is no answer at all, as in a silent installation.
    const std::pair<int, UINT> answers[] = {{0, 0},       {IDOK, 0},          {IDRETRY, 0},     {IDIGNORE, 0},
                                            {IDYES, 0},   {IDCONTINUE, 0},    {IDCANCEL, 1602}, {IDABORT, 1602},
                                            {IDNO, 1602}, {IDTRYAGAIN, 1602}, {-1, 1602}};
    for (const auto& [answer, result] : answers)
    {
        EXPECT_EQ(Show("ShowMessageDeferred", {{L"CustomActionData", L";MESSAGE=Continue setup?;TYPE=4"}}, answer),
                  std::make_tuple(result, result == 0 ? Lines{} : Lines{Error(L"Continue setup?")},
                                  Lines{Message(L"0x03000004", L"Continue setup?", answer)}));
    }
    EXPECT_EQ(Show("ShowMessageDeferred", {{L"CustomActionData", L";MESSAGE=Low disk space;TYPE=48 and more"}}, IDOK),
              std::make_tuple(0u, Lines{}, Lines{Message(L"0x03000030", L"Low disk space", IDOK)}));
    EXPECT_EQ(Show("ShowMessageDeferred", {{L"CustomActionData", L";MESSAGE=Done;OTHER=1"}}, IDOK),
              std::make_tuple(0u, Lines{}, Lines{Message(L"0x03000000", L"Done", IDOK)}));
}

struct ImmediateCase
{
    const char* behaviour;
    const wchar_t* quietMode;
    int answer; // the installer's
    Lines lines;
    std::wstring box = L""; // the box shown, "caption|text|type"; empty: none
    UINT result = 0;
    const wchar_t* failingRead = L""; // a property whose read fails
};

using ShowMessageImmediately = UtilityCases<ImmediateCase>;

const wchar_t kText[] = L"Install the printer driver?";
const wchar_t kCaption[] = L"Quillcast Setup";

// The property lines; an empty quiet mode reads as 0.
Lines Details(const std::wstring& caption, const std::wstring& quietMode)
{
    return {Detail(L"ShowMessageTextProperty = " + std::wstring(kText)), Detail(L"ShowMessageTypeProperty = 4"),
            Detail(L"ShowMessageCaptionProperty = " + caption), Detail(L"ShowMessageQuietModeProperty = " + quietMode),
            Detail(L"dwShowInQuietMode = " + (quietMode.empty() ? L"0" : quietMode))};
}

Lines With(Lines lines, size_t at, const std::wstring& line)
{
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at), line);
    return lines;
}

TEST_P(ShowMessageImmediately, ShowsTheMessage)
{
    const ImmediateCase& test = GetParam();
    g_Imports.failingRead = test.failingRead;
    const Properties properties = {{L"ShowMessageTextProperty", kText},
                                   {L"ShowMessageTypeProperty", L"4"},
                                   {L"ShowMessageCaptionProperty", kCaption},
                                   {L"ShowMessageQuietModeProperty", test.quietMode}};
    EXPECT_EQ(Show("ShowMessageImmediately", properties, test.answer),
              std::make_tuple(test.result, test.lines,
                              test.result != 1603 ? Lines{Message(L"0x03000004", kText, test.answer)} : Lines{}));
    EXPECT_EQ(g_Imports.boxes, test.box.empty() ? Lines{} : Lines{test.box});
}

const std::wstring kBox = L"Quillcast Setup|Install the printer driver?|" + std::to_wstring(MB_SYSTEMMODAL | MB_YESNO);
const std::wstring kGetFailed = L"MsiGetProperty ShowMessage";
const Lines kTextUnread = {Error(kGetFailed + L"TextProperty failed with error 4242")};
const Lines kTypeUnread = {Details(kCaption, L"1")[0], Error(kGetFailed + L"TypeProperty failed with error 4242")};

const ImmediateCase kCases[] = {
    // Silent installation: the installer answers nothing; the box is the only
    // way the user sees the message, and cancelling it changes nothing.
    {"QuietModeOneShowsASystemModalBoxThatDecidesNothing", L"1", 0, Details(kCaption, L"1"), kBox},
    // The refusal's entry is the MESSAGE argument, absent for an immediate action.
    {"InstallerNoFailsWithAnEmptyEntry", L"1", IDNO, With(Details(kCaption, L"1"), 5, L"[ERROR] Various (#) ."), kBox,
     1602},
    {"QuietModeTwoIsNotOne", L"2", IDYES, Details(kCaption, L"2")},
    {"UnreadableCaptionIsLoggedAndEmpty", L"1", IDOK,
     With(Details(L"", L"1"), 2, Error(kGetFailed + L"CaptionProperty failed with error 4242")),
     kBox.substr(kBox.find(L'|')), 0, L"ShowMessageCaptionProperty"},
    {"UnreadableQuietModeIsLoggedAndZero", L"1", IDOK,
     With(Details(kCaption, L""), 3, Error(kGetFailed + L"QuietModeProperty failed with error 4242")), L"", 0,
     L"ShowMessageQuietModeProperty"},
    {"UnreadableTextFails", L"1", IDOK, kTextUnread, L"", 1603, L"ShowMessageTextProperty"},
    {"UnreadableTypeFails", L"1", IDOK, kTypeUnread, L"", 1603, L"ShowMessageTypeProperty"},
};

INSTANTIATE_TEST_SUITE_P(Cases, ShowMessageImmediately, ::testing::ValuesIn(kCases), kByBehaviour);

} // namespace
} // namespace QcTest
