# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""ASC files, rotations, rigid transforms and absolute orientation against numpy references."""

import numpy as np
import pytest

import qorv
from conftest import apply, random_rotation, rigid, rotation_about


@pytest.mark.parametrize("columns", [3, 6, 9])
def test_asc_round_trip(tmp_path, rng, columns):
    points = rng.uniform(-10, 10, size=(257, 3)).astype(np.float32)
    normals = rng.uniform(-1, 1, size=(257, 3)).astype(np.float32) if columns >= 6 else None
    colours = rng.integers(0, 256, size=(257, 3), dtype=np.uint8) if columns == 9 else None
    path = tmp_path / f"cloud{columns}.asc"
    qorv.write_points_to_asc(path, points, normals, colours)
    lines = path.read_text().splitlines()
    assert len(lines) == 257 and all(len(line.split()) == columns for line in lines)
    got_points, got_normals, got_colours = qorv.read_points_from_asc(path)
    # "%f" keeps six decimals.
    np.testing.assert_allclose(got_points, points, atol=6e-7)
    if normals is None:
        assert got_normals is None
    else:
        np.testing.assert_allclose(got_normals, normals, atol=6e-7)
    if colours is None:
        assert got_colours is None
    else:
        np.testing.assert_array_equal(got_colours, colours)


def test_asc_colours_without_normals_write_three_columns(tmp_path):
    path = tmp_path / "c.asc"
    qorv.write_points_to_asc(path, [[1, 2, 3]], colours=[[9, 9, 9]])
    assert path.read_text().split() == ["1.000000", "2.000000", "3.000000"]


def test_asc_without_points_is_a_file_error(tmp_path):
    path = tmp_path / "words.asc"
    path.write_text("no numbers here\n")
    with pytest.raises(qorv.QorvFileError):
        qorv.read_points_from_asc(path)


def _reference(matrix, points, translation=(0, 0, 0)):
    """The float32 formula, one rounding per operation and no fused multiply-add."""
    m = np.asarray(matrix, np.float32).reshape(3, 3)
    t = np.asarray(translation, np.float32)
    x, y, z = points[:, 0], points[:, 1], points[:, 2]
    return np.stack([m[r, 0] * x + m[r, 1] * y + m[r, 2] * z + t[r] for r in range(3)], axis=1)


@pytest.mark.parametrize("count", [1, 3, 4, 7, 8, 9, 17, 1000])
def test_rotate_and_transform_match_the_formula(rng, count):
    points = rng.uniform(-5, 5, size=(count, 3)).astype(np.float32)
    rotation = random_rotation(rng)
    translation = np.array([5.0, -6.0, 7.5])
    rotated = qorv.rotate_points(points, rotation)
    np.testing.assert_allclose(rotated, _reference(rotation, points), rtol=1e-6, atol=2e-6)
    moved = qorv.transform_points(points, rigid(rotation, translation))
    np.testing.assert_allclose(moved, _reference(rotation, points, translation), rtol=1e-6,
                               atol=4e-6)
    # A 4 x 4 homogeneous matrix is accepted too.
    moved4 = qorv.transform_points(points, qorv.to_homogeneous(rigid(rotation, translation)))
    np.testing.assert_array_equal(moved4, moved)


def test_rotate_in_place_equals_out_of_place(rng):
    points = rng.normal(size=(33, 3)).astype(np.float32)
    rotation = rotation_about([1, 2, 3], 40)
    expected = qorv.rotate_points(points, rotation)
    result = qorv.rotate_points(points, rotation, out=points)
    assert result is points
    np.testing.assert_array_equal(points, expected)


def test_absolute_orientation_recovers_a_motion(rng):
    b = rng.uniform(-1, 1, size=(50, 3)).astype(np.float32)
    truth = rigid(random_rotation(rng), [0.3, -2.0, 1.0])
    a = apply(truth, b).astype(np.float32)
    result = qorv.absolute_orientation(a, b)
    assert result.shape == (3, 4) and result.dtype == np.float64
    np.testing.assert_allclose(result, truth, atol=2e-5)

