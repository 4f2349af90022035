#!/usr/bin/env bash
# Cells without a value.
source "$(dirname "$0")/tool_support.sh"

asc 20 17 1 0 >no_mask.asc
# Cells without a value stay so; the others are worked on.
asc 32 32 10 'x < 4 && y < 4 ? -9999 : 500 + x * y' >holes.asc
expect 0 "16 cells have no value; they are worked on as a smooth continuation" shape holes.asc holes_out.asc
[[ "$(tail -n 32 holes_out.asc | tr ' ' '\n' | grep -c -E '^-9999(\.0)?$')" == 16 ]] || fail "holes_out.asc has other holes"
expect 0 "16 cells have no value" shape holes.asc holes.exr
expect 0 "16 cells have no value" shape holes.exr holes_back.png --cell-size 10
expect 0 "16 cells have no value" preview holes_back.png holes_picture.png
asc 4 4 10 -9999 >void.asc
expect 66 "no cell has a value" shape void.asc void.tif
expect 0 "" erode holes.asc holes_out.asc --columns 64 --iterations 2
[[ "$(tail -n 64 holes_out.asc | tr ' ' '\n' | grep -c -E '^-9999(\.0)?$')" == 64 ]] || fail "holes_out.asc has other holes"

# A collar and a hole in the sample: the outermost four cells of each row of data change as the others do, and get the
# light that they get in the whole terrain.
expect 0 "" dunes "$terrain" whole.asc --sand 0 --duration 0
awk '/^[a-z]/ { print; next }
    !y { print "NODATA_value -9999" }
    {
        for (x = 1; x <= NF; ++x)
            printf "%s ", (x + y / 7 < 60 || x + y / 7 > 390 || y - x / 7 < -20 || (x - 200) ^ 2 + (y - 150) ^ 2 < 400) ? -9999 : $x
        print ""
        ++y
    }' whole.asc >collar.asc
cp whole.prj collar.prj
# rim BEFORE AFTER: mean absolute differences at the rims, and elsewhere
rim() {
    paste <(cells collar.asc) <(cells "$1") <(cells "$2") | awk '
        $1 != -9999 { column[++n] = (NR - 1) % 403; change[n] = $3 > $2 ? $3 - $2 : $2 - $3 }
        NR % 403 == 0 {
            for (i = 1; i <= n; ++i) if (i <= 4 || i > n - 4) { r += change[i]; ++rs } else { s += change[i]; ++ss }
            n = 0
        }
        END { print r / rs, s / ss }'
}
for command in shape weather "erode --iterations 6"; do
    expect 0 "cells have no value" $command collar.asc after.asc
    rim collar.asc after.asc | awk '{ exit !($1 <= 1.5 * $2 && $2 > 1) }' || fail "$command: rims change by $(rim collar.asc after.asc)"
done
for grid in whole collar; do
    "$tarn" -q sunlight $grid.asc $grid.light.asc --latitude 36.6 --first-day 03-01 --last-day 03-10
    "$tarn" -q shade $grid.asc light.png --ao-out $grid.ao.asc
done
rim whole.light.asc collar.light.asc | awk '{ exit !($1 < 0.02 && $2 < 0.005) }' || fail "sunlight: $(rim whole.light.asc collar.light.asc)"
rim whole.ao.asc collar.ao.asc | awk '{ exit !($1 < 0.02 && $2 < 0.005) }' || fail "occlusion: $(rim whole.ao.asc collar.ao.asc)"

finish
