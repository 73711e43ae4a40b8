"""Sound devices: capture and playback."""

from __future__ import annotations

import ctypes
import threading
import time
import weakref
from collections.abc import Sequence
from dataclasses import dataclass
from datetime import datetime
from typing import Literal

import numpy as np

from . import _checks as checks
from ._errors import OrvelError
from ._handle import Handle
from ._library import lib
from ._records import AudioDeviceRecord, AudioStatsRecord
from .transmit import Progress, Step, Transmitter, TransmitSettings

DEFAULT_DEVICE = -1
"""The system's default device."""
NO_DEVICE = -2
"""Capture without a sound card: the program pushes the samples."""

# Finding devices, starting and stopping must not overlap in a process, whichever object it is for. A finalizer may run
# in a thread that holds the lock.
_devices_lock = threading.RLock()


@dataclass(frozen=True)
class Device:
    """A sound device."""

    index: int
    """Its number."""
    name: str
    """"" when it has none."""
    host_api: str
    """Sound system that serves it, "ALSA" for one."""
    input_channels: int
    """At most; 0 = no input."""
    output_channels: int
    """At most; 0 = no output."""
    default_rate: float
    """Hz."""
    is_default_input: bool
    is_default_output: bool


@dataclass(frozen=True)
class CaptureStats:
    """How capture is doing. Levels are those of the last tenth of a second, in dB of full scale, not below -120."""

    peak_db: float
    """Highest magnitude."""
    rms_db: float
    """Root of the mean square."""
    captured_s: float
    """Seconds captured since the start."""
    latency_s: float
    """Delay of the input as the sound system states it."""
    overflows: int
    """Times that input was lost."""
    rate: int
    """Hz, of the captured samples."""


def devices() -> list[Device]:
    """List the sound devices; empty when there are none or the sound system cannot be initialised.

    The first call that needs the devices looks for them; the list then stays until the process ends.
    """
    found = []
    with _devices_lock:
        for index in range(lib.ovl_audio_device_count()):
            record = AudioDeviceRecord()
            if lib.ovl_audio_device_info(index, ctypes.byref(record)) != 0:
                continue
            found.append(
                Device(
                    index=index,
                    name=record.name.decode("utf-8", "replace"),
                    host_api=record.host_api.decode("utf-8", "replace"),
                    input_channels=record.input_channels,
                    output_channels=record.output_channels,
                    default_rate=record.default_rate,
                    is_default_input=record.is_default_input != 0,
                    is_default_output=record.is_default_output != 0,
                )
            )
    return found


def _device_number(device: int | str, direction: Literal["input", "output"], least: int) -> int:
    """The number of a device given by number, name or part of a name."""
    if not isinstance(device, str):
        return checks.whole_number(device, "device", least)
    usable = [d for d in devices() if (d.input_channels if direction == "input" else d.output_channels) > 0]
    wanted = device.casefold()
    found = [d for d in usable if d.name.casefold() == wanted] or [d for d in usable if wanted in d.name.casefold()]
    if len(found) != 1:
        names = ", ".join(repr(d.name) for d in found or usable) or "none"
        fits = f"fits {len(found)} {direction} devices" if found else f"is no {direction} device; there are"
        raise ValueError(f"device {device!r} {fits}: {names}")
    return found[0].index


def _create() -> int:
    handle: int | None = lib.ovl_audio_create()
    if handle is None:
        raise MemoryError("no memory for audio")
    return handle


def _destroy(handle: int) -> None:
    with _devices_lock:
        lib.ovl_audio_destroy(handle)


def _error(handle: int) -> OrvelError:
    message: bytes = lib.ovl_audio_last_error(handle)
    return OrvelError(message.decode("utf-8", "replace"))


