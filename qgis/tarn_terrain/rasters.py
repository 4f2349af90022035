"""Layers as grids and grids as files, by GDAL."""
from __future__ import annotations

import math
import os
from dataclasses import dataclass

import numpy as np
from osgeo import gdal, osr
from qgis.core import QgsProcessingException, QgsRasterLayer

gdal.UseExceptions()


@dataclass
class Place:
    """Where a grid lies, and what else its file says about it."""

    shape: tuple[int, int]
    transform: tuple | None = None
    wkt: str = ""
    unit: str = ""
    missing_value: float | None = None
    is_south_up: bool = False

    def _system(self):
        if not self.wkt:
            return None
        system = osr.SpatialReference(wkt=self.wkt)
        system.SetAxisMappingStrategy(osr.OAMS_TRADITIONAL_GIS_ORDER)
        return system

    def _centre(self) -> tuple[float, float]:
        t, (rows, columns) = self.transform, self.shape
        return t[0] + t[1] * columns / 2 + t[2] * rows / 2, t[3] + t[4] * columns / 2 + t[5] * rows / 2

    @property
    def cell_size(self) -> float | None:
        """The side of the square of a cell's area, metres."""
        sides = self.cell_sides
        return sides and math.sqrt(sides[0] * sides[1])

    @property
    def cell_sides(self) -> tuple[float, float] | None:
        """Width and height of a cell, metres. Degrees become metres at the grid's centre."""
        if self.transform is None:
            return None
        t = self.transform
        x, y = math.hypot(t[1], t[4]), math.hypot(t[2], t[5])
        system = self._system()
        if system is not None and system.IsGeographic():
            # Lengths of an arc along the parallel and along the meridian, on the ellipsoid.
            latitude = (t[3] + t[4] * self.shape[1] / 2 + t[5] * self.shape[0] / 2) * math.pi / 180
            axis, inverse = system.GetSemiMajor(), system.GetInvFlattening()
            flattening = 1 / inverse if inverse > 0 else 0
            squared_eccentricity = flattening * (2 - flattening)
            w = 1 - squared_eccentricity * math.sin(latitude) ** 2
            radian = system.GetAngularUnits()
            x *= radian * axis * math.cos(latitude) / math.sqrt(w)
            y *= radian * axis * (1 - squared_eccentricity) / w**1.5
        elif system is not None and (system.IsProjected() or system.IsLocal()):
            x, y = x * system.GetLinearUnits(), y * system.GetLinearUnits()
        return (x, y) if x > 0 and y > 0 else None

    @property
    def height_unit(self) -> float:
        """Metres in one unit of height."""
        if self.unit in ("ft", "foot", "feet"):
            return 0.3048
        return 1200.0 / 3937.0 if self.unit in ("us-ft", "US survey foot") else 1.0

    @property
    def latitude(self) -> float | None:
        system = self._system()
        if self.transform is None or system is None or not (system.IsGeographic() or system.IsProjected()):
            return None
        x, y = self._centre()
        if system.IsProjected():
            degrees = system.CloneGeogCS()
            degrees.SetAxisMappingStrategy(osr.OAMS_TRADITIONAL_GIS_ORDER)
            _x, y, _z = osr.CoordinateTransformation(system, degrees).TransformPoint(x, y)
        return y if abs(y) <= 90 else None


def _dataset(layer: QgsRasterLayer):
    if layer.dataProvider().name() != "gdal":
        raise QgsProcessingException(f"layer '{layer.name()}' is not a raster file; export it to one first")
    return gdal.Open(layer.source())


def place_of(layer: QgsRasterLayer) -> Place:
    dataset = _dataset(layer)
    band = dataset.GetRasterBand(1)
    shape = (dataset.RasterYSize, dataset.RasterXSize)
    transform = dataset.GetGeoTransform(can_return_null=True)
    is_south_up = transform is not None and transform[5] > 0
    if is_south_up:
        t = transform
        transform = (t[0], t[1], t[2], t[3] + t[5] * shape[0], t[4], -t[5])
    wkt = layer.crs().toWkt() if layer.crs().isValid() else dataset.GetProjection()
    return Place(shape, transform, wkt, band.GetUnitType(), band.GetNoDataValue(), is_south_up)


def read_bands(layer: QgsRasterLayer, like: Place | None = None, bands: int = 1) -> list[np.ndarray]:
    """The first bands as floats, NaN where there is no value, rows from the north; fitted to another grid if given.

    Bands of whole numbers keep their type, since masks are scaled by it.
    """
    place, dataset = place_of(layer), _dataset(layer)
    if like is not None and place.shape != like.shape:
        rows, columns = like.shape
        options = {"format": "MEM", "width": columns, "height": rows, "resampleAlg": "bilinear"}
        if like.transform is not None and place.transform is not None:
            t = like.transform
            options["outputBounds"] = (t[0], t[3] + t[5] * rows, t[0] + t[1] * columns, t[3])
            options["dstSRS"], options["srcSRS"] = like.wkt or None, place.wkt or None
            dataset = gdal.Warp("", dataset, **options)
        else:
            dataset = gdal.Translate("", dataset, **options)
        place.is_south_up = False
    result = []
    for number in range(1, bands + 1):
        band = dataset.GetRasterBand(min(number, dataset.RasterCount))
        cells = band.ReadAsArray()
        scale, offset = band.GetScale() or 1.0, band.GetOffset() or 0.0
        if scale != 1 or offset != 0:
            cells = (cells.astype(np.float32).astype(np.float64) * scale + offset).astype(np.float32)
        if not band.GetMaskFlags() & gdal.GMF_ALL_VALID:
            missing = band.GetMaskBand().ReadAsArray() == 0
            if missing.any():
                cells = np.where(missing, np.float32(np.nan), cells.astype(np.float32))
        result.append(cells[::-1] if place.is_south_up else cells)
    return result


