# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Instance settings, library loading, and result codes turned into exceptions for every wrapper."""

import os
import pathlib
import shutil
import subprocess
import sys

import numpy as np
import pytest

import qorv


def test_version_and_defaults():
    # The package is versioned with the libraries it loads.
    assert qorv.version() == qorv.__version__
    assert qorv.engine_version()[0] == qorv.__version__
    with qorv.Instance() as inst:
        assert inst.cross_check is True
        assert inst.multi_thread is False
        assert inst.match_neighbor_num == 0


def test_settings_round_trip_and_close():
    inst = qorv.Instance(cross_check=False, multi_thread=True, match_neighbor_num=7)
    assert (inst.cross_check, inst.multi_thread, inst.match_neighbor_num) == (False, True, 7)
    inst.cross_check = True
    inst.match_neighbor_num = 0
    assert inst.cross_check and inst.match_neighbor_num == 0
    with pytest.raises(qorv.QorvInvalidArgumentError) as error:
        inst.match_neighbor_num = -1
    assert error.value.code == 3 and error.value.function == "QorvSetMatchNeighborNum"
    assert inst.match_neighbor_num == 0  # a refused value leaves the setting alone
    inst.close()
    inst.close()  # closing twice is harmless
    assert inst.closed
    with pytest.raises(qorv.QorvNullInstanceError) as error:
        inst.multi_thread = False
    assert error.value.code == 8
    with qorv.Instance() as inst:
        assert not inst.closed
    assert inst.closed


def test_error_hierarchy():
    error = qorv.QorvFileError(1, "QorvReadPointsFromASC")
    assert isinstance(error, qorv.QorvError) and isinstance(error, OSError)
    assert isinstance(qorv.QorvInvalidArgumentError(3, "x"), ValueError)
    assert "code 3" in str(qorv.QorvInvalidArgumentError(3, "QorvEdgeFilter"))


LOADED = ("from qorv import _library, _engine_library\n"
          "print(_library.library()._name); print(_engine_library.load()._name)")


def loaded_files(env):
    """The files a fresh interpreter's package loads for libqorv and libqorv_engine under `env`."""
    result = subprocess.run([sys.executable, "-c", LOADED], env=env, capture_output=True,
                            text=True)
    assert result.returncode == 0, result.stderr
    return result.stdout.split()


def test_library_search(tmp_path):
    built = [(os.path.realpath(qorv.library_path()), "libqorv.so.1", "qorv"),
             (os.path.realpath(qorv._engine_library.load()._name), "libqorv_engine.so.1",
              "qorv-engine")]
    unset = {k: v for k, v in os.environ.items()
             if k not in ("QORV_LIBRARY", "QORV_ENGINE_LIBRARY")}

    # An explicit path is the only one tried, even when it is wrong.
    env = dict(os.environ, QORV_LIBRARY=str(tmp_path / "missing.so"))
    result = subprocess.run([sys.executable, "-c", LOADED], env=env, capture_output=True,
                            text=True)
    assert result.returncode != 0 and "missing.so" in result.stderr

    # The libdir of the installed pkg-config files.
    libdir = tmp_path / "prefix" / "lib"
    libdir.mkdir(parents=True)
    for path, soname, pc in built:
        shutil.copy(path, libdir / soname)
        (libdir / f"{pc}.pc").write_text(f"libdir={libdir}\nName: {pc}\nDescription: -\n"
                                          "Version: 1\n")
    assert loaded_files(dict(unset, PKG_CONFIG_PATH=str(libdir))) == [
        str(libdir / "libqorv.so.1"), str(libdir / "libqorv_engine.so.1")]

    # A copy next to the package comes before the pkg-config one.
    site = tmp_path / "site"
    package = shutil.copytree(pathlib.Path(qorv.__file__).parent, site / "qorv",
                              ignore=shutil.ignore_patterns("__pycache__"))
    shutil.copy(libdir / "libqorv.so.1", package / "libqorv.so.1")
    shutil.copy(libdir / "libqorv_engine.so.1", package / "libqorv_engine.so.1")
    env = dict(unset, PYTHONPATH=str(site), PKG_CONFIG_PATH=str(libdir))
    assert loaded_files(env) == [str(package / "libqorv.so.1"),
                                 str(package / "libqorv_engine.so.1")]


def test_library_path_names_the_loaded_file():
    assert os.path.exists(qorv.library_path())


P = np.zeros((0, 3), np.float32)          # an empty cloud: the library answers 3
D = np.zeros((0, 33), np.float32)
ONE = np.ones((4, 3), np.float32)
DESC = np.full((4, 33), 3.0, np.float32)

