#include "ActionHost.h"

#include <msiquery.h>
#include <objbase.h>

#include <cwchar>
#include <mutex>

#include "host/types/TwoCallString.h"

namespace QcRunner {

namespace {

// MsiSetExternalUIRecord is process-wide; records are routed to the host that
// is calling an action on the current thread (the installer calls the handler
// synchronously, on the thread that sent the message).
thread_local CActionHost* t_pActiveHost = nullptr;
std::once_flag g_HandlerInstalled;

using CMsiHandleOwner = Quillcast::System::Types::CMsiHandle;

// The installer's two-call string read, as a std::wstring ("" on failure).
template <typename TQuery>
std::wstring ReadString(TQuery&& query)
{
    Quillcast::System::Types::CBuffer<wchar_t> text;
    if (Quillcast::System::Types::ReadTwoCallString(query, text).failedStep !=
        Quillcast::System::Types::TwoCallStep::None)
    {
        return std::wstring();
    }
    return std::wstring(text.Data());
}

std::wstring RecordString(MSIHANDLE hRecord, UINT field)
{
    return ReadString(
        [hRecord, field](wchar_t* pszText, DWORD* pcch) { return MsiRecordGetStringW(hRecord, field, pszText, pcch); });
}

std::wstring NewGuid()
{
    GUID guid{};
    CoCreateGuid(&guid);
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

std::wstring Describe(const wchar_t* step, UINT result)
{
    return std::wstring(step) + L" failed with error " + std::to_wstring(result);
}

// The scratch package: a Property table with the properties every package has,
// and the summary information that MsiOpenPackage requires.
std::wstring CreatePackage(const std::wstring& path)
{
    CMsiHandleOwner database;
    UINT result = MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_CREATE, database.Put());
    if (result != ERROR_SUCCESS)
    {
        return Describe(L"MsiOpenDatabase", result);
    }
    {
        CMsiHandleOwner view;
        result = MsiDatabaseOpenViewW(database.Get(),
                                      L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, "
                                      L"`Value` LONGCHAR NOT NULL LOCALIZABLE PRIMARY KEY `Property`)",
                                      view.Put());
        if (result == ERROR_SUCCESS)
        {
            result = MsiViewExecute(view.Get(), 0);
        }
        if (result != ERROR_SUCCESS)
        {
            return Describe(L"CREATE TABLE Property", result);
        }
    }
    const std::wstring properties[][2] = {
        {L"ProductCode", NewGuid()},   {L"ProductLanguage", L"1033"},   {L"ProductName", L"Quillcast Action Runner"},
        {L"ProductVersion", L"1.0.0"}, {L"Manufacturer", L"Quillcast"},
    };
    for (const auto& property : properties)
    {
        CMsiHandleOwner view;
        CMsiHandleOwner record(MsiCreateRecord(2));
        MsiRecordSetStringW(record.Get(), 1, property[0].c_str());
        MsiRecordSetStringW(record.Get(), 2, property[1].c_str());
        result = MsiDatabaseOpenViewW(database.Get(), L"INSERT INTO `Property` (`Property`, `Value`) VALUES (?, ?)",
                                      view.Put());
        if (result == ERROR_SUCCESS)
        {
            result = MsiViewExecute(view.Get(), record.Get());
        }
        if (result != ERROR_SUCCESS)
        {
            return Describe(L"INSERT INTO Property", result);
        }
    }
    {
        CMsiHandleOwner summary;
        result = MsiGetSummaryInformationW(database.Get(), nullptr, 20, summary.Put());
        if (result != ERROR_SUCCESS)
        {
            return Describe(L"MsiGetSummaryInformation", result);
        }
        const std::wstring revision = NewGuid();
        MsiSummaryInfoSetPropertyW(summary.Get(), 7 /* template */, VT_LPSTR, 0, nullptr, L"x64;1033");
        MsiSummaryInfoSetPropertyW(summary.Get(), 9 /* revision */, VT_LPSTR, 0, nullptr, revision.c_str());
        MsiSummaryInfoSetPropertyW(summary.Get(), 14 /* page count */, VT_I4, 200, nullptr, nullptr);
        MsiSummaryInfoSetPropertyW(summary.Get(), 15 /* word count */, VT_I4, 2, nullptr, nullptr);
        result = MsiSummaryInfoPersist(summary.Get());
        if (result != ERROR_SUCCESS)
        {
            return Describe(L"MsiSummaryInfoPersist", result);
        }
    }
    result = MsiDatabaseCommit(database.Get());
    return result == ERROR_SUCCESS ? std::wstring() : Describe(L"MsiDatabaseCommit", result);
}

bool IsDigits(const std::wstring& text, size_t from, size_t count)
{
    if (from + count > text.size())
    {
        return false;
    }
    for (size_t i = from; i < from + count; ++i)
    {
        if (text[i] < L'0' || text[i] > L'9')
        {
            return false;
        }
    }
    return true;
}

} // namespace

int __stdcall HostRecordHandler(void* /*pContext*/, UINT messageType, MSIHANDLE hRecord)
{
    CActionHost* pHost = t_pActiveHost;
    return pHost == nullptr ? 0 : pHost->OnRecord(messageType, hRecord);
}

CActionLibrary::CActionLibrary(const std::wstring& path) : m_Path(path), m_hModule(LoadLibraryW(path.c_str())) {}

CActionLibrary::~CActionLibrary() = default;

CustomActionFunction CActionLibrary::Find(const std::string& exportName) const
{
    if (!m_hModule)
    {
        return nullptr;
    }
    return reinterpret_cast<CustomActionFunction>(
        reinterpret_cast<void*>(GetProcAddress(m_hModule.Get(), exportName.c_str())));
}

std::vector<std::string> CActionLibrary::ExportNames() const
{
    // The loaded image's export directory: names are RVAs from the image base.
    std::vector<std::string> names;
    const auto* pBase = reinterpret_cast<const BYTE*>(m_hModule.Get());
    if (pBase == nullptr)
    {
        return names;
    }
    const auto* pDos = reinterpret_cast<const IMAGE_DOS_HEADER*>(pBase);
    const auto* pNt = reinterpret_cast<const IMAGE_NT_HEADERS*>(pBase + pDos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory = pNt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (directory.VirtualAddress == 0 || directory.Size == 0)
    {
        return names;
    }
    const auto* pExports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(pBase + directory.VirtualAddress);
    const auto* pNames = reinterpret_cast<const DWORD*>(pBase + pExports->AddressOfNames);
    for (DWORD index = 0; index < pExports->NumberOfNames; ++index)
    {
        names.emplace_back(reinterpret_cast<const char*>(pBase + pNames[index]));
    }
    return names;
}

CActionHost::CActionHost()
{
    std::call_once(g_HandlerInstalled, [] {
        MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
        MsiSetExternalUIRecord(HostRecordHandler,
                               INSTALLLOGMODE_INFO | INSTALLLOGMODE_USER | INSTALLLOGMODE_WARNING |
                                   INSTALLLOGMODE_ERROR | INSTALLLOGMODE_FATALEXIT,
                               nullptr, nullptr);
    });

    wchar_t folder[MAX_PATH + 1] = {};
    wchar_t file[MAX_PATH + 1] = {};
    if (GetTempPathW(MAX_PATH, folder) == 0 || GetTempFileNameW(folder, L"qca", 0, file) == 0)
    {
        m_Error = L"no temporary file for the scratch package";
        return;
    }
    m_PackagePath = file;
    DeleteFileW(m_PackagePath.c_str());
    m_Error = CreatePackage(m_PackagePath);
    if (!m_Error.empty())
    {
        return;
    }
    const UINT result = MsiOpenPackageW(m_PackagePath.c_str(), m_hSession.Put());
    if (result != ERROR_SUCCESS)
    {
        m_hSession.Reset();
        m_Error = Describe(L"MsiOpenPackage", result);
    }
}

CActionHost::~CActionHost()
{
    // The session holds the package file open: closed first so that it can be deleted.
    m_hSession.Reset();
    if (!m_PackagePath.empty())
    {
        DeleteFileW(m_PackagePath.c_str());
    }
}

bool CActionHost::SetProperty(const std::wstring& name, const std::wstring& value)
{
    return MsiSetPropertyW(m_hSession.Get(), name.c_str(), value.c_str()) == ERROR_SUCCESS;
}

std::wstring CActionHost::GetProperty(const std::wstring& name) const
{
    const MSIHANDLE hSession = m_hSession.Get();
    return ReadString([hSession, &name](wchar_t* pszValue, DWORD* pcch) {
        return MsiGetPropertyW(hSession, name.c_str(), pszValue, pcch);
    });
}

UINT CActionHost::Call(CustomActionFunction action)
{
    return CallWithHandle(action, m_hSession.Get());
}

UINT CActionHost::CallWithHandle(CustomActionFunction action, MSIHANDLE hInstall)
{
    CActionHost* pPrevious = t_pActiveHost;
    t_pActiveHost = this;
    const UINT result = action(hInstall);
    t_pActiveHost = pPrevious;
    return result;
}

void CActionHost::ClearCaptured()
{
    m_LogLines.clear();
    m_Messages.clear();
}

int CActionHost::OnRecord(UINT messageType, MSIHANDLE hRecord)
{
    HandledRecord handled;
    const UINT kind = messageType & 0xFF000000u;
    if (kind == INSTALLMESSAGE_INFO)
    {
        m_LogLines.push_back(RecordString(hRecord, 1));
        if (m_Observer)
        {
            handled.bLog = true;
            handled.text = m_LogLines.back();
            m_Observer(handled);
        }
        return 0;
    }
    handled.bScriptedAnswer = m_NextAnswer < m_Answers.size();
    const int answer = handled.bScriptedAnswer ? m_Answers[m_NextAnswer++] : m_FallbackAnswer;
    wchar_t head[32] = {};
    _snwprintf(head, 31, L"0x%08X:", messageType);
    std::wstring text = head;
    const UINT fields = MsiRecordGetFieldCount(hRecord);
    for (UINT field = 0; field <= fields; ++field)
    {
        text += (field == 0 ? L" " : L"|") + RecordString(hRecord, field);
    }
    m_Messages.push_back(text + L" -> " + std::to_wstring(answer));
    if (m_Observer)
    {
        handled.text = m_Messages.back();
        handled.answer = answer;
        m_Observer(handled);
    }
    return answer;
}

std::wstring WithoutPrefixes(const std::wstring& line)
{
    // "dd.mm.yyyy hh:mm:ss "
    size_t start = 0;
    if (IsDigits(line, 0, 2) && line[2] == L'.' && IsDigits(line, 3, 2) && line[5] == L'.' && IsDigits(line, 6, 4) &&
        line[10] == L' ' && IsDigits(line, 11, 2) && line[13] == L':' && IsDigits(line, 14, 2) && line[16] == L':' &&
        IsDigits(line, 17, 2) && line[19] == L' ')
    {
        start = 20;
    }
    // "PID(0x..) TID(0x..) "
    if (line.compare(start, 6, L"PID(0x") == 0)
    {
        const size_t tid = line.find(L") TID(0x", start);
        const size_t end = tid == std::wstring::npos ? tid : line.find(L") ", tid + 8);
        if (end != std::wstring::npos)
        {
            start = end + 2;
        }
    }
    return line.substr(start);
}

std::wstring Body(const std::wstring& line)
{
    std::wstring text = WithoutPrefixes(line);
    const size_t open = text.find(L" (");
    if (open == std::wstring::npos)
    {
        return text;
    }
    size_t digitsEnd = open + 2;
    while (digitsEnd < text.size() && text[digitsEnd] >= L'0' && text[digitsEnd] <= L'9')
    {
        ++digitsEnd;
    }
    if (digitsEnd == open + 2 || text.compare(digitsEnd, 2, L") ") != 0)
    {
        return text;
    }
    return text.substr(0, open + 2) + L"#" + text.substr(digitsEnd);
}

} // namespace QcRunner
