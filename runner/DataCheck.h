#pragma once

#include <cstdint>
#include <string>
#include <vector>

// --check: a "CustomActionData" value judged before any install runs, by the
// package checker's own rules (checker/PackageRules.cpp): what the action's
// validation would refuse (an error) and what it would take although the
// author likely meant otherwise (a warning).
namespace QcRunner {

struct DataFinding
{
    bool bError = false;
    std::wstring text; // "ServiceRestart needs 3 pairs (SERVICENAME, DEPENDENCIES, TIMEOUT), the value gives 1"
};

// `index` is the action's row (Quillcast::Host::ActionIndex); `data` the value
// as a type 51 setter in the package would carry it ([NAME] is a property).
std::vector<DataFinding> CheckCustomActionData(uint32_t index, const std::wstring& data);

} // namespace QcRunner