class Capture(Handle):
    """Audio captured from a sound device, or pushed by the program; it runs from construction to close().

        with orvel.Capture() as capture, orvel.Decoder() as decoder:
            while True:
                time.sleep(4)
                for spot in decoder.decode_recent(capture.last(60 * capture.rate), capture.rate, 5):
                    print(spot)

    All methods may be called from any thread.
    """

    _name = "capture"

    rate: int
    """Sample rate of the captured audio, Hz: the device's divided by a whole number, 12000 from 48000."""

    def __init__(
        self, device: int | str = DEFAULT_DEVICE, rate: checks.Rate | None = None, seconds: float = 60.0
    ) -> None:
        """Start capture.

        device    number or name of a device, as devices() has them, DEFAULT_DEVICE or NO_DEVICE; a part of the name
                  in either case will do when it fits one device that has inputs
        rate      sample rate of the device, a whole number of Hz; None = its default. 8000 to 384000 with NO_DEVICE
        seconds   of audio kept, at least 1

        Raises OrvelError when the device cannot be opened, ValueError for a name that fits none or several.
        """
        number = _device_number(device, "input", NO_DEVICE)
        hertz = 0 if rate is None else checks.sample_rate(rate)
        kept_s = checks.real_number(seconds, "seconds", 1)
        handle = _create()
        self._handle = handle
        self._end = weakref.finalize(self, _destroy, handle)
        self._lock = threading.Lock()
        with _devices_lock:
            if lib.ovl_audio_start_input(handle, number, hertz, kept_s) != 0:
                raise _error(handle)
        self.rate = self.stats().rate

    def close(self) -> None:
        """End capture; what was captured is gone. It may be called again."""
        with self._lock:
            self._handle = None
            self._end()

    def last(self, n: int) -> checks.Float32Array:
        """The newest captured samples, at most n and at most what is kept, oldest first: shape (≤ n,), float32."""
        wanted = checks.whole_number(n, "n", 0)
        with self._lock:
            handle = self._open_handle()
            samples = np.empty(min(wanted, round(self._stats(handle).captured_s * self.rate) + 1), dtype=np.float32)
            data = samples.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
            count: int = lib.ovl_audio_last(handle, data, samples.size)
        return samples[: max(0, count)]

    def push(self, samples: checks.Samples) -> None:
        """Capture samples of the program, with NO_DEVICE, at the rate that was given at the start.

        samples   shape (frames,) or (frames, channels), real floats, all finite; the mean of 1 to 16 channels is kept

        Raises OrvelError while a sound card is captured.
        """
        block, frames, channels = checks.channel_samples(samples)
        with self._lock:
            handle = self._open_handle()
            data = block.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
            if lib.ovl_audio_push(handle, data, frames, channels) < 0:
                raise _error(handle)

    def stats(self) -> CaptureStats:
        """Return how capture is doing."""
        with self._lock:
            return self._stats(self._open_handle())

    def _stats(self, handle: int) -> CaptureStats:
        record = AudioStatsRecord()
        lib.ovl_audio_input_stats(handle, ctypes.byref(record))
        return CaptureStats(
            peak_db=record.peak_db,
            rms_db=record.rms_db,
            captured_s=record.captured_s,
            latency_s=record.latency_s,
            overflows=record.overflows,
            rate=record.rate,
        )


def _end_player(audio: int, transmitter: Transmitter) -> None:
    _destroy(audio)
    transmitter.close()


class Player(Handle):
    """A transmission played on a sound device; it runs from construction to its end or close().

        with orvel.Player(orvel.Frame("K2QRX"), at=datetime(2030, 1, 1, 12, tzinfo=timezone.utc)) as player:
            player.wait()

    All methods may be called from any thread.
    """

    _name = "player"

    def __init__(
        self,
        steps: Step | Sequence[Step],
        settings: TransmitSettings = TransmitSettings(),
        *,
        device: int | str = DEFAULT_DEVICE,
        at: datetime | float | None = None,
    ) -> None:
        """Start playback.

        steps, settings   as for render()
        device            number or name of a device with outputs, as for Capture, or DEFAULT_DEVICE
        at                when the first sample leaves the sound card: a datetime with a time zone, or seconds since
                          1970-01-01 UTC; None = at once. When it has passed the transmission is late, not cut short

        Raises OrvelError when the steps are refused or the device cannot be opened, ValueError for a name that fits
        no device or several.
        """
        number = _device_number(device, "output", DEFAULT_DEVICE)
        start_time = 0.0
        if isinstance(at, datetime):
            if at.tzinfo is None:
                raise ValueError("`at` has no time zone; add tzinfo=timezone.utc for UTC")
            start_time = at.timestamp()
        elif at is not None:
            start_time = checks.real_number(at, "at")
        self._transmitter = Transmitter(steps, settings)
        handle = _create()
        self._handle = handle
        self._end = weakref.finalize(self, _end_player, handle, self._transmitter)
        self._lock = threading.Lock()
        with _devices_lock:
            transmitter = self._transmitter._open_handle()
            if lib.ovl_audio_start_output_at(handle, number, transmitter, start_time) != 0:
                raise _error(handle)

    def close(self) -> None:
        """End playback at once; to end without a click, stop() and wait() first. It may be called again."""
        with self._lock:
            self._handle = None
            self._end()

    @property
    def active(self) -> bool:
        """Whether playback runs; False soon after the transmission has ended, and when closed."""
        with self._lock:
            return self._handle is not None and lib.ovl_audio_output_active(self._handle) != 0

    @property
    def started(self) -> float | None:
        """When the first sample left, or will leave, the sound card, seconds since 1970; None while unknown."""
        with self._lock:
            seconds: float = lib.ovl_audio_output_started(self._open_handle())
        return seconds if seconds > 0 else None

    @property
    def latency_s(self) -> float:
        """Delay of the output in seconds, as the sound system states it."""
        with self._lock:
            seconds: float = lib.ovl_audio_output_latency(self._open_handle())
        return seconds

    def wait(self, timeout: float | None = None) -> bool:
        """Wait for the end, at most `timeout` seconds; return whether it has ended."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while self.active:
            if deadline is not None and time.monotonic() >= deadline:
                return False
            time.sleep(0.02)
        return True

    def stop(self) -> None:
        """End the transmission softly; wait() for its end."""
        self._transmitter.stop()

    def set_level(self, level: float) -> None:
        """Move the level smoothly to another value, above 0 and at most 1."""
        self._transmitter.set_level(level)

    def progress(self) -> Progress:
        """Return the progress of the transmission."""
        return self._transmitter.progress()
