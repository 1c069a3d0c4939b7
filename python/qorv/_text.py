# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Short one-line summaries for the result classes' reprs: a result printed in a notebook or a log
should say what happened, not dump its arrays."""

from __future__ import annotations

import numpy as np


def array_summary(array) -> str:
    """dtype and shape, e.g. float32[1000, 3], or None."""
    if array is None:
        return "None"
    array = np.asarray(array)
    return f"{array.dtype}{list(array.shape)}"


def rotation_degrees(transform) -> float:
    """The angle of a rigid transform's rotation, in degrees."""
    rotation = np.asarray(transform, dtype=np.float64)[:3, :3]
    cosine = (np.trace(rotation) - 1.0) / 2.0
    return float(np.degrees(np.arccos(np.clip(cosine, -1.0, 1.0))))


def motion_summary(transform) -> str:
    """"rotation=12.34 deg, translation=[x, y, z]" of a 4 x 4 or 3 x 4 rigid transform."""
    array = np.asarray(transform, dtype=np.float64)
    if not abs(np.linalg.det(array[:3, :3]) - 1.0) < 1e-3:  # NaN or a matrix a failed call left
        return "transform not rigid"
    # Rounded, then + 0.0 turns -0.0 into 0.0: a tiny negative shift does not print as -0.0000.
    translation = ", ".join(f"{round(float(value), 4) + 0.0:.4f}" for value in array[:3, 3])
    return f"rotation={rotation_degrees(array):.2f} deg, translation=[{translation}]"
