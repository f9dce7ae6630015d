#!/usr/bin/env bash
# Prints the lines of production code, of tests and of test kit, and the
# ratios of the last two to the first; then the benchmarks, which are neither.
# Counts the files git tracks (plus new, not yet ignored ones), so build output
# never counts.
#
#   production  src/, runner/ and checker/ (the shipped DLL and tools), and
#               the authoring kit the release bundle ships: the include
#               (authoring/*.wxi) and authoring/fix-rollback-types.sh. The
#               include's Fragment variant ships too, but make-fragment.sh
#               writes it from the include, so it would count the include twice
#   tests       test cases, their fixtures and data, e2e case files:
#               tests/**/*Test.cpp, *Tests.cpp, *Fixture.h, *Fixture.cpp,
#               tests/**/data/*, tests/e2e/cases/*, and the CMakeLists.txt
#               of each test folder (they register the cases)
#   test kit    every other file under tests/: stand-ins for Windows parts,
#               shared helpers (tests/support/), the e2e driver and its
#               packages, test services,
#               COM test servers and test programs, and tests/CMakeLists.txt
#               (GoogleTest, the Wine prefix, the registration functions)
#   benchmarks  bench/: they measure and assert nothing, so they count
#               neither as tests nor as kit
# Markdown files are documentation and count nowhere.
set -euo pipefail
cd "$(dirname "$0")/.."

files() { git ls-files --cached --others --exclude-standard -- "$@"; }

classify() {
    local path=$1
    case $path in
    *.md) ;;
    src/* | runner/* | checker/* | authoring/*.wxi | authoring/fix-rollback-types.sh) echo production ;;
    bench/*) echo bench ;;
    tests/CMakeLists.txt) echo kit ;;
    *Test.cpp | *Tests.cpp | *Fixture.h | *Fixture.cpp | tests/*/data/* | tests/*/*/data/* | tests/e2e/cases/* | \
        */CMakeLists.txt) echo tests ;;
    tests/*) echo kit ;;
    esac
}

declare -A lines=([production]=0 [tests]=0 [kit]=0 [bench]=0)
while IFS= read -r path; do
    [ -f "$path" ] || continue
    bucket=$(classify "$path")
    [ -n "$bucket" ] || continue
    lines[$bucket]=$((lines[$bucket] + $(wc -l <"$path")))
done < <(files src runner checker authoring tests bench)

ratio() { awk -v a="$1" -v b="${lines[production]}" 'BEGIN { printf "%.2f", b ? a / b : 0 }'; }
printf 'production (src, runner, checker, .wxi)%6d\n' "${lines[production]}"
printf 'tests                                  %6d  %sx production\n' "${lines[tests]}" "$(ratio "${lines[tests]}")"
printf 'test kit                               %6d  %sx production\n' "${lines[kit]}" "$(ratio "${lines[kit]}")"
printf 'tests and kit together                 %6d  %sx production\n' "$((lines[tests] + lines[kit]))" \
    "$(ratio "$((lines[tests] + lines[kit]))")"
printf 'benchmarks (bench/, neither)           %6d\n' "${lines[bench]}"
