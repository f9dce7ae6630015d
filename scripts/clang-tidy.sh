#!/usr/bin/env bash
# Runs clang-tidy (checks in .clang-tidy: bugprone-*, clang-analyzer-*) over
# every .cpp under src/, runner/ and checker/, as the mingw-w64 build sees them. Any
# finding fails. Used by CTest (test clang_tidy) and by hand:
#   scripts/clang-tidy.sh [FILE...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
tidy=${QC_CLANG_TIDY:-clang-tidy}
if ! command -v "$tidy" >/dev/null; then
    echo "clang-tidy.sh: $tidy is missing (apt-get install -y clang-tidy)" >&2
    exit 2
fi
gxx=x86_64-w64-mingw32-g++-posix
# The mingw-w64 compiler's include folders, C++ library first, without GCC's
# own intrinsics folders (clang brings its own).
mapfile -t system_dirs < <(echo | "$gxx" -xc++ -E -v - 2>&1 |
    sed -n '/^#include <...> search starts here:/,/^End of search list./p' | sed '1d;$d' | sed 's/^ *//' |
    grep -Ev '/lib/gcc/[^/]+/[^/]+/include(-fixed)?$')
args=(--target=x86_64-w64-mingw32 -std=c++17 -nostdinc++
      -DUNICODE -D_UNICODE -DNOMINMAX -D_WIN32_WINNT=0x0601 -DWINVER=0x0601
      -I"$root/src" -I"$root/runner" -I"$root/checker")
for dir in "${system_dirs[@]}"; do
    args+=(-isystem "$(realpath "$dir")")
done
if [ $# -gt 0 ]; then
    files=("$@")
else
    mapfile -t files < <(find src runner checker -name '*.cpp' | sort)
fi
printf '%s\n' "${files[@]}" | xargs -P "${QC_TIDY_JOBS:-2}" -I{} \
    "$tidy" --quiet {} -- "${args[@]}"
echo "clang-tidy: no findings in ${#files[@]} files"
