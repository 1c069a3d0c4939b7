# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Loading of libqorv.so, the C prototypes of its exports, and result codes as exceptions."""

import ctypes
import os
import pathlib
import shutil
import subprocess
import threading

# ---- Result codes -------------------------------------------------------------------------------

OK = 0
ERROR_FILE = 1
ERROR_INVALID_ARGUMENT = 3
ERROR_NULL_INSTANCE = 8
ERROR_ALLOCATION = 9

_CODE_NAMES = {
    ERROR_FILE: "file could not be read or written",
    ERROR_INVALID_ARGUMENT: "invalid argument",
    ERROR_NULL_INSTANCE: "null instance",
    ERROR_ALLOCATION: "memory could not be allocated",
}


class QorvError(RuntimeError):
    """A library call returned a failure code.

    Attributes:
        code: the QorvResult value (1 file, 3 invalid argument, 8 null instance, 9 allocation).
        function: the name of the export that failed, e.g. "QorvEdgeFilter".
    """

    def __init__(self, code, function):
        self.code = int(code)
        self.function = function
        reason = _CODE_NAMES.get(self.code, "unknown result code")
        super().__init__(f"{function} failed with code {self.code} ({reason})")


class QorvFileError(QorvError, OSError):
    """Code 1: an ASC file could not be read into at least one point, or could not be written."""


class QorvInvalidArgumentError(QorvError, ValueError):
    """Code 3: the library refused an argument (empty array, radius not greater than 0, ...)."""


class QorvNullInstanceError(QorvError):
    """Code 8: the call was made with a closed instance."""


class QorvAllocationError(QorvError, MemoryError):
    """Code 9: the library ran out of memory."""


_ERROR_CLASSES = {
    ERROR_FILE: QorvFileError,
    ERROR_INVALID_ARGUMENT: QorvInvalidArgumentError,
    ERROR_NULL_INSTANCE: QorvNullInstanceError,
    ERROR_ALLOCATION: QorvAllocationError,
}


def check(code, function):
    """Raises the QorvError subclass for a failure code; returns None for 0."""
    if code != OK:
        raise _ERROR_CLASSES.get(code, QorvError)(code, function)


# ---- Callback and record types of qorv.h -------------------------------------------------------
# Callback pointers are declared as void* so that ctypes hands them over as plain integers: the
# wrappers copy with memmove into numpy arrays, which creates no ctypes array type per length.

IndexCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int32, ctypes.c_void_p)
MatchCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p)
AscCallback = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p,
                               ctypes.c_int64, ctypes.c_void_p)


class KeyPointResult(ctypes.Structure):
    """QorvKeyPointResult: count, reserved, descriptors, positions, normals."""

    _fields_ = [
        ("count", ctypes.c_int32),
        ("reserved", ctypes.c_int32),
        ("descriptors", ctypes.c_void_p),
        ("positions", ctypes.c_void_p),
        ("normals", ctypes.c_void_p),
    ]


KeyPointCallback = ctypes.CFUNCTYPE(None, ctypes.POINTER(KeyPointResult), ctypes.c_void_p)

# ---- Prototypes ----------------------------------------------------------------------------------

_p = ctypes.c_void_p  # every array and handle crosses as an address
_i32 = ctypes.c_int32
_f32 = ctypes.c_float
_res = ctypes.c_int32

PROTOTYPES = {
    "QorvCreateInstance": (_res, [ctypes.POINTER(ctypes.c_void_p)]),
    "QorvDestroyInstance": (_res, [_p]),
    "QorvEnableCrossCheck": (_res, [_p]),
    "QorvDisableCrossCheck": (_res, [_p]),
    "QorvEnableMultiThread": (_res, [_p]),
    "QorvDisableMultiThread": (_res, [_p]),
    "QorvGetMatchNeighborNum": (_res, [_p, ctypes.POINTER(_i32)]),
    "QorvSetMatchNeighborNum": (_res, [_p, _i32]),
    "QorvVersion": (ctypes.c_char_p, []),
    "QorvReadPointsFromASC": (_res, [_p, ctypes.c_char_p, AscCallback, _p]),
    "QorvWritePointsToASC": (_res, [_p, ctypes.c_char_p, _p, _p, _p, _i32]),
    "QorvRotatePoints": (_res, [_p, _p, _p, _p, _i32]),
    "QorvTransformPoints": (_res, [_p, _p, _p, _p, _i32]),
    "QorvAbsoluteOrientation": (_res, [_p, _p, _p, _i32, _p]),
    "QorvComputeNormals": (_res, [_p, _p, _p, _i32, _i32, _f32]),
    "QorvReComputeNormals": (_res, [_p, _p, _p, _i32, _f32]),
    "QorvVoxelFilter": (_res, [_p, _p, _i32, _f32, IndexCallback, _p]),
    "QorvSORFilter": (_res, [_p, _p, _i32, _i32, _f32, IndexCallback, _p]),
    "QorvEdgeFilter": (_res, [_p, _p, _i32, _f32, IndexCallback, _p]),
    "QorvGaussianFilter": (_res, [_p, _p, _p, _i32, _f32]),
    "QorvDetectAndCompute": (_res, [_p, _p, _p, _i32, _f32, _f32, _f32, _f32, _f32, _f32, _i32,
                                    KeyPointCallback, _p]),
    "QorvDepthToVmapNmap": (_res, [_p, _p, _p, _p, _p, _p, _i32, _i32]),
    "QorvDetectAndComputeVmapNmap": (_res, [_p, _p, _p, _p, _i32, _i32, _i32, _i32, _i32, _i32,
                                            _f32, _f32, _i32, KeyPointCallback, _p]),
    "QorvMatchDescriptor": (_res, [_p, _p, _i32, _p, _p, _p, _i32, _i32]),
    "QorvRansacMatchKeyPoints": (_res, [_p, _p, _p, _p, _i32, _p, _p, _p, _i32, _p, _i32, _f32,
                                        _f32, MatchCallback, _p]),
    "QorvIterativeMatchKeyPoints": (_res, [_p, _p, _p, _i32, _p, _p, _i32, _p, _i32, _f32, _f32,
                                           MatchCallback, _p]),
    "QorvMatchPairPointCloud": (_res, [_p, _p, _p, _i32, _p, _p, _i32, _p, _f32, _f32, _i32,
                                       MatchCallback, _p]),
    "QorvCheckDistance": (_res, [_p, _p, _i32, _i32, _p]),
}

