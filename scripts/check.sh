#!/usr/bin/env bash
# Checks the sources without running them: layout by .clang-format, headers that a file includes twice, and lint by
# .clang-tidy.
#   scripts/check.sh            everything; the lint takes some minutes
#   scripts/check.sh --no-lint  all but the lint
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh --checks
mapfile -t sources < <(git ls-files '*.c' '*.cpp' '*.h' '*.hpp')
failed=0

echo "== layout"
clang-format --dry-run --Werror "${sources[@]}" || failed=1

echo "== duplicate includes"
for file in "${sources[@]}"; do
    twice=$(sed --quiet "/^#include/p" "$file" | sort | uniq --repeated)
    if [[ -n $twice ]]; then
        echo "$file: $twice"
        failed=1
    fi
done

if [[ ${1-} != --no-lint ]]; then
    echo "== lint"
    cmake --preset release >/dev/null
    mkdir -p build/lint
    # GCC's own options, which Clang takes for errors.
    sed 's/ -m\(move\|store\)-max=[0-9]*//g' build/compile_commands.json >build/lint/compile_commands.json
    # Every warning is an error here; .clang-tidy says which checks run.
    lint=$(command -v run-clang-tidy-16 || command -v run-clang-tidy)
    "$lint" -p build/lint -quiet -j "$(nproc)" "^$PWD/(src|hostsycl/src|tool)/" >build/lint.log 2>/dev/null || failed=1
    grep --extended-regexp '(warning|error):' build/lint.log | sort --unique && failed=1
fi

if ((failed)); then
    echo "check.sh: findings above" >&2
    exit 1
fi
echo "== no findings"
