#!/usr/bin/env bash
# Every package example (each ```xml block) of the given Markdown files builds
# with wixl, inside a minimal Product unless it is a whole <Wix> document, with
# the include's folder on the include path; and every QC_ property it sets is
# used by the package (a setter's value or a condition): a misspelt switch or
# input name fails.
#   package-examples.sh SOURCE_DIR DLL FILE.md...
set -uo pipefail
source_dir=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$2" "$work/Quillcast.Common.System.dll"
shift 2
failures=0
for doc in "$@"; do # example files named <doc>:<line of the block>
    awk -v out="$work/$(basename "$doc")" '/^```xml$/ { file = out ":" FNR + 1; next }
        /^```$/ { file = "" } file != "" { print > file }' "$doc"
done
for example in "$work"/*.md:*; do
    [ -e "$example" ] || continue
    where=$(basename "$example")
    { grep -q '<Wix' "$example" || printf '%s\n' '<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">' \
        '<Product Id="*" Name="Example" Language="1033" Version="1.0.0.0" Manufacturer="Quillcast"' \
        '         UpgradeCode="6B0C2A7E-3D51-4C7A-9E55-0E2E000D0C00">' \
        '<Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>'
      cat "$example"
      grep -q '<Wix' "$example" || echo '</Product></Wix>'; } >"$work/package.wxs"
    if ! output=$(cd "$work" && wixl -a x64 -I "$source_dir/authoring" \
            -D QcCustomActionDll=Quillcast.Common.System.dll -o package.msi package.wxs 2>&1); then
        printf 'FAIL  %s: wixl refuses it:\n%s\n' "$where" "$output"
        failures=$((failures + 1))
        continue
    fi
    used=$(msiinfo export "$work/package.msi" CustomAction; msiinfo export "$work/package.msi" InstallExecuteSequence)
    unused=$(grep -o 'Property Id="QC_[A-Z0-9_]*"' "$example" | cut -d'"' -f2 |
        while read -r name; do grep -Eq "(^|[^A-Z0-9_])$name([^A-Z0-9_]|\$)" <<<"$used" || echo "$name"; done)
    [ -z "$unused" ] && echo "ok    $where" && continue
    echo "FAIL  $where: the package uses no" $unused
    failures=$((failures + 1))
done
[ $failures -eq 0 ]