# (export, call with the empty or refused argument, call that is valid but for the instance)
CALLS = [
    ("QorvWritePointsToASC", lambda i, t: qorv.write_points_to_asc(t / "a.asc", P, instance=i),
     lambda i, t: qorv.write_points_to_asc(t / "a.asc", ONE, instance=i)),
    ("QorvRotatePoints", lambda i, t: qorv.rotate_points(P, np.eye(3), instance=i),
     lambda i, t: qorv.rotate_points(ONE, np.eye(3), instance=i)),
    ("QorvTransformPoints", lambda i, t: qorv.transform_points(P, np.eye(3, 4), instance=i),
     lambda i, t: qorv.transform_points(ONE, np.eye(3, 4), instance=i)),
    ("QorvAbsoluteOrientation", lambda i, t: qorv.absolute_orientation(P, P, instance=i),
     lambda i, t: qorv.absolute_orientation(ONE, ONE, instance=i)),
    ("QorvComputeNormals", lambda i, t: qorv.compute_normals(P, 1.0, instance=i),
     lambda i, t: qorv.compute_normals(ONE, 1.0, instance=i)),
    ("QorvReComputeNormals", lambda i, t: qorv.recompute_normals(ONE, ONE, 0.0, instance=i),
     lambda i, t: qorv.recompute_normals(ONE, ONE, 1.0, instance=i)),
    ("QorvVoxelFilter", lambda i, t: qorv.voxel_filter(P, 1.0, instance=i),
     lambda i, t: qorv.voxel_filter(ONE, 1.0, instance=i)),
    ("QorvSORFilter", lambda i, t: qorv.sor_filter(ONE, mean_k=0, instance=i),
     lambda i, t: qorv.sor_filter(ONE, instance=i)),
    ("QorvEdgeFilter", lambda i, t: qorv.edge_filter(ONE, float("nan"), instance=i),
     lambda i, t: qorv.edge_filter(ONE, 1.0, instance=i)),
    ("QorvGaussianFilter", lambda i, t: qorv.gaussian_filter(P, 1.0, instance=i),
     lambda i, t: qorv.gaussian_filter(ONE, 1.0, instance=i)),
    ("QorvDetectAndCompute",
     lambda i, t: qorv.detect_and_compute(P, P, 1.0, feature_radius=1, histogram_radius=1,
                                          ratio21=0.9, ratio32=0.9, instance=i),
     lambda i, t: qorv.detect_and_compute(ONE, ONE, 1.0, feature_radius=1, histogram_radius=1,
                                          ratio21=0.9, ratio32=0.9, instance=i)),
    ("QorvDepthToVmapNmap",
     lambda i, t: qorv.depth_to_vmap_nmap(np.eye(3), np.zeros((0, 4)), instance=i),
     lambda i, t: qorv.depth_to_vmap_nmap(np.eye(3), np.ones((2, 2)), instance=i)),
    ("QorvDetectAndComputeVmapNmap",
     lambda i, t: qorv.detect_and_compute_vmap_nmap(
         np.zeros((0, 2, 3)), np.zeros((0, 2, 3)), score_window=3, suppression_window=3,
         descriptor_half_window=1, histogram_window=3, ratio21=0.9, ratio32=0.9, instance=i),
     lambda i, t: qorv.detect_and_compute_vmap_nmap(
         np.ones((2, 2, 3)), np.ones((2, 2, 3)), score_window=3, suppression_window=3,
         descriptor_half_window=1, histogram_window=3, ratio21=0.9, ratio32=0.9, instance=i)),
    ("QorvMatchDescriptor", lambda i, t: qorv.match_descriptor(DESC, DESC, k=0, instance=i),
     lambda i, t: qorv.match_descriptor(DESC, DESC, instance=i)),
    ("QorvRansacMatchKeyPoints",
     lambda i, t: qorv.ransac_match_key_points(ONE, DESC, P, D, inlier_distance=1, instance=i),
     lambda i, t: qorv.ransac_match_key_points(ONE, DESC, ONE, DESC, inlier_distance=1,
                                               instance=i)),
    ("QorvIterativeMatchKeyPoints",
     lambda i, t: qorv.iterative_match_key_points(P, D, ONE, DESC, kernel_scale=1,
                                                  max_distance=1, instance=i),
     lambda i, t: qorv.iterative_match_key_points(ONE, DESC, ONE, DESC, kernel_scale=1,
                                                  max_distance=1, instance=i)),
    ("QorvMatchPairPointCloud",
     lambda i, t: qorv.match_pair_point_cloud(ONE, P, resolution=1, instance=i),
     lambda i, t: qorv.match_pair_point_cloud(ONE, ONE, resolution=1, instance=i)),
    ("QorvCheckDistance", lambda i, t: qorv.check_distance(ONE, k=0, instance=i),
     lambda i, t: qorv.check_distance(ONE, instance=i)),
]


@pytest.mark.parametrize("export,refused,valid", CALLS, ids=[c[0] for c in CALLS])
def test_refused_argument_raises_code_3(export, refused, valid, tmp_path):
    with qorv.Instance() as inst:
        with pytest.raises(qorv.QorvInvalidArgumentError) as error:
            refused(inst, tmp_path)
    assert error.value.code == 3 and error.value.function == export


@pytest.mark.parametrize("export,refused,valid", CALLS, ids=[c[0] for c in CALLS])
def test_closed_instance_raises_code_8(export, refused, valid, tmp_path):
    inst = qorv.Instance()
    inst.close()
    with pytest.raises(qorv.QorvNullInstanceError) as error:
        valid(inst, tmp_path)
    assert error.value.code == 8
    # The null handle wins over any bad argument.
    with pytest.raises(qorv.QorvNullInstanceError):
        refused(inst, tmp_path)


def test_read_of_missing_file_raises_code_1(tmp_path):
    with pytest.raises(qorv.QorvFileError) as error:
        qorv.read_points_from_asc(tmp_path / "nothing.asc")
    assert error.value.code == 1


def test_shape_errors_are_caught_before_the_call():
    with pytest.raises(ValueError):
        qorv.voxel_filter(np.zeros((4, 2)), 1.0)
    with pytest.raises(ValueError):
        qorv.match_descriptor(np.zeros((4, 32)), np.zeros((4, 33)))
    with pytest.raises(ValueError):
        qorv.transform_points(ONE, np.eye(3))
    with pytest.raises(ValueError):
        qorv.absolute_orientation(ONE, ONE[:3])
