"""How a raster is cut: tiles that answer for their cells, and windows around them that the work is done on."""
from __future__ import annotations

from dataclasses import dataclass
from typing import Iterator, NamedTuple

import numpy as np


class Box(NamedTuple):
    """Rows from top to below bottom, columns from left to before right."""

    top: int
    left: int
    bottom: int
    right: int

    @property
    def shape(self) -> tuple[int, int]:
        return self.bottom - self.top, self.right - self.left

    def grown(self, margin: int, shape: tuple[int, int]) -> Box:
        """With a margin on all sides, as far as the grid goes."""
        rows, columns = shape
        return Box(
            max(self.top - margin, 0),
            max(self.left - margin, 0),
            min(self.bottom + margin, rows),
            min(self.right + margin, columns),
        )

    def common(self, other: Box) -> Box:
        """What both have; without rows or columns where they have nothing."""
        top, left = max(self.top, other.top), max(self.left, other.left)
        return Box(top, left, max(min(self.bottom, other.bottom), top), max(min(self.right, other.right), left))

    def within(self, outer: Box) -> tuple[slice, slice]:
        """Where this box lies in an array of the cells of `outer`."""
        return (
            slice(self.top - outer.top, self.bottom - outer.top),
            slice(self.left - outer.left, self.right - outer.left),
        )


@dataclass(frozen=True)
class Tile:
    row: int
    column: int
    core: Box  # the cells of the raster that the tile answers for
    window: Box  # the cells that are worked on; may go beyond the raster, into its padding

    @property
    def name(self) -> str:
        return f"r{self.row:04d}c{self.column:04d}"


@dataclass(frozen=True)
class Layout:
    """Tiles of a raster.

    All windows have the same size, and lie inside the whole: at its borders they are moved inwards, not cut. So a border of
    the whole is a border of the window too, every tile takes the same memory, and windows are square where the whole allows
    it.
    """

    raster: tuple[int, int]  # rows and columns
    whole: tuple[int, int]  # the same as one call would work on them: padded
    side: int  # of a tile
    overlap: int
    blend: int  # cells on both sides of a tile's border in which neighbours are mixed; 0: each answers for its own alone
    wider: int = 0  # a window may have up to so many columns more, a number that follows from its place

    @property
    def rows(self) -> int:
        return -(-self.raster[0] // self.side)

    @property
    def columns(self) -> int:
        return -(-self.raster[1] // self.side)

    @property
    def window_shape(self) -> tuple[int, int]:
        """Of the largest."""
        return self._window_shape(self.wider)

    def _window_shape(self, wider: int) -> tuple[int, int]:
        length = self.side + 2 * self.overlap
        return min(length, self.whole[0]), min(length + wider, self.whole[1])

    def tile(self, row: int, column: int) -> Tile:
        top, left = row * self.side, column * self.side
        core = Box(top, left, top + self.side, left + self.side).grown(0, self.raster)
        height, width = self._window_shape(place_number(0, row, column) % (self.wider + 1))
        above = min(max(top - self.overlap, 0), self.whole[0] - height)
        before = min(max(left - self.overlap, 0), self.whole[1] - width)
        return Tile(row, column, core, Box(above, before, above + height, before + width))

    def tiles(self) -> Iterator[Tile]:
        for row in range(self.rows):
            for column in range(self.columns):
                yield self.tile(row, column)

    def part(self, tile: Tile) -> Box:
        """The cells that a tile has a say in."""
        return tile.core.grown(self.blend, self.raster)

    def parts_over(self, tile: Tile) -> list[Tile]:
        """The tiles that have a say in cells of this one."""
        reach = -(-self.blend // self.side)
        near = (
            self.tile(row, column)
            for row in range(max(tile.row - reach, 0), min(tile.row + reach + 1, self.rows))
            for column in range(max(tile.column - reach, 0), min(tile.column + reach + 1, self.columns))
        )
        return [other for other in near if min(self.part(other).common(tile.core).shape) > 0]

    def weights(self, tile: Tile, box: Box) -> np.ndarray:
        """What a tile's say counts in the cells of a box in its part: 1 inside, falling smoothly to 0 across borders."""
        down = self._weights(box.top, box.bottom, tile.core.top, tile.core.bottom, self.raster[0])
        across = self._weights(box.left, box.right, tile.core.left, tile.core.right, self.raster[1])
        return down[:, None] * across

    def _weights(self, start: int, stop: int, first: int, last: int, length: int) -> np.ndarray:
        centre = np.arange(start, stop) + 0.5
        weight = np.ones(stop - start)
        if self.blend and first > 0:
            weight *= _smoothstep((centre - (first - self.blend)) / (2 * self.blend))
        if self.blend and last < length:
            weight *= _smoothstep(((last + self.blend) - centre) / (2 * self.blend))
        return weight


def _smoothstep(t: np.ndarray) -> np.ndarray:
    t = np.clip(t, 0, 1)
    return t * t * (3 - 2 * t)


def place_number(seed: int, row: int, column: int) -> int:
    """A number of 32 bits that follows from a tile's place. The first tile takes the seed itself, as one call would."""
    if row == 0 and column == 0:
        return seed
    return int(np.random.SeedSequence(seed, spawn_key=(row, column)).generate_state(1)[0])


def cut(raster: tuple[int, int], side: int, align: int) -> int:
    """The side of tiles of about the same size, on multiples of `align` and no larger than `side`."""
    if side < align:
        raise ValueError(f"tile is {side}; this pyramid needs tiles on multiples of {align} cells")
    longer = max(raster)
    count = -(-longer // (side // align * align))
    return -(-longer // (count * align)) * align
