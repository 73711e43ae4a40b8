"""Decoding of recordings: blocks that overlap, and each frame once.

WAV files of whole numbers need nothing but Python; whatever else libsndfile reads (FLAC, Ogg, floating-point WAV) needs
the package soundfile.
"""

from __future__ import annotations

import contextlib
import os
import wave
from collections.abc import Iterable, Iterator
from dataclasses import replace
from typing import Any

import numpy as np
import numpy.typing as npt

from . import _checks as checks
from ._samples import SampleFile, Take, format_of_name, is_sigmf, open_raw, open_sigmf, parse_format
from .decoder import METHODS, Coherent, Decoder, Search, Spot
from .iq import decode_slice
from .protocols import Protocol
from .wide import decode_wide

# As the command cuts recordings.
_OVERLAP_S = 50  # the longest frame and a little more
_LEAST_BLOCK_S, _MOST_BLOCK_S, _BLOCK_SAMPLES = 90, 300, 18_000_000
_STRETCH = 1.25  # a recording up to this many blocks long is one
# The library examines 30 candidates of each protocol in a call: one call for these seconds of ends makes them the 120 a
# minute that the command examines.
_WINDOW_S = 15
_SAME_S, _SAME_HZ = 10, 15  # a station cannot send two frames this close

_Frames = npt.NDArray[np.float64]  # shape (frames, channels), full scale 1


