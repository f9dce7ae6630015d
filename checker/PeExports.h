#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace QcChecker {

// The names a DLL exports, read from the bytes of its image. The image is never
// loaded: a package's Binary rows are untrusted, and loading one would run its
// code. nullopt when the bytes are not a DLL; an empty set when it exports nothing.
std::optional<std::set<std::string>> ReadDllExports(const std::vector<unsigned char>& image);

} // namespace QcChecker
