"""I/Q through slices of its band: nothing but the slice is received, at the right place."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from stations import heard_iq, noise_iq, read_recording, station_iq
from test_decoder import assert_truth

import orvel

RATE = 12000


def calls(spots: list[orvel.Spot]) -> list[str]:
    return [spot.call for spot in spots]


@pytest.fixture(scope="module")
def below() -> Any:
    """A station 3000 Hz below the receiver's centre."""
    return heard_iq("K2QRX", -3000.0, -5, rate=RATE)


@pytest.mark.parametrize("name", ["iq-narrow", "iq-slow"])
def test_the_shipped_recordings_hold_what_they_should(name: str) -> None:
    assert_truth(orvel.decode_iq(*read_recording(name)), name)


@pytest.mark.parametrize("center_hz", [-3000.0, -2899.7, -3150.33])
def test_a_station_is_found_where_it_is(below: Any, center_hz: float) -> None:
    [spot] = orvel.decode_iq(below, RATE, center_hz=center_hz)
    assert spot.call == "K2QRX"
    assert spot.freq_hz == pytest.approx(-3000, abs=0.3)
    assert spot.t_start == pytest.approx(5, abs=0.005)
    assert spot.snr_db == pytest.approx(-5, abs=0.5)


def test_its_mirror_image_is_not_found(below: Any) -> None:
    assert orvel.decode_iq(below, RATE, center_hz=3000) == []


def test_what_mixing_would_fold_into_the_search_is_not_found(below: Any) -> None:
    # Shifted up by 1500 Hz the station lies at -1500 Hz; the real part alone has it at 1500 Hz too.
    mixed = (below * np.exp(2j * np.pi * 1500 * np.arange(below.size) / RATE)).real
    assert calls(orvel.decode(mixed, RATE)) == ["K2QRX"]
    assert orvel.decode_iq(below, RATE, center_hz=0) == []


def test_a_strong_station_beside_the_slice_is_not_heard() -> None:
    iq = noise_iq(40, RATE, 2) + station_iq("OH3QKJ", 1000, 40, n=40 * RATE, rate=RATE)
    iq += station_iq("G4QZB", 80, -15, n=iq.size, rate=RATE)
    assert calls(orvel.decode_iq(iq, RATE)) == ["G4QZB"]


@pytest.mark.parametrize("rate", [1000, 4001, 11025, 48000, 96000])
def test_every_rate_is_served(rate: int) -> None:
    frequency = -0.3 * rate
    [spot] = orvel.decode_iq(heard_iq("K2QRX", frequency, -12, rate=rate), rate, center_hz=frequency + 30)
    assert spot.call == "K2QRX"
    assert spot.freq_hz == pytest.approx(frequency, abs=0.3)
    assert spot.snr_db == pytest.approx(-12, abs=0.7)


def test_a_station_near_the_edge_of_the_band_is_found_once() -> None:
    iq = heard_iq("K2QRX", 1900.0, -8, rate=4000)
    [spot] = orvel.decode_iq(iq, 4000, center_hz=1800)
    assert spot.freq_hz == pytest.approx(1900, abs=0.3)


def test_a_wide_search_is_one_slice() -> None:
    iq = heard_iq("K2QRX", 5321.0, -5, rate=RATE) + station_iq("OH3QKJ", -5500, -5, n=40 * RATE, rate=RATE)
    found = orvel.decode_iq(iq, RATE, search_hz=6000, protocols=orvel.Protocol.OPERA)
    assert {spot.call: round(spot.freq_hz) for spot in found} == {"K2QRX": 5321, "OH3QKJ": -5500}


@pytest.mark.parametrize(("center_hz", "half_width_hz"), [(0.0, 500.0), (-3333.3, 200.0), (700.0, 5000.0)])
def test_a_slice_keeps_amplitude_time_and_frequency(center_hz: float, half_width_hz: float) -> None:
    rate, seconds = 16000, 6
    t = np.arange(rate * seconds) / rate
    inside, outside = center_hz + 37.25, center_hz + half_width_hz + 60
    fade = np.sin(np.pi * t / seconds) ** 2
    iq = fade * (0.3 * np.exp(2j * np.pi * inside * t) + np.exp(2j * np.pi * outside * t))
    part = orvel.cut_slice(iq, rate, center_hz=center_hz, half_width_hz=half_width_hz)
    assert part.samples.dtype == np.float32 and part.samples.size == part.rate * seconds
    assert part.center_hz + part.offset_hz == pytest.approx(center_hz, abs=0.5 / seconds)
    audio_t = np.arange(part.samples.size) / part.rate
    frequency = inside - part.offset_hz
    expected = 0.3 * np.sin(np.pi * audio_t / seconds) ** 2 * np.cos(2 * np.pi * frequency * audio_t)
    assert np.abs(part.samples - expected).max() < 1e-3


@pytest.mark.parametrize(
    ("iq", "error", "message"),
    [
        (np.zeros(100), TypeError, r"float64.*iq\[:, 0\] \+ 1j"),
        (np.zeros((100, 2)), TypeError, r"iq\[:, 0\] \+ 1j"),
        (np.zeros((100, 2), dtype=np.int16), TypeError, "int16"),
        (np.zeros((10, 10), dtype=complex), ValueError, r"shape \(10, 10\)"),
        (np.zeros(0, dtype=complex), ValueError, "empty"),
        (np.array([1j, complex(0, np.nan)]), ValueError, "at index 1"),
    ],
)
def test_an_array_of_another_kind_is_refused(iq: Any, error: type[Exception], message: str) -> None:
    with pytest.raises(error, match=message):
        orvel.decode_iq(iq, RATE)


def test_a_search_beyond_the_band_is_refused(below: Any) -> None:
    with pytest.raises(ValueError, match="from 5801 to 6201 Hz reaches beyond the I/Q, -6000 to 6000 Hz"):
        orvel.decode_iq(below, RATE, center_hz=6001)
    with pytest.raises(ValueError, match="center_hz is 6001"):
        orvel.cut_slice(below, RATE, center_hz=6001)
    with pytest.raises(ValueError, match="half_width_hz is 0"):
        orvel.cut_slice(below, RATE, half_width_hz=0)
    with pytest.raises(ValueError, match="no audio rate holds so wide a slice"):
        orvel.cut_slice(below, RATE, half_width_hz=92000)
    with pytest.raises(ValueError, match="rate is 0"):
        orvel.decode_iq(below, 0)
    with pytest.raises(ValueError, match="rate is 20000001"):
        orvel.decode_iq(below[:100], 20000001)
    with pytest.raises(orvel.OrvelError, match="block too short"):
        orvel.decode_iq(below[:100], RATE)
