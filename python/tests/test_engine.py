# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""qorv.register: the engine from Python (motions recovered, same bits, organized frames, errors)."""

import numpy as np
import pytest

import qorv
from conftest import DATA_DIR, rigid, rotation_about, rotation_error_degrees


@pytest.fixture(scope="module")
def views():
    """Two overlapping slabs of the dragon sample, the second moved by a known large motion."""
    scan = np.loadtxt(DATA_DIR / "sample" / "dragon_res4.asc", dtype=np.float32)
    along = scan @ np.array([0.6, 0.7, 0.4], np.float32)
    lo, hi = np.quantile(along, [0.35, 0.65])
    motion = rigid(rotation_about([1, -1, 2], 120), [0.2, -0.1, 0.05])
    second = scan[along > lo]
    moved = (second.astype(np.float64) @ motion[:, :3].T + motion[:, 3]).astype(np.float32)
    return scan[along < hi], moved, motion


def test_register_recovers_a_large_motion_with_the_same_bits_every_time(views):
    target, source, motion = views
    truth = np.linalg.inv(np.vstack([motion, [0, 0, 0, 1]]))
    result = qorv.register(target, source, threads=2)
    assert result.registered and result.reason == "" and bool(result)
    assert rotation_error_degrees(result.transform, truth) < 0.5
    assert np.linalg.norm(result.transform[:3, 3] - truth[:3, 3]) < 2e-3
    assert result.consistent_pairs > 20 and 0.3 < result.fitness <= 1.0
    assert {"features", "ransac", "refine"} <= set(result.stages)
    serial = qorv.register(target, source, threads=1)
    again = qorv.register(target, source, threads=2)
    assert np.array_equal(serial.transform, result.transform)
    assert np.array_equal(again.transform, result.transform)
    # A guess near the truth, refined only.
    local = qorv.register(target, source, mode="local", initial=truth @ rigid_4x4(2.0))
    assert local.registered and local.matches == 0
    assert rotation_error_degrees(local.transform, truth) < 0.1


def rigid_4x4(degrees):
    m = np.eye(4)
    m[:3, :3] = rotation_about([0, 0, 1], degrees)
    return m


def test_organized_frames_and_normals_are_taken_as_given(views):
    target, _, _ = views
    width = 40
    height = -(-len(target) // width)
    frame = np.full((height * width, 3), np.nan, np.float32)
    frame[:len(target)] = target
    result = qorv.register(frame.reshape(height, width, 3), target)
    assert result.registered and result.target_points == len(target)
    assert np.allclose(result.transform, np.eye(4), atol=1e-4)


@pytest.mark.parametrize("kwargs,error,message", [
    (dict(mode="sideways"), ValueError, "mode"),
    (dict(initial=np.eye(3)), ValueError, "initial"),
    (dict(mode="local"), qorv.QorvEngineError, "initial transform"),
    (dict(voxel=-1.0), qorv.QorvEngineError, "voxel"),
    (dict(initial=2 * np.eye(4)), qorv.QorvEngineError, "rigid"),
])
def test_bad_options_raise_with_the_library_message(views, kwargs, error, message):
    target, source, _ = views
    with pytest.raises(error, match=message):
        qorv.register(target, source, **kwargs)


def test_unusable_clouds_raise(views):
    target, _, _ = views
    with pytest.raises(qorv.QorvTooFewPointsError, match="finite points"):
        qorv.register(target, np.full((50, 3), np.nan, np.float32))
    with pytest.raises(ValueError, match="shape"):
        qorv.register(target, np.zeros((10, 2), np.float32))
    with pytest.raises(qorv.QorvError):  # every engine error is a QorvError
        qorv.register(np.zeros((0, 3), np.float32), target)


def test_the_verdict_measures_and_a_sensor_origin_reach_python(views):
    target, source, motion = views
    truth = np.linalg.inv(np.vstack([motion, [0, 0, 0, 1]]))
    result = qorv.register(target, source, threads=2)
    assert 0.18 <= result.constrained <= 1.0 and 0.003 <= result.conditioning <= 1.0
    assert result.consistent_pairs > result.chance_pairs >= 0.0
    assert result.free_space_conflict == -1.0  # no sensor origin known
    assert 0.5 <= result.normal_agreement <= 1.0 and 0.0 <= result.coherence <= 1.0
    # Said to come from a sensor at the origin, the right answer finds no point in seen-through
    # space; the source turned half a circle about its centre lands partly in front of the target.
    seen = qorv.register(target, source, mode="evaluate", initial=truth, sensor_origin=True)
    assert 0.0 <= seen.free_space_conflict < 0.05
    centre = np.vstack([source.mean(axis=0)[:, None], [[1.0]]])[:, 0]
    flip = np.eye(4)
    flip[:3, :3] = rotation_about([0, 0, 1], 180)
    flip[:3, 3] = (truth @ centre)[:3] - flip[:3, :3] @ (truth @ centre)[:3]
    wrong = qorv.register(target, source, mode="local", initial=flip @ truth)
    assert not wrong.registered or rotation_error_degrees(wrong.transform, truth) < 1.0


def test_multiway_withholds_the_pose_of_a_stranger():
    scan = np.loadtxt(DATA_DIR / "sample" / "dragon_res4.asc", dtype=np.float32)
    centre = scan.mean(axis=0)
    views, truth = [], []
    for k in range(4):
        d = np.array([np.cos(1.6 * k), np.sin(1.6 * k), 0.3], np.float32)
        motion = rigid(rotation_about([1, 2, 3], 40 * k), [0.05 * k, 0, 0])
        view = scan[(scan - centre) @ d > -0.03]
        views.append((view.astype(np.float64) @ motion[:, :3].T + motion[:, 3]).astype(np.float32))
        truth.append(np.linalg.inv(np.vstack([motion, [0, 0, 0, 1]])))
    bunny = np.loadtxt(DATA_DIR / "sample" / "bunny.asc", dtype=np.float32)
    views.insert(2, (bunny - bunny.mean(0)) * (np.ptp(scan, 0).max() / np.ptp(bunny, 0).max()))
    seen = []
    result = qorv.multiway(views, threads=2, reference=1, progress=lambda *counts: seen.append(counts))
    assert result.placed == [True, True, False, True, True] and result.unplaced == [2]
    assert result.groups[1] == 0 and result.groups[2] > 0
    assert np.array_equal(result.poses[2], np.eye(4))
    assert seen and seen[-1][0] == seen[-1][1] == 10  # every pair of five
    for i, k in ((0, 0), (3, 2), (4, 3)):
        expected = np.linalg.inv(truth[1]) @ truth[k]
        assert rotation_error_degrees(result.poses[i], expected) < 0.5
    kept = [e for e in result.edges if e.registered and not e.rejected]
    assert kept and all(e.residual is not None for e in kept)
