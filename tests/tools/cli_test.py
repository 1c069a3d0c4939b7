# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Tests of the qorv command-line tool: every command on small files, the formats it reads, the
JSON it prints, and its error paths (message and exit status).

Environment: QORV_CLI (the tool), QORV_DATA_DIR (the repository's data folder), QORV_LIBRARY
(the library, for the Python package used to build expectations)."""

import json
import os
import pathlib
import re
import struct
import subprocess

import numpy as np
import pytest

import qorv

ROOT = pathlib.Path(__file__).resolve().parents[2]

CLI = os.environ.get("QORV_CLI", str(ROOT / "build" / "tools" / "qorv"))
DATA = pathlib.Path(os.environ.get("QORV_DATA_DIR", ROOT / "data"))
BUNNY = str(DATA / "sample" / "bunny.asc")


# The tool itself is checked for leaks, unlike the uninstrumented interpreter running this file.
TOOL_ENV = dict(os.environ)
if TOOL_ENV.pop("QORV_TEST_SANITIZED", None):
    TOOL_ENV.pop("LD_PRELOAD", None)
    TOOL_ENV["ASAN_OPTIONS"] = "detect_leaks=1:abort_on_error=1"


def run(*args, expect=0):
    result = subprocess.run([CLI, *map(str, args)], capture_output=True, text=True, timeout=120,
                            env=TOOL_ENV)
    assert result.returncode == expect, (result.returncode, result.stdout, result.stderr)
    return result


def run_json(*args, expect=0):
    result = run("--json", *args, expect=expect)
    return json.loads(result.stdout), result


def fail(*args, status=1, message=""):
    result = run(*args, expect=status)
    assert result.stderr.startswith("qorv: error: "), result.stderr
    assert message in result.stderr, result.stderr
    assert "Traceback" not in result.stderr and "terminate" not in result.stderr


@pytest.fixture(scope="module")
def bunny():
    return np.loadtxt(BUNNY, dtype=np.float32)


def rotation(axis, degrees):
    axis = np.asarray(axis, np.float64) / np.linalg.norm(axis)
    k = np.array([[0, -axis[2], axis[1]], [axis[2], 0, -axis[0]], [-axis[1], axis[0], 0]])
    a = np.radians(degrees)
    return np.eye(3) + np.sin(a) * k + (1 - np.cos(a)) * k @ k


def angle_between(r1, r2):
    return np.degrees(np.arccos(np.clip((np.trace(np.asarray(r1).T @ r2) - 1) / 2, -1, 1)))


def write_asc(path, points, normals=None):
    data = points if normals is None else np.hstack([points, normals])
    np.savetxt(path, data, fmt="%.6f")


# ---- Files of other formats, written here ----------------------------------------------------

def write_ply(path, points, normals=None, fmt="binary_little_endian", faces=False, count=None):
    names = ["x", "y", "z"] + (["nx", "ny", "nz"] if normals is not None else [])
    rows = points if normals is None else np.hstack([points, normals])
    header = ["ply", f"format {fmt} 1.0", "comment written by the test",
              f"element vertex {len(rows) if count is None else count}"]
    header += [f"property float {n}" for n in names]
    if faces:
        header += ["element face 1", "property list uchar int vertex_indices"]
    header.append("end_header")
    with open(path, "wb") as out:
        out.write(("\n".join(header) + "\n").encode())
        if fmt == "ascii":
            for row in rows:
                out.write((" ".join(f"{v:.7g}" for v in row) + "\n").encode())
            if faces:
                out.write(b"3 0 1 2\n")
        else:
            order = "<" if fmt == "binary_little_endian" else ">"
            out.write(rows.astype(order + "f4").tobytes())
            if faces:
                out.write(struct.pack(order + "B3i", 3, 0, 1, 2))


def write_pcd(path, points, normals=None, data="binary", extra_nan=0):
    rows = points if normals is None else np.hstack([points, normals])
    if extra_nan:
        rows = np.vstack([rows, np.full((extra_nan, rows.shape[1]), np.nan, np.float32)])
    fields = ["x", "y", "z"] + (["normal_x", "normal_y", "normal_z"] if normals is not None else [])
    header = ["# .PCD v0.7 - written by the test", "VERSION 0.7", "FIELDS " + " ".join(fields),
              "SIZE " + " ".join("4" for _ in fields), "TYPE " + " ".join("F" for _ in fields),
              "COUNT " + " ".join("1" for _ in fields), f"WIDTH {len(rows)}", "HEIGHT 1",
              "VIEWPOINT 0 0 0 1 0 0 0", f"POINTS {len(rows)}", f"DATA {data}"]
    with open(path, "wb") as out:
        out.write(("\n".join(header) + "\n").encode())
        if data == "ascii":
            for row in rows:
                out.write((" ".join(f"{v:.7g}" for v in row) + "\n").encode())
        else:
            out.write(rows.astype("<f4").tobytes())


IDENTITY = "1 0 0 0  0 1 0 0  0 0 1 0"


def read_back(path):
    return np.loadtxt(path, dtype=np.float64, ndmin=2)


# ---- Version, help, info ----------------------------------------------------------------------

COMMANDS = ["register", "info", "normals", "filter", "keypoints", "transform", "convert", "depth",
            "batch", "multiway", "demo"]


def test_version_and_help():
    version = qorv.__version__  # the CMake project's, as the installed package carries it
    assert run("--version").stdout.strip() == f"qorv {version} (library {version})"
    helptext = run("--help").stdout
    assert re.findall(r"^  (\w+) ", helptext.split("Subcommands:")[1], re.M) == COMMANDS
    # Without a command the error names every one there is.
    missing = run(expect=2).stderr
    assert all(re.search(rf"\b{command}\b", missing) for command in COMMANDS), missing
    # The options several commands take are on exactly those commands.
    shared = {"--voxel": {"register", "demo", "convert", "batch", "multiway"},
              "--seed": {"register", "demo", "batch", "multiway"},
              "--max-tries": {"register", "demo", "batch"},
              "--sensor-origin": {"register", "demo", "batch", "multiway"},
              "--exact": {"register", "demo"}}
    for command in COMMANDS:
        text = run(command, "--help").stdout
        for option, owners in shared.items():
            assert bool(re.search(rf"^ +{option} ", text, re.M)) == (command in owners), \
                (command, option)


def test_global_options_after_the_command():
    result = run("info", BUNNY, "--threads", "2", "--json")
    assert json.loads(result.stdout)["points"] > 0
    assert "[QORV INFO]" in result.stderr


def test_info_reports_the_cloud(bunny):
    doc, result = run_json("info", BUNNY)
    assert doc["points"] == len(bunny) and doc["format"] == "asc" and not doc["normals"]
    np.testing.assert_allclose(doc["min"], bunny.min(axis=0), rtol=1e-6)
    np.testing.assert_allclose(doc["max"], bunny.max(axis=0), rtol=1e-6)
    np.testing.assert_allclose(doc["centroid"], bunny.astype(np.float64).mean(axis=0), rtol=1e-5)
    assert doc["spacing"] == pytest.approx(qorv.check_distance(bunny, k=2), rel=1e-6)
    assert "[QORV INFO] checkDistance" in result.stderr  # the library's log, off stdout
    text = run("info", BUNNY).stdout
    assert "points    1839" in text and "[QORV INFO]" in text
    assert "[QORV INFO]" not in run("--quiet", "info", BUNNY).stdout


WRITERS = {
    "ply-ascii": lambda path, p, n: write_ply(path, p, n, fmt="ascii"),
    "ply-le": lambda path, p, n: write_ply(path, p, n),
    "ply-be": lambda path, p, n: write_ply(path, p, n, fmt="binary_big_endian"),
    "ply-faces": lambda path, p, n: write_ply(path, p, n, faces=True),
    "pcd-ascii": lambda path, p, n: write_pcd(path, p, n, data="ascii", extra_nan=3),
    "pcd-binary": lambda path, p, n: write_pcd(path, p, n, extra_nan=3),
}


@pytest.mark.parametrize("kind", WRITERS)
@pytest.mark.parametrize("with_normals", [False, True], ids=["xyz", "normals"])
def test_formats_read_like_asc(tmp_path, bunny, kind, with_normals):
    points = bunny[:300]
    normals = np.tile(np.float32([0, 0.6, 0.8]), (300, 1)) if with_normals else None
    path = tmp_path / ("cloud.pcd" if kind.startswith("pcd") else "cloud.ply")
    WRITERS[kind](path, points, normals)
    doc, _ = run_json("info", path)
    assert doc["points"] == 300 and doc["normals"] == with_normals
    assert doc["dropped_non_finite"] == (3 if kind.startswith("pcd") else 0)
    out = tmp_path / "out.asc"
    run("--quiet", "transform", path, out, "--matrix", IDENTITY)
    written = read_back(out)
    assert written.shape == (300, 6 if with_normals else 3)
    np.testing.assert_allclose(written[:, :3], points, atol=1e-5)
    if with_normals:
        np.testing.assert_allclose(written[:, 3:], normals, atol=1e-6)


# ---- Thin commands -----------------------------------------------------------------------------

def test_normals(tmp_path, bunny):
    out = tmp_path / "n.asc"
    doc, _ = run_json("normals", BUNNY, out, "--radius", 0.8)
    assert doc["points_out"] == len(bunny)
    written = read_back(out)
    np.testing.assert_allclose(written[:, 3:], qorv.compute_normals(bunny, 0.8, orient_neighbors=10),
                               atol=1e-6)


@pytest.mark.parametrize("kind,args,expected", [
    ("voxel", ["--leaf", 0.5], lambda p: qorv.voxel_filter(p, 0.5)),
    ("sor", ["--k", 20, "--std", 1.0], lambda p: qorv.sor_filter(p, 20, 1.0)),
    ("edge", ["--radius", 0.9], lambda p: qorv.edge_filter(p, 0.9)),
])
def test_index_filters(tmp_path, bunny, kind, args, expected):
    out = tmp_path / f"{kind}.asc"
    doc, _ = run_json("filter", kind, BUNNY, out, *args)
    kept = expected(bunny)
    assert doc["points_in"] == len(bunny) and doc["points_out"] == len(kept) > 0
    np.testing.assert_allclose(read_back(out), bunny[kept], atol=1e-5)


def test_gaussian_filter(tmp_path, bunny):
    out = tmp_path / "g.asc"
    run("--quiet", "filter", "gaussian", BUNNY, out, "--radius", 0.6)
    np.testing.assert_allclose(read_back(out), qorv.gaussian_filter(bunny, 0.6), atol=1e-5)


def test_keypoints_and_descriptors(tmp_path, bunny):
    out, descriptors = tmp_path / "k.asc", tmp_path / "k.txt"
    doc, _ = run_json("keypoints", BUNNY, out, "--radius", 0.9, "--non-max-radius", 0.3,
                      "--descriptors", descriptors)
    positions = read_back(out)
    d = read_back(descriptors)
    assert len(positions) == len(d) == doc["points_out"] > 0
    assert positions.shape[1] == 6 and d.shape[1] == 33
    sums = d.reshape(-1, 3, 11).sum(axis=2)
    assert np.all((np.abs(sums - 100) < 1e-2) | (sums == 0))
    # Key points are input points.
    nearest = np.sqrt(((positions[:, None, :3] - bunny[None]) ** 2).sum(-1)).min(axis=1)
    assert nearest.max() < 1e-5


def test_transform_layouts_and_inverse(tmp_path, bunny):
    r = rotation([1, 2, 3], 40)
    t = np.array([1.5, -2.0, 0.25])
    matrix = " ".join(f"{v:.17g}" for v in np.hstack([r, t[:, None]]).ravel())
    moved = tmp_path / "moved.asc"
    run("--quiet", "transform", BUNNY, moved, "--matrix", matrix)
    np.testing.assert_allclose(read_back(moved), bunny @ r.T + t, atol=2e-5)
    homogeneous = np.eye(4)
    homogeneous[:3, :3], homogeneous[:3, 3] = r, t
    (tmp_path / "m.txt").write_text("\n".join(",".join(f"{v:.17g}" for v in row)
                                              for row in homogeneous))
    back = tmp_path / "back.asc"
    run("--quiet", "transform", moved, back, "--matrix", f"@{tmp_path / 'm.txt'}", "--inverse")
    np.testing.assert_allclose(read_back(back), bunny, atol=5e-5)


# ---- Formats -----------------------------------------------------------------------------------

def depth_png(path, depth):
    """A 16-bit grey PNG of a (h, w) depth array in millimetres, written without any library."""
    import zlib
    h, w = depth.shape
    rows = b"".join(b"\x00" + depth[r].astype(">u2").tobytes() for r in range(h))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    path.write_bytes(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 16, 0, 0, 0, 0)) +
                     chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def test_convert_between_formats_keeps_the_points(tmp_path, bunny):
    ply, pcd, asc = tmp_path / "b.ply", tmp_path / "b.pcd", tmp_path / "b.asc"
    run("convert", BUNNY, ply)
    run("convert", ply, pcd, "--compressed")
    run("convert", pcd, asc)
    doc, _ = run_json("info", pcd)
    assert doc["format"] == "pcd (binary_compressed)" and doc["points"] == len(bunny)
    assert doc["fields"] == "x y z" and doc["organized"] is None
    assert np.abs(read_back(asc) - bunny).max() < 1e-5
    doc, _ = run_json("convert", BUNNY, tmp_path / "thin.ply", "--voxel", 1.0, "--ascii")
    assert 0 < doc["points_out"] < len(bunny)


def test_depth_images_become_organized_clouds(tmp_path):
    depth = np.full((24, 32), 1500, np.uint16)
    depth[5:9, 10:20] = 0  # a hole
    depth_png(tmp_path / "d.png", depth)
    doc, _ = run_json("depth", tmp_path / "d.png", tmp_path / "d.pcd", "--fx", 30, "--fy", 30, "--cx", 15.5,
                      "--cy", 11.5)
    assert doc["points_in"] == 24 * 32 and doc["points_out"] == 24 * 32 - 40
    doc, _ = run_json("info", tmp_path / "d.pcd")
    assert doc["organized"] == {"width": 32, "height": 24} and doc["dropped_non_finite"] == 40
    assert doc["points"] == 24 * 32 - 40 and abs(doc["max"][2] - 1.5) < 1e-6
    assert abs(doc["min"][0] - (0 - 15.5) * 1.5 / 30) < 1e-6
    doc, _ = run_json("info", tmp_path / "d.png")  # depth images are read directly too
    assert doc["format"] == "depth image" and doc["points"] == 24 * 32 - 40


def test_conversions_keep_every_field_and_say_what_a_format_cannot_hold(tmp_path):
    n = 50
    rng = np.random.default_rng(3)
    points = rng.uniform(-1, 1, (n, 3)).astype(np.float32)
    intensity = rng.uniform(0, 100, n).astype(np.float32)
    colours = rng.integers(0, 256, (n, 3), dtype=np.uint8)
    classes = rng.integers(0, 20, n).astype(np.uint8)
    qorv.write_cloud(tmp_path / "a.pcd", points, colours=colours, intensity=intensity, classification=classes,
                     viewpoint=[1, 2, 3])
    for out in ("b.ply", "c.pcd", "d.las"):
        result = run("convert", tmp_path / "a.pcd", tmp_path / out)
        back = qorv.read_cloud(tmp_path / out)
        assert np.array_equal(back.colours, colours) and np.array_equal(back.classification, classes), out
        assert np.allclose(back.intensity, np.round(intensity) if out == "d.las" else intensity), out
        tolerance = 1e-4 if out == "d.las" else 0  # LAS keeps its quantum (0.1 mm here)
        assert np.abs(back.points - points).max() <= tolerance, out
        assert ("viewpoint" in result.stderr) == (out != "c.pcd"), (out, result.stderr)
    assert qorv.read_cloud(tmp_path / "c.pcd").viewpoint[:3].tolist() == [1, 2, 3]
    warning = run("convert", tmp_path / "a.pcd", tmp_path / "e.xyz").stderr
    assert warning.count("\n") == 1 and warning.startswith("qorv: warning: '")
    assert "intensity" in warning and "classification" in warning
    assert run("--quiet", "convert", tmp_path / "a.pcd", tmp_path / "f.xyz").stderr == ""
    # A depth frame keeps its grid in PCD; PLY gets the points the sensor saw.
    depth = np.full((12, 16), 1000, np.uint16)
    depth[2:4, 2:6] = 0
    depth_png(tmp_path / "d.png", depth)
    run("convert", tmp_path / "d.png", tmp_path / "frame.pcd", "--fx", 20, "--fy", 20)
    assert run_json("info", tmp_path / "frame.pcd")[0]["organized"] == {"width": 16, "height": 12}
    result = run("convert", tmp_path / "d.png", tmp_path / "frame.ply")
    assert "organized layout" in result.stderr
    assert run_json("info", tmp_path / "frame.ply")[0]["points"] == 12 * 16 - 8


def test_survey_coordinates_keep_their_precision_through_every_command(tmp_path, bunny):
    far = np.array([500000.0, 4000000.0, 100.0])
    points = bunny.astype(np.float64) * 10.0 + far  # a 1.5 m object 500 km out
    path = tmp_path / "far.xyz"
    np.savetxt(path, points, fmt="%.4f")
    doc, _ = run_json("info", path)
    assert np.allclose(doc["min"], points.min(axis=0), atol=1e-4) and doc["origin"] is not None
    for out in ("far.ply", "far.pcd", "far.las", "far.asc"):
        run("convert", path, tmp_path / out)
        back = qorv.read_cloud(tmp_path / out).points
        assert back.dtype == np.float64 and np.abs(back - points).max() < 1e-4, out
    # Registered 500 km out, the answer is the one at the origin, in the caller's frame.
    r = rotation([0.2, 1.0, 0.3], 20)
    moved_near = (bunny.astype(np.float64) * 10.0) @ r.T + [0.5, -0.2, 0.1]
    np.savetxt(tmp_path / "near_target.xyz", bunny.astype(np.float64) * 10.0, fmt="%.4f")
    np.savetxt(tmp_path / "near_source.xyz", moved_near, fmt="%.4f")
    np.savetxt(tmp_path / "far_source.xyz", moved_near + far, fmt="%.4f")
    near, _ = run_json("register", tmp_path / "near_target.xyz", tmp_path / "near_source.xyz")
    away, _ = run_json("register", path, tmp_path / "far_source.xyz")
    assert near["registered"] and away["registered"]
    a, b = np.array(near["transform"]), np.array(away["transform"])
    # Both carry the source onto the target: compare where they put its points.
    on_near = moved_near @ a[:3, :3].T + a[:3, 3]
    on_far = (moved_near + far) @ b[:3, :3].T + b[:3, 3] - far
    assert np.abs(on_near - on_far).max() < 1e-3


# ---- Registration ------------------------------------------------------------------------------

@pytest.fixture(scope="module")
def moved_bunny(tmp_path_factory, bunny):
    """The bunny moved by a known motion; returns (path, R, t) with truth p_target = R p + t."""
    r = rotation([0.2, 1.0, 0.3], 25)
    t = np.array([0.8, -0.5, 1.2])
    inverse_points = (bunny.astype(np.float64) - t) @ r  # R^T (p - t)
    path = tmp_path_factory.mktemp("reg") / "moved.asc"
    write_asc(path, inverse_points)
    return path, r, t


def assert_recovered(doc, r, t, degrees=1.0, distance=0.05):
    transform = np.array(doc["transform"])
    assert transform.shape == (4, 4) and list(transform[3]) == [0, 0, 0, 1]
    assert angle_between(transform[:3, :3], r) < degrees
    assert np.linalg.norm(transform[:3, 3] - t) < distance


def test_register_json(tmp_path, moved_bunny, bunny):
    path, r, t = moved_bunny
    out, snapshot = tmp_path / "moved_back.asc", tmp_path / "view.png"
    doc, _ = run_json("register", BUNNY, path, "--output", out, "--snapshot", snapshot,
                      "--threads", 2)
    assert_recovered(doc, r, t)
    assert doc["registered"] is True and doc["reason"] is None
    assert doc["method"] == "engine (global)" and doc["threads"] == 2 and doc["seed"] == 1
    assert doc["consistent_pairs"] > 10 and doc["fitness"] > 0.9 and doc["voxel"] > 0
    names = [s["name"] for s in doc["stages"]]
    assert names[:2] == ["read target", "read source"] and "engine: ransac" in names
    assert "snapshot" in names and all(s["ms"] >= 0 for s in doc["stages"])
    assert doc["target"]["samples"] > 0 and doc["source"]["points"] == len(bunny)
    assert np.abs(read_back(out) - bunny).max() < 0.05
    with open(snapshot, "rb") as png:
        head = png.read(24)
    assert head[:8] == b"\x89PNG\r\n\x1a\n" and struct.unpack(">II", head[16:24]) == (1200, 600)


def test_register_with_generalized_icp(moved_bunny):
    path, r, t = moved_bunny
    doc, _ = run_json("register", BUNNY, path, "--threads", 2)
    assert doc["registered"] is True and doc["refine"] == "gicp"  # the default
    assert_recovered(doc, r, t)
    plane, _ = run_json("register", BUNNY, path, "--refine", "plane")
    assert plane["registered"] is True and plane["refine"] == "plane"
    assert_recovered(plane, r, t)
    fail("register", BUNNY, path, "--refine", "icp", status=2, message="--refine: icp not in {plane,gicp}")


def test_register_text_and_the_seed(moved_bunny):
    path, r, t = moved_bunny
    text = run("register", BUNNY, path, "--voxel", 0.5, "--seed", 7).stdout
    for line in ("transform (source onto target), 4 x 4:", "fitness", "stage times", "registered"):
        assert line in text
    rows = text.split("4 x 4:\n")[1].splitlines()[:3]
    transform = np.array([[float(v) for v in row.split()] for row in rows])
    assert angle_between(transform[:, :3], r) < 1.0
    # Same input and seed: the same bits, whatever the thread count.
    one, _ = run_json("register", BUNNY, path, "--seed", 7, "--threads", 1)
    two, _ = run_json("register", BUNNY, path, "--seed", 7, "--threads", 2)
    assert one["transform"] == two["transform"] and one["fitness"] == two["fitness"]


def test_register_local_from_a_nearby_start(moved_bunny, tmp_path):
    path, r, t = moved_bunny
    start = np.hstack([rotation([0.2, 1.0, 0.3], 23), (t + 0.2)[:, None]])
    doc, _ = run_json("register", BUNNY, path, "--local",
                      "--initial", " ".join(f"{v:.17g}" for v in start.ravel()))
    assert doc["method"] == "engine (local)" and doc["matches"] == 0
    assert_recovered(doc, r, t)
    # The guess in a file, as 4 x 4 rows.
    guess = tmp_path / "guess.txt"
    np.savetxt(guess, np.vstack([start, [0, 0, 0, 1]]))
    from_file, _ = run_json("register", BUNNY, path, "--local", "--initial", guess)
    assert from_file["transform"] == doc["transform"]


def test_register_says_when_it_did_not_register(tmp_path):
    noise = tmp_path / "noise.asc"
    write_asc(noise, np.random.default_rng(4).uniform(-0.1, 0.1, (1500, 3)))
    doc, result = run_json("register", BUNNY, noise, expect=3)
    assert doc["registered"] is False and doc["reason"]
    assert "not registered" in result.stderr


def test_register_exact_runs_the_library_pipeline(moved_bunny):
    path, _, _ = moved_bunny
    result = subprocess.run(
        [CLI, "--json", "register", BUNNY, str(path), "--exact", "--resolution", "0.3"],
        capture_output=True, text=True, timeout=120, env=TOOL_ENV)
    assert result.returncode in (0, 3), result.stderr  # 3: judged not registered
    doc = json.loads(result.stdout)
    assert doc["method"] == "pipeline (ransac)" and doc["seed"] is None  # it seeds from the clock
    assert [s["name"] for s in doc["stages"]][2] == "match pair point cloud"
    assert doc["registered"] == (result.returncode == 0)


def test_demo_recovers_the_known_motion(tmp_path):
    snapshot = tmp_path / "demo" / "snapshot.png"
    doc, _ = run_json("demo", "--data", DATA / "sample" / "dragon_res4.asc", "--snapshot",
                      snapshot, "--check", "--views", tmp_path / "views")
    assert doc["recovered"] and doc["rotation_error_degrees"] < 1.0
    assert doc["mean_point_error"] < doc["voxel"]
    assert snapshot.stat().st_size > 1000
    assert (tmp_path / "views" / "target.asc").exists()


# ---- Error paths -------------------------------------------------------------------------------

HEADER_ONLY = {
    "bad.ply": ("ply\nformat foo 1.0\nelement vertex 1\nproperty float x\nend_header\n",
                "unsupported PLY format"),
    "noy.ply": ("ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\n"
                "property float z\nend_header\n1 2\n", "lacks x, y or z"),
    "c.pcd": ("VERSION 0.7\nFIELDS x y z\nSIZE 4 4 4\nTYPE F F F\nCOUNT 1 1 1\n"
              "WIDTH 1\nHEIGHT 1\nPOINTS 1\nDATA binary_compressed\n", "compressed data ends early"),
    "open.ply": ("ply\nformat ascii 1.0\n", "no 'end_header'"),
}


def test_missing_and_unreadable_inputs(tmp_path):
    fail("info", tmp_path / "nope.asc", message="cannot open")
    fail("info", tmp_path, message="is a folder")
    garbage = tmp_path / "garbage.ply"
    garbage.write_bytes(bytes(range(256)) * 4)
    fail("info", garbage, message="is not a ply file")
    for name, (text, message) in HEADER_ONLY.items():
        (tmp_path / name).write_text(text)
        fail("info", tmp_path / name, message=message)
    for count, message in ((11, "ends early"), (2**40, "more points than supported")):
        path = tmp_path / f"short{count}.ply"
        write_ply(path, np.ones((10, 3), np.float32), count=count)
        fail("info", path, message=message)


def test_empty_clouds(tmp_path):
    words = tmp_path / "words.asc"
    words.write_text("no numbers at all\n")
    fail("info", words, message="expected rows of numbers but found none")
    empty_ply = tmp_path / "empty.ply"
    write_ply(empty_ply, np.zeros((0, 3), np.float32))
    fail("info", empty_ply, message="holds no point")
    nan_pcd = tmp_path / "nan.pcd"
    write_pcd(nan_pcd, np.zeros((0, 3), np.float32), extra_nan=4)
    fail("info", nan_pcd, message="no point with finite coordinates")
    sparse = tmp_path / "sparse.asc"
    write_asc(sparse, np.random.default_rng(1).uniform(0, 100, (40, 3)))
    fail("keypoints", sparse, tmp_path / "k.asc", "--radius", 1, message="no key points")
    four = tmp_path / "four.asc"
    write_asc(four, np.eye(4, 3))
    fail("register", sparse, four, message="finite points")
    fail("filter", "voxel", sparse, tmp_path / "v.asc", "--leaf", 1000, message="kept no point")


@pytest.mark.parametrize("args,message", [
    (["normals", BUNNY, "o.asc", "--radius", "-1"], "--radius"),
    (["normals", BUNNY, "o.asc", "--radius", "abc"], "--radius"),
    (["normals", BUNNY, "o.asc"], "--radius is required"),
    (["filter", "voxel", BUNNY, "o.asc", "--leaf", "0"], "--leaf"),
    (["filter", "sor", BUNNY, "o.asc", "--k", "0"], "--k"),
    (["filter", BUNNY, "o.asc"], "filter needs one of"),
    (["register", BUNNY], "source"),
    (["register", BUNNY, BUNNY, "--method", "magic"], "--method"),
    (["register", BUNNY, BUNNY, "--threads", "0"], "--threads"),
    (["register", BUNNY, BUNNY, "--resolution", "nan"], "--resolution"),
    (["register", BUNNY, BUNNY, "--local"], "--local needs --initial"),
    (["demo", "--overlap", "1.5"], "--overlap"),
    (["frobnicate"], "unknown command 'frobnicate'"),
    ([], "a command is required"),
])
def test_bad_options_exit_2(args, message):
    fail(*args, status=2, message=message)


def test_bad_values_found_after_parsing(tmp_path):
    out = tmp_path / "o.asc"
    for matrix, status, message in (("1 2 3", 2, "12 numbers"),
                                    ("1 0 0 0 0 1 0 0 0 0 1 x", 2, "bad matrix value"),
                                    ("@" + str(tmp_path / "none"), 1, "cannot open matrix file")):
        fail("transform", BUNNY, out, "--matrix", matrix, status=status, message=message)
    fail("register", BUNNY, BUNNY, "--snapshot", tmp_path / "x.jpg", status=2, message=".png")
    fail("filter", "voxel", BUNNY, tmp_path / "no" / "dir" / "o.ply", "--leaf", 0.5, message="cannot write")


def test_files_are_read_only_as_what_they_are(tmp_path):
    cube = tmp_path / "cube.obj"
    cube.write_text("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n")
    assert run_json("info", cube)[0]["points"] == 3  # the vertices; the face is no point
    rows = tmp_path / "rows.csv"
    rows.write_text("x,y,z\n" + "\n".join(f"{i},{i},{i}" for i in range(6)) + "\n")
    assert run_json("info", rows)[0]["points"] == 6
    mislabelled = tmp_path / "mesh.xyz"
    mislabelled.write_text("v 0 0 0\nf 1 1 1\n")
    fail("info", mislabelled, message="mesh.xyz' line 1: 'v' is no number")
    off = tmp_path / "scan.off"
    off.write_text("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n")
    fail("info", off, message="scan.off' is not read: OFF meshes are not read")
    fail("convert", BUNNY, tmp_path / "out.e57", message="'.e57' names no format")
    assert not (tmp_path / "out.e57").exists()
    run("convert", BUNNY, tmp_path / "out.xyz")
    assert run_json("info", tmp_path / "out.xyz")[0]["points"] > 0


def test_the_readme_demo_output_is_what_make_demo_prints():
    readme = (ROOT / "README.md").read_text()
    start = readme.index("```text\n", readme.index("`make demo` cuts two overlapping views")) + len("```text\n")
    shown = readme[start:readme.index("```", start)].splitlines()
    command = next(line for line in (ROOT / "Makefile").read_text().splitlines()
                   if "qorv demo" in line).split("./build/tools/qorv ")[1].split()
    command = [str(DATA / "sample" / "dragon_res3.asc") if word.endswith("dragon_res3.asc") else word
               for word in command if not word.startswith("build/demo")]
    command.remove("--snapshot")
    printed = run(*command).stdout.replace(str(DATA / "sample"), "data/sample").splitlines()
    missing = [line for line in shown if line not in printed]
    assert not missing, missing
