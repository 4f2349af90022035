"""A run from start to end: the plan, the cluster, the manifest, and the whole in the end."""
from __future__ import annotations

import concurrent.futures
import contextlib
import json
import logging
import math
import os
import re
import shutil
import tempfile
import time
from collections import Counter
from collections.abc import Callable, Iterable
from typing import Any, NamedTuple

import numpy as np

from .._progress import reporter
from . import _raster, _work
from ._commands import COMMANDS, REASONS, Plan, Whole
from ._layout import Layout, Tile, cut
from ._work import Job, TileError

#: Of a worker before its first tile: Python, numpy, GDAL, Dask and the library.
BASE_BYTES = 160 << 20
#: Of each cell of a window where cells may have no value: to fill them takes lists of them.
HOLE_BYTES = 90
#: Of a worker's limit that a plan may fill.
USABLE = 0.8
TILE = 4096

#: Of workers on this machine: a plan fits their memory, so they need no rest; profiles of tasks that are one call say nothing.
_WORKERS = {
    "distributed.worker.memory.target": False,
    "distributed.worker.memory.spill": False,
    "distributed.worker.memory.pause": False,
    "distributed.worker.profile.enabled": False,
}


class Report(NamedTuple):
    path: str  #: the VRT of the whole
    tiles: int
    reused: int  #: tiles, and parts of tiles, that an earlier run had finished
    is_exact: bool  #: whether the cells are those of one call over the whole, to the bit, out of the reach of holes
    overlap: int  #: cells around a tile that are worked on with it
    planned_bytes: int  #: what a worker was said to take
    peak_bytes: int  #: what the largest has taken
    seconds: float
    processor_seconds: float


class Planned(NamedTuple):
    layout: Layout
    has_holes: bool
    is_exact: bool
    reach: float
    planned_bytes: int
    options: dict[str, Any]

    def __str__(self) -> str:
        rows, columns = self.layout.rows, self.layout.columns
        width = self.layout.window_shape[1]
        kind = "blended" if not self.is_exact else "exact out of the reach of holes" if self.has_holes else "exact"
        return (
            f"{rows * columns} tiles of {self.layout.side} cells a side, worked on {width} wide "
            f"(overlap {self.layout.overlap}), {kind}; a worker takes up to {self.planned_bytes / 2**30:.2f} GiB"
        )


def parse_bytes(text: str | int | None) -> int | None:
    """2GiB, 1500MB or a number of bytes."""
    if text is None or isinstance(text, int):
        return text
    from dask.utils import parse_bytes as parse

    return parse(text)


def _window_bytes(command: str, layout: Layout, has_holes: bool) -> int:
    rows, columns = layout.window_shape
    return BASE_BYTES + (COMMANDS[command].bytes_per_cell + has_holes * HOLE_BYTES) * rows * columns


