# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Python access to libqorv, the point-cloud registration library, through its C exports.

Arrays go in as anything numpy can turn into float32 (n, 3) points (or (n, 33) descriptors) and
come out as fresh numpy arrays; results the library hands to callbacks are returned. Failed
calls raise QorvError (with .code). Every function takes an optional ``instance=`` keyword
(an Instance carrying cross_check, multi_thread and match_neighbor_num); without it a default
instance is used.

The library (libqorv.so.1) is the file QORV_LIBRARY names, else the one next to this package,
else the one in the libdir of the installed pkg-config file, else whatever the dynamic loader
finds. Its informational lines ("[QORV INFO] ...") go to standard output.

    import qorv
    points, normals, colours = qorv.read_points_from_asc("data/sample/bunny.asc")
    spacing = qorv.check_distance(points, k=2)
    kept = qorv.voxel_filter(points, leaf_size=2 * spacing)
"""

import numpy as _np

from ._library import (QorvAllocationError, QorvError, QorvFileError, QorvInvalidArgumentError,
                       QorvNullInstanceError, library_path)
from .features import (KeyPoints, Maps, depth_to_vmap_nmap, detect_and_compute,
                       detect_and_compute_vmap_nmap)
from .geometry import (absolute_orientation, read_points_from_asc, rotate_points,
                       transform_points, version, write_points_to_asc)
from ._engine_library import QorvEngineError, QorvTooFewPointsError
from .engine import RegistrationResult, engine_version, register
from .instance import Instance, default_instance
from .io import CloudFile, read_cloud, read_depth, write_cloud
from .multiway import Alignment, multiway
from .registration import (Registration, check_distance, iterative_match_key_points,
                           match_descriptor, match_pair_point_cloud, ransac_match_key_points)
from .surface import (compute_normals, edge_filter, gaussian_filter, recompute_normals,
                      sor_filter, voxel_filter)

try:
    from ._version import __version__  # written by the package's build
except ImportError:  # the source folder itself, not installed: the library knows its version
    def __getattr__(name):
        if name == "__version__":
            return version()
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def to_homogeneous(transform):
    """A 3 x 4 [R | t] matrix as a 4 x 4 homogeneous float64 matrix."""
    result = _np.eye(4)
    result[:3, :] = _np.asarray(transform, dtype=_np.float64).reshape(3, 4)
    return result


__all__ = [
    "Alignment", "CloudFile", "QorvEngineError", "QorvTooFewPointsError", "RegistrationResult",
    "engine_version", "multiway", "read_cloud", "read_depth", "register", "write_cloud",
    "Instance", "KeyPoints", "Maps", "QorvAllocationError", "QorvError", "QorvFileError",
    "QorvInvalidArgumentError", "QorvNullInstanceError", "Registration", "absolute_orientation",
    "check_distance", "compute_normals", "default_instance", "depth_to_vmap_nmap",
    "detect_and_compute", "detect_and_compute_vmap_nmap", "edge_filter", "gaussian_filter",
    "iterative_match_key_points", "library_path", "match_descriptor",
    "match_pair_point_cloud", "ransac_match_key_points", "read_points_from_asc",
    "recompute_normals", "rotate_points", "sor_filter", "to_homogeneous", "transform_points",
    "version", "voxel_filter", "write_points_to_asc",
]
