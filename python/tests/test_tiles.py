"""Tiles against one call over the whole, to the bit, on real workers, and what happens when these are killed or fail."""
import os
import resource
import signal
import subprocess
import sys

import numpy as np
import pytest

import tarn

rasterio = pytest.importorskip("rasterio")
distributed = pytest.importorskip("distributed")
from tarn import tiles  # noqa: E402

SAMPLE = os.path.join(os.path.dirname(__file__), "..", "..", "data", "jacksboro.tif")
SCALE = {"cell_size": 81.7, "height_unit": 1.0}
ERODE = {"tile": 128, "iterations": 4, "feature_size": 2000.0}
SPOTS = [(100.5, 90.25, 0), (200.0, 128.0, 1), (128.0, 210.0, 0), (402.9, 343.9, 1), (-3.0, 50.0, 0)]


def read(path) -> np.ndarray:
    with rasterio.open(path) as file:
        return file.read()


@pytest.fixture(scope="module")
def heights() -> np.ndarray:
    return read(SAMPLE)[0].astype(np.float32)


@pytest.fixture(scope="module")
def client():
    """For all tests. The last of them takes its scheduler away."""
    with distributed.LocalCluster(
        n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None, silence_logs=60
    ) as cluster, distributed.Client(cluster, timeout=2) as client:
        yield client


@pytest.fixture(scope="module")
def eroded(tmp_path_factory) -> np.ndarray:
    """By one worker, with nothing in its way."""
    out = str(tmp_path_factory.mktemp("eroded") / "one.vrt")
    tiles.run("erode", SAMPLE, out, workers=1, **ERODE)
    return read(out)


EXACT = {
    "median": {"radius": 7, "iterations": 3},
    "shape": {"feature_size": 81.7 * 3, "rate": 0.4, "overlap": 104, **SCALE},
    "weather": {"feature_size": 81.7 * 5, "duration": 0.001, "overlap": 80, **SCALE},
    "shade": {"no_occlusion": True, "elevation": 20.0, "exaggeration": 2.5, **SCALE},
    "stamp": {"stamps": np.arange(60 * 30, dtype=np.float32).reshape(60, 30), "stamp_height": 30, "points": SPOTS},
}
FIELDS = {"weather": ("wear_out", "wear"), "shade": ("shadow_out", "shadow"), "stamp": ("ids_out", "ids")}


def test_tiles_are_those_of_one_call(heights, client, tmp_path):
    for command, options in EXACT.items():
        out, further = str(tmp_path / f"{command}.vrt"), str(tmp_path / f"{command}_2.vrt")
        option, field = FIELDS.get(command, (None, None))
        extra = {option: further} if option else {}
        report = tiles.run(command, SAMPLE, out, tile=128, client=client, **options, **extra)
        assert report.is_exact and report.tiles >= 12
        result = getattr(tarn, command)(heights, **{key: value for key, value in options.items() if key != "overlap"})
        if command != "shade":  # its main result is a picture of 8 bits
            np.testing.assert_array_equal(read(out)[0], getattr(result, "heights", result), err_msg=command)
        if field:
            np.testing.assert_array_equal(read(further)[0], getattr(result, field), err_msg=command)


def test_seams_are_mixed_and_rocks_are_whole(heights, client, tmp_path):
    def tiled(command, **options):
        out, ids = str(tmp_path / f"{command}.vrt"), str(tmp_path / "ids.vrt")
        extra = {"rock_id_out": ids} if command == "debris" else {}
        assert not tiles.run(command, SAMPLE, out, tile=128, client=client, **options, **extra, **SCALE).is_exact
        return read(out)[0], read(ids)[0] if extra else None

    options = {"feature_size": 81.7 * 4, "duration": 0.01}
    weathered, whole = tiled("weather", overlap=32, **options)[0], tarn.weather(heights, **options, **SCALE).heights
    assert np.abs(weathered - whole).max() < 0.05 * np.abs(whole - heights).max()
    windy = tiled("dunes", sand=4.0, duration=0.002)[0]
    assert abs((windy - heights).mean() - 4.0) < 0.01
    strewn, ids = tiled("debris", count=400, max_size=400.0, overlap=24)
    assert (strewn >= heights).all() and ((strewn > heights) <= (ids > 0)).all()
    assert 0.5 < len(np.unique(ids)) / len(np.unique(tarn.debris(heights, count=400, max_size=400.0, **SCALE).rock_id)) < 1.5


