"""Progress of a run: a bar, a function of the caller's, or nothing."""
from __future__ import annotations

import contextlib
import sys


class _PlainBar:
    """One line on the terminal, for where tqdm is not installed."""

    def __init__(self, total: float, desc: str, bar_format: str):
        self.n, self.total, self.desc = 0.0, total, desc

    def update(self, step: float) -> None:
        self.n += step
        sys.stderr.write(f"\r{self.desc}: {self.n:3.0f} %")
        sys.stderr.flush()

    def close(self) -> None:
        sys.stderr.write("\n")


@contextlib.contextmanager
def reporter(progress, name: str):
    """What a call reports its percentage to: `progress` itself if it is a function, a bar if it is True, else None.

    A run that comes to its end has reported 100 at last.
    """
    if callable(progress):
        yield progress
        progress(100.0)
        return
    if not progress:
        yield None
        return
    try:
        from tqdm.auto import tqdm as bar_class
    except ImportError:
        bar_class = _PlainBar
    bar = bar_class(total=100.0, desc=name, bar_format="{desc}: {percentage:3.0f}%|{bar}| {elapsed}<{remaining}")

    def show(percent: float) -> None:
        bar.update(max(min(percent, 100.0) - bar.n, 0.0))

    try:
        yield show
        show(100.0)
    finally:
        bar.close()
