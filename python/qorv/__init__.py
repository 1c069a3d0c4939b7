# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Python access to Qorv, the point-cloud registration library.

Start with qorv.register: it finds the rigid motion that carries one cloud onto another and says
whether to trust it.

    import qorv
    target = qorv.read_cloud("scan_a.ply")            # PLY, PCD, LAS, text, OBJ/STL, depth images
    source = qorv.read_cloud("scan_b.ply")
    result = qorv.register(target.points, source.points)
    print(result)                                     # verdict, fitness, rmse, angle, shift, time
    if result.registered:
        moved = source.points @ result.transform[:3, :3].T + result.transform[:3, 3]
        qorv.write_cloud("scan_b_aligned.ply", moved)

Points may be (n, 3) arrays, organized (h, w, 3) frames or objects with a points attribute (Open3D
PointClouds); float64 survey coordinates keep their precision. qorv.multiway places many scans in
one frame, and `python3 -m qorv batch` registers the pairs of a manifest on a Dask cluster.

The library's 28 functions (libqorv.so.1, its C exports) are here as well: read_points_from_asc,
write_points_to_asc, rotate_points, transform_points, absolute_orientation, compute_normals,
recompute_normals, voxel_filter, sor_filter, edge_filter, gaussian_filter, detect_and_compute,
depth_to_vmap_nmap, detect_and_compute_vmap_nmap, match_descriptor, ransac_match_key_points,
iterative_match_key_points, match_pair_point_cloud, check_distance, version, and the Instance
class (create, destroy, cross check, multi-threading, match neighbour count). Arrays go in as
anything numpy can turn into float32 (n, 3) points (or (n, 33) descriptors) and come out as fresh
numpy arrays. Each takes an optional ``instance=`` keyword (an Instance carrying cross_check,
multi_thread and match_neighbor_num); without it a default instance is used. Their informational
lines ("[QORV INFO] ...") go to standard output; register, multiway and the file functions print
nothing, and the package's own warnings and progress go to the logging module (logger "qorv").

    points, normals, colours = qorv.read_points_from_asc("data/sample/bunny.asc")
    spacing = qorv.check_distance(points, k=2)
    kept = qorv.voxel_filter(points, leaf_size=2 * spacing)

Failed calls raise QorvError (with .code); the engine's errors (QorvEngineError) carry its message.
The library is the file QORV_LIBRARY names (QORV_ENGINE_LIBRARY for libqorv_engine.so.1), else the
one next to this package, else the one in the libdir of the installed pkg-config file, else
whatever the dynamic loader finds.
"""

import numpy as _np
from numpy.typing import ArrayLike as _ArrayLike

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


def to_homogeneous(transform: "_ArrayLike") -> "_np.ndarray":
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
