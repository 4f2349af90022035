#!/usr/bin/env bash
# Runs the command-line tool as a user does: formats, notes, exit codes.
#   tool_test.sh TARN TERRAIN
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

# The list of devices, and an identity string from it.
expect 0 "--device '" devices
identity=$("$tarn" devices | sed -n "s/.*--device '\(.*\)'$/\1/p" | head -n 1)
expect 0 "" shape "$terrain" by_identity.tif --device "$identity"
expect 69 "no device 'cpu/none/none/none/0'" shape "$terrain" none.tif --device cpu/none/none/none/0
expect 69 "no device" shape "$terrain" none.tif --device ""

# Shaping takes material off, and gives the same grid every time.
expect 0 "403 x 344 cells are padded to" shape "$terrain" shaped.tif --preview shaped.png
expect_change 0 0 by_identity.tif shaped.tif
expect_change -1000 100 "$terrain" shaped.tif
"$tarn" preview shaped.tif change.png --difference "$terrain" 2>&1 | grep -q 'change by -[1-9]' || fail "nothing was shaped"
[[ "$(head -c 4 shaped.png | tail -c 3)" == PNG ]] || fail "shaped.png is no PNG"

# Nothing is left of the padding, the resampling, the mirroring or the mask where they must not show.
for fit in pad resample none; do
    expect 0 "" shape "$terrain" unblended.tif --blend 0 --fit $fit
    expect_change 0 0 "$terrain" unblended.tif
done
expect 0 "resampled to" shape "$terrain" resampled.tif --fit resample
expect_change -20 20 shaped.tif resampled.tif
expect 0 "" shape "$terrain" filled.tif --rate 0.5
expect_change -100 1000 "$terrain" filled.tif
asc 403 344 1 'x < 200 ? 0 : 255' >mask.asc
expect 0 "" shape "$terrain" masked.tif --mask mask.asc
expect_change -1000 100 "$terrain" masked.tif
asc 20 17 1 0 >no_mask.asc
expect 0 "the mask is resampled from 20 x 17 to 403 x 344 cells" shape "$terrain" masked_out.tif --mask no_mask.asc
expect_change 0 100 "$terrain" masked_out.tif

# Sand lies on the ground until the wind moves it, and bare ground stays.
expect 0 "" dunes "$terrain" sanded.tif --sand 2 --duration 0
expect_change 1.99 2.01 "$terrain" sanded.tif
expect 0 "" dunes "$terrain" bare.tif --sand 0 --duration 0.002
expect_change 0 0 "$terrain" bare.tif
expect 0 "the sand is resampled from 20 x 17 to 403 x 344 cells" dunes "$terrain" dunes.tif --sand no_mask.asc \
    --duration 0.002 --sand-out sand.tif --wind-trace trace.tif --preview dunes.png
expect_change 0 0 "$terrain" dunes.tif
expect 64 "a depth must be a finite number from 0 up" dunes "$terrain" dunes.tif --sand -1

