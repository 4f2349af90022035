"""The package against the tool `tarn`, to the bit, and what it does when things go wrong."""
import ctypes
import inspect
import json
import os
import re
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import tarn
from tarn import _declarations, _library

TOOL = os.environ.get("TARN_TOOL", "tarn")
SAMPLE = os.path.join(os.path.dirname(__file__), "..", "..", "data", "jacksboro.tif")
SCALE = ("--cell-size", "80", "--height-unit", "1")
rasterio = pytest.importorskip("rasterio")
pytestmark = pytest.mark.filterwarnings("ignore::rasterio.errors.NotGeoreferencedWarning")


def read(path) -> np.ndarray:
    with rasterio.open(path) as file:
        return file.read(1)


@pytest.fixture(scope="module")
def heights() -> np.ndarray:
    return read(SAMPLE).astype(np.float32)


@pytest.fixture
def tool(tmp_path):
    """Runs the tool and reads the grids that it writes, by the options that name them; "out" is the main one."""

    def run(command, source, *options, outputs=(), main="out.tif"):
        paths = {name: str(tmp_path / f"{name.strip('-')}.tif") for name in outputs}
        arguments = [TOOL, "-q", command, str(source), str(tmp_path / main), *options]
        for name, path in paths.items():
            arguments += [name, path]
        subprocess.run(arguments, check=True, capture_output=True)
        results = {name: read(path) for name, path in paths.items()}
        if main.endswith(".tif"):
            results["out"] = read(tmp_path / main)
        return results

    return run


CASES = {
    "shape": (tarn.shape, {"rate": 0.3, "feature_size": 2000.0}, {}),
    "weather": (tarn.weather, {"duration": 0.01, "absorption": 0.1}, {"depth": "--depth-out", "wear": "--wear-out"}),
    "erode": (
        tarn.erode,
        {"iterations": 4, "seed": 7, "terrace_deposition": 1.0},
        {"flow": "--flow-out", "sediment": "--sediment-out", "wear": "--wear-out"},
    ),
    "debris": (tarn.debris, {"count": 300, "seed": 3}, {"coverage": "--coverage-out"}),
    "flow": (tarn.flow, {"spread": 2.0}, {}),
    "median": (tarn.median, {"radius": 5, "iterations": 2}, {}),
    "cells": (tarn.cells, {"density": 20, "gap": 0.1}, {"random": "--random-out"}),
    "sunlight": (tarn.sunlight, {"latitude": 36.0, "haze": 0.1}, {}),
}
NO_SCALE = ("flow", "median")


@pytest.mark.parametrize("command", CASES)
def test_results_are_those_of_the_tool(command, heights, tool):
    function, options, outputs = CASES[command]
    scale = {} if command in NO_SCALE else {"cell_size": 80.0}
    before = heights.copy()
    result = function(heights, **scale, **options)
    given = [text for name, value in options.items() for text in (f"--{name.replace('_', '-')}", str(value))]
    wanted = tool(command, SAMPLE, *given, *(() if command == "flow" else SCALE), outputs=outputs.values())
    main = result if isinstance(result, np.ndarray) else result.heights
    np.testing.assert_array_equal(main, wanted["out"])
    for field, option in outputs.items():
        np.testing.assert_array_equal(getattr(result, field), wanted[option])
    np.testing.assert_array_equal(heights, before)


def test_light_is_that_of_the_tool(heights, tool, tmp_path):
    outputs = {"diffuse": "--diffuse-out", "shadow": "--shadow-out", "ao": "--ao-out"}
    sun = {"date": "03-01", "time": "15:30", "latitude": 36.4}
    lit = tarn.shade(heights, cell_size=80.0, **sun, ambient_subdivisions=1, range=(300, 700))
    wanted = tool(
        "shade", SAMPLE, *SCALE, "--date", "03-01", "--time", "15:30", "--latitude", "36.4", "--ambient-subdivisions",
        "1", "--range", "300", "700", outputs=outputs.values(), main="out.png",
    )  # fmt: skip
    for field, option in outputs.items():
        np.testing.assert_array_equal(getattr(lit, field), wanted[option])
    light = np.clip(lit.image.astype(np.float64), 0, 1)
    code = np.where(light <= 0.0031308, light * 12.92, 1.055 * light ** (1 / 2.4) - 0.055) * 255
    with rasterio.open(tmp_path / "out.png") as file:
        np.testing.assert_array_equal(np.floor(np.moveaxis(code, 2, 0) + 0.5), file.read())


