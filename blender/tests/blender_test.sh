#!/usr/bin/env bash
# The add-on in Blender without a display: a terrain from a file, computed as the commands compute it.
#   blender_test.sh BUILD
set -euo pipefail
build=$1
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
command -v blender >/dev/null || { echo "blender is missing: skipped"; exit 77; }
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
mkdir "$out/addons"
ln -s "$build/blender/tarn_terrain" "$out/addons/tarn_terrain"

terrain=$here/../../data/jacksboro.tif
scale=(--cell-size 80 --height-unit 1)
"$build/bin/tarn" -q erode "$terrain" "$out/eroded.tif" "${scale[@]}" --iterations 5 --flow-out "$out/flow.tif"
"$build/bin/tarn" -q weather "$out/eroded.tif" "$out/weathered.tif" "${scale[@]}"
"$build/bin/tarn" -q debris "$out/weathered.tif" "$out/rocks.tif" "${scale[@]}" --count 100
export BLENDER_USER_SCRIPTS=$out PYTHONPATH=$build/python PYTHONDONTWRITEBYTECODE=1
blender --background --factory-startup --python-use-system-env --python-exit-code 1 --python "$here/in_blender.py" -- \
    "$terrain" "$out" >"$out/log" 2>&1 || { cat "$out/log"; exit 1; }
