# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Callbacks leave nothing behind: thousands of calls keep Python and process memory flat, and
arrays handed out stay valid after the library has released its own."""

import gc
import os
import tracemalloc

import numpy as np

import qorv


def resident_bytes():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def run_many(call, times=2000):
    for _ in range(50):  # warm-up: caches, lazily bound prototypes
        call()
    gc.collect()
    tracemalloc.start()
    before_rss = resident_bytes()
    before, _ = tracemalloc.get_traced_memory()
    for _ in range(times):
        call()
    gc.collect()
    after, _ = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    return after - before, resident_bytes() - before_rss


def test_callbacks_do_not_leak(tmp_path, rng):
    points = rng.uniform(0, 1, size=(300, 3)).astype(np.float32)
    path = tmp_path / "small.asc"
    qorv.write_points_to_asc(path, points[:20], points[:20])
    descriptors = rng.uniform(0, 1, size=(30, 33)).astype(np.float32)
    sizes = iter(range(10**9))

    def call():
        # Varying lengths: a per-length ctypes type cache would show up here.
        n = 100 + next(sizes) % 200
        qorv.voxel_filter(points[:n], 0.1)
        qorv.read_points_from_asc(path)
        qorv.ransac_match_key_points(points[:30], descriptors, points[:30], descriptors,
                                     iterations=5, inlier_distance=0.01)

    python_growth, rss_growth = run_many(call)
    assert python_growth < 64 * 1024, python_growth
    # AddressSanitizer keeps freed blocks in quarantine: the process size says nothing there.
    if not os.environ.get("QORV_TEST_SANITIZED"):
        assert rss_growth < 8 * 1024 * 1024, rss_growth


def test_results_outlive_the_library_buffers(rng):
    points = rng.uniform(0, 1, size=(500, 3)).astype(np.float32)
    first = qorv.voxel_filter(points, 0.2)
    snapshot = first.copy()
    for _ in range(20):
        qorv.voxel_filter(points[::-1].copy(), 0.05)
    np.testing.assert_array_equal(first, snapshot)
    assert first.flags.owndata and first.flags.writeable
