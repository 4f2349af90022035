"""The computations of the package `tarn` as Processing algorithms.

Parameters, ranges, defaults, units and helps come from the table of the command-line tool's options
(`tarn options --json`, here as options.json), as far as the package's function of the name takes them.
"""
from __future__ import annotations

import contextlib
import inspect
import json
import logging
import os
import re
import sys
import tempfile
from pathlib import Path

import numpy as np
import qgis.utils
import tarn
from qgis.core import (
    NULL,
    QgsProcessing,
    QgsProcessingAlgorithm,
    QgsProcessingException,
    QgsProcessingParameterBoolean,
    QgsProcessingParameterDefinition,
    QgsProcessingParameterEnum,
    QgsProcessingParameterFeatureSource,
    QgsProcessingParameterField,
    QgsProcessingParameterFile,
    QgsProcessingParameterMatrix,
    QgsProcessingParameterNumber,
    QgsProcessingParameterRange,
    QgsProcessingParameterRasterDestination,
    QgsProcessingParameterRasterLayer,
    QgsProcessingParameterString,
    QgsProcessingUtils,
)

from .models import read_model
from .rasters import Files, Place, place_of, read_grid, read_picture, srgb
from .styles import Styler, kind_of

TABLE = {c["name"]: c for c in json.loads((Path(__file__).parent / "options.json").read_text("utf-8"))["commands"]}
GROUPS = {
    "Relief": ("shape", "weather", "erode", "dunes", "debris"),
    "Water": ("flow", "colour"),
    "Light": ("shade", "sunlight"),
    "Models and points": ("mesh", "displaced_mesh", "points", "bake"),
    "Filters": ("stamp", "median", "cells"),
}
# What QGIS has its own ways for.
UNUSED = {"preview", "co", "world_file"}
# Names of the function's arguments where they differ from the table's.
ARGUMENTS = {"in": "heights", "cloud": "samples", "model": "vertices"}
# Options of files that have no place in the package.
OF_FILES = {"up": ("mesh", "displaced_mesh", "bake")}
NAMES = {"in": "INPUT", "out": "OUTPUT"}
ADVANCED = {"cell_size", "height_unit", "device"}  # QGIS knows the layer's scale
NUMBERS = {"number": QgsProcessingParameterNumber.Double, "integer": QgsProcessingParameterNumber.Integer}
BLOCK_SIZE = "BLOCK_SIZE"


_FAILURES = (QgsProcessingException, ValueError, TypeError, ArithmeticError, RuntimeError, OSError, ImportError)


class _Cancelled(Exception):
    pass


def algorithms() -> list[QgsProcessingAlgorithm]:
    return [Algorithm(function) for functions in GROUPS.values() for function in functions]


def _is_tiled(function: str) -> bool:
    try:
        from tarn.tiles._commands import COMMANDS
    except ImportError:
        return False
    return function in COMMANDS and function != "shade"  # whose picture the tile runner leaves in linear light


def _label(option: dict) -> str:
    if option["role"] == "output":
        text = option.get("contents") or re.sub(", .png$", "", option["help"])
        return text[0].upper() + text[1:]
    words = "Height grid" if option["name"] == "in" else option["name"].replace("_", " ").capitalize()
    return words if option["unit"] in ("", "share", "height") else f"{words} ({option['unit']})"


def _field(name: str) -> str:
    """The field of a result that an output of the table is."""
    return name[: -len("_out")] if name.endswith("_out") else name


