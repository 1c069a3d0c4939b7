# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""The package's version comes from the CMake project of the checkout (or, when built from an
sdist, from the sdist's PKG-INFO) and is written into the built package as qorv/_version.py.
Build folders and egg-info go to a temporary folder, so that a build leaves the checkout clean."""

import atexit
import pathlib
import re
import shutil
import tempfile

from setuptools import setup
from setuptools.command.build_py import build_py

HERE = pathlib.Path(__file__).resolve().parent


def project_version():
    cmake = HERE.parent / "CMakeLists.txt"
    if cmake.exists():
        match = re.search(r"project\s*\(\s*qorv\s+VERSION\s+([0-9][0-9.]*)", cmake.read_text())
        if match:
            return match.group(1)
    pkg_info = HERE / "PKG-INFO"
    if pkg_info.exists():
        match = re.search(r"^Version:\s*(\S+)", pkg_info.read_text(), re.MULTILINE)
        if match:
            return match.group(1)
    raise RuntimeError(f"no project(qorv VERSION ...) in {cmake}")


VERSION = project_version()


class BuildPyWithVersion(build_py):
    def run(self):
        super().run()
        target = pathlib.Path(self.build_lib) / "qorv" / "_version.py"
        target.write_text(f'__version__ = "{VERSION}"\n')


SCRATCH = tempfile.mkdtemp(prefix="qorv-python-build-")
atexit.register(shutil.rmtree, SCRATCH, ignore_errors=True)
# py.typed: the package's annotations are meant for type checkers.
setup(version=VERSION, packages=["qorv"], package_data={"qorv": ["py.typed"]},
      cmdclass={"build_py": BuildPyWithVersion},
      options={"build": {"build_base": f"{SCRATCH}/build"},
               "egg_info": {"egg_base": SCRATCH}})