asc 64 64 10 '(x - 32) * (y - 32)' >even.asc
# A picture in the light of a day. Stages come out as grids that give the same picture when they go in again.
expect 0 "latitude 36.59: the sun stands at 180.0 degrees from north, 76.9 above the horizon" shade "$terrain" lit.png --date 06-21
expect 0 "" shade "$terrain" lit.png --ao-out ao.tif --shadow-out shadow.tif --diffuse-out diffuse.tif --rings 2
expect 0 "" shade "$terrain" again.png --ao ao.tif --rings 2
cmp -s lit.png again.png || fail "ambient occlusion that was written and read gives another picture"
expect 0 "" shade "$terrain" hybrid.png --hybrid-levels 4 --ambient-subdivisions 3 --sun-colour 1 0.5 0.2 --exposure 2
asc 64 64 10 '(y > 30 && y < 34 ? 105 : 0)' >wall.asc
expect 0 "" shade wall.asc wall.png --azimuth 180 --elevation 45 --rings 0 --shadow-out shadow.asc --albedo 0.5 --no-sky
# The sun in the south: the ground is dark for the wall's ten cells to the north of it, and only there.
shadows=$(tail -n 64 shadow.asc | awk '{ printf "%s", $32 < 0.5 ? "x" : "." }')
[[ "$shadows" == "$(printf '.%.0s' {1..21})xxxxxxxxxx$(printf '.%.0s' {1..33})" ]] || fail "the wall's shadow is $shadows"
expect 64 "there is no shadow to write" shade wall.asc wall.png --no-sun --shadow-out out.tif
expect 64 "--date needs --latitude" shade wall.asc wall.png --date 06-21
expect 64 "not a day of the form MM-DD" shade wall.asc wall.png --date 02-30 --latitude 3
expect 64 "not a time of the form HH:MM" shade wall.asc wall.png --date 02-28 --time 24:00 --latitude 3
expect 64 "excludes" shade wall.asc wall.png --date 02-28 --azimuth 3
expect 64 "requires" shade wall.asc wall.png --albedo-red ao.tif
expect 64 "--rings" shade wall.asc wall.png --rings 18
expect 3 "hybrid_ao_levels" shade even.asc wall.png --hybrid-levels 15
expect 0 "" preview wall.asc flat.png --flat

# A year of sun, and the darkest weeks of it.
expect 0 "latitude 36.59, days 1 to 365" sunlight "$terrain" year.tif --preview year.png
expect 0 "days 345 to 10" sunlight "$terrain" winter.tif --first-day 12-11 --last-day 01-10
expect_change -1 -0.001 year.tif winter.tif
expect 64 "--latitude is needed" sunlight wall.asc out.tif
expect 0 "cells receive 0 to 0" sunlight wall.asc night.asc --latitude 89 --first-day 12-21 --last-day 12-21
# Points: a plane comes back wherever it is sampled, from text and from a model; a line of points has no surface.
awk 'BEGIN { print "x;y;z"; for (y = 0; y <= 20; y += 4) for (x = 0; x <= 40; x += 5) print x ";" y ";" 2 * x - y }' >plane.csv
expect 0 "54 points on 40 x 20 cells of 1" points plane.csv plane.asc --columns 40 --noise-out numbers.asc --preview plane.png
{
    printf 'ply\nformat ascii 1.0\nelement vertex 54\nproperty float x\nproperty float y\nproperty float z\n'
    printf 'element face 1\nproperty list uchar int vertex_indices\nend_header\n'
    tail -n +2 plane.csv | tr ';' ' '
    echo '3 0 1 9'
} >plane.ply
expect 0 "cells of 1" points plane.ply from_ply_points.asc --columns 40
expect_change 0 0 plane.asc from_ply_points.asc
# At x = 19.5 and y = 9.5 the plane is 29.5 high; a triangle's heights are those of one half a percent larger.
awk 'NR == 16 { exit !($20 > 29.4 && $20 < 29.6) }' plane.asc || fail "the plane of points is not 29.5 high in its middle"
printf '1,1,0\n' >point.csv
expect 66 "fewer than three points" points point.csv none.asc
printf '1,1,0\n2,1,0\n3,1,0\n' >line.csv
expect 3 "not triangulation" points line.csv none.asc --columns 8

# A flat model under a ramp: all cells that the rays reach have the ramp's slope to the left.
printf 'v 0 0 0\nv 8 0 0\nv 8 8 0\nv 0 8 0\nf 1 2 3\nf 1 3 4\n' >flat.obj
asc 16 16 1 'x' >ramp.asc
expect 0 "" bake flat.obj ramp.asc normals.png --up z --hit-x-out hits.asc
expect 66 "cannot read" bake none.obj ramp.asc normals.png

