#!/usr/bin/env bash
# tarn devices, shape and weather: slopes that fail, at any size and scale.
source "$(dirname "$0")/tool_support.sh"

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

asc 64 64 10 '(x - 32) * (y - 32)' >even.asc

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

# Weathering.
expect 0 "padded to 408 x 344" weather "$terrain" weathered.tif --depth-out depth.tif --wear-out wear.asc
[[ -s weathered.tif && -s depth.tif && -s wear.asc ]] || fail "tarn weather wrote too little"
expect 0 "" weather even.asc masked.asc --erosion-mask even.asc --absorption-mask even.asc
expect 64 "--absorption" weather "$terrain" out.tif --absorption 2

finish
