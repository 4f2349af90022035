#!/usr/bin/env bash
# Builds the library and the tool, shapes the terrain in data/, and writes grids and pictures to out/.
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

cat <<END

out/shaped.tif        the shaped grid, heights in metres
out/before.png        the terrain in data/jacksboro.tif, shaded
out/after.png         the same after its slopes have failed
out/difference.png    after minus before: red is loss, blue is gain
END
