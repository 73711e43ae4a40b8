"""What the documents show holds."""

from __future__ import annotations

import doctest
from pathlib import Path
from typing import get_origin

import pytest

import orvel

HERE = Path(__file__).parents[1]


def test_every_line_of_the_tour_holds(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(HERE.parent)
    result = doctest.testfile(str(HERE / "README.md"), module_relative=False, optionflags=doctest.ELLIPSIS)
    assert result.attempted > 15 and result.failed == 0


def test_the_example_of_the_package_holds() -> None:
    result = doctest.testmod(orvel)
    assert result.attempted > 0 and result.failed == 0


def test_everything_public_is_documented() -> None:
    for name in orvel.__all__:
        thing = getattr(orvel, name)
        if not isinstance(thing, (int, float)) and get_origin(thing) is None:
            assert thing.__doc__, name
        if isinstance(thing, type):
            for member, value in vars(thing).items():
                if callable(value) and not member.startswith("_"):
                    assert value.__doc__, f"{name}.{member}"
