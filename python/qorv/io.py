# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Cloud files through libqorv_engine: PLY, PCD, LAS, column text, OBJ/STL vertices, depth images."""

from __future__ import annotations

import ctypes
import dataclasses
import logging
import os
from typing import Optional, Sequence, Union

import numpy as np
from numpy.typing import ArrayLike

from ._arrays import CloudLike, cloud_points, colour_bytes
from ._engine_library import check, load

_log = logging.getLogger("qorv")

ENCODINGS = {"default": 0, "ascii": 1, "binary": 2, "compressed": 3}


class _CloudData(ctypes.Structure):
    _fields_ = [("points", ctypes.c_void_p), ("normals", ctypes.c_void_p), ("colours", ctypes.c_void_p),
                ("intensity", ctypes.c_void_p), ("count", ctypes.c_int64), ("width", ctypes.c_int32),
                ("height", ctypes.c_int32), ("has_viewpoint", ctypes.c_int32), ("viewpoint", ctypes.c_double * 7),
                ("non_finite", ctypes.c_int64), ("file_width", ctypes.c_int32), ("file_height", ctypes.c_int32),
                ("format", ctypes.c_char * 32), ("fields", ctypes.c_char * 256),
                ("classification", ctypes.c_void_p), ("gps_time", ctypes.c_void_p),
                ("origin", ctypes.c_double * 3), ("has_las_quantum", ctypes.c_int32),
                ("las_scale", ctypes.c_double * 3), ("las_offset", ctypes.c_double * 3)]


class _DepthCamera(ctypes.Structure):
    _fields_ = [("fx", ctypes.c_double), ("fy", ctypes.c_double), ("cx", ctypes.c_double),
                ("cy", ctypes.c_double), ("depth_scale", ctypes.c_double)]


class _ReadOptions(ctypes.Structure):
    _fields_ = [("struct_size", ctypes.c_uint32), ("keep_organized", ctypes.c_int32),
                ("camera", _DepthCamera), ("columns", ctypes.c_char_p)]


def _lib():
    lib = load()
    if not getattr(lib, "_qorv_io_typed", False):
        lib.QorvEngineDefaultReadOptionsOfSize.restype = None
        lib.QorvEngineDefaultReadOptionsOfSize.argtypes = [ctypes.POINTER(_ReadOptions), ctypes.c_uint32]
        lib.QorvEngineReadCloudWith.restype = ctypes.c_int32
        lib.QorvEngineReadCloudWith.argtypes = [ctypes.c_char_p, ctypes.POINTER(_ReadOptions),
                                                ctypes.POINTER(ctypes.POINTER(_CloudData))]
        lib.QorvEngineFreeCloud.restype = None
        lib.QorvEngineFreeCloud.argtypes = [ctypes.POINTER(_CloudData)]
        lib.QorvEngineWriteCloudData.restype = ctypes.c_int32
        lib.QorvEngineWriteCloudData.argtypes = [ctypes.c_char_p, ctypes.POINTER(_CloudData), ctypes.c_uint32,
                                                 ctypes.c_int32]
        lib.QorvEngineLastWarning.restype = ctypes.c_char_p
        lib.QorvEngineLastWarning.argtypes = []
        lib._qorv_io_typed = True
    return lib


def _summary(array):
    return "None" if array is None else f"{array.dtype}{list(array.shape)}"


