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

# Every format holds the grid, as exactly as it can.
expect 0 "" shape "$terrain" shaped.asc
expect_change 0 0 shaped.tif shaped.asc
expect 0 "cannot hold the place on the map" shape "$terrain" shaped.exr
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
expect 0 "does not say how large a cell is" shape shaped.exr unscaled.tif
expect 0 "level_divisor 3," --verbose shape plain.asc plain.tif --level-divisor 3 --scale-numerator 5 --level-multiplier 2
expect 0 "scale_numerator 160," --verbose shape plain.asc plain.tif
expect 0 "scale_numerator 32," --verbose shape plain.asc plain.tif --cell-size 2 --height-unit 0.5 --level-divisor 0.5

# Cells without a value stay so; the others are worked on.
asc 32 32 10 'x < 4 && y < 4 ? -9999 : 500 + x * y' >holes.asc
expect 0 "16 cells have no value and are taken as 500" shape holes.asc holes_out.asc
[[ "$(tail -n 32 holes_out.asc | tr ' ' '\n' | grep -c -E '^-9999(\.0)?$')" == 16 ]] || fail "holes_out.asc has other holes"
expect 0 "16 cells have no value" shape holes.asc holes.exr
expect 0 "16 cells have no value" shape holes.exr holes_back.png --cell-size 10
expect 0 "16 cells have no value" preview holes_back.png holes_picture.png
asc 4 4 10 -9999 >void.asc
expect 66 "no cell has a value" shape void.asc void.tif

# Bad arguments and files.
expect 64 "subcommand" 
expect 64 "OUT" shape "$terrain"
expect 0 "padded to 408 x 344" weather "$terrain" weathered.tif --depth-out depth.tif --wear-out wear.asc
[[ -s weathered.tif && -s depth.tif && -s wear.asc ]] || fail "tarn weather wrote too little"
expect 0 "" weather even.asc masked.asc --erosion-mask even.asc --absorption-mask even.asc
expect 64 "--absorption" weather "$terrain" out.tif --absorption 2
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