def test_what_threads_may_reorder_is_near_the_tool(heights, tool):
    sand = tarn.dunes(heights, sand=3.0, cell_size=80.0, duration=0.002)
    outputs = ("--sand-out", "--wind-trace")
    wanted = tool("dunes", SAMPLE, *SCALE, "--sand", "3", "--duration", "0.002", outputs=outputs)
    np.testing.assert_array_equal(sand.heights, wanted["out"])
    np.testing.assert_array_equal(sand.sand, wanted["--sand-out"])
    np.testing.assert_allclose(sand.wind_trace, wanted["--wind-trace"], atol=1e-4)
    white = tarn.colour(heights, np.ones((*heights.shape, 3)), flow_length=0.1)
    np.testing.assert_allclose(white, 1.0, atol=1e-5)


VERTICES = [(0, 0, 0), (1, 0, 1), (1, 1, 0), (0, 1, 1)]
TRIANGLES = [(0, 1, 2), (0, 2, 3)]
MIRRORED = [(x, -y, z) for x, y, z in VERTICES]  # as the tool reads a model with z upwards


def test_models_points_and_stamps_are_those_of_the_tool(heights, tool, tmp_path):
    model = tmp_path / "model.obj"
    corners = "".join(f"f {a + 1} {b + 1} {c + 1}\n" for a, b, c in TRIANGLES)
    model.write_text("".join(f"v {x} {y} {z}\n" for x, y, z in VERTICES) + corners)
    drawn = tarn.mesh(MIRRORED, TRIANGLES, size=(64, 64), rotate_x=20.0)
    place = ("--size", "64", "--up", "z", "--rotate-x", "20")
    wanted = tool("mesh", model, *place, outputs=("--noise-out",))
    np.testing.assert_array_equal(drawn.heights, wanted["out"])
    assert (drawn.noise == wanted["--noise-out"]).mean() > 0.95  # along edges that of either triangle

    # A level square, whose normals the tool finds to be upright.
    square = tmp_path / "square.obj"
    square.write_text("v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n" + "f 1 2 3\nf 1 3 4\n")
    ripples = np.add.outer(np.sin(np.arange(64) / 5), np.cos(np.arange(64) / 3)).astype(np.float32)
    with rasterio.open(
        tmp_path / "ripples.tif", "w", driver="GTiff", width=64, height=64, count=1, dtype="float32"
    ) as file:
        file.write(ripples, 1)
    level = [(0, 0, 0), (1, 0, 0), (1, -1, 0), (0, -1, 0)]
    turned = {"rotate_x": 20.0, "rotate_z": 70.0, "offset_z": -0.3, "scale": 0.9}
    displaced = tarn.displaced_mesh(level, TRIANGLES, [(0, 0, 1)] * 4, ripples, displacement_amount=0.1, **turned)
    given = [text for name, value in turned.items() for text in (f"--{name.replace('_', '-')}", str(value))]
    maps = ("--displacement", str(tmp_path / "ripples.tif"), "--displacement-amount", "0.1")
    wanted = tool("mesh", square, *place[:4], *given, *maps)
    np.testing.assert_array_equal(displaced, wanted["out"])
    assert np.ptp(displaced) > 0.05

    baked = tarn.bake(MIRRORED, TRIANGLES, heights, cell_size=80.0)
    subprocess.run(
        [TOOL, "-q", "bake", model, SAMPLE, tmp_path / "n.png", *SCALE, "--up", "z", "--hit-x-out", tmp_path / "x.tif"],
        check=True,
    )
    np.testing.assert_array_equal(baked.hit_x, read(tmp_path / "x.tif"))

    samples = np.random.default_rng(1).random((500, 3)) * (100, 80, 9)
    np.savetxt(tmp_path / "cloud.csv", samples, fmt="%.17g", delimiter=",")
    surface = tarn.points(samples, columns=200)
    np.testing.assert_array_equal(
        surface.heights, tool("points", tmp_path / "cloud.csv", "--columns", "200")["out"]
    )

    (tmp_path / "hill.asc").write_text("ncols 3\nnrows 3\nxllcorner 0\nyllcorner 0\ncellsize 1\n0 4 0\n4 9 4\n0 4 0\n")
    (tmp_path / "places.txt").write_text("20 30\n100 200\n")
    stamped = tarn.stamp(heights, [[0, 4, 0], [4, 9, 4], [0, 4, 0]], [(20, 30), (100, 200)])
    wanted = tool("stamp", SAMPLE, "--stamps", str(tmp_path / "hill.asc"), "--points", str(tmp_path / "places.txt"))
    np.testing.assert_array_equal(stamped.heights, wanted["out"])
    scattered = tarn.stamp(heights, [[0, 4, 0], [4, 9, 4], [0, 4, 0]], count=200, seed=5, stamp_height=1)
    given = ("--count", "200", "--seed", "5", "--stamp-height", "1")
    wanted = tool("stamp", SAMPLE, "--stamps", str(tmp_path / "hill.asc"), *given, outputs=("--ids-out",))
    np.testing.assert_array_equal(scattered.ids, wanted["--ids-out"])