def test_a_killed_worker_costs_its_tiles_alone(client, eroded, tmp_path):
    out, seen = str(tmp_path / "out.vrt"), []

    def stop(percent):
        raise KeyboardInterrupt

    def kill_one(percent):
        seen.append(percent)
        if len(seen) == 2:
            os.kill(next(iter(client.run(os.getpid).values())), signal.SIGKILL)

    report = tiles.run("erode", SAMPLE, out, client=client, progress=kill_one, cog=str(tmp_path / "whole.tif"), **ERODE)
    assert seen[-1] == 100 and not report.is_exact
    np.testing.assert_array_equal(read(out), eroded)
    np.testing.assert_array_equal(read(tmp_path / "whole.tif"), eroded)

    first, second, *_ = (tmp_path / "out.tiles").glob("*.tif")
    first.unlink()
    second.write_bytes(b"not what was written")
    assert tiles.run("erode", SAMPLE, out, client=client, **ERODE).reused == 14
    np.testing.assert_array_equal(read(out), eroded)
    with pytest.raises(KeyboardInterrupt):  # other parameters start anew, so the VRT of the old tiles goes at once
        tiles.run("erode", SAMPLE, out, client=client, progress=stop, **ERODE, seed=2)
    assert not os.path.exists(out)
    assert 0 < tiles.run("erode", SAMPLE, out, client=client, **ERODE, seed=2).reused < 16
    assert (read(out) != eroded).mean() > 0.5


def test_failures_are_one_line_and_leave_no_half_tile(client, eroded, tmp_path):
    out, source = str(tmp_path / "out.vrt"), tmp_path / "in.tif"
    whole = open(SAMPLE, "rb").read()

    def fails(pattern, **options):
        with pytest.raises(tiles.TileError, match=pattern) as failure:
            tiles.run("erode", str(source), out, client=client, **ERODE, **options)
        assert "\n" not in str(failure.value)
        assert not os.path.exists(out)
        assert not [name for _, _, names in os.walk(tmp_path) for name in names if name.endswith("partial")]

    source.write_bytes(whole[: len(whole) // 2])
    fails("cannot read rows .* of '.*in.tif'")

    source.write_bytes(whole)
    limit = resource.getrlimit(resource.RLIMIT_FSIZE)
    client.run(resource.setrlimit, resource.RLIMIT_FSIZE, (20000, limit[1]))
    fails("File too large")
    client.run(resource.setrlimit, resource.RLIMIT_FSIZE, limit)

    fails("the scheduler has gone away", progress=lambda percent: client.cluster.close())
    assert tiles.run("erode", str(source), out, workers=2, **ERODE).tiles == 16
    np.testing.assert_array_equal(read(out), eroded)


def test_what_does_not_fit_is_refused_before_the_run(tmp_path):
    out = str(tmp_path / "out.vrt")
    assert tiles.plan("weather", SAMPLE, memory="2GiB").planned_bytes < 0.8 * 2**31
    with pytest.raises(ValueError, match="tiles of 403 cells .* take"):
        tiles.run("erode", SAMPLE, out, tile=403, memory="150MiB")
    with pytest.raises(ValueError, match="multiples of 16 cells"):
        tiles.run("shape", SAMPLE, out, tile=8, feature_size=2000.0)
    refused = subprocess.run([sys.executable, "-m", "tarn.tiles", "flow", SAMPLE, out], capture_output=True, text=True)
    assert refused.returncode == 2 and "whole catchments" in refused.stderr
    assert os.listdir(tmp_path) == []
