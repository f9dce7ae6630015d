#include "utility/UtilityTest.h"

#include <msi.h>

#include <chrono>
#include <cstdlib>

#include "support/ShippedDll.h"

namespace QcTest {

namespace {

std::wstring WithMarker(std::wstring text)
{
    const size_t at = text.find(L"{LastError}");
    return at == std::wstring::npos ? text : text.replace(at, 11, std::to_wstring(kLastErrorMarker));
}

bool IsFrameLine(const std::wstring& body)
{
    return body.rfind(L"Workbench (#) ", 0) == 0;
}

template <typename TFunction>
TFunction SystemFunction(const wchar_t* dll, const char* name)
{
    return reinterpret_cast<TFunction>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(dll), name)));
}

using OpenKeyFunction = LSTATUS(WINAPI*)(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY);
OpenKeyFunction g_OriginalOpenKey = nullptr;
CImportPatch* g_pOpenKeyPatch = nullptr;

LSTATUS WINAPI OpenKeyAfterMarker(HKEY hKey, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY phResult)
{
    SetLastError(kLastErrorMarker);
    return g_OriginalOpenKey(hKey, subKey, options, access, phResult);
}

using GetPropertyFunction = UINT(WINAPI*)(MSIHANDLE, LPCWSTR, LPWSTR, LPDWORD);
GetPropertyFunction g_OriginalGetProperty = nullptr;
std::wstring g_FailingName;
bool g_bFailingSizeQuery = true;

UINT WINAPI FailingGetProperty(MSIHANDLE hInstall, LPCWSTR name, LPWSTR value, LPDWORD pcch)
{
    const bool bSizeQuery = pcch != nullptr && *pcch == 0;
    if (name != nullptr && g_FailingName == name && bSizeQuery == g_bFailingSizeQuery)
    {
        SetLastError(kLastErrorMarker);
        return ERROR_INVALID_HANDLE;
    }
    return g_OriginalGetProperty(hInstall, name, value, pcch);
}

LSTATUS WINAPI RefusedSetValue(HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD)
{
    return ERROR_ACCESS_DENIED;
}

} // namespace

std::wstring Error(const std::wstring& text)
{
    return WithMarker(L"[ERROR] Various (#) " + text + L".");
}

std::wstring Warning(const std::wstring& text)
{
    return WithMarker(L"[WARNING] Various (#) " + text + L".");
}

std::wstring Detail(const std::wstring& text)
{
    return L"Various (#) " + text + L".";
}

// ---------------------------------------------------------------- the fixture

QcRunner::CActionLibrary* UtilityTest::s_pLibrary = nullptr;

void UtilityTest::SetUpTestSuite()
{
    s_pLibrary = new QcRunner::CActionLibrary(ShippedDllPath());
    g_OriginalOpenKey = SystemFunction<OpenKeyFunction>(L"advapi32.dll", "RegOpenKeyExW");
    g_pOpenKeyPatch = new CImportPatch(s_pLibrary->Module(), "advapi32.dll", "RegOpenKeyExW",
                                       reinterpret_cast<const void*>(OpenKeyAfterMarker));
}

void UtilityTest::TearDownTestSuite()
{
    delete g_pOpenKeyPatch;
    g_pOpenKeyPatch = nullptr;
    delete s_pLibrary;
    s_pLibrary = nullptr;
}

void UtilityTest::SetUp()
{
    ASSERT_TRUE(s_pLibrary->IsLoaded()) << "cannot load the DLL";
    ASSERT_TRUE(g_pOpenKeyPatch->IsApplied());
    m_Host = std::make_unique<QcRunner::CActionHost>();
    ASSERT_TRUE(m_Host->IsOpen());
}

UINT UtilityTest::Run(const char* exportName, const Properties& properties)
{
    const QcRunner::CustomActionFunction action = s_pLibrary->Find(exportName);
    EXPECT_NE(action, nullptr) << exportName;
    for (const auto& property : properties)
    {
        m_Host->SetProperty(property.first, property.second);
    }
    return action == nullptr ? ERROR_CALL_NOT_IMPLEMENTED : m_Host->Call(action);
}

