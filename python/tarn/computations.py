"""The computations as functions of arrays.

Grids are rows of cells, from north to south, as numpy arrays or anything that numpy can read; an xarray.DataArray gives
DataArrays with its coordinates and attributes. Work is done in float32, without a copy of what is float32 in C order
already. Inputs are never changed. Cells that are masked or not finite are holes: they are filled smoothly for the work,
and are NaN in the results.
"""
from __future__ import annotations

import calendar
import inspect
import math
import operator
import re
from collections.abc import Callable
from typing import NamedTuple, Union

import numpy as np

from ._grids import crop, halvings, like, numbers, pad, resample, round_up, take_grid, take_share
from ._library import call, ffi
from ._progress import reporter

Progress = Union[bool, Callable[[float], object]]
_LARGEST = float(np.finfo(np.float32).max)


class Weathered(NamedTuple):
    heights: np.ndarray  #: surface, loose cover included
    depth: np.ndarray  #: depth of the loose cover, in the unit of the heights
    wear: np.ndarray  #: depth of the ground that was loosened, in the unit of the heights


class Eroded(NamedTuple):
    heights: np.ndarray
    flow: np.ndarray  #: visits of water, 1 for a thousand or more
    sediment: np.ndarray  #: depth of the sediment, in the unit of the heights
    wear: np.ndarray  #: depth that water has cut, less what was shaped away


class Dunes(NamedTuple):
    heights: np.ndarray  #: ground and sand
    sand: np.ndarray  #: depth of the sand, in the unit of the heights
    wind_trace: np.ndarray  #: streamlines of the last wind


class Stamped(NamedTuple):
    heights: np.ndarray
    ids: np.ndarray  #: random number of the stamp that raised a cell, 0 for none


class Cells(NamedTuple):
    heights: np.ndarray
    random: np.ndarray  #: random number of the cell, 0 to 1


def _data(cells: np.ndarray | None):
    return ffi.NULL if cells is None else ffi.cast("float*", ffi.from_buffer(cells))


def _above_zero(**values: float) -> None:
    for name, value in values.items():
        if not 0 < value <= _LARGEST:
            raise ValueError(f"{name} is {value}; it must be above 0")


_COMMON = {
    "heights": "a grid of heights, rows from north to south. Cells that are masked or not finite are holes: filled\n"
    "    smoothly for the work, NaN in the results. A DataArray gives DataArrays. The grid itself is not changed.",
    "cell_size": "size of a cell on the ground, metres, above 0.",
    "height_unit": "metres in one unit of height, above 0.",
    "device": '"cpu", or the `id` of one of `tarn.devices()`.',
    "progress": "True for a bar (of tqdm where it is installed), or a function that takes the percentage. It is\n"
    "    called at every report and a few times a second between them. An exception that it raises, such as\n"
    "    tarn.Cancelled, ends the run and reaches the caller, and so does Ctrl-C.",
}


def _computation(function):
    """Ends a docstring with what many computations take."""
    taken = inspect.signature(function).parameters
    own = function.__doc__
    common = "".join(f"{name}: {text}\n" for name, text in _COMMON.items() if name in taken and f" {name}: " not in own)
    refusals = "Raises ValueError, TypeError, tarn.Error, tarn.OutOfMemory or tarn.Cancelled.\n"
    function.__doc__ = f"{inspect.cleandoc(own)}\n\nCommon to the computations:\n\n{common}\n{refusals}"
    return function


@_computation
def shape(
    heights,
    *,
    cell_size: float = 1.0,
    height_unit: float = 1.0,
    feature_size: float | None = None,
    rate: float = -0.5,
    blend: float = 1.0,
    detail_gain: float = 1.0,
    mask=None,
    device: str = "cpu",
    progress: Progress = False,
) -> np.ndarray:
    """Lets slopes fail, at every scale at once.

    A filter over a Laplacian pyramid (Burt and Adelson, 1983): on each level cells lose height in proportion to slope
    and curvature, and never more than down to their lowest neighbour.

    feature_size: width of the largest landforms to work on, metres, above 0; 1/32 of the longer side if None. Each
        doubling adds a level to the pyramid.
    rate: strength of one step; below 0 slopes wear back from their crests, above 0 they fill up from their feet.
    blend: part of the result in the output, 0 to 1.
    detail_gain: factor on the detail that each finer level adds back, from 0.
    mask: strength per cell, 0 to 1, of the shape of the heights.

    Returns the heights.
    """
    _above_zero(cell_size=cell_size, height_unit=height_unit)
    grid = take_grid(heights)
    row_length = cell_size * grid.width
    feature = max(row_length, cell_size * grid.height) / 32 if feature_size is None else feature_size
    _above_zero(feature_size=feature)
    divisor = np.float32(height_unit)
    numerator = np.float32(row_length)
    multiplier = np.float32(feature / row_length * height_unit)
    levels = math.ceil(math.log2(grid.width * float(multiplier) / float(divisor)))
    most = math.floor(math.log2(min(grid.cells.shape)))
    work = round_up(grid.cells.shape, 1 << min(max(levels - 1, 0), most))
    if work != grid.cells.shape:
        # The rows grow longer, the cells stay as large as they are.
        growth = np.float32(work[1]) / np.float32(grid.width)
        numerator, multiplier = numerator * growth, multiplier / growth
    parameters = ffi.new(
        "thermal_shaper_Parameters*",
        {
            "width": work[1],
            "height": work[0],
            "level_divisor": divisor,
            "scale_numerator": numerator,
            "level_multiplier": multiplier,
            "blend": blend,
            "rate": rate,
            "detail_gain": detail_gain,
        },
    )
    share = take_share(mask, grid.cells.shape, "mask")
    share = None if share is None else pad(share, work)
    cells = pad(grid.cells, work)
    with reporter(progress, "shape") as report:
        call("ThermalShaper_Process", device, _data(cells), _data(share), parameters, progress=report)
    return grid.wrapped(crop(cells, grid.cells.shape))


@_computation
def weather(
    heights,
    *,
    cell_size: float = 1.0,
    height_unit: float = 1.0,
    duration: float = 0.02,
    erosion_rate: float = 1.0,
    curvature_bias: float = 0.5,
    repose_angle: float = 15.0,
    feature_size: float | None = None,
    absorption: float = 0.0,
    erosion_mask=None,
    absorption_mask=None,
    device: str = "cpu",
    progress: Progress = False,
) -> Weathered:
    """Weathers slopes: loosens what is too steep and lets it slide.

    Thermal weathering at all levels of a Laplacian pyramid (Burt and Adelson, 1983), coarsest first.

    duration: length of the run, from 0; 1 is 2560 iterations at coarse levels.
    erosion_rate: strength of the loosening, from 0.
    curvature_bias: 0 to 1; 0: all slopes above the repose angle loosen alike; 1: steep and convex ones more.
    repose_angle: slopes above the arc tangent of this angle in radians slide, degrees, 0 to 90.
    feature_size: largest landform to work on, metres, above 0; 1/32 of the longer side if None.
    absorption: share of the arriving material that is lost on the way, 0 to 1.
    erosion_mask, absorption_mask: factors on the loosening and on the absorption, of the shape of the heights.

    Returns a tuple of `heights`, `depth` (of the loose cover) and `wear` (depth of the ground that was loosened).
    """
    _above_zero(cell_size=cell_size, height_unit=height_unit)
    grid = take_grid(heights)
    feature = max(grid.cells.shape) * cell_size / 32 if feature_size is None else feature_size
    _above_zero(feature_size=feature)
    work = round_up(grid.cells.shape, 1 << halvings(feature / cell_size))
    loosening = take_share(erosion_mask, grid.cells.shape, "erosion_mask")
    absorbing = take_share(absorption_mask, grid.cells.shape, "absorption_mask")
    parameters = ffi.new(
        "thermal_Parameters*",
        {
            "width": work[1],
            "height": work[0],
            "duration": duration,
            "erosion_rate": erosion_rate,
            "curvature_bias": curvature_bias,
            "repose_angle": repose_angle,
            "feature_size": feature,
            "terrain_size": cell_size * work[1],
            "terrain_height": height_unit,
            "absorption": absorption,
            "use_erosion_mask": loosening is not None,
            "use_absorption_mask": absorbing is not None,
        },
    )
    masks = [None if mask is None else pad(mask, work) for mask in (loosening, absorbing)]
    cells = pad(grid.cells, work)
    depth, wear = np.zeros_like(cells), np.zeros_like(cells)
    with reporter(progress, "weather") as report:
        call(
            "ThermalSimulation", device, _data(cells), _data(depth), _data(wear), *map(_data, masks), parameters,
            progress=report,
        )  # fmt: skip
    return Weathered(*(grid.wrapped(crop(result, grid.cells.shape)) for result in (cells, depth, wear)))


