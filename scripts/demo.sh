#!/usr/bin/env bash
# Builds the library and the tool, works on the terrain in data/, and writes grids and pictures to out/.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh
cmake --preset release
cmake --build --preset release --parallel "$(nproc)" --target tarn

tarn=build/bin/tarn
terrain=data/jacksboro.tif
light=(--exaggeration 3)
mkdir -p out

echo
"$tarn" devices
echo
"$tarn" shape "$terrain" out/shaped.tif
"$tarn" preview "$terrain" out/before.png "${light[@]}"
"$tarn" preview out/shaped.tif out/after.png "${light[@]}"
"$tarn" preview out/shaped.tif out/difference.png --difference "$terrain"

"$tarn" weather "$terrain" out/weathered.tif --depth-out out/depth.tif --wear-out out/wear.tif
"$tarn" preview out/weathered.tif out/weathered.png "${light[@]}"
for grid in depth wear; do # colours alone, without relief
    "$tarn" preview out/$grid.tif out/$grid.png --altitude 90
done

# A flat sheet of sand, 512 x 512 cells of a metre.
side=512
row=$(printf '0 %.0s' $(seq $side))
{
    printf 'ncols %d\nnrows %d\nxllcorner 0\nyllcorner 0\ncellsize 1\n' $side $side
    for ((y = 0; y < side; y++)); do echo "$row"; done
} >out/flat.asc
start=$SECONDS
"$tarn" dunes out/flat.asc out/dunes.tif --sand 3 --duration 0.25
dune_seconds=$((SECONDS - start))
"$tarn" preview out/dunes.tif out/dunes.png --azimuth 270 --altitude 30 --exaggeration 2 --grey

cat <<END

out/shaped.tif        the shaped grid, heights in metres
out/before.png        the terrain in data/jacksboro.tif, shaded
out/after.png         the same after its slopes have failed
out/difference.png    after minus before: red is loss, blue is gain
out/weathered.tif     the terrain after its slopes have weathered, and its picture weathered.png
out/depth.tif         the loose cover on it in metres, and its picture depth.png
out/wear.tif          what was loosened in metres, and its picture wear.png
out/dunes.tif         dunes grown on a sheet of sand in $dune_seconds s, and their picture dunes.png
END
