"""The algorithms against the commands of the same name, cell by cell, and what QGIS itself makes of them."""
import json
import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
from osgeo import gdal

SAMPLE = str(Path(__file__).resolve().parents[2] / "data" / "jacksboro.tif")
TOOL, QGIS = os.environ["TARN_TOOL"], os.environ["QGIS_PROCESS"]
CUBE = """v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 0 0 1\nv 1 0 1\nv 1 1 1\nv 0 1 1
f 1 3 2\nf 1 4 3\nf 5 6 7\nf 5 7 8\nf 1 2 6\nf 1 6 5\nf 3 4 8\nf 3 8 7\n"""
gdal.UseExceptions()


def qgis(algorithm: str, **parameters) -> subprocess.CompletedProcess:
    given = [f"--{name}={value}" for name, value in parameters.items()]
    return subprocess.run([QGIS, "run", f"tarn:{algorithm}", *given], capture_output=True, text=True, timeout=120)


def read(path) -> np.ndarray:
    """Bands, rows and columns; without a band of transparency."""
    dataset = gdal.Open(str(path))
    cells = dataset.ReadAsArray()
    return cells[:3] if cells.ndim == 3 else cells[None]


@pytest.fixture(scope="module")
def files(tmp_path_factory) -> dict[str, str]:
    """Inputs of all kinds, made of the sample."""
    folder = tmp_path_factory.mktemp("files")
    terrain = gdal.Open(SAMPLE)
    share, image = str(folder / "share.tif"), str(folder / "image.tif")
    gdal.Translate(share, terrain, outputType=gdal.GDT_Byte, scaleParams=[[200, 900, 0, 255]])
    gdal.Translate(image, terrain, outputType=gdal.GDT_Byte, scaleParams=[[200, 900, 20, 250]], bandList=[1, 1, 1])
    holed = gdal.Translate(str(folder / "holed.tif"), terrain, outputType=gdal.GDT_Float32, noData=-1)
    cells = holed.ReadAsArray()
    cells[100:130, 50:90] = -1
    holed.GetRasterBand(1).WriteArray(cells)
    holed = None
    (folder / "model.obj").write_text(CUBE)
    (folder / "hill.asc").write_text("ncols 3\nnrows 3\nxllcorner 0\nyllcorner 0\ncellsize 1\n0 4 0\n4 9 4\n0 4 0\n")
    samples = np.random.default_rng(1).random((300, 3)) * (100, 80, 9)
    np.savetxt(folder / "cloud.csv", samples, fmt="%.17g", delimiter=",", header="x,y,z", comments="")
    places = [(20, 30), (100, 200), (300, 60)]
    (folder / "places.txt").write_text("".join(f"{column + 0.5} {row + 0.5}\n" for column, row in places))
    t = terrain.GetGeoTransform()
    (folder / "places.csv").write_text(
        "x,y\n" + "".join(f"{t[0] + t[1] * (c + 0.5)!r},{t[3] + t[5] * (r + 0.5)!r}\n" for c, r in places)
    )
    return {
        "share": share,
        "image": image,
        "holed": str(folder / "holed.tif"),
        "model": str(folder / "model.obj"),
        "hill": str(folder / "hill.asc"),
        "cloud": str(folder / "cloud.csv"),
        "cloud_layer": f"delimitedtext://file://{folder}/cloud.csv?delimiter=,&xField=x&yField=y&zField=z",
        "places": str(folder / "places.txt"),
        "places_layer": f"delimitedtext://file://{folder}/places.csv?delimiter=,&xField=x&yField=y",
    }


# For each algorithm: inputs of the command, options as both have them, and outputs beside the first.
CASES = {
    "shape": (["{sample}"], {"rate": 0.3, "mask": "{share}"}, []),
    "weather": (["{holed}"], {"duration": 0.005, "erosion-mask": "{share}"}, ["depth-out", "wear-out"]),
    "erode": (["{sample}"], {"iterations": 5, "spawn-map": "{share}"}, ["flow-out", "sediment-out", "wear-out"]),
    "dunes": (["{sample}"], {"sand": 3, "duration": 0.002}, ["sand-out"]),
    "debris": (["{sample}"], {"count": 200, "favour-small": True}, ["coverage-out"]),
    "flow": (["{sample}"], {"mask": "{share}", "seed": 4}, []),
    "colour": (["{sample}"], {"image": "{image}", "transport": 0.3, "flow-length": 0.1}, []),
    "shade": (
        ["{sample}"],
        {"date": "10-05", "time": "09:30", "ambient-subdivisions": 1, "sun-colour": [1.1, 1, 0.8], "range": [300, 700]},
        ["diffuse-out", "shadow-out", "ao-out"],
    ),
    "sunlight": (["{sample}"], {"first-day": "03-01", "haze": 0.1}, []),
    "mesh": (["{model}"], {"size": "64x48", "rotate-z": 30, "floor": -0.5}, []),
    "displacedmesh": (["{model}"], {"displacement": "{share}", "rotate-x": 15, "size": "403x344"}, []),
    "points": (["{cloud}"], {"columns": 100, "floor": 1}, ["noise-out"]),
    "bake": (["{model}", "{sample}"], {"fit-heights": True}, ["hit-x-out", "hit-y-out"]),
    "stamp": (["{sample}"], {"stamps": "{hill}", "points": "{places}"}, ["ids-out"]),
    "median": (["{holed}"], {"radius": 2, "iterations": 2}, []),
    "cells": (["{sample}"], {"density": 30, "generator": "congruential"}, ["random-out"]),
}
INPUTS = {"mesh": ["MODEL"], "displacedmesh": ["MODEL"], "points": ["CLOUD"], "bake": ["MODEL", "HEIGHTS"]}
PICTURES = ("colour", "shade", "bake")


