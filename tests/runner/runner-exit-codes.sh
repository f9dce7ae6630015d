#!/usr/bin/env bash
# The action runner's command line as a newcomer meets it: one row per case,
# the arguments, the exit code and a text its output (stdout and stderr) must hold.
#   runner-exit-codes.sh RUNNER.exe   (QC_WINEPREFIX names the prefix)
set -uo pipefail
runner=$1
export WINEPREFIX=$QC_WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
failures=0
check() {
    local expected=$1 text=$2 output code
    shift 2
    output=$(wine "$runner" "$@" 2>&1 </dev/null | tr -d '\r')
    code=${PIPESTATUS[0]}
    if [ "$code" = "$expected" ] && [[ "$output" == *"$text"* ]]; then
        echo "ok    [$*] -> $code"
    else
        echo "FAIL  [$*] -> $code (expected $expected with '$text'):"
        printf '%s\n' "$output" | sed 's/^/      /'
        failures=$((failures + 1))
    fi
}
check 0 "usage: QcActionRunner [options] ACTION" --help
check 0 "result: 0" GetCustomActionVersion
check 0 "result: 0" --answer -1 --answer 6 GetCustomActionVersion
check 1 "result: 1603" --null-handle CompareVersionString
check 2 "no action named"
check 2 "--dll needs a value" --dll
check 2 "--show needs a value" GetCustomActionVersion --show
check 2 "--answer needs a whole number, not 'abc'" --answer abc GetCustomActionVersion
check 2 "--answer needs a whole number, not '6x'" --answer 6x GetCustomActionVersion
check 2 "--property needs NAME=VALUE, not '=x'" --property =x GetCustomActionVersion
check 2 "unexpected argument '--bogus'" --bogus GetCustomActionVersion
check 3 "cannot load no-such.dll (error 126)" --dll no-such.dll GetCustomActionVersion
check 3 "the DLL has no export NoSuchExport" NoSuchExport
[ $failures -eq 0 ] && echo "PASSED" || echo "FAILED: $failures cases"
exit $((failures != 0))
