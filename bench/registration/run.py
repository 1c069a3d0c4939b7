#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""The registration benchmark: our engine (qorv.register) against Open3D's RANSAC + ICP and FGR +
ICP on the same pairs in the same run, at 1 and 2 threads. Prints a markdown table and writes it,
with every pair's result, to the output folder.

usage: run.py [--data DIR] [--split dev|test|all] [--per-scan N] [--quick] [--out DIR]"""

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
import pairs as pairsets  # noqa: E402
import qorv  # noqa: E402

# What counts as a right answer, per set: rotation error (degrees), translation error (metres, or a
# share of the scene diagonal for the generated views).
CRITERIA = {"rgbd": (1.0, 0.03), "laser": (1.0, 0.3), "views": (5.0, 0.05)}
TUTORIAL_VOXEL = {"rgbd": 0.05}  # the voxel of Open3D's own registration tutorial (rooms)


def errors(transform, truth):
    r = np.asarray(transform)[:3, :3] @ np.asarray(truth)[:3, :3].T
    angle = float(np.degrees(np.arccos(np.clip((np.trace(r) - 1) / 2, -1, 1))))
    return angle, float(np.linalg.norm(np.asarray(transform)[:3, 3] - np.asarray(truth)[:3, 3]))


def judge(pair, transform):
    """Rotation error, and the translation error: for sensor frames the distance between the
    translations; for generated views (moved far from the origin) the RMS displacement of the source
    points between the answer and the truth, as a share of the diagonal."""
    kind = pair[0].split()[0]
    angle, shift = errors(transform, pair[4])
    max_angle, max_shift = CRITERIA[kind]
    if kind == "views":
        source = pair[3][::max(1, len(pair[3]) // 2000)].astype(np.float64)
        difference = np.asarray(transform) - np.asarray(pair[4])
        shift = float(np.sqrt(np.mean(np.sum((source @ difference[:3, :3].T + difference[:3, 3]) ** 2,
                                             axis=1)))) / pair[5]
    return angle, shift, bool(angle < max_angle and shift < max_shift)


def run_ours(pairs, threads):
    out = []
    for i, pair in enumerate(pairs):
        start = time.perf_counter()
        result = qorv.register(pair[2], pair[3], threads=threads)
        seconds = time.perf_counter() - start
        angle, shift, ok = judge(pair, result.transform)
        out.append(dict(pair=i, method="engine", voxel=result.voxel, threads=threads, seconds=seconds,
                        angle=angle, shift=shift, ok=ok, registered=result.registered,
                        reason=result.reason, fitness=result.fitness,
                        consistent_pairs=result.consistent_pairs))
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


def table(pairs, results, command):
    rows = ["| set | method | voxel | threads | success | median rotation error | median translation "
            "error | verdict: registered, wrong among them | median time | total time |",
            "|---|---|---|---|---|---|---|---|---|---|"]
    sets = list(dict.fromkeys(p[0] for p in pairs))
    methods = list(dict.fromkeys((r["method"], r.get("voxel_choice", "engine's")) for r in results))
    for s in sets:
        members = [i for i, p in enumerate(pairs) if p[0] == s]
        unit = "of the diagonal" if s.startswith("views") else "m"
        for method, choice in methods:
            for threads in sorted({r["threads"] for r in results}):
                rs = [r for r in results if r["method"] == method and r.get("voxel_choice", "engine's") == choice
                      and r["threads"] == threads and r["pair"] in members]
                if not rs:
                    continue
                good = [r for r in rs if r["ok"]]
                angle = f"{statistics.median(r['angle'] for r in good):.3f} deg" if good else "-"
                if good and unit == "m":
                    shift = f"{1000 * statistics.median(r['shift'] for r in good):.1f} mm"
                elif good:
                    shift = f"{100 * statistics.median(r['shift'] for r in good):.2f} %"
                else:
                    shift = "-"
                if method == "engine":
                    said = [r for r in rs if r["registered"]]
                    verdict = f"{len(said)}, {sum(not r['ok'] for r in said)} wrong"
                else:
                    verdict = "(no verdict)"
                times = [r["seconds"] for r in rs]
                rows.append(f"| {s} ({len(members)}) | {method} | {choice} | {threads} | {len(good)}/{len(rs)} | "
                            f"{angle} | {shift} | {verdict} | {1000 * statistics.median(times):.0f} ms | "
                            f"{sum(times):.2f} s |")
    return "\n".join(rows) + f"\n\nCommand: `{command}`\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--data", required=True, help="folder of the development scans (bunny.asc, rgbd/, laser/ ...)")
    parser.add_argument("--split", choices=["dev", "test", "all"], default="all")
    parser.add_argument("--per-scan", type=int, default=4, help="view pairs per scan and noise level")
    parser.add_argument("--quick", action="store_true", help="one view pair per scan, threads 2 only")
    parser.add_argument("--out", default=str(ROOT / "build" / "registration-bench"))
    args = parser.parse_args()
    out = pathlib.Path(args.out)
    out.mkdir(parents=True, exist_ok=True)
    pairs = pairsets.all_pairs(args.data, args.split, 1 if args.quick else args.per_scan)
    thread_counts = [2] if args.quick else [1, 2]
    results = []
    for threads in thread_counts:
        ours = run_ours(pairs, threads)
        results += ours
        jobs = []
        for r in ours:
            kind = pairs[r["pair"]][0].split()[0]
            for method in ("open3d ransac+icp", "open3d fgr+icp"):
                jobs.append(dict(pair=r["pair"], method=method, voxel=r["voxel"], voxel_choice="engine's"))
                if kind in TUTORIAL_VOXEL:
                    jobs.append(dict(pair=r["pair"], method=method, voxel=TUTORIAL_VOXEL[kind],
                                     voxel_choice="tutorial's"))
        for job in jobs:
            job["method"] = job["method"]
        peer_jobs = [dict(j, method="ransac" if "ransac" in j["method"] else "fgr") for j in jobs]
        for j, r in zip(jobs, run_open3d(pairs, peer_jobs, threads, out)):
            r["method"] = j["method"]
            results.append(r)
        print(f"[{threads} thread(s)] {len(pairs)} pairs done", file=sys.stderr)
    command = "make bench-registration" + ("" if args.split == "all" else f" SPLIT={args.split}")
    text = table(pairs, results, command)
    print(text)
    (out / "registration_table.md").write_text(text)
    (out / "registration_results.json").write_text(json.dumps(
        [dict(r, set=pairs[r["pair"]][0], name=pairs[r["pair"]][1]) for r in results], indent=1))


if __name__ == "__main__":
    main()
