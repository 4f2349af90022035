#!/usr/bin/env python3
"""Erodes the terrain of a GeoTIFF, and writes the result and a lit picture of it.

erode_and_shade.py IN.tif OUT.tif PICTURE.png
"""
import sys

import numpy as np
import rasterio
import tarn

source, target, picture = sys.argv[1:]
with rasterio.open(source) as file:
    heights, profile = file.read(1, masked=True).astype("float32").filled(np.nan), file.profile
    # Degrees become metres; at other latitudes than the equator's, cells are narrower than that.
    cell_size = file.res[1] * (111_320 if file.crs and file.crs.is_geographic else 1)

eroded = tarn.erode(heights, cell_size=cell_size, iterations=20, progress=sys.stderr.isatty())
lit = tarn.shade(eroded.heights, cell_size=cell_size, exaggeration=2).image

with rasterio.open(target, "w", **{**profile, "dtype": "float32", "nodata": np.nan}) as file:
    file.write(eroded.heights, 1)
pixels = (255 * np.clip(lit, 0, 1) ** (1 / 2.2)).astype("uint8")
with rasterio.open(
    picture, "w", driver="PNG", height=pixels.shape[0], width=pixels.shape[1], count=3, dtype="uint8"
) as file:
    file.write(np.moveaxis(pixels, 2, 0))
