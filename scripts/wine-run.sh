#!/usr/bin/env bash
# Runs a Windows program under Wine in the test run's own prefix (headless).
# The prefix is QC_WINEPREFIX, or build/wine/prefix beside the program.
set -euo pipefail
prog=$1; shift
if [ -z "${QC_WINEPREFIX:-}" ]; then
    bindir=$(cd "$(dirname "$prog")" && pwd)
    QC_WINEPREFIX="$(dirname "$bindir")/wine/prefix"
fi
export WINEPREFIX="$QC_WINEPREFIX" WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
exec wine "$prog" "$@"
