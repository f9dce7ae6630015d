#include "utility/UtilityTest.h"

#include <msi.h>

#include <chrono>
#include <cstdlib>

#include "support/ImportPatch.h"
#include "support/ShippedDll.h"

namespace QcTest {

namespace {

std::wstring WithMarker(std::wstring text)
{
    const std::wstring token = L"{LastError}";
    for (size_t at = text.find(token); at != std::wstring::npos; at = text.find(token))
    {
        text.replace(at, token.size(), std::to_wstring(kLastErrorMarker));
    }
    return text;
}

bool IsFrameLine(const std::wstring& body)
{
    return body.rfind(L"Workbench (#) ", 0) == 0;
}

HKEY OpenKey(REGSAM view, const std::wstring& key, REGSAM access)
{
    HKEY hKey = nullptr;
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, access | view, &hKey) == ERROR_SUCCESS ? hKey : nullptr;
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
    return WithMarker(L"Various (#) " + text + L".");
}

QcRunner::CActionLibrary* UtilityTest::s_pLibrary = nullptr;

namespace {

using OpenKeyFunction = LSTATUS(WINAPI*)(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY);
OpenKeyFunction g_OriginalOpenKey = nullptr;
CImportPatch* g_pOpenKeyPatch = nullptr;

LSTATUS WINAPI OpenKeyAfterMarker(HKEY hKey, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY phResult)
{
    SetLastError(kLastErrorMarker);
    return g_OriginalOpenKey(hKey, subKey, options, access, phResult);
}

} // namespace

void UtilityTest::SetUpTestSuite()
{
    s_pLibrary = new QcRunner::CActionLibrary(ShippedDllPath());
    g_OriginalOpenKey = reinterpret_cast<OpenKeyFunction>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"advapi32.dll"), "RegOpenKeyExW")));
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
    if (action == nullptr)
    {
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
    for (const auto& property : properties)
    {
        m_Host->SetProperty(property.first, property.second);
    }
    return m_Host->Call(action);
}

Lines UtilityTest::ActionLines() const
{
    Lines lines;
    for (const std::wstring& line : m_Host->LogLines())
    {
        const std::wstring body = QcRunner::Body(line);
        if (!IsFrameLine(body))
        {
            lines.push_back(body);
        }
    }
    return lines;
}

bool CreateKey(REGSAM view, const std::wstring& key)
{
    HKEY hKey = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, &hKey,
                        nullptr) != ERROR_SUCCESS)
    {
        return false;
    }
    RegCloseKey(hKey);
    return true;
}

bool SetValue(REGSAM view, const std::wstring& key, const std::wstring& name, DWORD type, const void* data,
              DWORD cbData)
{
    if (!CreateKey(view, key))
    {
        return false;
    }
    HKEY hKey = OpenKey(view, key, KEY_SET_VALUE);
    const bool bSet = hKey != nullptr && RegSetValueExW(hKey, name.c_str(), 0, type, static_cast<const BYTE*>(data),
                                                        cbData) == ERROR_SUCCESS;
    if (hKey != nullptr)
    {
        RegCloseKey(hKey);
    }
    return bSet;
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
    HKEY hKey = OpenKey(view, key, KEY_READ);
    if (hKey == nullptr)
    {
        return false;
    }
    RegCloseKey(hKey);
    return true;
}

bool ReadValue(REGSAM view, const std::wstring& key, const std::wstring& name, std::vector<BYTE>& data, DWORD& type)
{
    HKEY hKey = OpenKey(view, key, KEY_QUERY_VALUE);
    if (hKey == nullptr)
    {
        return false;
    }
    DWORD cbData = 0;
    LSTATUS status = RegQueryValueExW(hKey, name.c_str(), nullptr, &type, nullptr, &cbData);
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
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    memcpy(&text[0], data.data(), text.size() * sizeof(wchar_t));
    return text;
}

// ---------------------------------------------------------------- CFailingPropertyRead

namespace {

using GetPropertyFunction = UINT(WINAPI*)(MSIHANDLE, LPCWSTR, LPWSTR, LPDWORD);
GetPropertyFunction g_OriginalGetProperty = nullptr;
std::wstring g_FailingName;
CFailingPropertyRead::Step g_FailingStep = CFailingPropertyRead::SizeQuery;

UINT WINAPI FailingGetProperty(MSIHANDLE hInstall, LPCWSTR name, LPWSTR value, LPDWORD pcch)
{
    const bool bSizeQuery = pcch != nullptr && *pcch == 0;
    if (name != nullptr && g_FailingName == name && bSizeQuery == (g_FailingStep == CFailingPropertyRead::SizeQuery))
    {
        SetLastError(kLastErrorMarker);
        return ERROR_INVALID_HANDLE;
    }
    return g_OriginalGetProperty(hInstall, name, value, pcch);
}

} // namespace

struct CFailingPropertyRead::Impl
{
    explicit Impl(HMODULE hModule)
        : patch(hModule, "msi.dll", "MsiGetPropertyW", reinterpret_cast<const void*>(FailingGetProperty))
    {
    }
    CImportPatch patch;
};

