"""What a worker does: one tile at a time, from its window of the raster to its files."""
from __future__ import annotations

import errno
import functools
import io
import json
import os
import resource
import threading
import time
import zlib
from collections.abc import Iterator
from dataclasses import asdict, dataclass
from typing import Any

import numpy as np

from ..computations import _steep_slope
from . import _raster
from ._commands import COMMANDS, Command
from ._layout import Box, Layout, Tile
from ._raster import Source


class TileError(RuntimeError):
    """A run that could not be finished. The text is one line; what has been finished stays, for the next run."""


@dataclass(frozen=True)
class Job:
    """All that the tiles of a run have in common."""

    command: str
    source: Source
    layout: Layout
    options: dict[str, Any]
    grids: dict[str, Source]  # options that are rasters
    scales: dict[str, int]  # what those of integers are divided by
    folders: dict[str, str]  # where the tiles of a field go
    parts: str | None  # where parts lie until they are merged; None: tiles do not mix

    @functools.cached_property
    def parameters(self) -> str:
        """In one line."""
        return json.dumps(asdict(self), default=lambda array: zlib.crc32(np.ascontiguousarray(array)))

    @functools.cached_property
    def mark(self) -> str:
        """In the names of files, so that a worker that was left behind by a run of other parameters harms nothing."""
        return f"{zlib.crc32(self.parameters.encode()):08x}"

    @property
    def how(self) -> Command:
        return COMMANDS[self.command]

    def path(self, field: str, tile: Tile) -> str:
        return os.path.join(self.folders[field], f"{tile.name}.{self.mark}.tif")

    def part_path(self, field: str, tile: Tile) -> str:
        return os.path.join(self.parts or "", f"{tile.name}.{self.mark}.{field}.npy")

    @property
    def main(self) -> str:
        return next(iter(self.folders))


def tile_key(tile: Tile) -> str:
    return f"tile {tile.name}"


def part_key(tile: Tile) -> str:
    return f"part {tile.name}"


# A worker with several threads would hold several windows.
_one_tile = threading.Lock()


def _on_worker(task):
    """Runs a task with the worker's memory for itself; what fails is told in one line that crosses processes."""

    def run(job: Job, tile: Tile):
        with _one_tile:
            start, busy = time.perf_counter(), time.process_time()
            try:
                record = task(job, tile)
            except Exception as error:  # whatever it is, the client gets a line
                raise TileError(f"tile {tile.row}, {tile.column}: {_line(error)}") from None
            return record | {
                "seconds": time.perf_counter() - start,
                "processor_seconds": time.process_time() - busy,
                "peak_bytes": resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024,
            }

    run.__name__ = run.__qualname__ = task.__name__.strip("_")
    return run


def _line(error: BaseException) -> str:
    if isinstance(error, OSError) and error.errno == errno.ENOSPC:
        return f"the disk of '{os.path.dirname(error.filename or '')}' is full"
    return " ".join(str(error).split()) or type(error).__name__


def _read(source: Source, box: Box) -> np.ndarray:
    try:
        return _raster.read(source.path, box)
    except Exception as error:
        rows = f"rows {box.top} to {box.bottom - 1}, columns {box.left} to {box.right - 1}"
        raise OSError(f"cannot read {rows} of '{source.path}': {_line(error)}") from None


def intact(files: dict[str, int]) -> bool:
    """Whether the files of an earlier run are there, to the bit."""
    return all(_raster.checksum(path) == value for path, value in files.items())


def _survey(job: Job, tile: Tile) -> dict:
    """What the whole has to be asked before tiles can work as it would."""
    cells = _read(job.source, tile.core)
    finite = cells[np.isfinite(cells)]
    result: dict[str, Any] = {"extent": (float(finite.min()), float(finite.max())) if finite.size else None}
    if job.how.needs_slopes and finite.size:
        filled = np.where(np.isfinite(cells), cells, finite.mean()).astype(np.float32)
        scale = np.float32(job.options["height_unit"] / job.options["cell_size"])
        result["slope"] = _steep_slope(filled, np.float32(8), scale)
    result["highest"] = {
        name: float(np.nanmax(_read(grid, tile.core), initial=0)) for name, grid in job.grids.items() if grid.largest_integer
    }
    return result


def _results(job: Job, tile: Tile) -> dict[str, np.ndarray]:
    """The fields of the tile's window."""
    how = job.how
    cells = _read(job.source, tile.window)
    shape = cells.shape
    if not np.isfinite(cells).any():
        blank = np.full(shape, np.nan, np.float32)
        return {field: np.stack([blank] * 3, axis=2) if field == "image" else blank for field in job.folders}
    options = dict(job.options)
    for name, grid in job.grids.items():
        options[name] = _read(grid, tile.window) / np.float32(job.scales.get(name, 1))
    options.update(how.vary(tile, options, cells))
    for name in ("rocks_per_cell", "extent"):  # which `vary` alone asks for
        options.pop(name, None)
    result = how.function(cells, **options)
    if how.owned is not None:
        result = how.owned(tile, cells, result)
    if how.main is None:
        return {job.main: result}
    if how.main == "image":
        result.image[np.isnan(cells)] = np.nan
    return {field: getattr(result, field) for field in job.folders}


