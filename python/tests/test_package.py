# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""The package as a user meets it: printed results, help(), type information, what reaches standard
output, and batch progress through logging."""

import ctypes
import inspect
import json
import logging
import pathlib
import pydoc
import re
import subprocess
import sys

import numpy as np
import pytest

import qorv
from conftest import DATA_DIR, rigid, rotation_about


@pytest.fixture(scope="module")
def pair():
    """Two slabs of the dragon sample, the second turned 40 degrees and shifted."""
    scan = np.loadtxt(DATA_DIR / "sample" / "dragon_res4.asc", dtype=np.float32)
    along = scan @ np.array([0.6, 0.7, 0.4], np.float32)
    lo, hi = np.quantile(along, [0.35, 0.65])
    motion = rigid(rotation_about([0, 0, 1], 40), [0.03, -0.02, 0.01])
    moved = (scan[along > lo].astype(np.float64) @ motion[:, :3].T + motion[:, 3]).astype(np.float32)
    return scan[along < hi], moved


def assert_one_short_line(text):
    assert "\n" not in text and len(text) < 240, text
    assert "array(" not in text and "[[" not in text and "..." not in text, text


def numbers_after(text, label):
    """The number, or the [list] of numbers, printed as label=... in text."""
    match = re.search(label + r"=(\[[^\]]*\]|[-+0-9.e]+)", text)
    assert match, (label, text)
    return [float(v) for v in match.group(1).strip("[]").split(", ")]


def test_results_print_as_one_short_line(pair, tmp_path):
    target, source = pair
    result = qorv.register(target, source)
    text = repr(result)
    assert_one_short_line(text)
    assert text.startswith("RegistrationResult(registered=True, fitness=") and "reason" not in text
    # The angle and shift printed are the transform's own.
    angle = np.degrees(np.arccos((np.trace(result.transform[:3, :3]) - 1) / 2))
    assert abs(numbers_after(text, "rotation")[0] - angle) < 0.01 and 39 < angle < 41
    assert np.allclose(numbers_after(text, "translation"), result.transform[:3, 3], atol=1e-4)
    assert np.isclose(numbers_after(text, "rmse")[0], result.inlier_rmse, rtol=1e-3)
    assert abs(float(re.search(r"([0-9.]+) ms\)$", text).group(1)) - sum(result.stages.values())) < 0.1
    refused = qorv.register(target, source[:200], mode="evaluate", initial=np.eye(4))
    assert not refused.registered
    assert_one_short_line(repr(refused))
    assert f"registered=False, reason={refused.reason!r}" in repr(refused)

    alignment = qorv.multiway([target, source, np.random.default_rng(1).normal(size=(500, 3))])
    assert_one_short_line(repr(alignment))
    kept = sum(e.registered and not e.rejected for e in alignment.edges)
    assert repr(alignment) == (f"Alignment(placed 2 of 3 scans, unplaced=[2], "
                               f"edges kept {kept} of {len(alignment.edges)})")
    for edge in alignment.edges:
        assert_one_short_line(repr(edge))

    qorv.write_cloud(tmp_path / "t.ply", target, normals=np.zeros_like(target))
    cloud = qorv.read_cloud(tmp_path / "t.ply")
    assert_one_short_line(repr(cloud))
    assert f"float32[{len(target)}, 3]" in repr(cloud)

    normals = qorv.compute_normals(target, radius=0.01)
    keys = qorv.detect_and_compute(target, normals, 0.01, feature_radius=0.01, histogram_radius=0.015,
                                   ratio21=0.95, ratio32=0.95)
    assert_one_short_line(repr(keys))
    assert f"KeyPoints({len(keys.positions)} key points" in repr(keys)
    maps = qorv.depth_to_vmap_nmap(np.array([[50.0, 0, 16], [0, 50.0, 12], [0, 0, 1]]),
                                   np.ones((24, 32), np.float32))
    assert_one_short_line(repr(maps))
    assert "vertex_map=float32[24, 32, 3]" in repr(maps)
    match = qorv.absolute_orientation(target[:10], target[:10])
    registration = qorv.Registration(match, np.zeros((7, 2), np.uint32))
    assert repr(registration) == "Registration(pairs=7, rotation=0.00 deg, translation=[0.0000, 0.0000, 0.0000])"
    # A result unpacks as before the reprs were added.
    positions, _, descriptors = keys
    assert positions is keys.positions and descriptors.shape[1] == 33


def test_help_leads_with_register_and_every_public_name_is_documented():
    text = pydoc.render_doc(qorv, renderer=pydoc.plaintext)
    description = text[text.index("DESCRIPTION"):]
    assert "qorv.register(" in description
    assert description.index("qorv.register") < description.index("read_points_from_asc")
    assert "result.registered" in description and "result.transform" in description
    for name in qorv.__all__:
        assert inspect.getdoc(getattr(qorv, name)), f"qorv.{name} has no docstring"
    assert "ArrayLike" in pydoc.render_doc(qorv.register, renderer=pydoc.plaintext)


def test_the_package_says_it_is_typed():
    assert (pathlib.Path(qorv.__file__).parent / "py.typed").is_file()
    hints = inspect.get_annotations(qorv.register, eval_str=True) if sys.version_info >= (3, 10) else \
        __import__("typing").get_type_hints(qorv.register)
    assert hints["return"] is qorv.RegistrationResult


def flushed(capfd):
    """What reached file descriptors 1 and 2 so far, C stdio buffers included."""
    ctypes.CDLL(None).fflush(None)
    return capfd.readouterr()


def test_engine_calls_print_nothing_and_the_exports_keep_their_lines(pair, tmp_path, capfd):
    target, source = pair
    flushed(capfd)
    result = qorv.register(target, source)
    qorv.register(target, source, mode="local", initial=result.transform)
    qorv.multiway([target, source])
    for name in ("c.ply", "c.pcd", "c.las"):
        qorv.write_cloud(tmp_path / name, target)
        qorv.read_cloud(tmp_path / name)
    assert flushed(capfd).out == ""
    # The library's own functions still tell what they did on standard output.
    qorv.check_distance(target)
    assert flushed(capfd).out.startswith("[QORV INFO] checkDistance: ")


@pytest.fixture
def manifest(tmp_path, pair):
    target, source = pair
    qorv.write_cloud(tmp_path / "t.ply", target)
    qorv.write_cloud(tmp_path / "s.ply", source)
    path = tmp_path / "pairs.csv"
    path.write_text("target,source\nt.ply,s.ply\n")
    return path


def test_batch_logs_its_progress_and_the_command_shows_it(tmp_path, manifest, capfd, caplog):
    pytest.importorskip("distributed")
    from qorv import batch
    caplog.set_level(logging.INFO, logger="qorv")
    summary = batch.run_batch(str(manifest), str(tmp_path / "r.jsonl"), workers=1)
    assert summary["registered"] == 1
    progress = [r.getMessage() for r in caplog.records if r.name == "qorv"]
    assert progress and progress[0].startswith("1/1 pair 0: registered (")
    out = flushed(capfd)
    assert out.out == "" and "pair 0" not in out.err
    caplog.clear()
    assert not batch.run_batch(str(manifest), str(tmp_path / "q.jsonl"), workers=1, quiet=True)["failed"]
    assert not [r for r in caplog.records if r.name == "qorv"]

    command = [sys.executable, "-m", "qorv", "batch", str(manifest), "--workers", "1", "--output"]
    shown = subprocess.run(command + [str(tmp_path / "a.jsonl")], capture_output=True, text=True, timeout=300)
    assert shown.returncode == 0, shown.stderr
    assert json.loads(shown.stdout)["registered"] == 1  # standard output holds the summary alone
    assert "1/1 pair 0: registered (" in shown.stderr
    quiet = subprocess.run(command + [str(tmp_path / "b.jsonl"), "--quiet"], capture_output=True, text=True,
                           timeout=300)
    assert quiet.returncode == 0 and "pair 0" not in quiet.stderr