# Models: a pyramid, which stands upright from any file that says where up is, on the floor it is given.
cat >pyramid.obj <<'END'
v -1 0 -1
v 1 0 -1
v 1 0 1
v -1 0 1
v 0 1 0
f 1 5 2
f 2 5 3
f 3 5 4
f 4 5 1
END
expect 0 "" mesh pyramid.obj pyramid.asc --size 64 --floor -1 --rest-on-floor --noise-out noise.tif --preview pyramid.png
asc 64 64 1 '(31.5 - (x > y ? (x > 63 - y ? x - 31.5 : 31.5 - y) : (x > 63 - y ? y - 31.5 : 31.5 - x))) / 64 + 0.5 / 64' >expected.asc
expect_change -0.02 0.02 expected.asc pyramid.asc
{
    printf 'ply\nformat ascii 1.0\nelement vertex 5\nproperty float x\nproperty float y\nproperty float z\n'
    printf 'element face 4\nproperty list uchar int vertex_indices\nend_header\n'
    printf -- '-1 -1 0\n1 -1 0\n1 1 0\n-1 1 0\n0 0 1\n3 0 1 4\n3 1 2 4\n3 2 3 4\n3 3 0 4\n'
} >pyramid.ply
expect 0 "" mesh pyramid.ply from_ply.asc --size 64 --floor -1 --rest-on-floor
expect_change -0.001 0.001 pyramid.asc from_ply.asc
# Maps of 0 displace nothing, and a placed model lies where it lies without them.
asc 64 64 1 0 >no_map.asc
placed=(--size 64x40 --rotate-z 30 --rotate-x 20 --scale 0.7 --offset-x 0.1 --offset-y -0.2 --offset-z 0.3 --vertical-scale 0.5)
expect 0 "" mesh pyramid.ply placed.asc "${placed[@]}"
expect 0 "is resampled" mesh pyramid.ply displaced.asc "${placed[@]}" --displacement no_map.asc
expect_change -0.01 0.01 placed.asc displaced.asc
expect 0 "" mesh pyramid.ply on_terrain.tif --floor "$terrain" --supersample
expect 64 "--noise-out" mesh pyramid.ply out.tif --displacement no_map.asc --noise-out noise.tif
expect 64 "no size such as 1024" mesh pyramid.ply out.tif --size 10x
expect 66 "cannot read 'nothing.obj'" mesh nothing.obj out.tif
expect 66 "cannot read" mesh no_map.asc out.tif
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
cells() { # cells GRID.asc: one a line
    grep -v '^[a-zN]' "$1" | tr -s ' ' '\n' | grep .
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
expect 0 "403 x 344 cells are padded to 403 x 403" debris "$terrain" strewn.tif --count 0 --preview strewn.png
expect_change 0 0 "$terrain" strewn.tif
# A part keeps its cells and its place; on the same ground a finer grid has the same slope.
expect 0 "" debris gully.asc part.asc --count 0 --window 8 16 32 32
paste <(cells part.asc | head -n 32) <(cells bare.asc | sed -n '1033,1064p') |
    awk '$1 != $2 { exit wrong = 1 } END { exit wrong || NR != 32 }' || fail "part.asc is another part"
[[ "$(grep -c -E '^xllcorner *16(\.0*)?$|^yllcorner *32(\.0*)?$' part.asc)" == 2 ]] || fail "part.asc lies elsewhere"
asc 16 16 10 '3 * x + 7 * y' >ramp.asc
expect 0 "resolution 24, terrain_size 60," --verbose debris ramp.asc fine.asc --count 0 --window 5 6 6 6 --resolution 24
paste <(cells fine.asc) <(asc 24 24 2.5 '3 * (4.625 + x / 4) + 7 * (5.625 + y / 4)' | cells /dev/stdin) |
    awk '($1 - $2) ^ 2 > 1e-6 { exit wrong = 1 } END { exit wrong || NR != 576 }' || fail "fine.asc is another slope"
expect 64 "--window: 9 x 2 cells from (8, 0) on are not all in the grid, which has 16 x 16" debris ramp.asc out.asc --window 8 0 9 2
expect 64 "--window" debris ramp.asc out.asc --window 8 0 9
expect 64 "--resolution" debris ramp.asc out.asc --resolution 0
expect 64 "--restitution" debris ramp.asc out.asc --restitution 1.5
expect 64 "--count" debris ramp.asc out.asc --count -1
expect 3 "max_size" debris ramp.asc refused.asc --max-size 1e9
[[ -e refused.asc ]] && fail "a refused run was written"
# Flow is repeatable; a mask of zeros starts no trail, and a blend of 0 leaves the picture.
asc 64 64 10 '(x - 32) * (y - 32)' >even.asc
expect 0 "" flow "$terrain" flow.tif --preview flow.png
expect 0 "" flow "$terrain" again.tif --seed 0 --flow-length 1 --spread 1
expect_change 0 0 flow.tif again.tif
expect 0 "the mask is resampled" flow "$terrain" none.tif --mask no_mask.asc
asc 403 344 1 0 >zeros.asc
expect_change 0 0 zeros.asc none.tif
[[ "$(head -c 4 flow.png | tail -c 3)" == PNG ]] || fail "flow.png is no PNG"
asc 403 344 1 'x < 200 ? 0 : 0.5' >lengths.asc
expect 0 "" colour "$terrain" moved.png --image shaped.png --length-map lengths.asc --straight-trails
cmp -s shaped.png moved.png && fail "no colour was moved"
expect 0 "" colour "$terrain" unblended.png --image shaped.png --blend 0
expect_change 0 0 shaped.png unblended.png
expect 0 "the image is resampled from 403 x 344 to 64 x 64 cells" colour even.asc small.png --image shaped.png
expect 64 "--image is required" colour "$terrain" moved.png
expect 64 "must end in .png" colour "$terrain" moved.tif --image shaped.png
expect 64 "--transport" colour "$terrain" moved.png --image shaped.png --transport 1.5
expect 66 "cannot read 'nothing.png'" colour "$terrain" moved.png --image nothing.png
expect 66 "it is no picture" colour "$terrain" moved.png --image shaped.tif
expect 64 "--flow-length" flow "$terrain" flow.tif --flow-length -1

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

# The median takes spikes away, whatever the size of the grid, and leaves what is level but for its rounding.
expect 0 "403 x 344 cells are padded to 416 x 416" median "$terrain" median.tif --radius 2 --preview median.png
expect 0 "" median "$terrain" unfiltered.tif --iterations 0
expect_change 0 0 "$terrain" unfiltered.tif
asc 40 20 1 'x == 39 && y == 7 || x == 5 && y == 19 ? 1e5 : 100' >spikes.asc
asc 40 20 1 100 >without_spikes.asc
expect 0 "" median spikes.asc despiked.asc --radius 1
expect_change -0.0002 0 without_spikes.asc despiked.asc
[[ "$("$tarn" median level.asc level_out.asc 2>&1)" == *padded* ]] && fail "64 x 64 cells were padded for the median"
expect 64 "not from 1 to 8" median "$terrain" out.tif --radius 9
expect 64 "--iterations" median "$terrain" out.tif --iterations -1

# Cells: a regular lattice makes steps, a gap of 1 leaves nothing, and a seed gives the same rock every time.
asc 64 64 1 'x < 32 ? 100 : 200' >step.asc
expect 0 "cell_density 8, extents 1 1 0.32, z_unit 64, z_range 100" --verbose cells step.asc steps.asc --density 8 --layers 4 \
    --jitter-x 0 --jitter-y 0 --jitter-z 0 --random-out steps_random.asc
asc 64 64 1 'x < 32 ? 100 : 200' >wanted.asc
expect_change -0.01 0.01 wanted.asc steps.asc
expect 0 "" cells "$terrain" rock.tif --layers 10 --preview rock.png
expect 0 "" cells "$terrain" rock_again.tif --layers 10 --gap 0.3 --gap-factor no_mask.asc
expect_change 0 0 rock.tif rock_again.tif
expect 0 "" cells "$terrain" rock_again.tif --layers 10 --generator congruential
"$tarn" preview rock_again.tif change.png --difference rock.tif 2>&1 | grep -q 'change by -[1-9]' || fail "the generators are alike"
expect 0 "" cells step.asc gone.asc --gap 1
asc 64 64 1 100 >wanted.asc
expect_change 0 0 wanted.asc gone.asc
expect 0 "" cells level.asc flat.asc
expect 0 "extents 2 3 4, z_unit 5, z_range 6" --verbose cells step.asc own.asc --density 2 --extent-x 2 --extent-y 3 \
    --extent-z 4 --z-unit 5 --z-range 6
expect 3 "cell_density" cells step.asc out.tif --extent-x 1e30
expect 64 "--generator" cells step.asc out.tif --generator dice
expect 64 "not from 0 to 1" cells step.asc out.tif --jitter-y 2

# Every format holds the grid, as exactly as it can.
expect 0 "" shape "$terrain" shaped.asc
expect_change 0 0 shaped.tif shaped.asc
expect 0 "" shape "$terrain" shaped.exr
expect_change 0 0 shaped.tif shaped.exr
expect 0 "has 16 bits a cell" shape "$terrain" heights.png
expect_change -0.01 0.01 shaped.tif heights.png
expect 0 "" shape shaped.exr from_exr.tif --blend 0 --cell-size 83
expect_change 0 0 shaped.tif from_exr.tif
asc 1201 1201 0.000833333333333333 '1000 + x % 200 + y % 300' | sed 's/^\([xy]\)llcorner 0/\1llcorner 9.999583333333333/' >tile.asc
echo 'GEOGCS["WGS 84",DATUM["WGS_1984",SPHEROID["WGS 84",6378137,298.257223563]],PRIMEM["Greenwich",0],UNIT["degree",0.0174532925199433]]' >tile.prj
expect 0 "values are rounded" shape tile.asc N10E010.hgt --blend 0
expect_change 0 0 tile.asc N10E010.hgt
expect 73 "cannot write 'N36W085.hgt'" shape "$terrain" N36W085.hgt
[[ -e N36W085.hgt ]] && fail "an HGT file of an impossible size was left behind"

# Sizes and scales.
[[ "$("$tarn" shape even.asc even.tif 2>&1)" == *padded* ]] && fail "64 x 64 cells were padded"
for size in "1 1" "2 1" "1 7" "3 3" "5 129"; do
    asc $size 10 'x * 7 % 5 + y' >small.asc
    for fit in pad resample none; do
        expect 0 "" shape small.asc small.tif --fit $fit --feature-size 1000
        expect 0 "" preview small.tif small.png
    done
done
asc 16 16 10 'x' >plain.asc
"$tarn" preview even.asc even.png
expect 0 "does not say how large a cell is" shape even.png unscaled.tif
expect 0 "level_divisor 3," --verbose shape plain.asc plain.tif --level-divisor 3 --scale-numerator 5 --level-multiplier 2
expect 0 "scale_numerator 160," --verbose shape plain.asc plain.tif
expect 0 "scale_numerator 32," --verbose shape plain.asc plain.tif --cell-size 2 --height-unit 0.5 --level-divisor 0.5

# Cells without a value stay so; the others are worked on.
asc 32 32 10 'x < 4 && y < 4 ? -9999 : 500 + x * y' >holes.asc
expect 0 "16 cells have no value; they are worked on as a smooth continuation" shape holes.asc holes_out.asc
[[ "$(tail -n 32 holes_out.asc | tr ' ' '\n' | grep -c -E '^-9999(\.0)?$')" == 16 ]] || fail "holes_out.asc has other holes"
expect 0 "16 cells have no value" shape holes.asc holes.exr
expect 0 "16 cells have no value" shape holes.exr holes_back.png --cell-size 10
expect 0 "16 cells have no value" preview holes_back.png holes_picture.png
asc 4 4 10 -9999 >void.asc
expect 66 "no cell has a value" shape void.asc void.tif

# Bad arguments and files.
expect 64 "a command is missing"
expect 64 "did you mean \`tarn shape\`?" shap "$terrain" out.tif
expect 64 "did you mean --rate?" shape "$terrain" out.tif --ratee=3
expect 0 "--friction NUMBER [0.5]" help debris
expect 0 '"default":-0.5' options --json
expect 64 "OUT" shape "$terrain"
expect 0 "padded to 408 x 344" weather "$terrain" weathered.tif --depth-out depth.tif --wear-out wear.asc
[[ -s weathered.tif && -s depth.tif && -s wear.asc ]] || fail "tarn weather wrote too little"
expect 0 "" weather even.asc masked.asc --erosion-mask even.asc --absorption-mask even.asc
expect 64 "--absorption" weather "$terrain" out.tif --absorption 2
expect 0 "padded to 408 x 344" erode "$terrain" eroded.tif --iterations 4 --flow-out flow.tif --sediment-out sediment.tif \
    --wear-out wear.tif --preview eroded.png
[[ -s eroded.tif && -s flow.tif && -s sediment.tif && -s wear.tif && -s eroded.png ]] || fail "tarn erode wrote too little"
"$tarn" preview eroded.tif change.png --difference "$terrain" 2>&1 | grep -q 'change by -[1-9]' || fail "nothing was eroded"
expect 0 "" erode "$terrain" again.tif --iterations 4
expect_change 0 0 eroded.tif again.tif
expect 0 "" erode "$terrain" dry.tif --iterations 4 --spawn-map no_mask.asc
expect_change -0.01 0.01 "$terrain" dry.tif
expect 0 "width 64, height 64, terrain_size 160," --verbose erode plain.asc wide.asc --columns 64
[[ "$(sed -n 's/cellsize *//p' wide.asc | cut -c 1-3)" == 2.5 ]] || fail "wide.asc is not 64 cells of 2.5 m wide"
expect 0 "" erode holes.asc holes_out.asc --columns 64 --iterations 2
[[ "$(tail -n 64 holes_out.asc | tr ' ' '\n' | grep -c -E '^-9999(\.0)?$')" == 64 ]] || fail "holes_out.asc has other holes"
expect 64 "--plain-angle" erode "$terrain" out.tif --plain-angle 91
expect 64 "--colour" shape "$terrain" out.tif --colour red
expect 64 "not a finite number" shape "$terrain" out.tif --rate nan
expect 64 "not a finite number" shape "$terrain" out.tif --rate 1e999
expect 64 "not from 0 to 1" shape "$terrain" out.tif --blend 1.5
expect 64 "not a number above 0" shape "$terrain" out.tif --level-divisor 0
expect 64 "not a number above 0" shape "$terrain" out.tif --cell-size -3
expect 64 "--fit" shape "$terrain" out.tif --fit squeeze
expect 64 "must end in" shape "$terrain" out.xyz
expect 64 "must end in .png" preview "$terrain" out.tif
expect 64 "no difference can be drawn" preview "$terrain" out.png --difference even.asc
expect 66 "cannot read 'nothing.tif'" shape nothing.tif out.tif
expect 66 "cannot read 'nothing.exr'" shape nothing.exr out.tif
expect 66 "cannot read 'nothing.asc'" shape "$terrain" out.tif --mask nothing.asc
echo "no raster" >text.tif
expect 66 "cannot read 'text.tif'" shape text.tif out.tif
expect 73 "there is no folder 'nowhere'" shape "$terrain" nowhere/out.tif
expect 73 "there is no folder 'nowhere'" shape "$terrain" out.tif --preview nowhere/out.png
expect 73 "there is no folder 'nowhere'" preview "$terrain" nowhere/out.png
mkdir folder.tif folder.exr folder.png
for output in folder.tif folder.exr folder.png; do
    expect 73 "cannot write '$output'" shape "$terrain" $output
done
[[ -e out.tif ]] && fail "a refused run left out.tif behind"
[[ -z "$("$tarn" --quiet shape "$terrain" quiet.tif 2>&1)" ]] || fail "--quiet is not quiet"
expect 0 "Usage" --help
expect 0 "--feature-size" shape --help
expect 0 "" --version

((failures == 0)) && echo "all tool tests passed"
exit $((failures > 0))
