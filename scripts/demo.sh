#!/usr/bin/env bash
# The main job: installs what is missing, builds the DLL, the action runner and
# the sample's test programs (not the tests), creates a headless Wine prefix in the
# build tree and runs the sample installer package through Wine's msiexec,
# printing one table of the custom actions that ran and the lines they logged.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QC_BUILD_DIR:-$root/build}
"$root/scripts/setup.sh"
QC_BUILD_TESTS=OFF "$root/scripts/build.sh" "$build" QuillcastCommonSystem QcActionRunner QcTestService QcTestProgram QcTestFirewall QcLogRead
exec "$root/scripts/sample.sh" "$build"
