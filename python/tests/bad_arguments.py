"""Calls every function with one argument after another turned bad. Prints the numbers of calls and of results."""
import inspect
import warnings

import numpy as np
import tarn

warnings.simplefilter("ignore")
grid = np.add.outer(np.arange(12.0), np.arange(9.0) ** 2).astype("f4")
GOOD = {
    "heights": grid,
    "sand": 1.0,
    "image": np.ones((12, 9, 3)),
    "latitude": 45.0,
    "stamps": np.ones((3, 3)),
    "vertices": [(0, 0, 0), (1, 0, 1), (0, 1, 0)],
    "triangles": [(0, 1, 2)],
    "normals": [(0, 0, 1)] * 3,
    "displacement": grid,
    "samples": np.random.default_rng(1).random((20, 3)),
    "points": [(3, 3)],
    "size": (9, 12),
    "columns": 20,
    "duration": 0.001,
    "iterations": 1,
    "count": 3,
}
SCALARS = [None, 0, -1, 1, 2**31, 2**63, 1e39, -1e30, float("nan"), float("inf"), True]
OTHERS = ["", "x", b"x", [], (), {}, [[]], [1, "x"], object()]
ARRAYS = [
    *(np.zeros(shape) for shape in ((0, 9), (12, 9, 2), (9, 12), (1, 1), (12, 9, 0))),
    *(np.full((12, 9), value) for value in (1e38, np.nan, -np.inf, 255)),
    *(grid.astype(kind) for kind in ("c8", "S3", "u1", bool, object)),
    grid[::-1, ::-1],
    np.ma.masked_less(grid, 30),
]
# Such a number asks for long or large work there, and is to get it.
WORK = {
    "median.iterations", "stamp.count", "points.columns", "mesh.size", "debris.count", "weather.duration",
    "dunes.duration", "erode.iterations", "debris.max_size", "cells.density", "cells.layers", "flow.flow_length",
    "colour.flow_length",
}  # fmt: skip

calls = results = 0
for name in sorted(set(tarn.__all__) - {"Cancelled", "Error", "OutOfMemory", "devices"}):
    function = getattr(tarn, name)
    parameters = inspect.signature(function).parameters
    basis = {key: value for key, value in GOOD.items() if key in parameters}
    if name == "stamp":
        del basis["count"]
    for key in parameters:
        for value in (*SCALARS, *OTHERS, *ARRAYS):
            if key == "progress" or (f"{name}.{key}" in WORK and np.ndim(value) == 0 and value in SCALARS[4:8]):
                continue
            calls += 1
            try:
                function(**{**basis, key: value})
                results += 1
            except (ValueError, TypeError, OverflowError, tarn.Error):
                pass
            except BaseException:
                print(f"{name}({key}={value!r})")
                raise
print(calls, results)
