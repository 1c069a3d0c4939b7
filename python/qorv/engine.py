# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""qorv.register: the registration engine of libqorv_engine (QorvEngineRegister)."""

from __future__ import annotations

import ctypes
import dataclasses
import warnings
from typing import Optional

import numpy as np
from numpy.typing import ArrayLike

from ._arrays import CloudLike, cloud_points
from ._engine_library import check, load
from ._text import motion_summary

MODES = {"global": 0, "local": 1, "evaluate": 2}
# Dense refinement: point-to-plane ICP, or generalized ICP (plane-to-plane).
REFINES = {"plane": 0, "gicp": 1}
MAX_STAGES = 24


class _Cloud(ctypes.Structure):
    _fields_ = [("points", ctypes.c_void_p), ("normals", ctypes.c_void_p), ("count", ctypes.c_int64),
                ("width", ctypes.c_int32), ("height", ctypes.c_int32),
                ("has_viewpoint", ctypes.c_int32), ("viewpoint", ctypes.c_double * 3),
                ("points_f64", ctypes.c_void_p), ("origin", ctypes.c_double * 3)]


class _Options(ctypes.Structure):
    _fields_ = [("struct_size", ctypes.c_uint32), ("mode", ctypes.c_int32), ("voxel", ctypes.c_double),
                ("point_budget", ctypes.c_int32), ("refine_budget", ctypes.c_int32),
                ("seed", ctypes.c_uint64), ("threads", ctypes.c_int32), ("has_initial", ctypes.c_int32),
                ("initial", ctypes.c_double * 16), ("max_tries", ctypes.c_int32),
                ("max_ransac_iterations", ctypes.c_int32), ("ransac_confidence", ctypes.c_double),
                ("sensor_origin", ctypes.c_int32), ("cloud_size", ctypes.c_uint32),
                ("refine", ctypes.c_int32)]


class _Stage(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 32), ("milliseconds", ctypes.c_double)]


class _Result(ctypes.Structure):
    _fields_ = [("struct_size", ctypes.c_uint32), ("registered", ctypes.c_int32),
                ("transform", ctypes.c_double * 16), ("fitness", ctypes.c_double),
                ("target_overlap", ctypes.c_double), ("inlier_rmse", ctypes.c_double),
                ("inlier_distance", ctypes.c_double), ("consistent_pairs", ctypes.c_int32),
                ("matches", ctypes.c_int32), ("voxel", ctypes.c_double),
                ("target_points", ctypes.c_int32), ("source_points", ctypes.c_int32),
                ("target_samples", ctypes.c_int32), ("source_samples", ctypes.c_int32),
                ("tries", ctypes.c_int32), ("reason", ctypes.c_char * 160),
                ("stage_count", ctypes.c_int32), ("stages", _Stage * MAX_STAGES),
                ("constrained", ctypes.c_double), ("conditioning", ctypes.c_double),
                ("free_space_conflict", ctypes.c_double), ("chance_pairs", ctypes.c_double),
                ("rival_share", ctypes.c_double), ("normal_agreement", ctypes.c_double),
                ("coherence", ctypes.c_double)]


def _prototypes():
    lib = load()
    if not getattr(lib, "_qorv_engine_typed", False):
        lib.QorvEngineDefaultOptionsOfSize.restype = None
        lib.QorvEngineDefaultOptionsOfSize.argtypes = [ctypes.POINTER(_Options), ctypes.c_uint32]
        lib.QorvEngineRegister.restype = ctypes.c_int32
        lib.QorvEngineRegister.argtypes = [ctypes.POINTER(_Cloud), ctypes.POINTER(_Cloud),
                                           ctypes.POINTER(_Options), ctypes.POINTER(_Result)]
        lib._qorv_engine_typed = True
    return lib


