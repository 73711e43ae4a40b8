"""Decoding of a whole band of I/Q: scan it for keyed frequencies, decode a narrow tile around each.

The block is transformed once. Parts of a few kilohertz are brought into the audio range and scanned, one frame's length
at a time; then a tile of its own is decoded for each frequency at which something is keyed, and narrow ones beside each
frame found.
"""

from __future__ import annotations

import math
from collections.abc import Iterable
from dataclasses import replace

import numpy as np

from . import _checks as checks
from .decoder import METHODS, Coherent, Decoder, Hit, Search, Spot, scan
from .iq import Band, search_half_width
from .protocols import CHIP_SECONDS, Protocol

_PART_HZ = 2000.0  # half-width of what is scanned at once: enough frequencies for a median of noise
_PART_MARGIN_HZ = 200.0
_SCAN_S = Protocol.OPERA.frame_chips * CHIP_SECONDS
_SCAN_STEP_S = _SCAN_S / 4  # a frame lies in some scan but for an eighth of it
_TILE_SEPARATION_HZ = 30.0
_TILE_HZ = _TILE_SEPARATION_HZ + 3  # half-width; reaches every station whose stronger neighbour was taken instead
# Next to a frame the decoder takes all others of the time for its shadows: the tiles to its sides do not hold it.
_BESIDE_HZ = (-24.0, -20.0, -16.0, -12.0, 12.0, 16.0, 20.0, 24.0)
_BESIDE_TILE_HZ = 4.0
_LEAK_HZ = 30.0
_LEAK_DB = 10.0
_SAME_S = _SCAN_S / 2  # one callsign is reported once in this time


def _scan_part(band: Band, center_hz: float, half_width_hz: float, z_min: float) -> list[Hit]:
    part = band.cut(center_hz, half_width_hz + _PART_MARGIN_HZ)
    center = center_hz - part.offset_hz
    hits: list[Hit] = []
    end_s = part.samples.size / part.rate
    while True:
        samples = part.samples[: max(1, round(end_s * part.rate))]
        found = scan(samples, part.rate, seconds=_SCAN_S, z_min=z_min, center_hz=center, search_hz=half_width_hz)
        hits += [Hit(hit.freq_hz + part.offset_hz, hit.z) for hit in found]
        if end_s <= _SCAN_S:
            return hits
        end_s = max(_SCAN_S, end_s - _SCAN_STEP_S)


def _strongest_apart(hits: Iterable[Hit]) -> list[Hit]:
    kept: list[Hit] = []
    for hit in sorted(hits, key=lambda hit: -hit.z):
        if all(abs(hit.freq_hz - other.freq_hz) >= _TILE_SEPARATION_HZ for other in kept):
            kept.append(hit)
    return kept


def _level(spot: Spot) -> float:
    return -math.inf if spot.snr_db is None else spot.snr_db


class _Finds:
    """The spots of all tiles. Of those of one callsign at one time the one of the plainest method stays, then the one
    nearest to the centre of its tile: at the edges a frame is found by what it leaks, with a frequency a little off."""

    def __init__(self) -> None:
        self.spots: list[Spot] = []
        self._ranks: list[tuple[int, float]] = []

    def holds_leak(self, spot: Spot) -> bool:
        """Whether a spot is what a frame some 30 Hz beside leaks to there, read as another protocol."""
        return any(
            spot.protocol != other.protocol
            and abs(spot.freq_hz - other.freq_hz) < _LEAK_HZ
            and min(spot.t_end, other.t_end) - max(spot.t_start, other.t_start) > _SAME_S
            and _level(spot) < _level(other) - _LEAK_DB
            for other in self.spots
        )

    def add(self, spot: Spot, from_center_hz: float) -> None:
        rank = METHODS.index(spot.method), from_center_hz
        for k, other in enumerate(self.spots):
            if other.call == spot.call and abs(other.t_start - spot.t_start) < _SAME_S:
                if rank < self._ranks[k]:
                    self.spots[k], self._ranks[k] = spot, rank
                return
        self.spots.append(spot)
        self._ranks.append(rank)


def decode_wide(
    iq: checks.IqSamples,
    rate: checks.Rate,
    *,
    low_hz: float | None = None,
    high_hz: float | None = None,
    z_min: float = 6.0,
    known: str | Iterable[str] = (),
    protocols: Protocol | str = Protocol.ALL,
    deep_search: bool = False,
    known_only: bool = False,
    coherent: bool | Coherent = False,
) -> list[Spot]:
    """Find and decode all frames in a whole band of I/Q.

    iq               shape (n,), complex, I + jQ, all finite; half of a frame's length, 15.3 s, at least
    rate             sample rate, a whole number of Hz, at least 1000
    low_hz, high_hz  the band relative to the receiver's centre, within -rate/2 to rate/2; None = all of that
    z_min            how far a keyed frequency must stand out, sigma; noise alone seldom reaches 6
    deep_search      as for decode(), in each tile: its chance of a false alarm is that of a block, times the tiles
    coherent         as for decode(), in each tile: where something is keyed

    The rest is as for decode(). Frames too weak to stand out in the scan are not found, but within 33 Hz of what does:
    decode_iq() around their frequency goes deeper. Returns spots in order of start time, one of a callsign in half of a
    frame's length, with frequencies relative to the receiver's centre. Raises TypeError for real samples, ValueError for a band beyond
    the I/Q, otherwise as decode().
    """
    hertz = checks.whole_number(rate, "rate", 1000)
    low = -hertz / 2 if low_hz is None else checks.real_number(low_hz, "low_hz")
    high = hertz / 2 if high_hz is None else checks.real_number(high_hz, "high_hz")
    if not -hertz / 2 <= low < high <= hertz / 2:
        raise ValueError(f"the band from {low:g} to {high:g} Hz is none within {-hertz / 2:g} to {hertz / 2:g} Hz")
    tile = Search(protocols, 0.0, _TILE_HZ, 0.0, deep_search, known_only)
    least_z = checks.real_number(z_min, "z_min")
    with Decoder(known, tile, coherent) as decoder:
        band = Band(iq, hertz)
        n_parts = math.ceil((high - low) / (2 * _PART_HZ))
        edges = np.linspace(low, high, n_parts + 1)
        hits: list[Hit] = []
        for begin, end in zip(edges[:-1], edges[1:]):
            hits += _scan_part(band, float(begin + end) / 2, float(end - begin) / 2, least_z)

        finds = _Finds()
        beside = replace(tile, search_hz=_BESIDE_TILE_HZ, deep_search=False)

        def decode_tile(center_hz: float, search: Search) -> None:
            part = band.cut(min(max(center_hz, low), high), search_half_width(search))
            for spot in decoder.decode(part.samples, part.rate, replace(search, center_hz=part.center_hz)):
                found = replace(spot, freq_hz=band.wrapped(spot.freq_hz + part.offset_hz))
                if search is beside and finds.holds_leak(found):
                    continue
                finds.add(found, abs(spot.freq_hz - part.center_hz))

        for hit in _strongest_apart(hits):
            decode_tile(hit.freq_hz, tile)
        decoder.set_coherent(False)
        for spot in [spot for spot in finds.spots if spot.method == "standard"]:
            for offset_hz in _BESIDE_HZ:
                decode_tile(spot.freq_hz + offset_hz, beside)
    return sorted((spot for spot in finds.spots if low <= spot.freq_hz <= high), key=lambda spot: spot.t_start)
