#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Reading speed of cloud files: qorv.read_cloud against Open3D's reader, on the same files in the
same run (interleaved, median of RUNS turns), each returning the points as numpy arrays.

    QORV_LIBRARY=build/libqorv.so QORV_ENGINE_LIBRARY=build/libqorv_engine.so PYTHONPATH=python \\
        python3 bench/io/read_speed.py [POINTS] [RUNS]

The cloud is random with millimetre steps (a sensor's), with normals and colours where the format
holds them; LAS has no reader among Debian's Python packages, so only ours is timed on it."""

import pathlib
import statistics
import sys
import tempfile
import time

import numpy as np

import qorv

try:
    import open3d as o3d
except ImportError:  # the figures of ours alone
    o3d = None


def timed(read, runs):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        read()
        times.append(time.perf_counter() - start)
    return statistics.median(times) * 1000.0


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 1_000_000
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    rng = np.random.default_rng(1)
    points = np.round(rng.normal(size=(n, 3)) * 10.0, 3).astype(np.float32)
    normals = rng.normal(size=(n, 3)).astype(np.float32)
    normals /= np.linalg.norm(normals, axis=1, keepdims=True)
    colours = rng.integers(0, 256, (n, 3), dtype=np.uint8)
    folder = pathlib.Path(tempfile.mkdtemp(prefix="qorv_read_speed_"))
    files = {
        "xyz (x y z text)": (folder / "c.xyz", lambda p: np.savetxt(p, points, fmt="%.3f")),
        "xyzn (x y z nx ny nz text)": (folder / "c.xyzn",
                                       lambda p: np.savetxt(p, np.hstack([points, normals]), fmt="%.6f")),
        "pts (count line, x y z i r g b)": (folder / "c.pts", lambda p: p.write_text(
            f"{n}\n" + "\n".join(f"{x:.3f} {y:.3f} {z:.3f} 0 {r} {g} {b}"
                                 for (x, y, z), (r, g, b) in zip(points.tolist(), colours.tolist())) + "\n")),
        "ply (binary)": (folder / "c.ply", lambda p: qorv.write_cloud(p, points, normals, colours)),
        "pcd (binary)": (folder / "c.pcd", lambda p: qorv.write_cloud(p, points, normals, colours)),
        "pcd (compressed)": (folder / "cc.pcd",
                             lambda p: qorv.write_cloud(p, points, normals, colours, encoding="compressed")),
        "las 1.2 (format 2)": (folder / "c.las", lambda p: qorv.write_cloud(p, points, colours=colours)),
    }
    print(f"| file ({n:,} points) | MB | qorv.read_cloud ms | Open3D read_point_cloud ms | Open3D / qorv |")
    print("|---|---|---|---|---|")
    for name, (path, write) in files.items():
        write(path)
        size = path.stat().st_size / 1e6
        ours, theirs = [], []
        for _ in range(runs):  # interleaved
            ours.append(timed(lambda: qorv.read_cloud(path).points, 1))
            if o3d is not None and path.suffix != ".las":
                theirs.append(timed(lambda: np.asarray(o3d.io.read_point_cloud(str(path)).points), 1))
        a = statistics.median(ours)
        b = statistics.median(theirs) if theirs else None
        print(f"| {name} | {size:.0f} | {a:.0f} | {'-' if b is None else f'{b:.0f}'} | "
              f"{'-' if b is None else f'{b / a:.2f}'} |")
        path.unlink()
    folder.rmdir()


if __name__ == "__main__":
    main()
