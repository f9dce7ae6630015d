#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The library's own "CustomActionData" rules, applied to a value before any
// install runs: what the action's validation would refuse (an error) and what
// it would take without complaint although the author likely meant otherwise
// (a warning). Read with the library's parser and action table, never a copy.
namespace QcRunner {

struct DataFinding
{
    bool bError = false;
    std::wstring text; // "ServiceRestart needs 3 pairs (SERVICENAME, DEPENDENCIES, TIMEOUT), the value gives 1"
};

// `index` is the action's row (Quillcast::Host::ActionIndex); `data` the value
// as the action receives it, property references not expanded.
std::vector<DataFinding> CheckCustomActionData(uint32_t index, const std::wstring& data);

} // namespace QcRunner
