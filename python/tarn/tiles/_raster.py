"""Rasters in windows: what a file says, reading a window, and results that appear whole or not at all."""
from __future__ import annotations

import contextlib
import math
import os
import zlib
from dataclasses import dataclass
from xml.etree import ElementTree

import numpy as np
import rasterio
from rasterio.enums import MaskFlags
from rasterio.io import MemoryFile
from rasterio.windows import Window

from ._layout import Box

# GDAL would take a twentieth of the machine for its cache, which is not counted in a worker's memory.
ENVIRONMENT = {"GDAL_CACHEMAX": 32 << 20, "GDAL_NUM_THREADS": 1}


@dataclass(frozen=True)
class Source:
    """What a raster's file says about it."""

    path: str
    shape: tuple[int, int]
    crs: str  # WKT, or empty
    transform: tuple[float, ...]
    units: str
    has_holes: bool
    largest_integer: int  # of the cells' type, or 0
    bytes_and_time: tuple[int, int]  # of the file: another file of the same name differs

    @property
    def cell_size(self) -> float | None:
        """Metres along the side of a square cell on the ground. Degrees are turned into metres at the raster's centre."""
        a, b, _, d, e, f = self.transform
        if (a, b, d, e) == (1, 0, 0, 1):
            return None
        x, y = math.hypot(a, d), math.hypot(b, e)
        crs = rasterio.CRS.from_wkt(self.crs) if self.crs else None
        if crs is not None and crs.is_geographic:
            rows, columns = self.shape
            latitude = math.radians(f + d * columns / 2 + e * rows / 2)
            axis, flattening = _ellipsoid(crs)
            squared_eccentricity = flattening * (2 - flattening)
            w = 1 - squared_eccentricity * math.sin(latitude) ** 2
            x *= math.radians(1) * axis * math.cos(latitude) / math.sqrt(w)
            y *= math.radians(1) * axis * (1 - squared_eccentricity) / w**1.5
        elif crs is not None and crs.is_projected:
            metre = crs.linear_units_factor[1]
            x, y = x * metre, y * metre
        return math.sqrt(x * y)

    @property
    def height_unit(self) -> float:
        if self.units in ("ft", "foot", "feet"):
            return 0.3048
        return 1200.0 / 3937.0 if self.units in ("us-ft", "US survey foot") else 1.0


def _ellipsoid(crs) -> tuple[float, float]:
    """Semi-major axis and flattening."""
    system = crs.to_dict(projjson=True)
    while "base_crs" in system:
        system = system["base_crs"]
    datum = system.get("datum") or system.get("datum_ensemble") or {}
    ellipsoid = datum.get("ellipsoid", {})
    axis = ellipsoid.get("semi_major_axis", ellipsoid.get("radius", 6378137.0))
    inverse = ellipsoid.get("inverse_flattening", 0.0)
    if "semi_minor_axis" in ellipsoid:
        return axis, 1 - ellipsoid["semi_minor_axis"] / axis
    return axis, 1 / inverse if inverse else 0.0


def describe(path: str) -> Source:
    with opened(path) as file:
        transform = file.transform
        turned = abs(transform.b) * file.height > 0.01 * abs(transform.a) or transform.a < 0
        if file.crs is not None and (turned or transform.e > 0):
            raise ValueError(f"the rows of '{path}' do not run from north to south; turn it first with gdalwarp")
        kind = np.dtype(file.dtypes[0])
        status = os.stat(path)
        return Source(
            os.path.abspath(path),
            file.shape,
            file.crs.to_wkt() if file.crs else "",
            tuple(transform)[:6],
            file.units[0] or "",
            MaskFlags.all_valid not in file.mask_flag_enums[0],
            int(np.iinfo(kind).max) if kind.kind in "iu" and (file.scales[0], file.offsets[0]) == (1, 0) else 0,
            (status.st_size, status.st_mtime_ns),
        )


@contextlib.contextmanager
def opened(path: str):
    with rasterio.Env(**ENVIRONMENT), rasterio.open(path) as file:
        yield file


def read(path: str, box: Box) -> np.ndarray:
    """The cells of a box as floats, NaN where there is no value. Beyond the raster its last row and column repeat."""
    with opened(path) as file:
        inside = box.grown(0, file.shape).common(Box(0, 0, *file.shape))
        window = Window(inside.left, inside.top, inside.shape[1], inside.shape[0])
        cells = file.read(1, window=window, out_dtype=np.float32)
        if (file.scales[0], file.offsets[0]) != (1, 0):
            cells = (cells.astype(np.float64) * file.scales[0] + file.offsets[0]).astype(np.float32)
        if MaskFlags.all_valid not in file.mask_flag_enums[0]:
            cells[file.read_masks(1, window=window) == 0] = np.nan
    below, beyond = box.bottom - inside.bottom, box.right - inside.right
    return np.pad(cells, ((0, below), (0, beyond)), mode="edge") if below or beyond else cells