def _encoded(cells: np.ndarray) -> np.ndarray:
    """Linear light as sRGB (IEC 61966-2-1) of 8 bits; white where there is no value."""
    light = np.clip(np.nan_to_num(cells, nan=1.0), 0, 1)
    code = np.where(light <= 0.0031308, light * np.float32(12.92), 1.055 * light ** np.float32(1 / 2.4) - 0.055)
    return np.floor(code * 255 + 0.5).astype(np.uint8)


def _write(job: Job, tile: Tile, field: str, cells: np.ndarray) -> tuple[str, int]:
    if field == "image":
        rows = range(0, len(cells), 256)  # the transfer function would take several times the memory of the picture
        bands = np.concatenate([np.moveaxis(_encoded(cells[row : row + 256]), 2, 0) for row in rows], axis=1)
    else:
        bands = np.ascontiguousarray(cells, np.float32)[None]
    path = job.path(field, tile)
    return path, _raster.write_tile(path, bands, tile.core, job.source)


def _make(job: Job, tile: Tile) -> dict:
    """A tile whose cells are its own, or the part of one whose borders are mixed with its neighbours'."""
    results = _results(job, tile)
    if job.parts is None:
        inner = tile.core.within(tile.window)
        written = dict(_write(job, tile, field, results.pop(field)[inner]) for field in job.folders)
        return {"key": tile_key(tile), "files": written}
    inner = job.layout.part(tile).within(tile.window)
    written = {}
    for field in job.folders:
        cells = np.ascontiguousarray(results.pop(field)[inner])
        header = io.BytesIO()
        np.lib.format.write_array_header_1_0(header, np.lib.format.header_data_from_array_1_0(cells))
        path = job.part_path(field, tile)
        written[path] = _raster.write_whole(path, header.getbuffer(), cells.data.cast("B"))
    return {"key": part_key(tile), "files": written}


def _merge(job: Job, tile: Tile) -> dict:
    """A tile out of its own part and those of its neighbours, always added in the same order."""
    around = job.layout.parts_over(tile)

    def parts(field: str) -> list[np.ndarray]:
        return [np.load(job.part_path(field, other), mmap_mode="r") for other in around]

    own = around.index(tile)
    files = {}
    heights = parts(job.main)
    for field in job.folders:
        says = parts(field)
        merged = np.empty(tile.core.shape + says[own].shape[2:], np.float32)
        for strip in _strips(tile.core):
            into = merged[strip.within(tile.core)]
            common = [job.layout.part(other).common(strip) for other in around]
            here = [box.within(strip) for box in common]
            there = [box.within(job.layout.part(other)) for box, other in zip(common, around)]
            cells = [part[place] for part, place in zip(says, there)]
            if field in job.how.unmixed:
                into[...] = cells[own]
            elif job.how.highest:
                _choose_highest(into, here, cells, [part[place] for part, place in zip(heights, there)], own)
            else:
                _mix(into, here, cells, [job.layout.weights(*pair) for pair in zip(around, common)])
        path, checksum = _write(job, tile, field, merged)
        files[path] = checksum
    return {"key": tile_key(tile), "files": files}


def _strips(box: Box) -> Iterator[Box]:
    """A box in pieces that take little memory."""
    for top in range(box.top, box.bottom, 256):
        yield Box(top, box.left, min(top + 256, box.bottom), box.right)


def _mix(into: np.ndarray, places: list, cells: list[np.ndarray], weights: list[np.ndarray]) -> None:
    total, weight = np.zeros(into.shape), np.zeros(into.shape[:2] + (1,) * (into.ndim - 2))
    for place, part, share in zip(places, cells, weights):
        share = share.reshape(part.shape[:2] + (1,) * (into.ndim - 2))
        total[place] += part * share
        weight[place] += share
    into[...] = total / weight


def _choose_highest(into: np.ndarray, places: list, cells: list[np.ndarray], tops: list[np.ndarray], own: int) -> None:
    """From the part with the highest cell; from the tile's own where they are equal."""
    highest = np.full(into.shape, -np.inf, np.float32)
    for number in (own, *range(len(places))):
        higher = ~(tops[number] <= highest[places[number]])
        into[places[number]][higher] = cells[number][higher]
        highest[places[number]][higher] = tops[number][higher]


survey, make, merge = _on_worker(_survey), _on_worker(_make), _on_worker(_merge)
