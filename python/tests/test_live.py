"""Live sources: what the command hears, as Python gets it."""

from __future__ import annotations

import os
import socket
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager, suppress

import numpy as np
import pytest
from stations import noise_iq, station_iq

import orvel

pytestmark = pytest.mark.skipif("ORVEL_COMMAND" not in os.environ, reason="ORVEL_COMMAND names no orvel command")
RATE = 12000


@contextmanager
def receiver(samples: bytes) -> Iterator[str]:
    """The address of an rtl_tcp server on this machine that sends these samples and then nearly nothing."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        server.settimeout(0.1)
        done = threading.Event()

        def serve() -> None:
            connection = None
            while connection is None and not done.is_set():
                with suppress(TimeoutError):
                    connection, _ = server.accept()
            if connection is None:
                return
            with connection, suppress(ConnectionError):
                connection.sendall(b"RTL0\0\0\0\x05\0\0\0\x1d" + samples)
                for _ in range(600):
                    if done.wait(0.1):
                        break
                    connection.sendall(bytes([127, 128]) * (RATE // 10))

        thread = threading.Thread(target=serve)
        thread.start()
        try:
            yield f"rtl_tcp://127.0.0.1:{server.getsockname()[1]}?freq=137500&rate={RATE}"
        finally:
            done.set()
            thread.join()


def samples_of(call: str) -> bytes:
    """What a receiver sends of a strong station 100 Hz above its centre."""
    iq = 0.05 * (noise_iq(82, RATE, 1) + station_iq(call, 100, -5, n=82 * RATE, rate=RATE, t_start=2))
    pairs = np.stack([iq.real, iq.imag], axis=1)
    return bytes(np.clip(np.rint(127.5 + 127.5 * pairs), 0, 255).astype(np.uint8))


def test_a_receiver_is_heard_until_it_is_closed() -> None:
    with receiver(samples_of("K2QRX")) as source:
        with orvel.Listener(source, wide=True, protocols="opera", known="K2QRX", search_hz=100) as spots:
            spot = next(spots)
            assert (spot.call, spot.protocol, spot.method) == ("K2QRX", orvel.Protocol.OPERA, "standard")
            assert spot.freq_hz == pytest.approx(100, abs=0.5)
            assert spot.rf_hz == pytest.approx(137600, abs=0.5)
            assert spot.utc == spot.t_start
            assert spot.t_end - spot.t_start == pytest.approx(239 * orvel.CHIP_SECONDS, abs=0.02)
            assert abs(spot.t_start - time.time()) < 300
            ender = threading.Timer(0.2, spots.close)
            ender.start()
            assert list(spots) == []
            ender.join()
            assert spots._child.returncode == 0
        assert list(spots) == []


def test_one_that_is_forgotten_ends_its_child() -> None:
    with receiver(b"") as source:
        spots = orvel.Listener(source)
        child = spots._child
        assert child.poll() is None
        del spots
        assert child.returncode is not None


@pytest.mark.parametrize("source, text", [("rtl_tcp://here:port", "rtl_tcp"), ("no such device", "no such device")])
def test_the_commands_last_words_are_the_error(source: str, text: str) -> None:
    with orvel.Listener(source) as spots:
        with pytest.raises(orvel.OrvelError, match=text):
            next(spots)
        assert list(spots) == []


def test_what_cannot_be_asked_is_refused_at_once(monkeypatch: pytest.MonkeyPatch) -> None:
    with pytest.raises(ValueError, match="search_hz"):
        orvel.Listener(search_hz=-1)
    with pytest.raises(orvel.OrvelError, match="3DA0RU"):
        orvel.Listener(known="3DA0RU")
    monkeypatch.delenv("ORVEL_COMMAND")
    monkeypatch.setenv("PATH", "")
    with pytest.raises(orvel.OrvelError, match="not installed"):
        orvel.Listener()
