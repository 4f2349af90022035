#!/usr/bin/env bash
# The library's dynamic symbol table shows the exports of the version script and nothing else of ours, every function that
# the header declares is among them, and hosts find it under the name that they were linked with. (The header's list of
# sizes and offsets is checked by every compilation.)
# Usage: exported_symbols_test.sh LIBRARY VERSION_SCRIPT HEADER
set -euo pipefail
exported=$(nm -D --defined-only "$1" | awk '$2 != "A" { print $3 }' | sort)
listed=$(sed -n '/global:/,/local:/p' "$2" | grep -oE '[A-Za-z0-9_]+;' | tr -d ';' | sort)
if [ "$exported" != "$listed" ]; then
    echo "exported and listed symbols differ:"
    diff <(echo "$exported") <(echo "$listed") || true
    exit 1
fi
available=$(grep -E '^TARN_API' "$3" | grep -oE '[A-Za-z0-9_]+\(' | tr -d '(' | sort)
if [ "$exported" != "$available" ]; then
    echo "exported symbols and the header's functions differ:"
    diff <(echo "$exported") <(echo "$available") || true
    exit 1
fi
if ! objdump -p "$1" | grep 'SONAME *libTarn[.]oneAPI[.]so[.]1$' >/dev/null; then
    echo "the SONAME is not libTarn.oneAPI.so.1"
    exit 1
fi
