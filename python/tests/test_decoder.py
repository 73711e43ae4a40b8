"""Decoding: the shipped recordings, known callsigns, threads, and what is refused."""

from __future__ import annotations

import dataclasses
import json
import threading
import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import numpy as np
import pytest
from stations import heard, heard_iq, read_recording, read_truth

import orvel

AUDIO = ["audio-crowded", "audio-edges", "audio-modes"]


@pytest.fixture(scope="module")
def block() -> Any:
    """One strong station at 8000 Hz."""
    return heard("K2QRX", 1500.3, -10)


def assert_truth(spots: list[orvel.Spot], name: str) -> None:
    """Each station of a recording is found once, at its place, and nothing else is."""
    truth = read_truth(name)
    assert sorted(spot.call for spot in spots) == sorted(station["call"] for station in truth)
    for spot in spots:
        station = next(station for station in truth if station["call"] == spot.call)
        assert (spot.protocol.label, spot.locator) == (station["protocol"], station["locator"])
        assert spot.t_start == pytest.approx(station["t_start"], abs=0.005)
        assert spot.t_end - spot.t_start == pytest.approx(spot.protocol.frame_chips * orvel.CHIP_SECONDS)
        assert spot.freq_hz == pytest.approx(station["freq_hz"], abs=0.5)
        assert spot.drift_hz_s == pytest.approx(station["drift_hz_s"], abs=0.032)
        assert not spot.deep
        # What the other stations leave of themselves counts as noise.
        assert spot.snr_db is not None and station["snr_db"] - 3 <= spot.snr_db <= station["snr_db"] + 1


@pytest.mark.parametrize("name", AUDIO)
def test_the_shipped_recordings_hold_what_they_should(name: str) -> None:
    samples, rate = read_recording(name)
    spots = orvel.decode(samples, rate)
    assert_truth(spots, name)
    assert [spot.t_start for spot in spots] == sorted(spot.t_start for spot in spots)


def test_the_snr_is_that_of_the_station(block: Any) -> None:
    [spot] = orvel.decode(block, 8000)
    assert spot.snr_db == pytest.approx(-10, abs=0.5)
    assert spot.freq_hz == pytest.approx(1500.3, abs=0.3)


def test_the_search_says_what_is_found() -> None:
    samples, rate = read_recording("audio-modes")
    calls = {station["call"]: station for station in read_truth("audio-modes")}

    def found(**search: Any) -> set[str]:
        return {spot.call for spot in orvel.decode(samples, rate, **search)}

    assert found(protocols=orvel.Protocol.ORVEL_S) == {"9A5QQA", "EI7QKA"}
    assert found(protocols=orvel.Protocol.OPERA | orvel.Protocol.ORVEL_L) == {"LY2QSD", "OE3QTN"}
    assert found(center_hz=1400, search_hz=40) == {"9A5QQA"}
    assert calls["EI7QKA"]["t_start"] == 9.1  # it ends at 39.7 s, the others by 43.3, 35.4 and 31.2 s
    assert found(end_min=39, end_max=41) == {"EI7QKA"}
    assert found(known=["OE3QTN"], known_only=True, protocols=orvel.Protocol.OPERA) == {"OE3QTN"}
    assert found(known=["K2QRX"], known_only=True, protocols=orvel.Protocol.OPERA) == set()


def test_protocols_go_by_the_names_of_the_command_and_by_their_labels() -> None:
    opera, orvel_s, orvel_l = orvel.Protocol.OPERA, orvel.Protocol.ORVEL_S, orvel.Protocol.ORVEL_L
    for names, protocol in {
        "opera": opera,
        "Opera 05": opera,
        "ORVEL S": orvel_s,
        "orvel-l": orvel_l,
        "ORVEL_L, opera": orvel_l | opera,
        "all": orvel.Protocol.ALL,
    }.items():
        assert orvel.Protocol.named(names) == protocol
        assert orvel.Search(names).protocols is protocol
    for protocol in (opera, orvel_s, orvel_l):
        assert orvel.Protocol.named(protocol.label) == protocol
        assert orvel.encode("K2QRX", "FN31", protocol=protocol.label.lower()).size == protocol.frame_chips
    for wrong in ("", "opra", "opera;orvel-s"):
        with pytest.raises(ValueError, match="protocol is '.*'; opera, orvel-s, orvel-l or all is needed"):
            orvel.Search(wrong)


