# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Hard pairs made from the development scans, of the kinds that trip a registration verdict:
driving-LiDAR key-frames tens of metres apart (ground-dominated), fused indoor fragments down to low
overlap, depth frames seen by cameras turned far apart, sparse key-point clouds of a room, small
clouds of a few hundred points, and pairs with no right answer at all. Each pair is (set, name,
target, source, truth, scale, options): truth carries source points onto the target (None when
there is no right answer), options are extra keyword arguments of the register call (viewpoints).

Every kind is generated from a seed; the "dev" seed is what the engine's settings were chosen on,
the "test" seed is kept for checking only."""

import math
import pathlib

import numpy as np

import pairs as basic

SEEDS = {"dev": 11, "test": 7331}


def rot(axis, degrees):
    c, s = math.cos(math.radians(degrees)), math.sin(math.radians(degrees))
    i, j = [(1, 2), (0, 2), (0, 1)][axis]
    r = np.eye(3)
    r[i, i], r[i, j], r[j, i], r[j, j] = c, -s, s, c
    return r


def motion(r, t):
    m = np.eye(4)
    m[:3, :3], m[:3, 3] = r, t
    return m


def moved(points, m):
    return (points @ m[:3, :3].T + m[:3, 3]).astype(np.float32)


def lidar_pairs(data, rng, count):
    """Scan 1 cropped around a point 5-30 m down or across the road, re-centred there and turned,
    onto scan 0 cropped around its sensor; both thinned like key-frames kept for a map."""
    folder = data / "kitti"
    if not (folder / "T_0_1.txt").exists():
        return
    a = basic.read_ply_xyz(folder / "000000.ply").astype(np.float64)
    b = basic.read_ply_xyz(folder / "000001.ply").astype(np.float64)
    t01 = np.loadtxt(folder / "T_0_1.txt").reshape(4, 4)
    for k in range(count):
        keep_a, keep_b = rng.uniform(0.05, 0.4), rng.uniform(0.05, 0.4)
        radius = rng.choice([20.0, 25.0, 30.0, 40.0])
        distance = rng.uniform(5, 30) * radius / 40.0 * 1.2
        heading = rng.choice([0.0, 0.0, 90.0, 180.0, rng.uniform(0, 360)])  # mostly along the road
        c = np.array([distance * math.cos(math.radians(heading)),
                      distance * math.sin(math.radians(heading)), 0.0])
        turn = float(rng.choice([0.0, 45.0, 90.0, 180.0, rng.uniform(-180, 180)]))
        ta = a[(rng.random(len(a)) < keep_a) & (np.linalg.norm(a[:, :2], axis=1) < radius)]
        sb = b[(rng.random(len(b)) < keep_b) & (np.linalg.norm(b[:, :2] - c[:2], axis=1) < radius)]
        r = rot(2, turn)
        source = (sb - c) @ r.T
        truth = t01 @ motion(r.T, c)
        # Every other pair says where each sensor was (the source's sits at -R c after the re-centring).
        sight = dict(target_viewpoint=[0.0, 0.0, 0.0], source_viewpoint=-(r @ c)) if k % 2 == 0 else {}
        yield ("lidar", f"key-frames {distance:.0f} m apart, turned {turn:.0f} deg, r {radius:.0f} m"
               f"{', sensors known' if sight else ''}", ta.astype(np.float32), source.astype(np.float32),
               truth, 2 * radius, sight)


def fragment_pairs(data, rng, count):
    """The two fragment pairs, the source turned at random; also cut to lower overlap, and thinned to
    a few thousand points (sparse key-point clouds of a room)."""
    folder = data / "fragments"
    if not (folder / "T_hotel3_8_15.txt").exists():
        return
    sets = []
    for t, s, f in (("hotel3_cloud_bin_8", "hotel3_cloud_bin_15", "T_hotel3_8_15.txt"),
                    ("home_at_cloud_bin_38", "home_at_cloud_bin_41", "T_home_at_38_41.txt")):
        sets.append((t.split("_cloud")[0], basic.read_ply_xyz(folder / f"{t}.ply").astype(np.float64),
                     basic.read_ply_xyz(folder / f"{s}.ply").astype(np.float64),
                     np.loadtxt(folder / f).reshape(4, 4)))
    for k in range(count):
        name, target, source, truth = sets[k % 2]
        variant = ["whole", "cut", "sparse"][(k // 2) % 3]
        if variant == "cut":  # drop the part of each fragment nearest the other's centre
            into = moved(source, truth).astype(np.float64)
            d = target.mean(0) - into.mean(0)
            d /= np.linalg.norm(d)
            cut = rng.uniform(0.1, 0.3)
            along_t, along_s = target @ d, into @ d
            target = target[along_t > np.quantile(along_t, cut)]
            source = source[along_s < np.quantile(along_s, 1 - cut)]
        elif variant == "sparse":
            target = target[rng.permutation(len(target))[: int(rng.uniform(2000, 4000))]]
            source = source[rng.permutation(len(source))[: int(rng.uniform(2000, 4000))]]
        q = motion(basic.random_rotation(rng), rng.normal(size=3))
        kind = "sparse" if variant == "sparse" else "fragments"
        yield (kind, f"{name} {variant}", target.astype(np.float32), moved(source, q),
               truth @ np.linalg.inv(q), 4.0, {})


def render(points, r, width=640, height=480):
    """The organized frame a camera turned by r (camera-to-frame rotation) at the same origin sees of
    points: nearest point per pixel, NaN elsewhere."""
    local = points @ r  # r^T p
    z = local[:, 2]
    ok = z > 0.1
    local, z = local[ok], z[ok]
    u = np.round(local[:, 0] / z * basic.FX + basic.CX).astype(int)
    v = np.round(local[:, 1] / z * basic.FY + basic.CY).astype(int)
    inside = (u >= 0) & (u < width) & (v >= 0) & (v < height)
    local, z, u, v = local[inside], z[inside], u[inside], v[inside]
    order = np.argsort(-z)  # the nearest point is written last
    frame = np.full((height, width, 3), np.nan, np.float32)
    frame[v[order], u[order]] = local[order]
    return frame


def turned_frame_pairs(data, rng, count):
    """Two cameras at the origins of frames 0 and j, turned apart by 20-45 degrees (each half of the
    way), each seeing what the real frame saw of its own field of view."""
    folder = data / "rgbd" / "sequence_a"
    frames = sorted((folder / "depth").glob("*.png"))
    poses = basic.read_trajectory(folder / "trajectory.log")
    clouds = [basic.read_depth_frame(f) for f in frames]
    for k in range(count):
        j = int(rng.integers(1, len(frames)))
        angle = rng.uniform(20, 45)
        axis = rng.choice([0, 1, 1])  # mostly panning
        rt, rs = rot(axis, -angle / 2), rot(axis, angle / 2)
        pt = clouds[0][np.isfinite(clouds[0][..., 2])].astype(np.float64)
        ps = clouds[j][np.isfinite(clouds[j][..., 2])].astype(np.float64)
        target, source = render(pt, rt), render(ps, rs)
        truth = motion(rt.T, np.zeros(3)) @ np.linalg.inv(poses[0]) @ poses[j] @ motion(rs, np.zeros(3))
        yield ("frames", f"frames 0-{j} turned {angle:.0f} deg ({'xyz'[axis]})", target, source, truth,
               5.0, {})


def bunny_views(rng, count, low, thin, noise, data):
    """Partial views of the bunny sharing low-90 % of it, thinned to thin = (fewest, most) points a
    view or not (None), every other one with Gaussian noise of `noise` x the mean spacing."""
    points = basic.read_asc(data / "bunny.asc").astype(np.float64)
    spacing = basic.mean_spacing(points)
    diagonal = float(np.linalg.norm(np.ptp(points, axis=0)))
    for k in range(count):
        target, source, overlap = basic.cut_views(points, rng, low, 0.9)
        what = "views"
        if thin:
            n = int(rng.uniform(*thin))
            target = target[rng.permutation(len(target))[:n]]
            source = source[rng.permutation(len(source))[:n]]
            what = f"{n} points"
        if k % 2:
            target = target + rng.normal(scale=noise * spacing, size=target.shape)
            source = source + rng.normal(scale=noise * spacing, size=source.shape)
        m = motion(basic.random_rotation(rng), rng.normal(size=3) * 0.5 * diagonal)
        yield ("small", f"bunny {what} {'noisy' if k % 2 else 'clean'} ({100 * overlap:.0f} % shared)",
               target.astype(np.float32), moved(source, m), np.linalg.inv(m), diagonal, {})


def small_pairs(data, rng, count):
    """Partial views of the bunny thinned to 250-700 points, clean and noisy."""
    return bunny_views(rng, count, 0.5, (250, 700), 0.3, data)


def bunny_view_pairs(data, rng, count):
    """Partial views of the whole bunny (1,839 points), clean and noisy."""
    return bunny_views(rng, count, 0.3, None, 0.5, data)


def trap_pairs(data, rng, count):
    """Wrong answers built on purpose: local refinement started from the right motion turned by
    90-180 degrees about the vertical (ground-dominated LiDAR, rooms) or about a random axis (frames,
    objects), or shifted along the road. Whatever it settles on, the verdict must not call a wrong
    one registered."""
    sources = []
    for make, n in ((lidar_pairs, 3), (fragment_pairs, 2), (turned_frame_pairs, 2), (bunny_view_pairs, 2)):
        sources += list(make(data, rng, n))
    k = 0
    while k < count and sources:
        kind, name, target, source, truth, scale, opts = sources[k % len(sources)]
        axis = 2 if kind in ("lidar", "fragments", "sparse") else int(rng.integers(0, 3))
        if kind == "lidar" and k % 3 == 2:
            wrong, what = motion(np.eye(3), [rng.choice([-1, 1]) * rng.uniform(5, 15), 0, 0]), "shifted"
        else:
            angle = float(rng.choice([90.0, 180.0, -90.0, rng.uniform(60, 180)]))
            wrong, what = motion(rot(axis, angle), np.zeros(3)), f"turned {angle:.0f} deg"
        centre = np.nanmean(target.reshape(-1, 3), axis=0)
        about = motion(np.eye(3), centre) @ wrong @ motion(np.eye(3), -centre)
        yield (kind + "-trap", f"{name} / start {what}", target, source, truth,
               scale, dict(opts, mode="local", initial=about @ truth))
        k += 1


def unrelated_pairs(data, rng, count):
    """Pairs with no right answer: two different rooms, two stretches of road that do not meet, two
    objects, a frame against a room."""
    out = []
    folder = data / "fragments"
    if (folder / "hotel3_cloud_bin_8.ply").exists():
        hotel = basic.read_ply_xyz(folder / "hotel3_cloud_bin_8.ply")
        home = basic.read_ply_xyz(folder / "home_at_cloud_bin_41.ply")
        out.append(("two rooms", hotel, home))
    kitti = data / "kitti"
    if (kitti / "000000.ply").exists():
        a = basic.read_ply_xyz(kitti / "000000.ply").astype(np.float64)
        b = basic.read_ply_xyz(kitti / "000001.ply").astype(np.float64)
        near = a[(np.linalg.norm(a[:, :2], axis=1) < 20) & (rng.random(len(a)) < 0.3)]
        far = b[(np.linalg.norm(b[:, :2] - [45.0, 0.0], axis=1) < 20) & (rng.random(len(b)) < 0.3)]
        out.append(("road stretches 45 m apart", near, far - [45.0, 0.0, 0.0]))
        side = b[(np.linalg.norm(b[:, :2] - [0.0, 40.0], axis=1) < 20) & (rng.random(len(b)) < 0.3)]
        out.append(("road and a side street", near, side - [0.0, 40.0, 0.0]))
    dragon = basic.read_asc(data / "dragon_res3.asc")
    bunny = basic.read_asc(data / "bunny.asc")
    out.append(("dragon and bunny", dragon, bunny * (np.ptp(dragon, 0).max() / np.ptp(bunny, 0).max())))
    for k in range(count):
        name, target, source = out[k % len(out)]
        m = motion(basic.random_rotation(rng), rng.normal(size=3) * 0.1)
        yield ("unrelated", name, np.asarray(target, np.float32), moved(source, m), None, 1.0, {})


KINDS = {"lidar": (lidar_pairs, 10), "fragments": (fragment_pairs, 6), "frames": (turned_frame_pairs, 6),
         "small": (small_pairs, 6), "bunny": (bunny_view_pairs, 6), "unrelated": (unrelated_pairs, 4),
         "traps": (trap_pairs, 14)}


def hard_pairs(data, split, kinds=None, scale=1.0):
    data = pathlib.Path(data)
    out = []
    for name, seed in SEEDS.items():
        if split not in (name, "all"):
            continue
        for kind, (make, count) in KINDS.items():
            if kinds and kind not in kinds:
                continue
            rng = np.random.default_rng([seed, sum(map(ord, kind))])
            for p in make(data, rng, max(1, int(round(count * scale)))):
                out.append((f"{p[0]} ({name})", *p[1:]))
    return out