class Algorithm(QgsProcessingAlgorithm):
    def __init__(self, function: str):
        super().__init__()
        self._name = function
        self._function = getattr(tarn, function)
        self._command = TABLE["mesh" if function == "displaced_mesh" else function]
        self._taken = inspect.signature(self._function).parameters
        self._options = [option for option in self._command["options"] if self._offers(option)]

    def _offers(self, option: dict) -> bool:
        name = option["name"]
        if name in UNUSED or (option["role"] == "output" and self._name == "displaced_mesh" and name != "out"):
            return False
        return (
            option["role"] == "output"
            or self._name in OF_FILES.get(name, ())
            or ARGUMENTS.get(name, name) in self._taken
            or name.startswith("albedo_")
        )

    # What QGIS asks about an algorithm.

    def createInstance(self):
        return Algorithm(self._name)

    def name(self) -> str:
        return self._name.replace("_", "")

    def displayName(self) -> str:
        if self._name == "displaced_mesh":
            return "Draw a displaced model from above into a height grid"
        return self._command["summary"]

    def group(self) -> str:
        return next(group for group, functions in GROUPS.items() if self._name in functions)

    def groupId(self) -> str:
        return self.group().split()[0].lower()

    def shortHelpString(self) -> str:
        about = re.split(r"\n\n\w+(?:, \w+)*: ", inspect.getdoc(self._function))[0].replace("\n\n", "</p><p>")
        lines = [
            f"<b>{_label(option)}</b>: {option['help']}" for option in self._options if option["role"] != "output"
        ]
        return f"<p>{about}</p><p>" + "<br>".join(lines) + "</p>"

    def tags(self) -> list[str]:
        return ["terrain", "dem", *self._command["functions"]]

    def flags(self):
        return super().flags() | QgsProcessingAlgorithm.FlagCanCancel

    def initAlgorithm(self, _configuration=None) -> None:
        for option in self._options:
            for parameter in self._parameters(option):
                if option["advanced"] or option["name"] in ADVANCED:
                    parameter.setFlags(parameter.flags() | QgsProcessingParameterDefinition.FlagAdvanced)
                parameter.setHelp(option["help"])
                self.addParameter(parameter)
        if _is_tiled(self._name):
            parameter = QgsProcessingParameterNumber(
                BLOCK_SIZE, "Work in blocks of so many cells a side (0: all at once)", defaultValue=0, minValue=0
            )
            parameter.setFlags(parameter.flags() | QgsProcessingParameterDefinition.FlagAdvanced)
            self.addParameter(parameter)

    def _parameters(self, option: dict):
        name, kind = NAMES.get(option["name"], option["name"].upper()), option["type"]
        text = _label(option)
        if option["role"] == "output":
            # The first one is what the algorithm is for; the others are made when they are asked for.
            is_first = option["name"] == "out"
            yield QgsProcessingParameterRasterDestination(name, text, optional=not is_first, createByDefault=is_first)
            return
        if "default_text" in option:
            text += f", {option['default_text']}"
        default, optional = option.get("default"), not option["required"]
        if kind in ("grid", "picture"):
            yield QgsProcessingParameterRasterLayer(name, text, optional=optional)
        elif kind in NUMBERS and option["count"] == 2:
            yield QgsProcessingParameterRange(name, text, NUMBERS[kind], default, optional)
        elif kind in NUMBERS and option["count"] > 1:
            yield QgsProcessingParameterMatrix(
                name, text, 1, True, ["red", "green", "blue"], defaultValue=default, optional=True
            )
        elif kind in NUMBERS and "members" not in option:
            limits = {"minValue": option.get("minimum", option.get("exclusive_minimum")), "maxValue": option["maximum"]}
            if NUMBERS[kind] == QgsProcessingParameterNumber.Integer:
                limits["maxValue"] = min(limits["maxValue"], 2**31 - 1)
            # Parameters without a default that follow from the layer are left empty.
            optional = "default" not in option and optional
            latitude_of_layer = option["name"] == "latitude"
            yield QgsProcessingParameterNumber(
                name, text, NUMBERS[kind], defaultValue=default, optional=optional or latitude_of_layer, **limits
            )
        elif kind == "choice" or "members" in option:
            choices = option.get("choices") or [str(member) for member in option["members"]]
            enum = QgsProcessingParameterEnum(name, text, choices, defaultValue=str(default))
            enum.setUsesStaticStrings(True)
            yield enum
        elif kind == "flag":
            yield QgsProcessingParameterBoolean(name, text, defaultValue=default)
        elif kind == "model":
            yield QgsProcessingParameterFile(name, text)
        elif kind == "points":
            yield QgsProcessingParameterFeatureSource(name, text, [QgsProcessing.TypeVectorPoint], optional=optional)
            if self._name == "stamp":
                field = "Number of the patch"
                yield QgsProcessingParameterField(f"{name}_STAMP", field, parentLayerParameterName=name, optional=True)
        elif kind in ("metres_or_grid", "height_or_grid"):
            number = None if default is None else float(default)
            yield QgsProcessingParameterNumber(
                name, f"{text}, for all cells", NUMBERS["number"], number, optional=number is None
            )
            yield QgsProcessingParameterRasterLayer(f"{name}_LAYER", f"{text}, as a layer", optional=True)
        else:
            yield QgsProcessingParameterString(name, text, defaultValue=default, optional=default is None)

    # A run.

    def processAlgorithm(self, parameters, context, feedback) -> dict:
        run = _Run(self, parameters, context, feedback)
        try:
            with run.logging():
                return run.run()
        except _Cancelled:
            return {}
        except _FAILURES as error:
            line = " ".join(str(error).split()) or type(error).__name__
            if qgis.utils.iface is None:
                # qgis_process tells errors through std::cerr, which the library has turned off.
                print(f"{self.name()}: {line}", file=sys.stderr)
            raise QgsProcessingException(line) from None


