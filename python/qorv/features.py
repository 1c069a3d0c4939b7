# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Key points and descriptors, on unorganized clouds and on vertex/normal maps."""

from __future__ import annotations

import collections
from typing import Optional

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _library
from ._text import array_summary
from .instance import Instance, handle_of

class KeyPoints(collections.namedtuple("KeyPoints", ["positions", "normals", "descriptors"])):
    """Key points: positions (n, 3), normals (n, 3) and descriptors (n, 33), float32.

    Each descriptor is three 11-bin blocks (angle, spread, direction), each summing to 100 or 0."""

    __slots__ = ()

    def __repr__(self) -> str:
        return (f"KeyPoints({len(self.positions)} key points, positions={array_summary(self.positions)}, "
                f"normals={array_summary(self.normals)}, descriptors={array_summary(self.descriptors)})")


class Maps(collections.namedtuple("Maps", ["vertex_map", "normal_map", "mask"])):
    """Organized cloud: vertex_map (h, w, 3), normal_map (h, w, 3) or None, mask (h, w)
    uint8 (255 valid) or None."""

    __slots__ = ()

    def __repr__(self) -> str:
        valid = "" if self.mask is None else f", valid={int(np.count_nonzero(self.mask))}"
        return (f"Maps(vertex_map={array_summary(self.vertex_map)}, normal_map={array_summary(self.normal_map)}, "
                f"mask={array_summary(self.mask)}{valid})")


def _key_point_call(name, args):
    received = []
    failure = []

    def receive(result_pointer, _user):
        try:
            result = result_pointer.contents
            count = max(int(result.count), 0)
            received.append(KeyPoints(
                _arrays.copy_out(result.positions, count, 3, np.float32),
                _arrays.copy_out(result.normals, count, 3, np.float32),
                _arrays.copy_out(result.descriptors, count, 33, np.float32)))
        except BaseException as error:
            failure.append(error)

    callback = _library.KeyPointCallback(receive)
    code = _library.function(name)(*args, callback, None)
    _library.check(code, name)
    if failure:
        raise failure[0]
    if not received:
        empty = np.empty((0, 3), dtype=np.float32)
        return KeyPoints(empty, empty.copy(), np.empty((0, 33), dtype=np.float32))
    return received[0]


def detect_and_compute(points: ArrayLike, normals: ArrayLike, key_point_radius: float, *,
                       non_max_radius: float = 0.0, feature_radius: float, histogram_radius: float,
                       ratio21: float, ratio32: float, max_key_points: int = 0,
                       instance: Optional[Instance] = None) -> KeyPoints:
    """Eigenvalue-ratio key points with 33-float histogram descriptors (QorvDetectAndCompute).

    A point is a key point with at least 9 neighbours within key_point_radius and eigenvalue
    ratios lambda2/lambda1 < ratio21 and lambda3/lambda2 < ratio32. non_max_radius > 0 enables
    non-maximum suppression; max_key_points >= 1 keeps that many, best first. Returns KeyPoints.
    """
    pts = _arrays.points(points)
    nrm = _arrays.optional_points(normals, pts.shape[0], "normals")
    if nrm is None:
        raise TypeError("normals must be an array, not None")
    args = (handle_of(instance), _arrays.address(pts), _arrays.address(nrm), pts.shape[0],
            float(key_point_radius), float(non_max_radius), float(feature_radius),
            float(histogram_radius), float(ratio21), float(ratio32),
            _arrays.int_arg(max_key_points, "max_key_points"))
    return _key_point_call("QorvDetectAndCompute", args)


def depth_to_vmap_nmap(camera_matrix: ArrayLike, depth: ArrayLike, *, normals: bool = True, mask: bool = True,
                       instance: Optional[Instance] = None) -> Maps:
    """Vertex map, normal map and validity mask of a depth image (QorvDepthToVmapNmap).

    camera_matrix: 3 x 3 pinhole matrix (fx, fy, cx, cy are read); depth: (height, width) array.
    normals / mask: False skips that output (it is then None in the result). Returns Maps.
    """
    cam = np.ascontiguousarray(_arrays.matrix(camera_matrix, "camera_matrix", [(3, 3), (9,)]))
    dep = np.ascontiguousarray(depth, dtype=np.float32)
    if dep.ndim != 2:
        raise ValueError(f"depth must be a 2-D image, got shape {dep.shape}")
    height, width = dep.shape
    vertex_map = np.zeros((height, width, 3), dtype=np.float32)
    normal_map = np.zeros((height, width, 3), dtype=np.float32) if normals else None
    mask_image = np.zeros((height, width), dtype=np.uint8) if mask else None
    code = _library.function("QorvDepthToVmapNmap")(
        handle_of(instance), _arrays.address(cam), _arrays.address(dep),
        _arrays.address(vertex_map), _arrays.address(normal_map), _arrays.address(mask_image),
        width, height)
    _library.check(code, "QorvDepthToVmapNmap")
    return Maps(vertex_map, normal_map, mask_image)


def detect_and_compute_vmap_nmap(vertex_map: ArrayLike, normal_map: ArrayLike, mask: Optional[ArrayLike] = None, *,
                                 score_window: int, suppression_window: int, descriptor_half_window: int,
                                 histogram_window: int, ratio21: float, ratio32: float, max_key_points: int = 0,
                                 instance: Optional[Instance] = None) -> KeyPoints:
    """Key pixels and descriptors on vertex and normal maps (QorvDetectAndComputeVmapNmap).

    vertex_map and normal_map: (height, width, 3); mask: (height, width), non-zero valid, or None
    to derive it from the maps. Windows are in pixels. Key points come back in pixel order.
    """
    vmap = np.ascontiguousarray(vertex_map, dtype=np.float32)
    nmap = np.ascontiguousarray(normal_map, dtype=np.float32)
    if vmap.ndim != 3 or vmap.shape[2] != 3:
        raise ValueError(f"vertex_map must have shape (height, width, 3), got {vmap.shape}")
    if nmap.shape != vmap.shape:
        raise ValueError(f"normal_map has shape {nmap.shape}, expected {vmap.shape}")
    height, width = vmap.shape[:2]
    msk = None
    if mask is not None:
        msk = np.ascontiguousarray(mask, dtype=np.uint8)
        if msk.shape != (height, width):
            raise ValueError(f"mask has shape {msk.shape}, expected {(height, width)}")
    windows = [_arrays.int_arg(value, label) for value, label in (
        (score_window, "score_window"), (suppression_window, "suppression_window"),
        (descriptor_half_window, "descriptor_half_window"),
        (histogram_window, "histogram_window"))]
    args = (handle_of(instance), _arrays.address(vmap), _arrays.address(nmap),
            _arrays.address(msk), width, height, *windows, float(ratio21), float(ratio32),
            _arrays.int_arg(max_key_points, "max_key_points"))
    return _key_point_call("QorvDetectAndComputeVmapNmap", args)
