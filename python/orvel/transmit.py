"""Rendering of transmissions as audio."""

from __future__ import annotations

import ctypes
import threading
import weakref
from collections.abc import Sequence
from dataclasses import dataclass

import numpy as np

from . import _checks as checks
from ._callsigns import check_sent
from ._errors import OrvelError
from ._handle import Handle
from ._library import lib
from ._records import TxProgressRecord, TxSettingsRecord, TxStepRecord
from .protocols import Protocol, choose_protocol

_FRAME, _CARRIER, _PAUSE = 1, 2, 3  # kinds of steps
_MOST_CALL, _MOST_LOCATOR = 15, 7  # characters that a step has room for


@dataclass(frozen=True)
class TransmitSettings:
    """How a sequence sounds."""

    rate: int = 48000
    """Sample rate, Hz, 8000 to 384000."""
    tone_hz: float = 1500.0
    """Above 0, below 0.45 of the sample rate."""
    level: float = 0.5
    """Peak amplitude, above 0, at most 1."""
    ramp_s: float = 0.005
    """Length of a key transition, s, 0 to 0.05."""


class Step:
    """One step of a sequence: a Frame, Carrier or Pause."""


@dataclass(frozen=True)
class Frame(Step):
    """One frame of a protocol."""

    call: str
    """Callsign."""
    locator: str = ""
    """Grid locator of 4 or 6 characters for ORVEL L; other protocols ignore it."""
    protocol: Protocol | str | None = None
    """Or its name. None: ORVEL L with a locator, OPERA without."""


@dataclass(frozen=True)
class Carrier(Step):
    """Steady carrier."""

    seconds: float
    """0.05 to 3600."""


@dataclass(frozen=True)
class Pause(Step):
    """Silence."""

    seconds: float
    """0.05 to 3600."""
    keep_keyed: bool = False
    """Keeps Progress.keyed raised; no effect on the audio."""


@dataclass(frozen=True)
class Progress:
    """Where a transmission stands."""

    step: int | None
    """Index of the step being rendered, None when there is none."""
    chip: int | None
    """Chip of a frame; None in carriers, pauses and the closing ramp."""
    chips: int
    """Chips of a frame, else 0."""
    elapsed_s: float
    """Rendered so far, s."""
    total_s: float
    """Planned, closing ramp included, s."""
    keyed: bool
    """Whether the station should be keyed."""
    done: bool
    """Whether a render has found nothing left, or nothing is prepared."""


def _step_record(step: object) -> TxStepRecord:
    if isinstance(step, Frame):
        protocol = choose_protocol(step.locator, step.protocol)
        call = checks.text(step.call, "call", _MOST_CALL)
        check_sent(step.call, f"cannot encode {step.call}")
        return TxStepRecord(
            kind=_FRAME,
            protocol=protocol.value,
            call=call,
            locator=checks.text(step.locator, "locator", _MOST_LOCATOR),
        )
    if isinstance(step, Carrier):
        return TxStepRecord(kind=_CARRIER, seconds=checks.real_number(step.seconds, "seconds"))
    if isinstance(step, Pause):
        seconds = checks.real_number(step.seconds, "seconds")
        return TxStepRecord(kind=_PAUSE, seconds=seconds, keep_keyed=bool(step.keep_keyed))
    raise TypeError(f"a step is {step!r}; Frame, Carrier or Pause is needed")


class Transmitter(Handle):
    """A sequence of steps that is rendered piece by piece.

        with orvel.Transmitter([orvel.Carrier(1), orvel.Pause(1), orvel.Frame("K2QRX")]) as transmitter:
            while (block := transmitter.render(4800)).size:
                play(block)

    stop(), set_level() and progress() may be called from any thread at any moment; renders take turns.
    """

    _name = "transmitter"

    def __init__(self, steps: Step | Sequence[Step], settings: TransmitSettings = TransmitSettings()) -> None:
        """Prepare 1 to 64 steps.

        Raises OrvelError for settings or steps that cannot be sent; warns of callsigns as encode() does.
        """
        sequence = [steps] if isinstance(steps, Step) else list(steps)
        records = (TxStepRecord * max(1, len(sequence)))(*[_step_record(step) for step in sequence])
        record = TxSettingsRecord(
            sample_rate=checks.whole_number(settings.rate, "rate", 1),
            tone_hz=checks.real_number(settings.tone_hz, "tone_hz"),
            level=checks.real_number(settings.level, "level"),
            ramp_s=checks.real_number(settings.ramp_s, "ramp_s"),
        )
        handle = lib.ovl_tx_create()
        if handle is None:
            raise MemoryError("no memory for a transmitter")
        self._handle = handle
        self._end = weakref.finalize(self, lib.ovl_tx_destroy, handle)
        self._life = threading.Lock()  # held while the handle is used briefly, or freed
        self._rendering = threading.Lock()
        self.settings = settings
        if lib.ovl_tx_start(handle, ctypes.byref(record), records, len(sequence)) != 0:
            message: bytes = lib.ovl_tx_last_error(handle)
            raise OrvelError(message.decode("utf-8", "replace"))

    def close(self) -> None:
        """Free the transmitter, when a render under way has ended. It may be called again."""
        with self._rendering, self._life:
            self._handle = None
            self._end()

    def render(self, n: int) -> checks.Float32Array:
        """Render the next n samples, at least 1: mono, at the rate of the settings.

        Returns fewer than n samples when the transmission has ended with them, and none after that.
        """
        wanted = checks.whole_number(n, "n", 1)
        with self._rendering:
            handle = self._open_handle()
            samples = np.empty(wanted, dtype=np.float32)
            count: int = lib.ovl_tx_render(handle, samples.ctypes.data_as(ctypes.POINTER(ctypes.c_float)), wanted)
        return samples[: max(0, count)]

    def stop(self) -> None:
        """End the transmission softly, with a ramp from the next rendered sample on."""
        with self._life:
            lib.ovl_tx_stop(self._open_handle())

    def set_level(self, level: float) -> None:
        """Move the level smoothly to another value, above 0 and at most 1, within some 10 ms."""
        value = checks.real_number(level, "level")
        with self._life:
            if lib.ovl_tx_set_level(self._open_handle(), value) != 0:
                raise OrvelError("level out of range (0 < level <= 1)")

    def progress(self) -> Progress:
        """Return the progress of the transmission; during a render fields may be a sample apart."""
        record = TxProgressRecord()
        with self._life:
            lib.ovl_tx_status(self._open_handle(), ctypes.byref(record))
        return Progress(
            step=None if record.step < 0 else record.step,
            chip=None if record.chip < 0 else record.chip,
            chips=record.chips,
            elapsed_s=record.elapsed_s,
            total_s=record.total_s,
            keyed=record.keyed != 0,
            done=record.done != 0,
        )


def render(steps: Step | Sequence[Step], settings: TransmitSettings = TransmitSettings()) -> checks.Float32Array:
    """Render a whole transmission of 1 to 64 steps, closing ramp included.

    Returns shape (n,), float32, at settings.rate. Raises OrvelError for settings or steps that cannot be sent; warns of
    callsigns as encode() does.
    """
    with Transmitter(steps, settings) as transmitter:
        expected = round(transmitter.progress().total_s * settings.rate)
        return transmitter.render(min(expected + 1, checks.MAX_INT32))
