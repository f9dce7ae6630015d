// ShowMessageDeferred and ShowMessageImmediately: a message through the
// installer, whose negative answer cancels the installation.
#include <windows.h>
#include <msiquery.h>

#include <cstdlib>

#include "actions/Workers.h"
#include "host/ArgumentNames.h"
#include "host/MsiProperty.h"
#include "host/types/Handles.h"
#include "host/types/WideString.h"
#include "logging/Log.h"

namespace Quillcast::Actions {

namespace {

constexpr Logging::CLogSource kLogSource{L"Various", 5000};

using System::Types::CMsiHandle;
using System::Types::CWideBuffer;

// No answer at all (a silent installation) counts as consent, like OK, Retry,
// Ignore, Yes and Continue; everything else, errors included, is a refusal.
bool IsConsent(int answer)
{
    switch (answer)
    {
    case 0:
    case IDOK:
    case IDRETRY:
    case IDIGNORE:
    case IDYES:
    case IDCONTINUE:
        return true;
    default:
        return false;
    }
}

// A record whose template "[1]" shows field 1 as it is.
[[nodiscard]] bool FillMessageRecord(const CMsiHandle& record, const wchar_t* text)
{
    return record && ::MsiRecordSetStringW(record.Get(), 0, L"[1]") == ERROR_SUCCESS &&
           ::MsiRecordSetStringW(record.Get(), 1, text) == ERROR_SUCCESS;
}

int ShowUserMessage(MSIHANDLE hInstall, UINT type, const CMsiHandle& record)
{
    return ::MsiProcessMessage(hInstall, static_cast<INSTALLMESSAGE>(INSTALLMESSAGE_USER | type), record.Get());
}

// The refusal's entry is the "MESSAGE" argument's text; the immediate form shares
// this on purpose, and for it the argument is normally absent (an empty entry).
UINT AnswerResult(const Host::CWorkbench* pWorkbench, int answer)
{
    if (IsConsent(answer))
    {
        return ERROR_SUCCESS;
    }
    QC_LOG_ERROR(kLogSource) << pWorkbench->m_Arguments.GetArgument(Host::Argument::kMessage);
    return ERROR_INSTALL_USEREXIT;
}

} // namespace

UINT ShowMessageDeferredWorker(Host::CWorkbench* pWorkbench)
{
    const Host::CMsiArguments& arguments = pWorkbench->m_Arguments;
    // Without TYPE the conversion gets no text: 0, a plain OK box.
    const wchar_t* pszType = arguments.GetArgument(Host::Argument::kType);
    const UINT type = pszType != nullptr ? static_cast<UINT>(::_wtoi(pszType)) : 0;
    // A record that cannot be made or filled shows nothing and fails nothing.
    const CMsiHandle record(::MsiCreateRecord(2));
    if (!FillMessageRecord(record, arguments.GetArgument(Host::Argument::kMessage)))
    {
        return ERROR_SUCCESS;
    }
    return AnswerResult(pWorkbench, ShowUserMessage(pWorkbench->m_hInstall, type, record));
}

UINT ShowMessageImmediatelyWorker(Host::CWorkbench* pWorkbench)
{
    const MSIHANDLE hInstall = pWorkbench->m_hInstall;
    const CMsiHandle record(::MsiCreateRecord(2));

    CWideBuffer text;
    if (!QC_READ_PROPERTY_OR_LOG(hInstall, L"ShowMessageTextProperty", text, kLogSource))
    {
        return ERROR_INSTALL_FAILURE;
    }
    QC_LOG_DETAIL(kLogSource) << L"ShowMessageTextProperty = " << System::Types::Text(text);
    CWideBuffer typeText;
    if (!QC_READ_PROPERTY_OR_LOG(hInstall, L"ShowMessageTypeProperty", typeText, kLogSource))
    {
        return ERROR_INSTALL_FAILURE;
    }
    QC_LOG_DETAIL(kLogSource) << L"ShowMessageTypeProperty = " << System::Types::Text(typeText);
    const UINT type = static_cast<UINT>(::_wtoi(System::Types::Text(typeText)));

    // The caption and the quiet-mode switch are optional: an unreadable one is
    // logged and taken as empty.
    CWideBuffer caption;
    (void)QC_READ_PROPERTY_OR_LOG(hInstall, L"ShowMessageCaptionProperty", caption, kLogSource);
    QC_LOG_DETAIL(kLogSource) << L"ShowMessageCaptionProperty = " << System::Types::Text(caption);
    CWideBuffer quietModeText;
    const bool bQuietModeRead =
        QC_READ_PROPERTY_OR_LOG(hInstall, L"ShowMessageQuietModeProperty", quietModeText, kLogSource);
    const uint32_t dwShowInQuietMode =
        bQuietModeRead ? static_cast<uint32_t>(::_wtoi(System::Types::Text(quietModeText))) : 0;
    QC_LOG_DETAIL(kLogSource) << L"ShowMessageQuietModeProperty = " << System::Types::Text(quietModeText);
    QC_LOG_DETAIL(kLogSource) << L"dwShowInQuietMode = " << dwShowInQuietMode;

    if (!FillMessageRecord(record, System::Types::Text(text)))
    {
        (void)ShowUserMessage(hInstall, type, record);
        return ERROR_SUCCESS;
    }
    if (dwShowInQuietMode == 1)
    {
        // The installer shows nothing in a quiet installation; the package asks
        // for this box through the property, and its answer decides nothing.
        // With a full user interface the message thus appears twice, as intended.
        (void)::MessageBoxW(nullptr, System::Types::Text(text), System::Types::Text(caption), type | MB_SYSTEMMODAL);
    }
    return AnswerResult(pWorkbench, ShowUserMessage(hInstall, type, record));
}

} // namespace Quillcast::Actions
