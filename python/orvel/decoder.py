"""Decoding of real audio."""

from __future__ import annotations

import ctypes
import datetime
import math
import threading
import weakref
from collections.abc import Iterable
from dataclasses import dataclass
from typing import Any, Literal

from . import _checks as checks
from ._callsigns import known_callsigns
from ._errors import OrvelError
from ._handle import Handle
from ._library import lib
from ._records import CoherentRecord, FindingRecord, HitRecord, ResultRecord, SettingsRecord
from .protocols import Protocol

_MOST_SPOTS = 64  # that the library reports from one block
_MOST_HITS = 64
_LEAST_SCAN_RATE = 4000  # Hz
_LEAST_SCAN_S = 3
_ANY_END = -1e9  # the library's values for no limit
_NO_END = -1.0
Method = Literal["standard", "deep", "coherent", "coherent-known"]
METHODS: tuple[Method, ...] = ("standard", "deep", "coherent", "coherent-known")  # by the library's number
_NOT_MEASURED_DB = -99.0  # or lower, by the share of chips that are on


@dataclass(frozen=True)
class Search:
    """What to look for in a block. Raises TypeError or ValueError for a field that makes no sense."""

    protocols: Protocol | str = Protocol.ALL
    """One protocol or several, or their names; here they become a Protocol."""
    center_hz: float = 1500.0
    """Centre of the frequency search, Hz."""
    search_hz: float = 200.0
    """Half-width of the frequency search, Hz, at least 0."""
    spread_hz: float = 0.0
    """Width over which the energy of a spread signal is summed, Hz; 0 = off."""
    deep_search: bool = True
    """Also search below the ordinary threshold for known callsigns."""
    known_only: bool = False
    """Accept only known callsigns."""
    end_min: float | None = None
    """Earliest end of an accepted frame, seconds from the first sample."""
    end_max: float | None = None
    """Latest end of an accepted frame, seconds from the first sample, at least 0."""

    def __post_init__(self) -> None:
        if isinstance(self.protocols, str):
            object.__setattr__(self, "protocols", Protocol.named(self.protocols))
        checks.whole_number(self.protocols, "protocols", 0, Protocol.ALL.value)
        checks.real_number(self.center_hz, "center_hz")
        checks.real_number(self.search_hz, "search_hz", 0)
        checks.real_number(self.spread_hz, "spread_hz", 0)
        if self.end_min is not None:
            checks.real_number(self.end_min, "end_min")
        if self.end_max is not None:
            checks.real_number(self.end_max, "end_max", 0)

    def record(self) -> SettingsRecord:
        """The settings of the C interface."""
        return SettingsRecord(
            protocols=int(self.protocols),
            center_hz=self.center_hz,
            search_hz=self.search_hz,
            spread_hz=self.spread_hz,
            deep_search=bool(self.deep_search),
            known_only=bool(self.known_only),
            end_min=_ANY_END if self.end_min is None else self.end_min,
            end_max=_NO_END if self.end_max is None else self.end_max,
        )


@dataclass(frozen=True)
class Coherent:
    """How far the coherent search goes. Raises TypeError or ValueError for a field that makes no sense."""

    places: int = 16
    """Limit on effort: places examined for each length of frames and pass, 2 to 64."""
    passes: int = 4
    """Over the block, each without the frames found before, 1 to 8."""
    threads: int = 1
    """1 or 2."""
    known: bool = True
    """Also look for the known callsigns further down."""

    def __post_init__(self) -> None:
        checks.whole_number(self.places, "places", 2, 64)
        checks.whole_number(self.passes, "passes", 1, 8)
        checks.whole_number(self.threads, "threads", 1, 2)

    def record(self) -> CoherentRecord:
        """The settings of the C interface."""
        return CoherentRecord(
            places=int(self.places), passes=int(self.passes), threads=int(self.threads), known=bool(self.known)
        )


