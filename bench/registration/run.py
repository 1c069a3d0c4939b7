#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""The registration benchmark: our engine (qorv.register) against Open3D's RANSAC + ICP on the same
pairs in the same run, at 1 and 2 threads, Open3D at the voxels its users pick for each kind of
scan. Reports success, the verdict's precision (wrong answers called registered) and right answers
refused, and times. Prints a markdown table and writes it, with every pair's result, to the output
folder.

With QORV_BENCH_KISS_MATCHER naming a KISS-Matcher runner built outside this repository, the LiDAR
sets run it too (see docs/BENCHMARK.md).

Our engine runs twice: with its default generalized ICP refinement ("ours") and with point-to-plane
ICP ("ours (plane)"), unless --no-plane.

usage: run.py --data DIR [--split dev|test|all] [--per-scan N] [--quick] [--no-peer] [--no-plane]
              [--sets PREFIX,...] [--out DIR]"""

import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import time

import numpy as np

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path.insert(0, str(HERE))
sys.path.insert(0, str(ROOT / "python"))
import hard_pairs  # noqa: E402
import pairs as pairsets  # noqa: E402
import qorv  # noqa: E402

# What counts as a right answer, per kind: rotation error (degrees), translation error (metres, or a
# share of the scene diagonal for generated views of objects).
CRITERIA = {"rgbd": (1.0, 0.03), "laser": (1.0, 0.3), "views": (5.0, 0.05), "lidar": (2.0, 0.5),
            "fragments": (5.0, 0.2), "sparse": (5.0, 0.2), "frames": (2.0, 0.05), "small": (5.0, 0.05)}
RELATIVE = ("views", "small")
# The voxels Open3D's users pick for each kind (its tutorials: 5 cm for rooms; 0.5-1 m for driving
# LiDAR); None: the engine's own voxel (objects, where no common choice exists).
PEER_VOXELS = {"rgbd": [0.02, 0.05], "frames": [0.02, 0.05], "fragments": [0.05], "sparse": [0.05],
               "lidar": [0.5, 1.0], "laser": [0.5, 1.0], "views": [None], "small": [None],
               "unrelated": [None]}


def kind_of(pair):
    return pair[0].split()[0].replace("-trap", "")


def errors(transform, truth):
    r = np.asarray(transform)[:3, :3] @ np.asarray(truth)[:3, :3].T
    angle = float(np.degrees(np.arccos(np.clip((np.trace(r) - 1) / 2, -1, 1))))
    return angle, float(np.linalg.norm(np.asarray(transform)[:3, 3] - np.asarray(truth)[:3, 3]))


def judge(pair, transform):
    """Rotation error and translation error, and whether the answer is right. Translation: for
    scans, the error of the answer at the source's centre; for generated views of objects (moved
    far from the origin) the RMS displacement of the source points as a share of the diagonal."""
    kind = kind_of(pair)
    if pair[4] is None:
        return float("nan"), float("nan"), False
    transform, truth = np.asarray(transform), np.asarray(pair[4])
    angle, _ = errors(transform, truth)
    source = pair[3].reshape(-1, 3)
    source = source[np.isfinite(source).all(axis=1)]
    source = source[::max(1, len(source) // 2000)].astype(np.float64)
    difference = transform - truth
    moved = source @ difference[:3, :3].T + difference[:3, 3]
    if kind in RELATIVE:
        shift = float(np.sqrt(np.mean(np.sum(moved ** 2, axis=1)))) / pair[5]
    else:
        shift = float(np.linalg.norm(moved.mean(axis=0)))
    max_angle, max_shift = CRITERIA[kind]
    return angle, shift, bool(angle < max_angle and shift < max_shift)


def run_ours(pairs, threads, refine="gicp"):
    out = []
    for i, pair in enumerate(pairs):
        options = pair[6] if len(pair) > 6 else {}
        start = time.perf_counter()
        result = qorv.register(pair[2], pair[3], threads=threads, refine=refine, **options)
        seconds = time.perf_counter() - start
        angle, shift, ok = judge(pair, result.transform)
        out.append(dict(pair=i, method="ours" if refine == "gicp" else f"ours ({refine})", voxel=result.voxel, voxel_choice="engine's",
                        threads=threads, seconds=seconds, angle=angle, shift=shift, ok=ok,
                        registered=result.registered, reason=result.reason, fitness=result.fitness,
                        target_overlap=result.target_overlap, inlier_rmse=result.inlier_rmse,
                        inlier_distance=result.inlier_distance, normal_agreement=result.normal_agreement,
                        coherence=result.coherence,
                        tries=result.tries,
                        consistent_pairs=result.consistent_pairs, chance_pairs=result.chance_pairs,
                        constrained=result.constrained, conditioning=result.conditioning,
                        free_space_conflict=result.free_space_conflict, rival_share=result.rival_share,
                        mode=options.get("mode", "global")))
    return out


def run_open3d(pairs, jobs, threads, work):
    np.savez(work / "pairs.npz", **{f"target{i}": p[2] for i, p in enumerate(pairs)},
             **{f"source{i}": p[3] for i, p in enumerate(pairs)})
    (work / "jobs.json").write_text(json.dumps(jobs))
    env = dict(os.environ, OMP_NUM_THREADS=str(threads))
    subprocess.run([sys.executable, str(HERE / "open3d_peer.py"), str(work / "pairs.npz"),
                    str(work / "jobs.json"), str(work / "open3d.json")], check=True, env=env)
    out = []
    for r in json.loads((work / "open3d.json").read_text()):
        angle, shift, ok = judge(pairs[r["pair"]], r["transform"])
        out.append(dict(r, threads=threads, angle=angle, shift=shift, ok=ok, registered=None))
    return out


def write_ply(path, points):
    points = np.asarray(points, np.float32).reshape(-1, 3)
    points = points[np.isfinite(points).all(axis=1)]
    with open(path, "wb") as f:
        f.write(f"ply\nformat binary_little_endian 1.0\nelement vertex {len(points)}\nproperty float x\n"
                f"property float y\nproperty float z\nend_header\n".encode())
        f.write(points.tobytes())


def run_kiss_matcher(runner, pairs, threads, work):
    """KISS-Matcher + GICP through a runner built outside this repository (QORV_BENCH_KISS_MATCHER:
    `runner TARGET.ply SOURCE.ply VOXEL --threads N` printing one JSON line with "transform" (16
    numbers, source onto target) and "seconds"), at its example voxel for outdoor LiDAR, 0.3 m."""
    out = []
    for i, pair in enumerate(pairs):
        if kind_of(pair) not in ("lidar", "laser") or (len(pair) > 6 and pair[6].get("mode")):
            continue
        write_ply(work / "kt.ply", pair[2])
        write_ply(work / "ks.ply", pair[3])
        done = subprocess.run([runner, str(work / "kt.ply"), str(work / "ks.ply"), "0.3", "--threads",
                               str(threads)], capture_output=True, text=True, timeout=600)
        answer = json.loads(done.stdout.strip().splitlines()[-1])
        transform = np.array(answer["transform"], float).reshape(4, 4)
        angle, shift, ok = judge(pair, transform)
        out.append(dict(pair=i, method="kiss-matcher+gicp", voxel=0.3, voxel_choice="0.3", threads=threads,
                        seconds=answer["seconds"], angle=angle, shift=shift, ok=ok, registered=None))
    return out


def table(pairs, results, command):
    rows = ["| set (pairs) | method | voxel | threads | right | said registered: wrong | right but refused "
            "| median rotation / translation error | median time | median time refused |",
            "|---|---|---|---|---|---|---|---|---|---|"]
    sets = list(dict.fromkeys(p[0] for p in pairs))
    methods = list(dict.fromkeys((r["method"], r["voxel_choice"]) for r in results))
    for s in sets:
        members = [i for i, p in enumerate(pairs) if p[0] == s]
        unit = "%" if kind_of(pairs[members[0]]) in RELATIVE else "mm"
        for method, choice in methods:
            for threads in sorted({r["threads"] for r in results}):
                rs = [r for r in results if r["method"] == method and r["voxel_choice"] == choice
                      and r["threads"] == threads and r["pair"] in members]
                if not rs:
                    continue
                good = [r for r in rs if r["ok"]]
                if good:
                    scale = 100 if unit == "%" else 1000
                    error = (f"{statistics.median(r['angle'] for r in good):.2f} deg / "
                             f"{scale * statistics.median(r['shift'] for r in good):.1f} {unit}")
                else:
                    error = "-"
                times = [r["seconds"] for r in rs]
                if method.startswith("ours"):
                    said = [r for r in rs if r["registered"]]
                    wrong = f"{sum(not r['ok'] for r in said)} of {len(said)}"
                    refused = str(sum(r["ok"] and not r["registered"] for r in rs))
                    right = sum(r["ok"] and r["registered"] for r in rs)
                    no = [r["seconds"] for r in rs if not r["registered"]]
                    slow = f"{1000 * statistics.median(no):.0f} ms" if no else "-"
                else:
                    wrong, refused, right, slow = "(no verdict)", "-", len(good), "-"
                rows.append(f"| {s} ({len(members)}) | {method} | {choice} | {threads} | {right}/{len(rs)} | "
                            f"{wrong} | {refused} | {error} | {1000 * statistics.median(times):.0f} ms | {slow} |")
    return "\n".join(rows) + f"\n\nCommand: `{command}`\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--data", required=True, help="folder of the development scans (bunny.asc, rgbd/, laser/ ...)")
    parser.add_argument("--split", choices=["dev", "test", "all"], default="all")
    parser.add_argument("--per-scan", type=int, default=2, help="view pairs per scan and noise level")
    parser.add_argument("--quick", action="store_true", help="fewer pairs, threads 2 only")
    parser.add_argument("--no-peer", action="store_true", help="ours only")
    parser.add_argument("--no-plane", action="store_true", help="ours with its default refinement only")
    parser.add_argument("--sets", help="only the sets whose names start with one of these comma-separated prefixes")
    parser.add_argument("--threads", default="1,2")
    parser.add_argument("--out", default=str(ROOT / "build" / "registration-bench"))
    args = parser.parse_args()
    out = pathlib.Path(args.out)
    out.mkdir(parents=True, exist_ok=True)
    pairs = pairsets.all_pairs(args.data, args.split, 1 if args.quick else args.per_scan)
    pairs += hard_pairs.hard_pairs(args.data, args.split, scale=0.5 if args.quick else 1.0)
    if args.sets:
        pairs = [p for p in pairs if p[0].startswith(tuple(args.sets.split(",")))]
    thread_counts = [2] if args.quick else [int(t) for t in args.threads.split(",")]
    results = []
    for threads in thread_counts:
        ours = run_ours(pairs, threads)
        results += ours
        if not args.no_plane:
            results += run_ours(pairs, threads, refine="plane")
        if args.no_peer:
            continue
        jobs = []
        for r in ours:
            pair = pairs[r["pair"]]
            if r["mode"] != "global":
                continue  # wrong starts test our verdict; the peer has none
            for voxel in PEER_VOXELS[kind_of(pair)]:
                jobs.append(dict(pair=r["pair"], method="ransac", voxel=voxel or r["voxel"],
                                 voxel_choice=f"{voxel:g}" if voxel else "engine's"))
        for r in run_open3d(pairs, jobs, threads, out):
            r["method"] = "open3d ransac+icp"
            results.append(r)
        if os.environ.get("QORV_BENCH_KISS_MATCHER"):
            results += run_kiss_matcher(os.environ["QORV_BENCH_KISS_MATCHER"], pairs, threads, out)
        print(f"[{threads} thread(s)] {len(pairs)} pairs done", file=sys.stderr)
    command = "make bench-registration DATA=../shared/data" + ("" if args.split == "all" else f" SPLIT={args.split}")
    text = table(pairs, results, command)
    print(text)
    (out / "registration_table.md").write_text(text)
    (out / "registration_results.json").write_text(json.dumps(
        [dict(r, set=pairs[r["pair"]][0], name=pairs[r["pair"]][1]) for r in results], indent=1))


if __name__ == "__main__":
    main()
