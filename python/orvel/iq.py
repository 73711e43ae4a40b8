"""Decoding of I/Q.

The library takes real audio. A slice of the band is brought into the audio range as the library itself cuts its bands:
the block is transformed once, the bins around the wanted centre are copied to where they would lie in the spectrum of
audio, and that is transformed back. Only those bins are taken, so nothing else of the band can appear in the audio: no
mirror image of a station at the opposite frequency, and no alias. One second is always a whole number of bins, so
amplitudes, times and, but for the centre's rounding to a bin, which is accounted for, frequencies stay what they are;
so do SNRs, as the noise is halved together with the power of a tone.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable
from dataclasses import dataclass, replace
from typing import Any

import numpy as np
import numpy.typing as npt

from . import _checks as checks
from .decoder import Coherent, Decoder, Search, Spot
from .protocols import Protocol

# For the noise around a search of ±s the library uses less than ±(2 s + spread + 87 Hz).
_MARGIN_HZ = 100.0
_LEAST_AUDIO_CENTER_HZ = 1500
_GAP_HZ = 100  # between the slice and 0 Hz, at least
_ROOM = 1.05  # of the audio's band beyond the slice
_AUDIO_RATES = (8000, 12000, 16000, 24000, 32000, 48000, 96000, 192000, 384000)
_MOST_RATE = 20_000_000  # Hz: the spectrum of a second then takes a third of a gigabyte


@dataclass(frozen=True, eq=False)
class Slice:
    """A slice of a band as real audio."""

    samples: checks.Float32Array
    """Shape (n,); a tone of amplitude A in the I/Q is one of amplitude A here."""
    rate: int
    """Sample rate, Hz."""
    center_hz: float
    """Where the slice's centre lies in the audio, Hz."""
    offset_hz: float
    """Frequency in the I/Q minus frequency in the audio, Hz."""


def _smooth_seconds(seconds: float) -> int:
    """The least whole number that is not below `seconds` and has no prime factor above 7."""
    number = max(1, math.ceil(seconds))
    while True:
        rest = number
        for prime in (2, 3, 5, 7):
            while rest % prime == 0:
                rest //= prime
        if rest == 1:
            return number
        number += 1


def search_half_width(search: Search) -> float:
    """Half-width of the slice that serves a search, Hz."""
    return 2 * search.search_hz + search.spread_hz + _MARGIN_HZ


