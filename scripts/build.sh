#!/usr/bin/env bash
# Configures and builds into BUILD_DIR (default: build/ at the repository root).
#   scripts/build.sh [BUILD_DIR] [TARGET...]
# Without targets it builds everything: the DLL, the action runner and, unless
# QC_BUILD_TESTS=OFF, the tests and the benchmarks.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-${QC_BUILD_DIR:-$root/build}}
shift || true
tests=${QC_BUILD_TESTS:-ON}
# Configuring again is cheap and switches the tests on or off as asked.
cmake -G Ninja -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
    -DQC_BUILD_TESTS="$tests" >/dev/null
if [ $# -gt 0 ]; then
    cmake --build "$build" --target "$@"
else
    cmake --build "$build"
fi