class _WaveFile:
    """A WAV file of whole numbers, read by Python alone."""

    def __init__(self, path: str) -> None:
        self._file = wave.open(path)
        self.rate, self.n = self._file.getframerate(), self._file.getnframes()

    def read(self, begin: int, count: int) -> _Frames:
        self._file.setpos(begin)
        data = self._file.readframes(count)
        width, channels = self._file.getsampwidth(), self._file.getnchannels()
        octets = np.frombuffer(data, np.uint8)[: len(data) // (width * channels) * (width * channels)]
        if width == 1:
            return ((octets - 128.0) / 128).reshape(-1, channels)
        wide = np.zeros((octets.size // width, 4), np.uint8)  # the sample in the highest octets of four
        wide[:, 4 - width :] = octets.reshape(-1, width)
        return (wide.view("<i4")[:, 0] / 2.0**31).reshape(-1, channels)

    def close(self) -> None:
        self._file.close()


class _SoundFile:
    """Whatever libsndfile reads."""

    def __init__(self, path: str) -> None:
        import soundfile  # type: ignore[import]

        self._file = soundfile.SoundFile(path)
        self.rate, self.n = self._file.samplerate, self._file.frames

    def read(self, begin: int, count: int) -> _Frames:
        self._file.seek(begin)
        samples: _Frames = self._file.read(count, dtype="float64", always_2d=True)
        return samples

    def close(self) -> None:
        self._file.close()


def _open(path: str, iq: bool, raw: str | None, rate: int | None) -> _WaveFile | _SoundFile | SampleFile:
    if raw is None and is_sigmf(path):
        return open_sigmf(path, rate)
    kind = (parse_format(raw), False) if raw is not None else format_of_name(path)
    if kind is not None:
        if kind[0] is None:
            raise ValueError(f"raw is {raw!r}, not u8, s8, u16, s16, s24, u32, s32, f32, f64, or one with be behind it")
        if rate is None:
            raise ValueError(f"{path!r} holds bare samples, whose rate must be given")
        return open_raw(path, kind[0], iq or kind[1], rate)
    try:
        return _WaveFile(path)
    except (wave.Error, EOFError) as error:
        try:
            return _SoundFile(path)
        except ImportError:
            raise ValueError(f"{path!r} is no WAV file of whole numbers ({error}); others need soundfile") from None


def _starts(n: int, length: int, overlap: int) -> list[int]:
    """First frames of blocks of a length; the last one ends with the file."""
    return [*range(0, n - length, length - overlap), n - length]


def _blocks(file: _WaveFile | _SoundFile | SampleFile) -> Iterator[tuple[int, _Frames]]:
    seconds = min(max(_BLOCK_SAMPLES / file.rate, _LEAST_BLOCK_S), _MOST_BLOCK_S)
    length = round(seconds * file.rate)
    if file.n <= _STRETCH * length:
        length = file.n
    for begin in _starts(file.n, length, _OVERLAP_S * file.rate):
        block = file.read(begin, length)
        if begin > 0 and block.size == 0:
            return  # the file ends before its header says
        block[~np.isfinite(block)] = 0
        yield begin, block


def _samples(block: _Frames, iq: bool, channel: int | None) -> Any:
    channels = block.shape[1]
    if iq:
        if channels != 2:
            raise ValueError(f"I/Q needs two channels; the file has {channels}")
        return block[:, 0] + 1j * block[:, 1]
    if channel is None:
        return block.mean(axis=1)
    return block[:, checks.whole_number(channel, "channel", 1, channels) - 1]


def _decode_crowded(
    decoder: Decoder, samples: checks.Samples, rate: int, search: Search, coherent: bool | Coherent
) -> list[Spot]:
    """One block, window by window of ends; then all of it at once, so that no edge of a window costs a frame."""
    last = max(1, int(len(samples) / rate) // _WINDOW_S)
    ends: list[float | None] = [None, *(_WINDOW_S * k for k in range(2, last)), None]
    spots: list[Spot] = []
    decoder.set_coherent(False)
    for begin, end in zip(ends[:-1], ends[1:]):
        spots += decoder.decode(samples, rate, replace(search, end_min=begin, end_max=end))
    decoder.set_coherent(coherent)
    return spots + decoder.decode(samples, rate, search)


def _merge(found: list[tuple[float, Spot]]) -> list[Spot]:
    """Each frame once: found by the plainest method, then the surest of the coherent ones, or the most of it heard."""
    best: list[tuple[float, Spot]] = []

    def goodness(heard_s: float, spot: Spot) -> tuple[int, float]:
        return -METHODS.index(spot.method), heard_s if spot.odds is None else spot.odds

    for heard_s, spot in found:
        for k, (other_s, other) in enumerate(best):
            same = (spot.protocol, spot.call, spot.locator) == (other.protocol, other.call, other.locator)
            if same and abs(spot.t_start - other.t_start) < _SAME_S and abs(spot.freq_hz - other.freq_hz) < _SAME_HZ:
                if goodness(heard_s, spot) >= goodness(other_s, other):
                    best[k] = heard_s, spot
                break
        else:
            best.append((heard_s, spot))
    return sorted((spot for _, spot in best), key=lambda spot: spot.t_start)


def _placed(spot: Spot, takes: list[Take], rate: int) -> Spot:
    """A spot with its time and its frequency on the air, as far as the take that it lies in knows them."""
    middle = (spot.t_start + spot.t_end) / 2 * rate
    take = [take for k, take in enumerate(takes) if k == 0 or take.begin <= middle][-1]
    utc = None if take.utc is None else take.utc - take.begin / rate + spot.t_start
    if take.dial_hz is None:
        return replace(spot, utc=utc)
    return replace(spot, utc=utc, rf_hz=take.dial_hz - spot.freq_hz if take.lsb else take.dial_hz + spot.freq_hz)


def decode_file(
    path: str | os.PathLike[str],
    *,
    iq: bool = False,
    raw: str | None = None,
    rate: int | None = None,
    dial_hz: float | None = None,
    lsb: bool = False,
    wide: bool = False,
    channel: int | None = None,
    known: str | Iterable[str] = (),
    protocols: Protocol | str = Protocol.ALL,
    center_hz: float | None = None,
    search_hz: float = 200.0,
    spread_hz: float = 0.0,
    deep_search: bool = True,
    known_only: bool = False,
    coherent: bool | Coherent = False,
) -> list[Spot]:
    """Find and decode all frames in a recording of any length, block by block.

    path       WAV file; with the package soundfile whatever else libsndfile reads; SigMF, by any of its names; bare
               samples, by names like .cu8, .cs16 and .cf32, which are I/Q, or .s16 and .f32
    iq         the two channels are I and Q, around the receiver's centre; SigMF and names of bare samples say so too
    raw        the file is bare samples of this format, whatever its name: "u8", "s16", "f32be" and the like
    rate       sample rate of bare samples, Hz; goes before that of SigMF
    dial_hz    frequency that the receiver was tuned to, of I/Q its centre; goes before that of SigMF
    lsb        frequencies count downward from dial_hz
    wide       of I/Q, the whole band: as for decode_wide()
    channel    of audio the one to take, from 1; None = the mean of all
    center_hz  centre of the search; None = 1500 Hz, of I/Q 0

    The rest is as for decode(). Spots count from the start of the file, each frame is reported once, in order of start
    time, as `orvel decode` prints them, with `rf_hz` and `utc` where SigMF or dial_hz tell them. The command reads sample rates that the library refuses too, and works on all cores.
    Samples that are not finite count as silence; a file that ends before its header says is decoded up to there.

    Raises OSError when the file cannot be opened, ValueError when it cannot be read as asked, OrvelError for one that
    the decoder refuses; soundfile raises errors of its own.
    """
    calls = known if isinstance(known, str) else list(known)
    found: list[tuple[float, Spot]] = []
    hertz = None if rate is None else checks.whole_number(rate, "rate", 1)
    with contextlib.closing(_open(os.fspath(path), iq, raw, hertz)) as file, Decoder(calls) as decoder:
        iq = iq or (isinstance(file, SampleFile) and file.iq)
        if wide and not iq:
            raise ValueError("wide is for I/Q")
        center = (0.0 if iq else 1500.0) if center_hz is None else center_hz
        search = Search(protocols, center, search_hz, spread_hz, deep_search, known_only)
        takes = file.takes if isinstance(file, SampleFile) else [Take()]
        if dial_hz is not None:
            takes = [replace(take, dial_hz=checks.real_number(dial_hz, "dial_hz"), lsb=lsb) for take in takes]

        def decode(samples: checks.Samples, rate: int, where: Search) -> list[Spot]:
            return _decode_crowded(decoder, samples, rate, where, coherent)

        for begin, block in _blocks(file):
            samples = _samples(block, iq, channel)
            if wide:
                spots = decode_wide(
                    samples,
                    file.rate,
                    known=calls,
                    protocols=protocols,
                    deep_search=deep_search,
                    known_only=known_only,
                    coherent=coherent,
                )
            elif iq:
                spots = decode_slice(samples, file.rate, search, decode)
            else:
                spots = decode(samples, file.rate, search)
            begin_s, length_s = begin / file.rate, samples.size / file.rate
            for spot in spots:
                heard_s = min(spot.t_end, length_s) - max(spot.t_start, 0)
                found.append((heard_s, replace(spot, t_start=spot.t_start + begin_s, t_end=spot.t_end + begin_s)))
        merged = _merge(found)
        return [_placed(spot, takes, file.rate) for spot in merged]