def _layout(command: str, whole: Whole, options: dict, tile: int, overlap: int | None) -> Planned:
    """The tiles of a command, and the sizes that make a window of them work as the whole would."""
    how = COMMANDS[command]
    options = dict(options)
    plan: Plan = how.plan(whole, options)
    side = cut(whole.shape, tile, plan.align)
    margin = plan.overlap if overlap is None else math.ceil(overlap / plan.align) * plan.align
    is_whole = side >= max(whole.shape)
    like_whole: dict | None = None
    # Few widths have no sizes that give the floats of the whole; then the next wider windows have.
    for wider in range(16):
        layout = Layout(whole.shape, plan.shape, side, margin + wider * plan.align, 0, how.wider)
        like_whole = how.like_whole(whole, plan, options, layout.window_shape[1])
        if like_whole is not None:
            break
    is_exact = not how.highest and (is_whole or (like_whole is not None and layout.overlap >= plan.reach))
    if not is_exact:
        layout = Layout(whole.shape, plan.shape, side, layout.overlap, layout.overlap // 2, how.wider)
    if how.scaled:
        options |= {"cell_size": whole.cell_size, "height_unit": whole.height_unit}
    options |= like_whole or {}
    if "count" in options and how.needs_slopes:
        options["rocks_per_cell"] = options.pop("count") / (plan.shape[0] * plan.shape[1])
    return Planned(layout, whole.has_holes, is_exact, plan.reach, _window_bytes(command, layout, whole.has_holes), options)


def plan(
    command: str,
    source: str,
    *,
    tile: int | None = None,
    overlap: int | None = None,
    memory: str | int | None = None,
    extent: tuple[float, float] = (0.0, 0.0),
    **options,
) -> Planned:
    """How `run` would cut a raster: whether the result is exact, the overlap, and the memory of a worker.

    extent: lowest and highest cell, which the length of shadows follows from; `run` finds them.
    """
    if command in REASONS:
        raise ValueError(f"{command} is not run in tiles: {REASONS[command]}")
    if command not in COMMANDS:
        raise ValueError(f"there is no command {command}; there are {', '.join(COMMANDS)}")
    if overlap is not None and overlap < 0:
        raise ValueError(f"overlap is {overlap}; it must be 0 or more")
    raster = _raster.describe(source)
    cell_size = options.pop("cell_size", None) or raster.cell_size or 1.0
    height_unit = options.pop("height_unit", None) or raster.height_unit
    if COMMANDS[command].needs_slopes:
        options.setdefault("count", 1000)
    limit = parse_bytes(memory)
    first = tile if tile is not None else TILE
    if first < 1:
        raise ValueError(f"tile is {tile}; it must be 1 or more")
    side = first
    while True:
        whole = Whole(raster.shape, cell_size, height_unit, raster.has_holes, side, extent)
        planned = _layout(command, whole, options, side, overlap)
        if limit is None or planned.planned_bytes <= USABLE * limit:
            return planned
        needs = f"{planned.planned_bytes / 2**30:.2f} GiB of a worker, more than {USABLE:.0%} of its {limit / 2**30:.2f} GiB"
        if tile is not None:
            raise ValueError(f"tiles of {tile} cells with an overlap of {planned.layout.overlap} take {needs}")
        if side < 64:
            raise ValueError(f"even small tiles with an overlap of {planned.layout.overlap} take {needs}")
        side -= side // 4


class Manifest:
    """What a run has finished: its parameters in the first line, then a line for each tile or part, with checksums.

    Only the client writes it. A line that was cut off by a crash is left out, and its tile is done again.
    """

    def __init__(self, job: Job):
        self.path = os.path.join(job.folders[job.main], "manifest.jsonl")
        self.files: dict[str, dict[str, int]] = {}
        self._first = job.parameters
        if not self._continue():
            for folder in job.folders.values():
                with contextlib.suppress(FileNotFoundError):  # it would be of tiles that are gone
                    os.unlink(folder[: -len(".tiles")] + ".vrt")
                for name in os.listdir(folder):
                    if re.fullmatch(r"r\d+c\d+\.\w+\.tif", name):
                        os.unlink(os.path.join(folder, name))
            if job.parts is not None:
                shutil.rmtree(job.parts, ignore_errors=True)
            _raster.write_whole(self.path, self._first.encode())
        self._file = open(self.path, "a", encoding="utf-8")

    def _continue(self) -> bool:
        try:
            with open(self.path, encoding="utf-8") as file:
                first, *lines = file.read().split("\n")
        except OSError:
            return False
        if first != self._first:
            return False
        for line in lines:
            with contextlib.suppress(ValueError, KeyError):
                record = json.loads(line)
                self.files[record["key"]] = record["files"]
        return True

    def add(self, record: dict) -> None:
        self._file.write("\n" + json.dumps(record))
        self._file.flush()

    def close(self) -> None:
        self._file.close()


@contextlib.contextmanager
def _quiet():
    """Dask logs at length what a run tells in one line."""
    loggers = [logging.getLogger(name) for name in logging.root.manager.loggerDict if name.startswith("distributed")]
    levels = [logger.level for logger in loggers]
    for logger in loggers:
        logger.setLevel(logging.CRITICAL + 1)
    try:
        yield
    finally:
        for logger, level in zip(loggers, levels):
            logger.setLevel(level)


@contextlib.contextmanager
def _cluster(client, workers: int | None, memory: int | None):
    """The client that was given, one of the scheduler at an address, or one of a cluster on this machine."""
    import dask
    from distributed import Client, LocalCluster

    if client is not None and not isinstance(client, str):
        yield client
        return
    with _quiet():
        if isinstance(client, str):
            try:
                found = Client(client, timeout=10)
            except OSError as error:
                raise TileError(f"there is no scheduler at {client}: {_work._line(error)}") from None
            with found:
                yield found
            return
        with tempfile.TemporaryDirectory(prefix="tarn-tiles-") as scratch, dask.config.set(_WORKERS), LocalCluster(
            n_workers=workers or os.cpu_count(),
            threads_per_worker=1,
            memory_limit=memory or "auto",
            dashboard_address=":0",
            local_directory=scratch,
            silence_logs=logging.CRITICAL,
        ) as cluster, Client(cluster) as found:
            yield found


def _has_dashboard() -> bool:
    try:
        import bokeh  # noqa: F401
    except ImportError:
        return False
    return True


def _worker_memory(client) -> int | None:
    limits = [worker["memory_limit"] for worker in client.scheduler_info()["workers"].values()]
    return min((limit for limit in limits if limit), default=None)


def _failure(error: BaseException, client) -> TileError:
    from distributed import CancelledError
    from distributed.scheduler import KilledWorker

    if isinstance(error, TileError):
        return error
    if isinstance(error, KilledWorker):
        return TileError(f"workers die at {error.task}: most often they have too little memory")
    if isinstance(error, (CancelledError, concurrent.futures.CancelledError, OSError, RuntimeError)):
        return TileError("the scheduler has gone away; what is finished stays, run again to go on")
    return TileError(f"{type(error).__name__}: {_work._line(error)}")


def _results(client, futures: Iterable, follow: Callable[[dict], Iterable] = lambda record: ()):
    """Records as they come; `follow` names further tasks that a record makes possible."""
    from distributed import as_completed

    waiting = as_completed(futures)
    try:
        for future in waiting:
            record = future.result()
            future.release()
            for further in follow(record):
                waiting.add(further)
            yield record
    except BaseException as error:
        with contextlib.suppress(Exception):
            client.cancel(list(waiting.futures))
        if isinstance(error, Exception):
            raise _failure(error, client) from None
        raise


def _survey(client, job: Job) -> tuple[tuple[float, float], float, dict[str, int]]:
    """Range and steepness of the whole, and what rasters of integers are divided by."""
    futures = [client.submit(_work.survey, job, tile, pure=False) for tile in job.layout.tiles()]
    records = list(_results(client, futures))
    ranges = [record["extent"] for record in records if record["extent"]]
    low, high = min((low for low, _ in ranges), default=0.0), max((high for _, high in ranges), default=0.0)
    slopes = [record["slope"] for record in records if "slope" in record]
    scales = {
        name: grid.largest_integer
        for name, grid in job.grids.items()
        if job.how.shares and grid.largest_integer and max(record["highest"][name] for record in records) > 1
    }
    return (low, high), float(np.mean(slopes)) if slopes else 0.5, scales


def run(
    command: str,
    source: str,
    out: str,
    *,
    tile: int | None = None,
    overlap: int | None = None,
    memory: str | int | None = None,
    client=None,
    workers: int | None = None,
    cog: str | None = None,
    progress=False,
    log: Callable[[str], object] | None = None,
    **options,
) -> Report:
    """Runs a command of `tarn` over a raster of any size, tile by tile.

    source: any raster that GDAL reads; its first band is taken.
    out: a VRT. Its tiles go to a folder of its name with `.tiles`, GeoTIFFs that appear whole.
    tile: the largest side of a tile; what fits the memory, up to 4096, if None.
    overlap: cells around a tile that are worked on with it; what the command needs if None.
    memory: of a worker, "2GiB" or bytes; that of the workers if None. A plan that takes more is refused.
    client: a `distributed.Client`, or a scheduler's address; workers on this machine if None, which see the same files.
    workers: how many on this machine; one a processor if None.
    cog: also write the whole as one cloud-optimised GeoTIFF.
    progress: True for a bar, or a function of the percentage.
    log: is told the plan in a line before the work begins.
    options: those of the function of this name in `tarn`. Grids are paths of rasters of the same size. `depth_out` and
        others of the tool's outputs are paths of further VRTs. `seed` is that of the first tile; the seeds of the others
        follow from it and from their places.

    A second run of the same call goes on where the first was stopped. Raises TileError, with one line.
    """
    start = time.perf_counter()
    if not out.endswith(".vrt"):
        raise ValueError(f"out is '{out}'; its name must end in .vrt")
    how = COMMANDS.get(command)
    named = how.outputs if how else {}
    extra = {named[name]: options.pop(name) for name in list(options) if name in named}
    grids = {}
    for name in how.grids if how else ():
        if isinstance(options.get(name), (str, os.PathLike)):
            grids[name] = _raster.describe(os.fspath(options.pop(name)))
    plan_options = {name: value for name, value in options.items() if value is not None}
    raster = _raster.describe(source)
    for name, grid in grids.items():
        if grid.shape != raster.shape:
            raise ValueError(f"{name} has {grid.shape} cells; it must have {raster.shape}")
        plan_options[name] = grid.path  # the plan asks whether there is one

    limit = parse_bytes(memory)
    sizes = {"tile": tile, "overlap": overlap}
    plan(command, source, memory=limit, **sizes, **plan_options)  # refuses what cannot run before workers start
    with _cluster(client, workers, limit) as workers_of:
        limit = limit or _worker_memory(workers_of)
        planned = plan(command, source, memory=limit, **sizes, **plan_options)
        paths = {how.main or "result": out, **extra}
        job = _job(command, raster, planned, paths, grids, {})
        if how.needs_extent or how.needs_slopes or how.shares and any(grid.largest_integer for grid in grids.values()):
            extent, slope, scales = _survey(workers_of, job)
            if how.needs_slopes and not plan_options.get("max_size"):
                plan_options.setdefault("friction", min(0.5, slope))
            planned = plan(command, source, memory=limit, extent=extent, **sizes, **plan_options)
            job = _job(command, raster, planned, paths, grids, scales)
        if log is not None:
            log(f"{command}: {planned}")
            if getattr(workers_of, "dashboard_link", None) and _has_dashboard():
                log(f"progress: {workers_of.dashboard_link}")
        for folder in job.folders.values():
            os.makedirs(folder, exist_ok=True)
        totals = _run_tiles(workers_of, job, progress)
    for field, path in paths.items():
        _write_whole(job, field, path)
    if cog is not None:
        try:
            _raster.write_cog(out, cog)
        except Exception as error:
            raise TileError(f"cannot write '{cog}': {_work._line(error)}") from None
    count = job.layout.rows * job.layout.columns
    return Report(
        out, count, totals["reused"], planned.is_exact, planned.layout.overlap, planned.planned_bytes,
        totals["peak_bytes"], time.perf_counter() - start, totals["processor_seconds"],
    )  # fmt: skip


def _job(command: str, raster, planned: Planned, paths: dict[str, str], grids: dict, scales: dict[str, int]) -> Job:
    folders = {field: os.path.abspath(path[: -len(".vrt")] + ".tiles") for field, path in paths.items()}
    mixes = not planned.is_exact or COMMANDS[command].highest
    parts = os.path.join(next(iter(folders.values())), "parts") if mixes else None
    options = {name: value for name, value in planned.options.items() if name not in grids}
    return Job(command, raster, planned.layout, options, grids, scales, folders, parts)


def _run_tiles(client, job: Job, progress) -> Counter:
    manifest = Manifest(job)
    if job.parts is not None:
        os.makedirs(job.parts, exist_ok=True)
    folders = [*job.folders.values(), *([job.parts] if job.parts is not None else [])]
    _remove_partial(folders)

    def submit(task, tile: Tile):
        return client.submit(task, job, tile, pure=False)

    tiles = list(job.layout.tiles())
    checks = {key: client.submit(_work.intact, files, pure=False) for key, files in manifest.files.items()}
    done = {key for key, is_intact in client.gather(checks).items() if is_intact}
    unfinished = [tile for tile in tiles if _work.tile_key(tile) not in done]
    totals = Counter(reused=len(done))
    if job.parts is None:
        first, follow, steps = [submit(_work.make, tile) for tile in unfinished], lambda record: (), len(unfinished)
    else:
        # A tile is merged when all parts that have a say in it are there.
        missing: dict[Tile, set[str]] = {}
        makers: dict[str, Tile] = {}
        for tile in unfinished:
            parts = {_work.part_key(other): other for other in job.layout.parts_over(tile)}
            missing[tile] = {key for key in parts if key not in done}
            makers |= {key: parts[key] for key in missing[tile]}
        first = [submit(_work.make, tile) for tile in makers.values()]
        first += [submit(_work.merge, tile) for tile, keys in missing.items() if not keys]
        steps = len(makers) + len(unfinished)

        def follow(record: dict):
            if (made := makers.get(record["key"])) is None:
                return
            for tile in job.layout.parts_over(made):
                keys = missing.get(tile)
                if keys and not keys.difference_update([record["key"]]) and not keys:
                    yield submit(_work.merge, tile)

    try:
        with reporter(progress, job.command) as report:
            for number, record in enumerate(_results(client, first, follow), 1):
                manifest.add(record)
                totals["processor_seconds"] += record["processor_seconds"]
                totals["peak_bytes"] = max(totals["peak_bytes"], record["peak_bytes"])
                if report is not None:
                    report(100.0 * number / steps)
    finally:
        manifest.close()
        _remove_partial(folders)
    if job.parts is not None:
        shutil.rmtree(job.parts, ignore_errors=True)
    return totals


def _remove_partial(folders: list[str]) -> None:
    """Of workers that were killed while they wrote."""
    for folder in folders:
        for name in os.listdir(folder):
            if name.endswith(".partial"):
                os.unlink(os.path.join(folder, name))


def _write_whole(job: Job, field: str, path: str) -> None:
    files = [(job.path(field, tile), tile.core) for tile in job.layout.tiles()]
    kind, bands = ("Byte", 3) if field == "image" else ("Float32", 1)
    _raster.write_vrt(path, files, job.source, kind, bands)