def test_a_spot_becomes_what_json_takes(block: Any) -> None:
    [spot] = orvel.decode(block, 8000, protocols="opera")
    record = json.loads(json.dumps(spot.to_dict()))
    known = {name: value for name, value in dataclasses.asdict(spot).items() if name not in ("rf_hz", "utc")}
    assert spot.rf_hz is None and spot.utc is None  # of samples nothing is known
    assert record == known | {"protocol": "OPERA 05"}


def test_a_type_checker_tells_audio_from_iq_and_from_whole_numbers() -> None:
    counts = np.zeros(8000, dtype=np.int16)
    iq = np.zeros(8000, dtype=np.complex64)
    wrong: list[Callable[[], object]] = [  # each mark is an error for mypy when the types take what is behind it
        lambda: orvel.decode(counts, 8000),  # type: ignore[arg-type]
        lambda: orvel.scan(iq, 8000),  # type: ignore[arg-type]
        lambda: orvel.decode_iq(counts, 8000),  # type: ignore[arg-type]
        lambda: orvel.decode_wide(NOISE, 8000),  # type: ignore[arg-type]
    ]
    for call in wrong:
        with pytest.raises(TypeError):
            call()
    audio: orvel.Samples = NOISE.astype(np.float32)
    assert orvel.scan(audio, 8000) == orvel.scan([float(sample) for sample in audio], 8000) == []


def test_a_known_callsign_is_found_deeper() -> None:
    weak = heard("K2QRX", 1500.3, -27)
    assert orvel.decode(weak, 8000) == []
    [spot] = orvel.decode(weak, 8000, known="OH3QKJ; K2QRX")
    assert (spot.call, spot.deep) == ("K2QRX", True)
    assert spot.snr_db is None or spot.snr_db < -24
    assert orvel.decode(weak, 8000, known="K2QRX", deep_search=False) == []


def test_the_coherent_search_goes_deeper_and_says_so(block: Any) -> None:
    weak = heard("K2QRX", 1500.3, -27.5, seed=2)
    opera = orvel.Protocol.OPERA
    assert orvel.decode(weak, 8000, protocols=opera) == []
    [spot] = orvel.decode(weak, 8000, protocols=opera, coherent=True)
    assert (spot.call, spot.method, spot.deep) == ("K2QRX", "coherent", False)
    assert spot.odds is not None and spot.odds > 0
    assert orvel.decode_iq(heard_iq("K2QRX", 300, -27.5, rate=1000, seed=2), 1000, center_hz=300, coherent=True)[
        0
    ].method == "coherent"

    with orvel.Decoder(search=orvel.Search(search_hz=40), coherent=orvel.Coherent(passes=1)) as decoder:
        [strong] = decoder.decode(block, 8000)
        assert (strong.method, strong.odds) == ("standard", None)
        assert [s.call for s in decoder.decode(weak, 8000)] == ["K2QRX"]
        decoder.set_coherent(False)
        assert decoder.decode(weak, 8000) == []
        assert decoder.decode(block, 8000) == [strong]


@pytest.mark.parametrize("wrong", [{"places": 1}, {"places": 65}, {"passes": 0}, {"threads": 3}])
def test_a_coherent_search_without_sense_is_refused(wrong: Any) -> None:
    with pytest.raises(ValueError, match=next(iter(wrong))):
        orvel.Coherent(**wrong)


def test_a_decoder_counts_the_callsigns_it_knows() -> None:
    with orvel.Decoder() as decoder:
        assert decoder.set_known("K2QRX, OH3QKJ;G4QZB") == 3
        assert decoder.set_known(["K2QRX\n", "", " g4qzb"]) == 2
        assert decoder.set_known([]) == 0
        with pytest.raises(orvel.OrvelError, match=r"too many known callsigns \(max 256\)"):
            decoder.set_known(["K2QRX"] * 257)
        with pytest.raises(ValueError, match="NUL"):
            decoder.set_known(["K2\0QRX"])
        with pytest.raises(TypeError, match="a known callsign is 7"):
            decoder.set_known([7])  # type: ignore[list-item]


