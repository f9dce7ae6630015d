#!/usr/bin/env bash
# Configures and builds the DLL, the action runner, the tests and the
# benchmarks into BUILD_DIR (default: build/ at the repository root).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-${QC_BUILD_DIR:-$root/build}}
if [ ! -f "$build/build.ninja" ]; then
    cmake -G Ninja -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" >/dev/null
fi
cmake --build "$build"
