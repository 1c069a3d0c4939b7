# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Local refinement against the peers anyone can install from Debian: our engine's local mode
(qorv.register(mode="local")) beside Open3D's point-to-plane ICP (python3-open3d) and PCL's
point-to-plane ICP and generalized ICP (libpcl-dev, through bench/peers' qorv_pcl_local), on the
same clouds from the same start, at 1 and 2 threads, taking turns run by run; medians of --runs.

Pairs: the laser pair and the two driving scans from the identity (voxel 0.25 m for the peers, as
LiDAR users pick), consecutive depth frames from the identity (2 cm) and the fused fragments
started 5 degrees and 5 cm off their reference (2 cm). The peers voxel-filter both clouds, take
normals or covariances from 20-30 neighbours and pair points within 4 voxels; ours runs with its
defaults (it chooses its own scales). Errors are against the data's reference motions.

    python3 bench/registration/local_bench.py --data ../shared/data --pcl build-peers/qorv_pcl_local
"""

import argparse
import json
import math
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))
import qorv  # noqa: E402


def matrix_file(path):
    return np.loadtxt(path).reshape(4, 4)


def turned(degrees, axis, shift):
    axis = np.asarray(axis, float) / np.linalg.norm(axis)
    a = math.radians(degrees)
    k = np.array([[0, -axis[2], axis[1]], [axis[2], 0, -axis[0]], [-axis[1], axis[0], 0]])
    m = np.eye(4)
    m[:3, :3] = np.eye(3) + math.sin(a) * k + (1 - math.cos(a)) * k @ k
    m[:3, 3] = shift
    return m


def trajectory(path):
    rows = [line.split() for line in open(path) if line.strip()]
    poses = []
    for i in range(0, len(rows), 5):
        poses.append(np.array([[float(x) for x in r] for r in rows[i + 1:i + 5]]))
    return poses


def pairs(data):
    out = []
    laser = os.path.join(data, "laser")
    out.append(dict(name="laser 400-401", kind="lidar", voxel=0.25, target=os.path.join(laser, "car_cloud400.ply"),
                    source=os.path.join(laser, "car_cloud401.ply"), start=np.eye(4),
                    reference=matrix_file(os.path.join(laser, "T_400_401.txt"))))
    kitti = os.path.join(data, "kitti")
    if os.path.isdir(kitti):
        out.append(dict(name="driving 0-1", kind="lidar", voxel=0.25, target=os.path.join(kitti, "000000.ply"),
                        source=os.path.join(kitti, "000001.ply"), start=np.eye(4),
                        reference=matrix_file(os.path.join(kitti, "T_0_1.txt"))))
    rgbd = os.path.join(data, "rgbd", "sequence_a")
    poses = trajectory(os.path.join(rgbd, "trajectory.log"))
    for i in range(len(poses) - 1):
        out.append(dict(name=f"depth {i}-{i + 1}", kind="depth", voxel=0.02,
                        target=os.path.join(rgbd, "depth", f"{i:05d}.png"),
                        source=os.path.join(rgbd, "depth", f"{i + 1:05d}.png"), start=np.eye(4),
                        reference=np.linalg.inv(poses[i]) @ poses[i + 1]))
    fragments = os.path.join(data, "fragments")
    if os.path.isdir(fragments):
        reference = matrix_file(os.path.join(fragments, "T_hotel3_8_15.txt"))
        out.append(dict(name="fragments hotel3 8-15", kind="fragments", voxel=0.02,
                        target=os.path.join(fragments, "hotel3_cloud_bin_8.ply"),
                        source=os.path.join(fragments, "hotel3_cloud_bin_15.ply"),
                        start=turned(5.0, [1, 2, 3], [0.05, 0, 0]) @ reference, reference=reference))
    return out


def error(found, reference):
    delta = np.linalg.inv(reference) @ np.asarray(found, dtype=float).reshape(4, 4)
    angle = math.degrees(math.acos(max(-1.0, min(1.0, (np.trace(delta[:3, :3]) - 1) / 2))))
    return angle, float(np.linalg.norm(delta[:3, 3]))


OPEN3D_WORKER = r"""
import json, sys, time
import numpy as np
import open3d as o3d
reg = o3d.pipelines.registration
o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
clouds = np.load(sys.argv[1])
job = json.loads(sys.argv[2])
def cloud(points):
    return o3d.geometry.PointCloud(o3d.utility.Vector3dVector(points.astype(np.float64)))
t, s = cloud(clouds["target"]), cloud(clouds["source"])
v = job["voxel"]
start = time.perf_counter()
td, sd = t.voxel_down_sample(v), s.voxel_down_sample(v)
td.estimate_normals(o3d.geometry.KDTreeSearchParamHybrid(radius=2 * v, max_nn=30))
found = reg.registration_icp(sd, td, 4 * v, np.asarray(job["start"]), reg.TransformationEstimationPointToPlane(),
                             reg.ICPConvergenceCriteria(max_iteration=50))
print(json.dumps(dict(seconds=time.perf_counter() - start, transform=np.asarray(found.transformation).tolist())))
"""


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--data", required=True)
    parser.add_argument("--pcl", help="bench/peers' qorv_pcl_local (omit to leave PCL out)")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--threads", default="1,2")
    parser.add_argument("--no-open3d", action="store_true")
    parser.add_argument("--only", default="", help="pairs whose names start with one of these (comma-separated)")
    args = parser.parse_args()
    folder = tempfile.mkdtemp(prefix="qorv-local-")
    rows = []
    for pair in pairs(args.data):
        if args.only and not any(pair["name"].startswith(p) for p in args.only.split(",")):
            continue
        target = np.ascontiguousarray(qorv.read_cloud(pair["target"]).points, dtype=np.float32)
        source = np.ascontiguousarray(qorv.read_cloud(pair["source"]).points, dtype=np.float32)
        npz = os.path.join(folder, "clouds.npz")
        np.savez(npz, target=target, source=source)
        tpcd, spcd = os.path.join(folder, "target.pcd"), os.path.join(folder, "source.pcd")
        qorv.write_cloud(tpcd, target)
        qorv.write_cloud(spcd, source)
        start = pair["start"]
        for threads in [int(t) for t in args.threads.split(",")]:
            env = dict(os.environ, OMP_NUM_THREADS=str(threads))
            runners = {}

            def ours():
                t0 = time.perf_counter()
                found = qorv.register(target, source, mode="local", initial=start, threads=threads)
                return time.perf_counter() - t0, found.transform

            runners["ours"] = ours
            if not args.no_open3d:
                def open3d():
                    job = json.dumps(dict(voxel=pair["voxel"], start=start.tolist()))
                    done = subprocess.run([sys.executable, "-c", OPEN3D_WORKER, npz, job], env=env, check=True,
                                          capture_output=True, text=True)
                    doc = json.loads(done.stdout)
                    return doc["seconds"], doc["transform"]
                runners["Open3D point-to-plane"] = open3d
            if args.pcl:
                for method, label in (("plane", "PCL point-to-plane"), ("gicp", "PCL GICP")):
                    def pcl(method=method):
                        done = subprocess.run([args.pcl, tpcd, spcd, str(pair["voxel"]), method, str(threads)]
                                              + [repr(float(x)) for x in start.reshape(-1)],
                                              env=env, check=True, capture_output=True, text=True)
                        doc = json.loads(done.stdout)
                        return doc["seconds"], doc["transform"]
                    runners[label] = pcl
            times = {name: [] for name in runners}
            answers = {}
            for _ in range(args.runs):
                for name, run in runners.items():
                    seconds, transform = run()
                    times[name].append(seconds)
                    answers[name] = transform
            for name in runners:
                angle, shift = error(answers[name], pair["reference"])
                rows.append(dict(pair=pair["name"], threads=threads, who=name,
                                 ms=1000 * statistics.median(times[name]), degrees=angle, metres=shift))
                print(f"{pair['name']:24s} {threads} {name:22s} {rows[-1]['ms']:8.1f} ms  "
                      f"{angle:6.3f} deg {100 * shift:7.2f} cm", flush=True)
    print()
    print("| pair | threads | ours | " + " | ".join(n for n in sorted({r['who'] for r in rows}) if n != "ours") + " |")
    for key in sorted({(r["pair"], r["threads"]) for r in rows}, key=lambda k: (k[0], k[1])):
        mine = [r for r in rows if (r["pair"], r["threads"]) == key]
        ours = next(r for r in mine if r["who"] == "ours")
        cells = [f"{ours['ms']:.0f} ms ({ours['degrees']:.2f} deg, {100 * ours['metres']:.1f} cm)"]
        for name in sorted({r['who'] for r in rows}):
            if name == "ours":
                continue
            peer = next((r for r in mine if r["who"] == name), None)
            cells.append("-" if peer is None else
                         f"{peer['ms']:.0f} ms ({peer['degrees']:.2f} deg, {100 * peer['metres']:.1f} cm)")
        print(f"| {key[0]} | {key[1]} | " + " | ".join(cells) + " |")


if __name__ == "__main__":
    main()
