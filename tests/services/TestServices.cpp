#include "services/TestServices.h"

#include <sstream>

#include "support/ShippedDll.h"

namespace QcTest {

namespace {

constexpr DWORD kSettleMs = 60000;

std::wstring ProgramFolder()
{
    const std::wstring dll = ShippedDllPath();
    return dll.substr(0, dll.find_last_of(L'\\') + 1);
}

std::wstring EventName(const std::wstring& service, const wchar_t* what)
{
    return L"Global\\QcTestService." + service + L"." + what;
}

// Ends and deletes a service left over by an earlier run of the same test.
void RemoveLeftover(SC_HANDLE hManager, const std::wstring& name)
{
    SC_HANDLE hService = ::OpenServiceW(hManager, name.c_str(), SERVICE_QUERY_STATUS | SERVICE_STOP | DELETE);
    if (hService == nullptr)
    {
        return;
    }
    HANDLE hExit = ::CreateEventW(nullptr, TRUE, FALSE, EventName(name, L"Exit").c_str());
    if (hExit != nullptr)
    {
        ::SetEvent(hExit);
    }
    SERVICE_STATUS status{};
    for (DWORD waited = 0; waited < kSettleMs && ::QueryServiceStatus(hService, &status) &&
                           status.dwCurrentState != SERVICE_STOPPED;
         waited += 20)
    {
        ::Sleep(20);
    }
    ::DeleteService(hService);
    ::CloseServiceHandle(hService);
    if (hExit != nullptr)
    {
        ::CloseHandle(hExit);
    }
}

} // namespace

const wchar_t* StateName(DWORD state)
{
    switch (state)
    {
    case SERVICE_STOPPED:
        return L"STOPPED";
    case SERVICE_START_PENDING:
        return L"START_PENDING";
    case SERVICE_STOP_PENDING:
        return L"STOP_PENDING";
    case SERVICE_RUNNING:
        return L"RUNNING";
    case SERVICE_PAUSED:
        return L"PAUSED";
    default:
        return L"(other)";
    }
}

CTestService::CTestService(const ServiceSpec& spec, const std::wstring& journalPath) : m_Name(spec.name)
{
    m_hManager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (m_hManager == nullptr)
    {
        m_Error = L"OpenSCManager failed with error " + std::to_wstring(::GetLastError());
        return;
    }
    RemoveLeftover(m_hManager, m_Name);
    m_hContinue = ::CreateEventW(nullptr, TRUE, FALSE, EventName(m_Name, L"Continue").c_str());
    m_hExit = ::CreateEventW(nullptr, TRUE, FALSE, EventName(m_Name, L"Exit").c_str());
    ::ResetEvent(m_hContinue);
    ::ResetEvent(m_hExit);

    const std::wstring program =
        ProgramFolder() + (spec.missingProgram ? L"QcNoSuchProgram.exe" : L"QcTestService.exe");
    std::wstring commandLine = L"\"" + program + L"\" " + m_Name;
    if (!spec.options.empty())
    {
        commandLine += L" " + spec.options;
    }
    if (!journalPath.empty())
    {
        commandLine += L" \"--journal=" + journalPath + L"\"";
    }
    std::wstring dependencies;
    for (const std::wstring& dependency : spec.dependsOn)
    {
        dependencies += dependency;
        dependencies += L'\0';
    }
    dependencies += L'\0';
    const std::wstring displayName = L"Quillcast test service " + m_Name;
    m_hService = ::CreateServiceW(m_hManager, m_Name.c_str(), displayName.c_str(), SERVICE_ALL_ACCESS,
                                  SERVICE_WIN32_OWN_PROCESS, spec.startType, SERVICE_ERROR_NORMAL, commandLine.c_str(),
                                  nullptr, nullptr, spec.dependsOn.empty() ? nullptr : dependencies.c_str(), nullptr,
                                  nullptr);
    if (m_hService == nullptr)
    {
        m_Error = L"CreateService " + m_Name + L" failed with error " + std::to_wstring(::GetLastError());
    }
}

CTestService::~CTestService()
{
    if (m_hService != nullptr)
    {
        // The exit event stops it whatever its state; a stop control sent while
        // its process exits would keep the manager waiting for an answer.
        Exit();
        if (!WaitForState(SERVICE_STOPPED, kSettleMs))
        {
            SERVICE_STATUS status{};
            ::ControlService(m_hService, SERVICE_CONTROL_STOP, &status);
            WaitForState(SERVICE_STOPPED, kSettleMs);
        }
        ::DeleteService(m_hService);
        ::CloseServiceHandle(m_hService);
    }
    if (m_hManager != nullptr)
    {
        ::CloseServiceHandle(m_hManager);
    }
    for (HANDLE hEvent : {m_hContinue, m_hExit})
    {
        if (hEvent != nullptr)
        {
            ::CloseHandle(hEvent);
        }
    }
}

DWORD CTestService::State() const
{
    SERVICE_STATUS status{};
    return ::QueryServiceStatus(m_hService, &status) ? status.dwCurrentState : 0;
}

bool CTestService::Start(bool wait)
{
    if (!::StartServiceW(m_hService, 0, nullptr))
    {
        return false;
    }
    return !wait || WaitForState(SERVICE_RUNNING, kSettleMs);
}

bool CTestService::RequestStop()
{
    SERVICE_STATUS status{};
    return ::ControlService(m_hService, SERVICE_CONTROL_STOP, &status) != FALSE;
}

bool CTestService::Pause()
{
    SERVICE_STATUS status{};
    return ::ControlService(m_hService, SERVICE_CONTROL_PAUSE, &status) && WaitForState(SERVICE_PAUSED, kSettleMs);
}

bool CTestService::WaitForState(DWORD state, DWORD timeoutMs) const
{
    const DWORD start = ::GetTickCount();
    for (;;)
    {
        if (State() == state)
        {
            return true;
        }
        if (::GetTickCount() - start > timeoutMs)
        {
            return false;
        }
        ::Sleep(20);
    }
}

void CTestService::Continue()
{
    ::SetEvent(m_hContinue);
}

void CTestService::Exit()
{
    ::SetEvent(m_hExit);
}

CTestServices::CTestServices()
{
    wchar_t folder[MAX_PATH + 1] = {};
    wchar_t file[MAX_PATH + 1] = {};
    if (::GetTempPathW(MAX_PATH, folder) != 0 && ::GetTempFileNameW(folder, L"qcj", 0, file) != 0)
    {
        m_JournalPath = file;
    }
}

CTestServices::~CTestServices()
{
    while (!m_Services.empty())
    {
        m_Services.pop_back();
    }
    if (!m_JournalPath.empty())
    {
        ::DeleteFileW(m_JournalPath.c_str());
    }
}

CTestService& CTestServices::Add(const ServiceSpec& spec)
{
    m_Services.push_back(std::make_unique<CTestService>(spec, m_JournalPath));
    return *m_Services.back();
}

void CTestServices::ContinueAll()
{
    for (const auto& service : m_Services)
    {
        service->Continue();
    }
}

std::vector<std::wstring> CTestServices::Journal() const
{
    std::vector<std::wstring> entries;
    HANDLE hFile = ::CreateFileW(m_JournalPath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE)
    {
        return entries;
    }
    std::string content;
    char chunk[4096];
    DWORD read = 0;
    while (::ReadFile(hFile, chunk, sizeof(chunk), &read, nullptr) && read != 0)
    {
        content.append(chunk, read);
    }
    ::CloseHandle(hFile);
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);)
    {
        entries.emplace_back(line.begin(), line.end());
    }
    return entries;
}

void CTestServices::ClearJournal()
{
    HANDLE hFile = ::CreateFileW(m_JournalPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 TRUNCATE_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE)
    {
        ::CloseHandle(hFile);
    }
}

} // namespace QcTest
