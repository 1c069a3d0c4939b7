# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Batches: resume after a kill, missing files, the Dask batch agreeing with `qorv batch`, and a
worker dying mid-pair. Environment as cli_test.py, with QORV_ENGINE_LIBRARY for the package."""

import json
import os
import pathlib
import signal
import subprocess
import time

import numpy as np
import pytest

import qorv
from qorv import batch

ROOT = pathlib.Path(__file__).resolve().parents[2]

CLI = os.environ.get("QORV_CLI", str(ROOT / "build" / "tools" / "qorv"))
DATA = pathlib.Path(os.environ.get("QORV_DATA_DIR", ROOT / "data"))


@pytest.fixture(scope="module")
def manifest(tmp_path_factory):
    """Twelve view pairs of the dragon sample (one with a guess), and one with a missing file."""
    folder = tmp_path_factory.mktemp("pairs")
    rng = np.random.default_rng(7)
    scan = np.loadtxt(DATA / "sample" / "dragon_res4.asc", dtype=np.float32)
    lines = ["target,source,initial"]
    for k in range(12):
        d = rng.normal(size=3).astype(np.float32)
        along = scan @ (d / np.linalg.norm(d))
        lo, hi = np.quantile(along, [0.3, 0.7])
        q, _ = np.linalg.qr(rng.normal(size=(3, 3)))
        q *= np.sign(np.linalg.det(q))
        qorv.write_cloud(folder / f"t{k}.ply", scan[along < hi])
        qorv.write_cloud(folder / f"s{k}.pcd", (scan[along > lo] @ q.T).astype(np.float32), encoding="compressed")
        guess = " ".join(str(v) for v in np.eye(4)[:3].ravel()) if k == 3 else ""
        lines.append(f"{folder}/t{k}.ply,{folder}/s{k}.pcd,{guess}")
    lines.append(f"{folder}/missing.ply,{folder}/s0.pcd,")
    path = folder / "manifest.csv"
    path.write_text("\n".join(lines) + "\n")
    return path


def results(path):
    text = path.read_text()
    assert text.endswith("\n")
    return [json.loads(line) for line in text.splitlines()]


def without_time(lines):
    return {line["pair"]: {k: v for k, v in line.items() if k != "ms"} for line in lines}


def test_resume_after_a_kill_runs_every_pair_exactly_once(tmp_path, manifest):
    out = tmp_path / "r.jsonl"
    process = subprocess.Popen([CLI, "batch", str(manifest), "--output", str(out), "--jobs", "1"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.time() + 60
    while time.time() < deadline and (not out.exists() or out.read_text().count("\n") < 3):
        time.sleep(0.01)
    process.send_signal(signal.SIGKILL)
    process.wait()
    partial = out.read_text().count("\n")
    assert 3 <= partial < 13
    with open(out, "a") as f:
        f.write('{"pair": 12, "target": "half a li')  # what a power cut leaves
    run = subprocess.run([CLI, "--json", "batch", str(manifest), "--output", str(out)], capture_output=True,
                         text=True, timeout=300)
    assert run.returncode == 3, run.stderr  # the missing file's pair failed
    summary = json.loads(run.stdout)
    lines = results(out)
    assert sorted(line["pair"] for line in lines) == list(range(13))
    assert summary["skipped"] == partial and summary["failed"] == 1
    missing = [line for line in lines if line["error"]]
    assert len(missing) == 1 and "cannot open" in missing[0]["error"] and missing[0]["transform"] is None
    assert all(line["registered"] for line in lines if not line["error"])
    assert lines[0]["target"].endswith(".ply") and len(lines[0]["transform"]) == 4


def test_dask_batch_agrees_with_the_tool_bit_for_bit(tmp_path, manifest):
    local, dask = tmp_path / "local.jsonl", tmp_path / "dask.jsonl"
    subprocess.run([CLI, "--quiet", "batch", str(manifest), "--output", str(local), "--allow-failures"], check=True,
                   timeout=300)
    summary = batch.run_batch(str(manifest), str(dask), workers=2, quiet=True)
    assert summary["registered"] == 12 and summary["failed"] == 1
    assert without_time(results(local)) == without_time(results(dask))


def dies_once(pair, options):
    """Kills its worker process the first time it sees pair 2, as a crash would."""
    marker = pathlib.Path(options.pop("marker"))
    if pair["pair"] == 2 and not marker.exists():
        marker.write_text("died")
        os._exit(1)
    return batch.run_pair(pair, options)


def test_a_worker_dying_mid_pair_has_the_pair_run_again(tmp_path, manifest):
    out = tmp_path / "r.jsonl"
    summary = batch.run_batch(str(manifest), str(out), workers=2, quiet=True, task=dies_once,
                              options={"marker": str(tmp_path / "marker")})
    assert (tmp_path / "marker").exists()
    assert sorted(line["pair"] for line in results(out)) == list(range(13))
    assert summary["registered"] == 12


def test_batch_reads_relative_paths_from_the_manifest_and_says_why_a_pair_failed(tmp_path, manifest):
    folder = manifest.parent
    relative = tmp_path / "relative.csv"
    relative.write_text(f"target,source\n{os.path.relpath(folder / 't1.ply', tmp_path)},"
                        f"{os.path.relpath(folder / 's1.pcd', tmp_path)}\nnowhere.ply,nowhere.pcd\n")
    out = tmp_path / "r.jsonl"
    run = subprocess.run([CLI, "batch", str(relative), "--output", str(out), "--jobs", "1"], capture_output=True,
                         text=True, timeout=300, cwd="/")
    assert run.returncode == 3, run.stderr
    lines = results(out)
    assert lines[0]["registered"] and lines[0]["target"].startswith("..")  # as the manifest wrote it
    assert "failed: cannot open" in run.stderr and "nowhere.ply" in run.stderr
    again = subprocess.run([CLI, "batch", str(relative), "--output", str(tmp_path / "again.jsonl"),
                            "--allow-failures", "--quiet"], capture_output=True, text=True, timeout=300)
    assert again.returncode == 0, again.stderr


def test_multiway_reports_a_stranger_unplaced_and_exits_4(tmp_path):
    """Three views of the dragon and the bunny: the bunny gets no pose, and the exit status says so."""
    scan = np.loadtxt(DATA / "sample" / "dragon_res4.asc", dtype=np.float32)
    centre = scan.mean(axis=0)
    paths = []
    for k in range(3):
        direction = np.array([np.cos(2.1 * k), np.sin(2.1 * k), 0.3])
        paths.append(tmp_path / f"v{k}.ply")
        qorv.write_cloud(paths[-1], scan[(scan - centre) @ direction > -0.03])
    bunny = np.loadtxt(DATA / "sample" / "bunny.asc", dtype=np.float32)
    paths.insert(1, tmp_path / "bunny.ply")
    qorv.write_cloud(paths[1], (bunny - bunny.mean(0)) * (np.ptp(scan, 0).max() / np.ptp(bunny, 0).max()))
    out = tmp_path / "poses.json"
    run = subprocess.run([CLI, "multiway", *map(str, paths), "--output", str(out)], capture_output=True,
                         text=True, timeout=300)
    assert run.returncode == 4, run.stderr
    assert "scan 1" in run.stderr and "bunny.ply" in run.stderr and "not placed" in run.stderr
    doc = json.loads(out.read_text())
    assert [s["placed"] for s in doc["scans"]] == [True, False, True, True]
    assert "pose" not in doc["scans"][1] and doc["summary"]["unplaced"] == 1
    # The same scans listed in a manifest, by paths relative to it, run from another folder.
    listed = tmp_path / "lists" / "scans.txt"
    listed.parent.mkdir()
    listed.write_text("# the views and a stranger\n" + "\n".join(f"../{p.name}" for p in paths) + "\n")
    allowed = subprocess.run([CLI, "multiway", "--manifest", str(listed), "--output", str(out), "--allow-unplaced",
                              "--reference", "2"], capture_output=True, text=True, timeout=300, cwd="/")
    assert allowed.returncode == 0, allowed.stderr
    assert np.allclose(json.loads(out.read_text())["scans"][2]["pose"], np.eye(4))


def test_multiway_recovers_known_poses(tmp_path):
    """Five overlapping views of the dragon sample, each moved by a known motion, into one frame."""
    rng = np.random.default_rng(3)
    scan = np.loadtxt(DATA / "sample" / "dragon_res4.asc", dtype=np.float32)
    centre = scan.mean(axis=0)
    truth, paths = [], []
    for k in range(5):
        angle = 2 * np.pi * k / 5
        direction = np.array([np.cos(angle), np.sin(angle), 0.3])
        view = scan[(scan - centre) @ direction > -0.03]
        q, _ = np.linalg.qr(rng.normal(size=(3, 3)))
        q *= np.sign(np.linalg.det(q))
        motion = np.eye(4)
        motion[:3, :3], motion[:3, 3] = q, rng.normal(size=3) * 0.1
        paths.append(tmp_path / f"v{k}.ply")
        qorv.write_cloud(paths[-1], (view @ q.T + motion[:3, 3]).astype(np.float32))
        truth.append(np.linalg.inv(motion))
    out = tmp_path / "poses.json"
    run = subprocess.run([CLI, "multiway", *map(str, paths), "--output", str(out), "--log", str(tmp_path / "t.log"),
                          "--merged", str(tmp_path / "m.pcd"), "--snapshot", str(tmp_path / "m.png")],
                         capture_output=True, text=True, timeout=300)
    assert run.returncode == 0, run.stderr
    assert (tmp_path / "m.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    doc = json.loads(out.read_text())
    poses = [np.array(s["pose"]) for s in doc["scans"]]
    for pose, true in zip(poses, truth):
        expected = np.linalg.inv(truth[0]) @ true
        assert np.abs(pose - expected).max() < 2e-3
    assert all(s["placed"] for s in doc["scans"]) and doc["summary"]["unplaced"] == 0
    assert all(e["residual"] is not None for e in doc["edges"] if e["registered"] and not e["rejected"])
    assert (tmp_path / "t.log").read_text().startswith("0 0 1\n")
    assert qorv.read_cloud(tmp_path / "m.pcd").points.shape[0] > len(scan)
