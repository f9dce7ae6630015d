#pragma once

#include <windows.h>
#include <msi.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/types/Handles.h"

// An in-process installer session for trying custom actions without building
// an installer: a scratch package (an MSI database with the usual properties,
// opened with MsiOpenPackageW) whose log records are captured raw, exactly as
// the action wrote them, and whose user messages are answered from a script.
namespace QcRunner {

using CustomActionFunction = UINT(__stdcall*)(MSIHANDLE);

// The custom-action DLL, loaded for the host's lifetime.
class CActionLibrary
{
public:
    explicit CActionLibrary(const std::wstring& path);
    CActionLibrary(const CActionLibrary&) = delete;
    CActionLibrary& operator=(const CActionLibrary&) = delete;
    ~CActionLibrary();

    bool IsLoaded() const { return static_cast<bool>(m_hModule); }
    HMODULE Module() const { return m_hModule.Get(); }
    // The export of that name, or null.
    CustomActionFunction Find(const std::string& exportName) const;
    const std::wstring& Path() const { return m_Path; }
    // The names the DLL exports, in its export table's (alphabetical) order.
    std::vector<std::string> ExportNames() const;

private:
    std::wstring m_Path;
    Quillcast::System::Types::CModule m_hModule;
};

// One record as the host handled it, handed to the observer the moment it arrives.
struct HandledRecord
{
    bool bLog = false;            // an INSTALLMESSAGE_INFO record, `text` its raw field 1
    std::wstring text;            // as appended to LogLines() or Messages()
    int answer = 0;               // a message: the answer the installer got
    bool bScriptedAnswer = false; // a message: the answer was queued, not the fallback
};
using RecordObserver = std::function<void(const HandledRecord&)>;

class CActionHost
{
public:
    // Creates and opens the scratch package; see IsOpen() and Error().
    CActionHost();
    CActionHost(const CActionHost&) = delete;
    CActionHost& operator=(const CActionHost&) = delete;
    // Closes the session and deletes the scratch package.
    ~CActionHost();

    bool IsOpen() const { return static_cast<bool>(m_hSession); }
    const std::wstring& Error() const { return m_Error; }
    const std::wstring& PackagePath() const { return m_PackagePath; }
    MSIHANDLE Session() const { return m_hSession.Get(); }

    bool SetProperty(const std::wstring& name, const std::wstring& value);
    std::wstring GetProperty(const std::wstring& name) const;
    bool SetCustomActionData(const std::wstring& data) { return SetProperty(L"CustomActionData", data); }

    // Answers for user messages (message boxes), used in order; when they run
    // out every further message is answered with `fallback` (IDOK by default).
    void QueueAnswer(int answer) { m_Answers.push_back(answer); }
    void SetFallbackAnswer(int answer) { m_FallbackAnswer = answer; }
    int FallbackAnswer() const { return m_FallbackAnswer; }

    // Called for every record after it is captured, on the thread of the action
    // that sent it, before the installer call returns: output in the order of events.
    void SetObserver(RecordObserver observer) { m_Observer = std::move(observer); }

    // Calls `action` with this session on the calling thread. Log records that
    // the session receives during the call are appended to LogLines() as the
    // raw text of their field 1; other messages go to Messages().
    UINT Call(CustomActionFunction action);
    // Call() with another session handle (0, or one that is not a session) while
    // still capturing into this host: whatever reaches the handler is recorded.
    UINT CallWithHandle(CustomActionFunction action, MSIHANDLE hInstall);

    const std::vector<std::wstring>& LogLines() const { return m_LogLines; }
    // Non-log messages as "<type hex>: <field texts joined by |>".
    const std::vector<std::wstring>& Messages() const { return m_Messages; }
    void ClearCaptured();

private:
    friend int __stdcall HostRecordHandler(void* pContext, UINT messageType, MSIHANDLE hRecord);
    int OnRecord(UINT messageType, MSIHANDLE hRecord);

    std::wstring m_PackagePath;
    std::wstring m_Error;
    Quillcast::System::Types::CMsiHandle m_hSession;
    std::vector<std::wstring> m_LogLines;
    std::vector<std::wstring> m_Messages;
    std::vector<int> m_Answers;
    size_t m_NextAnswer = 0;
    int m_FallbackAnswer = IDOK;
    RecordObserver m_Observer;
};

// The line without its date and process/thread prefixes (or unchanged when it
// has none): "[ERROR] Workbench (120) Argument[CMDLINE] is invalid."
std::wstring WithoutPrefixes(const std::wstring& line);
// WithoutPrefixes with the source line number masked as "#": line numbers move
// with every edit, the rest of the text is fixed.
std::wstring Body(const std::wstring& line);

} // namespace QcRunner
