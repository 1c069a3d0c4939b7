# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Loading of libqorv_engine.so (the registration engine and the cloud files) and its errors."""

import ctypes
import threading

from ._library import (QorvAllocationError, QorvError, QorvFileError, QorvInvalidArgumentError,
                       load_library)

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

_lock = threading.Lock()
_handle = None


def load():
    """The loaded ctypes.CDLL of libqorv_engine.so.1; loads it on first use (OSError if none loads)."""
    global _handle
    with _lock:
        if _handle is None:
            lib = load_library("QORV_ENGINE_LIBRARY", "libqorv_engine.so.1", "qorv-engine")
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