# What reads, writes, cuts and resamples files in the tool is the array's own business here, and so are the numbers that
# follow from the grids' sizes.
OF_FILES = {
    "in", "out", "preview", "co", "world_file", "columns", "fit", "window", "resolution", "up", "size", "model",
    "cloud", "image_out", "level_divisor", "scale_numerator", "level_multiplier", "extent_x", "extent_y", "extent_z",
    "z_unit", "z_range",
}  # fmt: skip
SPLIT = {"albedo_red": "albedo", "albedo_green": "albedo", "albedo_blue": "albedo"}
# Defaults that the tool takes from a file.
FROM_FILES = {"cell_size", "height_unit", "latitude", "floor"}


def range_of(option) -> str:
    """The words for an option's range, which its docstring must have."""
    least, most = option.get("minimum", option.get("exclusive_minimum")), option.get("maximum")
    if least is None or least < -1e3 and most > 1e3 or "members" in option or abs(least) == most == 1000:
        return ""
    if most == 2**32 - 1:
        return "0 to 2**32 - 1"
    words = f"{least:g} to {most:g}" if most < 1000 else f"from {least:g}"
    return words if "minimum" in option else words.replace("from", "above")


def test_options_are_those_of_the_tool():
    """One table: names, defaults, units and ranges of each function are the command's."""
    table = {c["name"]: c for c in json.loads(subprocess.check_output([TOOL, "options", "--json"]))["commands"]}
    commands = {name for name in table if name in tarn.__all__} - {"devices"}
    functions_of = lambda names: {function for name in names for function in table[name]["functions"]}  # noqa: E731
    assert functions_of(table) - functions_of(commands) == {"GetDevices"}
    for command in commands:
        functions = [getattr(tarn, name) for name in (command, "displaced_mesh")[: 1 + (command == "mesh")]]
        found = {}
        for function in reversed(functions):
            words = {}
            for names, text in re.findall(r"^(\w+(?:, \w+)*): ((?:.*\n(?:    .*\n)*))", function.__doc__ + "\n", re.M):
                words.update(dict.fromkeys(names.split(", "), " ".join(text.split())))
            parameters = inspect.signature(function).parameters
            assert words.keys() == parameters.keys(), f"help of {function.__name__}: {words.keys() ^ parameters.keys()}"
            found |= {name: (parameter, words[name]) for name, parameter in parameters.items()}
        for option in table[command]["options"]:
            name = option["name"].lower()
            of_pictures = name in ("cell_size", "height_unit") and name not in found  # of the preview alone
            if name in OF_FILES or option["role"] == "output" or of_pictures:
                continue
            assert SPLIT.get(name, name) in found, f"{command} has no {name}"
            parameter, text = found[SPLIT.get(name, name)]
            if name not in FROM_FILES | SPLIT.keys() and option["role"] == "parameter":
                wanted = option.get("default", inspect.Parameter.empty if option["required"] else None)
                default = list(parameter.default) if isinstance(parameter.default, tuple) else parameter.default
                assert default == wanted or default == pytest.approx(wanted), f"{command}.{name}"
            unit = option["unit"] if option["unit"] in ("metres", "degrees", "cells") else ""
            assert unit in text and range_of(option) in text, f"{command}.{name}: {unit}, {range_of(option)}: {text}"


