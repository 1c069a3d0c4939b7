# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Key points and descriptors (unorganized and organized) and depth maps."""

import numpy as np
import pytest

import qorv
from conftest import apply, random_rotation, rigid


def spacing(points):
    d = np.sqrt(((points[:, None, :].astype(np.float64) - points[None]) ** 2).sum(-1))
    np.fill_diagonal(d, np.inf)
    return float(d.min(axis=1).mean())


def assert_blocks_sum_to_100_or_0(descriptors):
    sums = descriptors.reshape(-1, 3, 11).sum(axis=2)
    assert np.all((np.abs(sums - 100) < 1e-3) | (sums == 0))


def bunny_key_points(bunny, instance=None, **overrides):
    s = spacing(bunny)
    normals = qorv.compute_normals(bunny, 3 * s, instance=instance)
    params = dict(non_max_radius=0.0, feature_radius=5 * s, histogram_radius=2.5 * s,
                  ratio21=0.95, ratio32=0.95)
    params.update(overrides)
    return normals, qorv.detect_and_compute(bunny, normals, 3 * s, instance=instance, **params)


def test_key_points_are_input_points_with_their_normals(bunny):
    normals, found = bunny_key_points(bunny)
    assert isinstance(found, qorv.KeyPoints) and len(found.positions) > 0
    assert found.descriptors.shape == (len(found.positions), 33)
    rows = {tuple(p): i for i, p in enumerate(bunny.tolist())}
    indices = [rows[tuple(p)] for p in found.positions.tolist()]
    assert indices == sorted(indices)  # no ranking: ascending point order
    np.testing.assert_array_equal(found.normals, normals[indices])
    assert_blocks_sum_to_100_or_0(found.descriptors)


def test_cap_keeps_the_best_of_the_ranking(bunny):
    _, ranked = bunny_key_points(bunny, max_key_points=100000)
    _, capped = bunny_key_points(bunny, max_key_points=5)
    _, unranked = bunny_key_points(bunny)
    assert len(ranked.positions) == len(unranked.positions) > 5
    np.testing.assert_array_equal(capped.positions, ranked.positions[:5])
    np.testing.assert_array_equal(capped.descriptors, ranked.descriptors[:5])


def test_descriptors_do_not_change_under_a_rigid_motion(bunny, rng):
    s = spacing(bunny)
    truth = rigid(random_rotation(rng), [3.0, -1.0, 2.0])
    normals = qorv.compute_normals(bunny, 3 * s)
    params = dict(feature_radius=5 * s, histogram_radius=2.5 * s, ratio21=0.95, ratio32=0.95)
    before = qorv.detect_and_compute(bunny, normals, 3 * s, **params)
    # The normals move with the cloud (estimated ones would be re-oriented towards +z).
    moved = apply(truth, bunny).astype(np.float32)
    turned = (normals @ truth[:, :3].T).astype(np.float32)
    after = qorv.detect_and_compute(moved, turned, 3 * s, **params)
    np.testing.assert_allclose(apply(truth, before.positions), after.positions, atol=1e-4)
    np.testing.assert_allclose(after.descriptors, before.descriptors, atol=0.05)


def test_sparse_cloud_has_no_key_points(rng):
    points = rng.uniform(0, 100, size=(50, 3)).astype(np.float32)
    found = qorv.detect_and_compute(points, np.tile([0, 0, 1], (50, 1)), 1.0, feature_radius=1,
                                    histogram_radius=1, ratio21=1, ratio32=1)
    assert found.positions.shape == (0, 3) and found.descriptors.shape == (0, 33)


CAMERA = np.array([[100.0, 0, 3.5], [0, 120.0, 2.5], [0, 0, 1]])


def test_depth_of_a_plane_facing_the_camera():
    depth = np.full((6, 8), 2.0, np.float32)
    depth[3, 4] = 0.0
    vmap, nmap, mask = qorv.depth_to_vmap_nmap(CAMERA, depth)
    rows, cols = np.mgrid[0:6, 0:8].astype(np.float32)
    expected = np.stack([depth * ((cols - np.float32(3.5)) / np.float32(100)),
                         depth * ((rows - np.float32(2.5)) / np.float32(120)), depth], axis=-1)
    np.testing.assert_allclose(vmap, expected, rtol=1e-6)
    assert mask[3, 4] == 0 and (mask == 255).sum() == 47
    np.testing.assert_array_equal(nmap[3, 4], [0, 0, 0])
    valid = mask == 255
    np.testing.assert_allclose(nmap[valid], np.tile([0, 0, -1], (47, 1)), atol=1e-6)


def test_depth_of_zeros_and_optional_outputs():
    vmap, nmap, mask = qorv.depth_to_vmap_nmap(CAMERA, np.zeros((4, 5)))
    assert not vmap.any() and not nmap.any() and not mask.any()
    depth = np.zeros((4, 5), np.float32)
    depth[1, 1] = -1.0  # a negative depth gives a vertex, valid in the mask
    vmap, nmap, mask = qorv.depth_to_vmap_nmap(CAMERA, depth, normals=False)
    assert nmap is None and mask[1, 1] == 255 and mask.sum() == 255
    assert qorv.depth_to_vmap_nmap(CAMERA, depth, mask=False).mask is None


def bumpy_maps():
    rows, cols = np.mgrid[0:40, 0:48].astype(np.float32)
    depth = 2.0 + 0.15 * np.sin(cols / 4.0) * np.cos(rows / 5.0)
    return qorv.depth_to_vmap_nmap([[60, 0, 24], [0, 60, 20], [0, 0, 1]], depth)


WINDOWS = dict(score_window=5, suppression_window=5, descriptor_half_window=2,
               histogram_window=5, ratio21=1.0, ratio32=1.0)


def test_key_pixels_come_in_pixel_order_from_the_maps():
    vmap, nmap, mask = bumpy_maps()
    found = qorv.detect_and_compute_vmap_nmap(vmap, nmap, mask, **WINDOWS)
    assert len(found.positions) > 0
    flat_v = vmap.reshape(-1, 3)
    pixels = [int(np.flatnonzero((flat_v == p).all(axis=1))[0]) for p in found.positions]
    assert pixels == sorted(pixels)
    np.testing.assert_array_equal(found.normals, nmap.reshape(-1, 3)[pixels])
    assert_blocks_sum_to_100_or_0(found.descriptors)
    # No mask given: derived from the maps, the same here.
    again = qorv.detect_and_compute_vmap_nmap(vmap, nmap, None, **WINDOWS)
    np.testing.assert_array_equal(again.descriptors, found.descriptors)
    capped = qorv.detect_and_compute_vmap_nmap(vmap, nmap, mask, max_key_points=3, **WINDOWS)
    assert len(capped.positions) == min(3, len(found.positions))
    assert {tuple(p) for p in capped.positions.tolist()} <= {
        tuple(p) for p in found.positions.tolist()}


@pytest.mark.parametrize("bad", [np.zeros((4, 4)), np.zeros((4, 4, 2))])
def test_vmap_shape_checked(bad):
    with pytest.raises(ValueError):
        qorv.detect_and_compute_vmap_nmap(bad, bad, **WINDOWS)
