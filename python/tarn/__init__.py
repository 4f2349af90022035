"""Tarn.oneAPI from Python: simulations and renderings of terrain, numpy in and out.

    import tarn
    eroded = tarn.erode(heights, cell_size=30.0, progress=True)
    picture = tarn.shade(eroded.heights, cell_size=30.0).image

`help(tarn.erode)` tells what a function takes and gives. What all of them take stands in `help(tarn.computations)`.
"""
from ._declarations import VERSION as __version__
from ._library import Cancelled, Error, OutOfMemory, devices
from .computations import (
    bake,
    cells,
    colour,
    debris,
    displaced_mesh,
    dunes,
    erode,
    flow,
    median,
    mesh,
    points,
    shade,
    shape,
    stamp,
    sunlight,
    weather,
)

__all__ = [
    "Cancelled",
    "Error",
    "OutOfMemory",
    "bake",
    "cells",
    "colour",
    "debris",
    "devices",
    "displaced_mesh",
    "dunes",
    "erode",
    "flow",
    "median",
    "mesh",
    "points",
    "shade",
    "shape",
    "stamp",
    "sunlight",
    "weather",
]
