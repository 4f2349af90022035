#!/usr/bin/python3
"""Measures `tarn.tiles` on the sample terrain, resampled to any size. It makes the tables of docs/scaling.md.

    bench/tiles.py exactness FOLDER [--side 4096] [COMMAND ...]   tiles against one call over the whole
    bench/tiles.py growth FOLDER [SIDE ...]                       time and memory at several sizes
    bench/tiles.py memory FOLDER [COMMAND ...]                    bytes of a worker for each cell of a window
    bench/tiles.py faults FOLDER                                  a killed worker, a full disk, a lost scheduler ...

It takes the package from PYTHONPATH, for example build/python. FOLDER gets the terrains and the results.
"""
import argparse
import multiprocessing
import os
import shutil
import signal
import subprocess
import sys
import time

import numpy as np
import rasterio
from rasterio.enums import Resampling
from rasterio.windows import Window

from tarn import tiles
from tarn.tiles import _raster
from tarn.tiles._commands import COMMANDS
from tarn.tiles._layout import Box

SAMPLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "jacksboro.tif")
STRIPE = 1024


def make_terrain(folder: str, side: int) -> str:
    """The sample with side x side cells, a little rough, written stripe by stripe."""
    path = os.path.join(folder, f"terrain_{side}.tif")
    if os.path.exists(path):
        return path
    with rasterio.open(SAMPLE) as sample:
        transform = sample.transform * rasterio.Affine.scale(sample.width / side, sample.height / side)
        profile = {"driver": "GTiff", "width": side, "height": side, "count": 1, "dtype": "float32", "tiled": True}
        profile |= {"compress": "deflate", "zlevel": 1, "predictor": 3, "bigtiff": "if_safer", "crs": sample.crs}
        with rasterio.Env(GDAL_CACHEMAX=64 << 20), rasterio.open(
            path + ".partial", "w", transform=transform, **profile
        ) as file:
            for top in range(0, side, STRIPE):
                rows = min(STRIPE, side - top)
                window = Window(0, top * sample.height / side, sample.width, rows * sample.height / side)
                cells = sample.read(
                    1, window=window, out_shape=(rows, side), resampling=Resampling.cubic_spline, out_dtype=np.float32
                )
                roughness = np.random.default_rng(top).random(cells.shape, np.float32)
                cells += roughness * np.float32(0.05 * 30000 / side)  # a twentieth of a cell's width
                file.write(cells, 1, window=Window(0, top, side, rows))
    os.replace(path + ".partial", path)
    return path


def read_whole(path: str) -> np.ndarray:
    with rasterio.open(path) as file:
        return file.read(1, out_dtype=np.float32)


# Options for 4096 cells a side, of about 7.4 m.
CELL = 7.4
STAMPS = {"stamps": np.fromfunction(lambda y, x: 20 - np.hypot(y - 31.5, x - 31.5), (64, 64)).clip(0).astype(np.float32)}
CASES = {
    "median": ("median", {"radius": 3}, "result"),
    "shape": ("shape", {"feature_size": 32 * CELL}, "result"),
    "shape, 1/4 of the overlap": ("shape", {"feature_size": 32 * CELL, "overlap": 128}, "result"),
    "weather, short": ("weather", {"feature_size": 8 * CELL, "duration": 0.005}, "heights"),
    "weather": ("weather", {"feature_size": 32 * CELL}, "heights"),
    "weather, wide features": ("weather", {"feature_size": 128 * CELL}, "heights"),
    "shade: diffuse light": ("shade", {"no_shadows": True, "no_occlusion": True}, "diffuse"),
    "shade: sun in the north-west": ("shade", {"no_occlusion": True, "elevation": 12.0}, "shadow"),
    "shade: sun at 300 degrees": ("shade", {"no_occlusion": True, "azimuth": 300.0, "elevation": 20.0}, "shadow"),
    "shade: sky": ("shade", {}, "ao"),
    "stamp": ("stamp", {**STAMPS, "count": 3000}, "heights"),
    "sunlight": ("sunlight", {"latitude": 36.6}, "result"),
    "erode": ("erode", {"feature_size": 50 * CELL, "seed": 1}, "heights"),
    "dunes": ("dunes", {"sand": 10.0, "duration": 0.005}, "heights"),
    "debris": ("debris", {"count": 20000, "seed": 1}, "heights"),
}
OWN = ("overlap",)


