#include "PackageTables.h"

#include <msiquery.h>

#include <algorithm>

#include "host/types/TwoCallString.h"

namespace QcChecker {

namespace {

using Quillcast::System::Types::CMsiHandle;

std::wstring StringField(MSIHANDLE hRecord, UINT field)
{
    Quillcast::System::Types::CBuffer<wchar_t> text;
    const auto read = Quillcast::System::Types::ReadTwoCallString(
        [&](wchar_t* buffer, DWORD* cch) { return ::MsiRecordGetStringW(hRecord, field, buffer, cch); }, text);
    return read.failedStep == Quillcast::System::Types::TwoCallStep::None ? std::wstring(text.Data()) : std::wstring();
}

// Runs `query` and hands each row's record to `onRow`; a table the package
// lacks gives no rows. Returns the installer's error code.
template <typename TOnRow>
UINT ForEachRow(MSIHANDLE hDatabase, const wchar_t* table, const std::wstring& query, TOnRow&& onRow)
{
    if (::MsiDatabaseIsTablePersistentW(hDatabase, table) != MSICONDITION_TRUE)
    {
        return ERROR_SUCCESS;
    }
    CMsiHandle hView;
    UINT result = ::MsiDatabaseOpenViewW(hDatabase, query.c_str(), hView.Put());
    if (result == ERROR_SUCCESS)
    {
        result = ::MsiViewExecute(hView.Get(), 0);
    }
    for (CMsiHandle hRecord; result == ERROR_SUCCESS;)
    {
        result = ::MsiViewFetch(hView.Get(), hRecord.Put());
        if (result == ERROR_SUCCESS)
        {
            onRow(hRecord.Get());
        }
    }
    return result == ERROR_NO_MORE_ITEMS ? ERROR_SUCCESS : result;
}

} // namespace

UINT CPackage::Open(const std::wstring& path)
{
    UINT result = ::MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_READONLY, m_hDatabase.Put());
    const MSIHANDLE hDatabase = m_hDatabase.Get();
    const auto read = [&](const wchar_t* table, const wchar_t* columns, auto&& onRow) {
        if (result == ERROR_SUCCESS)
        {
            const std::wstring query = std::wstring(L"SELECT ") + columns + L" FROM `" + table + L"`";
            result = ForEachRow(hDatabase, table, query, onRow);
        }
    };
    read(L"CustomAction", L"`Action`, `Type`, `Source`, `Target`", [&](MSIHANDLE hRecord) {
        m_CustomActions.push_back({StringField(hRecord, 1), ::MsiRecordGetInteger(hRecord, 2), StringField(hRecord, 3),
                                   StringField(hRecord, 4)});
    });
    for (const wchar_t* table : {L"InstallExecuteSequence", L"InstallUISequence"})
    {
        read(table, L"`Action`, `Condition`, `Sequence`", [&](MSIHANDLE hRecord) {
            m_Sequences.push_back(
                {table, StringField(hRecord, 1), StringField(hRecord, 2), ::MsiRecordGetInteger(hRecord, 3)});
        });
    }
    read(L"Property", L"`Property`, `Value`",
         [&](MSIHANDLE hRecord) { m_Properties[StringField(hRecord, 1)] = StringField(hRecord, 2); });
    read(L"Directory", L"`Directory`",
         [&](MSIHANDLE hRecord) { m_InstallTimeProperties.insert(StringField(hRecord, 1)); });
    read(L"AppSearch", L"`Property`",
         [&](MSIHANDLE hRecord) { m_InstallTimeProperties.insert(StringField(hRecord, 1)); });
    std::sort(m_CustomActions.begin(), m_CustomActions.end(),
              [](const CustomActionRow& left, const CustomActionRow& right) { return left.action < right.action; });
    return result;
}

std::optional<std::vector<unsigned char>> CPackage::ReadBinary(const std::wstring& name) const
{
    std::optional<std::vector<unsigned char>> data;
    CMsiHandle hParameters(::MsiCreateRecord(1));
    CMsiHandle hView;
    CMsiHandle hRecord;
    if (!hParameters || ::MsiRecordSetStringW(hParameters.Get(), 1, name.c_str()) != ERROR_SUCCESS ||
        ::MsiDatabaseOpenViewW(m_hDatabase.Get(), L"SELECT `Data` FROM `Binary` WHERE `Name` = ?", hView.Put()) !=
            ERROR_SUCCESS ||
        ::MsiViewExecute(hView.Get(), hParameters.Get()) != ERROR_SUCCESS ||
        ::MsiViewFetch(hView.Get(), hRecord.Put()) != ERROR_SUCCESS)
    {
        return data;
    }
    std::vector<unsigned char> bytes(::MsiRecordDataSize(hRecord.Get(), 1));
    DWORD cbRead = static_cast<DWORD>(bytes.size());
    if (::MsiRecordReadStream(hRecord.Get(), 1, reinterpret_cast<char*>(bytes.data()), &cbRead) == ERROR_SUCCESS)
    {
        bytes.resize(cbRead);
        data = std::move(bytes);
    }
    return data;
}

} // namespace QcChecker
