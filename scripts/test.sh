#!/usr/bin/env bash
# Every test: installs what is missing, builds, and runs the whole suite under
# Wine in a prefix of its own (BUILD_DIR/wine/prefix, made fresh for each run).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QC_BUILD_DIR:-$root/build}
"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$build"
cd "$build"
ctest --output-on-failure --timeout 900 "$@"
