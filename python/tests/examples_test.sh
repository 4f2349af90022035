#!/usr/bin/env bash
# Runs the examples in Python on the sample terrain, and looks at what they write.
set -euo pipefail
python=$1
examples=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../examples/python" && pwd)
terrain=$examples/../../data/jacksboro.tif
"$python" -c 'import rasterio, matplotlib' || { echo "rasterio or matplotlib is missing: skipped"; exit 77; }
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

"$python" "$examples/erode_and_shade.py" "$terrain" "$out/eroded.tif" "$out/eroded.png"
"$python" "$examples/a_year_of_sun.py" "$terrain" "$out/sun.png"
"$python" - "$out" <<'END'
import sys
import rasterio

with rasterio.open(f"{sys.argv[1]}/eroded.tif") as file:
    assert file.crs and 200 < file.read(1).mean() < 600
for name in ("eroded", "sun"):
    with rasterio.open(f"{sys.argv[1]}/{name}.png") as file:
        assert file.read(1).std() > 10
END
