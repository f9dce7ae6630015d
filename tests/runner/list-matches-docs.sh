#!/usr/bin/env bash
# The reference cannot drift from the DLL: the action table as the runner's
# --list prints it (names in table order, kind, keys in order, * required) must
# equal what docs/actions.md states in each action's line
#   Kind: <immediate|deferred|any>. Data: <none|KEY*, KEY, ...>.
# under its "## <Action>" heading; an action with keys must be deferred. The
# include's row Qc<Action> must run as the kind says ("any": either).
#   list-matches-docs.sh RUNNER.exe ACTIONS.md INCLUDE.wxi   (QC_WINEPREFIX names the prefix)
set -uo pipefail
runner=$1 reference=$2 include=$3
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
[ "$(wc -l <<<"$table")" = 30 ] || { printf 'FAIL: --list printed no table of thirty actions:\n%s\n' "$table"; exit 1; }
if ! diff <(printf '%s\n' "$table") <(printf '%s\n' "$stated"); then
    echo "FAILED: docs/actions.md (>) differs from the action table (<)"
    exit 1
fi
kinds=$(sed -n 's/^## \([A-Za-z]*\)$/\1/p; s/^Kind: \([a-z]*\)\. .*/\1/p' "$reference" | paste -d' ' - - | grep -v ' any$')
rows=$(tr '\n' ' ' <"$include" | grep -o '<CustomAction Id="Qc[A-Za-z]*" [^>]*Execute="[a-z]*"' |
    sed 's/.*Id="Qc\([A-Za-z]*\)".*DllEntry="\([A-Za-z]*\)".*Execute="\([a-z]*\)"/\1 \2 \3/' | awk '$1 == $2 { print $1, $3 }')
mismatches=$(join -a1 -e none -o 0,1.2,2.2 <(sort <<<"$kinds") <(sort <<<"$rows") | awk '$2 != $3')
if [ -n "$mismatches" ]; then
    printf 'FAILED: ACTION KIND INCLUDE-EXECUTE, the include running an action otherwise:\n%s\n' "$mismatches"
    exit 1
fi
echo "PASSED: docs/actions.md states the thirty actions of the table"