@_computation
def erode(
    heights,
    *,
    cell_size: float = 1.0,
    height_unit: float = 1.0,
    iterations: float = 30.0,
    feature_size: float | None = None,
    erosion_strength: float = 0.6,
    constant_capacity: float = 0.05,
    shaping_strength: float = 0.3,
    shaping_sharpness: float = 0.6,
    shaping_detail: float = 0.0,
    fill_angle: float = 5.0,
    fill_slope_scale: float = 1.0,
    plain_deposition: float = 0.2,
    plain_angle: float = 5.0,
    terrace_deposition: float = 0.0,
    terrace_angle: float = 30.0,
    seed: int = 1,
    spawn_map=None,
    device: str = "cpu",
    progress: Progress = False,
) -> Eroded:
    """Erodes the terrain with running water.

    Particles of water that carve, carry and drop on a Laplacian pyramid of the terrain, level by level.

    iterations: rounds of water at the coarse levels, from 0.
    feature_size: largest landform to work on, metres, above 0; 1/20 of the longer side if None.
    erosion_strength: how much the water carries, 0 to 100; above 1 it digs pits and heaps.
    constant_capacity: 0 to 1; 0: water carries in proportion to its fall; 1: the same everywhere.
    shaping_strength: strength of the shaping after each round, 0 to 1.
    shaping_sharpness: 0 to 1; 0: shaping smooths; 1: it only cuts steep faces.
    shaping_detail: shaping fades on features smaller than this share of the largest, 0 to 1; 0: on none.
    fill_angle: hollows on gentler slopes are filled in full, degrees, 0 to 90.
    fill_slope_scale: factor on the slope that is held against fill_angle, from 0.
    plain_deposition: share of its load that water drops on plains, 0 to 100.
    plain_angle: gentler slopes are plains, degrees, 0 to 90.
    terrace_deposition: share of its load that water drops on terraces, 0 to 100.
    terrace_angle: slopes about as steep become terraces, degrees, 0 to 90.
    seed: of the random numbers, 0 to 2**32 - 1.
    spawn_map: probability that water springs at a cell, 0 to 1, of the shape of the heights.

    Returns a tuple of `heights`, `flow` (visits of water, 1 for a thousand or more), `sediment` (its depth) and `wear`
    (depth that water has cut, less what was shaped away).
    """
    _above_zero(cell_size=cell_size, height_unit=height_unit)
    grid = take_grid(heights)
    feature = max(grid.cells.shape) * cell_size / 20 if feature_size is None else feature_size
    _above_zero(feature_size=feature)
    work = round_up(grid.cells.shape, 1 << halvings(feature / 2 / cell_size))
    births = take_share(spawn_map, grid.cells.shape, "spawn_map")
    births = None if births is None else pad(births, work)
    parameters = ffi.new(
        "parallel_erosion_Parameters*",
        {
            "Resolution": {"width": work[1], "height": work[0]},
            "terrain_size": cell_size * work[1],
            "terrain_height": height_unit,
            "feature_size": feature,
            "iterations": iterations,
            "seed": seed,
            "erosion_strength": erosion_strength,
            "shaping_strength": shaping_strength,
            "shaping_sharpness": shaping_sharpness,
            "shaping_detail": shaping_detail,
            "fill_slope_scale": fill_slope_scale,
            "fill_angle": fill_angle,
            "plain_deposition": plain_deposition,
            "plain_angle": plain_angle,
            "terrace_deposition": terrace_deposition,
            "terrace_angle": terrace_angle,
            "constant_capacity": constant_capacity,
        },
    )
    cells = pad(grid.cells, work)
    flow, sediment, wear = (np.zeros_like(cells) for _ in range(3))
    with reporter(progress, "erode") as report:
        call(
            "ParallelErosionSimulation", device, _data(cells), _data(births), _data(flow), _data(sediment), ffi.NULL,
            _data(wear), parameters, progress=report,
        )  # fmt: skip
    return Eroded(*(grid.wrapped(crop(result, grid.cells.shape)) for result in (cells, flow, sediment, wear)))


@_computation
def dunes(
    heights,
    *,
    sand,
    cell_size: float = 1.0,
    height_unit: float = 1.0,
    duration: float = 0.25,
    repose_angle: float = 34.0,
    device: str = "cpu",
    progress: Progress = False,
) -> Dunes:
    """Lets the wind, from the left, move sand over the terrain. The size of dunes follows the cells.

    Sand hops with the wind, lands in shelter, and slides where it is too steep (after Werner, 1995).

    sand: depth at the start: metres for all cells, or a grid in the unit of the heights.
    duration: length of the run, from 0; 1 is 2560 rounds of wind and slides.
    repose_angle: sand slides on slopes above the arc tangent of this angle in radians, degrees, 0 to 90.

    Returns a tuple of `heights` (ground and sand), `sand` (its depth) and `wind_trace` (streamlines of the last wind).
    """
    _above_zero(cell_size=cell_size, height_unit=height_unit)
    grid = take_grid(heights)
    ground = grid.cells.copy()
    if np.ndim(sand) == 0:
        if not (math.isfinite(sand) and sand >= 0):
            raise ValueError(f"sand is {sand}; a depth must be a finite number from 0 up")
        depth = np.full_like(ground, sand / height_unit)
    else:
        depth = take_grid(sand, "sand", holes=0.0).cells.copy()
        if depth.shape != ground.shape:
            raise ValueError(f"sand is of shape {depth.shape}; it must be {ground.shape}")
    wind_trace = ground.copy()
    parameters = ffi.new(
        "arrakis_Parameters*",
        {
            "width": grid.width,
            "height": grid.height,
            "duration": duration,
            "repose_angle": repose_angle,
            "terrain_size": cell_size * grid.width,
            "terrain_height": height_unit,
        },
    )
    with reporter(progress, "dunes") as report:
        call("DuneSimulation", device, _data(ground), _data(depth), _data(wind_trace), parameters, progress=report)
    return Dunes(*map(grid.wrapped, (ground, depth, wind_trace)))


