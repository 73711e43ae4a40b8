"""Capture and playback over ALSA's null device, from the program itself, and on a machine without sound."""

from __future__ import annotations

import os
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from datetime import datetime, timedelta, timezone
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from conftest import BROKEN_DEVICE, sound_environment

import orvel
from orvel import audio

TONE = 0.5 * np.sin(2 * np.pi * 1500 / 48000 * np.arange(96000))


def test_devices_are_described() -> None:
    [device] = orvel.devices()
    assert (device.index, device.name, device.host_api) == (0, "default", "ALSA")
    assert device.is_default_input and device.is_default_output
    assert device.input_channels > 0 and device.output_channels > 0 and device.default_rate >= 8000


def test_what_is_pushed_is_captured_at_the_lower_rate() -> None:
    with orvel.Capture(orvel.NO_DEVICE, rate=48000, seconds=2) as capture:
        assert capture.rate == 12000
        assert capture.last(100).size == 0
        capture.push(np.zeros((0,)))
        capture.push(TONE)
        stats = capture.stats()
        assert (stats.rate, stats.overflows) == (12000, 0)
        assert stats.captured_s == pytest.approx(2, abs=0.01)
        assert stats.peak_db == pytest.approx(-6, abs=0.3)
        assert stats.rms_db == pytest.approx(-9, abs=0.3)
        kept = capture.last(10**9)
        assert kept.dtype == np.float32 and kept.size == round(stats.captured_s * 12000)
        assert np.array_equal(capture.last(100), kept[-100:])
        assert capture.last(0).size == 0


def test_the_mean_of_the_channels_is_kept() -> None:
    captured = []
    for samples in (TONE, np.column_stack([TONE, TONE]), np.column_stack([2 * TONE, 0 * TONE])):
        with orvel.Capture(orvel.NO_DEVICE, rate=48000) as capture:
            capture.push(samples[:48000])
            captured.append(capture.last(12000))
    assert np.allclose(captured[1], captured[0], atol=1e-6)
    assert np.allclose(captured[2], captured[0], atol=1e-6)


def test_a_frame_is_decoded_from_capture() -> None:
    sound = orvel.render([orvel.Frame("K2QRX"), orvel.Pause(2)])
    with orvel.Capture(orvel.NO_DEVICE, rate=48000) as capture, orvel.Decoder() as decoder:
        for start in range(0, sound.size, 4800):
            capture.push(sound[start : start + 4800])
        [spot] = decoder.decode_recent(capture.last(60 * capture.rate), capture.rate, 5)
        assert spot.call == "K2QRX"


@pytest.mark.parametrize(
    ("samples", "error", "message"),
    [
        (np.zeros(10, dtype=np.int16), TypeError, "int16"),
        (np.zeros(10, dtype=complex), TypeError, "complex128"),
        (np.zeros((10, 17)), ValueError, r"shape \(10, 17\)"),
        (np.zeros((10, 0)), ValueError, r"shape \(10, 0\)"),
        (np.zeros((2, 2, 2)), ValueError, r"shape \(2, 2, 2\)"),
        (np.float64(1), ValueError, r"shape \(\)"),
        (np.array([0, np.nan]), ValueError, "nan; all must be finite"),
    ],
)
def test_an_array_of_another_kind_is_not_pushed(samples: Any, error: type[Exception], message: str) -> None:
    with orvel.Capture(orvel.NO_DEVICE, rate=8000) as capture, pytest.raises(error, match=message):
        capture.push(samples)


def test_wrong_arguments_of_capture_are_told() -> None:
    with pytest.raises(orvel.OrvelError, match=r"^rate out of range \(8000-384000 Hz\)$"):
        orvel.Capture(orvel.NO_DEVICE, rate=7999)
    with pytest.raises(orvel.OrvelError, match="^no such input device$"):
        orvel.Capture(99)
    wrong: list[dict[str, Any]] = [{"device": -3}, {"rate": 0}, {"rate": 44100.5}, {"seconds": 0.5}]
    for arguments in wrong:
        with pytest.raises(ValueError, match=f"{next(iter(arguments))} is"):
            orvel.Capture(**arguments)
    with pytest.raises(TypeError, match="device is b'USB'"):
        orvel.Capture(b"USB")  # type: ignore[arg-type]


