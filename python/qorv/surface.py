# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Normals and filters: compute/recompute normals, voxel, outlier, edge and Gaussian filters."""

from __future__ import annotations

from typing import Optional

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _library
from .instance import Instance, handle_of


def compute_normals(points: ArrayLike, radius: float, *, orient_neighbors: int = 0,
                    instance: Optional[Instance] = None) -> np.ndarray:
    """One unit normal per point from its neighbours strictly inside radius (QorvComputeNormals).

    Returns float32 (n, 3). Normals have z >= 0; points with fewer than two neighbours, NaN
    points and degenerate neighbourhoods get (0, 0, 0). orient_neighbors only sizes scratch.
    """
    pts = _arrays.points(points)
    normals = np.zeros_like(pts)
    code = _library.function("QorvComputeNormals")(
        handle_of(instance), _arrays.address(pts), _arrays.address(normals), pts.shape[0],
        _arrays.int_arg(orient_neighbors, "orient_neighbors"), float(radius))
    _library.check(code, "QorvComputeNormals")
    return normals


def recompute_normals(points: ArrayLike, normals: ArrayLike, radius: float, *,
                      instance: Optional[Instance] = None) -> np.ndarray:
    """Re-estimates normals and turns each to agree with the given one (QorvReComputeNormals).

    Returns a new float32 (n, 3) array; the input normals are not modified. radius must be
    greater than 0 (else QorvInvalidArgumentError).
    """
    pts = _arrays.points(points)
    result = _arrays.optional_points(normals, pts.shape[0], "normals")
    if result is None:
        raise TypeError("normals must be an array, not None")
    result = result.copy()
    code = _library.function("QorvReComputeNormals")(handle_of(instance), _arrays.address(pts),
                                                     _arrays.address(result), pts.shape[0],
                                                     float(radius))
    _library.check(code, "QorvReComputeNormals")
    return result


def _index_filter(name, instance, pts, *args):
    kept = []
    failure = []

    def receive(indices, count, _user):
        try:
            kept.append(_arrays.copy_out(indices, max(count, 0), None, np.int32))
        except BaseException as error:
            failure.append(error)

    callback = _library.IndexCallback(receive)
    code = _library.function(name)(handle_of(instance), _arrays.address(pts), pts.shape[0],
                                   *args, callback, None)
    _library.check(code, name)
    if failure:
        raise failure[0]
    return kept[0] if kept else np.empty(0, dtype=np.int32)


def voxel_filter(points: ArrayLike, leaf_size: float, *, instance: Optional[Instance] = None) -> np.ndarray:
    """Indices (int32, ascending) of the points kept by the voxel filter (QorvVoxelFilter).

    Per occupied voxel of edge leaf_size the point nearest the voxel's centre is kept; the voxel
    with the largest key keeps nothing.
    """
    pts = _arrays.points(points)
    return _index_filter("QorvVoxelFilter", instance, pts, float(leaf_size))


def sor_filter(points: ArrayLike, mean_k: int = 50, std_mul: float = 3.4, *,
               instance: Optional[Instance] = None) -> np.ndarray:
    """Indices kept by statistical outlier removal over mean_k neighbours (QorvSORFilter).

    The library hands over the prefix 0 .. m-1 of positions, m being the number of scores below
    mean + std_mul * deviation.
    """
    pts = _arrays.points(points)
    return _index_filter("QorvSORFilter", instance, pts, _arrays.int_arg(mean_k, "mean_k"),
                         float(std_mul))


def edge_filter(points: ArrayLike, radius: float, *, instance: Optional[Instance] = None) -> np.ndarray:
    """Indices of boundary points: neighbours within radius leave a tangent-plane gap above one
    radian (QorvEdgeFilter). radius must be greater than 0."""
    pts = _arrays.points(points)
    return _index_filter("QorvEdgeFilter", instance, pts, float(radius))


def gaussian_filter(points: ArrayLike, radius: float, *, instance: Optional[Instance] = None) -> np.ndarray:
    """Gaussian-weighted average of the points strictly inside radius around each point
    (QorvGaussianFilter). Returns float32 (n, 3); points finding no neighbour come out NaN."""
    pts = _arrays.points(points)
    smoothed = np.empty_like(pts)
    code = _library.function("QorvGaussianFilter")(handle_of(instance), _arrays.address(pts),
                                                   _arrays.address(smoothed), pts.shape[0],
                                                   float(radius))
    _library.check(code, "QorvGaussianFilter")
    return smoothed
