# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Descriptor matching, RANSAC and iterative key-point matching, the pair pipeline, spacing."""

from __future__ import annotations

import collections
import ctypes
from typing import Optional, Tuple

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _library
from ._text import motion_summary
from .instance import Instance, handle_of


class Registration(collections.namedtuple("Registration", ["transform", "pairs"])):
    """Result of a registration call.

    transform: float64 3 x 4 [R | t] with R @ p + t carrying a point of the second cloud onto the
    first. pairs: uint32 (m, 2) correspondences (index in the second cloud, index in the first), in
    ascending order of the second cloud's index."""

    __slots__ = ()

    def __repr__(self) -> str:
        return f"Registration(pairs={len(self.pairs)}, {motion_summary(self.transform)})"


def match_descriptor(target_descriptors: ArrayLike, query_descriptors: ArrayLike, k: int = 1, *,
                     instance: Optional[Instance] = None) -> Tuple[np.ndarray, np.ndarray]:
    """Nearest target descriptor(s) for each query descriptor (QorvMatchDescriptor).

    k = 1: exhaustive search with the instance's cross check; returns (indices, distances), each
    of shape (queries,), with index -1 for a match rejected by the cross check (its distance is
    still given) and Euclidean distances.
    k > 1: k nearest by tree search, no cross check; shapes (queries, k) and SQUARED distances,
    ascending. Slots beyond the number of targets found are unspecified.
    """
    target = _arrays.descriptors(target_descriptors, "target_descriptors")
    query = _arrays.descriptors(query_descriptors, "query_descriptors")
    k = _arrays.int_arg(k, "k")
    slots = max(k, 1)
    indices = np.full((query.shape[0], slots), -1, dtype=np.int32)
    distances = np.zeros((query.shape[0], slots), dtype=np.float32)
    code = _library.function("QorvMatchDescriptor")(
        handle_of(instance), _arrays.address(target), target.shape[0], _arrays.address(query),
        _arrays.address(indices), _arrays.address(distances), k, query.shape[0])
    _library.check(code, "QorvMatchDescriptor")
    if k == 1:
        return indices.reshape(-1), distances.reshape(-1)
    return indices, distances


class _PairCollector:
    """Owns the match callback of one call and copies the pairs out while they are valid."""

    def __init__(self):
        self.pairs = None
        self.failure = None
        self.callback = _library.MatchCallback(self._receive)

    def _receive(self, pairs, count, _user):
        try:
            self.pairs = _arrays.copy_out(pairs, count, 2, np.uint32)
        except BaseException as error:
            self.failure = error

    def result(self, transform):
        if self.failure is not None:
            raise self.failure
        pairs = self.pairs if self.pairs is not None else np.empty((0, 2), dtype=np.uint32)
        return Registration(transform, pairs)


def _key_point_sets(points1, descriptors1, points2, descriptors2):
    p1 = _arrays.points(points1, "points1")
    d1 = _arrays.descriptors(descriptors1, "descriptors1")
    p2 = _arrays.points(points2, "points2")
    d2 = _arrays.descriptors(descriptors2, "descriptors2")
    if d1.shape[0] != p1.shape[0] or d2.shape[0] != p2.shape[0]:
        raise ValueError("each cloud needs one descriptor per key point")
    return p1, d1, p2, d2


def ransac_match_key_points(points1: ArrayLike, descriptors1: ArrayLike, points2: ArrayLike,
                            descriptors2: ArrayLike, *, normals1: Optional[ArrayLike] = None,
                            normals2: Optional[ArrayLike] = None, iterations: int = 10000,
                            edge_ratio: float = 0.9, inlier_distance: float,
                            instance: Optional[Instance] = None) -> Registration:
    """RANSAC over descriptor correspondences (QorvRansacMatchKeyPoints).

    Every key point of cloud 2 is matched to its nearest descriptor of cloud 1; samples of three
    correspondences whose triangle edges agree within edge_ratio give models; the model with most
    inliers (within inlier_distance, and with agreeing normals when both normal sets are given)
    wins. Seeded from the clock: results vary between runs. Returns Registration.
    """
    p1, d1, p2, d2 = _key_point_sets(points1, descriptors1, points2, descriptors2)
    n1 = _arrays.optional_points(normals1, p1.shape[0], "normals1")
    n2 = _arrays.optional_points(normals2, p2.shape[0], "normals2")
    transform = np.zeros((3, 4), dtype=np.float64)
    collector = _PairCollector()
    code = _library.function("QorvRansacMatchKeyPoints")(
        handle_of(instance), _arrays.address(p1), _arrays.address(n1), _arrays.address(d1),
        p1.shape[0], _arrays.address(p2), _arrays.address(n2), _arrays.address(d2), p2.shape[0],
        _arrays.address(transform), _arrays.int_arg(iterations, "iterations"), float(edge_ratio),
        float(inlier_distance), collector.callback, None)
    _library.check(code, "QorvRansacMatchKeyPoints")
    return collector.result(transform)


