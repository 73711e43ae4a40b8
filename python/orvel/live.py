"""Decoding of receivers as they hear: sources that the `orvel` command knows, spots as it confirms them."""

from __future__ import annotations

import collections
import datetime
import json
import logging
import os
import shutil
import signal
import subprocess
import threading
import weakref
from collections.abc import Iterable
from typing import IO, Any, Self

from . import _checks as checks
from ._callsigns import known_callsigns
from ._errors import OrvelError
from ._handle import Closable
from .decoder import Search, Spot
from .protocols import Protocol

_PROTOCOLS = {"opera": 1, "orvel-s": 2, "orvel-l": 4}  # as the command names them
_LOG = logging.getLogger("orvel")
_END_S = 10.0  # that the command has to end when it is told to


def _command() -> str:
    command = os.environ.get("ORVEL_COMMAND") or shutil.which("orvel")
    if command is None:
        raise OrvelError("the command orvel is not installed; ORVEL_COMMAND can name it")
    return command


def _utc(text: str) -> float:
    return datetime.datetime.fromisoformat(text).timestamp()


def _spot(line: dict[str, Any]) -> Spot:
    return Spot(
        call=line["call"],
        locator=line["locator"],
        protocol=Protocol.named(line["protocol"]),
        deep=line["deep"],
        t_start=_utc(line["utc_start"]),
        t_end=_utc(line["utc_end"]),
        freq_hz=line["freq_hz"],
        snr_db=line["snr_db"],
        drift_hz_s=line["drift_hz_s"],
        method=line.get("method", "deep" if line["deep"] else "standard"),
        odds=line.get("odds"),
        rf_hz=line.get("rf_hz"),
        utc=_utc(line["utc_start"]),
    )


def _tell(errors: IO[str], last_words: collections.deque[str]) -> None:
    with errors:
        for line in errors:
            last_words.append(line.strip())
            _LOG.warning("%s", line.strip())


def _end(child: subprocess.Popen[str], lines: IO[str], teller: threading.Thread) -> None:
    child.send_signal(signal.SIGINT)
    try:
        child.wait(_END_S)
    except subprocess.TimeoutExpired:
        child.kill()
        child.wait()
    teller.join()
    lines.close()


class Listener(Closable):
    """The spots of a live source, as an iterator that waits for the next one.

        with orvel.Listener("rtl_tcp://127.0.0.1:1234?freq=137500&rate=240000", wide=True) as spots:
            for spot in spots:
                print(spot.call)

    source     as `orvel listen --device` takes it: a sound device's number or a part of its name, "" for the default,
               rtl_tcp://HOST:PORT?freq=HZ&rate=HZ, soapy:driver=...
    iq         the sound device's two channels are I and Q
    wide       search the whole band, or (low, high) in `band`
    rate       sample rate to ask for, Hz; None = the source's
    dial_hz    frequency that the receiver is tuned to, of I/Q its centre; None = what the source tells
    lsb        frequencies count downward from dial_hz
    arguments  of `orvel listen`, for what else it can do, as ["--record", "DIRECTORY"]

    The rest is as for decode_file(). A child process listens: the command `orvel` in the path, or the one that the
    environment's ORVEL_COMMAND names. Times of spots, `t_start` and `t_end` too, are UTC, s since 1970-01-01. What the
    command has to say goes to the logger "orvel". Iteration ends when the source does, and raises OrvelError with the
    command's last words when it fails. close(), or the end of the with block, ends the child; from another thread it
    ends the iteration too.
    """

    def __init__(
        self,
        source: str = "",
        *,
        iq: bool = False,
        wide: bool = False,
        band: tuple[float, float] | None = None,
        rate: int | None = None,
        dial_hz: float | None = None,
        lsb: bool = False,
        known: str | Iterable[str] = (),
        protocols: Protocol | str = Protocol.ALL,
        center_hz: float | None = None,
        search_hz: float = 200.0,
        spread_hz: float = 0.0,
        known_only: bool = False,
        coherent: bool = False,
        arguments: Iterable[str] = (),
    ) -> None:
        checks.text(source, "source")
        search = Search(protocols, 0.0 if center_hz is None else center_hz, search_hz, spread_hz, True, known_only)
        names = [name for name, protocol in _PROTOCOLS.items() if protocol & int(search.protocols)]
        # A status each minute: without a reader the child ends at the next line.
        options = ["--json", "--status", f"--device={source}", f"--protocols={','.join(names)}", f"--spread={spread_hz!r}"]
        options += [] if wide else [f"--search={search_hz!r}"]
        options += [] if center_hz is None else [f"--center={search.center_hz!r}"]
        options += [] if band is None else [f"--band={float(band[0])!r}:{float(band[1])!r}"]
        options += [] if rate is None else [f"--rate={checks.whole_number(rate, 'rate', 1)}"]
        options += [] if dial_hz is None else [f"--dial={checks.real_number(dial_hz, 'dial_hz')!r}"]
        calls = known_callsigns(known).decode()
        options += [f"--known={','.join(calls.split())}"] if calls else []
        flags = {"--iq": iq, "--wide": wide, "--sideband=lsb": lsb, "--known-only": known_only, "--coherent": coherent}
        options += [flag for flag, given in flags.items() if given]
        self._last_words: collections.deque[str] = collections.deque(maxlen=1)
        child = subprocess.Popen(
            [_command(), "listen", *options, *arguments],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            encoding="utf-8",
            errors="replace",
        )
        assert child.stdout is not None and child.stderr is not None
        self._child, self._lines = child, child.stdout
        self._teller = threading.Thread(target=_tell, args=(child.stderr, self._last_words), daemon=True)
        self._teller.start()
        self._end = weakref.finalize(self, _end, child, self._lines, self._teller)

    def __iter__(self) -> Self:
        return self

    def __next__(self) -> Spot:
        while text := self._next_line():
            line = json.loads(text)
            if line["type"] == "spot" and line.get("standing", "confirmed") == "confirmed":
                return _spot(line)
        self._teller.join()
        if self._end.alive and self._child.wait() != 0:
            self.close()
            raise OrvelError(self._last_words[0] if self._last_words else "orvel listen failed")
        raise StopIteration

    def _next_line(self) -> str:
        try:
            return self._lines.readline()
        except ValueError:  # closed, perhaps meanwhile
            return ""

    def close(self) -> None:
        """End the child, and with it the iteration."""
        self._end()