def test_devices_go_by_a_part_of_their_name(monkeypatch: pytest.MonkeyPatch) -> None:
    orvel.Capture("DEF", seconds=1).close()
    orvel.Player(orvel.Carrier(0.1), device="default").close()
    with pytest.raises(ValueError, match="device 'USB' is no input device; there are: 'default'"):
        orvel.Capture("USB")

    def device(index: int, name: str, inputs: int, outputs: int) -> orvel.Device:
        return orvel.Device(index, name, "ALSA", inputs, outputs, 48000.0, False, False)

    several = [device(0, "USB", 1, 2), device(1, "USB Audio", 1, 0), device(2, "HDMI", 0, 2)]
    monkeypatch.setattr(audio, "devices", lambda: several)
    assert audio._device_number("audio", "input", 0) == 1
    assert audio._device_number("usb", "input", 0) == 0  # the whole name comes before parts
    assert audio._device_number("us", "output", 0) == 0  # the other has no outputs
    with pytest.raises(ValueError, match="device 'us' fits 2 input devices: 'USB', 'USB Audio'"):
        orvel.Capture("us")
    with pytest.raises(ValueError, match="device 'HDMI' is no input device; there are: 'USB', 'USB Audio'"):
        orvel.Capture("HDMI")
    monkeypatch.setattr(audio, "devices", lambda: [])
    with pytest.raises(ValueError, match="device 'x' is no output device; there are: none"):
        orvel.Player(orvel.Carrier(1), device="x")


def test_a_closed_capture_says_so() -> None:
    capture = orvel.Capture(orvel.NO_DEVICE, rate=8000)
    capture.close()
    capture.close()
    for call in (lambda: capture.last(1), lambda: capture.push(TONE), capture.stats):
        with pytest.raises(ValueError, match="the capture is closed"):
            call()


def test_a_device_is_captured_and_takes_no_push() -> None:
    with orvel.Capture(rate=48000, seconds=1) as capture:
        assert capture.rate == 12000
        deadline = time.monotonic() + 20
        while capture.last(100).size < 100 and time.monotonic() < deadline:
            time.sleep(0.01)
        assert capture.last(100).size == 100
        with pytest.raises(orvel.OrvelError, match="^push needs device OVL_AUDIO_NONE$"):
            capture.push(TONE)


def test_a_transmission_is_played_to_its_end() -> None:
    with orvel.Player([orvel.Carrier(0.5), orvel.Pause(0.5)]) as player:
        assert player.wait(20)
        progress = player.progress()
        assert progress.done and progress.elapsed_s == pytest.approx(progress.total_s, abs=0.01)
        assert player.latency_s >= 0
        assert not player.active


@pytest.mark.parametrize("as_datetime", [False, True])
def test_a_transmission_starts_at_its_time(as_datetime: bool) -> None:
    at = datetime.now(timezone.utc) + timedelta(seconds=1)
    with orvel.Player(orvel.Carrier(0.1), at=at if as_datetime else at.timestamp()) as player:
        assert player.wait(20)
        # Not before; how late depends on the load of the machine.
        assert player.started is not None and player.started >= at.timestamp() - 0.01


def test_a_transmission_can_be_stopped_before_it_starts() -> None:
    with orvel.Player(orvel.Carrier(3600), at=time.time() + 3600) as player:
        assert player.active and player.started is None
        assert not player.wait(0.05)
        player.set_level(0.1)
        player.close()
        assert not player.active
        with pytest.raises(ValueError, match="the player is closed"):
            player.latency_s  # noqa: B018
        with pytest.raises(ValueError, match="the transmitter is closed"):
            player.stop()


def test_wrong_arguments_of_a_player_are_told() -> None:
    with pytest.raises(orvel.OrvelError, match="^no such output device$"):
        orvel.Player(orvel.Carrier(1), device=99)
    with pytest.raises(orvel.OrvelError, match="^empty sequence$"):
        orvel.Player([])
    with pytest.raises(ValueError, match="no time zone"):
        orvel.Player(orvel.Carrier(1), at=datetime(2030, 1, 1))
    with pytest.raises(ValueError, match="at is inf"):
        orvel.Player(orvel.Carrier(1), at=float("inf"))
    with pytest.raises(ValueError, match="device is -2"):
        orvel.Player(orvel.Carrier(1), device=orvel.NO_DEVICE)


WITHOUT_SOUND = """
import orvel
print(orvel.devices())
for start in (orvel.Capture, lambda: orvel.Player(orvel.Carrier(1))):
    try:
        start()
    except orvel.OrvelError as error:
        print(error)
"""


def test_a_machine_without_sound_has_no_devices(tmp_path: Path) -> None:
    environment = os.environ | sound_environment(BROKEN_DEVICE, str(tmp_path))
    package = str(Path(orvel.__file__).parents[1])
    run = subprocess.run(
        [sys.executable, "-c", WITHOUT_SOUND],
        env=environment | {"PYTHONPATH": package, "PYTHONDONTWRITEBYTECODE": "1"},
        capture_output=True,
        text=True,
        check=True,
    )
    assert run.stdout.splitlines() == ["[]", "no such input device", "no such output device"]


def test_captures_and_players_come_and_go_in_threads() -> None:
    def round_trip(number: int) -> int:
        with orvel.Capture(orvel.NO_DEVICE, rate=8000) as capture:
            capture.push(np.full(8000, number / 16))
            return round(float(np.median(capture.last(4000))) * 16)

    with ThreadPoolExecutor(4) as pool:
        assert list(pool.map(round_trip, range(12))) == list(range(12))
