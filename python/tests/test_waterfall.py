"""The example that draws a waterfall: its powers, its picture, and what it refuses."""

from __future__ import annotations

import base64
import importlib.util
import struct
import sys
import wave
import xml.etree.ElementTree as ET
import zlib
from pathlib import Path
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from stations import RECORDINGS, noise_iq, read_recording, read_truth

SCRIPT = Path(__file__).parents[1] / "examples" / "waterfall.py"
SVG = "{http://www.w3.org/2000/svg}"
LINK = "{http://www.w3.org/1999/xlink}href"


@pytest.fixture(scope="module")
def waterfall() -> ModuleType:
    spec = importlib.util.spec_from_file_location("waterfall", SCRIPT)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    sys.modules["waterfall"] = module  # where its dataclasses look for their annotations
    spec.loader.exec_module(module)
    return module


def unpack_png(file: bytes) -> Any:
    """Pixels of a PNG of 8 bit colours without filters; its checksums are compared."""
    assert file[:8] == b"\x89PNG\r\n\x1a\n"
    chunks, rest = {}, file[8:]
    while rest:
        length, kind = struct.unpack(">I4s", rest[:8])
        data, crc = rest[8 : 8 + length], rest[8 + length : 12 + length]
        assert zlib.crc32(kind + data) == struct.unpack(">I", crc)[0]
        chunks[kind], rest = data, rest[12 + length :]
    width, height, depth, colours, *others = struct.unpack(">IIBBBBB", chunks[b"IHDR"])
    assert (depth, colours, others) == (8, 2, [0, 0, 0]) and chunks[b"IEND"] == b""
    rows = np.frombuffer(zlib.decompress(chunks[b"IDAT"]), np.uint8).reshape(height, 1 + 3 * width)
    assert not rows[:, 0].any()
    return rows[:, 1:].reshape(height, width, 3)


AT_TONE = [(8000, False, 1530.0), (12000, True, -2970.0), (1000, True, 430.0)]


@pytest.mark.parametrize(("rate", "iq", "tone_hz"), AT_TONE)
def test_a_tone_shines_at_its_frequency_while_it_lasts(
    waterfall: ModuleType, rate: int, iq: bool, tone_hz: float
) -> None:
    noise = noise_iq(20, rate, 1)
    t = np.arange(noise.size) / rate
    samples = noise + 3 * np.exp(2j * np.pi * tone_hz * t) * ((t >= 5) & (t < 9))
    picture = waterfall.compute_waterfall(samples if iq else samples.real, rate, tone_hz - 80, tone_hz + 50)
    assert picture.db.shape[1] == pytest.approx(20 / picture.step_s, abs=1)
    assert picture.low_hz == pytest.approx(tone_hz - 80, abs=picture.step_hz)
    row, column = np.unravel_index(picture.db.argmax(), picture.db.shape)
    assert picture.low_hz + row * picture.step_hz == pytest.approx(tone_hz, abs=picture.step_hz)
    assert 5 <= column * picture.step_s < 9
    shining = np.flatnonzero(picture.db[row] > picture.db.max() - 6) * picture.step_s
    assert shining[0] == pytest.approx(5, abs=0.15) and shining[-1] == pytest.approx(9, abs=0.15)
    assert np.median(picture.db) == pytest.approx(0, abs=0.1)


def test_colours_rise_from_noise_to_strong(waterfall: ModuleType) -> None:
    levels = np.linspace(-10, 40, 200, dtype=np.float32)
    brightness = waterfall.colour(levels).astype(int).sum(axis=1)
    assert (np.diff(brightness) >= 0).all()
    assert waterfall.colour(np.float32(-5)).tolist() == waterfall.COLOURS[0].tolist()
    assert waterfall.colour(np.float32(24)).tolist() == waterfall.COLOURS[-1].tolist()


def test_a_png_holds_its_pixels(waterfall: ModuleType) -> None:
    pixels = np.random.default_rng(1).integers(0, 256, (7, 5, 3)).astype(np.uint8)
    assert np.array_equal(unpack_png(waterfall.png(pixels)), pixels)


def test_ticks_are_round_and_few(waterfall: ModuleType) -> None:
    assert waterfall.ticks(0, 45, 12) == [0, 5, 10, 15, 20, 25, 30, 35, 40, 45]
    assert waterfall.ticks(-210, 210, 10) == [-200, -150, -100, -50, 0, 50, 100, 150, 200]


@pytest.mark.parametrize(("name", "options"), [("audio-crowded", []), ("audio-edges", []), ("iq-narrow", ["--iq"])])
def test_every_frame_is_boxed_and_named_in_its_place(
    waterfall: ModuleType, tmp_path: Path, name: str, options: list[str], capsys: pytest.CaptureFixture[str]
) -> None:
    output = tmp_path / "picture.svg"
    assert waterfall.main([*options, str(RECORDINGS / f"{name}.wav"), "-o", str(output)]) == 0
    truth = read_truth(name)
    assert capsys.readouterr().out == f"{output}: {len(truth)} frames\n"

    svg = ET.parse(output).getroot()
    [image] = svg.iter(f"{SVG}image")
    pixels = unpack_png(base64.b64decode(image.attrib[LINK].partition(",")[2]))
    left, top, width, height = (float(image.attrib[key]) for key in ("x", "y", "width", "height"))
    samples, rate = read_recording(name)
    center = 0 if options else 1500

    names = [text for text in svg.iter(f"{SVG}text") if text.attrib.get("stroke")]
    boxes = [path for path in svg.iter(f"{SVG}path") if path.attrib["stroke"] == "white"]
    assert len(names) == len(boxes) == len(truth)
    brightness = pixels.astype(int).sum(axis=2)
    for station in truth:
        [text] = [text for text in names if (text.text or "").split()[0] == station["call"]]
        begin = max(station["t_start"], 0) / (samples.size / rate)
        assert float(text.attrib["x"]) == pytest.approx(left + begin * width, abs=4)
        from_top = (center + 210 - station["freq_hz"]) / 420
        assert float(text.attrib["y"]) == pytest.approx(top + from_top * height - 10, abs=4)
        # There the waterfall is brighter than where nothing is.
        row = round(from_top * pixels.shape[0])
        column = round(begin * pixels.shape[1])
        assert brightness[row - 2 : row + 3, column : column + 200].max(axis=0).mean() > 1.5 * brightness.mean()


def test_what_cannot_be_drawn_is_told(
    waterfall: ModuleType, tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    noise = tmp_path / "noise.wav"
    noise.write_bytes(b"no recording")
    deep = tmp_path / "deep.wav"
    with wave.open(str(deep), "wb") as file:
        file.setparams((1, 3, 8000, 0, "NONE", ""))
        file.writeframes(bytes(3 * 8000))
    mono = str(RECORDINGS / "audio-edges.wav")
    output = ["-o", str(tmp_path / "picture.svg")]
    for arguments, message in (
        ([str(noise)], "RIFF"),
        ([str(tmp_path / "none.wav")], "No such file"),
        ([str(deep)], "samples of 24 bits"),
        (["--iq", mono], "I/Q needs two channels"),
        (["--search", "nan", mono], "search_hz is nan"),
        (["--search", "1e9", mono], "block too short or invalid"),
    ):
        assert waterfall.main([*arguments, *output]) == 1
        captured = capsys.readouterr()
        assert message in captured.err and captured.out == ""
    assert not Path(output[1]).exists()
