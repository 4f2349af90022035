"""What each command needs in tiles: its alignment, how far a cell looks, and the numbers of the whole for a window.

A window gives the bits of the whole where three things hold. Its pyramid halves as that of the whole does: tiles and
overlaps lie on multiples of the coarsest level's cells. The overlap reaches as far as a cell's result does. And the
library gets the same numbers: it works out the size of a cell and the count of levels from the width of the grid, in
floats, so a window asks for the terrain size and the feature size that give the same floats with its own width.
"""
from __future__ import annotations

import math
from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from types import SimpleNamespace
from typing import Any

import numpy as np

import tarn

from .._grids import halvings, round_up
from ..computations import _day, _hour, _scatter, _steep_slope, _sun_at, _tints
from ._layout import Tile, place_number

F = np.float32
UNBOUNDED = math.inf


@dataclass(frozen=True)
class Whole:
    """The raster as one call would take it."""

    shape: tuple[int, int]
    cell_size: float
    height_unit: float
    has_holes: bool
    tile: int  # the side that is asked for, which features that nobody has named follow
    extent: tuple[float, float]  # lowest and highest cell, for commands that ask for it

    @property
    def longer(self) -> int:
        return max(self.shape)


@dataclass(frozen=True)
class Plan:
    shape: tuple[int, int]  # of the whole, padded as one call would
    align: int  # tiles and overlaps are multiples of it
    reach: float  # cells around a cell that its result depends on
    overlap: int  # what is taken unless the caller says otherwise


Options = dict[str, Any]


@dataclass(frozen=True)
class Command:
    function: Callable
    plan: Callable[[Whole, Options], Plan]
    bytes_per_cell: int  # of the window: the library's grids, those of the package, and the results
    #: The size of a cell and of features that make a window of a width work as the whole; None if there are none.
    like_whole: Callable[[Whole, Plan, Options, int], Options | None] = lambda whole, plan, options, width: {}
    main: str | None = "heights"  # field of the result that OUT gets; None: the result itself
    outputs: dict[str, str] = field(default_factory=dict)  # further fields, by the option that names their file
    grids: tuple[str, ...] = ()  # options that are rasters of the same size
    shares: bool = True  # whether these are factors from 0 to 1, which integers are scaled to
    #: Options that differ from tile to tile.
    vary: Callable[[Tile, Options, np.ndarray], Options] = lambda tile, options, cells: {}
    owned: Callable | None = None  # keeps of a window's result what belongs to the tile
    highest: bool = False  # parts are merged by the highest cell, not by their weights
    unmixed: tuple[str, ...] = ()  # fields that are taken from one tile each, since a mean of them means nothing
    scaled: bool = True  # takes cell_size and height_unit
    needs_extent: bool = False
    needs_slopes: bool = False
    wider: int = 0


# The library's own operations, in floats and in its order.


def _cell_in_heights(size: F, width: int, unit: F) -> F:
    return size / (F(width) * unit)


def _near(value: float) -> Iterable[F]:
    """Floats around a value, the nearest first."""
    up = down = F(value)
    yield up
    for _ in range(4):
        up, down = np.nextafter(up, F(np.inf)), np.nextafter(down, F(-np.inf))
        yield up
        yield down


def _as_double(wanted: F, preferred: float) -> float:
    """The number nearest to `preferred` that is narrowed to a given float."""
    low = (float(np.nextafter(wanted, F(-np.inf))) + float(wanted)) / 2
    high = (float(np.nextafter(wanted, F(np.inf))) + float(wanted)) / 2
    margin = (high - low) * 1e-6
    return min(max(preferred, low + margin), high - margin)


def _pyramid_like_whole(whole: Whole, plan: Plan, options: Options, width: int) -> Options | None:
    """For weather: its levels are log2(width * feature_size / terrain_size)."""
    unit, columns = F(whole.height_unit), plan.shape[1]
    size, feature = F(whole.cell_size * columns), F(options["feature_size"])
    cell, levels = _cell_in_heights(size, columns, unit), F(columns) * feature / size
    for near_size in _near(whole.cell_size * width):
        if _cell_in_heights(near_size, width, unit) != cell:
            continue
        cell_size = _as_double(near_size, whole.cell_size * width) / width
        for near_feature in _near(float(levels) * float(near_size) / width):
            feature_size = _as_double(near_feature, options["feature_size"])
            same_halvings = 1 << halvings(feature_size / cell_size) == plan.align
            if F(width) * near_feature / near_size == levels and same_halvings:
                return {"cell_size": cell_size, "feature_size": feature_size}
    return None


