# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""qorv.multiway: many scans into one frame (QorvEngineMultiway)."""

import ctypes
import dataclasses

import numpy as np

from ._engine_library import check, load
from .engine import _cloud, _Cloud, _Options


class _Edge(ctypes.Structure):
    _fields_ = [("from_", ctypes.c_int32), ("to", ctypes.c_int32), ("motion", ctypes.c_double * 16),
                ("rotation_sigma", ctypes.c_double), ("shift_sigma", ctypes.c_double), ("loop", ctypes.c_int32),
                ("registered", ctypes.c_int32), ("rejected", ctypes.c_int32), ("fitness", ctypes.c_double),
                ("consistent_pairs", ctypes.c_int32)]


@dataclasses.dataclass
class Edge:
    """A relative motion: `motion` carries scan `to` into scan `from`'s frame."""

    source: int  # the scan moved ("to")
    target: int  # the scan it is carried into ("from")
    motion: np.ndarray
    loop: bool
    registered: bool
    rejected: bool
    fitness: float
    consistent_pairs: int


@dataclasses.dataclass
class Alignment:
    """poses: (n, 4, 4), scan to the frame of scan 0; edges: every pair tried and every edge given."""

    poses: np.ndarray
    edges: list


def multiway(scans, *, loops=True, extra_edges=(), seed=1, threads=0, voxel=0.0, max_tries=None):
    """Aligns scans ((n_i, 3) arrays or organized frames) into one frame.

    extra_edges: (target, source, motion 4 x 4, rotation_sigma, shift_sigma) tuples the caller knows
    (motion carries `source` into `target`'s frame); they join the pose graph as they are.
    Returns an Alignment; raises QorvEngineError when a scan cannot be registered at all."""
    lib = load()
    lib.QorvEngineMultiway.restype = ctypes.c_int32
    lib.QorvEngineMultiway.argtypes = [ctypes.POINTER(_Cloud), ctypes.c_int32, ctypes.POINTER(_Options), ctypes.c_int32,
                                       ctypes.POINTER(_Edge), ctypes.c_int32, ctypes.c_void_p, ctypes.POINTER(_Edge),
                                       ctypes.c_int32, ctypes.POINTER(ctypes.c_int32)]
    lib.QorvEngineDefaultOptions.argtypes = [ctypes.POINTER(_Options)]
    keep = []
    clouds = (_Cloud * len(scans))(*[_cloud(f"scan {i}", s, None, None, keep) for i, s in enumerate(scans)])
    options = _Options()
    lib.QorvEngineDefaultOptions(ctypes.byref(options))
    options.seed, options.threads, options.voxel = int(seed), int(threads), float(voxel)
    if max_tries is not None:
        options.max_tries = int(max_tries)
    given = (_Edge * max(1, len(extra_edges)))()
    for k, (target, source, motion, rotation_sigma, shift_sigma) in enumerate(extra_edges):
        given[k].from_, given[k].to = int(target), int(source)
        given[k].motion[:] = list(np.asarray(motion, dtype=np.float64).reshape(16))
        given[k].rotation_sigma, given[k].shift_sigma = float(rotation_sigma), float(shift_sigma)
    poses = np.zeros((len(scans), 4, 4))
    capacity = len(scans) * len(scans) + len(extra_edges)
    edges = (_Edge * capacity)()
    count = ctypes.c_int32(0)
    check(lib.QorvEngineMultiway(clouds, len(scans), ctypes.byref(options), 1 if loops else 0, given,
                                 len(extra_edges), poses.ctypes.data, edges, capacity, ctypes.byref(count)),
          "QorvEngineMultiway")
    return Alignment(poses=poses, edges=[
        Edge(source=e.to, target=e.from_, motion=np.array(e.motion[:]).reshape(4, 4), loop=bool(e.loop),
             registered=bool(e.registered), rejected=bool(e.rejected), fitness=e.fitness,
             consistent_pairs=e.consistent_pairs) for e in edges[:count.value]])
