#!/usr/bin/env bash
# Formats, places on the map and records of the files of the command-line tool.
source "$(dirname "$0")/tool_support.sh"

asc 64 64 10 '(x - 32) * (y - 32)' >even.asc
# Every format holds the grid, as exactly as it can.
expect 0 "" shape "$terrain" shaped.tif
expect 0 "" shape "$terrain" shaped.asc
expect_change 0 0 shaped.tif shaped.asc
expect 0 "" shape "$terrain" shaped.exr
expect_change 0 0 shaped.tif shaped.exr
expect 0 "has 16 bits a cell" shape "$terrain" heights.png
expect_change -0.01 0.01 shaped.tif heights.png
expect 0 "cells are 74.57 x 92.47 m" shape shaped.exr from_exr.tif --blend 0
expect_change 0 0 shaped.tif from_exr.tif
asc 1201 1201 0.000833333333333333 '1000 + x % 200 + y % 300' | sed 's/^\([xy]\)llcorner 0/\1llcorner 9.999583333333333/' >tile.asc
echo 'GEOGCS["WGS 84",DATUM["WGS_1984",SPHEROID["WGS 84",6378137,298.257223563]],PRIMEM["Greenwich",0],UNIT["degree",0.0174532925199433]]' >tile.prj
expect 0 "values are rounded" shape tile.asc N10E010.hgt --blend 0
expect_change 0 0 tile.asc N10E010.hgt
expect 73 "HGT files have 1201 x 1201" shape "$terrain" N36W085.hgt
expect 73 "must be N10E010.hgt" shape tile.asc N11E010.hgt

# Files say what they hold and how it was made; only heights have the unit of heights.
expect 0 "" flow "$terrain" flow.exr --seed 5
for text in "gathered flow" "tarn flow $terrain flow.exr --seed 5" TARN_VERSION geoTransform coordinateSystem cellSize; do
    grep -aqF "$text" flow.exr || fail "flow.exr does not say '$text'"
done
expect 0 "" shape "$terrain" big.tif --co BIGTIFF=YES --co COMPRESS=NONE --preview big.png --world-file
[[ "$(head -c 3 big.tif)" == "II+" && $(stat -c %s big.tif) -gt 554000 ]] || fail "--co made no BIGTIFF without compression"
grep -aq '<Item name="TARN_COMMAND">tarn shape' big.tif || fail "big.tif does not say how it was made"
[[ "$(sed -n 1p big.pgw)" == 0.00083* ]] || fail "big.pgw has another cell size"
expect_change 0 0 shaped.tif big.tif
expect 64 "no output has an option" shape "$terrain" out.tif --co ZLEVLE=3
expect 64 "no value that 'out.tif' can take" shape "$terrain" out.tif --co COMPRESS=SQUEEZE

# Rows from south to north are turned for the work and written as they came.
asc 64 64 10 '(y > 30 && y < 34 ? 105 : 0) + x' >north.asc
{
    head -n 6 north.asc
    tail -n 64 north.asc | tac
} >flipped.asc
vrt() { # vrt GEOTRANSFORM: flipped.asc with another place on the map
    printf '<VRTDataset rasterXSize="64" rasterYSize="64"><GeoTransform>%s</GeoTransform><VRTRasterBand ' "$1"
    printf 'dataType="Float32" band="1"><SimpleSource><SourceFilename relativeToVRT="1">flipped.asc</SourceFilename>'
    printf '<SourceBand>1</SourceBand></SimpleSource></VRTRasterBand></VRTDataset>'
}
vrt "0, 10, 0, 0, 0, 10" >south.vrt
vrt "0, 10, 1, 640, 1, -10" >turned.vrt
for grid in north.asc south.vrt; do
    expect 0 "" shade $grid $grid.png --azimuth 180 --elevation 30
    expect 0 "" shape $grid $grid.exr
done
cmp -s north.asc.png south.vrt.png || fail "south-up rows are lit from elsewhere"
expect_change 0 0 north.asc.exr south.vrt.exr
grep -aqF "0,10,0,0,0,10" south.vrt.exr || fail "south-up rows are not written back as they came"
expect 66 "gdalwarp 'turned.vrt'" shape turned.vrt out.tif

finish
