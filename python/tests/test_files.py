"""Recordings: as the command decodes them, of every width of sample, and longer than a block."""

from __future__ import annotations

import json
import os
import struct
import subprocess
import tarfile
import wave
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt
import pytest
from stations import RECORDINGS, heard, noise_iq, read_truth, station_iq

import orvel
from orvel import _samples, files


def write_wave(path: Path, samples: npt.NDArray[Any], rate: int, octets: int = 2) -> Path:
    """A WAV file of samples of shape (n,) or (n, channels), full scale 1."""
    scaled = np.rint(samples * (2.0 ** (8 * octets - 1) - 1)).astype(np.int64)
    data = scaled.reshape(-1, 1).astype("<i8").view(np.uint8)[:, :octets]
    with wave.open(str(path), "wb") as file:
        file.setnchannels(1 if samples.ndim == 1 else samples.shape[1])
        file.setsampwidth(octets)
        file.setframerate(rate)
        file.writeframes((data + (128 if octets == 1 else 0)).astype(np.uint8).tobytes())
    return path


def quiet(samples: npt.NDArray[Any]) -> npt.NDArray[Any]:
    """The same within full scale."""
    return np.asarray(0.9 * samples / np.abs(samples).max())


@pytest.mark.skipif("ORVEL_COMMAND" not in os.environ, reason="ORVEL_COMMAND names no orvel command")
@pytest.mark.parametrize("name", ["audio-edges", "audio-modes", "iq-narrow"])
def test_a_recording_gives_what_the_command_prints(name: str) -> None:
    path, iq = RECORDINGS / f"{name}.wav", name.startswith("iq")
    options = ["--iq"] if iq else []
    command = [os.environ["ORVEL_COMMAND"], "decode", "--json", *options, str(path)]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    printed = [json.loads(line) for line in done.stdout.splitlines()]
    spots = [spot.to_dict() for spot in orvel.decode_file(path, iq=iq)]
    assert len(spots) == len(printed) == len(read_truth(name))
    for spot, line in zip(spots, printed):
        assert set(line) - {"file"} <= set(spot)
        for key in ("protocol", "call", "locator", "deep"):
            assert spot[key] == line[key], key
        for key, tolerance in (("t_start", 0.01), ("t_end", 0.01), ("freq_hz", 0.1), ("snr_db", 0.5)):
            assert spot[key] == pytest.approx(line[key], abs=tolerance), key


@pytest.mark.parametrize("octets", [1, 2, 3, 4])
def test_samples_of_every_width_are_read(tmp_path: Path, octets: int) -> None:
    samples = quiet(heard("K2QRX", 1500.3, -10))
    file = files._WaveFile(str(write_wave(tmp_path / "a.wav", samples, 8000, octets)))
    read = file.read(100, 1000)
    file.close()
    assert read.shape == (1000, 1)
    assert np.abs(read[:, 0] - samples[100:1100]).max() < 2.0 ** (2 - 8 * octets)


def test_channels_are_averaged_or_chosen(tmp_path: Path) -> None:
    station = quiet(heard("K2QRX", 1500.3, -10))
    path = write_wave(tmp_path / "a.wav", np.column_stack([station, quiet(heard("OH3QKJ", 1450, -10))]), 8000)
    assert {spot.call for spot in orvel.decode_file(path)} == {"K2QRX", "OH3QKJ"}
    assert [spot.call for spot in orvel.decode_file(path, channel=2)] == ["OH3QKJ"]
    with pytest.raises(ValueError, match="channel is 3; it must be 1 to 2"):
        orvel.decode_file(path, channel=3)


