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

// RunAction cannot answer the messages or show them, so these cases keep a
// session of their own: the result, the action's lines and the user messages.
std::tuple<UINT, Lines, Lines> Show(const char* exportName, const Properties& properties, int answer)
{
    QcRunner::CActionHost host;
    for (const auto& [name, value] : properties)
    {
        host.SetProperty(name, value);
    }
    host.QueueAnswer(answer);
    const UINT result = host.Call(ShippedLibrary().Find(exportName));
    Lines lines;
    for (const std::wstring& line : host.LogLines())
    {
        if (Body(line).rfind(L"Workbench (#) ", 0) != 0)
        {
            lines.push_back(Body(line));
        }
    }
    return {result, lines, host.Messages()};
}

TEST(ShowMessage, DeferredResultFollowsTheAnswerAndTheTypeIsDecimal)
{
    // 0 is no answer at all, as in a silent installation.
    const std::pair<int, UINT> answers[] = {{0, 0},        {IDOK, 0},         {IDRETRY, 0},    {IDIGNORE, 0},
                                            {IDYES, 0},    {IDCONTINUE, 0},   {IDCANCEL, 1602}, {IDABORT, 1602},
                                            {IDNO, 1602}, {IDTRYAGAIN, 1602}, {-1, 1602}};
    for (const auto& [answer, result] : answers)
    {
        EXPECT_EQ(Show("ShowMessageDeferred", {{L"CustomActionData", L";MESSAGE=Continue setup?;TYPE=4"}}, answer),
                  std::make_tuple(result, result == 0 ? Lines{} : Lines{Error(L"Continue setup?")},
                                  Lines{Message(L"0x03000004", L"Continue setup?", answer)}));
    }
    EXPECT_EQ(Show("ShowMessageDeferred", {{L"CustomActionData", L";MESSAGE=Low disk space;TYPE=48 and more"}}, IDOK),
              std::make_tuple(0u, Lines{}, Lines{Message(L"0x03000030", L"Low disk space", IDOK)}));
    // Only the frame's listing notes the absent TYPE.
    EXPECT_EQ(Show("ShowMessageDeferred", {{L"CustomActionData", L";MESSAGE=Done;OTHER=1"}}, IDOK),
              std::make_tuple(0u, Lines{L"[ERROR] Workbench (#) Argument[TYPE] = NOT DEFINED."},
                              Lines{Message(L"0x03000000", L"Done", IDOK)}));
}

struct ImmediateCase
{
    const char* behaviour;
    const wchar_t* quietMode;
    const wchar_t* failingRead; // a property whose read fails; null: none
    const wchar_t* data;        // CustomActionData; null: unset
    int answer;                 // the installer's
    UINT result;
    Lines lines;
    const wchar_t* box; // the box shown, "caption|text|type"; null: none
};

using ShowMessageImmediately = UtilityCases<ImmediateCase>;

const wchar_t kText[] = L"Install the printer driver?";
const wchar_t kCaption[] = L"Quillcast Setup";

Lines Details(const std::wstring& caption, const std::wstring& quietMode, const std::wstring& number)
{
    return {Detail(L"ShowMessageTextProperty = " + std::wstring(kText)), Detail(L"ShowMessageTypeProperty = 4"),
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
    Properties properties = {{L"ShowMessageTextProperty", kText}, {L"ShowMessageTypeProperty", L"4"},
                             {L"ShowMessageCaptionProperty", kCaption},
                             {L"ShowMessageQuietModeProperty", test.quietMode}};
    if (test.data != nullptr)
    {
        properties.emplace_back(L"CustomActionData", test.data);
    }
    if (test.failingRead != nullptr)
    {
        FailPropertyRead(test.failingRead, false);
    }
    const Lines& boxes = NoteMessageBoxes(); // each answered with Cancel

    EXPECT_EQ(Show("ShowMessageImmediately", properties, test.answer),
              std::make_tuple(test.result, test.lines,
                              test.result != 1603 ? Lines{Message(L"0x03000004", kText, test.answer)} : Lines{}));
    EXPECT_EQ(boxes, test.box != nullptr ? Lines{test.box} : Lines{});
}

const wchar_t kBox[] = L"Quillcast Setup|Install the printer driver?|0x1004";
const wchar_t kBoxWithoutCaption[] = L"|Install the printer driver?|0x1004";
const std::wstring kGetFailed = L"MsiGetProperty ShowMessage";

const ImmediateCase kCases[] = {
    // Silent installation: the installer answers nothing; the box is the only
    // way the user sees the message, and cancelling it changes nothing.
    {"QuietModeOneShowsASystemModalBoxThatDecidesNothing", L"1", nullptr, nullptr, 0, 0,
     Details(kCaption, L"1", L"1"), kBox},
    // The refusal's entry is the MESSAGE argument, empty for an immediate action.
    {"InstallerNoFailsWithAnEmptyEntry", L"1", nullptr, nullptr, IDNO, 1602,
     With(Details(kCaption, L"1", L"1"), 5, L"[ERROR] Various (#) ."), kBox},
    {"InstallerCancelLogsTheMessageArgument", L"0", nullptr, L";MESSAGE=from the data", IDCANCEL, 1602,
     With(Details(kCaption, L"0", L"0"), 5, Error(L"from the data")), nullptr},
    {"QuietModeTwoIsNotOne", L"2", nullptr, nullptr, IDYES, 0, Details(kCaption, L"2", L"2"), nullptr},
    {"UnreadableCaptionIsLoggedAndEmpty", L"1", L"ShowMessageCaptionProperty", nullptr, IDOK, 0,
     With(Details(L"", L"1", L"1"), 2, Error(kGetFailed + L"CaptionProperty failed with error {LastError}")),
     kBoxWithoutCaption},
    {"UnreadableQuietModeIsLoggedAndZero", L"1", L"ShowMessageQuietModeProperty", nullptr, IDOK, 0,
     With(Details(kCaption, L"", L"0"), 3, Error(kGetFailed + L"QuietModeProperty failed with error {LastError}")),
     nullptr},
    {"UnreadableTextFails", L"1", L"ShowMessageTextProperty", nullptr, IDOK, 1603,
     {Error(kGetFailed + L"TextProperty failed with error {LastError}")}, nullptr},
    {"UnreadableTypeFails", L"1", L"ShowMessageTypeProperty", nullptr, IDOK, 1603,
     {Detail(L"ShowMessageTextProperty = " + std::wstring(kText)),
      Error(kGetFailed + L"TypeProperty failed with error {LastError}")},
     nullptr},
};

INSTANTIATE_TEST_SUITE_P(Cases, ShowMessageImmediately, ::testing::ValuesIn(kCases), kByBehaviour);

} // namespace
} // namespace QcTest
