#!/usr/bin/env bash
# The reference cannot drift from the DLL: the action table as the runner's
# --list prints it (names in table order, kind, keys in order, * required) must
# equal what docs/actions.md states in each action's line
#   Kind: <immediate|deferred|any>. Data: <none|KEY*, KEY, ...>.
# under its "## <Action>" heading; an action with keys must be deferred.
#   list-matches-docs.sh RUNNER.exe ACTIONS.md   (QC_WINEPREFIX names the prefix)
set -uo pipefail
runner=$1 reference=$2
export WINEPREFIX=$QC_WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
table=$(wine "$runner" --list </dev/null | tr -d '\r' | grep -v '^#')
stated=$(awk '
    /^## / { action = $2; next }
    /^Kind: / {
        line = $0
        if (line !~ /^Kind: (immediate|deferred|any)\. Data: (none|[A-Z]+\*?(, [A-Z]+\*?)*)\.$/) {
            print action " malformed: " line; next
        }
        sub(/^Kind: /, "", line); kind = line; sub(/\..*/, "", kind)
        sub(/^[a-z]+\. Data: /, "", line); sub(/\.$/, "", line); gsub(/, /, " ", line)
        if (line == "none") { print action " session"; next }
        if (kind != "deferred") print action " is " kind " but reads CustomActionData"
        print action " data " line
    }' "$reference")
if [ "$(wc -l <<<"$table")" -ne 30 ]; then
    printf 'FAIL: --list printed no table of thirty actions:\n%s\n' "$table"
    exit 1
fi
if ! diff <(printf '%s\n' "$table") <(printf '%s\n' "$stated"); then
    echo "FAILED: docs/actions.md (>) differs from the action table (<)"
    exit 1
fi
echo "PASSED: docs/actions.md states the thirty actions of the table"
