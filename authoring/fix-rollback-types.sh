#!/usr/bin/env bash
# wixl writes a custom action with Execute="rollback" as an immediate one: without
# the in-script (1024) and rollback (256) bits of its type, Windows Installer (and
# Wine) run it at once while the script is built, and never during a rollback.
# Run this on every package wixl builds with the include: it adds both bits to
# every QcUndo* row and to the actions named, then checks the result.
#   fix-rollback-types.sh PACKAGE.msi [ACTION...]
# Needs msibuild and msiinfo (Debian package msitools).
set -euo pipefail
[ $# -ge 1 ] || { echo "usage: $0 PACKAGE.msi [ACTION...]" >&2; exit 2; }
msi=$1
shift
in_script_rollback=$((1024 | 256))

# "Action<TAB>Type" of every row.
types() { msiinfo export "$msi" CustomAction | tr -d '\r' | tail -n +4 | cut -f1,2; }
rows=$(types)
names=$(awk -F'\t' '$1 ~ /^QcUndo/ { print $1 }' <<<"$rows")
[ $# -eq 0 ] || names+=$'\n'$(printf '%s\n' "$@")
for name in $names; do
    type=$(awk -F'\t' -v name="$name" '$1 == name { print $2 }' <<<"$rows")
    [ -n "$type" ] || { echo "fix-rollback-types: $msi has no custom action $name" >&2; exit 1; }
    msibuild "$msi" -q "UPDATE \`CustomAction\` SET \`Type\` = $((type | in_script_rollback)) WHERE \`Action\` = '$name'"
done

rows=$(types)
for name in $names; do
    type=$(awk -F'\t' -v name="$name" '$1 == name { print $2 }' <<<"$rows")
    if [ $((type & in_script_rollback)) -ne $in_script_rollback ]; then
        echo "fix-rollback-types: $name in $msi still has type $type" >&2
        exit 1
    fi
done
