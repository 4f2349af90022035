#!/usr/bin/env bash
# Builds the library and the tool, works on the terrain in data/, and writes grids and pictures to out/. Every picture
# but those of differences and of bare colours is rendered by the library.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh
cmake --preset release
cmake --build --preset release --parallel "$(nproc)" --target tarn

tarn=build/bin/tarn
terrain=data/jacksboro.tif
light=(--exaggeration 3)
mkdir -p out

# run COMMAND ARGUMENT...: a step of the demo, with its time.
run() {
    local start=$SECONDS
    echo "tarn $*"
    "$tarn" "$@"
    echo "  $((SECONDS - start)) s"
}

echo
"$tarn" devices
echo

# Light: the terrain as it is, a winter's afternoon, and where the sun shines over a year and in its darkest weeks.
run shade "$terrain" out/before.png "${light[@]}"
run shade "$terrain" out/winter_afternoon.png --exaggeration 2 --date 12-21 --time 15:30
run sunlight "$terrain" out/sunlight_year.tif --preview out/sunlight_year.png
run sunlight "$terrain" out/sunlight_midwinter.tif --first-day 12-11 --last-day 12-31 --preview out/sunlight_midwinter.png

# Slopes that fail.
run shape "$terrain" out/shaped.tif
run shade out/shaped.tif out/after.png "${light[@]}"
run preview out/shaped.tif out/difference.png --difference "$terrain"
run weather "$terrain" out/weathered.tif --depth-out out/depth.tif --wear-out out/wear.tif
run shade out/weathered.tif out/weathered.png "${light[@]}"
for grid in depth wear; do
    run preview out/$grid.tif out/$grid.png --flat
done

# Running water, in three tempers.
run erode "$terrain" out/mountains.tif --columns 1024 --feature-size 1500 --iterations 15 --erosion-strength 0.9 \
    --plain-deposition 0 --shaping-sharpness 0.7 --fill-angle 2 --flow-out out/mountains_flow.tif
run shade out/mountains.tif out/mountains.png "${light[@]}"
run erode "$terrain" out/terraces.tif --columns 512 --feature-size 3000 --iterations 60 --erosion-strength 0.9 \
    --constant-capacity 0 --plain-deposition 0 --terrace-deposition 4 --terrace-angle 3 --shaping-strength 0.1 \
    --shaping-sharpness 1 --shaping-detail 0.5 --fill-angle 0
run shade out/terraces.tif out/terraces.png "${light[@]}"
run erode "$terrain" out/plains.tif --columns 512 --feature-size 2000 --iterations 40 --erosion-strength 0.4 \
    --constant-capacity 0 --plain-deposition 1 --plain-angle 8 --shaping-strength 0.5 --shaping-sharpness 0.1 \
    --fill-angle 20
run shade out/plains.tif out/plains.png "${light[@]}"

# Where water gathers, and the picture's colours carried down with it.
run flow "$terrain" out/flow.tif --preview out/flow.png
run preview "$terrain" out/heights.png --flat
run colour "$terrain" --image out/heights.png out/washed.png

# Rocks at the foot of a valley's slopes, seen from close by.
run debris "$terrain" out/rocks.tif --window 173 96 6 5 --resolution 960 --count 6000 --max-size 60 --min-size 8 \
    --favour-small --restitution 0.2 --preview out/rocks.png

# A flat sheet of sand, 512 x 512 cells of a metre, in the wind.
side=512
row=$(printf '0 %.0s' $(seq $side))
{
    printf 'ncols %d\nnrows %d\nxllcorner 0\nyllcorner 0\ncellsize 1\n' $side $side
    for ((y = 0; y < side; y++)); do echo "$row"; done
} >out/flat.asc
run dunes out/flat.asc out/dunes.tif --sand 3 --duration 0.25
run shade out/dunes.tif out/dunes.png --azimuth 270 --elevation 30 --exaggeration 2 --albedo 0.5

