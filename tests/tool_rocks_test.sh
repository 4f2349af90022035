#!/usr/bin/env bash
# tarn debris and stamp: what lies on the terrain.
source "$(dirname "$0")/tool_support.sh"

# Rocks raise the terrain in the cells that they cover, and nothing else. Coverage is 1 where a rock has a number.
asc 64 64 2 '200 - x * 3 + (y - 32) * (y - 32) / 16' >gully.asc
expect 0 "" debris gully.asc bare.asc --count 0
strew() { # strew OUT NAME=VALUE...: with these options changed
    local out=$1 option
    local -A options=([count]=300 [min-size]=4 [max-size]=12 [friction]=1.4 [seed]=7)
    shift
    for option; do options[${option%=*}]=${option#*=}; done
    local list=()
    for option in "${!options[@]}"; do list+=("--$option=${options[$option]}"); done
    expect 0 "" debris gully.asc "$out" "${list[@]}" --rock-id-out id.asc --coverage-out covered.asc --speed-out speed.asc
}
strew rocks.asc
paste <(cells bare.asc) <(cells rocks.asc) <(cells id.asc) <(cells covered.asc) <(cells speed.asc) | awk '
    $4 != ($3 > 0) || $2 < $1 || ($2 > $1) > $4 || $5 < 0 { exit wrong = 1 }
    { covered += $4; crossed += $5 > 0 }
    END { exit wrong || covered < 100 || crossed < 1000 }' || fail "rocks, numbers, coverage and speed do not agree"
for option in seed=8 count=150 friction=0.1 restitution=1 max-size=13 min-size=5 favour-small=true; do
    strew other.asc $option
    cmp -s rocks.asc other.asc && fail "tarn debris: $option makes no difference"
done
strew still.asc friction=1e5
cmp -s bare.asc still.asc || fail "rocks that stay where they are born are drawn"
strew still.asc friction=1e5 draw-unmoved=true
cmp -s bare.asc still.asc && fail "rocks that stay where they are born are not drawn"
strew again.asc
cmp -s rocks.asc again.asc || fail "the same rocks lie elsewhere"
expect 0 "403 x 344 cells are padded to 403 x 403" debris "$terrain" strewn.tif --preview strewn.png
[[ "$("$tarn" debris "$terrain" strewn.tif 2>&1)" == *"nothing has changed"* ]] && fail "the defaults move no rock on the sample"
expect 0 "nothing has changed: no rock" debris "$terrain" strewn.tif --count 0
expect_change 0 0 "$terrain" strewn.tif
# A part keeps its cells and its place; on the same ground a finer grid has the same slope.
expect 0 "" debris gully.asc part.asc --count 0 --window 8 16 32 32
paste <(cells part.asc | head -n 32) <(cells bare.asc | sed -n '1033,1064p') |
    awk '$1 != $2 { exit wrong = 1 } END { exit wrong || NR != 32 }' || fail "part.asc is another part"
[[ "$(grep -c -E '^xllcorner *16(\.0*)?$|^yllcorner *32(\.0*)?$' part.asc)" == 2 ]] || fail "part.asc lies elsewhere"
asc 16 16 10 '3 * x + 7 * y' >ramp.asc
expect 0 "resolution 24, terrain_size 60," --verbose debris ramp.asc fine.asc --count 0 --max-size 20 --window 5 6 6 6 --resolution 24
paste <(cells fine.asc) <(asc 24 24 2.5 '3 * (4.625 + x / 4) + 7 * (5.625 + y / 4)' | cells /dev/stdin) |
    awk '($1 - $2) ^ 2 > 1e-6 { exit wrong = 1 } END { exit wrong || NR != 576 }' || fail "fine.asc is another slope"
expect 64 "--window: 9 x 2 cells from (8, 0) on are not all in the grid, which has 16 x 16" debris ramp.asc out.asc --window 8 0 9 2
expect 64 "--window" debris ramp.asc out.asc --window 8 0 9
expect 64 "--resolution" debris ramp.asc out.asc --resolution 0
expect 64 "--restitution" debris ramp.asc out.asc --restitution 1.5
expect 64 "--count" debris ramp.asc out.asc --count -1
expect 3 "max_size" debris ramp.asc refused.asc --max-size 1e9
[[ -e refused.asc ]] && fail "a refused run was written"

# Stamps stand on the ground that was there before; holes, and points outside, leave it.
printf 'ncols 3\nnrows 6\nxllcorner 0\nyllcorner 0\ncellsize 1\n0 5 0\n5 7 5\n0 5 0\n0 0 0\n0 900 0\n0 0 0\n' >patches.asc
printf '10.5 10.5 # the cross\n\n20.5 20.5 1\n-50 3 1\n' >points.txt
asc 64 64 1 100 >level.asc
expect 0 "2 stamps of 3 x 3 cells, 3 instances" --verbose stamp level.asc stamped.asc --stamps patches.asc --stamp-height 3 \
    --stamp-scale 2 --points points.txt --ids-out ids.asc --preview stamped.png
asc 64 64 1 'x == 20 && y == 20 ? 1900 : x == 10 && y == 10 ? 114 : (x - 10) ^ 2 + (y - 10) ^ 2 == 1 ? 110 : 100' >wanted.asc
expect_change 0 0 wanted.asc stamped.asc
[[ "$(tail -n 64 ids.asc | tr ' ' '\n' | grep -E '[1-9]' | sort | uniq -c | awk '{print $1}' | sort -n | xargs)" == "1 5" ]] ||
    fail "ids.asc tells other cells apart"
expect 0 "" stamp "$terrain" scattered.tif --stamps patches.asc --count 50 --seed 9
expect 0 "" stamp "$terrain" unstamped.tif --stamps patches.asc --count 0
expect_change 0 0 "$terrain" unstamped.tif
expect_change 0 2000 "$terrain" scattered.tif
expect 3 "instance.stamp" stamp level.asc out.tif --stamps patches.asc --points points.txt
expect 64 "6 rows of 'patches.asc' are no whole number of stamps" stamp level.asc out.tif --stamps patches.asc \
    --stamp-height 4 --count 1
expect 64 "--count" stamp level.asc out.tif --stamps patches.asc
expect 64 "--count" stamp level.asc out.tif --stamps patches.asc --count 3 --points points.txt
expect 66 "cannot read 'nowhere.txt'" stamp level.asc out.tif --stamps patches.asc --points nowhere.txt
for line in "1" "1 2 x" "1 2 3 4" "1 2 -1" "one two"; do
    printf '3 3\n%s\n' "$line" >wrong.txt
    expect 66 "line 2 of 'wrong.txt'" stamp level.asc out.tif --stamps patches.asc --points wrong.txt
done

finish
