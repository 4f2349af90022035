"""tarn-tiles COMMAND IN OUT [options]: a command of `tarn` over a raster of any size, tile by tile."""
from __future__ import annotations

import argparse
import contextlib
import inspect
import sys

import numpy as np

from ._commands import COMMANDS, REASONS
from ._run import TileError, run

#: Options that a tile gets from the run.
_OWN = {"device", "progress"}


def _add_options(parser: argparse.ArgumentParser, command: str) -> None:
    how = COMMANDS[command]
    for parameter in inspect.signature(how.function).parameters.values():
        if parameter.name in {"heights", *_OWN}:
            continue
        flag, kind = "--" + parameter.name.replace("_", "-"), str(parameter.annotation)
        required = parameter.default is inspect.Parameter.empty
        if kind == "bool":
            parser.add_argument(flag, action="store_const", const=True)
        elif parameter.name in how.grids or parameter.name in ("stamps", "points"):
            parser.add_argument(flag, metavar="FILE", required=required)
        elif "tuple" in kind:
            parser.add_argument(flag, type=float, nargs=3)
        elif "str" in kind:
            parser.add_argument(flag, type=_number_or_text if "int" in kind else str)
        else:
            parser.add_argument(flag, type=int if kind.startswith("int") else float, required=required)
    for name in how.outputs:
        parser.add_argument("--" + name.replace("_", "-"), metavar="VRT")


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser("tarn-tiles", description=__doc__, allow_abbrev=False)
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", required=True)
    for name, how in COMMANDS.items():
        summary = inspect.getdoc(how.function).splitlines()[0]
        command = commands.add_parser(name, help=summary, description=summary, allow_abbrev=False)
        command.add_argument("source", metavar="IN", help="raster of heights, in any format that GDAL reads")
        command.add_argument("out", metavar="OUT", help="VRT of the whole; its tiles go to a folder beside it")
        command.add_argument("--tile", type=int, metavar="CELLS", help="largest side of a tile")
        command.add_argument("--overlap", type=int, metavar="CELLS", help="cells around a tile that are worked on too")
        command.add_argument("--memory", metavar="SIZE", help="of a worker, for example 2GiB")
        command.add_argument("--workers", type=int, help="processes on this machine; one a processor if not given")
        command.add_argument("--scheduler", dest="client", metavar="ADDRESS", help="of a running Dask cluster")
        command.add_argument("--cog", metavar="FILE", help="also write one cloud-optimised GeoTIFF")
        _add_options(command, name)
    return parser


def _number_or_text(text: str):
    for kind in (int, float):
        with contextlib.suppress(ValueError):
            return kind(text)
    return text


def main(arguments: list[str] | None = None) -> int:
    arguments = sys.argv[1:] if arguments is None else arguments
    if arguments and arguments[0] in REASONS:
        print(f"tarn-tiles: {arguments[0]} is not run in tiles: {REASONS[arguments[0]]}", file=sys.stderr)
        return 2
    options = {name: value for name, value in vars(_parser().parse_args(arguments)).items() if value is not None}
    try:
        if "sand" in options:
            options["sand"] = _number_or_text(options["sand"])
        if "stamps" in options:
            from ._raster import opened

            with opened(options["stamps"]) as file:
                options["stamps"] = file.read(1, out_dtype=np.float32)
        if "points" in options:
            options["points"] = np.loadtxt(options["points"], ndmin=2)
        report = run(
            options.pop("command"), options.pop("source"), options.pop("out"),
            progress=sys.stderr.isatty(), log=lambda line: print(line, file=sys.stderr), **options,
        )  # fmt: skip
    except KeyboardInterrupt:
        print("tarn-tiles: stopped; what is finished stays, run again to go on", file=sys.stderr)
        return 130
    except (TileError, ValueError, OSError) as error:
        print(f"tarn-tiles: {' '.join(str(error).split())}", file=sys.stderr)
        return 1
    again = f" ({report.reused} of them or their parts from before)" if report.reused else ""
    print(
        f"{report.path}: {report.tiles} tiles{again}, {report.seconds:.1f} s, {report.processor_seconds:.1f} s of processors, "
        f"at most {report.peak_bytes / 2**30:.2f} GiB a worker",
        file=sys.stderr,
    )
    return 0


if __name__ == "__main__":
    sys.exit(main())
