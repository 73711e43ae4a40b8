#!/usr/bin/env python3
"""Draw a recording as a waterfall with the frames found in it, as an SVG picture.

    waterfall.py recording.wav -o waterfall.svg
    waterfall.py --iq --center -3000 --search 500 receiver.wav -o waterfall.svg

Time runs to the right, a row of pixels is a frequency; colours show by how many decibels a frequency is above the
noise there. Each decoded frame is framed and named. Only NumPy and the standard library are needed: the waterfall is a
PNG inside the SVG, whose texts the viewer draws.
"""

from __future__ import annotations

import argparse
import base64
import struct
import sys
import wave
import zlib
from dataclasses import dataclass
from pathlib import Path
from typing import Any
from xml.sax.saxutils import escape

import numpy as np
import numpy.typing as npt

import orvel

STEP_S = orvel.CHIP_SECONDS / 2  # a column: every chip has one of its own, whenever it begins
WINDOW_S = 4 * orvel.CHIP_SECONDS  # long enough to part neighbours, short enough to show the keying
SPAN_DB = 24.0  # from noise to the brightest colour
LEFT, RIGHT, TOP, BOTTOM = 64, 24, 44, 44  # room around the waterfall for its scales
WIDTH, HEIGHT = 960, 480  # of the waterfall

# Colours from noise to strong: dark blue, violet, orange, pale yellow.
COLOURS = np.array([[6, 8, 32], [60, 20, 110], [180, 50, 90], [245, 140, 40], [255, 250, 190]], dtype=float)

Decibels = npt.NDArray[np.float32]


@dataclass(frozen=True)
class Waterfall:
    """Powers by frequency and time."""

    db: Decibels
    """Shape (frequencies, times): dB above the median of all times and frequencies."""
    low_hz: float
    """Frequency of the first row."""
    step_hz: float
    """From row to row."""
    step_s: float
    """From column to column; the first column's window is centred on the first sample."""