@dataclasses.dataclass(repr=False)
class CloudFile:
    """A cloud read from a file.

    points is (n, 3), or (height, width, 3) for an organized cloud read with organized=True (NaN
    where there is no point): float32, or float64 when the file's coordinates are survey-scale
    (origin then says where float32 would have lost precision; the points are the true positions).
    normals, colours (uint8), intensity, classification (uint8) and gps_time have the same leading
    shape, or are None. viewpoint is the sensor origin and orientation (x y z, quaternion w x y z)
    when the file gives one; camera the depth camera a depth image was read with."""

    points: np.ndarray
    normals: object
    colours: object
    intensity: object
    viewpoint: object
    format: str
    fields: list
    non_finite: int
    classification: object = None
    gps_time: object = None
    origin: object = None
    las_scale: object = None
    las_offset: object = None
    camera: object = None

    def __repr__(self):
        extras = ", ".join(f"{name}={_summary(getattr(self, name))}"
                           for name in ("normals", "colours", "intensity", "classification", "gps_time")
                           if getattr(self, name) is not None)
        return (f"CloudFile(format={self.format!r}, points={_summary(self.points)}"
                + (f", {extras}" if extras else "")
                + (f", viewpoint={list(np.round(self.viewpoint[:3], 6))}" if self.viewpoint is not None else "")
                + f", non_finite={self.non_finite})")


def _copy(address, count, columns, dtype, shape):
    if not address:
        return None
    size = count * columns * np.dtype(dtype).itemsize
    array = np.frombuffer(ctypes.string_at(address, size), dtype=dtype).copy()
    return array.reshape(shape + ((columns,) if columns > 1 else ()))


def _path(path):
    return str(path).encode()


def read_cloud(path: Union[str, os.PathLike], organized: bool = False, *, fx: Optional[float] = None,
               fy: Optional[float] = None, cx: Optional[float] = None, cy: Optional[float] = None,
               depth_scale: Optional[float] = None, columns: Union[str, Sequence[str], None] = None) -> CloudFile:
    """Reads PLY, PCD, LAS, column text (.asc .xyz .xyzn .xyzrgb .pts .txt .csv), OBJ and STL
    vertices, or a depth image (16-bit PNG or TIFF; the camera defaults to fx = fy = 525, cx = 319.5,
    cy = 239.5, depth_scale = 1000 units a metre, and is reported in the result's camera). Without
    organized only the finite points are returned. columns names column text's columns in order
    ("x y z skip intensity"). Raises QorvEngineFileError / QorvEngineFormatError with the reason."""
    lib = _lib()
    options = _ReadOptions()
    lib.QorvEngineDefaultReadOptionsOfSize(ctypes.byref(options), ctypes.sizeof(_ReadOptions))
    options.keep_organized = 1 if organized else 0
    for name, value in (("fx", fx), ("fy", fy), ("cx", cx), ("cy", cy), ("depth_scale", depth_scale)):
        if value is not None:
            setattr(options.camera, name, float(value))
    if columns is not None:
        options.columns = (" ".join(columns) if isinstance(columns, (list, tuple)) else str(columns)).encode()
    data = ctypes.POINTER(_CloudData)()
    check(lib.QorvEngineReadCloudWith(_path(path), ctypes.byref(options), ctypes.byref(data)),
          "QorvEngineReadCloudWith")
    try:
        d = data.contents
        n = int(d.count)
        shape = (d.height, d.width) if organized and d.height > 1 else (n,)
        points = _copy(d.points, n, 3, np.float32, shape)
        origin = np.array(d.origin[:])
        if origin.any():
            points = points.astype(np.float64) + origin
        fmt = d.format.decode()
        depth = fmt.startswith("depth")
        return CloudFile(points=points,
                         normals=_copy(d.normals, n, 3, np.float32, shape),
                         colours=_copy(d.colours, n, 3, np.uint8, shape),
                         intensity=_copy(d.intensity, n, 1, np.float32, shape),
                         viewpoint=np.array(d.viewpoint[:]) if d.has_viewpoint else None,
                         format=fmt, fields=d.fields.decode().split(),
                         non_finite=int(d.non_finite),
                         classification=_copy(d.classification, n, 1, np.uint8, shape),
                         gps_time=_copy(d.gps_time, n, 1, np.float64, shape),
                         origin=origin if origin.any() else None,
                         las_scale=np.array(d.las_scale[:]) if d.has_las_quantum else None,
                         las_offset=np.array(d.las_offset[:]) if d.has_las_quantum else None,
                         camera=dict(fx=options.camera.fx, fy=options.camera.fy, cx=options.camera.cx,
                                     cy=options.camera.cy, depth_scale=options.camera.depth_scale)
                         if depth else None)
    finally:
        lib.QorvEngineFreeCloud(data)