class Band:
    """A block of I/Q, transformed once, from which slices are cut; checked as cut_slice() says."""

    def __init__(self, iq: checks.IqSamples, rate: checks.Rate) -> None:
        block = checks.iq_samples(iq)
        self._rate = checks.whole_number(rate, "rate", 1, _MOST_RATE)
        self._n = block.size
        self._seconds = _smooth_seconds(block.size / self._rate)
        self._spectrum: npt.NDArray[Any] = np.fft.fft(block, self._rate * self._seconds)

    def wrapped(self, freq_hz: float) -> float:
        """The same frequency of sampled I/Q from -rate/2 up to rate/2."""
        return (freq_hz + self._rate / 2) % self._rate - self._rate / 2

    def cut(self, center_hz: float, half_width_hz: float) -> Slice:
        """As cut_slice()."""
        center = checks.real_number(center_hz, "center_hz")
        half_width = checks.real_number(half_width_hz, "half_width_hz")
        edge = self._rate / 2
        if abs(center) > edge:
            raise ValueError(f"center_hz is {center:g}; I/Q at {self._rate} Hz reaches from {-edge:g} to {edge:g} Hz")
        if half_width <= 0:
            raise ValueError(f"half_width_hz is {half_width:g}; it must be above 0")
        audio_center = max(_LEAST_AUDIO_CENTER_HZ, math.ceil(half_width) + _GAP_HZ)
        rate = next((r for r in _AUDIO_RATES if r >= 2 * _ROOM * (audio_center + half_width)), None)
        if rate is None:
            raise ValueError(f"half_width_hz is {half_width:g}; no audio rate holds so wide a slice")

        seconds, spectrum = self._seconds, self._spectrum
        center_bin = round(center * seconds)
        reach = math.floor(half_width * seconds)
        n_audio = rate * seconds
        audio = np.zeros(n_audio // 2 + 1, dtype=np.complex128)
        first = audio_center * seconds - reach
        bins = np.arange(center_bin - reach, center_bin + reach + 1)
        # In the real signal each tone has half of its amplitude here and half at the negative frequency.
        audio[first : first + bins.size] = spectrum[bins % spectrum.size] * (0.5 * n_audio / spectrum.size)
        kept = max(1, self._n * rate // self._rate)
        samples = checks.to_float32(np.fft.irfft(audio, n_audio)[:kept])
        return Slice(samples, rate, float(audio_center), center_bin / seconds - audio_center)


def cut_slice(
    iq: checks.IqSamples, rate: checks.Rate, *, center_hz: float = 0.0, half_width_hz: float = 500.0
) -> Slice:
    """Bring the slice center_hz ± half_width_hz of I/Q into the audio range.

    iq             shape (n,), complex, I + jQ, all finite
    rate           sample rate, a whole number of Hz, at most 20 MHz
    center_hz      centre of the slice, relative to the receiver's centre, from -rate/2 to rate/2
    half_width_hz  above 0, at most 91 kHz. Where the slice reaches past half the rate it wraps round, as the spectrum
                   of sampled I/Q does

    Returns audio at the lowest usual rate that holds the slice; nothing of the I/Q outside the slice is in it.
    """
    return Band(iq, rate).cut(center_hz, half_width_hz)


def decode_slice(
    iq: checks.IqSamples, rate: checks.Rate, search: Search, decode: Callable[[checks.Samples, int, Search], list[Spot]]
) -> list[Spot]:
    """What decode(samples, rate, search) finds in the slice of I/Q that a search needs; as decode_iq()."""
    hertz = checks.sample_rate(rate)
    low, high = search.center_hz - search.search_hz, search.center_hz + search.search_hz
    if max(-low, high) > hertz / 2:
        raise ValueError(
            f"the search from {low:g} to {high:g} Hz reaches beyond the I/Q, {-hertz / 2:g} to {hertz / 2:g} Hz"
        )
    band = Band(iq, hertz)
    part = band.cut(search.center_hz, search_half_width(search))
    spots = decode(part.samples, part.rate, replace(search, center_hz=search.center_hz - part.offset_hz))
    return [replace(spot, freq_hz=band.wrapped(spot.freq_hz + part.offset_hz)) for spot in spots]


def decode_iq(
    iq: checks.IqSamples,
    rate: checks.Rate,
    *,
    known: str | Iterable[str] = (),
    protocols: Protocol | str = Protocol.ALL,
    center_hz: float = 0.0,
    search_hz: float = 200.0,
    spread_hz: float = 0.0,
    deep_search: bool = True,
    known_only: bool = False,
    end_min: float | None = None,
    end_max: float | None = None,
    coherent: bool | Coherent = False,
) -> list[Spot]:
    """Find and decode all frames in a slice of I/Q.

    iq         shape (n,), complex, I + jQ, all finite
    rate       sample rate, a whole number of Hz; low ones, as 1000 Hz, will do
    center_hz  centre of the search relative to the receiver's centre, Hz; may be negative
    search_hz  half-width of the search; the search must lie within -rate/2 to rate/2

    The rest is as for decode(); frequencies of the spots are relative to the receiver's centre. Raises TypeError for
    real samples, ValueError for a search beyond the band, otherwise as decode().
    """
    search = Search(protocols, center_hz, search_hz, spread_hz, deep_search, known_only, end_min, end_max)
    with Decoder(known, search, coherent) as decoder:
        return decode_slice(iq, rate, search, decoder.decode)
