#!/usr/bin/env bash
# tarn erode, flow and colour: what water does.
source "$(dirname "$0")/tool_support.sh"

asc 20 17 1 0 >no_mask.asc
asc 64 64 10 '(x - 32) * (y - 32)' >even.asc
asc 16 16 10 'x' >plain.asc
"$tarn" -q preview "$terrain" shaped.png
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
expect 64 "--plain-angle" erode "$terrain" out.tif --plain-angle 91

# Flow is repeatable; a mask of zeros starts no trail, and a blend of 0 leaves the picture.
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
expect 66 "it is no picture" colour "$terrain" moved.png --image eroded.tif
expect 64 "--flow-length" flow "$terrain" flow.tif --flow-length -1

finish
