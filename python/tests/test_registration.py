# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Descriptor matching, RANSAC, iterative matching, the pair pipeline and the distance check."""

import numpy as np
import pytest

import qorv
from conftest import apply, random_rotation, rigid, rotation_about


def brute_force_matches(target, query, cross_check):
    d = np.sqrt(((query[:, None, :].astype(np.float64) - target[None]) ** 2).sum(-1))
    best = d.argmin(axis=1)
    best_distance = d[np.arange(len(query)), best]
    if cross_check:
        for q, t in enumerate(best):
            others = np.delete(d[:, t], q)
            if (others < best_distance[q]).any():
                best[q] = -1
    return best, best_distance


@pytest.mark.parametrize("cross_check", [False, True])
def test_match_descriptor_k1_against_brute_force(rng, cross_check):
    target = rng.uniform(0, 10, size=(40, 33)).astype(np.float32)
    query = rng.uniform(0, 10, size=(30, 33)).astype(np.float32)
    for multi_thread in (False, True):
        with qorv.Instance(cross_check=cross_check, multi_thread=multi_thread) as inst:
            indices, distances = qorv.match_descriptor(target, query, instance=inst)
        expected, expected_distance = brute_force_matches(target, query, cross_check)
        np.testing.assert_array_equal(indices, expected)
        np.testing.assert_allclose(distances, expected_distance, rtol=1e-5)
    assert (indices == -1).any() == cross_check


def test_match_descriptor_k3_gives_squared_distances(rng, instance):
    target = rng.uniform(0, 10, size=(60, 33)).astype(np.float32)
    query = rng.uniform(0, 10, size=(20, 33)).astype(np.float32)
    indices, distances = qorv.match_descriptor(target, query, k=3, instance=instance)
    d2 = ((query[:, None, :].astype(np.float64) - target[None]) ** 2).sum(-1)
    expected = np.argsort(d2, axis=1)[:, :3]
    np.testing.assert_array_equal(indices, expected)
    np.testing.assert_allclose(distances, np.take_along_axis(d2, expected, 1), rtol=1e-5)


def key_point_pair(rng, count=60, outliers=0):
    """Cloud 1 and a shuffled, moved copy as cloud 2 (plus outliers); truth carries 2 onto 1."""
    p1 = rng.uniform(-1, 1, size=(count, 3)).astype(np.float32)
    d1 = rng.uniform(0, 10, size=(count, 33)).astype(np.float32)
    n1 = rng.normal(size=(count, 3))
    n1 = (n1 / np.linalg.norm(n1, axis=1, keepdims=True)).astype(np.float32)
    truth = rigid(random_rotation(rng), [0.5, -0.25, 1.0])
    inverse = np.linalg.inv(qorv.to_homogeneous(truth))[:3]
    order = rng.permutation(count)
    p2 = apply(inverse, p1[order]).astype(np.float32)
    n2 = (n1[order] @ inverse[:, :3].T).astype(np.float32)
    d2 = d1[order]
    if outliers:
        p2 = np.vstack([p2, rng.uniform(-1, 1, size=(outliers, 3))]).astype(np.float32)
        n2 = np.vstack([n2, np.tile([0, 0, 1], (outliers, 1))]).astype(np.float32)
        d2 = np.vstack([d2, rng.uniform(0, 10, size=(outliers, 33))]).astype(np.float32)
    return (p1, n1, d1), (p2, n2, d2), truth, order


def assert_pairs_consistent(pairs, p1, p2, transform, distance):
    assert pairs.dtype == np.uint32 and pairs.shape[1] == 2
    assert np.all(np.diff(pairs[:, 0].astype(np.int64)) > 0)  # ascending second-cloud index
    residual = np.linalg.norm(apply(transform, p2[pairs[:, 0]]) - p1[pairs[:, 1]], axis=1)
    assert np.all(residual < distance)


@pytest.mark.parametrize("with_normals", [False, True])
def test_ransac_recovers_the_motion(rng, instance, with_normals):
    (p1, n1, d1), (p2, n2, d2), truth, order = key_point_pair(rng, outliers=15)
    normals = dict(normals1=n1, normals2=n2) if with_normals else {}
    result = qorv.ransac_match_key_points(p1, d1, p2, d2, iterations=2000, edge_ratio=0.9,
                                          inlier_distance=0.01, instance=instance, **normals)
    np.testing.assert_allclose(result.transform, truth, atol=1e-4)
    assert_pairs_consistent(result.pairs, p1, p2, result.transform, 0.01)
    true_pairs = {(j, int(i)) for j, i in enumerate(order)}
    assert true_pairs == {tuple(p) for p in result.pairs.tolist()}


def test_iterative_refines_from_a_nearby_pose(rng, instance):
    (p1, _, d1), (p2, _, d2), truth, order = key_point_pair(rng)
    start = truth.copy()
    start[:, :3] = rotation_about([0, 1, 1], 8) @ truth[:, :3]
    start[:, 3] += 0.05
    result = qorv.iterative_match_key_points(p1, d1, p2, d2, transform=start, iterations=120,
                                             kernel_scale=1.0, max_distance=0.01,
                                             instance=instance)
    np.testing.assert_allclose(result.transform, truth, atol=1e-4)
    assert len(result.pairs) == len(order)
    assert_pairs_consistent(result.pairs, p1, p2, result.transform, 0.01)
    np.testing.assert_array_equal(start[:, 3], truth[:, 3] + 0.05)  # the caller's pose is kept


def test_iterative_with_a_small_kernel_only_filters(rng):
    (p1, _, d1), (p2, _, d2), truth, _ = key_point_pair(rng)
    start = truth.copy()
    start[0, 3] += 0.02  # moves every correspondence by 0.02
    result = qorv.iterative_match_key_points(p1, d1, p2, d2, transform=start, iterations=50,
                                             kernel_scale=1e-6, max_distance=0.01)
    np.testing.assert_allclose(result.transform, start.astype(np.float32), rtol=0, atol=0)
    assert len(result.pairs) == 0  # all 0.02 apart: dropped at the bound 0.01


def test_pair_pipeline_without_steps_keeps_the_pose(bunny):
    start = rigid(rotation_about([0, 0, 1], 3), [0.01, 0.02, 0.03])
    result = qorv.match_pair_point_cloud(bunny, bunny, resolution=0.3, kernel_scale=1e-9,
                                         iterations=10, transform=start)
    np.testing.assert_allclose(result.transform, start.astype(np.float32), atol=0)
    assert result.pairs.shape[1] == 2


def test_check_distance_of_a_grid(instance):
    xs, ys = np.meshgrid(np.arange(20), np.arange(15))
    points = np.column_stack([xs.ravel() * 0.25, ys.ravel() * 0.25, np.zeros(300)])
    assert qorv.check_distance(points, k=2, instance=instance) == pytest.approx(0.25, rel=1e-6)
    assert qorv.check_distance(points, k=1, instance=instance) == 0.0
