#!/usr/bin/env bash
# Runs a Windows program under Wine in the test run's own prefix (headless),
# making the prefix first when it is missing.
#   scripts/wine-run.sh PROGRAM [ARGS...]
# The prefix is QC_WINEPREFIX, or build/wine/prefix beside the program
# (build/bin/X.exe -> build/wine/prefix). The exit status is the program's,
# modulo 256 as Unix reports it.
set -euo pipefail
if [ $# -lt 1 ]; then
    echo "usage: $0 PROGRAM [ARGS...]" >&2
    exit 2
fi
root=$(cd "$(dirname "$0")/.." && pwd)
prog=$1; shift
if [ -z "${QC_WINEPREFIX:-}" ]; then
    bindir=$(cd "$(dirname "$prog")" && pwd)
    QC_WINEPREFIX="$(dirname "$bindir")/wine/prefix"
fi
if [ ! -d "$QC_WINEPREFIX" ]; then
    echo "wine-run: making the Wine prefix $QC_WINEPREFIX (the first time takes about 15 s)" >&2
    "$root/scripts/wine-prefix.sh" create "$(dirname "$QC_WINEPREFIX")" >/dev/null
    if [ "$(basename "$QC_WINEPREFIX")" != prefix ]; then
        mv "$(dirname "$QC_WINEPREFIX")/prefix" "$QC_WINEPREFIX"
    fi
fi
export WINEPREFIX="$QC_WINEPREFIX" WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
exec wine "$prog" "$@"