def compare(folder: str, side: int, name: str) -> None:
    command, options, field = CASES[name]
    how, source = COMMANDS[command], make_terrain(folder, side)
    heights = read_whole(source)
    options = dict(options)
    if how.scaled:
        options["cell_size"] = CELL * 4096 / side
    given = {key: value for key, value in options.items() if key != "overlap"}

    def one_call(**changed) -> np.ndarray:
        result = how.function(heights, **(given | changed))
        return result if how.main is None else getattr(result, field)

    whole = one_call()
    other = None
    if "seed" in given:
        other = rms(one_call(seed=given["seed"] + 1).astype(np.float64) - whole)
    out = os.path.join(folder, "tiles.vrt")
    named = {value: key for key, value in how.outputs.items()}
    extra = {named[field]: os.path.join(folder, "field.vrt")} if field in named else {}
    for cut in (2, 4):
        report = tiles.run(command, source, out, tile=side // cut, workers=2, **options, **extra)
        found = read_whole(next(iter(extra.values()), out))
        extent = float(heights.min()), float(heights.max())
        layout = tiles.plan(command, source, tile=side // cut, extent=extent, **options).layout
        borders = np.arange(layout.side, side, layout.side)
        error = np.abs(found.astype(np.float64) - whole)
        zone = np.zeros(error.shape, bool)
        for border in borders:
            span = slice(border - layout.blend, border + layout.blend)
            zone[span] = zone[:, span] = True
        # How much neighbours across a border differ, against the same neighbours in one call.
        steps = [np.abs(cells[:, borders].astype(np.float64) - cells[:, borders - 1]).mean() for cells in (found, whole)]
        change = whole - heights if field in ("result", "heights") and command != "sunlight" else whole
        parts = [part for part in (zone, ~zone)]
        cells = [name, str(cut * cut), str(report.overlap), "exact" if report.is_exact else "blended"]
        cells += [f"{np.mean(error[part] == 0):.2%}" if part.any() else "" for part in parts]
        cells += [f"{rms(error[part]):.2g} / {error[part].max():.2g}" if part.any() else "" for part in parts]
        cells += [f"{change.std():.3g}", "" if other is None else f"{other:.2g}", f"{steps[0] / steps[1]:.3f}"]
        print("| " + " | ".join(cells) + " |", flush=True)


def rms(values: np.ndarray) -> float:
    return float(np.sqrt(np.mean(np.square(values, dtype=np.float64))))


def exactness(folder: str, side: int, names: list[str]) -> None:
    print("| Command | Tiles | Overlap | Says | Equal cells in the zone | outside | Error in the zone, rms / most | outside "
          "| Spread | Another seed | Steps at borders |")  # fmt: skip
    print("|---|---|---|---|---|---|---|---|---|---|---|")
    for name in names or CASES:
        compare(folder, side, name)


#: Features of 32 cells, so that a cell of any size takes the same work.
GROWTH = {
    "weather": ("weather", {"feature_size": 32 * CELL, "cell_size": CELL}),
    "median": ("median", {}),
    "shade, sun alone": ("shade", {"no_occlusion": True, "elevation": 60.0, "albedo": 0.5}),
    "shade": ("shade", {}),
}


def growth(folder: str, sides: list[int]) -> None:
    print("| Cells a side | Command | Tiles | Side and overlap | Seconds | Seconds of processors | ns a cell of processors "
          "| Said, GiB | Taken, GiB | Bytes a cell on disk |")  # fmt: skip
    print("|---|---|---|---|---|---|---|---|---|---|")
    for side in sides or (4096, 8192, 16384, 32768):
        source = make_terrain(folder, side)
        for name, (command, options) in GROWTH.items():
            out = os.path.join(folder, f"{command}_{side}.vrt")
            shutil.rmtree(out[:-4] + ".tiles", ignore_errors=True)
            lines = []
            report = tiles.run(command, source, out, memory="2GiB", workers=2, log=lines.append, **options)
            size = sum(file.stat().st_size for file in os.scandir(out[:-4] + ".tiles"))
            planned = lines[0].split()
            print(
                f"| {side} | {name} | {report.tiles} | {planned[planned.index('cells') - 1]}, {report.overlap} "
                f"| {report.seconds:.0f} | {report.processor_seconds:.0f} "
                f"| {report.processor_seconds / side**2 * 1e9:.0f} | {report.planned_bytes / 2**30:.2f} "
                f"| {report.peak_bytes / 2**30:.2f} | {size / side**2:.2f} |",
                flush=True,
            )
            shutil.rmtree(out[:-4] + ".tiles")


def _peak_of(command: str, path: str, side: int, options: dict, pipe) -> None:
    """In a process of its own, as a worker does it."""
    from tarn.tiles import _run, _work

    planned = tiles.plan(command, path, tile=side, overlap=0, extent=(200.0, 1100.0), **options)
    folder = os.path.join(os.path.dirname(path), "peak")
    paths = {COMMANDS[command].main or "result": folder + ".vrt"}
    job = _run._job(command, _raster.describe(path), planned, paths, {}, {})
    os.makedirs(folder + ".tiles/parts", exist_ok=True)
    record = _work.make(job, next(job.layout.tiles()))
    if job.parts:
        record = _work.merge(job, next(job.layout.tiles()))
    pipe.send(record["peak_bytes"])


def memory(folder: str, names: list[str]) -> None:
    print("| Command | 1024 a side, MiB | 3072 a side, MiB | Bytes a cell above 120 MiB | Planned |")
    print("|---|---|---|---|---|")
    for command in names or COMMANDS:
        options = next((case[1] for name, case in CASES.items() if name == command), {})
        options = dict(options)
        if "duration" in options:
            options["duration"] = 0.002
        peaks = []
        for side in (1024, 3072):
            here, there = multiprocessing.Pipe()
            path = make_terrain(folder, side)
            process = multiprocessing.get_context("spawn").Process(
                target=_peak_of, args=(command, path, side, options, there)
            )
            process.start()
            there.close()
            peaks.append(here.recv())
            process.join()
        a_cell = (peaks[1] - (120 << 20)) / 3072**2
        planned = COMMANDS[command].bytes_per_cell
        print(f"| `{command}` | {peaks[0] >> 20} | {peaks[1] >> 20} | {a_cell:.0f} | {planned} |", flush=True)


def faults(folder: str) -> None:
    source = make_terrain(folder, 1024)
    options = {"tile": 256, "feature_size": 1000.0, "iterations": 5.0}

    def attempt(title: str, out: str, **changed):
        try:
            report = tiles.run("erode", changed.pop("source", source), os.path.join(folder, out), **(options | changed))
            line = f"{report.tiles} tiles, {report.reused} of them or their parts from before"
        except tiles.TileError as error:
            line = f"TileError: {error}"
        print(f"{title}: {line}", flush=True)

    attempt("undisturbed", "plain.vrt", workers=2)
    from distributed import Client, LocalCluster

    cluster = {"n_workers": 2, "threads_per_worker": 1, "dashboard_address": None, "silence_logs": 60}
    with LocalCluster(**cluster) as local, Client(local, timeout=2) as client:
        seen = []

        def kill(percent: float) -> None:
            seen.append(percent)
            if len(seen) == 4:
                os.kill(next(iter(client.run(os.getpid).values())), signal.SIGKILL)

        attempt("SIGKILL of a worker", "killed.vrt", client=client, progress=kill)
    same = np.array_equal(read_whole(os.path.join(folder, "plain.vrt")), read_whole(os.path.join(folder, "killed.vrt")))
    print(f"  the same bits as undisturbed: {same}")

    def stop(percent: float) -> None:
        if percent > 30:
            raise KeyboardInterrupt

    try:
        attempt("stopped", "stopped.vrt", workers=2, progress=stop)
    except KeyboardInterrupt:
        attempt("stopped at 30 %, run again", "stopped.vrt", workers=2)
    attempt("another seed", "stopped.vrt", workers=2, seed=5)

    broken = os.path.join(folder, "broken.tif")
    with open(source, "rb") as whole, open(broken, "wb") as half:
        half.write(whole.read()[: os.path.getsize(source) // 2])
    attempt("a raster cut in half", "broken.vrt", source=broken, workers=2)

    small = os.path.join(folder, "small")
    os.makedirs(small, exist_ok=True)
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=3m", "tmpfs", small]).returncode == 0:
        try:
            attempt("a disk of 3 MiB", "small/out.vrt", workers=2)
            left = sorted(name for _, _, names in os.walk(small) for name in names)
            whole = sum(name.endswith((".tif", ".npy")) for name in left)
            print(f"  files there: {whole} whole, {sum(name.endswith('partial') for name in left)} half")
            subprocess.run(["mount", "-o", "remount,size=64m", small], check=True)
            attempt("with room again", "small/out.vrt", workers=2)
        finally:
            subprocess.run(["umount", small], check=True)

    address = "tcp://127.0.0.1:18786"
    scheduler = subprocess.Popen(
        [sys.executable, "-m", "distributed.cli.dask_scheduler", "--port", "18786", "--no-dashboard"],
        stderr=subprocess.DEVNULL,
    )
    worker = [sys.executable, "-m", "distributed.cli.dask_worker", address, "--nthreads", "1", "--no-dashboard"]
    workers = [
        subprocess.Popen([*worker, "--local-directory", os.path.join(folder, "worker")], stderr=subprocess.DEVNULL)
        for _ in range(2)
    ]
    try:
        time.sleep(8)
        attempt("SIGKILL of the scheduler", "lost.vrt", client=address, progress=lambda percent: scheduler.kill())
    finally:
        for process in (scheduler, *workers):
            process.kill()
            process.wait()
    attempt("run again", "lost.vrt", workers=2)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=("exactness", "growth", "memory", "faults"))
    parser.add_argument("folder")
    parser.add_argument("names", nargs="*")
    parser.add_argument("--side", type=int, default=4096)
    given = parser.parse_args()
    os.makedirs(given.folder, exist_ok=True)
    if given.what == "exactness":
        exactness(given.folder, given.side, given.names)
    elif given.what == "growth":
        growth(given.folder, [int(side) for side in given.names])
    elif given.what == "memory":
        memory(given.folder, given.names)
    else:
        faults(given.folder)


if __name__ == "__main__":
    main()
