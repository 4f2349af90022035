"""Grids as the library takes them: float32 arrays in C order, holes filled, sides that can be halved."""
from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np

_RELAXATIONS = 16


def fill_holes(cells: np.ndarray, missing: np.ndarray) -> np.ndarray:
    """The cells with those that are missing filled smoothly from their rims.

    Pull and push over a pyramid (Gortler et al., The Lumigraph, 1996), each level relaxed to a membrane by red and
    black sweeps. Takes time in proportion to the cells, however large the holes are.
    """
    if not missing.any():
        return cells
    coarse, coarse_missing = _pull(cells, missing)
    return _relaxed(_pushed(fill_holes(coarse, coarse_missing), cells, missing), missing)


def _pull(cells, missing):
    """Half the size, rounded up: each cell is the mean of those of its four that are there."""
    height, width = cells.shape
    rows, columns = (height + 1) // 2, (width + 1) // 2
    total = np.zeros((rows, columns), np.float32)
    count = np.zeros((rows, columns), np.float32)
    for v in (0, 1):
        for u in (0, 1):
            part, absent = cells[v::2, u::2], missing[v::2, u::2]
            at = np.s_[: part.shape[0], : part.shape[1]]
            total[at] += np.where(absent, np.float32(0), part)
            count[at] += np.where(absent, np.float32(0), np.float32(1))
    there = count > 0
    return np.where(there, total / np.where(there, count, np.float32(1)), np.float32(0)), ~there


def _pushed(coarse, cells, missing):
    """Missing cells are sampled from the coarse grid with the weights 9, 3, 3 and 1 in 16."""
    y, x = np.nonzero(missing)
    near_y, near_x = y // 2, x // 2
    far_y = np.clip(near_y + np.where(y % 2 == 0, -1, 1), 0, coarse.shape[0] - 1)
    far_x = np.clip(near_x + np.where(x % 2 == 0, -1, 1), 0, coarse.shape[1] - 1)
    result = cells.copy()
    weight = np.float32
    result[y, x] = (
        (weight(0.5625) * coarse[near_y, near_x] + weight(0.1875) * coarse[near_y, far_x])
        + weight(0.1875) * coarse[far_y, near_x]
    ) + weight(0.0625) * coarse[far_y, far_x]
    return result


def _relaxed(cells, missing):
    y, x = np.nonzero(missing)
    height, width = cells.shape
    up, down = np.maximum(y - 1, 0), np.minimum(y + 1, height - 1)
    left, right = np.maximum(x - 1, 0), np.minimum(x + 1, width - 1)
    for sweep in range(2 * _RELAXATIONS):
        turn = (x + y) % 2 == sweep % 2
        r, c = y[turn], x[turn]
        cells[r, c] = np.float32(0.25) * (
            (cells[r, left[turn]] + cells[r, right[turn]]) + (cells[up[turn], c] + cells[down[turn], c])
        )
    return cells


@dataclass(frozen=True)
class Grid:
    """A caller's grid as float32 cells, and how to give results back in its form."""

    cells: np.ndarray
    missing: np.ndarray | None
    source: object

    @property
    def height(self) -> int:
        return self.cells.shape[0]

    @property
    def width(self) -> int:
        return self.cells.shape[1]

    def wrapped(self, cells: np.ndarray):
        """A result with this grid's holes, as the DataArray that the grid was or as an array."""
        if self.missing is not None:
            cells = np.where(self.missing, np.float32(np.nan), cells)
        return like(self.source, cells)


def like(source, cells: np.ndarray):
    """Cells as the DataArray that their source was, or as an array."""
    if hasattr(source, "copy") and hasattr(source, "dims"):
        return source.copy(data=cells)
    return np.ascontiguousarray(cells, np.float32)


def take_grid(source, name: str = "heights", holes: float | None = None) -> Grid:
    """Any two-dimensional array. Cells that are masked or not finite are holes: filled smoothly, or with `holes`."""
    cells = numbers(source, name)
    if cells.ndim != 2 or cells.size == 0:
        raise ValueError(f"{name} must be a grid of rows and columns, not of shape {cells.shape}")
    missing = ~np.isfinite(cells)
    if not missing.any():
        return Grid(cells, None, source)
    if missing.all():
        raise ValueError(f"{name} has no cell with a value")
    filled = np.where(missing, np.float32(0), cells)
    stand_ins = fill_holes(filled, missing) if holes is None else np.where(missing, np.float32(holes), cells)
    return Grid(stand_ins, missing, source)


def numbers(source, name: str) -> np.ndarray:
    """Any array of real numbers as float32 in C order, without a copy where it is that. Masked ones become NaN."""
    if np.ma.isMaskedArray(source):
        source = source.astype(np.float32).filled(np.nan)
    array = np.asarray(source)
    if array.dtype.kind not in "buif":
        raise TypeError(f"{name} must be an array of numbers, not of {array.dtype}")
    with np.errstate(over="ignore"):  # what is too large for float32 is a hole
        return np.ascontiguousarray(array, np.float32)


def take_share(source, shape: tuple[int, int], name: str) -> np.ndarray | None:
    """A grid of factors of the same shape. Holes count as 0; integers above 1 are scaled by their type's largest."""
    if source is None:
        return None
    grid = take_grid(source, name, holes=0.0)
    cells = grid.cells
    if cells.shape != shape:
        raise ValueError(f"{name} is of shape {cells.shape}; it must be {shape}")
    kind = np.asarray(source).dtype
    if kind.kind in "iu" and cells.max() > 1:
        cells = cells / np.float32(np.iinfo(kind).max)
    return cells


def round_up(shape: tuple[int, int], multiple: int) -> tuple[int, int]:
    return tuple((side + multiple - 1) // multiple * multiple for side in shape)


def pad(cells: np.ndarray, shape: tuple[int, int]) -> np.ndarray:
    """More rows and columns at the end, which repeat the last ones. Always a copy."""
    rows, columns = (new - old for new, old in zip(shape, cells.shape))
    return np.ascontiguousarray(np.pad(cells, ((0, rows), (0, columns)), mode="edge"))


def crop(cells: np.ndarray, shape: tuple[int, int]) -> np.ndarray:
    return np.ascontiguousarray(cells[: shape[0], : shape[1]])


def halvings(feature_cells: float) -> int:
    """How often sides should halve evenly for a pyramid of features of so many cells."""
    return min(max(math.ceil(math.log2(feature_cells)) - 1, 0), 12)


def resample(cells: np.ndarray, shape: tuple[int, int]) -> np.ndarray:
    """Bilinear, between the centres of the cells."""

    def positions(old: int, new: int):
        place = np.clip((np.arange(new) + 0.5) * old / new - 0.5, 0.0, old - 1.0)
        first = place.astype(int)
        return first, np.minimum(first + 1, old - 1), (place - first).astype(np.float32)

    def mix(a, b, weight):
        return a + (b - a) * weight

    top, bottom, down = positions(cells.shape[0], shape[0])
    left, right, across = positions(cells.shape[1], shape[1])
    upper = mix(cells[top][:, left], cells[top][:, right], across)
    lower = mix(cells[bottom][:, left], cells[bottom][:, right], across)
    return mix(upper, lower, down[:, None])
