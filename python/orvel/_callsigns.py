"""Callsigns as users type them: why no frame carries one, and which of them decoders do not report.

The library ignores what follows a blank, and says only that it refuses a callsign. The rules are those of the command.
"""

from __future__ import annotations

import re
import sys
import warnings
from collections.abc import Iterable

from . import _checks as checks
from ._errors import OrvelError

_PACKAGE = __name__.partition(".")[0]
_BETWEEN = re.compile(r"[\s,;]+")
# What administrations issue: the digits behind a letter, the letters that stand alone before the separating digit.
_DIGITS_BEHIND = {
    "A": "23456789",
    "C": "23456789",
    "D": "23456789",
    "E": "234567",
    "H": "2346789",
    "J": "2345678",
    "L": "23456789",
    "P": "2345",
    "S": "2356789",
    "T": "2345678",
    "V": "2345678",
    "Z": "2368",
}
_SINGLE_LETTERS = "BFGIKMNRW"


def _digit_at(call: str) -> int:
    return 2 if re.match("..[0-9]", call) else 1


def callsign_problem(call: str) -> str:
    """Why no frame carries a callsign, as a clause for an error; "" when one does."""
    call = call.strip(" ")
    if not call:
        return "a callsign is missing"
    if " " in call:
        return "a callsign holds no blank"
    if not re.fullmatch("[0-9A-Za-z]+", call):
        return "a callsign holds letters and digits only"
    if len(call) > 6:
        return "a frame holds at most 6 characters"
    # One or two characters, a digit, up to three letters.
    digit = _digit_at(call)
    if not re.match("[0-9]", call[digit:]):
        return "a prefix of that form does not fit: the second or third character must be a digit"
    suffix = call[digit + 1 :]
    if re.search("[0-9]", suffix):
        return "only letters may follow the digit"
    if len(suffix) > 3:
        return "at most three letters may follow the digit"
    return ""


def is_plausible(call: str) -> bool:
    """Whether decoders at their defaults report a callsign that a frame can carry."""
    call = call.strip(" ").upper()
    prefix, suffix = call[: _digit_at(call)], call[_digit_at(call) + 1 :]
    if not suffix:
        return False
    if len(prefix) == 1:
        return prefix in _SINGLE_LETTERS
    first, second = prefix[0], prefix[1]
    if first in "0123456789":
        return prefix == "1A" if first == "1" else first != "0" and not second.isdigit()
    return first != "Q" and (not second.isdigit() or second in _DIGITS_BEHIND.get(first, ""))


def _frames_of_package() -> int:
    """The stacklevel of a warning, given by this function's caller, that shows the line that called the package."""
    level, frame = 1, sys._getframe(1)
    while frame.f_back and frame.f_globals.get("__name__", "").partition(".")[0] == _PACKAGE:
        level, frame = level + 1, frame.f_back
    return level


def check_sent(call: str, what: str) -> None:
    """Raise OrvelError, "<what>: <problem>", for a callsign that no frame carries; warn of one that is not reported."""
    if problem := callsign_problem(call):
        raise OrvelError(f"{what}: {problem}")
    if not is_plausible(call):
        warnings.warn(
            f"{call.strip(' ')!r} is not of a form that administrations issue; decoders take it for an error and do "
            "not report it",
            UserWarning,
            stacklevel=_frames_of_package(),
        )


def known_callsigns(calls: str | Iterable[str]) -> bytes:
    """A list of callsigns, or a text of some, as the library takes it; raises OrvelError for what is none."""
    listed = _BETWEEN.split(calls) if isinstance(calls, str) else list(calls)
    for call in listed:
        checks.text(call, "a known callsign")
    known = [call for call in (call.strip() for call in listed) if call]
    for call in known:
        if problem := callsign_problem(call):
            raise OrvelError(f"known callsign {call!r}: {problem}")
    return " ".join(known).encode()
