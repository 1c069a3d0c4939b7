# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Open3D's global registration as its users run it (the documented pipeline): voxel down-sampling,
normals (radius 2 v, 30 neighbours), FPFH (radius 5 v, 100 neighbours), then RANSAC on feature
matches (mutual filter, distance 1.5 v, edge-length 0.9 and distance checkers, 100,000 iterations,
confidence 0.999) or FGR (distance 0.5 v), each followed by point-to-plane ICP (distance 0.4 v).
Run as a worker: OMP_NUM_THREADS must be set before open3d is imported.
usage: open3d_peer.py PAIRS.npz JOBS.json RESULTS.json"""

import json
import sys
import time

import numpy as np


def main():
    import open3d as o3d
    reg = o3d.pipelines.registration
    o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
    pairs = np.load(sys.argv[1])
    jobs = json.load(open(sys.argv[2]))

    def prepare(points, voxel):
        points = points.reshape(-1, 3)
        points = points[np.isfinite(points).all(axis=1)]
        cloud = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(points.astype(np.float64)))
        down = cloud.voxel_down_sample(voxel)
        down.estimate_normals(o3d.geometry.KDTreeSearchParamHybrid(radius=2 * voxel, max_nn=30))
        fpfh = reg.compute_fpfh_feature(down, o3d.geometry.KDTreeSearchParamHybrid(radius=5 * voxel,
                                                                                     max_nn=100))
        return down, fpfh

    results = []
    for job in jobs:
        target = pairs[f"target{job['pair']}"]
        source = pairs[f"source{job['pair']}"]
        voxel = job["voxel"]
        start = time.perf_counter()
        t, tf = prepare(target, voxel)
        s, sf = prepare(source, voxel)
        if job["method"] == "ransac":
            found = reg.registration_ransac_based_on_feature_matching(
                s, t, sf, tf, True, 1.5 * voxel, reg.TransformationEstimationPointToPoint(False), 3,
                [reg.CorrespondenceCheckerBasedOnEdgeLength(0.9),
                 reg.CorrespondenceCheckerBasedOnDistance(1.5 * voxel)],
                reg.RANSACConvergenceCriteria(100000, 0.999))
        else:
            found = reg.registration_fgr_based_on_feature_matching(
                s, t, sf, tf, reg.FastGlobalRegistrationOption(maximum_correspondence_distance=0.5 * voxel))
        refined = reg.registration_icp(s, t, 0.4 * voxel, found.transformation,
                                       reg.TransformationEstimationPointToPlane())
        seconds = time.perf_counter() - start
        results.append(dict(job, transform=np.asarray(refined.transformation).tolist(),
                            seconds=seconds, fitness=refined.fitness))
    json.dump(results, open(sys.argv[3], "w"))


if __name__ == "__main__":
    main()