@dataclass(frozen=True)
class Spot:
    """One decoded frame. Times are seconds from the first sample of the block."""

    call: str
    """Callsign."""
    locator: str
    """Grid locator of an ORVEL L frame, otherwise ""."""
    protocol: Protocol
    """How it was sent."""
    deep: bool
    """Whether only a search for known callsigns found it."""
    t_start: float
    """Start of the frame, s; negative when it began before the block."""
    t_end: float
    """End of the frame, s."""
    freq_hz: float
    """Carrier frequency in the middle of the frame, Hz."""
    snr_db: float | None
    """Mean power over the frame against noise in 2500 Hz, dB; None when it was not measured."""
    drift_hz_s: float
    """Frequency drift, Hz/s."""
    method: Method = "standard"
    """How it was found."""
    odds: float | None = None
    """Natural logarithm of the odds that it was sent as it was read; None without the coherent search's methods."""
    rf_hz: float | None = None
    """Frequency on the air, Hz; None where the receiver's tuning is not known."""
    utc: float | None = None
    """UTC of its start, s since 1970-01-01; None where it is not known."""

    def to_dict(self) -> dict[str, Any]:
        """The fields under the names that `orvel decode --json` gives them, the protocol by its name; fit for JSON."""
        length_s = self.t_end - self.t_start
        utc = {} if self.utc is None else {"utc_start": _utc_text(self.utc), "utc_end": _utc_text(self.utc + length_s)}
        rf = {} if self.rf_hz is None else {"rf_hz": self.rf_hz}
        return {
            **utc,
            "t_start": self.t_start,
            "t_end": self.t_end,
            "freq_hz": self.freq_hz,
            **rf,
            "drift_hz_s": self.drift_hz_s,
            "snr_db": self.snr_db,
            "protocol": self.protocol.label,
            "call": self.call,
            "locator": self.locator,
            "deep": self.deep,
            "method": self.method,
            "odds": self.odds,
        }


@dataclass(frozen=True)
class Hit:
    """A frequency at which something is keyed."""

    freq_hz: float
    """Hz."""
    z: float
    """Distance from the median of all frequencies, sigma."""


