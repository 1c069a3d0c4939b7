#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""The many-scans benchmark: qorv.multiway on collections in order and shuffled, with strangers
mixed in, at 1 and 2 threads. Reports the scans placed right, placed wrong (the target: none) and
reported unplaced, the absolute trajectory error of the placed scans, the time, and the time of
registering every pair one by one with qorv.register.

usage: multiway_bench.py --data DIR [--threads 1,2] [--quick]"""

import argparse
import math
import pathlib
import sys
import time

import numpy as np

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
sys.path.insert(0, str(HERE.parents[1] / "python"))
import pairs as basic  # noqa: E402
import qorv  # noqa: E402


def views_around(points, count, rng):
    """count views of a scan seen from directions around it, each moved by a large random motion;
    returns the views and the motion carrying each back into the scan's frame."""
    centre = points.mean(axis=0)
    views, truth = [], []
    for k in range(count):
        a = 2 * math.pi * k / count
        d = np.array([math.cos(a), math.sin(a), 0.3])
        rel = points - centre
        view = points[rel @ d >= -0.25 * np.linalg.norm(rel, axis=1) * np.linalg.norm(d)]
        m = np.eye(4)
        m[:3, :3] = basic.random_rotation(rng)
        m[:3, 3] = rng.normal(size=3) * np.ptp(points, axis=0).max()
        views.append((view @ m[:3, :3].T + m[:3, 3]).astype(np.float32))
        truth.append(np.linalg.inv(m))
    return views, truth


def collections(data, rng, quick):
    """(name, scans, truth poses or None for strangers, right: (degrees, length), ATE unit)."""
    folder = data / "rgbd" / "sequence_a"
    frames = [basic.read_depth_frame(f) for f in sorted((folder / "depth").glob("*.png"))]
    poses = basic.read_trajectory(folder / "trajectory.log")
    out = [("sequence_a in order", frames, poses, (1.0, 0.03), (1000.0, "mm"))]
    order = rng.permutation(len(frames))
    out.append(("sequence_a shuffled", [frames[i] for i in order], [poses[i] for i in order], (1.0, 0.03),
                (1000.0, "mm")))
    strangers = []
    kitti = data / "kitti" / "000000.ply"
    if kitti.exists():
        scan = basic.read_ply_xyz(kitti).astype(np.float32)
        strangers.append(scan[rng.random(len(scan)) < 0.2])
    strangers.append(basic.read_ply_xyz(data / "laser" / "car_cloud400.ply").astype(np.float32))
    for name, count in (("dragon_res3", 8 if quick else 12), ("bunny", 8 if quick else 12)):
        points = basic.read_asc(data / f"{name}.asc").astype(np.float64)
        views, truth = views_around(points, count, rng)
        diagonal = float(np.linalg.norm(np.ptp(points, axis=0)))
        right = (2.0, 0.01 * diagonal)
        unit = (100.0 / diagonal, "% of the diagonal")
        out.append((f"{count} views of {name} in order", views, truth, right, unit))
        order = rng.permutation(count)
        shuffled = [views[i] for i in order]
        out.append((f"{count} views of {name} shuffled", shuffled, [truth[i] for i in order], right, unit))
        other = basic.read_asc(data / ("bunny.asc" if name != "bunny" else "dragon_res4.asc")).astype(np.float32)
        out.append((f"{count} views of {name} shuffled + a stranger + {len(strangers)} LiDAR/laser scans",
                    shuffled[:3] + [other] + shuffled[3:] + strangers,
                    [truth[i] for i in order[:3]] + [None] + [truth[i] for i in order[3:]] + [None] * len(strangers),
                    right, unit))
    return out


def judge(poses, placed, truth, right, reference=0):
    """placed right, placed wrong, unplaced among those with a truth, strangers placed, and the ATE."""
    good = wrong = unplaced = strangers = 0
    errors = []
    for i, t in enumerate(truth):
        if t is None:
            strangers += placed[i]
            continue
        if not placed[i]:
            unplaced += 1
            continue
        expected = np.linalg.inv(truth[reference]) @ t
        r = poses[i][:3, :3] @ expected[:3, :3].T
        angle = math.degrees(math.acos(max(-1.0, min(1.0, (np.trace(r) - 1) / 2))))
        shift = float(np.linalg.norm(poses[i][:3, 3] - expected[:3, 3]))
        errors.append(shift)
        if angle < right[0] and shift < right[1]:
            good += 1
        else:
            wrong += 1
    ate = float(np.sqrt(np.mean(np.square(errors)))) if errors else float("nan")
    return good, wrong, unplaced, strangers, ate


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--data", required=True)
    parser.add_argument("--threads", default="1,2")
    parser.add_argument("--quick", action="store_true")
    args = parser.parse_args()
    rng = np.random.default_rng(5)
    rows = ["| collection | threads | placed right | placed wrong | unplaced (of scans with a truth) | strangers "
            "placed | ATE | time | every pair through qorv.register, one by one |", "|---|---|---|---|---|---|---|---|---|"]
    for name, scans, truth, right, (scale, unit) in collections(pathlib.Path(args.data), rng, args.quick):
        for threads in [int(t) for t in args.threads.split(",")]:
            start = time.perf_counter()
            result = qorv.multiway(scans, threads=threads)
            seconds = time.perf_counter() - start
            good, wrong, unplaced, strangers, ate = judge(result.poses, result.placed, truth, right)
            one_by_one = "-"
            if threads == 1:
                start = time.perf_counter()
                for i in range(len(scans)):
                    for j in range(i + 1, len(scans)):
                        qorv.register(scans[i], scans[j], threads=1)
                one_by_one = f"{time.perf_counter() - start:.1f} s"
            known = sum(t is not None for t in truth)
            rows.append(f"| {name} ({len(scans)} scans) | {threads} | {good} | {wrong} | {unplaced} of {known} | "
                        f"{strangers} of {len(scans) - known} | {scale * ate:.2f} {unit} | {seconds:.1f} s | {one_by_one} |")
            print(rows[-1], file=sys.stderr, flush=True)
    print("\n".join(rows))
    print("\nCommand: `make bench-multiway DATA=../shared/data`")


if __name__ == "__main__":
    main()