def compute_waterfall(samples: npt.NDArray[Any], rate: int, low_hz: float, high_hz: float) -> Waterfall:
    """The powers of real or complex samples between two frequencies, by transforms of overlapping Hann windows."""
    window = max(16, round(WINDOW_S * rate))
    step = max(1, round(STEP_S * rate))
    padded = np.concatenate([np.zeros(window // 2), samples, np.zeros(window)])
    n_times = max(1, -(-samples.size // step))
    bins = np.arange(np.ceil(low_hz * 2 * window / rate), np.floor(high_hz * 2 * window / rate) + 1).astype(int)
    shape = np.hanning(window)
    power = np.empty((bins.size, n_times), dtype=np.float32)
    for k in range(n_times):
        # Twice as long as the window: rows are half as far apart as the resolution in frequency.
        spectrum = np.fft.fft(shape * padded[k * step : k * step + window], 2 * window)
        power[:, k] = np.abs(spectrum[bins % spectrum.size]) ** 2
    noise = max(float(np.median(power)), 1e-30)
    db = 10 * np.log10(np.maximum(power / noise, 1e-6, dtype=np.float32))
    return Waterfall(db, bins[0] * rate / (2 * window), rate / (2 * window), step / rate)


def colour(db: Decibels) -> npt.NDArray[np.uint8]:
    """Shape (…, 3): a colour for each power, 0 dB and less the darkest, SPAN_DB and more the brightest."""
    place = np.clip(db / SPAN_DB, 0, 1) * (len(COLOURS) - 1)
    channels = [np.interp(place, np.arange(len(COLOURS)), COLOURS[:, c]) for c in range(3)]
    pixels: npt.NDArray[np.uint8] = np.rint(np.stack(channels, axis=-1)).astype(np.uint8)
    return pixels


def png(pixels: npt.NDArray[np.uint8]) -> bytes:
    """A PNG file of pixels of shape (height, width, 3)."""

    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    height, width, _ = pixels.shape
    rows = np.concatenate([np.zeros((height, 1), np.uint8), pixels.reshape(height, -1)], axis=1)
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    content = zlib.compress(rows.tobytes())
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", content) + chunk(b"IEND", b"")


def ticks(low: float, high: float, most: int) -> list[float]:
    """Round numbers from low to high, `most` at most."""
    for step in (m * 10.0**e for e in range(-1, 7) for m in (1, 2, 5)):
        numbers = np.arange(np.ceil(low / step), np.floor(high / step) + 1) * step
        if numbers.size <= most:
            return [float(number) for number in numbers]
    return []


def draw(waterfall: Waterfall, spots: list[orvel.Spot], title: str) -> str:
    """The picture as the text of an SVG file."""
    rows, columns = waterfall.db.shape
    high_hz = waterfall.low_hz + rows * waterfall.step_hz
    end_s = columns * waterfall.step_s

    def x(t: float) -> float:
        return LEFT + min(max(t / end_s, 0), 1) * WIDTH

    def y(hz: float) -> float:
        return TOP + (high_hz - hz) / (high_hz - waterfall.low_hz) * HEIGHT

    image = base64.b64encode(png(colour(waterfall.db[::-1]))).decode()
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" xmlns:xlink="http://www.w3.org/1999/xlink" '
        f'width="{LEFT + WIDTH + RIGHT}" height="{TOP + HEIGHT + BOTTOM}" font-family="sans-serif" font-size="12">',
        '<rect width="100%" height="100%" fill="white"/>',
        f'<text x="{LEFT}" y="26" font-size="16">{escape(title)}</text>',
        f'<image x="{LEFT}" y="{TOP}" width="{WIDTH}" height="{HEIGHT}" preserveAspectRatio="none" '
        f'xlink:href="data:image/png;base64,{image}"/>',
    ]
    for t in ticks(0, end_s, 12):
        parts.append(f'<path d="M{x(t):.1f} {TOP + HEIGHT}v5" stroke="black"/>')
        parts.append(f'<text x="{x(t):.1f}" y="{TOP + HEIGHT + 19}" text-anchor="middle">{t:g}</text>')
    for hz in ticks(waterfall.low_hz, high_hz, 10):
        parts.append(f'<path d="M{LEFT - 5} {y(hz):.1f}h5" stroke="black"/>')
        parts.append(f'<text x="{LEFT - 8}" y="{y(hz) + 4:.1f}" text-anchor="end">{hz:g}</text>')
    parts.append(f'<text x="{LEFT + WIDTH}" y="{TOP + HEIGHT + 37}" text-anchor="end">seconds</text>')
    parts.append(f'<text x="{LEFT - 8}" y="{TOP - 10}" text-anchor="end">Hz</text>')
    for spot in spots:
        # The slanted box follows the drift; a frame that hangs over an edge is cut there.
        begin, end = max(spot.t_start, 0), min(spot.t_end, end_s)
        middle = (spot.t_start + spot.t_end) / 2
        at_begin, at_end = (y(spot.freq_hz + (t - middle) * spot.drift_hz_s) for t in (begin, end))
        parts.append(
            f'<path d="M{x(begin):.1f} {at_begin - 6:.1f}L{x(end):.1f} {at_end - 6:.1f}v12'
            f'L{x(begin):.1f} {at_begin + 6:.1f}z" fill="none" stroke="white" stroke-width="1.2"/>'
        )
        snr = "" if spot.snr_db is None else f", {spot.snr_db:.0f} dB"
        words = " ".join(filter(None, [spot.call, spot.locator])) + f" ({spot.protocol.label}{snr})"
        parts.append(
            f'<text x="{x(begin) + 2:.1f}" y="{at_begin - 10:.1f}" fill="white" stroke="black" stroke-width="3" '
            f'paint-order="stroke">{escape(words)}</text>'
        )
    return "\n".join([*parts, "</svg>", ""])


def read_wav(path: Path) -> tuple[npt.NDArray[np.float64], int]:
    """Samples of shape (frames, channels), full scale 1, of a WAV file with 8 or 16 bits; and their rate."""
    with wave.open(str(path)) as file:
        data, width = file.readframes(file.getnframes()), file.getsampwidth()
        if width == 1:
            samples = (np.frombuffer(data, np.uint8) - 128.0) / 128
        elif width == 2:
            samples = np.frombuffer(data, "<i2") / 32768
        else:
            raise ValueError(f"samples of {8 * width} bits; 8 or 16 are read")
        return samples.reshape(-1, file.getnchannels()), file.getframerate()


def main(arguments: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description="Draw a recording as a waterfall with the frames found in it.")
    parser.add_argument("recording", type=Path, help="WAV file with 8 or 16 bits a sample")
    parser.add_argument("-o", "--output", type=Path, default=Path("waterfall.svg"), help="[waterfall.svg]")
    parser.add_argument("--iq", action="store_true", help="the channels are I and Q")
    parser.add_argument("--center", type=float, help="centre of the search, Hz [1500; with --iq 0]")
    parser.add_argument("--search", type=float, default=200.0, help="half-width of the search, Hz [200]")
    options = parser.parse_args(arguments)
    center = options.center if options.center is not None else 0.0 if options.iq else 1500.0
    try:
        channels, rate = read_wav(options.recording)
        if options.iq:
            if channels.shape[1] != 2:
                raise ValueError("I/Q needs two channels")
            samples: npt.NDArray[Any] = channels[:, 0] + 1j * channels[:, 1]
            spots = orvel.decode_iq(samples, rate, center_hz=center, search_hz=options.search)
        else:
            samples = channels.mean(axis=1)
            spots = orvel.decode(samples, rate, center_hz=center, search_hz=options.search)
        edge = 0.05 * options.search
        waterfall = compute_waterfall(samples, rate, center - options.search - edge, center + options.search + edge)
        options.output.write_text(draw(waterfall, spots, options.recording.name), encoding="utf-8")
    except (OSError, EOFError, ValueError, wave.Error, orvel.OrvelError) as error:
        print(f"{options.recording}: {error}", file=sys.stderr)
        return 1
    print(f"{options.output}: {len(spots)} frames")
    return 0


if __name__ == "__main__":
    sys.exit(main())
