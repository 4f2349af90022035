#!/usr/bin/env bash
# Valid calls under limits on threads and on memory: each ends with the right bits or with a status that is not 0.
# Usage: limits_test.sh RANDOM_CALLS
set -euo pipefail

program=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
# Readable for the user without rights whom the limit on processes takes.
cp "$program" "$folder/random_calls"
chmod 755 "$folder"
calls=(--valid-only --print --seed 7 --calls 100 --sides 16 400)
failed=0

# The lines of the calls, without what need not repeat.
results() { grep -E '^[0-9]+ .* status=' | sed -E 's/ ~[^ ]*//g; s/ ms=.*//'; }

try() { # what it is, then the command that sets the limit
    local what=$1 code wrong
    shift
    code=0
    "$@" "$folder/random_calls" "${calls[@]}" >"$folder/output" 2>"$folder/errors" || code=$?
    results <"$folder/output" >"$folder/limited" || true
    wrong=$({ grep ' status=0' "$folder/limited" || true; } | { grep -vxFf "$folder/right" || true; })
    echo "$what: $(wc -l <"$folder/limited") calls, $(grep -vc ' status=0' "$folder/limited" || true) of them failed"
    if [ "$code" -gt 1 ] || [ -n "$wrong" ]; then
        echo "FAILED: exit status $code; wrong results: $wrong"
        tail -n 5 "$folder/errors"
        failed=1
    fi
}

"$folder/random_calls" "${calls[@]}" | results >"$folder/right"
for megabytes in 20 25 30 35 40 50 60; do
    try "$megabytes MB" prlimit --as=$((megabytes << 20))
done
if [ "$(id -u)" = 0 ]; then
    for threads in 1 2; do
        try "$threads thread" prlimit --nproc=$threads setpriv --reuid=65534 --regid=65534 --clear-groups
    done
fi
exit $failed