def test_each_frame_of_a_long_recording_is_found_once(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(files, "_MOST_BLOCK_S", 100)
    rate, seconds = 8000, 160  # blocks from 0, 50 and 60 s
    starts = {"K2QRX": 5.0, "OH3QKJ": 45.0, "G4QZB": 62.0, "F5QVB": 85.0, "DL1QXA": 125.0}
    signal = 0.5 * noise_iq(seconds, rate, 3).real
    for k, (call, start) in enumerate(starts.items()):
        signal += station_iq(call, 1400.0 + 40 * k, -8, n=signal.size, rate=rate, t_start=start).real
    spots = orvel.decode_file(write_wave(tmp_path / "long.wav", quiet(signal), rate), protocols="opera")
    assert [spot.call for spot in spots] == list(starts)
    for spot in spots:
        assert spot.t_start == pytest.approx(starts[spot.call], abs=0.01)
        assert spot.t_end - spot.t_start == pytest.approx(239 * orvel.CHIP_SECONDS)


def test_a_crowd_is_found_of_which_one_decode_finds_a_part(tmp_path: Path) -> None:
    rate = 8000
    calls = ["K2QRX", "OH3QKJ", "G4QZB", "F5QVB", "DL1QXA", "9A5QQA", "LY2QSD", "OE3QTN", "EI7QKA"] * 4
    signal = noise_iq(110, rate, 2).real
    for k, call in enumerate(calls):
        freq_hz, t_start = 1160.0 + 40 * (k % 18), 1 + 2.1 * k
        signal += station_iq(call, freq_hz, -6, n=signal.size, rate=rate, t_start=t_start).real
    path = write_wave(tmp_path / "crowd.wav", quiet(signal), rate)
    assert len(orvel.decode(signal, rate, protocols="opera", search_hz=400)) <= 30
    assert [spot.call for spot in orvel.decode_file(path, protocols="opera", search_hz=400)] == calls


def test_blocks_cover_a_file_and_overlap() -> None:
    for n in (1130, 2000, 2600, 5001):
        starts = files._starts(n, 900, 150)
        assert starts[0] == 0 and starts[-1] + 900 == n
        assert all(0 < b - a <= 750 for a, b in zip(starts, starts[1:]))


def test_of_two_finds_of_a_frame_the_better_stays() -> None:
    def spot(method: orvel.decoder.Method = "standard", odds: float | None = None, t: float = 5.0) -> orvel.Spot:
        return orvel.Spot("K2QRX", "", orvel.Protocol.OPERA, False, t, t + 30.6, 1500.0, -10.0, 0.0, method, odds)

    most = spot(t=5.1)
    assert files._merge([(20.0, spot()), (30.6, most), (25.0, spot())]) == [most]
    plain = spot("standard")
    assert files._merge([(30.6, spot("deep")), (20.0, plain)]) == [plain]
    surer = spot("coherent", 9.0)
    assert files._merge([(20.0, surer), (30.0, spot("coherent", 5.0))]) == [surer]
    later = spot(t=40.0)
    assert files._merge([(30.0, later), (30.0, plain)]) == [plain, later]


def test_iq_is_searched_around_the_centre_or_over_the_band(tmp_path: Path) -> None:
    rate = 8000
    iq = noise_iq(40, rate, 1)
    iq += station_iq("K2QRX", -50, -5, n=iq.size, rate=rate) + station_iq("G4QZB", 2000, -5, n=iq.size, rate=rate)
    path = write_wave(tmp_path / "iq.wav", quiet(np.column_stack([iq.real, iq.imag])), rate)
    assert [(spot.call, round(spot.freq_hz)) for spot in orvel.decode_file(path, iq=True)] == [("K2QRX", -50)]
    assert {spot.call for spot in orvel.decode_file(path, iq=True, wide=True)} == {"K2QRX", "G4QZB"}
    with pytest.raises(ValueError, match="wide is for I/Q"):
        orvel.decode_file(path, wide=True)
    with pytest.raises(ValueError, match="two channels; the file has 1"):
        orvel.decode_file(RECORDINGS / "audio-modes.wav", iq=True)


def test_a_truncated_file_is_decoded_up_to_its_end(tmp_path: Path) -> None:
    path = write_wave(tmp_path / "a.wav", quiet(heard("K2QRX", 1500.3, -10)), 8000)
    path.write_bytes(path.read_bytes()[: -2 * 8000 + 1])
    assert [spot.call for spot in orvel.decode_file(path)] == ["K2QRX"]


def test_other_formats_are_read_by_soundfile(tmp_path: Path) -> None:
    soundfile = pytest.importorskip("soundfile")
    samples = quiet(heard("K2QRX", 1500.3, -10))
    soundfile.write(tmp_path / "a.flac", samples, 8000)
    soundfile.write(tmp_path / "f.wav", np.where(np.arange(samples.size) == 9, np.nan, samples), 8000, "FLOAT")
    for name in ("a.flac", "f.wav"):
        assert [spot.call for spot in orvel.decode_file(tmp_path / name)] == ["K2QRX"]


def test_what_cannot_be_read_is_explained(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    with pytest.raises(OSError, match="nowhere.wav"):
        orvel.decode_file(tmp_path / "nowhere.wav")
    text = tmp_path / "text.wav"
    text.write_text("no sound at all\n")

    def not_installed(_: str) -> None:
        raise ImportError

    monkeypatch.setattr(files, "_SoundFile", not_installed)
    with pytest.raises(ValueError, match="no WAV file of whole numbers .*need soundfile"):
        orvel.decode_file(text)
    header = struct.pack("<4sI4s4sIHHIIHH4sI", b"RIFF", 36, b"WAVE", b"fmt ", 16, 1, 1, 8000, 16000, 2, 16, b"data", 0)
    (tmp_path / "empty.wav").write_bytes(header)
    with pytest.raises(ValueError, match="samples are empty"):
        orvel.decode_file(tmp_path / "empty.wav")


# ---- Bare samples and SigMF -----------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("name", "data", "expected"),
    [
        ("u8", b"\x00\x7f\x80\xff", [-127.5 / 128, -0.5 / 128, 0.5 / 128, 127.5 / 128]),
        ("s8", b"\x01\x80", [1 / 128, -1]),
        ("u16", b"\x00\x80", [0.5 / 32768]),
        ("s16le", b"\x01\x00\x00\x80", [1 / 32768, -1]),
        ("s16be", b"\x00\x01\x80\x00", [1 / 32768, -1]),
        ("s24be", b"\x00\x00\x01\x80\x00\x00", [2.0**-23, -1]),
        ("s32", b"\x00\x00\x00\x40", [0.5]),
        ("f32be", struct.pack(">3f", 0.25, float("nan"), 3e9), [0.25, 0, 0]),
        ("f64", struct.pack("<2d", -0.25, float("inf")), [-0.25, 0]),
    ],
)
def test_samples_are_of_full_scale_one(name: str, data: bytes, expected: list[float]) -> None:
    kind = _samples.parse_format(name)
    assert kind is not None
    assert kind.samples(data).tolist() == expected


def test_names_tell_samples() -> None:
    for name, kind, iq in [("a.cu8", "u8", True), ("b.CF32", "f32", True), ("c.cfile", "f32", True), ("d.s16", "s16", False)]:
        assert _samples.format_of_name(name) == (_samples.parse_format(kind), iq)
    assert all(_samples.format_of_name(name) is None for name in ("x.wav", "x", "x.c", "x.cu8be"))


def iq_station(path: Path, **metadata: Any) -> Path:
    """A SigMF pair of K2QRX 100 Hz above the centre, 5 s from its start."""
    iq = station_iq("K2QRX", 100.0, 5, n=40000, rate=1000, t_start=5.0) + noise_iq(40, 1000, 1)
    scaled = np.rint(8000 * np.column_stack([iq.real, iq.imag]) / np.abs(iq).max()).astype("<i2")
    captures = [
        {"core:sample_start": 0, "core:frequency": 137000, "core:datetime": "2001-09-09T01:46:40.25Z"},
        {"core:sample_start": 2000, "core:datetime": "2001-09-09T01:47:42.250000Z"},
    ]
    about = {"core:datatype": "ci16_le", "core:sample_rate": 1000, "core:version": "1.2.5", **metadata}
    path.with_suffix(".sigmf-data").write_bytes(scaled.tobytes())
    path.with_suffix(".sigmf-meta").write_text(json.dumps({"global": about, "captures": captures, "annotations": []}))
    return path.with_suffix(".sigmf-meta")


def test_sigmf_gives_time_and_frequency(tmp_path: Path) -> None:
    meta = iq_station(tmp_path / "x")
    archive = tmp_path / "y.sigmf"
    with tarfile.open(archive, "w") as tar:
        tar.add(meta, "y/x.sigmf-meta")
        tar.add(meta.with_suffix(".sigmf-data"), "y/x.sigmf-data")
    for path in (meta, meta.with_suffix(".sigmf-data"), archive):
        (spot,) = orvel.decode_file(path)
        assert spot.call == "K2QRX"
        assert spot.rf_hz == pytest.approx(137100, abs=0.5)
        assert spot.utc == pytest.approx(1e9 + 62.25 + 3, abs=0.1), "the frame lies in the second capture"
        record = spot.to_dict()
        assert record["rf_hz"] == spot.rf_hz
        assert str(record["utc_start"]).startswith("2001-09-09T01:47:45.")
    (below,) = orvel.decode_file(meta, dial_hz=7e6, lsb=True)
    assert below.rf_hz == pytest.approx(7e6 - 100, abs=0.5)


@pytest.mark.skipif("ORVEL_COMMAND" not in os.environ, reason="ORVEL_COMMAND names no orvel command")
def test_sigmf_and_bare_samples_give_what_the_command_prints(tmp_path: Path) -> None:
    meta = iq_station(tmp_path / "x")
    raw = tmp_path / "x.cs16"
    raw.write_bytes(meta.with_suffix(".sigmf-data").read_bytes())
    rates: list[tuple[Path, int | None]] = [(meta, None), (raw, 1000)]
    for path, rate in rates:
        command = [os.environ["ORVEL_COMMAND"], "decode", "--json", str(path), "--rate", "1000"]
        printed = json.loads(subprocess.run(command, capture_output=True, text=True, check=True).stdout)
        (spot,) = orvel.decode_file(path, rate=rate)
        record = spot.to_dict()
        assert {name for name in printed if name != "file"} <= set(record)
        for name in ("utc_start", "utc_end", "call"):
            assert record.get(name) == printed.get(name)
        for name in ("freq_hz", "rf_hz"):
            assert record.get(name) == pytest.approx(printed.get(name), abs=0.1)


def test_recordings_that_make_no_sense_are_refused(tmp_path: Path) -> None:
    raw = tmp_path / "x.cu8"
    raw.write_bytes(b"")
    with pytest.raises(ValueError, match="whose rate must be given"):
        orvel.decode_file(raw)
    with pytest.raises(ValueError, match="holds no samples"):
        orvel.decode_file(raw, rate=1000)
    with pytest.raises(ValueError, match="raw is 's12'"):
        orvel.decode_file(raw, raw="s12", rate=1000)
    lies: list[tuple[dict[str, Any], str]] = [
        ({"core:datatype": "ci17_le"}, "core:datatype is 'ci17_le'"),
        ({"core:datatype": "rf16_le"}, "core:datatype is 'rf16_le'"),
        ({"core:datatype": "ri64_be"}, "core:datatype is 'ri64_be'"),
        ({"core:sample_rate": "x"}, "core:sample_rate is 'x'"),
        ({"core:num_channels": 0}, "core:num_channels is not from 1 to 1024"),
        ({"core:trailing_bytes": -1}, "core:trailing_bytes is not a whole number"),
        ({"core:dataset": "../x"}, "is not the name of a file beside it"),
        ({"core:trailing_bytes": 1e9}, "holds no samples"),
    ]
    for metadata, reason in lies:
        with pytest.raises(ValueError, match=reason):
            orvel.decode_file(iq_station(tmp_path / "y", **metadata))
    (tmp_path / "z.sigmf-data").write_bytes(b"")
    (tmp_path / "z.sigmf-meta").write_text("[" * 100000)
    with pytest.raises(ValueError, match="cannot read"):
        orvel.decode_file(tmp_path / "z.sigmf-meta")
    (tmp_path / "z.sigmf").write_text("nothing")
    with pytest.raises(ValueError, match="not a tar archive"):
        orvel.decode_file(tmp_path / "z.sigmf")