def iterative_match_key_points(points1: ArrayLike, descriptors1: ArrayLike, points2: ArrayLike,
                               descriptors2: ArrayLike, *, transform: Optional[ArrayLike] = None,
                               iterations: int = 64, kernel_scale: float, max_distance: float,
                               instance: Optional[Instance] = None) -> Registration:
    """Robust Gauss-Newton refinement over descriptor correspondences
    (QorvIterativeMatchKeyPoints).

    transform: the starting 3 x 4 [R | t] (or 4 x 4) pose, identity when None. kernel_scale is
    the initial robust kernel scale in squared-distance units, halved every 8 steps until it falls
    below max_distance squared; correspondences left at max_distance or farther are dropped.
    Returns Registration.
    """
    p1, d1, p2, d2 = _key_point_sets(points1, descriptors1, points2, descriptors2)
    pose = _start_pose(transform)
    collector = _PairCollector()
    code = _library.function("QorvIterativeMatchKeyPoints")(
        handle_of(instance), _arrays.address(p1), _arrays.address(d1), p1.shape[0],
        _arrays.address(p2), _arrays.address(d2), p2.shape[0], _arrays.address(pose),
        _arrays.int_arg(iterations, "iterations"), float(kernel_scale), float(max_distance),
        collector.callback, None)
    _library.check(code, "QorvIterativeMatchKeyPoints")
    return collector.result(pose)


def match_pair_point_cloud(points1: ArrayLike, points2: ArrayLike, *, normals1: Optional[ArrayLike] = None,
                           normals2: Optional[ArrayLike] = None, resolution: float,
                           kernel_scale: float = 0.0, iterations: int = 10000,
                           transform: Optional[ArrayLike] = None,
                           instance: Optional[Instance] = None) -> Registration:
    """Registers two raw clouds in one call (QorvMatchPairPointCloud).

    Outlier removal, smoothing, voxel filter, normals, key points and descriptors, all scaled by
    resolution, then RANSAC (kernel_scale <= 0) or the iterative matcher (kernel_scale > 0,
    starting from transform, identity when None). The pairs index the key points the pipeline
    detected, not the input points. Returns Registration.
    """
    p1 = _arrays.points(points1, "points1")
    p2 = _arrays.points(points2, "points2")
    n1 = _arrays.optional_points(normals1, p1.shape[0], "normals1")
    n2 = _arrays.optional_points(normals2, p2.shape[0], "normals2")
    pose = _start_pose(transform)
    collector = _PairCollector()
    code = _library.function("QorvMatchPairPointCloud")(
        handle_of(instance), _arrays.address(p1), _arrays.address(n1), p1.shape[0],
        _arrays.address(p2), _arrays.address(n2), p2.shape[0], _arrays.address(pose),
        float(kernel_scale), float(resolution), _arrays.int_arg(iterations, "iterations"),
        collector.callback, None)
    _library.check(code, "QorvMatchPairPointCloud")
    return collector.result(pose)


def check_distance(points: ArrayLike, k: int = 2, *, instance: Optional[Instance] = None) -> float:
    """Typical point spacing: trimmed mean (smallest and largest eighth left out) of each point's
    distance to its k-th nearest neighbour, the point itself counting as the first
    (QorvCheckDistance). k = 2 gives the mean spacing."""
    pts = _arrays.points(points)
    mean = ctypes.c_float()
    code = _library.function("QorvCheckDistance")(handle_of(instance), _arrays.address(pts),
                                                  pts.shape[0], _arrays.int_arg(k, "k"),
                                                  ctypes.addressof(mean))
    _library.check(code, "QorvCheckDistance")
    return float(mean.value)


def _start_pose(transform):
    if transform is None:
        return np.eye(3, 4, dtype=np.float64)
    return _arrays.rigid_3x4(transform).copy()
