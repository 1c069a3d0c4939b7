# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Batches of pairs on a Dask cluster: the same manifest, results file and resume rule as
`qorv batch`, and the same result for each pair (the engine is seeded).

    python3 -m qorv batch MANIFEST --output RESULTS.jsonl [--scheduler tcp://HOST:PORT]

Progress goes to the logging module (logger "qorv", level INFO), one line a finished pair; the
command line shows it on standard error unless --quiet.
"""

from __future__ import annotations

import ctypes
import json
import logging
import os
import time
from typing import Callable, Optional, Union

import numpy as np

from ._engine_library import check, load

_log = logging.getLogger("qorv")

FIELDS = ("target", "source", "initial")


class _ManifestPair(ctypes.Structure):
    _fields_ = [("line", ctypes.c_int64), ("target", ctypes.c_char_p), ("source", ctypes.c_char_p),
                ("target_path", ctypes.c_char_p), ("source_path", ctypes.c_char_p),
                ("has_initial", ctypes.c_int32), ("initial", ctypes.c_double * 16)]


class _Manifest(ctypes.Structure):
    _fields_ = [("count", ctypes.c_int64), ("pairs", ctypes.POINTER(_ManifestPair))]


def read_manifest(path: Union[str, os.PathLike]) -> list:
    """Pairs of a CSV manifest (header naming target, source, optionally initial) or JSON lines,
    read by the engine library as the command-line tool reads them. Relative paths start at the
    manifest's folder (target_path, source_path); the results repeat them as written."""
    lib = load()
    if not getattr(lib, "_qorv_manifest_typed", False):
        lib.QorvEngineReadManifest.restype = ctypes.c_int32
        lib.QorvEngineReadManifest.argtypes = [ctypes.c_char_p, ctypes.POINTER(ctypes.POINTER(_Manifest))]
        lib.QorvEngineFreeManifest.restype = None
        lib.QorvEngineFreeManifest.argtypes = [ctypes.POINTER(_Manifest)]
        lib._qorv_manifest_typed = True
    manifest = ctypes.POINTER(_Manifest)()
    check(lib.QorvEngineReadManifest(os.fsencode(path), ctypes.byref(manifest)), "QorvEngineReadManifest")
    try:
        pairs = []
        for i in range(manifest.contents.count):
            listed = manifest.contents.pairs[i]
            initial = np.array(listed.initial[:], dtype=np.float64).reshape(4, 4).tolist() \
                if listed.has_initial else None
            pairs.append(dict(pair=i, target=os.fsdecode(listed.target), source=os.fsdecode(listed.source),
                              initial=initial, target_path=os.fsdecode(listed.target_path),
                              source_path=os.fsdecode(listed.source_path)))
        return pairs
    finally:
        lib.QorvEngineFreeManifest(manifest)


def done_pairs(path: Union[str, os.PathLike]) -> set:
    """The "pair" numbers already in a results file; a last line without its line feed (a killed
    run's) is cut off so that its pair runs again."""
    if not os.path.exists(path):
        return set()
    with open(path, "rb") as f:
        data = f.read()
    complete = data.rfind(b"\n") + 1
    if complete < len(data):
        os.truncate(path, complete)
    done = set()
    for line in data[:complete].splitlines():
        try:
            doc = json.loads(line)
        except ValueError:
            continue
        if isinstance(doc, dict) and isinstance(doc.get("pair"), int):
            done.add(doc["pair"])
    return done


def run_pair(pair: dict, options: dict) -> dict:
    """One pair read and registered on one thread: the results line as a dict (the field order of
    `qorv batch`)."""
    import qorv
    start = time.perf_counter()
    line = dict(pair=pair["pair"], target=pair["target"], source=pair["source"])
    try:
        target = qorv.read_cloud(pair.get("target_path", pair["target"]))
        source = qorv.read_cloud(pair.get("source_path", pair["source"]))
        result = qorv.register(
            target.points, source.points, threads=1, initial=pair["initial"], target_normals=target.normals,
            source_normals=source.normals,
            target_viewpoint=None if target.viewpoint is None else target.viewpoint[:3],
            source_viewpoint=None if source.viewpoint is None else source.viewpoint[:3], **options)
    except (qorv.QorvError, OSError, ValueError) as error:
        line.update(registered=False, transform=None, error=str(error).split(": ", 1)[-1])
    else:
        line.update(registered=result.registered, transform=result.transform.tolist(), fitness=result.fitness,
                    target_overlap=result.target_overlap, inlier_rmse=result.inlier_rmse,
                    consistent_pairs=result.consistent_pairs, voxel=result.voxel,
                    reason=None if result.registered else result.reason, error=None)
    line["ms"] = 1000.0 * (time.perf_counter() - start)
    return line


def append_line(fd: int, line: dict) -> None:
    """One complete line with one write, flushed to disk."""
    data = (json.dumps(line, separators=(",", ":")) + "\n").encode()
    while data:
        data = data[os.write(fd, data):]
    os.fsync(fd)


def run_batch(manifest: Union[str, os.PathLike], output: Union[str, os.PathLike], scheduler: Optional[str] = None,
              workers: Optional[int] = None, options: Optional[dict] = None, quiet: bool = False, retries: int = 2,
              task: Callable[[dict, dict], dict] = run_pair) -> dict:
    """Runs the pairs not yet in `output` on a Dask cluster (an existing one at `scheduler`, else a
    local one with `workers` processes) and appends each result as it comes. `task(pair, options)`
    makes a pair's line (run_pair; a stand-in may wrap it). Returns a summary.

    Each finished pair is logged (logger "qorv", INFO) with the rate and the time left, unless
    quiet; nothing is printed."""
    from distributed import Client, LocalCluster, as_completed
    pairs = read_manifest(manifest)
    done = done_pairs(output)
    todo = [p for p in pairs if p["pair"] not in done]
    options = dict(options or {})
    cluster = None
    if scheduler is None:
        cluster = LocalCluster(n_workers=workers or os.cpu_count() or 1, threads_per_worker=1, processes=True,
                               dashboard_address=None)
    client = Client(scheduler or cluster)
    counts = dict(registered=0, not_registered=0, failed=0)
    start = time.perf_counter()
    fd = os.open(output, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
    try:
        # A worker that dies mid-pair has its pair run again elsewhere (retries).
        futures = [client.submit(task, p, options, key=f"qorv-pair-{p['pair']}-{os.getpid()}", pure=False,
                                 retries=retries) for p in todo]
        for n, future in enumerate(as_completed(futures), 1):
            line = future.result()
            append_line(fd, line)
            kind = "failed" if line["error"] else "registered" if line["registered"] else "not_registered"
            counts[kind] += 1
            if not quiet:
                rate = n / max(time.perf_counter() - start, 1e-9)
                why = f": {line['error']}" if line["error"] else f": {line['reason']}" if not line["registered"] else ""
                _log.info("%d/%d pair %d: %s%s (%.2f pairs/s, %.0f s left)", len(pairs) - len(todo) + n,
                          len(pairs), line["pair"], kind.replace("_", " "), why, rate, (len(todo) - n) / rate)
    finally:
        os.close(fd)
        client.close()
        if cluster is not None:
            cluster.close()
    seconds = time.perf_counter() - start
    return dict(command="batch", pairs=len(pairs), skipped=len(pairs) - len(todo), **counts, seconds=seconds,
                pairs_per_second=len(todo) / max(seconds, 1e-9))
