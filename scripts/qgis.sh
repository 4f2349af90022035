#!/usr/bin/env bash
# Packs the plugin for QGIS as the zip that QGIS installs (Plugins > Manage and Install Plugins > Install from ZIP). The
# package and the library go with it. The zip is for processors like the one it was built for: see TARN_ARCH.
#   scripts/qgis.sh [BUILD [ZIP]]      build and build/qgis/tarn_terrain.zip if not given
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=${1:-build}
zip=${2:-$build/qgis/tarn_terrain.zip}

if [[ $build == build ]]; then
    scripts/setup.sh
    cmake --preset release
    cmake --build --preset release --parallel "$(nproc)" --target tarn_qgis
fi
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cp -r "$build/qgis/tarn_terrain" "$stage"
mkdir "$stage/tarn_terrain/lib"
cp -r "$build/python/tarn" "$stage/tarn_terrain/lib"
cp --dereference "$build/lib/libTarn.oneAPI.so" "$stage/tarn_terrain/lib/tarn"
find "$stage" -name __pycache__ -prune -exec rm -r {} +
rm -f "$zip"
python3 -m zipfile -c "$zip" "$stage/tarn_terrain"
echo "$zip"
