"""How the package finds its shared library, in interpreters of their own."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import orvel
from orvel import _library

PACKAGE = Path(orvel.__file__).parent
LIBRARY = Path(orvel.library_path()).resolve()
SAY_PATH = "import orvel; print(orvel.library_path(), orvel.library_version())"


def run(package_parent: Path, **environment: str) -> subprocess.CompletedProcess[str]:
    kept = {name: value for name, value in os.environ.items() if name not in ("ORVEL_LIBRARY", "PYTHONPATH")}
    return subprocess.run(
        [sys.executable, "-c", SAY_PATH],
        cwd=package_parent,
        env=kept | {"PYTHONPATH": str(package_parent), "PYTHONDONTWRITEBYTECODE": "1"} | environment,
        capture_output=True,
        text=True,
        check=False,
    )


def copy_of_package(to: Path) -> Path:
    shutil.copytree(PACKAGE, to / "orvel", ignore=shutil.ignore_patterns("__pycache__", "*.so*"))
    return to


def test_the_library_in_use_and_its_version_are_told() -> None:
    assert LIBRARY.exists()
    assert orvel.library_version() == "1.6.1"
    assert orvel.__version__ == "1.6.1"


def test_the_environment_variable_comes_first_and_is_alone(tmp_path: Path) -> None:
    parent = copy_of_package(tmp_path)
    shutil.copy(LIBRARY, parent / "orvel" / "liborvel.so.1")
    assert run(parent, ORVEL_LIBRARY=str(LIBRARY)).stdout == f"{LIBRARY} 1.6.1\n"
    missing = run(parent, ORVEL_LIBRARY="/nowhere/liborvel.so")
    assert missing.returncode != 0
    assert "ImportError" in missing.stderr and "/nowhere/liborvel.so" in missing.stderr


def test_a_library_beside_the_package_is_found(tmp_path: Path) -> None:
    parent = copy_of_package(tmp_path)
    beside = parent / "orvel" / "liborvel.so.1"
    shutil.copy(LIBRARY, beside)
    assert run(parent).stdout == f"{beside} 1.6.1\n"


def test_a_library_that_the_system_knows_is_found(tmp_path: Path) -> None:
    parent = copy_of_package(tmp_path)
    (tmp_path / "lib").mkdir()
    for name in ("liborvel.so", "liborvel.so.1"):
        (tmp_path / "lib" / name).symlink_to(LIBRARY)
    assert run(parent, LD_LIBRARY_PATH=str(tmp_path / "lib")).stdout == "liborvel.so.1 1.6.1\n"


def test_another_library_is_refused_by_name(tmp_path: Path) -> None:
    source = tmp_path / "other.c"
    source.write_text("int other(void) { return 0; }\n")
    other = tmp_path / "other.so"
    subprocess.run([os.environ.get("CC", "cc"), "-shared", "-fPIC", str(source), "-o", str(other)], check=True)
    refused = run(PACKAGE.parent, ORVEL_LIBRARY=str(other))
    assert refused.returncode != 0
    assert "ImportError" in refused.stderr and "is not the liborvel" in refused.stderr


def test_another_version_of_the_interface_is_refused(tmp_path: Path) -> None:
    source = tmp_path / "next.c"
    source.write_text("".join(f"int {name}(void) {{ return 6; }}\n" for name in _library.PROTOTYPES))
    following = tmp_path / "next.so"
    subprocess.run([os.environ.get("CC", "cc"), "-shared", "-fPIC", str(source), "-o", str(following)], check=True)
    refused = run(PACKAGE.parent, ORVEL_LIBRARY=str(following))
    assert refused.returncode != 0
    assert "has version 6 of the C interface; this package is for 5" in refused.stderr