def write_whole(path: str, *contents) -> int:
    """A file that appears under its name when it is complete. Returns the checksum of its bytes."""
    partial = f"{path}.{os.getpid()}.partial"
    try:
        with open(partial, "wb") as file:
            for content in contents:
                file.write(content)
            file.flush()
            os.fsync(file.fileno())
        os.replace(partial, path)
    except BaseException as error:
        with contextlib.suppress(OSError):
            os.unlink(partial)
        if isinstance(error, OSError):  # of a write it does not know the file
            raise OSError(error.errno, error.strerror, path) from None
        raise
    value = 0
    for content in contents:
        value = zlib.crc32(content, value)
    return value


def checksum(path: str) -> int | None:
    """Of a file's bytes; None if there is no such file."""
    value = 0
    try:
        with open(path, "rb") as file:
            while block := file.read(1 << 20):
                value = zlib.crc32(block, value)
    except OSError:
        return None
    return value


def write_tile(path: str, bands: np.ndarray, box: Box, source: Source) -> int:
    """A GeoTIFF of the cells of a box, bands x rows x columns. It is made in memory, so that a full disk is noticed."""
    is_float = bands.dtype.kind == "f"
    transform = rasterio.Affine(*source.transform) * rasterio.Affine.translation(box.left, box.top)
    with rasterio.Env(**ENVIRONMENT), MemoryFile() as memory:
        with memory.open(
            driver="GTiff",
            count=len(bands),
            height=bands.shape[1],
            width=bands.shape[2],
            dtype=bands.dtype,
            crs=source.crs or None,
            transform=transform,
            nodata=math.nan if is_float and source.has_holes else None,
            tiled=True,
            blockxsize=256,
            blockysize=256,
            compress="deflate",
            zlevel=1,
            predictor=3 if is_float else 2,
            interleave="pixel",
            bigtiff="if_safer",
        ) as file:
            file.write(bands)
            if is_float and source.units:
                file.units = (source.units,) * len(bands)
        return write_whole(path, memory.getbuffer())


def write_vrt(path: str, files: list[tuple[str, Box]], source: Source, kind: str, bands: int) -> None:
    """The whole, made of tiles. Their paths are relative, so that the folder can be moved."""
    rows, columns = source.shape
    dataset = ElementTree.Element("VRTDataset", rasterXSize=str(columns), rasterYSize=str(rows))
    if source.crs:
        ElementTree.SubElement(dataset, "SRS").text = source.crs
    a, b, c, d, e, f = source.transform
    ElementTree.SubElement(dataset, "GeoTransform").text = ", ".join(repr(value) for value in (c, a, b, f, d, e))
    folder = os.path.dirname(os.path.abspath(path))
    for number in range(1, bands + 1):
        band = ElementTree.SubElement(dataset, "VRTRasterBand", dataType=kind, band=str(number))
        if kind == "Float32" and source.has_holes:
            ElementTree.SubElement(band, "NoDataValue").text = "nan"
        if kind == "Float32" and source.units:
            ElementTree.SubElement(band, "UnitType").text = source.units
        if bands == 3:
            ElementTree.SubElement(band, "ColorInterp").text = ("Red", "Green", "Blue")[number - 1]
        for name, box in files:
            tile = ElementTree.SubElement(band, "SimpleSource")
            ElementTree.SubElement(tile, "SourceFilename", relativeToVRT="1").text = os.path.relpath(name, folder)
            ElementTree.SubElement(tile, "SourceBand").text = str(number)
            height, width = (str(side) for side in box.shape)
            ElementTree.SubElement(
                tile, "SourceProperties", RasterXSize=width, RasterYSize=height, DataType=kind, BlockXSize="256",
                BlockYSize="256",
            )  # fmt: skip
            ElementTree.SubElement(tile, "SrcRect", xOff="0", yOff="0", xSize=width, ySize=height)
            place = {"xOff": str(box.left), "yOff": str(box.top), "xSize": width, "ySize": height}
            ElementTree.SubElement(tile, "DstRect", place)
    write_whole(path, ElementTree.tostring(dataset))


def write_cog(vrt: str, path: str) -> None:
    """One cloud-optimised GeoTIFF with overviews."""
    import rasterio.shutil

    partial = f"{path}.{os.getpid()}.partial"
    try:
        with rasterio.Env(GDAL_CACHEMAX=256 << 20, GDAL_NUM_THREADS="ALL_CPUS"):
            rasterio.shutil.copy(
                vrt, partial, driver="COG", compress="deflate", predictor="yes", bigtiff="if_safer", overview_resampling="average"
            )
        with open(partial, "rb") as file:
            os.fsync(file.fileno())
        os.replace(partial, path)
    except BaseException:
        with contextlib.suppress(OSError):
            os.unlink(partial)
        raise
