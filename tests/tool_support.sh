# For the tests of the command-line tool, which source it:  tool_NAME_test.sh TARN TERRAIN
set -uo pipefail

tarn=$(realpath "$1")
terrain=$(realpath "$2")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder" || exit 1
failures=0

fail() {
    local line="$*"
    echo "FAILED: ${line:0:2000}"
    failures=$((failures + 1))
}

# expect CODE TEXT ARGUMENT...: runs the tool; its exit code must be CODE and what it says must hold TEXT.
expect() {
    local code=$1 text=$2 said actual
    shift 2
    said=$("$tarn" "$@" 2>&1)
    actual=$?
    ((actual == code)) || fail "tarn $*: exit code $actual instead of $code; it said: $said"
    [[ "$said" == *"$text"* ]] || fail "tarn $*: '$text' is missing; it said: $said"
    if ((code >= 64)); then
        [[ "$(grep -c 'error:' <<<"$said")" == 1 && "${said##*$'\n'}" == "tarn: error: "* ]] ||
            fail "tarn $*: not one line on the error, at the end: $said"
    fi
}

# expect_change LEAST GREATEST BEFORE AFTER: bounds for the change of heights between two grids.
expect_change() {
    local numbers
    numbers=$("$tarn" preview "$4" change.png --difference "$3" 2>&1 | sed -n 's/.*change by \([^ ]*\) to \([^;]*\);.*/\1 \2/p')
    awk -v least="$1" -v greatest="$2" '
        NF == 2 { inside = $1 + 0 >= least + 0 && $2 + 0 <= greatest + 0 }
        END { exit !inside }' <<<"$numbers" || fail "$3 to $4: the change is [$numbers], not within [$1 $2]"
}

# asc COLUMNS ROWS CELL EXPRESSION: a grid of EXPRESSION, which may use x and y.
asc() {
    awk -v columns="$1" -v rows="$2" -v cell="$3" 'BEGIN {
        printf "ncols %d\nnrows %d\nxllcorner 0\nyllcorner 0\ncellsize %s\nNODATA_value -9999\n", columns, rows, cell
        for (y = 0; y < rows; ++y) {
            for (x = 0; x < columns; ++x) printf "%s ", '"$4"'
            print ""
        }
    }'
}

cells() { # cells GRID.asc: one a line
    grep -v '^[a-zN]' "$1" | tr -s ' ' '\n' | grep .
}

finish() {
    ((failures == 0)) && echo "all passed"
    exit $((failures > 0))
}
