# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Cloud files through libqorv_engine: PLY, PCD (ascii, binary, compressed), ASC, depth images."""

import ctypes
import dataclasses

import numpy as np

from ._engine_library import check, load

ENCODINGS = {"default": 0, "ascii": 1, "binary": 2, "compressed": 3}


class _CloudData(ctypes.Structure):
    _fields_ = [("points", ctypes.c_void_p), ("normals", ctypes.c_void_p), ("colours", ctypes.c_void_p),
                ("intensity", ctypes.c_void_p), ("count", ctypes.c_int64), ("width", ctypes.c_int32),
                ("height", ctypes.c_int32), ("has_viewpoint", ctypes.c_int32), ("viewpoint", ctypes.c_double * 7),
                ("non_finite", ctypes.c_int64), ("file_width", ctypes.c_int32), ("file_height", ctypes.c_int32),
                ("format", ctypes.c_char * 32), ("fields", ctypes.c_char * 256)]


class _DepthCamera(ctypes.Structure):
    _fields_ = [("fx", ctypes.c_double), ("fy", ctypes.c_double), ("cx", ctypes.c_double),
                ("cy", ctypes.c_double), ("depth_scale", ctypes.c_double)]


def _lib():
    lib = load()
    if not getattr(lib, "_qorv_io_typed", False):
        lib.QorvEngineReadCloud.restype = ctypes.c_int32
        lib.QorvEngineReadCloud.argtypes = [ctypes.c_char_p, ctypes.c_int32, ctypes.POINTER(_DepthCamera),
                                            ctypes.POINTER(ctypes.POINTER(_CloudData))]
        lib.QorvEngineFreeCloud.restype = None
        lib.QorvEngineFreeCloud.argtypes = [ctypes.POINTER(_CloudData)]
        lib.QorvEngineWriteCloud.restype = ctypes.c_int32
        lib.QorvEngineWriteCloud.argtypes = [ctypes.c_char_p, ctypes.POINTER(_CloudData), ctypes.c_int32]
        lib.QorvEngineDefaultDepthCamera.restype = None
        lib.QorvEngineDefaultDepthCamera.argtypes = [ctypes.POINTER(_DepthCamera)]
        lib._qorv_io_typed = True
    return lib


@dataclasses.dataclass
class CloudFile:
    """A cloud read from a file. points is (n, 3) float32, or (height, width, 3) for an organized
    cloud read with organized=True (NaN where there is no point); normals, colours (uint8) and
    intensity have the same leading shape, or are None. viewpoint is the sensor origin and
    orientation (x y z, quaternion w x y z) when the file gives one."""

    points: np.ndarray
    normals: object
    colours: object
    intensity: object
    viewpoint: object
    format: str
    fields: list
    non_finite: int


def _copy(address, count, columns, dtype, shape):
    if not address:
        return None
    size = count * columns * np.dtype(dtype).itemsize
    array = np.frombuffer(ctypes.string_at(address, size), dtype=dtype).copy()
    return array.reshape(shape + ((columns,) if columns > 1 else ()))


def _path(path):
    return str(path).encode()


def read_cloud(path, organized=False, *, fx=None, fy=None, cx=None, cy=None, depth_scale=None):
    """Reads PLY, PCD, ASC or a depth image (16-bit PNG or TIFF; the camera defaults to fx = fy = 525,
    cx = 319.5, cy = 239.5, depth_scale = 1000 units a metre). Without organized only the finite
    points are returned. Raises QorvEngineFileError / QorvEngineFormatError with the reason."""
    lib = _lib()
    camera = _DepthCamera()
    lib.QorvEngineDefaultDepthCamera(ctypes.byref(camera))
    for name, value in (("fx", fx), ("fy", fy), ("cx", cx), ("cy", cy), ("depth_scale", depth_scale)):
        if value is not None:
            setattr(camera, name, float(value))
    data = ctypes.POINTER(_CloudData)()
    check(lib.QorvEngineReadCloud(_path(path), 1 if organized else 0, ctypes.byref(camera), ctypes.byref(data)),
          "QorvEngineReadCloud")
    try:
        d = data.contents
        n = int(d.count)
        shape = (d.height, d.width) if organized and d.height > 1 else (n,)
        return CloudFile(points=_copy(d.points, n, 3, np.float32, shape),
                         normals=_copy(d.normals, n, 3, np.float32, shape),
                         colours=_copy(d.colours, n, 3, np.uint8, shape),
                         intensity=_copy(d.intensity, n, 1, np.float32, shape),
                         viewpoint=np.array(d.viewpoint[:]) if d.has_viewpoint else None,
                         format=d.format.decode(), fields=d.fields.decode().split(),
                         non_finite=int(d.non_finite))
    finally:
        lib.QorvEngineFreeCloud(data)


def read_depth(path, organized=False, *, fx=None, fy=None, cx=None, cy=None, depth_scale=None):
    """A depth image as a cloud in the camera's frame: read_cloud with the camera given."""
    return read_cloud(path, organized, fx=fx, fy=fy, cx=cx, cy=cy, depth_scale=depth_scale)


def write_cloud(path, points, normals=None, colours=None, intensity=None, encoding="default", viewpoint=None):
    """Writes by the extension: .ply (binary, or ascii), .pcd (binary, ascii or compressed), else
    ASC text. points may be (n, 3) or organized (h, w, 3) (kept as such in PCD)."""
    if encoding not in ENCODINGS:
        raise ValueError(f"encoding must be one of {sorted(ENCODINGS)}, got {encoding!r}")
    array = np.ascontiguousarray(points, dtype=np.float32)
    if array.ndim not in (2, 3) or array.shape[-1] != 3:
        raise ValueError(f"points must be an (n, 3) or (h, w, 3) array, got shape {array.shape}")
    data = _CloudData()
    keep = [array]
    data.points = array.ctypes.data
    data.count = array.size // 3
    if array.ndim == 3:
        data.height, data.width = array.shape[0], array.shape[1]
    for name, value, dtype, columns in (("normals", normals, np.float32, 3), ("colours", colours, np.uint8, 3),
                                        ("intensity", intensity, np.float32, 1)):
        if value is None:
            continue
        extra = np.ascontiguousarray(value, dtype=dtype)
        if extra.size != data.count * columns:
            raise ValueError(f"{name} must hold {columns} value(s) a point")
        keep.append(extra)
        setattr(data, name, extra.ctypes.data)
    if viewpoint is not None:
        v = list(np.asarray(viewpoint, dtype=np.float64).reshape(-1))
        if len(v) not in (3, 7):
            raise ValueError("viewpoint must be x y z, or x y z and a quaternion w x y z")
        data.has_viewpoint = 1
        data.viewpoint[:] = v + [1.0, 0.0, 0.0, 0.0] if len(v) == 3 else v
    check(_lib().QorvEngineWriteCloud(_path(path), ctypes.byref(data), ENCODINGS[encoding]), "QorvEngineWriteCloud")
