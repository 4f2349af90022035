#!/usr/bin/env python3
"""Every computation of the library once, on a small terrain."""
import numpy as np
import tarn

y, x = np.mgrid[0:64, 0:64]
heights = np.maximum(50, 400 - 20 * np.hypot(x - 32, y - 32))  # metres
cell_size = 10.0  # metres

shaped = tarn.shape(heights, cell_size=cell_size)

weathered, depth, wear = tarn.weather(heights, cell_size=cell_size)

eroded, flow, sediment, wear = tarn.erode(heights, cell_size=cell_size, iterations=30, seed=1, progress=True)

ground_and_sand, sand, wind_trace = tarn.dunes(heights, sand=3.0, cell_size=cell_size, duration=0.01)

with_rocks, rock_id, coverage, speed = tarn.debris(heights, cell_size=cell_size, count=50, max_size=20.0)

flow_map = tarn.flow(heights)

image = np.stack([heights / 400] * 3, axis=2)  # linear light
streaked = tarn.colour(heights, image, transport=0.7)

image, diffuse, shadow, ao = tarn.shade(heights, cell_size=cell_size, date="06-21", time="08:00", latitude=47.0)

light = tarn.sunlight(heights, cell_size=cell_size, latitude=47.0)

vertices = [(0, 0, 0.1), (1, 0, 0), (1, 1, 0), (0, 1, 0)]
triangles = [(0, 2, 1), (0, 3, 2)]
drawn, noise = tarn.mesh(vertices, triangles, size=(64, 64))

normals = [(0, 0, 1)] * 4
displaced = tarn.displaced_mesh(vertices, triangles, normals, heights, displacement_amount=0.001)

samples = np.random.default_rng(1).random((500, 3)) * (640, 640, 400)
surface, noise, _ = tarn.points(samples, columns=64)

packed_normals, hit_x, hit_y = tarn.bake(vertices, triangles, heights, cell_size=cell_size)

cone = [[0, 4, 0], [4, 9, 4], [0, 4, 0]]  # 0 is a hole
stamped, ids = tarn.stamp(heights, cone, [(20, 30), (40, 10)])

smooth = tarn.median(heights, radius=3)

relief, random = tarn.cells(heights, cell_size=cell_size, density=16)

for name, grid in sorted(globals().copy().items()):
    if isinstance(grid, np.ndarray):
        print(f"{name}: {grid.shape}, {grid.min():g} to {grid.max():g}")