def read_depth(path: Union[str, os.PathLike], organized: bool = False, *, fx: Optional[float] = None,
               fy: Optional[float] = None, cx: Optional[float] = None, cy: Optional[float] = None,
               depth_scale: Optional[float] = None) -> CloudFile:
    """A depth image as a cloud in the camera's frame: read_cloud with the camera given."""
    return read_cloud(path, organized, fx=fx, fy=fy, cx=cx, cy=cy, depth_scale=depth_scale)


def _origin_of(points):
    """Where float32 would lose precision: the centre rounded to a metre on the axes reaching past
    1024, else 0 (as the readers choose it)."""
    finite = points.reshape(-1, 3)
    finite = finite[np.isfinite(finite).all(axis=1)]
    if finite.size == 0:
        return np.zeros(3)
    low, high = finite.min(axis=0), finite.max(axis=0)
    large = np.maximum(np.abs(low), np.abs(high)) >= 1024.0
    return np.where(large, np.round(0.5 * (low + high)), 0.0)


def write_cloud(path: Union[str, os.PathLike], points: CloudLike, normals: Optional[ArrayLike] = None,
                colours: Optional[ArrayLike] = None, intensity: Optional[ArrayLike] = None, encoding: str = "default",
                viewpoint: Optional[ArrayLike] = None, *, classification: Optional[ArrayLike] = None,
                gps_time: Optional[ArrayLike] = None) -> None:
    """Writes by the extension: .ply (binary, or ascii), .pcd (binary, ascii or compressed), .las,
    .asc or .xyz; any other extension is an error. points may be (n, 3) or organized (h, w, 3) (kept
    as such in PCD), float64 for survey-scale coordinates (kept in float relative to an origin near them, as the
    readers keep them, and written in double: 0.1 mm or better), or an object with a
    points attribute (an Open3D PointCloud, whose normals and colors are taken when not given).
    colours: uint8 0-255 or float 0-1. A field the format cannot hold is named in a logged warning."""
    if encoding not in ENCODINGS:
        raise ValueError(f"encoding must be one of {sorted(ENCODINGS)}, got {encoding!r}")
    source = points
    array = cloud_points(points, "points")
    if not isinstance(source, np.ndarray) and hasattr(source, "points"):
        if normals is None and getattr(source, "has_normals", lambda: False)():
            normals = np.asarray(source.normals)
        if colours is None and getattr(source, "has_colors", lambda: False)():
            colours = np.asarray(source.colors)
    data = _CloudData()
    if array.dtype == np.float64:
        origin = _origin_of(array)
        data.origin[:] = list(origin)
        array = np.ascontiguousarray(array - origin, dtype=np.float32)
    keep = [array]
    data.points = array.ctypes.data
    data.count = array.size // 3
    if array.ndim == 3:
        data.height, data.width = array.shape[0], array.shape[1]
    if colours is not None:
        colours = colour_bytes(colours, data.count)
    for name, value, dtype, columns in (("normals", normals, np.float32, 3), ("colours", colours, np.uint8, 3),
                                        ("intensity", intensity, np.float32, 1),
                                        ("classification", classification, np.uint8, 1),
                                        ("gps_time", gps_time, np.float64, 1)):
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
    lib = _lib()
    check(lib.QorvEngineWriteCloudData(_path(path), ctypes.byref(data), ctypes.sizeof(_CloudData),
                                       ENCODINGS[encoding]), "QorvEngineWriteCloudData")
    warning = lib.QorvEngineLastWarning()
    if warning:
        _log.warning("%s", warning.decode("utf-8", "replace"))