def _shaper_numbers(cell_size: float, unit: float, feature: float, width: int) -> tuple[F, F, F]:
    """Divisor, numerator and multiplier as `tarn.shape` hands them over."""
    row_length = cell_size * width
    return F(unit), F(row_length), F(feature / row_length * unit)


def _shaper_levels(width: int, multiplier: F, divisor: F) -> int:
    return math.ceil(math.log2(width * float(multiplier) / float(divisor)))


def _shaper_like_whole(whole: Whole, plan: Plan, options: Options, width: int) -> Options | None:
    columns = plan.shape[1]
    divisor, numerator, multiplier = _shaper_numbers(
        whole.cell_size, whole.height_unit, options["feature_size"], whole.shape[1]
    )
    if columns != whole.shape[1]:
        growth = F(columns) / F(whole.shape[1])
        numerator, multiplier = numerator * growth, multiplier / growth
    cell, levels = _cell_in_heights(numerator, columns, divisor), F(columns) * multiplier / divisor
    for near_size in _near(float(numerator) / columns * width):
        if _cell_in_heights(near_size, width, divisor) != cell:
            continue
        cell_size = float(near_size) / width
        for near_multiplier in _near(float(levels) * float(divisor) / width):
            feature_size = float(near_multiplier) * (cell_size * width) / whole.height_unit
            given = _shaper_numbers(cell_size, whole.height_unit, feature_size, width)
            same_levels = 1 << max(_shaper_levels(width, given[2], divisor) - 1, 0) == plan.align
            if given[1] == near_size and F(width) * given[2] / divisor == levels and same_levels:
                return {"cell_size": cell_size, "feature_size": feature_size}
    return None


def _light_like_whole(whole: Whole, plan: Plan, options: Options, width: int) -> Options | None:
    """Normals take terrain_size * 32 / width, shadows terrain_size / (width * terrain_height)."""
    unit, columns = F(options.get("exaggeration", 1.0) * whole.height_unit), plan.shape[1]
    size = F(whole.cell_size * columns)
    for near_size in _near(whole.cell_size * width):
        if near_size * F(32) / F(width) == size * F(32) / F(columns) and _cell_in_heights(
            near_size, width, unit
        ) == _cell_in_heights(size, columns, unit):
            return {"cell_size": float(near_size) / width}
    return None