def _unit_heights(cells: np.ndarray) -> np.ndarray:
    """From 0 at the lowest cell to 1 at the highest."""
    lowest = float(cells.min())
    extent = float(cells.max()) - lowest
    if not extent > 0:
        return np.zeros_like(cells)
    return ((cells.astype(np.float64) - lowest) / extent).astype(np.float32)


@_computation
def flow(
    heights,
    *,
    flow_length: float = 1.0,
    spread: float = 1.0,
    seed: int = 0,
    mask=None,
    device: str = "cpu",
    progress: Progress = False,
) -> np.ndarray:
    """Draws a map of where water gathers, from 0 to just below 1.

    Particles run downhill from everywhere and leave trails.

    flow_length: length of the long trails, which carry rivers, as a fraction of the width, 0 to 100.
    spread: how far ground rises at each visit, in hundred-thousandths of the terrain's height: above 0, later trails
        run beside earlier ones.
    seed: of the random numbers, 0 to 2**32 - 1.
    mask: chance that a cell starts a trail, 0 to 1, of the shape of the heights.

    Returns the map.
    """
    grid = take_grid(heights)
    share = take_share(mask, grid.cells.shape, "mask")
    parameters = ffi.new(
        "flow_Parameters*",
        {
            "width": grid.width,
            "height": grid.height,
            "flow_length": flow_length,
            "spread": spread,
            "seed": seed,
        },
    )
    cells = _unit_heights(grid.cells)
    result = np.zeros_like(cells)
    with reporter(progress, "flow") as report:
        call("FlowSimulation", device, _data(cells), _data(result), _data(share), parameters, progress=report)
    return grid.wrapped(result)


@_computation
def colour(
    heights,
    image,
    *,
    transport: float = 0.7,
    persistence: float = 1.0,
    blend: float = 1.0,
    straight_trails: bool = False,
    length_map=None,
    flow_length: float = 1.0,
    spread: float = 1.0,
    seed: int = 0,
    mask=None,
    device: str = "cpu",
    progress: Progress = False,
) -> np.ndarray:
    """Moves the colours of an image downhill, along the trails of `flow`.

    image: rows x columns x 3, linear light, of the size of the heights.
    transport: how far colours travel, 0 to 1.
    persistence: how easily a cell's old colour gives way, 0 to 1.
    blend: share of the mixed colour that each batch of trails leaves, 0 to 1.
    straight_trails: without the random turns of the trails.
    length_map: factor on the length of the trails that start in a cell, of the shape of the heights.
    flow_length: length of the long trails, which carry rivers, as a fraction of the width, 0 to 100.
    spread: how far ground rises at each visit, in hundred-thousandths of the terrain's height: above 0, later trails
        run beside earlier ones.
    seed: of the random numbers, 0 to 2**32 - 1.
    mask: chance that a cell starts a trail, 0 to 1, of the shape of the heights.

    Returns the image after the run, in the form it was given in.
    """
    grid = take_grid(heights)
    pixels = numbers(image, "image")
    if pixels.shape != (*grid.cells.shape, 3):
        raise ValueError(f"image is of shape {pixels.shape}; it must be {(*grid.cells.shape, 3)}")
    share = take_share(mask, grid.cells.shape, "mask")
    lengths = take_share(length_map, grid.cells.shape, "length_map")
    parameters = ffi.new(
        "color_transport_Parameters*",
        {
            "width": grid.width,
            "height": grid.height,
            "flow_length": flow_length,
            "persistence": persistence,
            "blend": blend,
            "spread": spread,
            "transport": transport,
            "straight_trails": straight_trails,
            "seed": seed,
        },
    )
    channels = [pixels[:, :, n].copy() for n in range(3)]
    cells = _unit_heights(grid.cells)
    with reporter(progress, "colour") as report:
        call(
            "ColorTransportSimulation", device, _data(cells), *map(_data, channels), _data(share), _data(lengths),
            parameters, progress=report,
        )  # fmt: skip
    return like(image, np.stack(channels, axis=2))


# Lowland green over ochre to pale rock in sRGB, at even steps from the lowest to the highest cell.
_HEIGHT_TINTS = np.array(
    [(104, 142, 104), (152, 172, 118), (204, 196, 142), (194, 164, 120), (176, 148, 130), (236, 232, 228)], np.float64
)


