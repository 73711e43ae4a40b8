"""Wheels hold the shared library, built by CMake from the tree around this directory.

ORVEL_WHEEL_LIBRARY in the environment names one that is built already, or is "none" for a wheel without: the package
then uses the system's.
"""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path

from setuptools import Distribution, setup
from setuptools.command.build_py import build_py

try:
    from setuptools.command.bdist_wheel import bdist_wheel
except ImportError:  # before setuptools 70
    from wheel.bdist_wheel import bdist_wheel

TREE = Path(__file__).resolve().parents[1]
CHOSEN = os.environ.get("ORVEL_WHEEL_LIBRARY", "")
BUNDLED = CHOSEN != "none"


class BuildWithLibrary(build_py):
    """Puts liborvel.so.1 beside the modules, where the package looks first."""

    def run(self) -> None:
        super().run()
        if BUNDLED and not self.editable_mode:
            shutil.copy(CHOSEN or self.build_library(), Path(self.build_lib) / "orvel" / "liborvel.so.1")

    def build_library(self) -> Path:
        if not (TREE / "CMakeLists.txt").exists():
            raise SystemExit(f"{TREE} is not the tree of liborvel; ORVEL_WHEEL_LIBRARY can name a built library")
        build = Path(self.get_finalized_command("build").build_temp).resolve() / "liborvel"
        parts = [f"-DORVEL_BUILD_{part}=OFF" for part in ("TOOLS", "TESTS", "BENCH")]
        subprocess.run(["cmake", "-S", TREE, "-B", build, *parts], check=True)
        jobs = str(os.cpu_count() or 1)  # make alone would take no limit
        subprocess.run(["cmake", "--build", build, "--target", "orvel_shared", "--parallel", jobs], check=True)
        return build / "liborvel.so.1"


class Platform(Distribution):
    """A wheel with a library in it is for one kind of machine."""

    def has_ext_modules(self) -> bool:
        return BUNDLED


class AnyPython(bdist_wheel):
    """The library is called by ctypes: it does not depend on the version of Python."""

    def get_tag(self) -> tuple[str, str, str]:
        return ("py3", "none", super().get_tag()[2])


setup(cmdclass={"build_py": BuildWithLibrary, "bdist_wheel": AnyPython}, distclass=Platform)
