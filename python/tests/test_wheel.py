"""The wheel, as pip makes it without a network, and what an empty directory can do with it alone."""

from __future__ import annotations

import os
import subprocess
import sys
import sysconfig
import zipfile
from pathlib import Path

import pytest

import orvel

PYTHON = Path(__file__).parents[1]
LIBRARY = Path(orvel.library_path()).resolve()
USE = """
import orvel
audio = orvel.render(orvel.Frame("K2QRX"), orvel.TransmitSettings(rate=8000))
print(orvel.library_path(), orvel.__version__, [spot.call for spot in orvel.decode(audio, 8000)])
"""


def make_wheel(to: Path, library: str, *, by_pip: bool = False) -> Path:
    """From a copy: setuptools leaves files beside its sources. pip, which runs it several times, takes thrice as long."""
    tree = to / "python"
    for name in ("pyproject.toml", "setup.py", "README.md", "orvel"):
        (tree / name).parent.mkdir(exist_ok=True)
        subprocess.run(["cp", "-r", str(PYTHON / name), str(tree / name)], check=True)
    command = [sys.executable, "setup.py", "-q", "bdist_wheel", "-d", str(to)]
    if by_pip:
        pip = [sys.executable, "-m", "pip", "wheel", "--no-build-isolation", "--no-deps", "--no-index"]
        command = [*pip, "-w", str(to), str(tree)]
    environment = os.environ | {"ORVEL_WHEEL_LIBRARY": library, "PIP_DISABLE_PIP_VERSION_CHECK": "1"}
    done = subprocess.run(command, cwd=tree, env=environment, capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    [wheel] = to.glob("*.whl")
    return wheel


def test_the_wheel_holds_the_library_and_serves_alone(tmp_path: Path) -> None:
    wheel = make_wheel(tmp_path, str(LIBRARY), by_pip=True)
    platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    assert wheel.name == f"orvel-1.6.1-py3-none-{platform}.whl"
    site = tmp_path / "site"
    zipfile.ZipFile(wheel).extractall(site)
    assert (site / "orvel" / "liborvel.so.1").read_bytes() == LIBRARY.read_bytes()
    assert sorted(path.name for path in (site / "orvel").glob("*.py")) == sorted(
        path.name for path in (PYTHON / "orvel").glob("*.py")
    )
    assert (site / "orvel" / "py.typed").exists()
    kept = {name: value for name, value in os.environ.items() if name not in ("ORVEL_LIBRARY", "PYTHONPATH")}
    done = subprocess.run(
        [sys.executable, "-c", USE],
        cwd=site,
        env=kept | {"PYTHONPATH": str(site)},
        capture_output=True,
        text=True,
        check=True,
    )
    assert done.stdout == f"{site / 'orvel' / 'liborvel.so.1'} 1.6.1 ['K2QRX']\n"


def test_a_wheel_without_the_library_is_for_every_machine(tmp_path: Path) -> None:
    wheel = make_wheel(tmp_path, "none")
    assert wheel.name == "orvel-1.6.1-py3-none-any.whl"
    assert not [name for name in zipfile.ZipFile(wheel).namelist() if ".so" in name]


def test_a_wheel_is_not_made_outside_the_tree(tmp_path: Path) -> None:
    with pytest.raises(AssertionError, match="is not the tree of liborvel; ORVEL_WHEEL_LIBRARY can name"):
        make_wheel(tmp_path, "")