Lines UtilityTest::ActionLines() const
{
    Lines lines;
    for (const std::wstring& line : m_Host->LogLines())
    {
        if (!IsFrameLine(QcRunner::Body(line)))
        {
            lines.push_back(QcRunner::Body(line));
        }
    }
    return lines;
}

// ---------------------------------------------------------------- registry

bool CreateKey(REGSAM view, const std::wstring& key)
{
    HKEY hKey = nullptr;
    const LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view,
                                           nullptr, &hKey, nullptr);
    RegCloseKey(hKey);
    return status == ERROR_SUCCESS;
}

bool SetValue(REGSAM view, const std::wstring& key, const std::wstring& name, DWORD type, const void* data,
              DWORD cbData)
{
    HKEY hKey = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, &hKey,
                        nullptr) != ERROR_SUCCESS)
    {
        return false;
    }
    const LSTATUS status = RegSetValueExW(hKey, name.c_str(), 0, type, static_cast<const BYTE*>(data), cbData);
    RegCloseKey(hKey);
    return status == ERROR_SUCCESS;
}

bool SetString(REGSAM view, const std::wstring& key, const std::wstring& name, const std::wstring& value)
{
    return SetValue(view, key, name, REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

bool DeleteKey(REGSAM view, const std::wstring& key)
{
    RegDeleteKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), view, 0);
    return !KeyExists(view, key);
}

bool KeyExists(REGSAM view, const std::wstring& key)
{
    HKEY hKey = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_QUERY_VALUE | view, &hKey);
    RegCloseKey(hKey);
    return status == ERROR_SUCCESS;
}

bool ReadValue(REGSAM view, const std::wstring& key, const std::wstring& name, std::vector<BYTE>& data, DWORD& type)
{
    HKEY hKey = nullptr;
    LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_QUERY_VALUE | view, &hKey);
    if (status != ERROR_SUCCESS)
    {
        return false;
    }
    DWORD cbData = 0;
    status = RegQueryValueExW(hKey, name.c_str(), nullptr, &type, nullptr, &cbData);
    data.assign(cbData, 0);
    if (status == ERROR_SUCCESS && cbData != 0)
    {
        status = RegQueryValueExW(hKey, name.c_str(), nullptr, &type, data.data(), &cbData);
    }
    RegCloseKey(hKey);
    return status == ERROR_SUCCESS;
}

std::wstring AsText(const std::vector<BYTE>& data)
{
    return std::wstring(reinterpret_cast<const wchar_t*>(data.data()), data.size() / sizeof(wchar_t));
}

// ---------------------------------------------------------------- doubles

CFailingPropertyRead::CFailingPropertyRead(HMODULE hModule, const std::wstring& name, bool bSizeQuery)
    : m_Patch(hModule, "msi.dll", "MsiGetPropertyW", reinterpret_cast<const void*>(FailingGetProperty))
{
    g_OriginalGetProperty = SystemFunction<GetPropertyFunction>(L"msi.dll", "MsiGetPropertyW");
    g_FailingName = name;
    g_bFailingSizeQuery = bSizeQuery;
}

CFailingPropertyRead::~CFailingPropertyRead()
{
    g_FailingName.clear();
}

CFailingRegistryWrite::CFailingRegistryWrite(HMODULE hModule)
    : m_Patch(hModule, "advapi32.dll", "RegSetValueExW", reinterpret_cast<const void*>(RefusedSetValue))
{
}

// ---------------------------------------------------------------- message boxes

namespace {

std::wstring WindowText(HWND hWnd)
{
    wchar_t text[1024] = {};
    GetWindowTextW(hWnd, text, 1023);
    return text;
}

BOOL CALLBACK CollectChild(HWND hChild, LPARAM context)
{
    auto* pBox = reinterpret_cast<SeenBox*>(context);
    pBox->texts.push_back(WindowText(hChild));
    const int id = GetDlgCtrlID(hChild);
    if (id >= IDOK && id <= IDCONTINUE)
    {
        pBox->buttons.push_back(id);
    }
    return TRUE;
}

BOOL CALLBACK FindOwnBox(HWND hWnd, LPARAM context)
{
    DWORD processId = 0;
    GetWindowThreadProcessId(hWnd, &processId);
    wchar_t className[16] = {};
    GetClassNameW(hWnd, className, 15);
    if (processId == GetCurrentProcessId() && wcscmp(className, L"#32770") == 0 && IsWindowVisible(hWnd))
    {
        *reinterpret_cast<HWND*>(context) = hWnd;
        return FALSE;
    }
    return TRUE;
}

} // namespace

