#pragma once

#include <string>
#include <vector>

#include "PackageTables.h"

namespace QcChecker {

enum class Severity
{
    Warning, // the package may work; a likely mistake or a hazard
    Error,   // the action fails, or does what its author did not mean
};

// One finding about one CustomAction row: printed "error|warning ROW: TEXT".
struct Finding
{
    Severity severity;
    std::wstring row;
    std::wstring text;
};

// Judges every CustomAction row that calls the library from a Binary row (and
// the type 51 rows that hand it its "CustomActionData") against the library's
// action table and its "CustomActionData" rules. `rowsOfTheLibrary` receives
// how many rows call the library.
std::vector<Finding> CheckPackage(const CPackage& package, size_t& rowsOfTheLibrary);

} // namespace QcChecker
