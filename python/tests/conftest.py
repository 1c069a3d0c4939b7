# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Shared fixtures: sample data, instances, rigid-motion helpers. The tests import the installed
package (tests/python.cmake installs it for ctest)."""

import os
import pathlib

import numpy as np
import pytest

import qorv

DATA_DIR = pathlib.Path(os.environ.get("QORV_DATA_DIR",
                                       pathlib.Path(__file__).resolve().parents[2] / "data"))
# The larger development scans live beside the checkout, not in it; tests that need them skip
# without them.
SHARED_DATA_DIR = pathlib.Path(os.environ.get("QORV_SHARED_DATA_DIR",
                                              pathlib.Path(__file__).resolve().parents[3] / "shared" / "data"))


@pytest.fixture
def bunny():
    """The bunny sample as float32 (n, 3), read without the library."""
    return np.loadtxt(DATA_DIR / "sample" / "bunny.asc", dtype=np.float32)


@pytest.fixture(params=[False, True], ids=["serial", "threads"])
def instance(request):
    with qorv.Instance(multi_thread=request.param) as inst:
        yield inst


@pytest.fixture
def rng():
    return np.random.default_rng(20260101)


def random_rotation(rng):
    """A random proper rotation (float64 3 x 3)."""
    q, r = np.linalg.qr(rng.normal(size=(3, 3)))
    q = q * np.sign(np.diag(r))
    if np.linalg.det(q) < 0:
        q[:, 0] = -q[:, 0]
    return q


def rotation_about(axis, degrees):
    """Rotation by an angle about a unit axis (Rodrigues), float64 3 x 3."""
    axis = np.asarray(axis, dtype=np.float64)
    axis = axis / np.linalg.norm(axis)
    angle = np.radians(degrees)
    k = np.array([[0, -axis[2], axis[1]], [axis[2], 0, -axis[0]], [-axis[1], axis[0], 0]])
    return np.eye(3) + np.sin(angle) * k + (1 - np.cos(angle)) * (k @ k)


def rigid(rotation, translation):
    """A 3 x 4 [R | t] matrix."""
    return np.hstack([np.asarray(rotation, np.float64), np.reshape(translation, (3, 1))])


def apply(transform, points):
    """R @ p + t in float64."""
    transform = np.asarray(transform, dtype=np.float64)
    return np.asarray(points, np.float64) @ transform[:, :3].T + transform[:, 3]


def rotation_error_degrees(a, b):
    """Angle of the rotation between two 3 x 4 (or 3 x 3) matrices' rotation parts."""
    ra = np.asarray(a, np.float64)[:3, :3]
    rb = np.asarray(b, np.float64)[:3, :3]
    cosine = (np.trace(ra.T @ rb) - 1.0) / 2.0
    return float(np.degrees(np.arccos(np.clip(cosine, -1.0, 1.0))))
