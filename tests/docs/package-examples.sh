#!/usr/bin/env bash
# Every package example (each ```xml block) of the given Markdown files builds
# with wixl, wrapped in a minimal Product unless it is a whole <Wix> document,
# with the include's folder on the include path and the DLL defined; and every
# QC_ property an example sets is one the built package uses (a setter's value
# or a condition), so a misspelt switch or input name fails here.
#   package-examples.sh SOURCE_DIR DLL FILE.md...
# Exit 77 (skipped) when an example needs the include and the tree has none.
set -uo pipefail
source_dir=$1 dll=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$dll" "$work/Quillcast.Common.System.dll"
failures=0 built=0 skipped=0
for doc in "$@"; do
    # One file per example: example-<n>.xml, with the line it starts on.
    awk -v out="$work/$(basename "$doc" .md)" '
        /^```xml$/ { n++; file = out "-" n ".xml"; print FNR > (file ".line"); close(file ".line"); on = 1; next }
        /^```$/ && on { on = 0; close(file); next }
        on { print > file }' "$doc"
done
for example in "$work"/*.xml; do
    [ -e "$example" ] || continue
    where="$(basename "${example%-*}").md:$(cat "$example.line")"
    if grep -q 'Quillcast.Common.System.wxi' "$example" && [ ! -f "$source_dir/authoring/Quillcast.Common.System.wxi" ]; then
        echo "skip  $where: needs authoring/Quillcast.Common.System.wxi"
        skipped=$((skipped + 1))
        continue
    fi
    package=${example%.xml}
    if grep -q '<Wix' "$example"; then
        cp "$example" "$package.wxs"
    else
        { echo '<?xml version="1.0" encoding="utf-8"?>'
          echo '<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">'
          echo '<Product Id="*" Name="Example" Language="1033" Version="1.0.0.0" Manufacturer="Quillcast"'
          echo '         UpgradeCode="6B0C2A7E-3D51-4C7A-9E55-0E2E000D0C00">'
          echo '<Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>'
          cat "$example"
          echo '</Product></Wix>'; } >"$package.wxs"
    fi
    if ! output=$(cd "$work" && wixl -a x64 -I "$source_dir/authoring" -D QcCustomActionDll=Quillcast.Common.System.dll \
            -o "$package.msi" "$package.wxs" 2>&1); then
        printf 'FAIL  %s: wixl refuses it:\n%s\n' "$where" "$output"
        failures=$((failures + 1))
        continue
    fi
    used=$(msiinfo export "$package.msi" CustomAction; msiinfo export "$package.msi" InstallExecuteSequence)
    unused=""
    for property in $(grep -o 'Property Id="QC_[A-Z0-9_]*"' "$example" | sed 's/.*"\(.*\)"/\1/'); do
        grep -Eq "(^|[^A-Z0-9_])$property([^A-Z0-9_]|\$)" <<<"$used" || unused="$unused $property"
    done
    if [ -n "$unused" ]; then
        echo "FAIL  $where: the package uses no$unused"
        failures=$((failures + 1))
        continue
    fi
    echo "ok    $where"
    built=$((built + 1))
done
echo "$built built, $skipped skipped, $failures failed"
[ $failures -eq 0 ] || exit 1
[ $skipped -eq 0 ] || exit 77