def _tints(cells: np.ndarray, lowest: float, highest: float) -> np.ndarray:
    """Colours by height, in linear light: a grid for each channel."""
    extent = max(float(highest) - float(lowest), np.finfo(np.float64).tiny)
    channels = np.empty((3, *cells.shape), np.float32)
    rows = max(2**16 // cells.shape[1], 1)  # at once: on the way they take 30 times their memory
    for top in range(0, len(cells), rows):
        fraction = np.clip((cells[top : top + rows].astype(np.float64) - float(lowest)) / extent, 0, 1)
        place = fraction * (len(_HEIGHT_TINTS) - 1)
        first = np.minimum(place.astype(int), len(_HEIGHT_TINTS) - 2)
        low, high = _HEIGHT_TINTS[first], _HEIGHT_TINTS[first + 1]
        code = (low + (high - low) * (place - first)[:, :, None]) / 255
        light = np.where(code <= 0.04045, code / 12.92, ((code + 0.055) / 1.055) ** 2.4)
        channels[:, top : top + rows] = np.moveaxis(light, 2, 0)
    return channels


def _day(day: int | str, name: str) -> int:
    """The number of a day of the year, from 1. The 29th of February counts as the 1st of March."""
    if not isinstance(day, str):
        return operator.index(day)
    match = re.fullmatch(r"(\d{1,2})-(\d{1,2})", day)
    month, of_month = map(int, match.groups()) if match else (0, 0)
    if not (1 <= month <= 12 and 1 <= of_month <= calendar.mdays[month] + (month == 2)):
        raise ValueError(f"{name} is {day!r}; it must be a day of the form MM-DD")
    return sum(calendar.mdays[:month]) + of_month


def _hour(time: str) -> float:
    match = re.fullmatch(r"(\d{1,2}):(\d{1,2})", time)
    hour, minute = map(int, match.groups()) if match else (24, 60)
    if hour > 23 or minute > 59:
        raise ValueError(f"time is {time!r}; it must be of the form HH:MM")
    return hour + minute / 60


def _sun_at(latitude: float, day: int, hour: float) -> tuple[float, float]:
    """Azimuth and elevation of the sun in degrees: declination by Cooper (1969), and the theorems of the sphere."""
    declination = 23.45 * math.radians(1) * math.sin(2 * math.pi * (284 + day) / 365)
    hour_angle = (hour - 12) * 15 * math.radians(1)
    north = latitude * math.radians(1)
    up = math.sin(north) * math.sin(declination) + math.cos(north) * math.cos(declination) * math.cos(hour_angle)
    towards_south = math.sin(north) * math.cos(declination) * math.cos(hour_angle) - math.cos(north) * math.sin(
        declination
    )
    towards_west = math.cos(declination) * math.sin(hour_angle)
    elevation = math.asin(min(max(up, -1.0), 1.0)) / math.radians(1)
    return 180 + math.atan2(towards_west, towards_south) / math.radians(1), elevation


class Shaded(NamedTuple):
    image: np.ndarray  #: rows x columns x 3, linear light
    diffuse: np.ndarray | None  #: cosine between slope and sun
    shadow: np.ndarray | None  #: share of the sun's rays that arrive
    ao: np.ndarray | None  #: ambient occlusion, about 1 under a free sky


def _three(colour, name: str) -> list[float]:
    parts = [float(part) for part in colour]
    if len(parts) != 3:
        raise ValueError(f"{name} is {colour}; it must be red, green and blue")
    return parts


@_computation
def shade(
    heights,
    *,
    cell_size: float = 1.0,
    height_unit: float = 1.0,
    exaggeration: float = 1.0,
    azimuth: float = 315.0,
    elevation: float = 45.0,
    date: str | None = None,
    time: str = "12:00",
    latitude: float | None = None,
    rings: int = -8,
    diameter: float = 0.53,
    ambient_subdivisions: int = 2,
    hybrid_levels: int = 0,
    exposure: float = 1.0,
    sun_intensity: float | None = None,
    ambient_intensity: float | None = None,
    sun_colour: tuple[float, float, float] = (1.04, 1.0, 0.9),
    ambient_colour: tuple[float, float, float] = (0.86, 1.0, 1.2),
    albedo=None,
    range: tuple[float, float] | None = None,
    ao=None,
    no_sun: bool = False,
    no_sky: bool = False,
    no_shadows: bool = False,
    no_occlusion: bool = False,
    device: str = "cpu",
    progress: Progress = False,
) -> Shaded:
    """Renders the terrain lit, with shadows and ambient occlusion, by sweeps of parallel lines with a running horizon.

    exaggeration: factor on all heights, above 0.
    azimuth: where the sun stands, degrees clockwise from north, -360 to 360.
    elevation: height of the sun above the horizon, degrees, -90 to 90.
    date: "MM-DD": the sun of this day, instead of azimuth and elevation; needs a latitude.
    time: solar time of that day, "HH:MM"; at 12:00 the sun stands highest.
    latitude: where that day's sun is seen, degrees, -90 to 90; north is positive.
    rings: rings of rays over the sun's disc, 0 to 17, or -4 or -8 parallel rays.
    diameter: apparent diameter of the sun for rings, degrees, 0 to 180.
    ambient_subdivisions: rays of the sky: 0 to 3 for 7, 23, 94 or 371.
    hybrid_levels: trace ambient occlusion at the coarsest of so many levels, 0 to 15; 0 is full size.
    exposure: factor on all light, from 0.
    sun_intensity: light of the sun, from 0; if None so that level ground is as light as its albedo.
    ambient_intensity: light of the sky, from 0; 0.3 if None.
    sun_colour: red, green and blue of the sun, from 0.
    ambient_colour: red, green and blue of the sky, from 0.
    albedo: what the ground reflects, 0 to 1: a number, or rows x columns x 3; colours by height if None.
    range: heights of the lowest and the highest colour, so that pictures compare; those of the grid if None.
    ao: ambient occlusion to use instead of tracing it, of the shape of the heights.
    no_sun: no light of the sun.
    no_sky: no light of the sky.
    no_shadows: the sun reaches everything that faces it.
    no_occlusion: the sky lights everything alike.

    Returns a tuple of `image` (rows x columns x 3, linear light; `image ** (1 / 2.2)` is about right for a screen),
    `diffuse` (cosine between slope and sun), `shadow` (share of the sun's rays that arrive) and `ao` (about 1 under a
    free sky); what is turned off is None.
    """
    _above_zero(cell_size=cell_size, height_unit=height_unit, exaggeration=exaggeration)
    grid = take_grid(heights)
    if date is not None:
        if latitude is None:
            raise ValueError("date needs latitude")
        azimuth, elevation = _sun_at(latitude, _day(date, "date"), _hour(time))
    turn, tilt = math.radians(azimuth), math.radians(elevation)
    ground = math.cos(tilt) if abs(elevation) != 90 else 0.0
    sky = 0.3
    occluded = not (no_sky or no_occlusion)
    given_ao = take_share(ao, grid.cells.shape, "ao")
    is_grey = albedo is not None and np.ndim(albedo) == 0
    parameters = ffi.new(
        "lighting_Parameters*",
        {
            "resolution": {"width": grid.width, "height": grid.height},
            "terrain_size": cell_size * grid.width,
            "terrain_height": exaggeration * height_unit,
            "sun_direction": [ground * math.sin(turn), -ground * math.cos(turn), math.sin(tilt)],
            "sun_rings": rings,
            "sun_diameter": diameter,
            "hybrid_ao": hybrid_levels > 0,
            "ao_subdivisions": ambient_subdivisions,
            "hybrid_ao_subdivisions": ambient_subdivisions,
            "hybrid_ao_levels": hybrid_levels,
            "exposure": exposure,
            "sun_intensity": (1 - sky) / max(math.sin(tilt), 0.2) if sun_intensity is None else sun_intensity,
            "ambient_intensity": sky if ambient_intensity is None else ambient_intensity,
            "sun_color": _three(sun_colour, "sun_colour"),
            "ambient_color": _three(ambient_colour, "ambient_colour"),
            "albedo": albedo if is_grey else 0.5,
            "direct_light": not no_sun,
            "ambient_light": not no_sky,
            "shadows": not no_shadows,
            "ambient_occlusion": not no_occlusion,
            "ao_supplied": given_ao is not None,
        },
    )

    def blank(needed: bool) -> np.ndarray | None:
        return np.zeros_like(grid.cells) if needed else None

    reflected: list = [None] * 3
    if not is_grey:
        lowest, highest = (grid.cells.min(), grid.cells.max()) if range is None else map(np.float32, range)
        if not lowest <= highest:
            raise ValueError(f"range is {lowest} to {highest}; it must rise")
        if albedo is None:
            reflected = list(_tints(grid.cells, lowest, highest))
        else:
            surface = numbers(albedo, "albedo")
            if surface.shape != (*grid.cells.shape, 3):
                raise ValueError(f"albedo is of shape {surface.shape}; it must be a number or {(*grid.cells.shape, 3)}")
            reflected = [np.ascontiguousarray(surface[:, :, n]) for n in (0, 1, 2)]
    stages = [blank(not no_sun), blank(not (no_sun or no_shadows)), blank(occluded)]
    if given_ao is not None:
        stages[2] = given_ao.copy()
    channels = [blank(True) for _ in "rgb"]
    with reporter(progress, "shade") as report:
        call(
            "Shade", device, _data(grid.cells), *map(_data, stages), *map(_data, channels), *map(_data, reflected),
            parameters, progress=report,
        )  # fmt: skip
    return Shaded(np.stack(channels, axis=2), *(None if cells is None else grid.wrapped(cells) for cells in stages))


def _hear_of_errors(device: str) -> None:
    """SunLightIntegral tells its errors through the callbacks of the latest Shade: so here is one, of a single cell."""
    resolution, cells = {"width": 1, "height": 1}, [np.zeros((1, 1), np.float32) for _ in range(4)]
    parameters = ffi.new("lighting_Parameters*", {"resolution": resolution, "terrain_size": 1, "terrain_height": 1})
    heights, *image = map(_data, cells)
    call("Shade", device, heights, *[ffi.NULL] * 3, *image, *[ffi.NULL] * 3, parameters)


@_computation
def sunlight(
    heights,
    *,
    latitude: float,
    cell_size: float = 1.0,
    height_unit: float = 1.0,
    first_day: int | str = "01-01",
    last_day: int | str = "12-31",
    north_offset: float = 0.0,
    haze: float = 0.05,
    device: str = "cpu",
) -> np.ndarray:
    """Sums the sunlight of a span of days, as a mean over day and night.

    Up to 2000 positions of the sun (declination by Cooper, 1969; air mass by Rozenberg, 1966), shadows included.

    latitude: where the terrain lies, degrees, -90 to 90; north is positive.
    first_day: first day of the span, "MM-DD" or the number of the day from 1.
    last_day: last day of the span, likewise; before the first, in the next year.
    north_offset: angle by which the sun's azimuth is turned, degrees, -360 to 360.
    haze: extinction by the air, from 0; 0 is none.

    Returns the light, about 2.68 for a surface that always faced the sun.
    """
    _above_zero(cell_size=cell_size, height_unit=height_unit)
    grid = take_grid(heights)
    parameters = ffi.new(
        "lighting_Parameters*",
        {
            "resolution": {"width": grid.width, "height": grid.height},
            # It is traced at half the size, where the last column of an odd number falls away.
            "terrain_size": cell_size * (grid.width // 2 * 2),
            "terrain_height": height_unit,
            "first_day": _day(first_day, "first_day"),
            "last_day": _day(last_day, "last_day"),
            "latitude": latitude,
            "north_offset": north_offset,
            "haze": haze,
        },
    )
    result = np.zeros_like(grid.cells)
    _hear_of_errors(device)
    call("SunLightIntegral", device, _data(grid.cells), _data(result), parameters, takes_callbacks=False)
    return grid.wrapped(result)


@_computation
def median(heights, *, radius: int = 3, iterations: int = 1, device: str = "cpu") -> np.ndarray:
    """Smooths a grid by a round median filter: the mean of the three middle values of a disc.

    radius: of the disc, cells, 1 to 8.
    iterations: how often the filter runs, from 0; 0 gives the input back.

    Returns the grid.
    """
    tile = 32
    grid = take_grid(heights)
    if not 1 <= radius <= 8:
        raise ValueError(f"radius is {radius}; it must be from 1 to 8")
    side = -(-max(grid.cells.shape) // tile) * tile
    if side > 46336:
        raise ValueError(f"heights are of shape {grid.cells.shape}; sides must not be above 46336")
    cells = pad(grid.cells, (side, side))
    for _ in range(iterations):
        parameters = ffi.new("median_filter_Parameters*", {"resolution": side, "radius": radius, "iterations": 1})
        call("MedianFilter", device, _data(cells), parameters, takes_callbacks=False)
    return grid.wrapped(crop(cells, grid.cells.shape))


def _scatter(count: int, seed: int, grid, stamp_count: int) -> np.ndarray:
    """Evenly over the grid, every stamp as often as the others."""
    if count < 0:
        raise ValueError(f"count is {count}; it must be from 0")
    # The Mersenne twister's own numbers (Matsumoto and Nishimura, 1998), three for each stamp.
    draws = np.frombuffer(np.random.RandomState(seed).bytes(12 * count), "<u4").reshape(-1, 3).astype(np.float64)
    x, y = draws[:, 0] * 2**-32 * grid.width, draws[:, 1] * 2**-32 * grid.height
    return np.column_stack([x, y, draws[:, 2] % stamp_count])


@_computation
def stamp(
    heights,
    stamps,
    points=None,
    *,
    count: int | None = None,
    seed: int = 1,
    stamp_height: int | None = None,
    stamp_scale: float = 1.0,
    device: str = "cpu",
) -> Stamped:
    """Places copies of small height patches on the terrain.

    stamps: the patches, one below the other, as heights above the ground; 0 is a hole.
    points: a row for each copy: column and row of its centre, and the number of its patch if there is more than one.
    count: scatter so many at random instead, from 0.
    seed: another seed, other places, 0 to 2**32 - 1.
    stamp_height: rows of one patch, cells, from 1; all rows of `stamps` if None.
    stamp_scale: factor on the patches' values.

    Returns a tuple of `heights` and `ids` (random number of the stamp that raised a cell, 0 for none).
    """
    grid = take_grid(heights)
    sheet = take_grid(stamps, "stamps", holes=0.0).cells * np.float32(stamp_scale)
    rows = sheet.shape[0] if stamp_height is None else operator.index(stamp_height)
    if rows < 1 or sheet.shape[0] % rows != 0:
        raise ValueError(f"{sheet.shape[0]} rows are no whole number of stamps of {rows} rows")
    if (points is None) == (count is None):
        raise ValueError("either points or count must say where the stamps go")
    if points is None:
        places = _scatter(count, seed, grid, sheet.shape[0] // rows)
    else:
        places = np.atleast_2d(np.asarray(points, np.float64))
    if places.ndim != 2 or places.shape[1] not in (2, 3):
        raise ValueError(f"points are of shape {places.shape}; a row must be a column, a row and perhaps a stamp")
    instances = np.zeros(len(places), [("x", "f4"), ("y", "f4"), ("stamp", "u4"), ("height", "f4")])
    instances["x"], instances["y"] = places[:, 0], places[:, 1]
    if places.shape[1] == 3:
        if not ((places[:, 2] >= 0) & (places[:, 2] < 2**31)).all():
            raise ValueError("the numbers of stamps must be from 0 on")
        instances["stamp"] = places[:, 2]
    parameters = ffi.new(
        "stamp_instancer_Parameters*",
        {
            "width": grid.width,
            "height": grid.height,
            "stamps_width": sheet.shape[1],
            "stamps_height": sheet.shape[0],
            "stamp_width": sheet.shape[1],
            "stamp_height": rows,
            "instance_count": len(places),
        },
    )
    cells = grid.cells.copy()
    ids = np.zeros_like(cells)
    placed = ffi.cast("stamp_instancer_Instance*", ffi.from_buffer(instances)) if len(instances) else ffi.NULL
    call("StampInstancer_Populate", device, _data(cells), _data(ids), _data(sheet), placed, parameters)
    return Stamped(grid.wrapped(cells), grid.wrapped(ids))


_GENERATORS = {"congruential": 0, "xorshift": 1}


@_computation
def cells(
    heights,
    *,
    cell_size: float | tuple[float, float] = 1.0,
    height_unit: float = 1.0,
    density: float = 48.0,
    layers: float | None = None,
    gap: float = 0.0,
    gap_factor=None,
    jitter_x: float = 0.9,
    jitter_y: float = 0.9,
    jitter_z: float = 0.9,
    seed: int = 1,
    generator: str = "xorshift",
    device: str = "cpu",
    progress: Progress = False,
) -> Cells:
    """Rebuilds the terrain out of three-dimensional Voronoi cells (Worley, 1996).

    cell_size: size of a cell of the grid on the ground, metres, above 0; a pair for its width and its height.
    density: cells along the longer side of the terrain, above 0, up to 512.
    layers: layers of cells from the lowest height to the highest, above 0; cells as high as wide if None.
    gap: how far the cells draw back from one another; 0: they touch, 1: none.
    gap_factor: factor on the gap, 0 to 1, of the shape of the heights.
    jitter_x, jitter_y, jitter_z: how far points stray from the lattice, 0 to 1; 0: not, 1: over their whole cell.
    seed: another seed, other cells, 0 to 2**32 - 1.
    generator: where the random numbers come from: "congruential" or "xorshift".

    Returns a tuple of `heights` and `random` (random number of the cell, 0 to 1).
    """
    cell_width, cell_height = (cell_size, cell_size) if np.ndim(cell_size) == 0 else map(float, cell_size)
    _above_zero(cell_width=cell_width, cell_height=cell_height, height_unit=height_unit, density=density)
    if layers is not None:
        _above_zero(layers=layers)
    if generator not in _GENERATORS:
        raise ValueError(f"generator is {generator!r}; it must be one of {', '.join(_GENERATORS)}")
    grid = take_grid(heights)
    factor = take_share(gap_factor, grid.cells.shape, "gap_factor")
    base = grid.cells.min()
    extent = grid.cells.max() - base if grid.cells.max() > base else np.float32(1)
    work = (grid.cells - base) / extent
    width, height = grid.width * cell_width, grid.height * cell_height
    unit = np.float32(max(width, height))
    z_range = np.float32(float(extent) * height_unit)
    stretch = 1.0 if layers is None else layers * float(unit) / (float(z_range) * density)
    parameters = ffi.new(
        "Cellular3D_Parameters*",
        {
            "grid_width": grid.width,
            "grid_height": grid.height,
            "cell_density": density,
            "gap": gap,
            "extent_x": width / max(width, height),
            "extent_y": height / max(width, height),
            "extent_z": stretch,
            "jitter_x": jitter_x,
            "jitter_y": jitter_y,
            "jitter_z": jitter_z,
            "seed": seed,
            "z_unit": unit,
            "z_range": z_range,
            "hash_variant": _GENERATORS[generator],
        },
    )
    random = work.copy()
    with reporter(progress, "cells") as report:
        call("Cellular3D_Render", device, _data(work), _data(factor), _data(random), parameters, progress=report)
    return Cells(grid.wrapped(base + work * extent), grid.wrapped(random))


class Strewn(NamedTuple):
    heights: np.ndarray
    rock_id: np.ndarray  #: number of the rock, 0 for none
    coverage: np.ndarray  #: 1 where a rock lies
    speed: np.ndarray  #: speed of the last rock to cross, km/s


def _steep_slope(cells: np.ndarray, max_size: np.float32, scale: np.float32) -> float:
    """The slope that a quarter of the terrain exceeds, as rocks of this size see it."""
    height, width = cells.shape
    longer = max(height, width)
    reach = int(min(np.float32(1.5) * max_size + np.float32(1.5), np.float32(longer)))
    step = max(1, longer // 256)  # a sample will do
    x, y = np.arange(0, width, step), np.arange(0, height, step)
    west, east = np.maximum(x - reach, 0), np.minimum(x + reach, width - 1)
    north, south = np.maximum(y - reach, 0), np.minimum(y + reach, height - 1)
    across, down = np.maximum(east - west, 1).astype(np.float32), np.maximum(south - north, 1).astype(np.float32)
    along = (cells[y[:, None], east] - cells[y[:, None], west]) / across
    athwart = (cells[south[:, None], x] - cells[north[:, None], x]) / down[:, None]
    slopes = (np.hypot(along, athwart) * scale).ravel()
    return float(np.sort(slopes)[slopes.size * 3 // 4])


@_computation
def debris(
    heights,
    *,
    cell_size: float = 1.0,
    height_unit: float = 1.0,
    count: int = 1000,
    max_size: float | None = None,
    min_size: float | None = None,
    friction: float | None = None,
    restitution: float = 0.3,
    draw_unmoved: bool = False,
    favour_small: bool = False,
    seed: int = 1,
    device: str = "cpu",
    progress: Progress = False,
) -> Strewn:
    """Strews rocks that slide downhill and come to rest, as faceted bodies.

    count: number of rocks, from 0.
    max_size: largest radius of a rock, metres, above 0; 8 cells if None.
    min_size: smallest radius of a rock, metres, from 0; a quarter of the largest if None.
    friction: coefficient of the sliding friction, from 0; if None 0.5, and without max_size at most the slope that a
        quarter of the terrain exceeds.
    restitution: share of a bounce that is thrown back, 0 to 1.
    draw_unmoved: draw rocks also that stay where they are born.
    favour_small: most rocks are small and very few are large.
    seed: another number strews other rocks, 0 to 2**32 - 1.

    Returns a tuple of `heights`, `rock_id` (0 for none), `coverage` (1 where a rock lies) and `speed` (of the last rock
    to cross, km/s).
    """
    _above_zero(cell_size=cell_size, height_unit=height_unit)
    grid = take_grid(heights)
    side = max(grid.cells.shape)
    # The library looks as many cells around a rock as its radius has units of length. Rocks of 8 cells see their
    # surroundings if a cell counts as one unit.
    unit = 1.0 if max_size is not None else max(cell_size, 1.0)
    radius = 8 * cell_size if max_size is None else max_size
    _above_zero(max_size=radius)
    size, terrain_height = np.float32(cell_size * side / unit), np.float32(height_unit / unit)
    largest = np.float32(radius / unit)
    if friction is None:
        scale = np.float32(side) * terrain_height / size
        friction = 0.5 if max_size is not None else min(0.5, _steep_slope(grid.cells, largest, scale))
    parameters = ffi.new(
        "debris_Parameters*",
        {
            "resolution": side,
            "terrain_size": size,
            "terrain_height": terrain_height,
            "count": count,
            "max_size": largest,
            "min_size": largest * np.float32(0.25) if min_size is None else min_size / unit,
            "friction": friction,
            "restitution": restitution,
            "draw_unmoved": draw_unmoved,
            "favour_small": favour_small,
            "seed": seed,
        },
    )
    cells = pad(grid.cells, (side, side))
    rock_id, coverage, speed = (np.zeros_like(cells) for _ in range(3))
    with reporter(progress, "debris") as report:
        call(
            "DebrisSimulation", device, _data(cells), _data(rock_id), _data(coverage), _data(speed), parameters,
            progress=report, has_status=False,
        )  # fmt: skip
    return Strewn(*(grid.wrapped(crop(result, grid.cells.shape)) for result in (cells, rock_id, coverage, speed)))


class Drawn(NamedTuple):
    heights: np.ndarray
    noise: np.ndarray  #: random number of the triangle from 0 to 1


def _rows_of_three(rows, name: str) -> np.ndarray:
    array = np.asarray(rows)
    if array.ndim != 2 or array.shape[1] != 3 or array.dtype.kind not in "iuf":
        raise ValueError(f"{name} are of shape {array.shape} and {array.dtype}; a row must be three numbers")
    return array


def _view(vertices, triangles, normals=None):
    """A mesh as the library takes it, and the arrays that it refers to, which have to outlive it."""
    points = _rows_of_three(vertices, "vertices")
    corners = _rows_of_three(triangles, "triangles")
    if corners.size and (corners.min() < 0 or corners.max() >= len(points)):
        raise ValueError(f"triangles must number the {len(points)} vertices from 0 on")

    def widened(rows: np.ndarray, kind) -> np.ndarray:
        return np.ascontiguousarray(np.pad(rows.astype(kind), ((0, 0), (0, 1))))

    arrays = [widened(points, np.float32), widened(corners, np.uint32)]
    if normals is not None:
        directions = _rows_of_three(normals, "normals")
        if directions.shape != points.shape:
            raise ValueError(f"normals are of shape {directions.shape}; it must be {points.shape}")
        arrays.append(widened(directions, np.float32))
    view = ffi.new(
        "mesh_rasterizer_MeshView*",
        {
            "vertices": ffi.cast("TarnFloat3*", ffi.from_buffer(arrays[0])),
            "vertex_count": len(points),
            "triangles": ffi.cast("TarnUint3*", ffi.from_buffer(arrays[1])),
            "triangle_count": len(corners),
            "normals": ffi.NULL if normals is None else ffi.cast("TarnFloat3*", ffi.from_buffer(arrays[2])),
        },
    )
    return view, arrays


@_computation
def mesh(
    vertices,
    triangles,
    *,
    size: tuple[int, int] = (1024, 1024),
    floor=0.0,
    vertical_scale: float = 1.0,
    rotate_x: float = 0.0,
    rotate_y: float = 0.0,
    rotate_z: float = 0.0,
    scale: float = 1.0,
    offset_x: float = 0.0,
    offset_y: float = 0.0,
    offset_z: float = 0.0,
    rest_on_floor: bool = False,
    supersample: bool = False,
    device: str = "cpu",
    progress: Progress = False,
) -> Drawn:
    """Draws a model from above into a height grid.

    vertices: a row of x, y, z each; y counts down the rows of the grid, z up.
    triangles: a row of three vertex numbers each.
    size: columns and rows of the grid; not read with a grid as floor.
    floor: what the model is drawn onto: a height for all cells, or a grid, whose size is then taken.
    vertical_scale: height of the model's space relative to its width, above 0; a height of 1 in the result is that
        high.
    rotate_x, rotate_y, rotate_z: degrees; a model turns about z first, then y, x.
    scale: factor on the fit, from 0; 1 lets the unrotated model touch the frame.
    offset_x, offset_y: frame widths to the right, and frame heights upwards.
    offset_z: heights; the model's centre goes to this plus 0.5.
    rest_on_floor: let the lowest vertex lie at offset_z.
    supersample: draw at twice the resolution and reduce.

    Returns a tuple of `heights` and `noise` (random number of the triangle, 0 to 1).
    """
    if np.ndim(floor) == 0:
        columns, rows = map(operator.index, size)
        cells = np.full((rows, columns), floor, np.float32)
        grid = take_grid(cells)
    else:
        grid = take_grid(floor, "floor")
        cells = grid.cells.copy()
    view, arrays = _view(vertices, triangles)
    parameters = ffi.new(
        "mesh_rasterizer_Parameters*",
        {
            "resolution": {"x": grid.width, "y": grid.height},
            "vertical_scale": vertical_scale,
            "rotation_x": rotate_x,
            "rotation_y": rotate_y,
            "rotation_z": rotate_z,
            "scale": scale,
            "offset_x": offset_x,
            "offset_y": offset_y,
            "offset_z": offset_z,
            "rest_on_floor": rest_on_floor,
            "supersample": supersample,
        },
    )
    noise = np.zeros_like(cells)
    with reporter(progress, "mesh") as report:
        call("MeshRasterizer_RenderMesh", device, view, _data(cells), _data(noise), parameters, progress=report)
    del arrays
    return Drawn(grid.wrapped(cells), grid.wrapped(noise))


def _turn(axis: int, degrees: float) -> np.ndarray:
    following, last = (axis + 1) % 3, (axis + 2) % 3
    radians = degrees * math.pi / 180
    matrix = np.zeros((3, 3))
    matrix[axis, axis] = 1
    matrix[following, following] = matrix[last, last] = math.cos(radians)
    matrix[last, following] = math.sin(radians)
    matrix[following, last] = -matrix[last, following]
    return matrix


def _product(a: np.ndarray, b: np.ndarray) -> np.ndarray:
    """Summed from left to right, which numpy's own product need not do."""
    return (a[:, [0]] * b[[0]] + a[:, [1]] * b[[1]]) + a[:, [2]] * b[[2]]


def _fitted(vertices, normals, width, height, vertical_scale, rotation, scale, offset, rest_on_floor):
    """A model in unit space, with the fit that the library gives to meshes without displacement."""
    scale, vertical_scale = float(np.float32(scale)), float(np.float32(vertical_scale))
    rotation, offset = (np.array(angles, np.float32).astype(np.float64) for angles in (rotation, offset))
    points = _rows_of_three(vertices, "vertices").astype(np.float32).astype(np.float64)
    low, high = np.nanmin(points, axis=0), np.nanmax(points, axis=0)
    rows = height / width  # the frame's height, in its widths
    with np.errstate(divide="ignore"):
        fit = scale * min(np.array([1, rows, vertical_scale]) / (high - low))
    origin = (0.5 + offset[0], (0.5 - offset[1]) * rows, (0.5 + offset[2]) * vertical_scale)
    turned = _product(_product(_turn(0, -rotation[0]), _turn(1, rotation[1])), _turn(2, -rotation[2])).T
    laid = _product(points - (low + high) / 2, turned) * fit + origin
    laid[:, 1] /= rows
    laid = laid.astype(np.float32)
    if rest_on_floor:
        laid[:, 2] -= np.nanmin(laid[:, 2]) - np.float32(offset[2]) * np.float32(vertical_scale)
    directions = _rows_of_three(normals, "normals").astype(np.float32).astype(np.float64)
    return laid, _product(directions, turned)


@_computation
def displaced_mesh(
    vertices,
    triangles,
    normals,
    displacement=None,
    *,
    xy_map=None,
    xz_map=None,
    yz_map=None,
    displacement_amount: float = 0.01,
    displacement_bias: float = 0.0,
    horizontal_displacement: bool = False,
    floor=0.0,
    fit: bool = True,
    vertical_scale: float = 1.0,
    rotate_x: float = 0.0,
    rotate_y: float = 0.0,
    rotate_z: float = 0.0,
    scale: float = 1.0,
    offset_x: float = 0.0,
    offset_y: float = 0.0,
    offset_z: float = 0.0,
    rest_on_floor: bool = False,
    supersample: bool = False,
    device: str = "cpu",
    progress: Progress = False,
) -> np.ndarray:
    """Draws a model whose vertices are displaced along their normals by maps, laid on from all three sides.

    vertices, triangles: as for `mesh`.
    normals: a row for each vertex, used in the length they have.
    displacement: a map for all sides; its size is the grid's.
    xy_map, xz_map, yz_map: other maps for surfaces that face along z, y and x.
    displacement_amount: length of a displacement of 1, in frame widths.
    displacement_bias: added to what the maps give.
    horizontal_displacement: displace sideways only, with a softer blend of the maps.
    floor: a height for all cells, or a grid of the maps' size.
    fit: fit the model to the frame as `mesh` does. Without, vertices are in unit space, x and y from 0 to 1 over the
        frame and z in its widths, and rotation, scale, offset and rest_on_floor are not read.
    vertical_scale: height of the model's space relative to its width, above 0; a height of 1 in the result is that
        high.
    rotate_x, rotate_y, rotate_z: degrees; a model turns about z first, then y, x.
    scale: factor on the fit, from 0; 1 lets the unrotated model touch the frame.
    offset_x, offset_y: frame widths to the right, and frame heights upwards.
    offset_z: heights; the model's centre goes to this plus 0.5.
    rest_on_floor: let the lowest vertex lie at offset_z.
    supersample: draw at twice the resolution and reduce.

    Returns the heights.
    """
    _above_zero(vertical_scale=vertical_scale)
    given = [one for one in (displacement, xy_map, xz_map, yz_map) if one is not None]
    if not given:
        raise ValueError("there must be a displacement, or a map for a side")
    size = np.shape(given[0])
    maps = [take_share(displacement if one is None else one, size, "a map") for one in (xy_map, xz_map, yz_map)]
    maps = [np.zeros(size, np.float32) if one is None else one for one in maps]
    grid = take_grid(np.full(size, floor, np.float32) if np.ndim(floor) == 0 else floor, "floor")
    if grid.cells.shape != size:
        raise ValueError(f"floor is of shape {grid.cells.shape}; it must be {size}")
    if fit:
        vertices, normals = _fitted(
            vertices, normals, grid.width, grid.height, vertical_scale, (rotate_x, rotate_y, rotate_z), scale,
            (offset_x, offset_y, offset_z), rest_on_floor,
        )  # fmt: skip
    cells = grid.cells.copy()
    view, arrays = _view(vertices, triangles, normals)
    parameters = ffi.new(
        "mesh_rasterizer_Parameters*",
        {
            "resolution": {"x": grid.width, "y": grid.height},
            "vertical_scale": vertical_scale,
            "displacement_amount": displacement_amount,
            "displacement_bias": displacement_bias,
            "horizontal_displacement": horizontal_displacement,
            "supersample": supersample,
        },
    )
    with reporter(progress, "displaced_mesh") as report:
        call(
            "MeshRasterizer_RenderMeshWithTriplanarDisplacement", device, view, _data(cells), *map(_data, maps),
            parameters, progress=report,
        )  # fmt: skip
    del arrays
    return grid.wrapped(cells)


class Triangulated(NamedTuple):
    heights: np.ndarray
    noise: np.ndarray  #: random number of the triangle from 0 to 1
    image: np.ndarray | None  #: rows x columns x 3, linear light: one colour for each triangle


@_computation
def points(
    samples,
    *,
    columns: int = 1024,
    floor: float = 0.0,
    y_down: bool = False,
    image=None,
    device: str = "cpu",
    progress: Progress = False,
) -> Triangulated:
    """Makes a height grid of scattered points by a Delaunay triangulation.

    samples: a row of x, y, z each; rows that are not finite are left out. The grid just holds the points.
    columns: of the grid, cells, from 1; the rows follow, with square cells.
    floor: the height outside the triangulation.
    y_down: y counts down the rows; else up.
    image: picture of the ground, rows x columns x 3, linear light, of which each triangle gets one colour. It is
        stretched to the grid.

    Returns a tuple of `heights`, `noise` (random number of the triangle, 0 to 1) and `image` (None without one).
    """
    if not 1 <= columns <= 1 << 20:
        raise ValueError(f"columns is {columns}; it must be from 1 to {1 << 20}")
    rows = _rows_of_three(samples, "samples").astype(np.float64)
    rows = rows[np.isfinite(rows).all(axis=1)]
    if len(rows) < 3:
        raise ValueError("there are fewer than three points")
    low, high = rows.min(axis=0), rows.max(axis=0)
    cell = (high[0] - low[0]) / columns
    if not cell > 0:
        raise ValueError("the points have no extent along x")
    height = int(min(max(math.ceil((high[1] - low[1]) / cell), 1), 10**9))
    top, step = (low[1], cell) if y_down else (high[1], -cell)
    places = np.column_stack([(rows[:, 0] - low[0]) / cell, (rows[:, 1] - top) / step, rows[:, 2]])
    places = np.ascontiguousarray(places, np.float32)
    if height * columns > 2**31 - 1:
        raise ValueError(f"{columns} columns make {height} rows for these points, which are too many cells")
    cells = np.full((height, columns), floor, np.float32)
    noise = np.zeros_like(cells)
    channels: list = [None] * 3
    if image is not None:
        pixels = numbers(image, "image")
        if pixels.ndim != 3 or pixels.shape[2] != 3 or pixels.size == 0:
            raise ValueError(f"image is of shape {pixels.shape}; it must be rows x columns x 3")
        channels = [np.ascontiguousarray(resample(pixels[:, :, n], cells.shape)) for n in range(3)]
    parameters = ffi.new(
        "mesh_rasterizer_Parameters*",
        {
            "resolution": {"x": columns, "y": height},
            "point_count": len(rows),
            "vertical_scale": 1.0,
        },
    )
    with reporter(progress, "points") as report:
        call(
            "MeshRasterizer_RenderPointCloud", device, _data(places), _data(cells), _data(noise),
            *map(_data, channels), parameters, progress=report,
        )  # fmt: skip
    return Triangulated(cells, noise, None if image is None else np.stack(channels, axis=2))


class Baked(NamedTuple):
    normals: np.ndarray  #: rows x columns x 3, packed from -1..1 to 0..1
    hit_x: np.ndarray  #: column where the ray met the heights
    hit_y: np.ndarray  #: row where the ray met the heights


@_computation
def bake(
    vertices,
    triangles,
    heights,
    *,
    cell_size: float = 1.0,
    height_unit: float = 1.0,
    fit_heights: bool = False,
    device: str = "cpu",
    progress: Progress = False,
) -> Baked:
    """Bakes the normals of a height grid onto a model of it, in the model's tangent frame.

    Rays along the model's normals (weighted by angle; Thuermer and Wuethrich, 1998) meet the heights.

    vertices, triangles: as for `mesh`; the model is laid over the whole grid.
    fit_heights: stretch the model's heights to the range of the grid; else they are in the grid's unit.

    Returns a tuple of `normals` (rows x columns x 3, packed from -1..1 to 0..1), `hit_x` and `hit_y` (column and row
    where the ray met the heights).
    """
    _above_zero(cell_size=cell_size, height_unit=height_unit)
    grid = take_grid(heights)
    model = _rows_of_three(vertices, "vertices").astype(np.float32)
    if not len(model):
        raise ValueError("the model has no vertices")
    low, high = model.min(axis=0), model.max(axis=0)
    if not (high[0] > low[0] and high[1] > low[1]):
        raise ValueError("the model has no extent to lay over the heights")
    vertical_scale = np.float32(height_unit / (cell_size * grid.width))
    stretch, base = np.float32(1), np.float32(0)
    if fit_heights:
        lowest, highest = grid.cells.min(), grid.cells.max()
        stretch = (highest - lowest) / (high[2] - low[2]) if high[2] > low[2] else np.float32(0)
        base = lowest - low[2] * stretch
    laid = np.column_stack(
        [
            (model[:, 0] - low[0]) / (high[0] - low[0]),
            (model[:, 1] - low[1]) / (high[1] - low[1]),
            (model[:, 2] * stretch + base) * vertical_scale,
        ]
    )
    view, arrays = _view(laid, triangles)
    parameters = ffi.new(
        "mesh_rasterizer_Parameters*",
        {"resolution": {"x": grid.width, "y": grid.height}, "vertical_scale": vertical_scale},
    )
    # Where the model does not lie, the normal of the model itself.
    channels = [np.full_like(grid.cells, value) for value in (0.5, 0.5, 1.0)]
    hits = np.full((*grid.cells.shape, 2), -1.0, np.float32)
    with reporter(progress, "bake") as report:
        call(
            "MeshRasterizer_ComputeTangentSpaceNormals", device, view, _data(grid.cells), *map(_data, channels),
            ffi.cast("TarnFloat2*", ffi.from_buffer(hits)), parameters, progress=report,
        )  # fmt: skip
    del arrays
    return Baked(np.stack(channels, axis=2), grid.wrapped(hits[:, :, 0].copy()), grid.wrapped(hits[:, :, 1].copy()))