CMessageBoxWatcher::CMessageBoxWatcher()
{
    m_Thread = std::thread([this] {
        HWND hLast = nullptr;
        while (!m_bStop)
        {
            HWND hBox = nullptr;
            EnumWindows(FindOwnBox, reinterpret_cast<LPARAM>(&hBox));
            if (hBox != nullptr && hBox != hLast)
            {
                SeenBox box;
                box.caption = WindowText(hBox);
                box.topmost = (GetWindowLongW(hBox, GWL_EXSTYLE) & WS_EX_TOPMOST) != 0;
                EnumChildWindows(hBox, CollectChild, reinterpret_cast<LPARAM>(&box));
                m_Boxes.push_back(box);
                hLast = hBox;
                PostMessageW(hBox, WM_COMMAND, IDCANCEL, 0);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
}

std::vector<SeenBox> CMessageBoxWatcher::Stop()
{
    m_bStop = true;
    if (m_Thread.joinable())
    {
        m_Thread.join();
    }
    return m_Boxes;
}

// ---------------------------------------------------------------- programs, product type, runner

CSystemProgram::CSystemProgram(const std::wstring& builtName, const std::wstring& name)
{
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    m_Path = std::wstring(folder) + L"\\" + name;
    m_bPlaced = CopyFileW((BinFolder() + builtName).c_str(), m_Path.c_str(), FALSE) != FALSE;
}

namespace {
const wchar_t kProductOptions[] = L"System\\CurrentControlSet\\Control\\ProductOptions";
}

CProductType::CProductType(const std::wstring& productType)
{
    EXPECT_TRUE(SetString(KEY_WOW64_64KEY, kProductOptions, L"ProductType", productType));
}

CProductType::~CProductType()
{
    SetString(KEY_WOW64_64KEY, kProductOptions, L"ProductType", L"WinNT");
}

RunnerOutcome RunInRunner(const std::wstring& arguments)
{
    RunnerOutcome outcome;
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    if (!CreatePipe(&hRead, &hWrite, &inherit, 0))
    {
        return outcome;
    }
    SetHandleInformation(hRead, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = hWrite;
    startup.hStdError = hWrite;
    PROCESS_INFORMATION process = {};
    std::wstring commandLine = L"\"" + BinFolder() + L"QcActionRunner.exe\" " + arguments;
    const BOOL bStarted = CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                         &startup, &process);
    CloseHandle(hWrite);
    std::string output;
    char chunk[4096];
    DWORD read = 0;
    while (bStarted && ReadFile(hRead, chunk, sizeof(chunk), &read, nullptr) && read != 0)
    {
        output.append(chunk, read);
    }
    CloseHandle(hRead);
    if (!bStarted)
    {
        return outcome;
    }
    if (WaitForSingleObject(process.hProcess, 60000) != WAIT_OBJECT_0)
    {
        TerminateProcess(process.hProcess, 1);
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);

    // Its lines are UTF-8; the texts asked for here are ASCII.
    for (size_t start = 0, end = 0; start < output.size(); start = end + 1)
    {
        end = output.find('\n', start);
        end = end == std::string::npos ? output.size() : end;
        const std::string narrow = output.substr(start, end - start - (end > start && output[end - 1] == '\r'));
        std::wstring line(narrow.begin(), narrow.end());
        if (line.rfind(L"log: ", 0) == 0 && !IsFrameLine(QcRunner::Body(line.substr(5))))
        {
            outcome.lines.push_back(QcRunner::Body(line.substr(5)));
        }
        else if (line.rfind(L"property: ", 0) == 0)
        {
            const size_t equals = line.find(L'=');
            outcome.shown[line.substr(10, equals - 10)] = line.substr(equals + 1);
        }
        else if (line.rfind(L"result: ", 0) == 0)
        {
            outcome.result = _wtoi(line.c_str() + 8);
        }
    }
    return outcome;
}

} // namespace QcTest
