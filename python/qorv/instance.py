# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""The Instance class: the library's settings record, and the shared default instance."""

from __future__ import annotations

import ctypes
import threading
from typing import Optional

from . import _library


class Instance:
    """An opaque QorvInstance: the settings that steer the processing calls.

    Every function of this package takes an optional ``instance=`` keyword; without it the
    package's default instance (default settings) is used.

    Settings:
        cross_check: descriptor matching keeps only matches no other query beats (default True).
        multi_thread: processing calls run their multi-threaded variant (default False); the
            results are the same as single-threaded (RANSAC aside).
        match_neighbor_num: neighbour count stored for matching (default 0).

    The instance can be used as a context manager; it is released on exit or by close(). An
    instance must not be reconfigured while another thread runs a call with it.
    """

    def __init__(self, cross_check: bool = True, multi_thread: bool = False, match_neighbor_num: int = 0) -> None:
        handle = ctypes.c_void_p()
        _library.check(_library.function("QorvCreateInstance")(ctypes.byref(handle)),
                       "QorvCreateInstance")
        self._handle = handle.value
        # The library has setters but no getters for these two flags: mirror its defaults.
        self._cross_check = True
        self._multi_thread = False
        self.cross_check = cross_check
        self.multi_thread = multi_thread
        if match_neighbor_num:
            self.match_neighbor_num = match_neighbor_num

    # -- lifetime --

    def close(self) -> None:
        """Releases the instance (QorvDestroyInstance). Further calls with it raise QorvError 8."""
        handle, self._handle = self._handle, None
        if handle is not None:
            _library.function("QorvDestroyInstance")(handle)

    @property
    def closed(self) -> bool:
        """True once close() has released the instance."""
        return self._handle is None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __del__(self):
        try:
            self.close()
        except Exception:  # interpreter shutdown: the library may already be gone
            pass

    def __repr__(self):
        if self.closed:
            return "<qorv.Instance closed>"
        return (f"<qorv.Instance cross_check={self._cross_check} multi_thread={self._multi_thread}"
                f" match_neighbor_num={self.match_neighbor_num}>")

    @property
    def handle(self) -> Optional[int]:
        """The raw QorvInstance* as an integer (None once closed)."""
        return self._handle

    # -- settings --

    @property
    def cross_check(self) -> bool:
        """Descriptor matching keeps only matches no other query beats (QorvEnable/DisableCrossCheck)."""
        return self._cross_check

    @cross_check.setter
    def cross_check(self, value):
        name = "QorvEnableCrossCheck" if value else "QorvDisableCrossCheck"
        _library.check(_library.function(name)(self._handle), name)
        self._cross_check = bool(value)

    @property
    def multi_thread(self) -> bool:
        """Processing calls run their multi-threaded variant (QorvEnable/DisableMultiThread)."""
        return self._multi_thread

    @multi_thread.setter
    def multi_thread(self, value):
        name = "QorvEnableMultiThread" if value else "QorvDisableMultiThread"
        _library.check(_library.function(name)(self._handle), name)
        self._multi_thread = bool(value)

    @property
    def match_neighbor_num(self) -> int:
        """The neighbour count stored for matching (QorvGet/SetMatchNeighborNum)."""
        out = ctypes.c_int32()
        _library.check(_library.function("QorvGetMatchNeighborNum")(self._handle, ctypes.byref(out)),
                       "QorvGetMatchNeighborNum")
        return out.value

    @match_neighbor_num.setter
    def match_neighbor_num(self, value):
        if int(value) != value or not -2**31 <= int(value) < 2**31:
            raise ValueError(f"match_neighbor_num must be a 32-bit integer, got {value!r}")
        _library.check(_library.function("QorvSetMatchNeighborNum")(self._handle, int(value)),
                       "QorvSetMatchNeighborNum")


_default = None
_default_lock = threading.Lock()


def default_instance() -> Instance:
    """The package-wide instance used when a call gets no ``instance=`` (default settings)."""
    global _default
    with _default_lock:
        if _default is None or _default.closed:
            _default = Instance()
        return _default


def handle_of(instance: Optional[Instance]) -> int:
    """The raw handle for a call: the given Instance's, or the default instance's."""
    return (instance if instance is not None else default_instance()).handle