def _utc_text(utc: float) -> str:
    hundredths = round(100 * utc)  # once: 59.996 never becomes 60.00
    whole = datetime.datetime.fromtimestamp(hundredths // 100, datetime.timezone.utc)
    return f"{whole:%Y-%m-%dT%H:%M:%S}.{hundredths % 100:02d}Z"


def _spot(record: ResultRecord, finding: FindingRecord) -> Spot:
    method = METHODS[finding.method]
    return Spot(
        call=record.call.decode("ascii", "replace"),
        locator=record.locator.decode("ascii", "replace"),
        protocol=Protocol(record.protocol),
        deep=method in ("deep", "coherent-known"),
        t_start=record.t_start,
        t_end=record.t_end,
        freq_hz=record.freq_hz,
        snr_db=None if record.snr_db <= _NOT_MEASURED_DB else record.snr_db,
        drift_hz_s=record.drift_hz_s,
        method=method,
        odds=None if math.isnan(finding.odds) else finding.odds,
    )


def _float_pointer(samples: checks.Float32Array) -> ctypes._Pointer[ctypes.c_float]:
    return samples.ctypes.data_as(ctypes.POINTER(ctypes.c_float))


class Decoder(Handle):
    """A decoder with its list of known callsigns and its working memory, for many blocks.

        with orvel.Decoder(known=["K2QRX"]) as decoder:
            spots = decoder.decode(samples, 12000)

    Calls of several threads for one decoder take turns. Separate decoders run in parallel: the interpreter's lock is
    released while the library decodes.
    """

    _name = "decoder"

    def __init__(
        self, known: str | Iterable[str] = (), search: Search = Search(), coherent: bool | Coherent = False
    ) -> None:
        """Make a decoder; see set_known() and set_coherent(). `search` is what its calls look for by default."""
        handle = lib.ovl_create()
        if handle is None:
            raise MemoryError("no memory for a decoder")
        self._handle = handle
        self._end = weakref.finalize(self, lib.ovl_destroy, handle)
        self._lock = threading.Lock()
        self.search = search
        self.set_known(known)
        self.set_coherent(coherent)

    def close(self) -> None:
        """Free the decoder's memory. It may be called again."""
        with self._lock:
            self._handle = None
            self._end()

    def _error(self, handle: int) -> OrvelError:
        message: bytes = lib.ovl_last_error(handle)
        return OrvelError(message.decode("utf-8", "replace"))

    def set_known(self, calls: str | Iterable[str]) -> int:
        """Replace the list of known callsigns; return how many there are now.

        calls   callsigns, or one text with callsigns between blanks, commas or semicolons; empty = none

        Raises OrvelError for what no frame carries, and leaves the list as it was; at the 257th the first 256 stay in
        use.
        """
        known = known_callsigns(calls)
        with self._lock:
            handle = self._open_handle()
            count: int = lib.ovl_set_known(handle, known)
            if count < 0:
                raise self._error(handle)
            return count

    def set_coherent(self, coherent: bool | Coherent) -> None:
        """Switch the coherent search on for the decodes that follow, True for its defaults, or off.

        It goes some 4 dB deeper for carriers that keep their phase for seconds, looks beside what the other searches
        find, and leaves that as it is. It costs about a second for each minute of audio.
        """
        settings = Coherent() if coherent is True else coherent
        record = ctypes.byref(settings.record()) if settings else None
        with self._lock:
            handle = self._open_handle()
            if lib.ovl_set_coherent(handle, record) < 0:
                raise self._error(handle)

    def decode(self, samples: checks.Samples, rate: checks.Rate, search: Search | None = None) -> list[Spot]:
        """Find and decode all frames in a block of audio.

        samples   shape (n,), real floats, all finite; full scale usually 1, anything from 1e-12 to 1e12 will do
        rate      sample rate, a whole number of Hz: 8000, 12000, 48000, 192000 and most others in use
        search    what to look for, instead of the decoder's own

        Returns at most 64 spots in order of start time; a frame may extend past either end of the block by a fifth.
        Raises TypeError or ValueError for an array of another kind, OrvelError for a block too short or a search that
        does not fit it.
        """
        return self._decode(samples, rate, search, None)

    def decode_recent(
        self, samples: checks.Samples, rate: checks.Rate, recent_s: float, search: Search | None = None
    ) -> list[Spot]:
        """Decode only frames that end within the last recent_s seconds (above 0) of a block.

        For a sliding buffer that is decoded again and again. The limits of the search on a frame's end are not used;
        otherwise as decode().
        """
        recent = checks.real_number(recent_s, "recent_s")
        if recent <= 0:
            raise ValueError(f"recent_s is {recent}; it must be above 0")
        return self._decode(samples, rate, search, recent)

    def _decode(
        self, samples: checks.Samples, rate: checks.Rate, search: Search | None, recent_s: float | None
    ) -> list[Spot]:
        block = checks.real_samples(samples)
        hertz = checks.sample_rate(rate)
        settings = ctypes.byref((self.search if search is None else search).record())
        results = (ResultRecord * _MOST_SPOTS)()
        findings = (FindingRecord * _MOST_SPOTS)()
        data = _float_pointer(block)
        with self._lock:
            handle = self._open_handle()
            if recent_s is None:
                count = lib.ovl_decode(handle, data, block.size, hertz, settings, results, _MOST_SPOTS)
            else:
                count = lib.ovl_decode_recent(
                    handle, data, block.size, hertz, settings, recent_s, results, _MOST_SPOTS
                )
            if count < 0:
                raise self._error(handle)
            lib.ovl_findings(handle, findings, _MOST_SPOTS)
        return [_spot(record, finding) for record, finding in zip(results[:count], findings)]


def decode(
    samples: checks.Samples,
    rate: checks.Rate,
    *,
    known: str | Iterable[str] = (),
    protocols: Protocol | str = Protocol.ALL,
    center_hz: float = 1500.0,
    search_hz: float = 200.0,
    spread_hz: float = 0.0,
    deep_search: bool = True,
    known_only: bool = False,
    end_min: float | None = None,
    end_max: float | None = None,
    coherent: bool | Coherent = False,
) -> list[Spot]:
    """Find and decode all frames in a block of audio.

    As Decoder(known, coherent=coherent).decode(samples, rate, Search(protocols, …)): see there.
    """
    search = Search(protocols, center_hz, search_hz, spread_hz, deep_search, known_only, end_min, end_max)
    with Decoder(known, search, coherent) as decoder:
        return decoder.decode(samples, rate)


def scan(
    samples: checks.Samples,
    rate: checks.Rate,
    *,
    seconds: float = 30.0,
    z_min: float = 6.0,
    center_hz: float = 1500.0,
    search_hz: float = 200.0,
) -> list[Hit]:
    """Find whether and where in the band something is keyed at the chip rate, much cheaper than decoding.

    samples, rate         as for decode(); rate at least 4000 Hz
    seconds               how much of the block's end to examine, at least 3
    z_min                 least z of a hit; noise alone seldom reaches 6
    center_hz, search_hz  where; hits lie within search_hz + 5 Hz of the centre

    Returns at most 64 hits, strongest first, at least 15 Hz apart; none when the block is shorter than about half of
    `seconds`. A steady carrier does not count, but the leakage of a very strong one may. Raises as decode().
    """
    block = checks.real_samples(samples)
    hertz = checks.whole_number(rate, "rate", _LEAST_SCAN_RATE)
    newest_s = checks.real_number(seconds, "seconds", _LEAST_SCAN_S)
    least_z = checks.real_number(z_min, "z_min")
    settings = Search(center_hz=center_hz, search_hz=search_hz).record()
    hits = (HitRecord * _MOST_HITS)()
    count = lib.ovl_keyed(
        _float_pointer(block), block.size, hertz, ctypes.byref(settings), newest_s, least_z, hits, _MOST_HITS
    )
    if count < 0:
        raise OrvelError("the band cannot be scanned: it lies beyond half the sample rate, or memory is short")
    return [Hit(hit.freq_hz, hit.z) for hit in hits[:count]]
