#include "directory/DirectoryDouble.h"

#include <cstdlib>

#include "support/ShippedDll.h"

namespace QcTest {

namespace {

constexpr const wchar_t* kServerKeys[] = {
    L"Software\\Classes\\CLSID\\{4590F811-1D3A-11D0-891F-00AA004B2E24}\\InprocServer32", // WbemLocator
    L"Software\\Classes\\CLSID\\{17D6CCD8-3B7B-11D2-B9E0-00C04FD8DBF7}\\InprocServer32", // DsObjectPicker
};

std::wstring DoublePath()
{
    return BinFolder() + L"QcDirectoryDouble.dll";
}

bool ReadText(const std::wstring& key, const wchar_t* name, std::wstring& value)
{
    wchar_t text[8192] = {};
    DWORD cb = sizeof(text) - sizeof(wchar_t);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND,
                     nullptr, text, &cb) != ERROR_SUCCESS)
    {
        return false;
    }
    value = text;
    return true;
}

bool WriteText(const std::wstring& key, const wchar_t* name, const std::wstring& value)
{
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, REG_SZ, value.c_str(),
                           static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

void Restore(const std::wstring& key, const wchar_t* name, bool bHad, const std::wstring& value)
{
    if (bHad)
    {
        WriteText(key, name, value);
    }
    else
    {
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name);
    }
}

} // namespace

CDirectoryDouble::CDirectoryDouble()
{
    Reset();
    m_bRegistered = true;
    for (const wchar_t* key : kServerKeys)
    {
        SavedServer saved;
        saved.key = key;
        saved.bHadPath = ReadText(key, nullptr, saved.path);
        saved.bHadModel = ReadText(key, L"ThreadingModel", saved.model);
        m_Saved.push_back(saved);
        m_bRegistered =
            WriteText(key, nullptr, DoublePath()) && WriteText(key, L"ThreadingModel", L"Both") && m_bRegistered;
    }
}

CDirectoryDouble::~CDirectoryDouble()
{
    for (const SavedServer& saved : m_Saved)
    {
        Restore(saved.key, nullptr, saved.bHadPath, saved.path);
        Restore(saved.key, L"ThreadingModel", saved.bHadModel, saved.model);
    }
    Reset();
}

void CDirectoryDouble::RegisterMissingServer()
{
    for (const wchar_t* key : kServerKeys)
    {
        WriteText(key, nullptr, L"C:\\windows\\system32\\QcMissingServer.dll");
    }
}

void CDirectoryDouble::Set(const wchar_t* name, const std::wstring& value)
{
    WriteText(QC_DOUBLE_KEY, name, value);
}

std::vector<std::wstring> CDirectoryDouble::Journal()
{
    std::wstring journal;
    ReadText(QC_DOUBLE_KEY, L"Journal", journal);
    std::vector<std::wstring> lines;
    for (size_t at = 0; at < journal.size(); at = journal.find(L'\n', at) + 1)
    {
        lines.push_back(journal.substr(at, journal.find(L'\n', at) - at));
    }
    return lines;
}

void CDirectoryDouble::Reset()
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, QC_DOUBLE_KEY);
}

} // namespace QcTest