@pytest.mark.parametrize("algorithm", CASES)
def test_results_are_those_of_the_command(algorithm, files, tmp_path):
    inputs, options, others = CASES[algorithm]
    inputs = [text.format(sample=SAMPLE, **files) for text in inputs]
    options = {k: v.format(sample=SAMPLE, **files) if isinstance(v, str) else v for k, v in options.items()}
    ending = "png" if algorithm in PICTURES else "tif"
    name = "mesh" if algorithm == "displacedmesh" else algorithm
    command = [TOOL, "-q", name, *inputs, str(tmp_path / f"c.{ending}")]
    for name, value in options.items():
        values = value if isinstance(value, list) else [value]
        command += [f"--{name}"] + ([] if value is True else [str(one) for one in values])
    parameters = dict(zip(INPUTS.get(algorithm, ["INPUT"]), inputs), OUTPUT=tmp_path / "q.tif")
    for name, value in options.items():
        if (algorithm, name) != ("displacedmesh", "size"):
            text = ",".join(map(str, value)) if isinstance(value, list) else value
            parameters[name.replace("-", "_").upper()] = text
    if algorithm == "points":
        parameters["CLOUD"] = files["cloud_layer"]
    if algorithm == "stamp":
        parameters["POINTS"] = files["places_layer"]
    for name in others:
        command += [f"--{name}", str(tmp_path / f"c-{name}.tif")]
        parameters[name.replace("-", "_").upper()] = tmp_path / f"q-{name}.tif"
    subprocess.run(command, check=True, capture_output=True)
    done = qgis(algorithm, **parameters)
    assert done.returncode == 0 and (tmp_path / "q.tif").exists(), done.stdout + done.stderr
    for ours, theirs in [("q.tif", f"c.{ending}"), *((f"q-{name}.tif", f"c-{name}.tif") for name in others)]:
        if algorithm == "colour":  # colours are added up in any order
            bands = read(tmp_path / ours)
            np.testing.assert_allclose(bands, np.broadcast_to(read(tmp_path / theirs), bands.shape), atol=1)
        else:
            np.testing.assert_array_equal(read(tmp_path / ours), read(tmp_path / theirs), err_msg=ours)
    first, second = gdal.Open(str(tmp_path / "q.tif")), gdal.Open(str(tmp_path / f"c.{ending}"))
    if ending == "tif" and "mesh" not in algorithm:
        assert first.GetGeoTransform() == pytest.approx(second.GetGeoTransform())
    if inputs[0] in (SAMPLE, files["holed"]):
        assert first.GetSpatialRef().IsSame(gdal.Open(SAMPLE).GetSpatialRef())
        assert first.GetRasterBand(1).GetNoDataValue() == second.GetRasterBand(1).GetNoDataValue()


def test_blocks_give_what_the_whole_gives(tmp_path):
    pytest.importorskip("distributed")
    pytest.importorskip("rasterio")
    options = {"INPUT": SAMPLE, "RADIUS": 2}
    for name, block in (("whole", 0), ("blocks", 160)):
        done = qgis("median", **options, OUTPUT=tmp_path / f"{name}.tif", BLOCK_SIZE=block)
        assert (tmp_path / f"{name}.tif").exists(), done.stdout + done.stderr
    np.testing.assert_array_equal(read(tmp_path / "whole.tif"), read(tmp_path / "blocks.tif"))


def test_errors_are_one_sentence_and_leave_no_file(tmp_path):
    done = qgis("erode", INPUT=SAMPLE, OUTPUT=tmp_path / "q.tif", DEVICE="no such device")
    assert "no queue can be made on device 'no such device'" in done.stdout + done.stderr
    assert "Traceback" not in done.stdout + done.stderr and not list(tmp_path.iterdir())


def test_inside_qgis(tmp_path):
    """Parameters, progress, cancel and styles, as the application sees them."""
    script = Path(__file__).with_name("inside_qgis.py")
    done = subprocess.run([sys.executable, script, SAMPLE, tmp_path], capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stdout + done.stderr
    seen = json.loads(done.stdout.splitlines()[-1])
    assert seen["algorithms"] == 16
    assert seen["cancelled_after"] < 1.0 and not seen["files_of_cancelled"]
    assert seen["progress"] == sorted(seen["progress"]) and seen["progress"][-1] == 100
    assert "advanced" in seen["fill_slope_scale"] and seen["rings"] == "enum"
    assert seen["ramps"]["heights"][0] != seen["ramps"]["flow"][0]
    assert seen["legend"][-1].endswith(" m")
