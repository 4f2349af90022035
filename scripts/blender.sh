#!/usr/bin/env bash
# Packs the add-on for Blender as the zip that Blender installs (Edit > Preferences > Add-ons > Install), with the package
# and the library in it, and renders the example scene with it, in the background.
#   scripts/blender.sh [BUILD [FOLDER]]      build, and out/blender for the zip, the picture and the scene, if not given
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=${1:-build}
out=${2:-out/blender}

command -v blender >/dev/null || { echo "blender.sh: blender is missing; apt-get install blender python3-gdal" >&2; exit 77; }
if [[ $build == build ]]; then
    scripts/setup.sh
    cmake --preset release
    cmake --build --preset release --parallel "$(nproc)" --target tarn_blender
fi
mkdir -p "$out"
out=$(realpath "$out")
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir -p "$stage/addons"
cp -r "$build/blender/tarn_terrain" "$stage/addons"
mkdir "$stage/addons/tarn_terrain/lib"
cp -r "$build/python/tarn" "$stage/addons/tarn_terrain/lib"
cp --dereference "$build/lib/libTarn.oneAPI.so" "$stage/addons/tarn_terrain/lib/tarn"
find "$stage" -name __pycache__ -prune -exec rm -r {} +
rm -f "$out/tarn_terrain.zip"
python3 -m zipfile -c "$out/tarn_terrain.zip" "$stage/addons/tarn_terrain"
BLENDER_USER_SCRIPTS=$stage blender --background --factory-startup --python-exit-code 1 \
    --python blender/example_scene.py -- data/jacksboro.tif "$out/terrain.png" "$out/terrain.blend" >"$out/blender.log"
echo "$out/tarn_terrain.zip"
echo "$out/terrain.png"
