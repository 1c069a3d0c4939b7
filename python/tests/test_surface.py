# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Normals and filters against brute-force numpy references and known shapes."""

import numpy as np
import pytest

import qorv
from conftest import rotation_about


def grid(nx, ny, h):
    xs, ys = np.meshgrid(np.arange(nx) * h, np.arange(ny) * h, indexing="ij")
    return np.stack([xs.ravel(), ys.ravel(), np.zeros(nx * ny)], axis=1).astype(np.float32)


def test_normals_of_a_tilted_plane(rng, instance):
    xy = rng.uniform(0, 1, size=(400, 2))
    points = np.column_stack([xy, 0.1 * xy[:, 0] - 0.2 * xy[:, 1]]).astype(np.float32)
    normals = qorv.compute_normals(points, 0.15, instance=instance)
    expected = np.array([-0.1, 0.2, 1.0]) / np.linalg.norm([-0.1, 0.2, 1.0])
    np.testing.assert_allclose(normals, np.tile(expected, (400, 1)), atol=1e-3)


def test_recompute_turns_normals_to_the_callers(rng):
    xy = rng.uniform(0, 1, size=(200, 2))
    points = np.column_stack([xy, np.zeros(200)]).astype(np.float32)
    given = np.tile(np.float32([0, 0, -1]), (200, 1))
    given[:50] = [0, 0, 1]
    result = qorv.recompute_normals(points, given, 0.2)
    np.testing.assert_allclose(result[:50], np.tile([0, 0, 1], (50, 1)), atol=1e-6)
    np.testing.assert_allclose(result[50:], np.tile([0, 0, -1], (150, 1)), atol=1e-6)
    assert given[60, 2] == -1  # the caller's array is not modified


def voxel_reference(points, leaf):
    """The voxel filter's selection: nearest point to each voxel centre, largest key dropped."""
    leaf = np.float32(leaf)
    low = points.min(axis=0)
    high = points.max(axis=0)
    nx = np.uint64(int((high[0] - low[0]) / leaf) + 1)
    ny = np.uint64(int((high[1] - low[1]) / leaf) + 1)
    cells = ((points - low) / leaf).astype(np.uint64)
    keys = cells[:, 0] + cells[:, 1] * nx + cells[:, 2] * nx * ny
    centres = (cells.astype(np.float32) + np.float32(0.5)) * leaf
    dist = (((points - low) - centres).astype(np.float64) ** 2).sum(axis=1)
    best = {}
    for index, (key, d) in enumerate(zip(keys.tolist(), dist)):
        if key not in best or d < best[key][0]:
            best[key] = (d, index)
    del best[max(best)]
    return np.sort([index for _, index in best.values()])


@pytest.mark.parametrize("leaf", [0.05, 0.13, 0.4])
def test_voxel_filter_matches_the_reference(rng, leaf):
    points = rng.uniform(-1, 1, size=(2000, 3)).astype(np.float32)
    kept = qorv.voxel_filter(points, leaf_size=leaf)
    assert kept.dtype == np.int32
    np.testing.assert_array_equal(kept, voxel_reference(points, leaf))


def test_sor_filter_keeps_the_prefix_below_the_threshold(rng, instance):
    points = rng.normal(size=(300, 3)).astype(np.float32)
    points[::37] *= 8  # a few far points
    k, std_mul = 8, 1.0
    kept = qorv.sor_filter(points, mean_k=k, std_mul=std_mul, instance=instance)
    # Brute-force scores: mean distance to the k nearest others.
    dist = np.sqrt(((points[:, None, :].astype(np.float64) - points[None]) ** 2).sum(-1))
    scores = np.sort(np.sort(dist, axis=1)[:, 1:k + 1].sum(axis=1) / k)
    lo = len(scores) // 16
    core = scores[lo:len(scores) - lo]
    threshold = core.mean() + std_mul * core.std(ddof=1)
    expected = int((scores < threshold).sum())
    assert abs(len(kept) - expected) <= 1  # float rounding at the threshold
    np.testing.assert_array_equal(kept, np.arange(len(kept)))
    assert len(kept) < len(points)


def test_edge_filter_finds_the_border_of_a_grid(instance):
    # Unequal spacings keep the tangent eigenvalues apart, so that their directions are defined;
    # the tilt keeps the tangent directions off z = 0, where their z = 1 solution has none.
    xs, ys = np.meshgrid(np.arange(12) * 0.1, np.arange(16) * 0.07, indexing="ij")
    flat = np.stack([xs.ravel(), ys.ravel(), np.zeros(xs.size)], axis=1)
    points = (flat @ rotation_about([1, 1, 1], 30).T).astype(np.float32)
    on_border = (xs == 0) | (xs == xs.max()) | (ys == 0) | (ys == ys.max())
    edges = qorv.edge_filter(points, radius=0.25, instance=instance)
    np.testing.assert_array_equal(edges, np.flatnonzero(on_border.ravel()))


def gaussian_reference(points, radius):
    sigma = radius / 3.46087178201605
    d2 = ((points[:, None, :].astype(np.float64) - points[None]) ** 2).sum(-1)
    w = np.where(d2 < radius * radius, np.exp(-d2 / (2 * sigma * sigma)), 0.0)
    return (w @ points.astype(np.float64)) / w.sum(axis=1, keepdims=True)


def test_gaussian_filter_matches_the_reference(rng, instance):
    points = rng.uniform(0, 1, size=(300, 3)).astype(np.float32)
    points[0] = [10, 10, 10]  # isolated: unchanged
    smoothed = qorv.gaussian_filter(points, 0.3, instance=instance)
    np.testing.assert_allclose(smoothed, gaussian_reference(points, 0.3), atol=2e-5)
    np.testing.assert_array_equal(smoothed[0], points[0])