def test_records_are_those_of_the_header():
    for record, (size, fields) in _declarations.LAYOUT.items():
        assert _library.ffi.sizeof(record) == size
        for field, offset in fields.items():
            assert _library.ffi.offsetof(record, field) == offset, (record, field)


def test_holes_are_filled_for_the_work_and_come_back(heights, tool, tmp_path):
    holed = heights.copy()
    holed[100:130, 50:90] = np.nan
    holed[0:40, 0:7] = np.inf
    with rasterio.open(
        tmp_path / "holed.tif", "w", driver="GTiff", width=403, height=344, count=1, dtype="float32"
    ) as file:
        file.write(holed, 1)
    ours = tarn.weather(holed, cell_size=80.0).heights
    theirs = tool("weather", tmp_path / "holed.tif", *SCALE)["out"]
    there = np.isfinite(holed)
    np.testing.assert_array_equal(np.isnan(ours), ~there)
    np.testing.assert_array_equal(ours[there], theirs[there])


def test_bad_input_is_an_exception(heights):
    nan = float("nan")
    for error, attempt in [
        (ValueError, lambda: tarn.erode(np.zeros(5))),
        (ValueError, lambda: tarn.erode(np.zeros((0, 5)))),
        (ValueError, lambda: tarn.erode(np.full((5, 5), nan))),
        (ValueError, lambda: tarn.erode(heights, cell_size=0.0)),
        (ValueError, lambda: tarn.erode(heights, feature_size=-1.0)),
        (ValueError, lambda: tarn.erode(heights, spawn_map=np.zeros((2, 2)))),
        (ValueError, lambda: tarn.mesh(VERTICES, [(0, 1, 9)])),
        (ValueError, lambda: tarn.stamp(heights, np.ones((3, 3)), [(1, 2, 3, 4)])),
        (ValueError, lambda: tarn.points([(0, 0, 0), (1, 1, 1)])),
        (ValueError, lambda: tarn.median(np.broadcast_to(np.float32(0), (1, 46337)))),
        (ValueError, lambda: tarn.shade(heights, date="02-30", latitude=0)),
        (tarn.Error, lambda: tarn.stamp(heights, np.ones((3, 3)), [(1, 2, 5)])),
        (tarn.Error, lambda: tarn.erode(heights, device="no such device")),
        (OverflowError, lambda: tarn.erode(heights, seed=-1)),
        (TypeError, lambda: tarn.erode(heights, iterations="many")),
        (TypeError, lambda: tarn.erode("heights")),
        (TypeError, lambda: tarn.erode(heights + 1j)),
    ]:
        with pytest.raises(error):
            attempt()
    for line, attempt in [
        ("iterations is not a number; it must be finite", lambda: tarn.erode(heights, iterations=nan)),
        ("friction", lambda: tarn.debris(heights, friction=nan)),
        ("latitude", lambda: tarn.sunlight(heights, latitude=91.0)),
        ("must not call the library", lambda: tarn.erode(heights, progress=lambda _: tarn.median(heights))),
    ]:
        with pytest.raises(tarn.Error, match=line):
            attempt()


