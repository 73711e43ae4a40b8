"""What tests listen to: the shipped recordings, and keyed stations in white noise."""

from __future__ import annotations

import json
import wave
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt

import orvel

RECORDINGS = Path(__file__).parents[2] / "examples" / "recordings"


def read_recording(name: str) -> tuple[npt.NDArray[Any], int]:
    """Samples, complex for I/Q, and sample rate of a shipped recording."""
    with wave.open(str(RECORDINGS / f"{name}.wav")) as file:
        data = file.readframes(file.getnframes())
        if file.getsampwidth() == 1:
            samples = (np.frombuffer(data, np.uint8) - 128.0) / 128
        else:
            samples = np.frombuffer(data, "<i2") / 32768
        if file.getnchannels() == 2:
            samples = samples[::2] + 1j * samples[1::2]
        return samples, file.getframerate()


def read_truth(name: str) -> list[dict[str, Any]]:
    """The stations of a shipped recording."""
    return [json.loads(line) for line in (RECORDINGS / f"{name}.jsonl").read_text().splitlines()]


def noise_iq(seconds: float, rate: int, seed: int) -> npt.NDArray[np.complex128]:
    """White noise with a mean power of 1."""
    random = np.random.default_rng(seed)
    n = round(seconds * rate)
    noise: npt.NDArray[np.complex128] = (random.normal(size=n) + 1j * random.normal(size=n)) * np.sqrt(0.5)
    return noise


def station_iq(
    call: str, freq_hz: float, snr_db: float, *, n: int, rate: int, t_start: float = 5.0, locator: str = ""
) -> npt.NDArray[np.complex128]:
    """A station whose mean power over the frame stands snr_db against noise_iq() in 2500 Hz."""
    chips = orvel.encode(call, locator)
    amplitude = np.sqrt(10 ** (snr_db / 10) * 2500 / rate * chips.size / chips.sum())
    t = np.arange(n) / rate
    index = np.floor((t - t_start) / orvel.CHIP_SECONDS).astype(int)
    on = np.where((index >= 0) & (index < chips.size), chips[np.clip(index, 0, chips.size - 1)], 0)
    station: npt.NDArray[np.complex128] = amplitude * on * np.exp(2j * np.pi * freq_hz * t)
    return station


def heard_iq(call: str, freq_hz: float, snr_db: float, *, rate: int, seed: int = 1, seconds: float = 40.0) -> Any:
    """One station in noise."""
    noise = noise_iq(seconds, rate, seed)
    return noise + station_iq(call, freq_hz, snr_db, n=noise.size, rate=rate)


def heard(call: str, freq_hz: float, snr_db: float, *, rate: int = 8000, seed: int = 1, seconds: float = 40.0) -> Any:
    """The same as real audio."""
    noise = noise_iq(seconds, rate, seed)
    station = station_iq(call, freq_hz, snr_db, n=noise.size, rate=rate)
    # Real noise has all its power at positive frequencies, as a real tone has only half of the complex one's.
    return station.real + noise.real * np.sqrt(0.5)
