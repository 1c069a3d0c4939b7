# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Loading of libqorv_engine.so (the registration engine and the cloud files) and its errors."""

import ctypes
import ctypes.util
import os
import pathlib
import threading

from ._library import (QorvAllocationError, QorvError, QorvFileError, QorvInvalidArgumentError,
                       load_first)

OK = 0
ERROR_FILE = 1
ERROR_FORMAT = 2
ERROR_INVALID_ARGUMENT = 3
ERROR_TOO_FEW_POINTS = 4
ERROR_ALLOCATION = 9
ERROR_INTERNAL = 10


class QorvEngineError(QorvError):
    """A call into libqorv_engine failed; the message is the library's own."""

    def __init__(self, code, function, message):
        self.code = int(code)
        self.function = function
        self.message = message
        RuntimeError.__init__(self, f"{function}: {message}" if message else
                              f"{function} failed with code {self.code}")


class QorvEngineFileError(QorvEngineError, QorvFileError):
    """A file could not be opened, read or written."""


class QorvEngineFormatError(QorvEngineError, ValueError):
    """A file's contents are not a cloud that can be read."""


class QorvEngineInvalidArgumentError(QorvEngineError, QorvInvalidArgumentError):
    """An argument was refused (a null array, a bad option)."""


class QorvTooFewPointsError(QorvEngineError, ValueError):
    """A cloud has too few finite (or distinct) points to register."""


class QorvEngineAllocationError(QorvEngineError, QorvAllocationError):
    """The engine ran out of memory."""


_ERROR_CLASSES = {
    ERROR_FILE: QorvEngineFileError,
    ERROR_FORMAT: QorvEngineFormatError,
    ERROR_INVALID_ARGUMENT: QorvEngineInvalidArgumentError,
    ERROR_TOO_FEW_POINTS: QorvTooFewPointsError,
    ERROR_ALLOCATION: QorvEngineAllocationError,
}

_PACKAGE_DIR = pathlib.Path(__file__).resolve().parent
_lock = threading.Lock()
_handle = None


def candidate_paths():
    """QORV_ENGINE_LIBRARY, next to the package, the checkout's build folder, the system path."""
    paths = []
    env = os.environ.get("QORV_ENGINE_LIBRARY")
    if env:
        paths.append(env)
    paths.append(str(_PACKAGE_DIR / "libqorv_engine.so"))
    paths.append(str(_PACKAGE_DIR.parent.parent / "build" / "libqorv_engine.so"))
    paths.append("libqorv_engine.so.1")
    found = ctypes.util.find_library("qorv_engine")
    if found:
        paths.append(found)
    return paths


def load():
    """The loaded ctypes.CDLL of libqorv_engine.so; loads it on first use (OSError if none loads)."""
    global _handle
    with _lock:
        if _handle is None:
            lib = load_first("QORV_ENGINE_LIBRARY", candidate_paths(), "libqorv_engine.so")
            for name, restype in (("QorvEngineLastError", ctypes.c_char_p), ("QorvEngineVersion", ctypes.c_char_p),
                                  ("QorvEngineApiVersion", ctypes.c_int32)):
                getattr(lib, name).restype = restype
                getattr(lib, name).argtypes = []
            _handle = lib
        return _handle


def check(code, function):
    """Raises the QorvEngineError subclass for a failure code, with the library's message."""
    if code != OK:
        message = (load().QorvEngineLastError() or b"").decode("utf-8", "replace")
        raise _ERROR_CLASSES.get(code, QorvEngineError)(code, function, message)
