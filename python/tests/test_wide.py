"""A whole band of I/Q: every station that stands out is found, where it is and once."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from stations import noise_iq, station_iq

import orvel

RATE = 24000

# Frequency, SNR, start and locator. The block is 45 s long.
STATIONS: dict[str, tuple[float, float, float, str]] = {
    "G4QZB": (-11870.0, -8, 3.0, ""),
    "F5QVB": (-8000.0, -14, -3.5, ""),  # where two parts of the scan meet; begins before the block
    "K2QRX": (-3321.3, -17, 7.7, "FN31"),
    "OH3QKJ": (-40.0, 5, 0.5, ""),
    "LA6QTN": (35.0, -12, 14.0, ""),
    "W7QNH": (3321.3, -16, 10.0, ""),
    "DL1QXA": (7993.0, -13, 18.0, ""),  # ends after the block
    "I4QPD": (11900.0, -10, 2.0, ""),
}


@pytest.fixture(scope="module")
def band() -> Any:
    iq = noise_iq(45, RATE, 4)
    for call, (freq_hz, snr_db, t_start, locator) in STATIONS.items():
        iq += station_iq(call, freq_hz, snr_db, n=iq.size, rate=RATE, t_start=t_start, locator=locator)
    return iq


def test_every_station_of_the_band_is_found_once(band: Any) -> None:
    spots = orvel.decode_wide(band, RATE)
    assert sorted(spot.call for spot in spots) == sorted(STATIONS)
    assert [spot.t_start for spot in spots] == sorted(spot.t_start for spot in spots)
    for spot in spots:
        freq_hz, snr_db, t_start, locator = STATIONS[spot.call]
        assert spot.freq_hz == pytest.approx(freq_hz, abs=0.3)
        assert spot.t_start == pytest.approx(t_start, abs=0.02)
        assert spot.locator == locator
        # What a strong neighbour leaves counts as noise.
        assert spot.snr_db is not None and snr_db - 3 <= spot.snr_db <= snr_db + 1


def test_only_the_band_asked_for_is_searched(band: Any) -> None:
    found = orvel.decode_wide(band.astype(np.complex64), RATE, low_hz=-4000, high_hz=34)
    assert {spot.call for spot in found} == {"K2QRX", "OH3QKJ"}


def test_the_rest_of_the_search_is_kept(band: Any) -> None:
    def found(**search: Any) -> set[str]:
        return {spot.call for spot in orvel.decode_wide(band, RATE, low_hz=-4000, high_hz=100, **search)}

    assert found(protocols=orvel.Protocol.ORVEL_L) == {"K2QRX"}
    assert found(protocols=orvel.Protocol.OPERA, known=["LA6QTN"], known_only=True) == {"LA6QTN"}
    assert found(z_min=1e6) == set()


def test_noise_holds_nothing() -> None:
    assert orvel.decode_wide(noise_iq(40, RATE, 6), RATE) == []


def test_what_was_sent_long_before_the_end_is_found_and_what_was_sent_twice_is_twice() -> None:
    iq = noise_iq(70, 4000, 8)
    for t_start in (2.0, 36.0):
        iq += station_iq("K2QRX", 1234.0, -8, n=iq.size, rate=4000, t_start=t_start)
    iq += station_iq("G4QZB", -800.0, -8, n=iq.size, rate=4000, t_start=1.0)
    found = [(spot.call, round(spot.t_start)) for spot in orvel.decode_wide(iq, 4000)]
    assert found == [("G4QZB", 1), ("K2QRX", 2), ("K2QRX", 36)]


def test_a_station_at_the_very_edge_of_the_band_is_found() -> None:
    iq = noise_iq(40, 4000, 8) + station_iq("K2QRX", 1999.0, -8, n=160000, rate=4000)
    [spot] = orvel.decode_wide(iq, 4000)
    assert spot.freq_hz == pytest.approx(1999, abs=0.3)


# Of two stations close together the weaker does not stand out by itself.
def test_both_of_two_neighbours_are_found_each_once() -> None:
    rate = 6000
    iq = noise_iq(42, rate, 12)
    sent = {}
    pairs = [("K2QRX", "G4QZB", 12), ("F5QVB", "OH3QKJ", 21), ("LA6QTN", "W7QNH", 29), ("DL1QXA", "I4QPD", 45)]
    for k, (*pair, spacing_hz) in enumerate(pairs):
        for call, snr_db, offset_hz in zip(pair, (-10, -16), (0, spacing_hz)):
            sent[call] = -1900 + 1100 * k + offset_hz, snr_db
            iq += station_iq(call, *sent[call], n=iq.size, rate=rate, t_start=1.0 + 2 * k + offset_hz / 20)
    found = orvel.decode_wide(iq, rate, protocols="opera")
    assert sorted(spot.call for spot in found) == sorted(sent)
    for spot in found:
        freq_hz, snr_db = sent[spot.call]
        # Nearer than 20 Hz the stronger one takes up to 5 dB from the weaker, however it is found.
        assert spot.freq_hz == pytest.approx(freq_hz, abs=1)
        assert spot.snr_db is not None and snr_db - 5 <= spot.snr_db <= snr_db + 1
        around = orvel.decode_iq(iq, rate, center_hz=freq_hz, search_hz=4, protocols="opera")
        assert all(narrow.snr_db == pytest.approx(spot.snr_db, abs=1) for narrow in around if narrow.call == spot.call)


def test_wrong_arguments_are_told(band: Any) -> None:
    with pytest.raises(TypeError, match="a complex array is needed"):
        orvel.decode_wide(band.real, RATE)
    for low, high in ((-12001, 0), (0, 12001), (100, 100), (100, 0)):
        with pytest.raises(ValueError, match=f"the band from {low} to {high} Hz"):
            orvel.decode_wide(band, RATE, low_hz=low, high_hz=high)
    with pytest.raises(ValueError, match="low_hz is nan"):
        orvel.decode_wide(band, RATE, low_hz=float("nan"))
    with pytest.raises(ValueError, match="z_min is nan"):
        orvel.decode_wide(band, RATE, z_min=float("nan"))
    with pytest.raises(ValueError, match="rate is 999"):
        orvel.decode_wide(band, 999)
    with pytest.raises(orvel.OrvelError, match="no protocol selected"):
        orvel.decode_wide(band, RATE, low_hz=-100, high_hz=100, protocols=orvel.Protocol(0))
    with pytest.raises(orvel.OrvelError, match="known_only needs a list"):
        orvel.decode_wide(band, RATE, low_hz=-100, high_hz=100, known_only=True)