@dataclasses.dataclass
class RegistrationResult:
    """What qorv.register found: the motion, the verdict and its measures.

    transform carries source points onto the target (4 x 4, float64); registered is the verdict,
    reason says why when it is False; fitness and target_overlap are the shares of each cloud within
    inlier_distance of the other, inlier_rmse their RMS distance, consistent_pairs the feature
    matches the motion carries and chance_pairs how many a wrong motion would carry by chance;
    constrained is the share of the nearby structure's constraint that the motion satisfies along
    its weakest direction, conditioning how evenly the agreeing surfaces pin all six degrees of
    freedom, free_space_conflict the share of points found in space the other sensor saw through
    (-1 when no sensor origin is known), normal_agreement the share of inlier pairs whose normals
    agree, coherence the share of source points near the target that lie on it, rival_share the
    best distinct motion's score over the answer's; stages maps each stage's name to its
    milliseconds (milliseconds is their sum). Printed, it is one line: the verdict, the reason when
    refused, fitness, rmse, the rotation angle and translation of transform, and the time.
    """

    transform: np.ndarray
    registered: bool
    reason: str
    fitness: float
    target_overlap: float
    inlier_rmse: float
    inlier_distance: float
    consistent_pairs: int
    matches: int
    voxel: float
    target_points: int
    source_points: int
    target_samples: int
    source_samples: int
    tries: int
    stages: dict
    constrained: float = 0.0
    conditioning: float = 0.0
    free_space_conflict: float = -1.0
    chance_pairs: float = 0.0
    rival_share: float = 0.0
    normal_agreement: float = 0.0
    coherence: float = 0.0

    def __bool__(self) -> bool:
        return self.registered

    @property
    def milliseconds(self) -> float:
        """The engine's time over all stages."""
        return float(sum(self.stages.values()))

    def __repr__(self) -> str:
        verdict = f"registered={self.registered}"
        if not self.registered and self.reason:
            verdict += f", reason={self.reason!r}"
        return (f"RegistrationResult({verdict}, fitness={self.fitness:.3f}, rmse={self.inlier_rmse:.4g}, "
                f"{motion_summary(self.transform)}, {self.milliseconds:.1f} ms)")


def default_options(lib, options):
    """Fills an _Options with the library's defaults, as far as this struct reaches."""
    lib.QorvEngineDefaultOptionsOfSize(ctypes.byref(options), ctypes.sizeof(_Options))


def _cloud(name, points, normals, viewpoint, keep):
    """A QorvEngineCloud view of an (n, 3) or organized (h, w, 3) array, or of an object with a
    points attribute (kept alive in `keep`). float64 points go as doubles."""
    array = cloud_points(points, name)
    cloud = _Cloud()
    if array.dtype == np.float64:
        cloud.points_f64 = array.ctypes.data
    else:
        cloud.points = array.ctypes.data
    if array.ndim == 3:
        cloud.height, cloud.width = array.shape[0], array.shape[1]
    cloud.count = array.shape[0] * (array.shape[1] if array.ndim == 3 else 1)
    keep.append(array)
    if normals is not None:
        # The engine estimates normals at the scales it works at; the caller's are not used.
        warnings.warn(f"{name}_normals are not used: the engine estimates its own normals at the scales "
                      "it works at", DeprecationWarning, stacklevel=3)
    if viewpoint is not None:
        v = np.asarray(viewpoint, dtype=np.float64).reshape(3)
        cloud.has_viewpoint = 1
        cloud.viewpoint[:] = list(v)
    return cloud


