#!/usr/bin/env python3
"""How steep ground and the sun of a year go together: a notebook as a script, in cells.

a_year_of_sun.py IN.tif FIGURE.png
"""
# %% The terrain
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
import rasterio
import tarn

with rasterio.open(sys.argv[1]) as file:
    heights = file.read(1).astype("float32")
cell_size, latitude = 83.0, 36.4

# %% Light of the whole year, and of its darkest weeks
year = tarn.sunlight(heights, cell_size=cell_size, latitude=latitude)
midwinter = tarn.sunlight(heights, cell_size=cell_size, latitude=latitude, first_day=345, last_day=365)

# %% Slopes by the side that they face
down_y, down_x = np.gradient(-heights, cell_size)
slope = np.degrees(np.arctan(np.hypot(down_x, down_y)))
faces_south = down_y > np.abs(down_x)
faces_north = -down_y > np.abs(down_x)

# %% Draw
figure, (left, right) = plt.subplots(1, 2, figsize=(11, 4.5), layout="constrained")
image = left.imshow(midwinter / year, cmap="inferno")
left.set_title("share of the year's mean light that midwinter has")
figure.colorbar(image, ax=left)
for name, side in (("south", faces_south), ("north", faces_north)):
    bins = np.arange(0, 30, 3)
    means = [midwinter[side & (slope >= low) & (slope < low + 3)].mean() for low in bins]
    right.plot(bins + 1.5, means, marker="o", label=f"slopes that face {name}")
right.set_xlabel("slope, degrees")
right.set_ylabel("light in midwinter")
right.legend()
figure.savefig(sys.argv[2], dpi=90)
