# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""ASC point files and rigid geometry: read/write, rotate, transform, absolute orientation."""

from __future__ import annotations

import os
from typing import Optional, Tuple, Union

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _library
from .instance import Instance, handle_of


def version() -> str:
    """The library's version text (QorvVersion), the same as __version__ of an installed package."""
    return _library.function("QorvVersion")().decode()


def read_points_from_asc(path: Union[str, os.PathLike], *, instance: Optional[Instance] = None
                         ) -> Tuple[np.ndarray, Optional[np.ndarray], Optional[np.ndarray]]:
    """Reads an ASC text file of 3, 6 or 9 numbers a point (QorvReadPointsFromASC).

    Returns (points, normals, colours): float32 (n, 3), float32 (n, 3) or None when the file has
    3 columns, uint8 (n, 3) or None unless the file has 9 columns.
    Raises QorvFileError (code 1) when the file is missing, unreadable or holds no point.
    """
    result = {}
    failure = []

    def receive(points, normals, colours, count, _user):
        try:
            result["points"] = _arrays.copy_out(points, count, 3, np.float32)
            result["normals"] = (_arrays.copy_out(normals, count, 3, np.float32)
                                 if normals else None)
            result["colours"] = (_arrays.copy_out(colours, count, 3, np.uint8)
                                 if colours else None)
        except BaseException as error:  # re-raised after the call: ctypes would swallow it
            failure.append(error)
        return 0

    callback = _library.AscCallback(receive)  # kept alive by this frame until the call returns
    code = _library.function("QorvReadPointsFromASC")(handle_of(instance), os.fsencode(path),
                                                      callback, None)
    _library.check(code, "QorvReadPointsFromASC")
    if failure:
        raise failure[0]
    return result["points"], result["normals"], result["colours"]


def write_points_to_asc(path: Union[str, os.PathLike], points: ArrayLike, normals: Optional[ArrayLike] = None,
                        colours: Optional[ArrayLike] = None, *, instance: Optional[Instance] = None) -> None:
    """Writes points (and normals, and colours) as an ASC text file (QorvWritePointsToASC).

    Lines are "%f %f %f", with normals six numbers, with normals and colours nine. Colours
    without normals are ignored by the library. Raises QorvFileError when the file cannot be
    written, QorvInvalidArgumentError for an empty cloud.
    """
    pts = _arrays.points(points)
    nrm = _arrays.optional_points(normals, pts.shape[0], "normals")
    col = None
    if colours is not None:
        col = _arrays.rows(colours, 3, np.uint8, "colours")
        if col.shape[0] != pts.shape[0]:
            raise ValueError(f"colours has {col.shape[0]} rows, expected {pts.shape[0]}")
    code = _library.function("QorvWritePointsToASC")(
        handle_of(instance), os.fsencode(path), _arrays.address(pts), _arrays.address(nrm),
        _arrays.address(col), pts.shape[0])
    _library.check(code, "QorvWritePointsToASC")


def rotate_points(points: ArrayLike, rotation: ArrayLike, *, out: Optional[np.ndarray] = None,
                  instance: Optional[Instance] = None) -> np.ndarray:
    """Returns rotation @ p for every point (QorvRotatePoints); rotation is 3 x 3.

    The matrix is converted to float32 inside the library. With ``out=points`` (a C-contiguous
    float32 (n, 3) array) the rotation is applied in place; ``out`` is returned.
    """
    pts = _arrays.points(points)
    rot = np.ascontiguousarray(_arrays.matrix(rotation, "rotation", [(3, 3), (9,)]).reshape(9))
    target = _output_like(pts, out)
    code = _library.function("QorvRotatePoints")(handle_of(instance), _arrays.address(rot),
                                                 _arrays.address(pts), _arrays.address(target),
                                                 pts.shape[0])
    _library.check(code, "QorvRotatePoints")
    return target


def transform_points(points: ArrayLike, transform: ArrayLike, *, out: Optional[np.ndarray] = None,
                     instance: Optional[Instance] = None) -> np.ndarray:
    """Returns R @ p + t for every point (QorvTransformPoints).

    ``transform`` is a 3 x 4 [R | t] matrix, as the registration functions return it, or a 4 x 4
    homogeneous matrix; it is reordered into the export's own layout (nine rotation values, then
    tx, ty, tz). ``out=points`` transforms in place.
    """
    pts = _arrays.points(points)
    rigid = _arrays.rigid_3x4(transform)
    packed = np.concatenate([rigid[:, :3].reshape(9), rigid[:, 3]])
    target = _output_like(pts, out)
    code = _library.function("QorvTransformPoints")(handle_of(instance), _arrays.address(packed),
                                                    _arrays.address(pts),
                                                    _arrays.address(target), pts.shape[0])
    _library.check(code, "QorvTransformPoints")
    return target


def absolute_orientation(points_a: ArrayLike, points_b: ArrayLike, *,
                         instance: Optional[Instance] = None) -> np.ndarray:
    """Least-squares rigid motion carrying points_b onto points_a, pair i being (a_i, b_i).

    Returns the 3 x 4 float64 matrix [R | t] with a_i ~ R @ b_i + t (QorvAbsoluteOrientation).
    """
    a = _arrays.points(points_a, "points_a")
    b = _arrays.points(points_b, "points_b")
    if a.shape != b.shape:
        raise ValueError(f"points_a and points_b differ in length: {a.shape[0]} and {b.shape[0]}")
    out = np.zeros((3, 4), dtype=np.float64)
    code = _library.function("QorvAbsoluteOrientation")(handle_of(instance), _arrays.address(a),
                                                        _arrays.address(b), a.shape[0],
                                                        _arrays.address(out))
    _library.check(code, "QorvAbsoluteOrientation")
    return out


def _output_like(points, out):
    if out is None:
        return np.empty_like(points)
    if (not isinstance(out, np.ndarray) or out.dtype != np.float32 or out.shape != points.shape
            or not out.flags.c_contiguous or not out.flags.writeable):
        raise ValueError("out must be a writeable C-contiguous float32 array shaped like points")
    return out