CFailingPropertyRead::CFailingPropertyRead(HMODULE hModule, const std::wstring& name, Step step)
{
    g_FailingName = name;
    g_FailingStep = step;
    g_OriginalGetProperty = reinterpret_cast<GetPropertyFunction>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"msi.dll"), "MsiGetPropertyW")));
    m_pImpl = std::make_unique<Impl>(hModule);
}

CFailingPropertyRead::~CFailingPropertyRead()
{
    m_pImpl.reset();
    g_FailingName.clear();
}

bool CFailingPropertyRead::IsApplied() const
{
    return m_pImpl->patch.IsApplied();
}

// ---------------------------------------------------------------- CFailingRegistryWrite

namespace {

LSTATUS WINAPI RefusedSetValue(HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD)
{
    return ERROR_ACCESS_DENIED;
}

} // namespace

struct CFailingRegistryWrite::Impl
{
    explicit Impl(HMODULE hModule)
        : patch(hModule, "advapi32.dll", "RegSetValueExW", reinterpret_cast<const void*>(RefusedSetValue))
    {
    }
    CImportPatch patch;
};

CFailingRegistryWrite::CFailingRegistryWrite(HMODULE hModule) : m_pImpl(std::make_unique<Impl>(hModule)) {}

CFailingRegistryWrite::~CFailingRegistryWrite() = default;

bool CFailingRegistryWrite::IsApplied() const
{
    return m_pImpl->patch.IsApplied();
}

// ---------------------------------------------------------------- CMessageBoxWatcher

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

struct BoxSearch
{
    HWND hBox = nullptr;
};

BOOL CALLBACK FindOwnBox(HWND hWnd, LPARAM context)
{
    DWORD processId = 0;
    GetWindowThreadProcessId(hWnd, &processId);
    wchar_t className[16] = {};
    GetClassNameW(hWnd, className, 15);
    if (processId == GetCurrentProcessId() && wcscmp(className, L"#32770") == 0 && IsWindowVisible(hWnd))
    {
        reinterpret_cast<BoxSearch*>(context)->hBox = hWnd;
        return FALSE;
    }
    return TRUE;
}

} // namespace

CMessageBoxWatcher::CMessageBoxWatcher(int dismissWith) : m_DismissWith(dismissWith)
{
    m_Thread = std::thread([this] { Watch(); });
}

CMessageBoxWatcher::~CMessageBoxWatcher()
{
    (void)Stop();
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

void CMessageBoxWatcher::Watch()
{
    HWND hLast = nullptr;
    while (!m_bStop)
    {
        BoxSearch search;
        EnumWindows(FindOwnBox, reinterpret_cast<LPARAM>(&search));
        if (search.hBox != nullptr && search.hBox != hLast)
        {
            SeenBox box;
            box.caption = WindowText(search.hBox);
            box.topmost = (GetWindowLongW(search.hBox, GWL_EXSTYLE) & WS_EX_TOPMOST) != 0;
            EnumChildWindows(search.hBox, CollectChild, reinterpret_cast<LPARAM>(&box));
            m_Boxes.push_back(box);
            hLast = search.hBox;
            PostMessageW(search.hBox, WM_COMMAND, static_cast<WPARAM>(m_DismissWith), 0);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// ---------------------------------------------------------------- programs, product type, runner

std::wstring BinFolder()
{
    const std::wstring dll = ShippedDllPath();
    return dll.substr(0, dll.find_last_of(L'\\') + 1);
}

CSystemProgram::CSystemProgram(const std::wstring& builtName, const std::wstring& name)
{
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    m_Path = std::wstring(folder) + L"\\" + name;
    m_bPlaced = CopyFileW((BinFolder() + builtName).c_str(), m_Path.c_str(), FALSE) != FALSE;
}

CSystemProgram::~CSystemProgram()
{
    DeleteFileW(m_Path.c_str());
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
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    PROCESS_INFORMATION process = {};
    std::wstring commandLine = L"\"" + BinFolder() + L"QcActionRunner.exe\" " + arguments;
    const BOOL bStarted = CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                         &startup, &process);
    CloseHandle(hWrite);
    if (!bStarted)
    {
        CloseHandle(hRead);
        return outcome;
    }
    std::string output;
    char chunk[4096];
    DWORD read = 0;
    while (ReadFile(hRead, chunk, sizeof(chunk), &read, nullptr) && read != 0)
    {
        output.append(chunk, read);
    }
    CloseHandle(hRead);
    if (WaitForSingleObject(process.hProcess, 60000) != WAIT_OBJECT_0)
    {
        TerminateProcess(process.hProcess, 1);
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);

    const int length = MultiByteToWideChar(CP_UTF8, 0, output.data(), static_cast<int>(output.size()), nullptr, 0);
    std::wstring text(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, output.data(), static_cast<int>(output.size()), &text[0], length);
    size_t start = 0;
    while (start < text.size())
    {
        size_t end = text.find(L'\n', start);
        end = end == std::wstring::npos ? text.size() : end;
        std::wstring line = text.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == L'\r')
        {
            line.pop_back();
        }
        if (line.rfind(L"log: ", 0) == 0)
        {
            const std::wstring body = QcRunner::Body(line.substr(5));
            if (!IsFrameLine(body))
            {
                outcome.lines.push_back(body);
            }
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
