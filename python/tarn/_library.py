"""The C library: where it is found, its declarations, and one call of it from start to end."""
from __future__ import annotations

import os
import threading
from collections.abc import Callable
from pathlib import Path

import cffi

from . import _declarations

ffi = cffi.FFI()
ffi.cdef(_declarations.DECLARATIONS)

_NAME = "libTarn.oneAPI.so"


def _open():
    """The library that TARN_LIBRARY names, else the one beside the package or in the build it stands in, else the loader's."""
    named = os.environ.get("TARN_LIBRARY")
    if named:
        return ffi.dlopen(named)
    package = Path(__file__).resolve().parent
    for path in (package / _NAME, package.parent.parent / "lib" / _NAME):
        if path.exists():
            return ffi.dlopen(str(path))
    try:
        return ffi.dlopen(_NAME)
    except OSError as error:
        raise ImportError(f"{_NAME} was not found; set TARN_LIBRARY to its path") from error


lib = _open()


class Error(RuntimeError):
    """A call that was refused or failed. The text is the library's own line."""


class OutOfMemory(Error, MemoryError):
    """The device has not enough memory."""


class Cancelled(Error):
    """The run was cancelled before its end."""


# The library keeps one record of callbacks for the process, so calls come one at a time.
_one_call = threading.Lock()


class _Call:
    """The callbacks of one call, and what they were told."""

    def __init__(self, progress: Callable[[float], object] | None, log: Callable[[str], object] | None):
        self.errors: list[str] = []
        self.raised: BaseException | None = None
        self._progress, self._log = progress, log
        record = ffi.new("HostCallbacks*")
        # The record does not own its functions: they live as long as this object.
        self._functions = {
            name: ffi.callback(signature, function, error=name == "is_cancelled" or None, onerror=self._on_exception)
            for name, signature, function in (
                ("progress", "void(double)", self._on_progress),
                ("is_cancelled", "_Bool(void)", lambda: self.raised is not None),
                ("log_info", "void(char*)", self._on_info),
                ("log_error", "void(char*)", self._on_error),
                ("acquire_memory", "void(size_t)", lambda _: None),
                ("release_memory", "void(size_t)", lambda _: None),
            )
        }
        for name, function in self._functions.items():
            setattr(record, name, function)
        self.record = record

    def _on_exception(self, _kind, value, _traceback):
        # Also KeyboardInterrupt: Python delivers it in the next callback. The run ends at its next question.
        self.raised = self.raised or value

    def _on_progress(self, percent: float) -> None:
        if self._progress is not None and self.raised is None:
            self._progress(percent)

    def _on_info(self, text) -> None:
        if self._log is not None:
            self._log(ffi.string(text).decode("utf-8", "replace"))

    def _on_error(self, text) -> None:
        self.errors.append(ffi.string(text).decode("utf-8", "replace"))


class Queue:
    """A queue on a device: "cpu", or the identity string of one of `devices()`."""

    def __init__(self, device: str = "cpu"):
        self._callbacks = _Call(None, None)
        with _one_call:
            self.handle = lib.CreateSyclQueue(device.encode(), self._callbacks.record)
        if self.handle == ffi.NULL:
            raise Error(f"no queue can be made on device {device!r}")

    def __del__(self):
        if getattr(self, "handle", ffi.NULL) != ffi.NULL:
            lib.DestroySyclQueue(self.handle)


_queues = threading.local()


def queue(device: str = "cpu") -> Queue:
    """This thread's queue on a device, made at its first use."""
    known = _queues.__dict__.setdefault("by_device", {})
    if device not in known:
        known[device] = Queue(device)
    return known[device]


def call(
    function: str,
    device: str,
    *arguments,
    progress: Callable[[float], object] | None = None,
    log: Callable[[str], object] | None = None,
    takes_callbacks: bool = True,
) -> None:
    """Makes one computing call. Raises what a callback raised, or Error, OutOfMemory or Cancelled by the status.

    cffi lets other Python threads run while the library works.
    """
    handle = queue(device).handle
    run = _Call(progress, log)
    with _one_call:
        callbacks = (run.record,) if takes_callbacks else ()
        status = getattr(lib, function)(handle, *arguments, *callbacks)
    if run.raised is not None:
        raise run.raised
    if status == lib.status_ok:
        return
    line = "; ".join(run.errors)
    if status == lib.status_cancelled:
        raise Cancelled(line or f"{function} was cancelled")
    if status == lib.status_out_of_memory:
        raise OutOfMemory(line or f"{function}: the device has not enough memory")
    raise Error(line or f"{function} failed")
