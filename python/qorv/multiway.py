# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""qorv.multiway: many scans into one frame (QorvEngineMultiwayPlace)."""

from __future__ import annotations

import ctypes
import dataclasses
from typing import Callable, Optional, Sequence

import numpy as np
from numpy.typing import ArrayLike

from ._arrays import CloudLike
from ._engine_library import check, load
from ._text import motion_summary
from .engine import _cloud, _Cloud, _Options, default_options, refine_code


class _Edge(ctypes.Structure):
    _fields_ = [("from_", ctypes.c_int32), ("to", ctypes.c_int32), ("motion", ctypes.c_double * 16),
                ("rotation_sigma", ctypes.c_double), ("shift_sigma", ctypes.c_double), ("loop", ctypes.c_int32),
                ("registered", ctypes.c_int32), ("rejected", ctypes.c_int32), ("fitness", ctypes.c_double),
                ("consistent_pairs", ctypes.c_int32), ("residual", ctypes.c_double)]


class _Scan(ctypes.Structure):
    _fields_ = [("placed", ctypes.c_int32), ("group", ctypes.c_int32)]


_PROGRESS = ctypes.CFUNCTYPE(None, ctypes.c_int32, ctypes.c_int32, ctypes.c_int32, ctypes.c_void_p)


@dataclasses.dataclass
class Edge:
    """A relative motion: `motion` carries scan `source` into scan `target`'s frame. residual is its
    normalised misfit under the settled poses (about 1 when it fits its sigmas; None when it is not
    in the solution). registered: the verdict trusted it (given edges count as trusted); rejected:
    the settled poses disagree with it."""

    source: int
    target: int
    motion: np.ndarray
    loop: bool
    registered: bool
    rejected: bool
    fitness: float
    consistent_pairs: int
    residual: Optional[float] = None

    @property
    def kept(self) -> bool:
        """The edge is in the solution: trusted and not rejected."""
        return self.registered and not self.rejected

    def __repr__(self) -> str:
        state = "rejected" if self.rejected else "kept" if self.registered else "not registered"
        residual = "" if self.residual is None else f", residual={self.residual:.3g}"
        return (f"Edge({self.source} -> {self.target}{' loop' if self.loop else ''}, {state}, "
                f"fitness={self.fitness:.3f}, pairs={self.consistent_pairs}{residual}, "
                f"{motion_summary(self.motion)})")


@dataclasses.dataclass
class Alignment:
    """poses: (n, 4, 4), scan to the frame of the reference scan (the identity where not placed);
    placed: for each scan, whether trusted edges join it to the reference (its pose is unknown
    otherwise); groups: each scan's connected group of kept edges (the reference's is 0); edges:
    every pair tried and every edge given. Printed, it is one line: the scans placed of the total,
    the unplaced ones and the edges kept."""

    poses: np.ndarray
    placed: list
    groups: list
    edges: list

    @property
    def unplaced(self) -> list:
        """The indices of the scans without a pose."""
        return [i for i, p in enumerate(self.placed) if not p]

    def __repr__(self) -> str:
        kept = sum(1 for e in self.edges if e.kept)
        return (f"Alignment(placed {sum(self.placed)} of {len(self.placed)} scans, unplaced={self.unplaced}, "
                f"edges kept {kept} of {len(self.edges)})")


def multiway(scans: Sequence[CloudLike], *, loops: bool = True, reference: int = 0,
             extra_edges: Sequence[tuple[int, int, ArrayLike, float, float]] = (), seed: int = 1,
             threads: int = 0, voxel: float = 0.0, max_tries: Optional[int] = None,
             progress: Optional[Callable[[int, int, int], None]] = None, refine: str = "gicp") -> Alignment:
    """Aligns scans ((n_i, 3) arrays, organized frames or objects with a points attribute), in any
    order, into the frame of scan `reference`. A scan that no trusted edge joins to it is reported
    unplaced (placed[i] False).

    extra_edges: (target, source, motion 4 x 4, rotation_sigma, shift_sigma) tuples the caller knows
    (motion carries `source` into `target`'s frame); they join the pose graph as they are.
    progress: called as progress(pairs_done, pairs_planned, edges_kept) while pairs finish.
    refine: dense refinement of every pair, "gicp" (generalized ICP) or "plane" (point-to-plane ICP).
    Returns an Alignment; raises QorvEngineError on bad input.

        scans = [qorv.read_cloud(path).points for path in paths]
        alignment = qorv.multiway(scans)
        for pose, placed in zip(alignment.poses, alignment.placed): ...
    """
    lib = load()
    lib.QorvEngineMultiwayPlace.restype = ctypes.c_int32
    lib.QorvEngineMultiwayPlace.argtypes = [
        ctypes.POINTER(_Cloud), ctypes.c_int32, ctypes.POINTER(_Options), ctypes.c_int32, ctypes.c_int32,
        ctypes.POINTER(_Edge), ctypes.c_int32, _PROGRESS, ctypes.c_void_p, ctypes.c_void_p, ctypes.POINTER(_Scan),
        ctypes.POINTER(_Edge), ctypes.c_int32, ctypes.POINTER(ctypes.c_int32)]
    lib.QorvEngineDefaultOptionsOfSize.argtypes = [ctypes.POINTER(_Options), ctypes.c_uint32]
    keep = []
    clouds = (_Cloud * len(scans))(*[_cloud(f"scan {i}", s, None, None, keep) for i, s in enumerate(scans)])
    options = _Options()
    default_options(lib, options)
    options.seed, options.threads, options.voxel = int(seed), int(threads), float(voxel)
    options.refine = refine_code(refine)
    if max_tries is not None:
        options.max_tries = int(max_tries)
    given = (_Edge * max(1, len(extra_edges)))()
    for k, (target, source, motion, rotation_sigma, shift_sigma) in enumerate(extra_edges):
        given[k].from_, given[k].to = int(target), int(source)
        given[k].motion[:] = list(np.asarray(motion, dtype=np.float64).reshape(16))
        given[k].rotation_sigma, given[k].shift_sigma = float(rotation_sigma), float(shift_sigma)
    poses = np.zeros((len(scans), 4, 4))
    where = (_Scan * len(scans))()
    capacity = len(scans) * len(scans) + len(extra_edges)
    edges = (_Edge * capacity)()
    count = ctypes.c_int32(0)
    report = _PROGRESS((lambda done, planned, kept, user: progress(done, planned, kept)) if progress
                       else (lambda *args: None))
    check(lib.QorvEngineMultiwayPlace(clouds, len(scans), ctypes.byref(options), 1 if loops else 0, int(reference),
                                      given, len(extra_edges), report, None, poses.ctypes.data, where, edges,
                                      capacity, ctypes.byref(count)),
          "QorvEngineMultiwayPlace")
    return Alignment(
        poses=poses, placed=[bool(w.placed) for w in where], groups=[int(w.group) for w in where],
        edges=[Edge(source=e.to, target=e.from_, motion=np.array(e.motion[:]).reshape(4, 4), loop=bool(e.loop),
                    registered=bool(e.registered), rejected=bool(e.rejected), fitness=e.fitness,
                    consistent_pairs=e.consistent_pairs, residual=e.residual if e.residual >= 0 else None)
               for e in edges[:count.value]])
