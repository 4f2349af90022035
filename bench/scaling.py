#!/usr/bin/python3
"""Prints how the time of each computation grows with the cells, as tables of docs/performance.md.

    bench/scaling.py [--sizes 512 1024 2048 4096 8192] [--runs 3] [--limit 60] [--memory 8]
                     [--jobs "flow|erode"]

It calls the package from PYTHONPATH, for example build/python, each time in a process of its own. Times are processor time,
of all threads, which other work on the machine changes little: seconds for each million cells, medians of the runs. A size
is left out where the one before it says that a run takes longer than the limit or more memory.
"""
import argparse
import ctypes
import math
import multiprocessing
import os
import re
import resource
import statistics

import numpy as np


def terrain(side: int) -> np.ndarray:
    """Heights with features of every size, in cells."""
    block = min(side, 4096)
    noise = np.fft.rfft2(np.random.default_rng(7).standard_normal((block, block), np.float32))
    wave = np.hypot(np.fft.fftfreq(block)[:, None], np.fft.rfftfreq(block)[None, :])
    wave[0, 0] = 1
    heights = np.fft.irfft2(noise / wave**2, s=(block, block))
    heights = ((heights - heights.min()) / np.ptp(heights) * block / 8).astype(np.float32)
    return np.tile(heights, (side // block, side // block))


def job_of(name: str, side: int):
    """What is timed; what it takes is made before."""
    import tarn

    if name == "copy of a grid":
        source, target = terrain(side), np.ones((side, side), np.float32)
        return lambda: np.copyto(target, source)
    if name == "points, one to 8 cells":
        places = np.random.default_rng(3).uniform(0, side, (side * side // 8, 2))
        cloud = np.column_stack((places, np.sin(places[:, 0] / 50)))
        return lambda: tarn.points(cloud, columns=side)
    if name == "bake, 131,072 triangles":
        steps = np.linspace(0, 1, 257)
        x, y = (axis.ravel() for axis in np.meshgrid(steps, steps))
        vertices = np.column_stack((x, y, 0.02 * np.sin(20 * x) * np.cos(30 * y)))
        first = (np.arange(256)[:, None] * 257 + np.arange(256)).ravel()
        triangles = np.vstack([first[:, None] + [0, 1, 258], first[:, None] + [0, 258, 257]])
        ground = terrain(side)
        return lambda: tarn.bake(vertices, triangles, ground, fit_heights=True)
    heights = terrain(side)
    if name == "colour":
        picture = np.random.default_rng(5).random((side, side, 3), np.float32)
        return lambda: tarn.colour(heights, picture)
    return {
        "shape": lambda: tarn.shape(heights),
        "weather": lambda: tarn.weather(heights),
        "erode": lambda: tarn.erode(heights),
        "dunes, duration 0.002": lambda: tarn.dunes(heights, sand=3.0, duration=0.002),
        "debris, 1,000 rocks": lambda: tarn.debris(heights),
        "flow": lambda: tarn.flow(heights),
        "shade": lambda: tarn.shade(heights),
        "sunlight": lambda: tarn.sunlight(heights, latitude=45.0),
        "stamp, 1,000 of 32 x 32": lambda: tarn.stamp(heights, np.ones((32, 32), np.float32), count=1000),
        "median, radius 3": lambda: tarn.median(heights),
        "cells": lambda: tarn.cells(heights),
    }[name]


JOBS = ["copy of a grid", "shape", "weather", "erode", "dunes, duration 0.002", "debris, 1,000 rocks", "flow", "shade", "colour",
        "sunlight", "stamp, 1,000 of 32 x 32", "median, radius 3", "cells", "points, one to 8 cells",
        "bake, 131,072 triangles"]


def processor_time() -> float:
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


def resident(field: str) -> int:
    with open("/proc/self/status") as status:
        return int(re.search(rf"{field}:\s+(\d+)", status.read()).group(1)) * 1024


def measure(name: str, side: int, threads: int) -> tuple[float, float]:
    """Processor time in seconds, and the most bytes that the work took beside what was there before it."""
    os.sched_setaffinity(0, sorted(os.sched_getaffinity(0))[:threads])
    job_of(name, 64)()  # loads the library
    job = job_of(name, side)
    ctypes.CDLL(None).malloc_trim(0)
    with open("/proc/self/clear_refs", "w") as control:
        control.write("5")  # the peak starts anew
    before, start = resident("VmRSS"), processor_time()
    job()
    return processor_time() - start, resident("VmHWM") - before


def table(jobs: list[str], options: argparse.Namespace, threads: int) -> None:
    print(f"| {threads} thread{'s' * (threads > 1)} | " + " | ".join(map(str, options.sizes)) +
          " | Slope | Bytes a cell | Copies of the grid |")
    print("|---" * (len(options.sizes) + 4) + "|")
    copy = 0.0
    for name in jobs:
        costs: dict[int, float] = {}
        seconds = memory = 0.0
        for side in options.sizes:
            growth = (side / max(costs, default=side)) ** 2
            if seconds * growth > options.limit or memory * growth > options.memory * 2**30:
                break
            runs = options.runs if side < 2048 else 1
            with multiprocessing.get_context("spawn").Pool(1, maxtasksperchild=1) as pool:
                results = [pool.apply(measure, (name, side, threads)) for _ in range(runs)]
            seconds = statistics.median(result[0] for result in results)
            memory = statistics.median(result[1] for result in results)
            costs[side] = seconds / side**2 * 1e6
        largest = max(costs)
        slope = np.polyfit(*np.log([[side**2 for side in costs], [costs[side] * side**2 for side in costs]]), 1)[0]
        copy = copy or costs[largest]
        cells = [f"{costs[side]:.3g}" if side in costs else "" for side in options.sizes]
        print(f"| {name} | " + " | ".join(cells) + f" | {slope if len(costs) > 1 else math.nan:.2f} | "
              f"{memory / largest**2:.0f} | {costs[largest] / copy:.0f} |", flush=True)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sizes", type=int, nargs="+", default=[512, 1024, 2048, 4096, 8192])
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--limit", type=float, default=60, help="seconds of processor time for one run")
    parser.add_argument("--memory", type=float, default=8, help="GiB for one run")
    parser.add_argument("--threads", type=int, nargs="+", default=[1, os.cpu_count()])
    parser.add_argument("--jobs", default=".", help="regular expression for the names in the table")
    arguments = parser.parse_args()
    chosen = [name for name in JOBS if name == JOBS[0] or re.search(arguments.jobs, name)]
    for threads_used in arguments.threads:
        table(chosen, arguments, threads_used)
        print()