# A model, a knot, seen from above, and the same with the terrain's relief for a skin.
awk 'BEGIN {
    around = 600; across = 48; turn = 6.283185307
    for (i = 0; i < around; ++i) {
        t = turn * i / around
        x = sin(t) + 2 * sin(2 * t); y = cos(t) - 2 * cos(2 * t); z = -sin(3 * t)
        # The direction along the knot, and two across it.
        ax = cos(t) + 4 * cos(2 * t); ay = -sin(t) + 4 * sin(2 * t); az = -3 * cos(3 * t)
        a = sqrt(ax * ax + ay * ay + az * az); ax /= a; ay /= a; az /= a
        bx = ay; by = -ax; b = sqrt(bx * bx + by * by); bx /= b; by /= b
        cx = -az * by; cy = az * bx; cz = ax * by - ay * bx
        for (j = 0; j < across; ++j) {
            c = 0.6 * cos(turn * j / across); s = 0.6 * sin(turn * j / across)
            printf "v %.5f %.5f %.5f\n", x + c * bx + s * cx, y + c * by + s * cy, z + s * cz
        }
    }
    for (i = 0; i < around; ++i)
        for (j = 0; j < across; ++j) {
            p = i * across + j + 1; q = i * across + (j + 1) % across + 1
            r = (i + 1) % around * across + (j + 1) % across + 1; o = (i + 1) % around * across + j + 1
            printf "f %d %d %d\nf %d %d %d\n", p, q, o, q, r, o
        }
}' >out/knot.obj
run mesh out/knot.obj out/knot.tif --size 900x640 --rotate-x 50 --rotate-z 30 --supersample --preview out/knot.png
run mesh out/knot.obj out/knot_of_rock.tif --size 900x640 --rotate-x 50 --rotate-z 30 --supersample \
    --displacement "$terrain" --displacement-amount 2 --displacement-bias -0.015 --preview out/knot_of_rock.png

# The terrain from 20,000 of its points, each triangle in one colour of its picture, and a normal map of the terrain on a
# model of every twelfth of its rows and columns.
run dunes "$terrain" out/terrain.asc --sand 0 --duration 0
awk 'BEGIN { srand(7); cell = 83 }
    NR > 6 { for (i = 1; i <= NF; ++i) if (rand() < 0.15) printf "%.1f,%.1f,%s\n", i * cell, -(NR - 6) * cell, $i }
' out/terrain.asc >out/points.csv
run points out/points.csv out/points.tif --columns 512 --image out/heights.png --image-out out/triangles.png \
    --preview out/points.png
awk 'BEGIN { step = 12 }
    NR > 6 && (NR - 7) % step == 0 {
        for (across = 0; across * step < NF; ++across) printf "v %d %d %s\n", across * step, 7 - NR, $(across * step + 1)
        ++down
    }
    END {
        for (y = 0; y + 1 < down; ++y)
            for (x = 0; x + 1 < across; ++x) {
                a = y * across + x + 1
                printf "f %d %d %d\nf %d %d %d\n", a, a + across, a + 1, a + 1, a + across, a + across + 1
            }
    }' out/terrain.asc >out/coarse.obj
run bake out/coarse.obj "$terrain" out/normals.png --up z

# Stamps, a median, and the terrain rebuilt out of cells of rock.
printf 'ncols 5\nnrows 5\nxllcorner 0\nyllcorner 0\ncellsize 1\n%s\n' \
    '0 40 40 40 0' '40 90 90 90 40' '40 90 120 90 40' '40 90 90 90 40' '0 40 40 40 0' >out/hill.asc
run stamp "$terrain" out/hills.tif --stamps out/hill.asc --count 300 --seed 2 --preview out/hills.png
run median out/hills.tif out/median.tif --radius 6 --preview out/median.png
run cells "$terrain" out/cells.tif --density 40 --layers 10 --random-out out/cell_numbers.tif
run shade out/cells.tif out/cells.png "${light[@]}"
run preview out/cell_numbers.tif out/cell_numbers.png --flat

cat <<END

out/before.png               the terrain in data/jacksboro.tif
out/winter_afternoon.png     the same on the afternoon of the 21st of December, at its true latitude
out/sunlight_year.png        the light of a year, from the least to the greatest, and sunlight_midwinter.png that of 21 days
out/after.png                after its slopes have failed; difference.png is what that changed: red is loss, blue is gain
out/weathered.png            after its slopes have weathered; depth.png is the loose cover, wear.png what came loose
out/mountains.png            eroded into young mountains (1024 columns), terraces.png and plains.png into those (512)
out/flow.png                 where water gathers; washed.png is the picture heights.png carried downhill
out/rocks.png                rocks at the foot of slopes, 450 m wide
out/dunes.png                dunes grown on a sheet of sand
out/knot.png                 a model as a height field; knot_of_rock.png with the terrain's relief for a skin
out/points.png               the terrain from 20,000 of its points; triangles.png with one colour a triangle
out/normals.png              its normal map on a coarse model of it
out/hills.png                hills stamped on it, and median.png without its small forms
out/cells.png                rebuilt out of cells of rock; cell_numbers.png has a colour for each
END
