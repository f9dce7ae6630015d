#pragma once

#include <string>
#include <vector>

// The name a newcomer most likely meant: export names and "CustomActionData"
// keys are matched exactly by the installer, so a near miss fails with nothing
// that points at the right name.
namespace QcRunner {

// The candidate equal to `name` without regard to ASCII case; otherwise the one
// fewest single-character edits away (ASCII case ignored), when those edits are
// at most a third of the name's length; "" when none is that close. Ties go to
// the earlier candidate.
std::wstring ClosestName(const std::wstring& name, const std::vector<std::wstring>& candidates);

} // namespace QcRunner
