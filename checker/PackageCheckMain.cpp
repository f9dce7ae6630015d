// QcPackageCheck: checks an installer package's rows that call the library's
// custom actions, before the package ships. See docs/tools.md.
#include <windows.h>

#include <cwchar>

#include "Console.h"
#include "PackageRules.h"
#include "PackageTables.h"

namespace {

const wchar_t kUsage[] =
    L"usage: QcPackageCheck PACKAGE.msi\n"
    L"Checks every CustomAction row of PACKAGE.msi that calls Quillcast.Common.System from a Binary row, and\n"
    L"the type 51 rows that set their \"CustomActionData\", against the library's action table and rules.\n"
    L"Prints one line per finding, 'error ROW: TEXT' or 'warning ROW: TEXT', then a summary.\n"
    L"Exit code: 0 no finding; 1 warnings only; 2 errors; 3 the package cannot be read (or bad usage).";

} // namespace

int wmain(int argc, wchar_t* argv[])
{
    if (argc == 2 && std::wcscmp(argv[1], L"--help") == 0)
    {
        QcTools::Print(kUsage);
        return QcTools::EXIT_CLEAN;
    }
    if (argc != 2 || argv[1][0] == L'-')
    {
        QcTools::PrintLine(stderr, L"QcPackageCheck: name one package (QcPackageCheck --help shows how)");
        return QcTools::EXIT_UNREADABLE;
    }
    QcChecker::CPackage package;
    const UINT result = package.Open(argv[1]);
    if (result != ERROR_SUCCESS)
    {
        QcTools::PrintLine(stderr, std::wstring(L"QcPackageCheck: cannot read ") + argv[1] + L" (error " +
                                       std::to_wstring(result) + L")");
        return QcTools::EXIT_UNREADABLE;
    }
    size_t rows = 0;
    size_t errors = 0;
    const std::vector<QcChecker::Finding> findings = QcChecker::CheckPackage(package, rows);
    for (const QcChecker::Finding& finding : findings)
    {
        const bool bError = finding.severity == QcChecker::Severity::Error;
        errors += bError ? 1 : 0;
        QcTools::Print((bError ? L"error " : L"warning ") + finding.row + L": " + finding.text);
    }
    QcTools::Print(std::wstring(argv[1]) + L": " + std::to_wstring(rows) + L" rows call the library; " +
                   std::to_wstring(errors) + L" errors, " + std::to_wstring(findings.size() - errors) + L" warnings");
    return errors != 0 ? QcTools::EXIT_PROBLEMS : findings.empty() ? QcTools::EXIT_CLEAN : QcTools::EXIT_WARNINGS;
}
