#!/usr/bin/env bash
# The main job: installs what is missing, builds the DLL and the action runner,
# creates a headless Wine prefix in the build tree and runs the sample
# installer package through Wine's msiexec, showing the custom-action log lines.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QC_BUILD_DIR:-$root/build}
"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$build"
exec "$root/scripts/sample.sh" "$build"