def read_grid(layer: QgsRasterLayer, like: Place | None = None) -> np.ndarray:
    return read_bands(layer, like)[0]


def read_picture(layer: QgsRasterLayer, like: Place | None = None) -> np.ndarray:
    """Three bands of 8 or 16 bits as linear light."""
    count = 3 if layer.bandCount() >= 3 else 1
    bands = read_bands(layer, like, count)
    if any(band.dtype not in (np.uint8, np.uint16) for band in bands):
        raise QgsProcessingException(f"layer '{layer.name()}' is no picture with 8 or 16 bits a band")
    brightest = np.float32(np.iinfo(bands[0].dtype).max)
    code = np.stack([bands[n % count] for n in range(3)], axis=2).astype(np.float32) / brightest
    low, high = code / np.float32(12.92), ((code + np.float32(0.055)) / np.float32(1.055)) ** np.float32(2.4)
    return np.where(code <= np.float32(0.04045), low, high)


def srgb(light: np.ndarray) -> np.ndarray:
    """Linear light as 8 bits a channel (IEC 61966-2-1)."""
    clamped = np.clip(light.astype(np.float64), 0, 1)
    code = np.where(clamped <= 0.0031308, clamped * 12.92, 1.055 * clamped ** (1 / 2.4) - 0.055)
    return np.floor(code * 255 + 0.5).astype(np.uint8)


class Files:
    """The files of a run. They appear whole, and all together, when the last one is written."""

    def __init__(self):
        self._written: list[tuple[str, str]] = []

    def add(self, path: str, cells: np.ndarray, place: Place, contents: str, unit: str) -> None:
        bands = np.moveaxis(cells, 2, 0) if cells.ndim == 3 else cells[None]
        bands = bands[:, ::-1] if place.is_south_up else bands
        is_picture = bands.dtype == np.uint8
        kind = gdal.GDT_Byte if is_picture else gdal.GDT_Float32
        rows, columns = place.shape = cells.shape[:2]
        dataset = gdal.GetDriverByName("MEM").Create("", columns, rows, len(bands), kind)
        if place.transform is not None:
            t = place.transform
            south_up = (t[0], t[1], t[2], t[3] + t[5] * rows, t[4], -t[5])
            dataset.SetGeoTransform(south_up if place.is_south_up else t)
        if place.wkt:
            dataset.SetProjection(place.wkt)
        missing = np.isnan(bands) if not is_picture else np.zeros(1, bool)
        value = -9999.0 if place.missing_value is None else place.missing_value
        for number, band in enumerate(bands, 1):
            out = dataset.GetRasterBand(number)
            out.SetDescription(contents)
            if unit:
                out.SetUnitType(unit)
            if missing.any():
                band = np.where(missing[number - 1], np.float32(value), band)
                out.SetNoDataValue(value)
            out.WriteArray(band)
        self._write(path, dataset, is_picture)

    def _write(self, path: str, dataset, is_picture: bool) -> None:
        stem, ending = os.path.splitext(path)
        driver, options = _format(ending, is_picture)
        partial = f"{stem}.partial{ending}"
        os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
        self._written.append((partial, path))
        gdal.GetDriverByName(driver).CreateCopy(partial, dataset, options=options)

    def translate(self, source: str, path: str) -> None:
        """A VRT of tiles as one file."""
        self._write(path, gdal.Open(source), False)

    def finish(self) -> None:
        for partial, path in self._written:
            os.replace(partial, path)
        self._written.clear()

    def discard(self) -> None:
        for partial, _path in self._written:
            if os.path.exists(partial):
                os.unlink(partial)


def _format(ending: str, is_picture: bool) -> tuple[str, list[str]]:
    if ending.lower() in (".tif", ".tiff"):
        predictor = 2 if is_picture else 3
        return "GTiff", ["TILED=YES", "COMPRESS=DEFLATE", "ZLEVEL=1", f"PREDICTOR={predictor}", "BIGTIFF=IF_SAFER"]
    for n in range(gdal.GetDriverCount()):
        driver = gdal.GetDriver(n)
        endings = (driver.GetMetadataItem(gdal.DMD_EXTENSIONS) or "").split()
        if ending.lower().lstrip(".") in endings and driver.GetMetadataItem(gdal.DCAP_CREATECOPY):
            return driver.ShortName, []
    raise QgsProcessingException(f"no format is written to files that end in '{ending}'; use .tif")