def register(target: CloudLike, source: CloudLike, *, voxel: float = 0.0, point_budget: Optional[int] = None,
             refine_budget: Optional[int] = None, seed: int = 1, threads: int = 0,
             initial: Optional[ArrayLike] = None, mode: str = "global", max_tries: Optional[int] = None,
             max_ransac_iterations: Optional[int] = None, ransac_confidence: Optional[float] = None,
             target_normals: Optional[ArrayLike] = None, source_normals: Optional[ArrayLike] = None,
             target_viewpoint: Optional[ArrayLike] = None, source_viewpoint: Optional[ArrayLike] = None,
             sensor_origin: bool = False, refine: str = "gicp") -> RegistrationResult:
    """Registers source onto target with the engine and judges the answer.

    target, source: (n, 3) points, or organized (h, w, 3) frames with NaN holes, or objects with a
    points attribute (Open3D PointClouds). float64 points keep their precision: survey-scale
    coordinates are registered next to a shared origin and the transform is in the caller's frame.
    voxel: the working voxel (0: chosen so that a cloud keeps about point_budget voxels).
    seed: every random draw depends on it only; the same inputs give the same bits.
    threads: 0 for the OpenMP default, 1 for serial. initial: a 4 x 4 (or 3 x 4) guess.
    mode: "global" (features and RANSAC, then ICP), "local" (ICP from initial only) or "evaluate"
    (the measures and verdict of initial as it is).
    sensor_origin: the clouds were taken by a sensor at their origin (spinning LiDAR scans centred
    on their sensor); organized frames and given viewpoints say so on their own. The verdict then
    also checks that no point lies in space the other sensor saw through.
    target_normals, source_normals: not used (a DeprecationWarning says so): the engine estimates
    normals at the scales it works at.
    refine: dense refinement by "gicp" (generalized ICP: each pair weighed by both clouds' local
    surfaces) or "plane" (point-to-plane ICP: the target's surface only).
    Returns a RegistrationResult; a negative verdict is not an error (result.registered is False).
    Raises QorvEngineError (a subclass of QorvError) when the clouds cannot be registered at all.

        target = qorv.read_cloud("scan1.ply").points
        source = qorv.read_cloud("scan2.ply").points
        result = qorv.register(target, source)
        if result.registered:
            aligned = source @ result.transform[:3, :3].T + result.transform[:3, 3]
    """
    lib = _prototypes()
    if mode not in MODES:
        raise ValueError(f"mode must be one of {sorted(MODES)}, got {mode!r}")
    options = _Options()
    default_options(lib, options)
    options.mode = MODES[mode]
    options.refine = refine_code(refine)
    options.voxel = float(voxel)
    options.seed = int(seed)
    options.threads = int(threads)
    options.sensor_origin = 1 if sensor_origin else 0
    for field, value in (("point_budget", point_budget), ("refine_budget", refine_budget),
                         ("max_tries", max_tries), ("max_ransac_iterations", max_ransac_iterations),
                         ("ransac_confidence", ransac_confidence)):
        if value is not None:
            setattr(options, field, type(getattr(options, field))(value))
    if initial is not None:
        guess = np.asarray(initial, dtype=np.float64)
        if guess.shape == (3, 4):
            guess = np.vstack([guess, [0.0, 0.0, 0.0, 1.0]])
        if guess.shape != (4, 4):
            raise ValueError(f"initial must be a 4 x 4 or 3 x 4 matrix, got shape {guess.shape}")
        options.has_initial = 1
        options.initial[:] = list(guess.ravel())
    keep = []
    t = _cloud("target", target, target_normals, target_viewpoint, keep)
    s = _cloud("source", source, source_normals, source_viewpoint, keep)
    result = _Result()
    result.struct_size = ctypes.sizeof(_Result)
    check(lib.QorvEngineRegister(ctypes.byref(t), ctypes.byref(s), ctypes.byref(options),
                                 ctypes.byref(result)), "QorvEngineRegister")
    return RegistrationResult(
        transform=np.array(result.transform[:], dtype=np.float64).reshape(4, 4),
        registered=bool(result.registered), reason=result.reason.decode("utf-8", "replace"),
        fitness=result.fitness, target_overlap=result.target_overlap, inlier_rmse=result.inlier_rmse,
        inlier_distance=result.inlier_distance, consistent_pairs=result.consistent_pairs,
        matches=result.matches, voxel=result.voxel, target_points=result.target_points,
        source_points=result.source_points, target_samples=result.target_samples,
        source_samples=result.source_samples, tries=result.tries,
        stages={result.stages[i].name.decode(): result.stages[i].milliseconds
                for i in range(result.stage_count)},
        constrained=result.constrained, conditioning=result.conditioning,
        free_space_conflict=result.free_space_conflict, chance_pairs=result.chance_pairs,
        rival_share=result.rival_share, normal_agreement=result.normal_agreement,
        coherence=result.coherence)


def refine_code(refine: str) -> int:
    """The C value of a refinement name; ValueError naming the choices for any other."""
    if refine not in REFINES:
        raise ValueError(f"refine must be one of {sorted(REFINES)}, got {refine!r}")
    return REFINES[refine]


def engine_version() -> tuple[str, int]:
    """The engine library's version string and C interface version."""
    lib = load()
    return lib.QorvEngineVersion().decode(), int(lib.QorvEngineApiVersion())
