"""Callsigns: what no frame carries is refused with its reason, and what decoders do not report is warned of."""

from __future__ import annotations

import ctypes
import itertools
import warnings
from collections.abc import Callable

import numpy as np
import pytest

import orvel
from orvel._callsigns import callsign_problem, is_plausible
from orvel._library import lib

QUICK = orvel.TransmitSettings(rate=8000)


def coded(call: str) -> bool:
    """Whether the library's coder takes a callsign; it ignores what follows a blank."""
    chips = (ctypes.c_uint8 * 239)()
    return bool(lib.ovl_encode(1, call.encode(), b"", chips, 239) == 239)


REFUSED = {
    "K2 QRX": "a callsign holds no blank",
    "K2Q RX": "a callsign holds no blank",
    "3DA0RU": "a prefix of that form does not fit: the second or third character must be a digit",
    "DL1QXA/P": "a callsign holds letters and digits only",
    "ABCDEFG": "a frame holds at most 6 characters",
    "K2QRXY": "at most three letters may follow the digit",
    "K2Q1": "only letters may follow the digit",
    " ": "a callsign is missing",
}
DOUBTFUL = ["K2", "A1", "123ABC", "00AAA"]


def test_a_problem_is_what_the_coder_refuses_or_drops() -> None:
    fine = 0
    for call in map("".join, itertools.chain.from_iterable(itertools.product("aB07 /", repeat=n) for n in range(6))):
        expected = coded(call) and " " not in call.strip(" ")
        assert (callsign_problem(call) == "") == expected, call
        fine += expected
    assert fine > 100


@pytest.mark.parametrize(("call", "problem"), REFUSED.items())
def test_what_no_frame_carries_is_refused_with_the_reason(call: str, problem: str) -> None:
    uses: list[Callable[[], object]] = [
        lambda: orvel.encode(call),
        lambda: orvel.encode(call, "FN31"),
        lambda: orvel.render([orvel.Pause(1), orvel.Frame(call)], QUICK),
        lambda: orvel.Transmitter(orvel.Frame(call), QUICK),
    ]
    if call.strip():
        uses += [lambda: orvel.Decoder([call]), lambda: orvel.decode(np.zeros(400000), 8000, known=["K2QRX", call])]
    for use in uses:
        with pytest.raises(orvel.OrvelError) as refusal:
            use()
        assert call in str(refusal.value) and str(refusal.value).endswith(": " + problem)


def test_a_text_of_known_callsigns_is_divided_at_blanks() -> None:
    with orvel.Decoder("K2QRX G4QZB;OH3QKJ,\n") as decoder:
        with pytest.raises(orvel.OrvelError, match="known callsign 'QRX': a prefix of that form does not fit"):
            decoder.set_known("K2 QRX")


@pytest.mark.parametrize("call", DOUBTFUL)
def test_callsigns_that_decoders_do_not_report_are_warned_of_where_they_are_given(call: str) -> None:
    uses: list[Callable[[], object]] = [
        lambda: orvel.encode(call),
        lambda: orvel.render(orvel.Frame(call), QUICK),
        lambda: orvel.Transmitter(orvel.Frame(call), QUICK),
    ]
    for use in uses:
        with pytest.warns(UserWarning, match=f"^'{call}' is not of a form that administrations issue") as warned:
            use()
        assert [warning.filename for warning in warned] == [__file__]


def test_callsigns_are_doubtful_where_the_decoder_does_not_report_them() -> None:
    calls = [*DOUBTFUL, "K2QRX", " g4a", "3Y0A", "33AB", "1A0C", "1B0C", "0A1B", "QA1A", "Q1A", "P51A", "P61A", "A1A"]
    settings = orvel.TransmitSettings(rate=8000)
    for call in calls:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            audio = orvel.render([orvel.Pause(1), orvel.Frame(call), orvel.Pause(2)], settings)
        heard = audio + np.random.default_rng(1).normal(0, 0.05, audio.size)
        spots = orvel.decode(heard, 8000, search_hz=5, protocols="opera")
        assert [spot.call for spot in spots] == ([call.strip().upper()] if is_plausible(call) else []), call
