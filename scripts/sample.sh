#!/usr/bin/env bash
# Installs and removes the sample installer package with Wine's msiexec (/qn /l*v)
# in a headless prefix of its own, prints each run through the log reader
# (QcLogRead: each custom action that ran, msiexec's verdict, the lines it wrote
# into the installer log), stops the prefix and says where the full logs are. The package is authored with the include
# authoring/Quillcast.Common.System.wxi alone and switches on every action that
# runs under Wine.
#   scripts/sample.sh [BUILD_DIR] [PUBLIC_NAME=VALUE...]
# BUILD_DIR defaults to build/ at the repository root and must hold a build.
# The properties go to the install, e.g. SAMPLE_VERSIONA=2.0 SAMPLE_VERSIONB=2.0.1.
# The package is tests/e2e/packages/sample.wxs and the steps and checks are
# tests/e2e/cases/Sample.sh, which CTest runs as e2e_Sample.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
if [ $# -gt 0 ] && [[ "$1" != *=* ]]; then
    build=$1
    shift
fi
if [ ! -f "$build/bin/Quillcast.Common.System.dll" ]; then
    echo "sample: no DLL in $build/bin; build first:" >&2
    echo "  cmake -G Ninja -S $root -B $build -DCMAKE_TOOLCHAIN_FILE=$root/cmake/mingw-w64-x86_64.cmake && ninja -C $build" >&2
    exit 1
fi
for tool in wine wixl msiinfo msibuild; do
    if ! command -v "$tool" >/dev/null; then
        echo "sample: $tool is missing (apt-get install -y wine wine64 msitools wixl)" >&2
        exit 1
    fi
done
build=$(cd "$build" && pwd)
wine_dir=$build/wine-sample

if [ ! -f "$wine_dir/template/.ready" ]; then
    echo "Preparing the Wine prefix $wine_dir (the first time takes about 15 s)"
fi
"$root/scripts/wine-prefix.sh" create "$wine_dir" >/dev/null
trap '"$root/scripts/wine-prefix.sh" stop "$wine_dir"' EXIT

status=0
QC_E2E_QUIET=1 QC_WINEPREFIX=$wine_dir/prefix QC_BIN_DIR=$build/bin QC_SOURCE_DIR=$root \
    "$root/tests/e2e/msi-case.sh" "$root/tests/e2e/cases/Sample.sh" "$build/sample" "$@" || status=$?
echo
echo "Full installer logs (msiexec /l*v), one per run:"
ls "$build/sample/"*.log 2>/dev/null | sed 's/^/  /'
echo "(Wine writes each line into its log file as a record template, so 'Argument[NAME] = x.' reads"
echo " 'Argument = x.' there and '[ERROR] ' and '[WARNING] ' are left out: such lines begin with a"
echo " blank. Wine logs success for an action marked Return=\"ignore\" whatever it returned.)"
echo "The package: $root/tests/e2e/packages/sample.wxs, the include: $root/authoring (docs/authoring.md)."
echo "Try an action alone with the runner, e.g. scripts/wine-run.sh $build/bin/QcActionRunner.exe --help"
exit $status
