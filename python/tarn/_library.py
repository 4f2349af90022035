"""The C library: where it is found, its declarations, and one call of it from start to end."""
from __future__ import annotations

import collections
import contextlib
import logging
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
    """The library that TARN_LIBRARY names, else the one beside the package or in its build, else the loader's."""
    named = os.environ.get("TARN_LIBRARY")
    if named:
        return ffi.dlopen(named)
    package = Path(__file__).resolve().parent
    for path in (package / _NAME, package.parent.parent / "lib" / _NAME):
        if path.exists():
            return ffi.dlopen(str(path))
    for name in (_NAME, f"{_NAME}.1"):
        try:
            return ffi.dlopen(name)
        except OSError as error:
            reason = error
    raise ImportError(f"{_NAME} was not found; set TARN_LIBRARY to its path") from reason


lib = _open()


class Error(RuntimeError):
    """A call that was refused or failed. The text is the library's own line."""


class OutOfMemory(Error, MemoryError):
    """The device has not enough memory."""


class Cancelled(Error):
    """The run was cancelled before its end."""


_log = logging.getLogger("tarn")


class _Run:
    """What one call reports to, and what it has reported."""

    def __init__(self, progress: Callable[[float], object] | None = None):
        self.progress, self.percent = progress, 0.0
        self.errors: list[str] = []
        self.raised: BaseException | None = None

    def report(self) -> None:
        if self.progress is not None and self.raised is None:
            self.progress(self.percent)


# The library has one record of callbacks for the process and keeps it after a call, so there is one here too, which
# lives as long as the process, and calls come one at a time. The callbacks tell the run under way.
_run = _Run()
_one_call = threading.Lock()


def _on_exception(_kind, value, _traceback) -> None:
    # KeyboardInterrupt comes here too: Python delivers it in the next callback. The run ends at its next question.
    _run.raised = _run.raised or value


@ffi.callback("void(double)", onerror=_on_exception)
def _on_progress(percent):
    _run.percent = percent
    _run.report()


@ffi.callback("_Bool(void)", error=True, onerror=_on_exception)
def _is_cancelled():
    _run.report()
    return _run.raised is not None


@ffi.callback("void(char*)", onerror=_on_exception)
def _on_info(text):
    _log.info("%s", ffi.string(text).decode("utf-8", "replace"))


@ffi.callback("void(char*)", onerror=_on_exception)
def _on_error(text):
    _run.errors.append(ffi.string(text).decode("utf-8", "replace"))


@ffi.callback("void(size_t)", onerror=_on_exception)
def _on_memory(_bytes):
    pass


_callbacks = ffi.new(
    "HostCallbacks*",
    {
        "progress": _on_progress,
        "is_cancelled": _is_cancelled,
        "log_info": _on_info,
        "log_error": _on_error,
        "acquire_memory": _on_memory,
        "release_memory": _on_memory,
    },
)


@contextlib.contextmanager
def _alone(run: _Run):
    """No other thread is in the library meanwhile, and its callbacks tell this run."""
    global _run
    if getattr(_thread, "is_inside", False):
        raise Error("a progress function must not call the library: its own call is still under way")
    with _one_call:
        _thread.is_inside, before, _run = True, _run, run
        try:
            while _ended:
                lib.DestroySyclQueue(_ended.popleft())
            yield
        finally:
            _thread.is_inside, _run = False, before


class _Queue:
    def __init__(self, device: str):
        if not isinstance(device, str):
            raise TypeError(f"device is {device!r}; it must be a text")
        with _alone(_Run()):
            self.handle = lib.CreateSyclQueue(device.encode(), _callbacks)
        if self.handle == ffi.NULL:
            raise Error(f"no queue can be made on device {device!r}; tarn.devices() lists them")

    def __del__(self):
        # Perhaps in the middle of another thread's call, so the next call destroys it.
        if getattr(self, "handle", ffi.NULL) != ffi.NULL:
            _ended.append(self.handle)


_ended: collections.deque = collections.deque()
_thread = threading.local()


def _queue(device: str) -> _Queue:
    """This thread's queue on a device, made at its first use."""
    known = _thread.__dict__.setdefault("queues", {})
    if device not in known:
        known[device] = _Queue(device)
    return known[device]


def call(
    function: str,
    device: str,
    *arguments,
    progress: Callable[[float], object] | None = None,
    takes_callbacks: bool = True,
    has_status: bool = True,
) -> None:
    """Makes one computing call. Raises what a callback raised, or Error, OutOfMemory or Cancelled by the status.

    cffi lets other Python threads run while the library works.
    """
    handle = _queue(device).handle
    run = _Run(progress)
    with _alone(run):
        callbacks = (_callbacks,) if takes_callbacks else ()
        status = getattr(lib, function)(handle, *arguments, *callbacks)
    if run.raised is not None:
        raise run.raised
    line = "; ".join(run.errors)
    if status == lib.status_cancelled:
        raise Cancelled(line or f"{function} was cancelled")
    if status == lib.status_out_of_memory:
        raise OutOfMemory(line or f"{function}: the device has not enough memory")
    if status != lib.status_ok or (line and not has_status):
        raise Error(line or f"{function} failed")
    if line:
        _log.warning("%s", line)


def devices() -> list[dict]:
    """The devices that can run the library: identity string, backend, vendor, name and kind of each.

    `id` is what the computations take as `device`. A device with `needs_driver_update` cannot be used until then.
    """
    _queue("cpu")  # the scan logs through the callbacks of the first queue
    records, count = ffi.new("DeviceInfo**"), ffi.new("int32_t*")
    kinds = {1: "native-cpu", 2: "cpu", 3: "integrated-gpu", 4: "discrete-gpu", 5: "accelerator"}
    with _alone(_Run()):
        lib.GetDevices(records, count)
        try:
            found = []
            for record in records[0][0 : count[0]]:
                kind = kinds.get(record.kind, "other")
                text = {
                    name: ffi.string(getattr(record, name)).decode("utf-8", "replace")
                    for name in ("backend", "vendor", "name", "vendor_id")
                }
                needs_update = bool(record.needs_driver_update)
                found.append(
                    {"id": "/".join((kind, *text.values())), "kind": kind, **text, "needs_driver_update": needs_update}
                )
            return found
        finally:
            lib.FreeDevices(records[0])
