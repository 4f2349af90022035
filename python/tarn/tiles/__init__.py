"""Terrains larger than memory: the commands of `tarn`, tile by tile, on one machine or on a Dask cluster.

    from tarn import tiles
    tiles.run("erode", "in.tif", "out.vrt", feature_size=2000.0)

`help(tarn.tiles.run)` tells the rest. `python3 -m tarn.tiles` and `tarn-tiles` are the same as a command.
"""
from ._run import Report, TileError, plan, run

__all__ = ["Report", "TileError", "plan", "run"]
