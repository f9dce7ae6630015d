#include "process/ProcessActionFixture.h"

#include <tlhelp32.h>

#include <algorithm>
#include <cwctype>
#include <cstdio>
#include <sstream>

#include "support/ImportPatch.h"
#include "support/ShippedDll.h"

namespace QcTest {

namespace {

constexpr DWORD kPatienceMs = 10000;

DWORD WINAPI RecordingWait(HANDLE hObject, DWORD dwMilliseconds)
{
    ActionHooks::waits.push_back(dwMilliseconds);
    if (dwMilliseconds == INFINITE && ActionHooks::hRelease != nullptr)
    {
        ::SetEvent(ActionHooks::hRelease);
    }
    if (dwMilliseconds == 0 && ActionHooks::hBeforeFirstCheck != nullptr)
    {
        ::WaitForSingleObject(ActionHooks::hBeforeFirstCheck, kPatienceMs);
    }
    if (ActionHooks::bShortenWaits && dwMilliseconds != INFINITE)
    {
        dwMilliseconds = 0;
    }
    return ::WaitForSingleObject(hObject, dwMilliseconds);
}

HANDLE WINAPI RecordingOpenProcess(DWORD dwAccess, BOOL bInherit, DWORD dwProcessId)
{
    ActionHooks::openedProcessIds.push_back(dwProcessId);
    if (ActionHooks::bFailOpenProcess)
    {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return ::OpenProcess(dwAccess, bInherit, dwProcessId);
}

BOOL WINAPI OrderedGetExitCodeProcess(HANDLE hProcess, LPDWORD pdwExitCode)
{
    if (ActionHooks::bEndBeforeExitCodeRead)
    {
        ::WaitForSingleObject(hProcess, kPatienceMs);
    }
    return ::GetExitCodeProcess(hProcess, pdwExitCode);
}

BOOL WINAPI WindowsTerminateProcess(HANDLE hProcess, UINT uExitCode)
{
    if (::WaitForSingleObject(hProcess, 0) == WAIT_OBJECT_0)
    {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    return ::TerminateProcess(hProcess, uExitCode);
}

LSTATUS WINAPI RecordingRegOpenKeyExW(HKEY hKey, LPCWSTR pszSubKey, DWORD dwOptions, REGSAM access, PHKEY phResult)
{
    ActionHooks::keyAccess.push_back(access);
    return ::RegOpenKeyExW(hKey, pszSubKey, dwOptions, access, phResult);
}

CImportPatch* g_pPatches[5] = {};

} // namespace

void ActionHooks::Reset()
{
    waits.clear();
    openedProcessIds.clear();
    keyAccess.clear();
    hBeforeFirstCheck = nullptr;
    bShortenWaits = true;
    bFailOpenProcess = false;
    bEndBeforeExitCodeRead = false;
}

QcRunner::CActionLibrary* ProcessActionTest::s_pLibrary = nullptr;

void ProcessActionTest::SetUpTestSuite()
{
    if (s_pLibrary != nullptr)
    {
        return;
    }
    s_pLibrary = new QcRunner::CActionLibrary(ShippedDllPath());
    const HMODULE hModule = s_pLibrary->Module();
    g_pPatches[0] = new CImportPatch(hModule, "KERNEL32.dll", "WaitForSingleObject",
                                     reinterpret_cast<const void*>(&RecordingWait));
    g_pPatches[1] = new CImportPatch(hModule, "KERNEL32.dll", "OpenProcess",
                                     reinterpret_cast<const void*>(&RecordingOpenProcess));
    g_pPatches[2] = new CImportPatch(hModule, "KERNEL32.dll", "GetExitCodeProcess",
                                     reinterpret_cast<const void*>(&OrderedGetExitCodeProcess));
    g_pPatches[3] = new CImportPatch(hModule, "KERNEL32.dll", "TerminateProcess",
                                     reinterpret_cast<const void*>(&WindowsTerminateProcess));
    g_pPatches[4] = new CImportPatch(hModule, "ADVAPI32.dll", "RegOpenKeyExW",
                                     reinterpret_cast<const void*>(&RecordingRegOpenKeyExW));
    ActionHooks::hRelease = ::CreateEventW(nullptr, FALSE, FALSE, L"QcTestProgramRelease");
}

void ProcessActionTest::TearDownTestSuite()
{
    for (CImportPatch*& pPatch : g_pPatches)
    {
        delete pPatch;
        pPatch = nullptr;
    }
    delete s_pLibrary;
    s_pLibrary = nullptr;
    ::CloseHandle(ActionHooks::hRelease);
    ActionHooks::hRelease = nullptr;
}

void ProcessActionTest::SetUp()
{
    ActionHooks::Reset();
    ::ResetEvent(ActionHooks::hRelease);
    ASSERT_TRUE(s_pLibrary->IsLoaded()) << "cannot load the DLL";
    for (const CImportPatch* pPatch : g_pPatches)
    {
        ASSERT_TRUE(pPatch->IsApplied()) << "the DLL lacks an import the tests redirect";
    }

    std::wstring name;
    const ::testing::TestInfo* pInfo = ::testing::UnitTest::GetInstance()->current_test_info();
    for (const char* p = pInfo->name(); *p != '\0'; ++p)
    {
        name += std::iswalnum(static_cast<wint_t>(*p)) ? static_cast<wchar_t>(*p) : L'_';
    }
    wchar_t temp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring root = std::wstring(temp) + L"QcProcessTests";
    ::CreateDirectoryW(root.c_str(), nullptr);
    m_Folder = root + L"\\" + name.substr(name.find_last_of(L'_') + 1);
    ::CreateDirectoryW(m_Folder.c_str(), nullptr);
    WIN32_FIND_DATAW found{};
    const HANDLE hFind = ::FindFirstFileW((m_Folder + L"\\*").c_str(), &found);
    if (hFind != INVALID_HANDLE_VALUE)
    {
        do
        {
            ::DeleteFileW((m_Folder + L"\\" + found.cFileName).c_str());
        } while (::FindNextFileW(hFind, &found));
        ::FindClose(hFind);
    }
}

void ProcessActionTest::TearDown()
{
    ActionHooks::Reset();
    for (const Quillcast::System::Types::CKernelHandle& hProcess : m_Launched)
    {
        ::TerminateProcess(hProcess.Get(), 99);
    }
    const HANDLE hSnapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL bMore = ::Process32FirstW(hSnapshot, &entry); bMore; bMore = ::Process32NextW(hSnapshot, &entry))
    {
        if (std::find(m_CopyNames.begin(), m_CopyNames.end(), entry.szExeFile) == m_CopyNames.end())
        {
            continue;
        }
        // A program the shell started ends by itself, maybe only just now.
        const Quillcast::System::Types::CKernelHandle hProcess(
            ::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, entry.th32ProcessID));
        if (::WaitForSingleObject(hProcess.Get(), kPatienceMs) != WAIT_OBJECT_0)
        {
            ADD_FAILURE() << "a program of the case was still running: "
                          << ::testing::PrintToString(std::wstring(entry.szExeFile));
            ::TerminateProcess(hProcess.Get(), 99);
            ::WaitForSingleObject(hProcess.Get(), kPatienceMs);
        }
    }
    ::CloseHandle(hSnapshot);
    for (const Quillcast::System::Types::CKernelHandle& hProcess : m_Launched)
    {
        ::WaitForSingleObject(hProcess.Get(), kPatienceMs);
    }
    m_Launched.clear();
}

std::wstring ProcessActionTest::CopyProgram(const std::wstring& fileName)
{
    const std::wstring path = m_Folder + L"\\" + fileName;
    EXPECT_TRUE(::CopyFileW((BinFolder() + L"QcTestProgram.exe").c_str(), path.c_str(), FALSE))
        << "cannot copy the test program, error " << ::GetLastError();
    m_CopyNames.push_back(fileName);
    return path;
}

HANDLE ProcessActionTest::Launch(const std::wstring& path, const std::wstring& arguments)
{
    const std::wstring readyName = L"QcProcessTestReady" + std::to_wstring(::GetTickCount()) + L"_" +
                                   std::to_wstring(m_Launched.size());
    const Quillcast::System::Types::CKernelHandle hReady(::CreateEventW(nullptr, TRUE, FALSE, readyName.c_str()));
    std::wstring commandLine = L"\"" + path + L"\" --ready-event=" + readyName + L" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info))
    {
        ADD_FAILURE() << "cannot start the test program, error " << ::GetLastError();
        return nullptr;
    }
    ::CloseHandle(info.hThread);
    m_Launched.emplace_back(info.hProcess);
    m_LaunchedIds.push_back(info.dwProcessId);
    EXPECT_EQ(::WaitForSingleObject(hReady.Get(), kPatienceMs), WAIT_OBJECT_0) << "the test program is not ready";
    return info.hProcess;
}

DWORD ProcessActionTest::ExitCodeAfterEnd(HANDLE hProcess)
{
    ::WaitForSingleObject(hProcess, kPatienceMs);
    DWORD dwExitCode = 0xFFFFFFFF;
    ::GetExitCodeProcess(hProcess, &dwExitCode);
    return dwExitCode;
}

Lines ProcessActionTest::Records(const std::wstring& path)
{
    std::string utf8;
    if (FILE* file = ::_wfopen((path + L".record").c_str(), L"rb"))
    {
        char chunk[512];
        for (size_t read = 0; (read = std::fread(chunk, 1, sizeof(chunk), file)) > 0;)
        {
            utf8.append(chunk, read);
        }
        std::fclose(file);
    }
    std::wstring wide(utf8.size(), L'\0');
    wide.resize(static_cast<size_t>(::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()),
                                                          &wide[0], static_cast<int>(wide.size()))));
    Lines lines;
    std::wstringstream stream(wide);
    for (std::wstring line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

UINT ProcessActionTest::Run(const char* exportName, const wchar_t* data,
                            const std::vector<std::pair<std::wstring, std::wstring>>& properties, Lines& lines)
{
    lines.clear();
    const QcRunner::CustomActionFunction action = s_pLibrary->Find(exportName);
    QcRunner::CActionHost host;
    if (action == nullptr || !host.IsOpen())
    {
        ADD_FAILURE() << "no export " << exportName << " or no session";
        return 0xFFFFFFFF;
    }
    if (data != nullptr)
    {
        EXPECT_TRUE(host.SetCustomActionData(Expand(data)));
    }
    for (const auto& property : properties)
    {
        EXPECT_TRUE(host.SetProperty(property.first, Expand(property.second)));
    }
    const UINT result = host.Call(action);
    for (const std::wstring& line : host.LogLines())
    {
        const std::wstring body = QcRunner::Body(line);
        if (body.find(L"Workbench (") == std::wstring::npos)
        {
            lines.push_back(body);
        }
    }
    return result;
}

std::wstring ProcessActionTest::Expand(std::wstring text) const
{
    for (size_t at = text.find(L"{dir}"); at != std::wstring::npos; at = text.find(L"{dir}", at))
    {
        text.replace(at, 5, m_Folder);
        at += m_Folder.size();
    }
    for (size_t i = 0; i < m_LaunchedIds.size(); ++i)
    {
        const std::wstring key = L"{pid" + std::to_wstring(i) + L"}";
        for (size_t at = text.find(key); at != std::wstring::npos; at = text.find(key, at))
        {
            text.replace(at, key.size(), std::to_wstring(m_LaunchedIds[i]));
        }
    }
    return text;
}

Lines ProcessActionTest::Expand(Lines lines) const
{
    for (std::wstring& line : lines)
    {
        line = Expand(line);
    }
    return lines;
}

} // namespace QcTest
