#!/usr/bin/env bash
# Checks that every C and C++ file of the project follows .clang-format; any
# difference fails and is printed. Used by CTest (test clang_format). To apply
# the layout instead of checking it: scripts/clang-format.sh --fix
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
format=${QC_CLANG_FORMAT:-clang-format}
if ! command -v "$format" >/dev/null; then
    echo "clang-format.sh: $format is missing (apt-get install -y clang-format)" >&2
    exit 2
fi
mapfile -t files < <(find src runner checker tests bench -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) \
    2>/dev/null | sort)
if [ "${1:-}" = --fix ]; then
    exec "$format" --style=file -i "${files[@]}"
fi
exec "$format" --style=file --dry-run --Werror "${files[@]}"
