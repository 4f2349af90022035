"""The package against the tool `tarn`, to the bit, and what it does when things go wrong."""
import inspect
import json
import os
import resource
import subprocess
import threading

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
    "debris": (tarn.debris, {"count": 300, "seed": 3}, {"rock_id": "--rock-id-out", "coverage": "--coverage-out"}),
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


def test_light_is_that_of_the_tool(heights, tool):
    outputs = {"diffuse": "--diffuse-out", "shadow": "--shadow-out", "ao": "--ao-out"}
    lit = tarn.shade(heights, cell_size=80.0, azimuth=200.0, elevation=12.0, ambient_subdivisions=1)
    wanted = tool(
        "shade", SAMPLE, *SCALE, "--azimuth", "200", "--elevation", "12", "--ambient-subdivisions", "1", "--albedo",
        "0.5", outputs=outputs.values(), main="out.png",
    )  # fmt: skip
    for field, option in outputs.items():
        np.testing.assert_array_equal(getattr(lit, field), wanted[option])


def test_what_threads_may_reorder_is_near_the_tool(heights, tool):
    sand = tarn.dunes(heights, sand=3.0, cell_size=80.0, duration=0.002)
    wanted = tool("dunes", SAMPLE, *SCALE, "--sand", "3", "--duration", "0.002", outputs=("--sand-out",))
    np.testing.assert_allclose(sand.heights, wanted["out"], atol=0.01)
    np.testing.assert_allclose(sand.sand.sum(), wanted["--sand-out"].sum(), rtol=1e-5)
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
    wanted = tool("mesh", model, "--size", "64", "--up", "z", "--rotate-x", "20", outputs=("--noise-out",))
    np.testing.assert_array_equal(drawn.heights, wanted["out"])
    np.testing.assert_array_equal(drawn.noise, wanted["--noise-out"])

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


def test_a_displaced_plane_rises_by_the_map():
    flat = [(0, 0, 0), (1, 0, 0), (1, 1, 0), (0, 1, 0)]
    drawn = tarn.displaced_mesh(
        flat, [(0, 2, 1), (0, 3, 2)], [(0, 0, 1)] * 4, np.full((16, 16), 0.5), displacement_amount=0.5, floor=-1.0
    )
    np.testing.assert_allclose(drawn.heights, 0.25, atol=1e-6)


def test_options_are_those_of_the_tool():
    """One table: names, defaults and required ones of each function are the command's, but for what files need."""
    table = {c["name"]: c for c in json.loads(subprocess.check_output([TOOL, "options", "--json"]))["commands"]}
    of_files = {
        "in", "out", "preview", "co", "world_file", "columns", "fit", "window", "resolution", "up", "size", "date",
        "time", "points", "count", "image", "stamps", "sand", "model", "cloud", "heights", "image_out",
        "level_divisor", "scale_numerator", "level_multiplier", "extent_x", "extent_y", "extent_z", "z_unit", "z_range",
        "first_day", "last_day", "latitude", "albedo", "albedo_red", "albedo_green", "albedo_blue", "floor",
        "displacement", "xy_map", "xz_map", "yz_map", "cell_size", "height_unit",
    }  # fmt: skip
    commands = [n for n in table if callable(getattr(tarn, n, None)) and n != "devices"]
    assert len(commands) >= 15
    for command in commands:
        signature = inspect.signature(getattr(tarn, command)).parameters
        displaced = inspect.signature(tarn.displaced_mesh).parameters if command == "mesh" else {}
        for option in table[command]["options"]:
            name = option["name"].replace("-", "_").lower()
            if name in of_files or option["role"] == "output" or (name == "seed" and command == "stamp"):
                continue
            parameter = signature.get(name) or displaced.get(name)
            assert parameter is not None, f"{command} has no {name}"
            if "default" in option:
                default = parameter.default if not isinstance(parameter.default, tuple) else list(parameter.default)
                assert default == pytest.approx(option["default"]), f"{command}.{name}"


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
        (ValueError, lambda: tarn.erode(heights, spawn_map=np.zeros((2, 2)))),
        (ValueError, lambda: tarn.mesh(VERTICES, [(0, 1, 9)])),
        (ValueError, lambda: tarn.stamp(heights, np.ones((3, 3)), [(1, 2, 3, 4)])),
        (ValueError, lambda: tarn.points([(0, 0, 0), (1, 1, 1)])),
        (tarn.Error, lambda: tarn.stamp(heights, np.ones((3, 3)), [(1, 2, 5)])),
        (tarn.Error, lambda: tarn.erode(heights, iterations=nan)),
        (tarn.Error, lambda: tarn.erode(heights, device="no such device")),
        (OverflowError, lambda: tarn.erode(heights, seed=-1)),
        (TypeError, lambda: tarn.erode(heights, iterations="many")),
        ((TypeError, ValueError), lambda: tarn.erode("heights")),
    ]:
        with pytest.raises(error):
            attempt()
    with pytest.raises(tarn.Error, match="iterations is not a number; it must be finite"):
        tarn.erode(heights, iterations=nan)


def test_an_exception_in_a_callback_ends_the_run(heights):
    for error in (KeyError, KeyboardInterrupt):
        told = []

        def progress(percent):
            told.append(percent)
            if percent > 10:
                raise error("enough")

        with pytest.raises(error):
            tarn.erode(heights, progress=progress)
        assert 10 < told[-1] < 30
    told.clear()
    tarn.erode(heights, iterations=2, progress=told.append)
    assert told[0] == 0 and told == sorted(told)


def test_other_threads_run_meanwhile_and_may_call_too(heights):
    ticks, results, done = [], [None, None], threading.Event()

    def tick():
        while not done.wait(0.002):
            ticks.append(1)

    def work(n):
        results[n] = tarn.erode(heights, iterations=3).heights

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


def test_ten_thousand_calls_leak_nothing():
    grid = np.arange(64, dtype=np.float32).reshape(8, 8)
    for _ in range(1000):
        tarn.shape(grid)
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    for _ in range(9000):
        tarn.shape(grid)
    assert resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before < 2000  # KiB: less than a word a call


def test_a_data_array_stays_one(heights):
    xarray = pytest.importorskip("xarray")
    y, x = np.arange(344) * -80.0, np.arange(403) * 80.0
    terrain = xarray.DataArray(heights, coords={"y": y, "x": x}, dims=("y", "x"), attrs={"crs": "EPSG:32616"})
    result = tarn.median(terrain)
    assert result.dims == terrain.dims and result.attrs == terrain.attrs
    np.testing.assert_array_equal(result["x"], x)
    np.testing.assert_array_equal(result.values, tarn.median(heights))
