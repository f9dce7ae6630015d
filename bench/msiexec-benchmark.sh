#!/usr/bin/env bash
# The installer's view of the DLL's cost. Each custom-action call under
# msiexec loads the DLL afresh from a temporary file, so an author pays load
# time, the action's own work and its installer calls. This installs and
# removes a package whose 40 immediate custom actions all call
# GetCustomActionVersion, once with the shipped DLL and once with the bare DLL
# (QcBareAction.dll: the same property reads and log record, nothing else),
# alternating, and prints each run and the ratio of the medians. It measures;
# it asserts nothing.
#   bench/msiexec-benchmark.sh [BUILD_DIR] [ROUNDS]   (defaults: build/, 7)
# QC_BENCH_DLL=<path> measures another build of the DLL in place of the shipped one.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
rounds=${2:-7}
bin=$build/bin
shipped_dll=${QC_BENCH_DLL:-$bin/Quillcast.Common.System.dll}
for file in "$shipped_dll" "$bin/QcBareAction.dll"; do
    if [ ! -f "$file" ]; then
        echo "msiexec-benchmark: $file is missing; build first (scripts/build.sh)" >&2
        exit 2
    fi
done
work=$build/bench-msiexec
wine_dir=$build/wine-bench
rm -rf "$work"
mkdir -p "$work"
"$root/scripts/wine-prefix.sh" create "$wine_dir" >/dev/null
trap '"$root/scripts/wine-prefix.sh" stop "$wine_dir"' EXIT
export WINEPREFIX=$wine_dir/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=

calls=40
# package NAME DLL: a package with $calls immediate GetCustomActionVersion calls,
# run on install and on removal.
package() {
    local name=$1 dll=$2 i actions="" sequence=""
    cp "$dll" "$work/$name.dll"
    for i in $(seq 1 $calls); do
        actions+="    <CustomAction Id=\"Version$i\" BinaryKey=\"CA\" DllEntry=\"GetCustomActionVersion\" Execute=\"immediate\" Impersonate=\"yes\" Return=\"check\"/>"$'\n'
        sequence+="      <Custom Action=\"Version$i\" Sequence=\"$((1000 + i))\"/>"$'\n'
    done
    cat >"$work/$name.wxs" <<WXS
<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="Quillcast Bench $name" Language="1033" Version="1.0.0.0" Manufacturer="Quillcast"
           UpgradeCode="$(cat /proc/sys/kernel/random/uuid)">
    <Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>
    <Binary Id="CA" SourceFile="$name.dll"/>
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Component Id="Marker" Guid="$(cat /proc/sys/kernel/random/uuid)" Win64="yes">
        <RegistryValue Root="HKLM" Key="Software\\Quillcast\\Bench\\$name" Name="Installed" Type="string" Value="1" KeyPath="yes"/>
      </Component>
    </Directory>
    <Feature Id="Main" Level="1"><ComponentRef Id="Marker"/></Feature>
$actions    <InstallExecuteSequence>
$sequence    </InstallExecuteSequence>
  </Product>
</Wix>
WXS
    (cd "$work" && wixl -a x64 -o "$name.msi" "$name.wxs")
}

package shipped "$shipped_dll"
package bare "$bin/QcBareAction.dll"

# Keeps one wineserver for the whole run, so that no run pays its start-up.
wineserver -p
wine cmd /c exit >/dev/null 2>&1 || true

now_ms() { echo $(($(date +%s%N) / 1000000)); }
# cycle NAME: install and remove; prints the milliseconds both took.
cycle() {
    local name=$1 start log
    log=$work/$name-last
    start=$(now_ms)
    wine msiexec /i "Z:${work//\//\\}\\$name.msi" /qn /l*v "Z:${work//\//\\}\\$name-install.log" </dev/null >/dev/null 2>&1 ||
        { echo "msiexec-benchmark: installing $name failed (log: $work/$name-install.log)" >&2; exit 1; }
    wine msiexec /x "Z:${work//\//\\}\\$name.msi" /qn /l*v "Z:${work//\//\\}\\$name-remove.log" </dev/null >/dev/null 2>&1 ||
        { echo "msiexec-benchmark: removing $name failed (log: $work/$name-remove.log)" >&2; exit 1; }
    echo $(($(now_ms) - start))
}

median() { tr ' ' '\n' | sed '/^$/d' | sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# One warm-up cycle each, not counted.
cycle shipped >/dev/null
cycle bare >/dev/null
records=$(tr -d '\r' <"$work/shipped-install.log" | grep -c "Custom Action Dll '" || true)
bare_records=$(tr -d '\r' <"$work/bare-install.log" | grep -c "Custom Action Dll '" || true)

shipped_runs=()
bare_runs=()
for round in $(seq 1 "$rounds"); do
    if [ $((round % 2)) -eq 1 ]; then
        shipped_runs+=("$(cycle shipped)")
        bare_runs+=("$(cycle bare)")
    else
        bare_runs+=("$(cycle bare)")
        shipped_runs+=("$(cycle shipped)")
    fi
done
shipped_median=$(echo "${shipped_runs[*]}" | median)
bare_median=$(echo "${bare_runs[*]}" | median)

size=$(stat -c %s "$shipped_dll")
echo "Installer-level benchmark: msiexec /i + /x of a package with $calls immediate GetCustomActionVersion calls"
echo "  (each call loads the DLL afresh; version lines per install: shipped $records, bare $bare_records)"
echo "  $(basename "$shipped_dll"): $size bytes; QcBareAction.dll: $(stat -c %s "$bin/QcBareAction.dll") bytes"
echo "  shipped DLL, ms per install+remove: ${shipped_runs[*]}  median $shipped_median"
echo "  bare DLL,    ms per install+remove: ${bare_runs[*]}  median $bare_median"
awk -v s="$shipped_median" -v b="$bare_median" -v n=$((2 * calls)) 'BEGIN {
    printf "  ratio of medians shipped/bare: %.3f   (%.2f ms more per call)\n", s / b, (s - b) / n }'