def test_arguments_of_any_kind_are_an_exception_or_a_result():
    """Every function with one argument after another turned bad, in another process, which must live to the end."""
    script = os.path.join(os.path.dirname(__file__), "bad_arguments.py")
    done = subprocess.run([sys.executable, script], capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr[-3000:]
    calls, results = map(int, done.stdout.split())
    assert calls > 3000 and calls / 10 < results < calls


def test_an_exception_in_a_callback_ends_the_run(heights):
    before = heights.copy()
    told = []

    def progress(percent):
        told.append(percent)
        if percent > 10:
            raise KeyError("enough")

    with pytest.raises(KeyError):
        tarn.erode(heights, progress=progress)
    assert 10 < told[-1] < 30
    told.clear()
    tarn.erode(heights, iterations=2, progress=told.append)
    assert told[0] == 0 and told == sorted(told) and told[-1] == 100
    np.testing.assert_array_equal(heights, before)


def test_ctrl_c_cancels(heights):
    for progress in (False, True):
        began = time.monotonic()
        threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT)).start()
        with pytest.raises(KeyboardInterrupt):
            tarn.weather(heights, duration=1000.0, progress=progress)
        assert time.monotonic() - began < 2
    tarn.median(heights)


def test_other_threads_run_meanwhile_and_may_call_too(heights):
    ticks, results, done = [], [None, None], threading.Event()

    def tick():
        while not done.wait(0.002):
            ticks.append(1)

    def work(n):
        results[n] = tarn.erode(heights, iterations=60).heights

    clock = threading.Thread(target=tick)
    workers = [threading.Thread(target=work, args=(n,)) for n in range(2)]
    for thread in (clock, *workers):
        thread.start()
    for thread in workers:
        thread.join()
    done.set()
    clock.join()
    assert len(ticks) > 5
    np.testing.assert_array_equal(*results)


class AllocatorState(ctypes.Structure):
    """struct mallinfo2 of the C library."""

    _fields_ = [(name, ctypes.c_size_t) for name in "arena ordblks smblks hblks hblkhd usmblks fsmblks uordblks".split()]
    _fields_ += [(name, ctypes.c_size_t) for name in "fordblks keepcost".split()]


def allocated_bytes() -> int:
    """Not the size of the process: oneTBB's own pool keeps some kilobytes for every thread that has ended."""
    mallinfo2 = ctypes.CDLL(None).mallinfo2
    mallinfo2.restype = AllocatorState
    return mallinfo2().uordblks + mallinfo2().hblkhd


def test_ten_thousand_calls_leak_nothing():
    grid = np.arange(64, dtype=np.float32).reshape(8, 8)

    def run(calls):
        for n in range(calls):
            tarn.shape(grid)
            if n % 10 == 0:
                with pytest.raises(tarn.Error):
                    tarn.weather(grid, duration=float("nan"))
                thread = threading.Thread(target=tarn.median, args=(grid,))  # with a queue of its own
                thread.start()
                thread.join()

    run(1000)
    before = allocated_bytes()
    run(9000)
    assert allocated_bytes() - before < 50_000  # a queue takes more than 100 bytes, and 900 have ended


def test_a_data_array_stays_one(heights):
    xarray = pytest.importorskip("xarray")
    y, x = np.arange(344) * -80.0, np.arange(403) * 80.0
    terrain = xarray.DataArray(heights, coords={"y": y, "x": x}, dims=("y", "x"), attrs={"crs": "EPSG:32616"})
    result = tarn.median(terrain)
    assert result.dims == terrain.dims and result.attrs == terrain.attrs
    np.testing.assert_array_equal(result["x"], x)
    np.testing.assert_array_equal(result.values, tarn.median(heights))
