#pragma once

#include <windows.h>
#include <msi.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/types/Handles.h"

namespace QcChecker {

struct CustomActionRow
{
    std::wstring action;
    int type = 0;
    std::wstring source;
    std::wstring target;
};

struct SequenceRow
{
    std::wstring table; // InstallExecuteSequence or InstallUISequence
    std::wstring action;
    std::wstring condition;
    int sequence = 0;
};

// The rows of an installer package that the checker judges, read through the
// installer's database API with the package opened read-only: no session is
// made and nothing in the package runs. A table the package lacks reads empty.
class CPackage
{
public:
    // Reads the tables; on failure returns the installer's error code (0 on success).
    [[nodiscard]] UINT Open(const std::wstring& path);

    // The stream of a Binary row; nullopt when there is no such row or it cannot be read.
    std::optional<std::vector<unsigned char>> ReadBinary(const std::wstring& name) const;

    std::vector<CustomActionRow> m_CustomActions; // sorted by name
    std::vector<SequenceRow> m_Sequences;
    std::map<std::wstring, std::wstring> m_Properties;
    // Properties that the installer sets while the package runs: folders of the
    // Directory table and the results of AppSearch.
    std::set<std::wstring> m_InstallTimeProperties;

private:
    Quillcast::System::Types::CMsiHandle m_hDatabase;
};

} // namespace QcChecker