class _Feedback(logging.Handler):
    """Shows the library's lines in the log of the dialog."""

    def __init__(self, feedback):
        super().__init__()
        self._feedback = feedback

    def emit(self, record) -> None:
        self._feedback.pushInfo(record.getMessage())


class _Run:
    def __init__(self, algorithm: Algorithm, parameters, context, feedback):
        self._algorithm, self._parameters, self._context, self._feedback = algorithm, parameters, context, feedback
        self._options = algorithm._options
        self._files = Files()

    @contextlib.contextmanager
    def logging(self):
        logger, handler = logging.getLogger("tarn"), _Feedback(self._feedback)
        level = logger.level
        logger.addHandler(handler)
        logger.setLevel(logging.INFO)
        try:
            yield
        finally:
            logger.setLevel(level)
            logger.removeHandler(handler)

    def run(self) -> dict:
        place = self._place()
        outputs = self._outputs()
        block = self._number(BLOCK_SIZE, int) if self._algorithm.parameterDefinition(BLOCK_SIZE) else 0
        try:
            if block:
                self._run_in_blocks(block, outputs, place)
            else:
                arguments = {name: value for name, value in self._arguments(place).items() if value is not None}
                if "progress" in self._algorithm._taken:
                    arguments["progress"] = self._report
                result = self._algorithm._function(**arguments)
                self._report(100.0)
                self._write(result, outputs, place)
            self._files.finish()
        finally:
            self._files.discard()
        return {name: path for name, (path, _field, _option) in outputs.items()}

    def _report(self, percent: float) -> None:
        self._feedback.setProgress(percent)
        if self._feedback.isCanceled():
            raise _Cancelled

    def _place(self) -> Place | None:
        """Where the results lie: as the input, or as the floor of a model."""
        for name in ("INPUT", "HEIGHTS", "FLOOR_LAYER", "DISPLACEMENT", "XY_MAP", "XZ_MAP", "YZ_MAP"):
            if self._algorithm.parameterDefinition(name) and (layer := self._layer(name)):
                return place_of(layer)
        return None

    def _outputs(self) -> dict[str, tuple[str, str, dict]]:
        """The files that are asked for, by parameter: path, field of the result, and the table's record."""
        outputs = {}
        for option in self._options:
            name = NAMES.get(option["name"], option["name"].upper())
            if option["role"] == "output" and (
                path := self._algorithm.parameterAsOutputLayer(self._parameters, name, self._context)
            ):
                outputs[name] = (path, "heights" if name == "OUTPUT" else _field(option["name"]), option)
        return outputs

    def _number(self, name: str, kind=float):
        if self._parameters.get(name) in (None, NULL, "") and not self._default(name):
            return None
        read = self._algorithm.parameterAsInt if kind is int else self._algorithm.parameterAsDouble
        value = read(self._parameters, name, self._context)
        return value

    def _default(self, name: str) -> bool:
        return self._algorithm.parameterDefinition(name).defaultValue() not in (None, NULL)

    def _layer(self, name: str):
        layer = self._algorithm.parameterAsRasterLayer(self._parameters, name, self._context)
        if layer is None and self._parameters.get(name) not in (None, NULL, ""):
            raise QgsProcessingException(f"{name}: '{self._parameters[name]}' is no raster layer")
        return layer

    def _arguments(self, place: Place | None) -> dict:
        algorithm, values = self._algorithm, {}
        for option in self._options:
            name, kind = option["name"], option["type"]
            parameter, argument = NAMES.get(name, name.upper()), ARGUMENTS.get(name, name)
            if option["role"] == "output":
                continue
            if kind == "grid":
                layer = self._layer(parameter)
                like = None if name == "stamps" else place  # a patch keeps its cells, wherever it lies
                values[argument] = None if layer is None else read_grid(layer, like)
            elif kind == "picture":
                layer = self._layer(parameter)
                values[argument] = None if layer is None else read_picture(layer, place)
            elif kind in NUMBERS and option["count"] == 2:
                ends = algorithm.parameterAsRange(self._parameters, parameter, self._context)
                values[argument] = ends if np.isfinite(ends).all() else None
            elif kind in NUMBERS and option["count"] > 1:
                values[argument] = [float(v) for v in self._matrix(parameter)] or None
            elif "members" in option:
                values[argument] = int(algorithm.parameterAsEnumString(self._parameters, parameter, self._context))
            elif kind in NUMBERS:
                values[argument] = self._number(parameter, int if kind == "integer" else float)
            elif kind == "choice":
                values[argument] = algorithm.parameterAsEnumString(self._parameters, parameter, self._context)
            elif kind == "flag":
                values[argument] = algorithm.parameterAsBoolean(self._parameters, parameter, self._context)
            elif kind == "model":
                path = algorithm.parameterAsFile(self._parameters, parameter, self._context)
                up = algorithm.parameterAsEnumString(self._parameters, "UP", self._context)
                model = read_model(path, up)
                values.update({key: part for key, part in model.items() if key in algorithm._taken})
            elif kind == "points":
                values[argument] = self._points(parameter, place)
            elif kind in ("metres_or_grid", "height_or_grid"):
                layer = self._layer(f"{parameter}_LAYER")
                values[argument] = self._number(parameter) if layer is None else read_grid(layer, place)
                if values[argument] is None:
                    raise QgsProcessingException(f"{parameter} or {parameter}_LAYER is needed")
            elif name == "size":
                sides = algorithm.parameterAsString(self._parameters, parameter, self._context).split("x")
                values[argument] = (int(sides[0]), int(sides[-1]))
            else:
                values[argument] = algorithm.parameterAsString(self._parameters, parameter, self._context) or None
        if "albedo_red" in values:
            bands = [values.pop(f"albedo_{colour}") for colour in ("red", "green", "blue")]
            if all(band is not None for band in bands):
                values["albedo"] = np.stack([_share(band) for band in bands], axis=2)
        values.pop("up", None)
        if place is not None:
            self._take_scale(values, place)
        return {name: value for name, value in values.items() if name in algorithm._taken}

    def _take_scale(self, values: dict, place: Place) -> None:
        """Cell size, height unit and latitude of the layer where they are not given."""
        for name in ("cell_size", "height_unit", "latitude"):
            if name in self._algorithm._taken and values.get(name) is None:
                if name == "latitude" and self._algorithm._name == "shade" and not values.get("date"):
                    continue
                is_pair = name == "cell_size" and self._algorithm._name == "cells"
                values[name] = place.cell_sides if is_pair else getattr(place, name)
                if values[name] is None and name == "cell_size":
                    self._feedback.pushWarning("the layer does not say how large a cell is; 1 m is used")
                elif values[name] is None and name == "latitude":
                    raise QgsProcessingException("the layer does not say where it lies; LATITUDE is needed")
                elif values[name] is not None:
                    self._feedback.pushInfo(f"{name}: {values[name]}, from the layer")

    def _matrix(self, name: str) -> list:
        return self._algorithm.parameterAsMatrix(self._parameters, name, self._context)

    def _points(self, name: str, place: Place | None):
        """The points of a layer: x, y and z, or with a place columns and rows of its grid and numbers of stamps."""
        source = self._algorithm.parameterAsSource(self._parameters, name, self._context)
        if source is None:
            return None
        if place is None:
            return [(p.x(), p.y(), p.z()) for f in source.getFeatures() for p in f.geometry().vertices()]
        fields = self._algorithm.parameterAsFields(self._parameters, f"{name}_STAMP", self._context)
        t = place.transform or (0, 1, 0, 0, 0, 1)
        determinant = t[1] * t[5] - t[2] * t[4]
        rows = []
        for feature in source.getFeatures():
            for point in feature.geometry().vertices():
                x, y = point.x() - t[0], point.y() - t[3]
                column, row = (x * t[5] - y * t[2]) / determinant, (y * t[1] - x * t[4]) / determinant
                rows.append((column, row, feature[fields[0]] if fields else 0))
        return np.array(rows, float).reshape(-1, 3)

    def _write(self, result, outputs, place: Place | None) -> None:
        for path, field, option in outputs.values():
            cells = self._cells_of(result, field, option)
            if cells is None:
                raise QgsProcessingException(f"there is no {field} to write: its stage is turned off")
            if place is None:
                place = self._new_place(cells.shape[:2])
            unit = (place.unit or "m") if option["unit"] == "height" else option["unit"]
            self._files.add(path, cells, place, option.get("contents", ""), place.unit if unit == "m" else unit)
            self._style(path, field, unit)

    def _cells_of(self, result, field: str, option: dict):
        if option["type"] != "picture":
            return result if isinstance(result, np.ndarray) else getattr(result, field)
        if isinstance(result, np.ndarray):
            return srgb(result)
        if (normals := getattr(result, "normals", None)) is not None:
            known = np.where(np.isfinite(normals), normals, np.float32(0.5))
            return np.floor(np.float32(255) * np.clip(known, 0, 1) + np.float32(0.5)).astype(np.uint8)
        if result.image is None:
            return None
        holes = self._holes() if field == "heights" else None
        pixels = srgb(result.image)
        if holes is not None:
            pixels[holes] = 255
        return pixels

    def _holes(self):
        return ~np.isfinite(read_grid(self._layer("INPUT")))

    def _new_place(self, shape) -> Place:
        """Of points: the grid that they just fill. Of a model alone: none."""
        if self._algorithm._name != "points":
            return Place(shape)
        source = self._algorithm.parameterAsSource(self._parameters, "CLOUD", self._context)
        samples = np.array(self._points("CLOUD", None))
        low, high = np.nanmin(samples, axis=0), np.nanmax(samples, axis=0)
        cell = (high[0] - low[0]) / shape[1]
        y_down = self._algorithm.parameterAsBoolean(self._parameters, "Y_DOWN", self._context)
        top = -low[1] if y_down else high[1]
        return Place(shape, (low[0], cell, 0, top, 0, -cell), source.sourceCrs().toWkt())

    def _style(self, path: str, field: str, unit: str) -> None:
        if self._context.willLoadLayerOnCompletion(path):
            kind = kind_of(self._algorithm._name, field)
            self._context.layerToLoadOnCompletionDetails(path).setPostProcessor(Styler(kind, unit))

    def _run_in_blocks(self, block: int, outputs, place: Place) -> None:
        """By the package's runner of tiles, which reads and writes files of its own."""
        from distributed import Client
        from tarn import tiles

        options = {}
        for option in self._options:
            name = option["name"]
            parameter = NAMES.get(name, name.upper())
            layer_name = f"{parameter}_LAYER" if option["type"] == "metres_or_grid" else parameter
            if option["role"] != "output" and option["type"] in ("grid", "metres_or_grid") and name != "in":
                if layer := self._layer(layer_name):
                    options[name] = layer.source()
        values = self._arguments(place)
        options |= {k: v for k, v in values.items() if v is not None and k not in ("heights", *options)}
        with tempfile.TemporaryDirectory(prefix="tarn-blocks-", dir=QgsProcessingUtils.tempFolder()) as folder:
            vrts = {name: os.path.join(folder, f"{name}.vrt") for name in outputs}
            for name, (_path, _field_name, option) in outputs.items():
                if name != "OUTPUT":
                    options[option["name"]] = vrts[name]
            main = vrts.get("OUTPUT", os.path.join(folder, "OUTPUT.vrt"))
            # A worker in this process: the library uses all cores by itself, and QGIS is no program to start others by.
            with Client(processes=False, n_workers=1, threads_per_worker=1, dashboard_address=None) as client:
                tiles.run(
                    self._algorithm._name, self._layer("INPUT").source(), main, tile=block, client=client,
                    progress=self._report, log=self._feedback.pushInfo, **options,
                )  # fmt: skip
            for name, (path, field, option) in outputs.items():
                self._files.translate(vrts[name], path)
                self._style(path, field, option["unit"])


def _share(band: np.ndarray) -> np.ndarray:
    if band.dtype.kind in "iu" and band.max() > 1:
        return band.astype(np.float32) / np.float32(np.iinfo(band.dtype).max)
    return np.nan_to_num(band.astype(np.float32))
