# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""qorv.register: the engine from Python (motions recovered, same bits, organized frames, errors)."""

import numpy as np
import pytest

import qorv
from conftest import DATA_DIR, SHARED_DATA_DIR, rigid, rotation_about, rotation_error_degrees


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


def test_generalized_icp_refines_in_register_and_multiway(views):
    target, source, motion = views
    truth = np.linalg.inv(np.vstack([motion, [0, 0, 0, 1]]))
    result = qorv.register(target, source, threads=2, refine="gicp")
    assert result.registered
    assert rotation_error_degrees(result.transform, truth) < 0.5
    assert np.linalg.norm(result.transform[:3, 3] - truth[:3, 3]) < 2e-3
    assert np.array_equal(qorv.register(target, source, threads=1, refine="gicp").transform, result.transform)
    plane = qorv.register(target, source, refine="plane")
    assert plane.registered and rotation_error_degrees(plane.transform, truth) < 0.5
    local = qorv.register(target, source, mode="local", initial=truth @ rigid_4x4(2.0), refine="gicp")
    assert local.registered and rotation_error_degrees(local.transform, truth) < 0.1
    aligned = qorv.multiway([target, source], threads=2, refine="gicp")
    assert aligned.placed == [True, True]
    assert rotation_error_degrees(aligned.poses[1], truth) < 0.5
    with pytest.raises(ValueError, match="refine"):
        qorv.multiway([target, source], refine="GICP")


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
    (dict(refine="point"), ValueError, "refine must be one of"),
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


class _Cloud:
    """The least a caller's cloud type has: a points attribute numpy can read."""

    def __init__(self, points):
        self.points = points


def test_objects_with_points_register_as_their_arrays(views):
    target, source, _ = views
    plain = qorv.register(target, source, threads=1)
    wrapped = qorv.register(_Cloud(target), _Cloud(source), threads=1)
    assert np.array_equal(wrapped.transform, plain.transform) and wrapped.registered == plain.registered
    with pytest.raises(TypeError, match=r"source\.points must be an \(n, 3\) array of points, not None"):
        qorv.register(target, _Cloud(None))
    with pytest.raises(TypeError, match=r"target\.points must hold numbers"):
        qorv.register(_Cloud([["a", "b", "c"]] * 10), source)


def test_open3d_point_clouds_register_as_their_arrays(views):
    o3d = pytest.importorskip("open3d")
    target, source, _ = views
    clouds = [o3d.geometry.PointCloud(o3d.utility.Vector3dVector(c.astype(np.float64))) for c in (target, source)]
    # Open3D keeps float64 points: the same as the float64 arrays, bit for bit.
    plain = qorv.register(target.astype(np.float64), source.astype(np.float64), threads=1)
    result = qorv.register(*clouds, threads=1)
    assert result.registered and np.array_equal(result.transform, plain.transform)


SURVEY_SHIFT = np.array([500000.0, 4000000.0, 100.0])


@pytest.fixture(scope="module", params=["laser", "bunny"])
def survey_pair(request):
    """A target and source in float64 with the source's true pose: two real laser scans of a car park
    (beside the checkout; skipped without them), or two slabs of the bunny, one moved."""
    if request.param == "laser":
        folder = SHARED_DATA_DIR / "laser"
        if not (folder / "car_cloud400.ply").exists():
            pytest.skip(f"no laser scans in {folder}")
        target = qorv.read_cloud(folder / "car_cloud400.ply").points.astype(np.float64)
        source = qorv.read_cloud(folder / "car_cloud401.ply").points.astype(np.float64)
        return target, source, np.loadtxt(folder / "T_400_401.txt")
    scan = np.loadtxt(DATA_DIR / "sample" / "bunny.asc", dtype=np.float64)
    along = scan @ np.array([0.6, 0.7, 0.4])
    lo, hi = np.quantile(along, [0.3, 0.7])
    motion = rigid(rotation_about([1, -1, 2], 60), [0.02, -0.01, 0.05])
    moved = scan[along > lo] @ motion[:, :3].T + motion[:, 3]
    return scan[along < hi], moved, np.linalg.inv(np.vstack([motion, [0, 0, 0, 1]]))


def test_survey_coordinates_register_as_near_the_origin(survey_pair):
    target, source, truth = survey_pair
    near = qorv.register(target, source)
    far = qorv.register(target + SURVEY_SHIFT, source + SURVEY_SHIFT)
    assert near.registered and far.registered == near.registered and far.reason == near.reason
    assert rotation_error_degrees(near.transform, truth) < 1.0
    # far is in the caller's (shifted) frame: p -> R p + t' with t' = t + s - R s.
    rotation = far.transform[:3, :3]
    unshifted = far.transform[:3, 3] - SURVEY_SHIFT + rotation @ SURVEY_SHIFT
    assert np.abs(rotation - near.transform[:3, :3]).max() < 5e-5
    assert np.linalg.norm(unshifted - near.transform[:3, 3]) < 1e-3
    assert np.array_equal(far.transform[3], [0, 0, 0, 1])