def test_only_recent_frames_are_decoded_when_asked() -> None:
    samples, rate = read_recording("audio-crowded")
    seconds = samples.size / rate
    with orvel.Decoder() as decoder:
        every = decoder.decode(samples, rate)
        recent = decoder.decode_recent(samples, rate, 7)
    assert recent == [spot for spot in every if seconds - 7 <= spot.t_end <= seconds]
    assert 0 < len(recent) < len(every)


def test_arrays_of_every_float_type_and_order_are_the_same_to_it(block: Any) -> None:
    def decode(samples: Any, rate: Any = 8000) -> list[orvel.Spot]:
        return orvel.decode(samples, rate, protocols=orvel.Protocol.OPERA)

    samples = block.astype(np.float32)
    expected = decode(samples)
    assert len(expected) == 1
    assert decode(samples.astype(np.float64), 8000.0) == expected
    assert decode(samples.astype(np.longdouble)) == expected
    assert decode(samples.astype(">f4"), np.int64(8000)) == expected
    assert decode(np.column_stack([samples, samples])[:, 1]) == expected
    assert decode(samples[::-1].copy()[::-1]) == expected
    assert decode(samples.tolist()) == expected
    readonly = samples.copy()
    readonly.flags.writeable = False
    assert decode(readonly) == expected


NOISE = np.random.default_rng(3).normal(size=8000)


@pytest.mark.parametrize(
    ("samples", "error", "message"),
    [
        (NOISE + 0j, TypeError, r"complex128.*decode_iq\(\)"),
        ((NOISE * 1000).astype(np.int16), TypeError, r"int16.*/ 32768"),
        (np.zeros(100, dtype=bool), TypeError, "bool"),
        (np.array(["a", "b"]), TypeError, "real floats"),
        (np.array([None, 1.0]), TypeError, "object"),
        (None, TypeError, "object"),
        (NOISE.reshape(4000, 2), ValueError, r"shape \(4000, 2\).*one dimension"),
        (np.float32(1), ValueError, r"shape \(\)"),
        (np.zeros(0), ValueError, "empty"),
        (np.append(NOISE, np.nan), ValueError, "nan at index 8000"),
        (np.insert(NOISE, 5, -np.inf), ValueError, "-inf at index 5"),
        (np.append(NOISE, 1e300), ValueError, "inf at index 8000"),
    ],
)
def test_an_array_of_another_kind_is_refused(samples: Any, error: type[Exception], message: str) -> None:
    with pytest.raises(error, match=message):
        orvel.decode(samples, 8000)
    with pytest.raises(error, match=message):
        orvel.scan(samples, 8000)
    with orvel.Decoder() as decoder, pytest.raises(error, match=message):
        decoder.decode_recent(samples, 8000, 5)


@pytest.mark.parametrize(
    ("rate", "error"),
    [(0, ValueError), (-8000, ValueError), (2**31, ValueError), (8000.5, ValueError), (float("nan"), ValueError)]
    + [("8000", TypeError), (None, TypeError), (True, TypeError), (8000 + 0j, TypeError)],
)
def test_a_rate_that_is_none_is_refused(rate: Any, error: type[Exception]) -> None:
    with pytest.raises(error, match="rate is"):
        orvel.decode(NOISE, rate)


@pytest.mark.parametrize(
    ("search", "error"),
    [
        ({"center_hz": float("nan")}, ValueError),
        ({"center_hz": "1500"}, TypeError),
        ({"search_hz": -1}, ValueError),
        ({"search_hz": None}, TypeError),
        ({"spread_hz": float("inf")}, ValueError),
        ({"end_min": float("nan")}, ValueError),
        ({"end_max": -0.5}, ValueError),
        ({"protocols": 8}, ValueError),
        ({"protocols": b"OPERA"}, TypeError),
    ],
)
def test_a_search_that_makes_no_sense_is_refused(search: dict[str, Any], error: type[Exception]) -> None:
    [name] = search
    with pytest.raises(error, match=f"{name} is"):
        orvel.decode(NOISE, 8000, **search)


