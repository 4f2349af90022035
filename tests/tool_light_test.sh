#!/usr/bin/env bash
# tarn shade, sunlight and preview: light.
source "$(dirname "$0")/tool_support.sh"

asc 64 64 10 '(x - 32) * (y - 32)' >even.asc
# A picture in the light of a day. Stages come out as grids that give the same picture when they go in again.
expect 0 "latitude 36.59: the sun stands at 180.0 degrees from north, 76.9 above the horizon" shade "$terrain" lit.png --date 06-21
expect 0 "" shade "$terrain" lit.png --ao-out ao.tif --shadow-out shadow.tif --diffuse-out diffuse.tif --rings 2
expect 0 "" shade "$terrain" again.png --ao ao.tif --rings 2
cmp -s lit.png again.png || fail "ambient occlusion that was written and read gives another picture"
# Without rays a picture is drawn band by band, and without colours it has one channel: it is as if drawn at once.
asc 1024 600 10 '(x * y) % 97' >bands.asc
hillshade=(shade bands.asc --no-sky --no-shadows --albedo 0.5)
expect 0 "" "${hillshade[@]}" whole.png --diffuse-out diffuse.tif
expect 0 "" "${hillshade[@]}" bands.png
expect 0 "" "${hillshade[@]}" grey.png --sun-colour 1.04 1.04 1.04 --ambient-colour 1 1 1
for picture in whole bands grey; do expect 0 "" shape $picture.png $picture.tif --blend 0; done
expect_change 0 0 whole.tif bands.tif
expect_change 0 0 whole.tif grey.tif
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
expect 0 "" preview wall.asc flat.png --flat --palette amounts --range 0 105 --legend
expect 64 "the lower value first" preview wall.asc flat.png --range 3 3

# A year of sun, and the darkest weeks of it.
expect 0 "latitude 36.59, days 1 to 365" sunlight "$terrain" year.tif --preview year.png
expect 0 "days 345 to 10" sunlight "$terrain" winter.tif --first-day 12-11 --last-day 01-10
expect_change -1 -0.001 year.tif winter.tif
expect 64 "--latitude is needed" sunlight wall.asc out.tif
expect 0 "cells receive 0 to 0" sunlight wall.asc night.asc --latitude 89 --first-day 12-21 --last-day 12-21

finish