def _pyramid_reach(steps: list[int]) -> int:
    """Cells of the full size that a result depends on, for so many cells' reach on each level, the coarsest first.

    A level takes its start from the coarser one, two cells across, and from the detail there, which is a mean of cells
    up to two further away.
    """
    reach = 0
    for step in reversed(steps):
        reach = -(-reach // 2) + 2 + step
    return (reach + 3) << (len(steps) - 1)


def _multiple(cells: float, align: int) -> int:
    return math.ceil(max(cells, 0) / align) * align


def _plan_shape(whole: Whole, options: Options) -> Plan:
    options.setdefault("feature_size", min(whole.longer, whole.tile) * whole.cell_size / 32)
    divisor, _, multiplier = _shaper_numbers(
        whole.cell_size, whole.height_unit, options["feature_size"], whole.shape[1]
    )
    levels = math.log2(whole.shape[1] * float(multiplier) / float(divisor))
    align = 1 << max(math.ceil(levels) - 1, 0)
    levels = levels if levels >= 1 else math.tanh(levels - 1) + 1
    count, fraction = max(math.ceil(levels), 1), levels - math.floor(levels)
    base = 0.25 * (abs(options.get("rate", -0.5)) + 1)
    iterations = 64 / sum(base**k for k in range(count))
    steps = [
        math.ceil(0.5 ** max(k - 1 + fraction, 0) * (1 if k else fraction) * iterations) + 1 for k in range(count)
    ]
    reach = _pyramid_reach(steps)
    overlap = _multiple(reach, align)
    if overlap > whole.tile // 2:
        overlap = _multiple(4 * options["feature_size"] / whole.cell_size, align)
    return Plan(round_up(whole.shape, align), align, reach, overlap)


def _plan_weather(whole: Whole, options: Options) -> Plan:
    options.setdefault("feature_size", min(whole.longer, whole.tile) * whole.cell_size / 32)
    features = options["feature_size"] / whole.cell_size
    align = 1 << halvings(features)
    levels = math.log2(features)
    full = levels if levels >= 1 else math.exp(levels - 1)
    fraction = full - math.floor(full) or 1.0
    count = max(math.ceil(levels), 1)

    def iterations(k: int) -> int:
        x = max(k - 2.5 + fraction, 0)
        less = math.exp(-6 * x) / 6 + (x - 1 / 6)
        return math.ceil((1 if k else fraction) * options.get("duration", 0.02) * 2560 * 0.5**less) + 1

    # A cell's inflow depends on what its neighbours shed, which depends on theirs: two cells an iteration.
    reach = _pyramid_reach([2 * iterations(k) for k in range(count)])
    overlap = min(_multiple(reach, align), _multiple(8 * features, align))
    return Plan(round_up(whole.shape, align), align, reach, overlap)


def _plan_erode(whole: Whole, options: Options) -> Plan:
    options.setdefault("feature_size", min(whole.longer, whole.tile) * whole.cell_size / 20)
    features = options["feature_size"] / whole.cell_size
    align = 1 << halvings(features / 2)
    return Plan(round_up(whole.shape, align), align, UNBOUNDED, _multiple(2 * features, align))


def _plan_dunes(whole: Whole, options: Options) -> Plan:
    return Plan(whole.shape, 1, UNBOUNDED, 256)


def _plan_debris(whole: Whole, options: Options) -> Plan:
    largest = (options.get("max_size") or 8 * whole.cell_size) / whole.cell_size
    side = whole.longer
    return Plan((side, side), 1, UNBOUNDED, max(64, math.ceil(8 * largest)))


def _plan_median(whole: Whole, options: Options) -> Plan:
    tile = 32
    reach = options.get("radius", 3) * options.get("iterations", 1)
    side = _multiple(whole.longer, tile)
    return Plan((side, side), tile, reach, _multiple(reach, tile))


def _sun(options: Options) -> tuple[float, float, float]:
    turn, tilt = math.radians(options.get("azimuth", 315.0)), math.radians(options.get("elevation", 45.0))
    return math.cos(tilt) * math.sin(turn), -math.cos(tilt) * math.cos(turn), math.sin(tilt)


def _plan_shade(whole: Whole, options: Options) -> Plan:
    if "date" in options:
        if "latitude" not in options:
            raise ValueError("date needs latitude")
        place = options.pop("latitude"), _day(options.pop("date"), "date"), _hour(options.pop("time", "12:00"))
        options["azimuth"], options["elevation"] = _sun_at(*place)
    options["extent"] = whole.extent
    align = 1 << max(options.get("hybrid_levels", 0) - 1, 0)
    sunlit = not options.get("no_sun") and not options.get("no_shadows")
    occluded = not options.get("no_sky") and not options.get("no_occlusion") and "ao" not in options
    reach, overlap = 1.0, 1.0
    if sunlit:
        x, y, z = _sun(options)
        along, athwart = sorted(abs(side) for side in map(F, (x, y)))[::-1]
        fall = z / max(along, F(1e-6)) * whole.cell_size / whole.height_unit / options.get("exaggeration", 1.0)
        overlap = (whole.extent[1] - whole.extent[0]) / fall + 2 if fall > 0 else whole.longer
        # Lines of sight go through the same points of the cells from every start only along the axes and diagonals.
        is_parallel = options.get("rings", -8) <= 0
        on_lattice = int(F(athwart / along) * F(65536)) in (0, 65536)
        reach = overlap if is_parallel and on_lattice else UNBOUNDED
    if occluded:
        reach, overlap = UNBOUNDED, max(overlap, 256)
    if reach == UNBOUNDED:
        overlap = min(overlap, whole.tile / 2)
    return Plan(whole.shape, align, reach, _multiple(overlap, align))


def _plan_sunlight(whole: Whole, options: Options) -> Plan:
    return Plan(whole.shape, 2, UNBOUNDED, 512)


def _tinted(tile: Tile, options: Options, cells: np.ndarray) -> Options:
    """Colours by height follow the range of the whole."""
    if "albedo" in options:
        return {}
    lowest, highest = options["extent"]
    tints = _tints(np.nan_to_num(cells, nan=lowest), lowest, highest)
    return {"albedo": np.ascontiguousarray(np.moveaxis(tints, 0, 2))}


def _plan_stamp(whole: Whole, options: Options) -> Plan:
    sheet = np.asarray(options["stamps"])
    rows = options.get("stamp_height") or sheet.shape[0]
    if ("points" in options) == ("count" in options):
        raise ValueError("either points or count must say where the stamps go")
    if "count" in options:
        grid = SimpleNamespace(height=whole.shape[0], width=whole.shape[1])
        options["points"] = _scatter(options.pop("count"), options.pop("seed", 1), grid, sheet.shape[0] // rows)
    # A stamp's height is that of the ground at its centre.
    reach = max(rows, sheet.shape[1]) // 2 + 2
    return Plan(whole.shape, 1, reach, reach)


def _shifted_points(tile: Tile, options: Options, cells: np.ndarray) -> Options:
    """All stamps, since the number of a stamp in the list gives it its random number."""
    places = np.array(options["points"], np.float64, ndmin=2)
    places[:, :2] = places[:, :2].astype(F) - np.array([tile.window.left, tile.window.top], np.float64)
    return {"points": places}


def _seed(tile: Tile, options: Options, cells: np.ndarray) -> Options:
    return {"seed": place_number(options.get("seed", 1), tile.row, tile.column)}


def _rocks(tile: Tile, options: Options, cells: np.ndarray) -> Options:
    height, width = tile.window.shape
    return _seed(tile, options, cells) | {"count": round(options["rocks_per_cell"] * height * width)}


def _own_rocks(tile: Tile, ground: np.ndarray, strewn):
    """The rocks whose middle lies in the tile. The others are those of the neighbours, which know them whole."""
    rows, columns = np.nonzero(strewn.rock_id)
    _, number = np.unique(strewn.rock_id[rows, columns], return_inverse=True)
    count = np.maximum(np.bincount(number), 1)
    inner = tile.core.within(tile.window)
    is_own = np.ones(len(count), bool)
    for place, span in ((rows, inner[0]), (columns, inner[1])):
        middle = np.bincount(number, place) / count
        is_own &= (middle >= span.start) & (middle < span.stop)
    foreign = ~is_own[number]
    at = rows[foreign], columns[foreign]
    for cells, value in ((strewn.heights, ground[at]), (strewn.rock_id, 0), (strewn.coverage, 0)):
        cells[at] = value
    return strewn


COMMANDS = {
    "shape": Command(tarn.shape, _plan_shape, 28, _shaper_like_whole, main=None, grids=("mask",)),
    "weather": Command(
        tarn.weather,
        _plan_weather,
        42,
        _pyramid_like_whole,
        outputs={"depth_out": "depth", "wear_out": "wear"},
        grids=("erosion_mask", "absorption_mask"),
    ),
    "erode": Command(
        tarn.erode,
        _plan_erode,
        60,
        outputs={"flow_out": "flow", "sediment_out": "sediment", "wear_out": "wear"},
        grids=("spawn_map",),
        vary=_seed,
    ),
    "dunes": Command(
        tarn.dunes,
        _plan_dunes,
        60,
        outputs={"sand_out": "sand", "wind_trace": "wind_trace"},
        grids=("sand",),
        shares=False,
        unmixed=("wind_trace",),
        wider=61,
    ),
    "debris": Command(
        tarn.debris,
        _plan_debris,
        30,
        outputs={"rock_id_out": "rock_id", "coverage_out": "coverage", "speed_out": "speed"},
        vary=_rocks,
        owned=_own_rocks,
        highest=True,
        needs_slopes=True,
    ),
    "shade": Command(
        tarn.shade,
        _plan_shade,
        105,
        _light_like_whole,
        main="image",
        outputs={"diffuse_out": "diffuse", "shadow_out": "shadow", "ao_out": "ao"},
        grids=("ao",),
        vary=_tinted,
        needs_extent=True,
    ),
    "sunlight": Command(tarn.sunlight, _plan_sunlight, 26, main=None),
    "median": Command(tarn.median, _plan_median, 20, main=None, scaled=False),
    "stamp": Command(
        tarn.stamp,
        _plan_stamp,
        20,
        outputs={"ids_out": "ids"},
        vary=_shifted_points,
        unmixed=("ids",),
        scaled=False,
    ),
}

#: Why the others are not run in tiles.
REASONS = {
    "flow": "flow gathers over whole catchments, which do not end where tiles do; run `tarn flow` on one catchment, or on "
    "a coarser grid of the whole",
    "colour": "colours follow the water over whole catchments; run `tarn colour` on one catchment",
    "cells": "the random numbers of the lattice are counted from the corner of the grid, so cells would not meet at the "
    "borders of tiles",
    "mesh": "a model is fitted to the whole frame, and drawn from one file; run `tarn mesh`",
    "points": "points are triangulated all together, from one file; run `tarn points`",
    "bake": "the normals are those of one model; run `tarn bake`",
    "preview": "a preview is small; run `tarn preview` on an overview, or `tarn-tiles shade`",
}