def test_what_the_library_refuses_comes_with_its_text() -> None:
    with pytest.raises(orvel.OrvelError, match="^no protocol selected$"):
        orvel.decode(NOISE, 8000, protocols=orvel.Protocol(0))
    with pytest.raises(orvel.OrvelError, match="^block too short or invalid for decoding$"):
        orvel.decode(NOISE[:100], 8000)
    with pytest.raises(orvel.OrvelError, match="^block too short or invalid for decoding$"):
        orvel.decode(NOISE, 8000, search_hz=1e9)
    with pytest.raises(orvel.OrvelError, match="^known_only needs a list of known callsigns"):
        orvel.decode(NOISE, 8000, known_only=True)


def test_a_decoder_works_on_after_an_error_and_not_when_closed(block: Any) -> None:
    decoder = orvel.Decoder()
    with pytest.raises(orvel.OrvelError):
        decoder.decode(block[:100], 8000)
    with pytest.raises(ValueError, match="recent_s is 0"):
        decoder.decode_recent(block, 8000, 0)
    assert len(decoder.decode(block, 8000)) == 1
    decoder.close()
    decoder.close()
    with pytest.raises(ValueError, match="the decoder is closed"):
        decoder.decode(block, 8000)
    with pytest.raises(ValueError, match="the decoder is closed"):
        decoder.set_known("K2QRX")


def test_scan_tells_where_something_is_keyed(block: Any) -> None:
    [hit] = orvel.scan(block, 8000, z_min=8)
    assert hit.freq_hz == pytest.approx(1500.3, abs=4) and hit.z >= 8
    assert orvel.scan(block, 8000, center_hz=1200, search_hz=100, z_min=8) == []
    assert orvel.scan(block[:8000], 8000, seconds=30) == []


def test_wrong_arguments_of_scan_are_told(block: Any) -> None:
    with pytest.raises(ValueError, match="seconds is 2"):
        orvel.scan(block, 8000, seconds=2)
    with pytest.raises(ValueError, match="z_min is nan"):
        orvel.scan(block, 8000, z_min=float("nan"))
    with pytest.raises(ValueError, match="rate is 3999; it must be 4000"):
        orvel.scan(block, 3999)
    with pytest.raises(orvel.OrvelError, match="cannot be scanned"):
        orvel.scan(block, 8000, center_hz=10000)


def test_separate_decoders_in_threads_find_what_they_find_alone() -> None:
    recordings = [read_recording(name) for name in AUDIO] * 2

    def decode(recording: Any) -> list[orvel.Spot]:
        return orvel.decode(*recording, protocols=orvel.Protocol.OPERA)

    alone = [decode(recording) for recording in recordings[:3]] * 2
    with ThreadPoolExecutor(len(recordings)) as pool:
        assert list(pool.map(decode, recordings)) == alone


def test_one_decoder_serves_threads_in_turn(block: Any) -> None:
    search = orvel.Search(protocols=orvel.Protocol.OPERA)

    def decode(seconds: int) -> list[orvel.Spot]:
        return decoder.decode(block[: seconds * 8000], 8000, search)

    with orvel.Decoder() as decoder, ThreadPoolExecutor(4) as pool:
        found = list(pool.map(decode, [40, 39, 38, 37] * 2))
    assert all([spot.call for spot in spots] == ["K2QRX"] for spots in found)


def test_other_threads_run_while_the_library_decodes() -> None:
    samples = np.random.default_rng(5).normal(size=8 * 60 * 8000).astype(np.float32)
    span: list[float] = []

    def decode() -> None:
        with orvel.Decoder() as decoder:
            span.append(time.monotonic())
            decoder.decode(samples, 8000)
            span.append(time.monotonic())

    thread = threading.Thread(target=decode)
    thread.start()
    ticks = []
    while thread.is_alive():
        ticks.append(time.monotonic())
        time.sleep(0.001)
    # Nearly all of the time goes into one call: with the interpreter locked none would lie in the middle of it.
    quarter = (span[1] - span[0]) / 4
    assert any(span[0] + quarter < tick < span[1] - quarter for tick in ticks)