# ---- Finding and loading the library -------------------------------------------------------------

_PACKAGE_DIR = pathlib.Path(__file__).resolve().parent
_lock = threading.Lock()
_handle = None
_functions = {}


def candidate_paths(soname, pkg_config_name):
    """The places searched for a library, in order: next to the package (as a wheel that carries
    it would have it), the libdir of its installed pkg-config file, then the name alone for the
    dynamic loader's own search (LD_LIBRARY_PATH, the ld.so cache, the default folders). A
    generator, so that pkg-config only runs when the package carries no copy."""
    yield str(_PACKAGE_DIR / soname)
    libdir = _pkg_config_libdir(pkg_config_name)
    if libdir:
        yield os.path.join(libdir, soname)
    yield soname


def _pkg_config_libdir(name):
    """`pkg-config --variable=libdir name`, or None without pkg-config or the .pc file."""
    tool = shutil.which("pkg-config")
    if tool is None:
        return None
    try:
        result = subprocess.run([tool, "--variable=libdir", name], capture_output=True, text=True,
                                timeout=10, check=False)
    except (OSError, subprocess.SubprocessError):
        return None
    libdir = result.stdout.strip()
    return os.path.normpath(libdir) if result.returncode == 0 and libdir else None


def load_library(env_name, soname, pkg_config_name):
    """The ctypes.CDLL of `soname`. When the environment variable `env_name` is set, only the file
    it names is tried, so that a wrong setting is not silently papered over; otherwise the first
    of candidate_paths() that loads. Raises OSError listing the places tried."""
    env = os.environ.get(env_name)
    errors = []
    for path in [env] if env else candidate_paths(soname, pkg_config_name):
        if os.sep in path and not os.path.exists(path):
            errors.append(f"{path}: not found")
            continue
        try:
            return ctypes.CDLL(path)
        except OSError as error:
            errors.append(f"{path}: {error}")
    raise OSError(f"{soname} could not be loaded; tried:\n  " + "\n  ".join(errors) +
                  f"\nSet {env_name} to the library's path, or put the folder of "
                  f"{pkg_config_name}.pc on PKG_CONFIG_PATH.")


def library():
    """The loaded ctypes.CDLL of libqorv.so.1; loads it on first use (OSError if none loads)."""
    global _handle
    with _lock:
        if _handle is None:
            _handle = load_library("QORV_LIBRARY", "libqorv.so.1", "qorv")
        return _handle


def function(name):
    """The export `name` with its prototype applied.

    Raises AttributeError when the loaded library does not provide the export.
    """
    fn = _functions.get(name)
    if fn is None:
        fn = getattr(library(), name)
        restype, argtypes = PROTOTYPES[name]
        fn.restype = restype
        fn.argtypes = argtypes
        _functions[name] = fn
    return fn


def library_path():
    """The file the library was loaded from (as the dynamic loader resolved it), or None."""
    lib = library()
    dl_info = _dl_path(lib)
    return dl_info or lib._name


def _dl_path(lib):
    try:
        libdl = ctypes.CDLL(None)

        class DlInfo(ctypes.Structure):
            _fields_ = [("dli_fname", ctypes.c_char_p), ("dli_fbase", ctypes.c_void_p),
                        ("dli_sname", ctypes.c_char_p), ("dli_saddr", ctypes.c_void_p)]

        dladdr = libdl.dladdr
        dladdr.argtypes = [ctypes.c_void_p, ctypes.POINTER(DlInfo)]
        info = DlInfo()
        address = ctypes.cast(lib.QorvVersion, ctypes.c_void_p).value
        if dladdr(address, ctypes.byref(info)) and info.dli_fname:
            return os.fsdecode(info.dli_fname)
    except (AttributeError, OSError):
        pass
    return None
