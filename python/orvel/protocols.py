"""Protocols and the frames they make of a callsign."""

from __future__ import annotations

import ctypes
import enum
import re

import numpy as np
import numpy.typing as npt

from . import _checks as checks
from ._callsigns import check_sent
from ._errors import OrvelError
from ._library import lib

CHIP_SECONDS: float = lib.ovl_chip_seconds()
"""Length of a chip, 0.128 s for every protocol."""


class Protocol(enum.IntFlag):
    """Protocols: one alone, or several joined by ``|`` where a set of them is asked for.

    Where a protocol is asked for, its name will do, as named() takes it: "opera", "orvel-s", "orvel-l", "all".
    """

    OPERA = 1
    """A callsign in 239 chips, 30.6 s."""
    ORVEL_S = 2
    """A callsign in 239 chips, LDPC-coded."""
    ORVEL_L = 4
    """A callsign and a grid locator in 321 chips, 41.1 s, LDPC-coded."""
    ALL = 7

    @classmethod
    def named(cls, names: str) -> Protocol:
        """One or several by their names between commas, in any case: those of the command or the labels."""
        chosen = cls(0)
        for name in names.split(","):
            plain = re.sub(r"[ _]", "-", name.strip().casefold())
            if plain not in _BY_NAME:
                raise ValueError(f"protocol is {name.strip()!r}; opera, orvel-s, orvel-l or all is needed")
            chosen |= cls(_BY_NAME[plain])
        return chosen

    @property
    def label(self) -> str:
        """"OPERA 05", "ORVEL S" or "ORVEL L"; several are joined by " | "."""
        names: list[bytes] = [lib.ovl_proto_name(bit) for bit in (1, 2, 4) if self.value & bit]
        return " | ".join(name.decode() for name in names)

    @property
    def frame_chips(self) -> int:
        """Chips in a frame of one protocol: 239, 239 or 321; 0 of several."""
        chips: int = lib.ovl_frame_chips(self.value)
        return chips


_BY_NAME = {"opera": 1, "opera-05": 1, "orvel-s": 2, "orvel-l": 4, "all": 7}


def one_protocol(value: object) -> Protocol:
    """A single protocol, checked, or that of a name."""
    if isinstance(value, str):
        value = Protocol.named(value)
    number = checks.whole_number(value, "protocol", 0)
    if number not in (1, 2, 4):
        raise ValueError(f"protocol is {number}; one of Protocol.OPERA, ORVEL_S and ORVEL_L is needed")
    return Protocol(number)


def choose_protocol(locator: str, protocol: Protocol | str | None) -> Protocol:
    """The protocol of a frame: the one given, or else ORVEL L with a locator and OPERA without."""
    if protocol is not None:
        return one_protocol(protocol)
    return Protocol.ORVEL_L if locator else Protocol.OPERA


def encode(call: str, locator: str = "", *, protocol: Protocol | str | None = None) -> npt.NDArray[np.uint8]:
    """Encode one frame into chips.

    call      callsign, in either case
    locator   grid locator of 4 or 6 characters for ORVEL L; other protocols ignore it
    protocol  or its name; default: ORVEL L with a locator, OPERA without

    Returns an array of 239 or 321 values, 1 = carrier on for a chip, 0 = off. Raises OrvelError for a callsign or
    locator that the protocol cannot carry, with the callsign's reason; warns (UserWarning) of a callsign that decoders
    at their defaults do not report, as 'K2' or '123ABC'.
    """
    chosen = choose_protocol(locator, protocol)
    encoded, encoded_locator = checks.text(call, "call"), checks.text(locator, "locator")
    refusal = f"cannot encode {' '.join(filter(None, [call, locator]))!r} as {chosen.label}"
    check_sent(call, refusal)
    chips = np.empty(chosen.frame_chips, dtype=np.uint8)
    count = lib.ovl_encode(
        chosen.value,
        encoded,
        encoded_locator,
        chips.ctypes.data_as(ctypes.POINTER(ctypes.c_uint8)),
        chips.size,
    )
    if count < 0:
        raise OrvelError(refusal)
    return chips
