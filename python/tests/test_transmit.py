"""Rendering: whole, piece by piece, stopped, and what is refused."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest

import orvel

QUICK = orvel.TransmitSettings(rate=8000)


@pytest.mark.parametrize(
    ("frame", "protocol"),
    [
        (orvel.Frame("K2QRX"), orvel.Protocol.OPERA),
        (orvel.Frame("K2QRX", protocol=orvel.Protocol.ORVEL_S), orvel.Protocol.ORVEL_S),
        (orvel.Frame("k2qrx", "fn31"), orvel.Protocol.ORVEL_L),
    ],
)
def test_what_is_rendered_is_decoded(frame: orvel.Frame, protocol: orvel.Protocol) -> None:
    settings = orvel.TransmitSettings(rate=12000, tone_hz=1421.5, level=0.25)
    audio = orvel.render([orvel.Pause(2.5), frame, orvel.Pause(1)], settings)
    assert audio.dtype == np.float32 and audio.ndim == 1
    assert np.abs(audio).max() == pytest.approx(0.25, abs=0.001)
    [spot] = orvel.decode(audio + np.random.default_rng(1).normal(0, 0.1, audio.size), 12000)
    assert (spot.call, spot.protocol) == ("K2QRX", protocol)
    assert spot.locator == ("FN31" if protocol == orvel.Protocol.ORVEL_L else "")
    assert spot.t_start == pytest.approx(2.5, abs=0.01)
    assert spot.freq_hz == pytest.approx(1421.5, abs=0.3)


def test_the_key_follows_the_chips() -> None:
    audio = orvel.render(orvel.Frame("K2QRX"), QUICK)
    chips = orvel.encode("K2QRX")
    ramp = 0.005
    assert audio.size == pytest.approx((chips.size * orvel.CHIP_SECONDS + ramp) * 8000, abs=2)
    frame = audio[: chips.size * 1024].reshape(-1, 1024)[:, 100:-100]  # a chip is 1024 samples; without its ramps
    assert np.array_equal(np.abs(frame).max(axis=1) > 0.25, chips == 1)


def test_pieces_make_the_whole() -> None:
    steps = [orvel.Carrier(0.3), orvel.Pause(0.2), orvel.Carrier(0.1)]
    whole = orvel.render(steps, QUICK)
    pieces = []
    with orvel.Transmitter(steps, QUICK) as transmitter:
        while (piece := transmitter.render(77)).size:
            pieces.append(piece)
        assert transmitter.render(77).size == 0
    assert [piece.size for piece in pieces[:-1]] == [77] * (len(pieces) - 1)
    assert np.array_equal(np.concatenate(pieces), whole)


def test_progress_tells_step_and_chip() -> None:
    with orvel.Transmitter([orvel.Pause(1, keep_keyed=True), orvel.Pause(1), orvel.Frame("K2QRX")], QUICK) as sending:
        start = sending.progress()
        assert start.total_s == pytest.approx(2 + 239 * 0.128 + 0.005, abs=0.001)
        assert not start.done
        sending.render(4000)
        keyed = sending.progress()
        assert (keyed.step, keyed.chip, keyed.chips, keyed.keyed) == (0, None, 0, True)
        assert keyed.elapsed_s == pytest.approx(0.5)
        sending.render(8000)
        assert (sending.progress().step, sending.progress().keyed) == (1, False)
        sending.render(4000 + 1024 * 3 + 512)
        frame = sending.progress()
        assert (frame.step, frame.chip, frame.chips, frame.keyed) == (2, 3, 239, True)
        sending.render(1024 * 240)
        sending.render(1)
        end = sending.progress()
        assert (end.step, end.chip, end.keyed, end.done) == (None, None, False, True)


def test_a_stop_ends_it_with_a_ramp() -> None:
    with orvel.Transmitter(orvel.Carrier(10), QUICK) as transmitter:
        transmitter.render(8000)
        transmitter.stop()
        rest = transmitter.render(8000)
    assert 0 < rest.size < 100
    assert np.abs(rest[-4:]).max() < 0.05 < np.abs(rest[:8]).max()


def test_the_level_glides() -> None:
    with orvel.Transmitter(orvel.Carrier(10), QUICK) as transmitter:
        assert np.abs(transmitter.render(800)).max() == pytest.approx(0.5, abs=0.001)
        transmitter.set_level(0.1)
        transmitter.render(800)
        assert np.abs(transmitter.render(800)).max() == pytest.approx(0.1, abs=0.001)
        with pytest.raises(orvel.OrvelError, match="level out of range"):
            transmitter.set_level(1.5)
        with pytest.raises(ValueError, match="level is nan"):
            transmitter.set_level(float("nan"))


@pytest.mark.parametrize(
    ("steps", "settings", "message"),
    [
        ([], QUICK, "empty sequence"),
        ([orvel.Pause(1)] * 65, QUICK, "too many steps"),
        (orvel.Pause(1), orvel.TransmitSettings(rate=7999), "sample rate out of range"),
        (orvel.Pause(1), orvel.TransmitSettings(rate=8000, tone_hz=3600), "tone frequency out of range"),
        (orvel.Pause(1), orvel.TransmitSettings(level=0), "level out of range"),
        (orvel.Pause(1), orvel.TransmitSettings(ramp_s=0.06), r"ramp out of range"),
        (orvel.Frame("K2QRX!"), QUICK, r"cannot encode K2QRX!"),
        (orvel.Frame("K2QRX", "ZZ99"), QUICK, "cannot encode K2QRX ZZ99"),
        (orvel.Carrier(0.01), QUICK, "duration out of range"),
        ([orvel.Pause(3600)] * 64, orvel.TransmitSettings(rate=384000), "duration out of range"),
    ],
)
def test_what_the_library_refuses_comes_with_its_text(
    steps: Any, settings: orvel.TransmitSettings, message: str
) -> None:
    with pytest.raises(orvel.OrvelError, match=message):
        orvel.render(steps, settings)


@pytest.mark.parametrize(
    ("steps", "settings", "error", "message"),
    [
        ("K2QRX", QUICK, TypeError, "a step is 'K'"),
        (orvel.Frame(5), QUICK, TypeError, "call is 5"),  # type: ignore[arg-type]
        (orvel.Frame("K2QRXK2QRXK2QRXK"), QUICK, ValueError, "longer than 15"),
        (orvel.Frame("K2QRX", "FN31FN31"), QUICK, ValueError, "longer than 7"),
        (orvel.Frame("K2\0"), QUICK, ValueError, "NUL"),
        (orvel.Frame("K2QRX", protocol=orvel.Protocol(3)), QUICK, ValueError, "protocol is 3"),
        (orvel.Carrier("1"), QUICK, TypeError, "seconds is '1'"),  # type: ignore[arg-type]
        (orvel.Pause(float("nan")), QUICK, ValueError, "seconds is nan"),
        (orvel.Pause(1), orvel.TransmitSettings(rate=8000.5), ValueError, "rate is 8000.5"),  # type: ignore[arg-type]
        (orvel.Pause(1), orvel.TransmitSettings(tone_hz=float("inf")), ValueError, "tone_hz is inf"),
    ],
)
def test_steps_and_settings_that_make_no_sense_are_refused(
    steps: Any, settings: orvel.TransmitSettings, error: type[Exception], message: str
) -> None:
    with pytest.raises(error, match=message):
        orvel.render(steps, settings)


def test_a_closed_transmitter_says_so() -> None:
    transmitter = orvel.Transmitter(orvel.Carrier(1), QUICK)
    with pytest.raises(ValueError, match="n is 0"):
        transmitter.render(0)
    transmitter.close()
    transmitter.close()
    for call in (lambda: transmitter.render(1), transmitter.stop, transmitter.progress):
        with pytest.raises(ValueError, match="the transmitter is closed"):
            call()
