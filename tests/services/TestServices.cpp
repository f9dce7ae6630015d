#include "services/TestServices.h"

#include <cstdio>
#include <cstring>

#include "services/DependentsSeam.h"
#include "support/ShippedDll.h"

namespace QcTest {

namespace {

CKernelHandle Event(const std::wstring& service, const wchar_t* what)
{
    // Manual-reset, shared by name with the service (QcTestService.cpp).
    const std::wstring name = L"Global\\QcTestService." + service + L"." + what;
    return CKernelHandle(::CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
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

CTestService::CTestService(const ServiceDefinition& definition, const std::wstring& journalPath)
        : m_Name(definition.name), m_hManager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)),
          m_hContinue(Event(m_Name, L"Continue")), m_hExit(Event(m_Name, L"Exit"))
{
    ::ResetEvent(m_hContinue.Get());
    ::ResetEvent(m_hExit.Get());
    std::wstring commandLine = L"\"" + BinFolder() + L"QcTestService.exe\" " + m_Name + L" " + definition.options +
                               L" \"--journal=" + journalPath + L"\"";
    std::wstring dependencies;
    for (const std::wstring& dependency : definition.dependsOn)
    {
        dependencies += dependency + L'\0';
    }
    dependencies += L'\0';
    m_hService.Reset(::CreateServiceW(m_hManager.Get(), m_Name.c_str(), m_Name.c_str(), SERVICE_ALL_ACCESS,
                                      SERVICE_WIN32_OWN_PROCESS, definition.startType, SERVICE_ERROR_NORMAL,
                                      commandLine.c_str(), nullptr, nullptr,
                                      definition.dependsOn.empty() ? nullptr : dependencies.c_str(), nullptr, nullptr));
    if (m_hService)
    {
        CDependentsSeam::Define(m_Name, definition.dependsOn);
    }
    else
    {
        m_Error = L"CreateService " + m_Name + L" failed with error " + std::to_wstring(::GetLastError());
    }
}

CTestService::~CTestService()
{
    if (m_hService)
    {
        // The exit event ends it in any state; a stop control sent while its
        // process exits would keep the manager waiting for an answer.
        ::SetEvent(m_hExit.Get());
        WaitForState(SERVICE_STOPPED);
        ::DeleteService(m_hService.Get());
        CDependentsSeam::Forget(m_Name);
    }
}

DWORD CTestService::State() const
{
    SERVICE_STATUS status{};
    return ::QueryServiceStatus(m_hService.Get(), &status) ? status.dwCurrentState : 0;
}

bool CTestService::Start(bool wait)
{
    return ::StartServiceW(m_hService.Get(), 0, nullptr) && (!wait || WaitForState(SERVICE_RUNNING));
}

bool CTestService::RequestStop()
{
    SERVICE_STATUS status{};
    return ::ControlService(m_hService.Get(), SERVICE_CONTROL_STOP, &status) != FALSE;
}

bool CTestService::Pause()
{
    SERVICE_STATUS status{};
    return ::ControlService(m_hService.Get(), SERVICE_CONTROL_PAUSE, &status) && WaitForState(SERVICE_PAUSED);
}

bool CTestService::WaitForState(DWORD state, DWORD timeoutMs) const
{
    const DWORD start = ::GetTickCount();
    while (State() != state)
    {
        if (::GetTickCount() - start > timeoutMs)
        {
            return false;
        }
        ::Sleep(20);
    }
    return true;
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
    ::DeleteFileW(m_JournalPath.c_str());
}

CTestService& CTestServices::Add(const ServiceDefinition& definition)
{
    m_Services.push_back(std::make_unique<CTestService>(definition, m_JournalPath));
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
    if (FILE* file = ::_wfopen(m_JournalPath.c_str(), L"r"))
    {
        for (char line[512]; std::fgets(line, sizeof(line), file) != nullptr;)
        {
            const std::string entry(line, std::strcspn(line, "\r\n"));
            entries.emplace_back(entry.begin(), entry.end());
        }
        std::fclose(file);
    }
    return entries;
}

void CTestServices::ClearJournal()
{
    if (FILE* file = ::_wfopen(m_JournalPath.c_str(), L"w"))
    {
        std::fclose(file);
    }
}

} // namespace QcTest
