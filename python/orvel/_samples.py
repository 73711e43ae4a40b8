"""Bare samples as raw files and SigMF hold them, and what SigMF says of them."""

from __future__ import annotations

import datetime
import json
import math
import os
import re
import tarfile
from dataclasses import dataclass, field, replace
from typing import Any

import numpy as np
import numpy.typing as npt

Frames = npt.NDArray[np.float64]  # shape (frames, channels), full scale 1

_LOUDEST = 2.0**31  # full scale of integers that nobody scaled; what is beyond is silence
_MOST_METADATA = 16 << 20


@dataclass(frozen=True)
class Format:
    """A sample: its kind "u", "s" or "f" and its octets."""

    kind: str
    octets: int
    big_endian: bool = False

    def samples(self, data: bytes) -> Frames:
        """Whole samples, full scale 1. The zero of unsigned ones lies between their two middle codes."""
        order = ">" if self.big_endian else "<"
        if self.kind == "f":
            values = np.frombuffer(data, f"{order}f{self.octets}").astype(np.float64)
            values[~(np.abs(values) <= _LOUDEST)] = 0
            return values
        octets = np.frombuffer(data, np.uint8).reshape(-1, self.octets)
        wide = np.zeros((len(octets), 4), np.uint8)  # the sample in the highest octets of four
        wide[:, 4 - self.octets :] = octets[:, ::-1] if self.big_endian else octets
        if self.kind == "s":
            return wide.view("<i4")[:, 0] / 2.0**31
        middle = 2.0**31 - 2.0 ** (31 - 8 * self.octets)
        return (wide.view("<u4")[:, 0] - middle) / 2.0**31


def parse_format(name: str) -> Format | None:
    match = re.fullmatch(r"(u8|s8)|(u16|s16|s24|u32|s32|f32|f64)(le|be)?", name)
    if not match:
        return None
    word = match[1] or match[2]
    return Format(word[0], int(word[1:]) // 8, match[3] == "be")


def format_of_name(path: str) -> tuple[Format, bool] | None:
    """The samples of a raw file as its name tells them, and whether they are I/Q."""
    extension = os.path.splitext(path)[1][1:].lower()
    if extension == "cfile":
        return Format("f", 4), True
    found = parse_format(extension.removeprefix("c"))
    return (found, extension.startswith("c")) if found else None


@dataclass(frozen=True)
class Take:
    """What is known of the samples from a frame on: its UTC, s since 1970-01-01, and the receiver's tuning, Hz."""

    begin: int = 0
    utc: float | None = None
    dial_hz: float | None = None
    lsb: bool = False


@dataclass
class Layout:
    """Where samples lie in a file, and what they are."""

    path: str
    format: Format
    channels: int  # numbers in a frame, with I and Q two
    iq: bool
    rate: int
    runs: list[tuple[int, int]] = field(default_factory=list)  # (offset in octets, frames)
    takes: list[Take] = field(default_factory=list)


class SampleFile:
    """A file of bare samples."""

    def __init__(self, layout: Layout) -> None:
        self.rate, self.iq, self.takes = layout.rate, layout.iq, layout.takes or [Take()]
        self.n = sum(frames for _, frames in layout.runs)
        if self.n == 0:
            raise ValueError(f"{layout.path!r} holds no samples")
        self._layout = layout
        self._file = open(layout.path, "rb")

    def read(self, begin: int, count: int) -> Frames:
        layout = self._layout
        size = layout.format.octets * layout.channels
        pieces = []
        for offset, frames in layout.runs:
            first, last = max(begin, 0), min(begin + count, frames)
            if first < last:
                self._file.seek(offset + first * size)
                data = self._file.read((last - first) * size)
                pieces.append(layout.format.samples(data[: len(data) // size * size]))
            begin -= frames
        samples: Frames = np.concatenate(pieces or [np.zeros(0)])
        return samples.reshape(-1, layout.channels)

    def close(self) -> None:
        self._file.close()


def open_raw(path: str, kind: Format, iq: bool, rate: int) -> SampleFile:
    channels = 2 if iq else 1
    frames = os.path.getsize(path) // (kind.octets * channels)
    return SampleFile(Layout(path, kind, channels, iq, rate, [(0, frames)]))


# ---- SigMF ----------------------------------------------------------------------------------------------------------

_BASE = re.compile(r"(.+)(\.sigmf-meta|\.sigmf-data|\.sigmf)", re.IGNORECASE | re.DOTALL)


def is_sigmf(path: str) -> bool:
    return _BASE.fullmatch(path) is not None


def _archive(path: str) -> tuple[bytes, str, int, int]:
    """The metadata of the first recording of an archive; the file, offset and octets of its data."""
    try:
        with tarfile.open(path, "r:") as archive:
            members = {member.name: member for member in archive if member.isfile()}
            name = next((name for name in members if name.endswith(".sigmf-meta")), None)
            data = members.get(name.removesuffix("meta") + "data") if name else None
            if name is None or data is None or members[name].size > _MOST_METADATA:
                raise ValueError(f"{path!r} holds no recording")
            text = archive.extractfile(members[name])
            assert text is not None  # it is a file
            return text.read(), path, data.offset_data, data.size
    except tarfile.TarError as error:
        raise ValueError(f"{path!r} is not a tar archive ({error})") from None


def _pair(path: str, base: str) -> tuple[bytes, str, int, int]:
    with open(base + ".sigmf-meta", "rb") as file:
        text = file.read(_MOST_METADATA + 1)
    return text, base + ".sigmf-data", 0, -1


def _count(where: dict[str, Any], name: str, missing: int = 0) -> int:
    value = where.get(name, missing)
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not 0 <= value <= 2**53 or value % 1 != 0:
        raise ValueError(f"{name} is not a whole number from 0 to 2^53")
    return int(value)


def _number(where: dict[str, Any], name: str) -> float | None:
    value = where.get(name)
    usable = isinstance(value, (int, float)) and not isinstance(value, bool) and abs(value) <= 1e12
    return float(value) if value is not None and usable else None


def _utc(text: Any) -> float | None:
    match = re.fullmatch(r"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)(\.\d+)?Z", text) if isinstance(text, str) else None
    try:
        whole = datetime.datetime.fromisoformat(match[1] + "+00:00").timestamp() if match else None
    except ValueError:
        return None
    return None if whole is None or match is None else whole + float(match[2] or 0)


def _datatype(name: Any) -> tuple[Format, bool]:
    pattern = r"(?P<complex>[cr])((?P<octet>[iu])8|(?P<kind>[iuf])(?P<bits>16|32|64)_(?P<order>[lb]e))"
    match = re.fullmatch(pattern, name) if isinstance(name, str) else None
    if match and match["octet"]:
        return Format("s" if match["octet"] == "i" else "u", 1), match["complex"] == "c"
    if match and (match["kind"] == "f") <= (match["bits"] != "16") and (match["bits"] == "64") <= (match["kind"] == "f"):
        kind = "s" if match["kind"] == "i" else match["kind"]
        return Format(kind, int(match["bits"]) // 8, match["order"] == "be"), match["complex"] == "c"
    raise ValueError(f"core:datatype is {name!r}, which is none")


def _lay_out(metadata: dict[str, Any], layout: Layout, first: int, end: int) -> None:
    """The runs and takes of a file whose data lies in these octets. What a capture does not say goes on."""
    size = layout.format.octets * layout.channels
    start = frame = _count(metadata["global"], "core:offset")
    place = first

    def add_run(most: int) -> None:
        nonlocal place, frame
        frames = min(most, (end - place) // size)
        if frames > 0:
            layout.runs.append((place, frames))
            place, frame = place + frames * size, frame + frames

    take = Take()
    for capture in metadata.get("captures", []):
        begin = _count(capture, "core:sample_start", -1)
        if begin < frame:
            raise ValueError("the captures are not in order")
        add_run(begin - frame)
        header = _count(capture, "core:header_bytes")
        if frame < begin or header > end - place:
            return
        place += header
        passed = (frame - start - take.begin) / layout.rate
        take = replace(take, begin=frame - start, utc=None if take.utc is None else take.utc + passed)
        take = replace(take, utc=_utc(capture.get("core:datetime")) or take.utc)
        dial = _number(capture, "core:frequency")
        if dial is not None:
            take = replace(take, dial_hz=dial, lsb=capture.get("orvel:sideband") == "lsb")
        if not layout.takes and take.begin > 0:
            layout.takes.append(Take())
        layout.takes.append(take)
    add_run(2**53)


def open_sigmf(path: str, rate: int | None) -> SampleFile:
    match = _BASE.fullmatch(path)
    assert match is not None  # is_sigmf() said so
    text, data, first, length = _archive(path) if match[2].lower() == ".sigmf" else _pair(path, match[1])
    try:
        if len(text) > _MOST_METADATA:
            raise ValueError("the metadata is longer than 16 MB")
        metadata = json.loads(text)
        if not (isinstance(metadata, dict) and isinstance(metadata.get("global"), dict)):
            raise ValueError("the metadata has no global object")
        captures = metadata.get("captures", [])
        if not (isinstance(captures, list) and all(isinstance(capture, dict) for capture in captures)):
            raise ValueError("captures is not an array of objects")
        about = metadata["global"]
        kind, iq = _datatype(about.get("core:datatype"))
        channels = _count(about, "core:num_channels", 1)
        said = about.get("core:sample_rate") if rate is None else rate
        if isinstance(said, bool) or not isinstance(said, (int, float)) or not 1 <= said <= 100e6 or math.isnan(said):
            raise ValueError(f"core:sample_rate is {said!r}; rate gives another")
        dataset = about.get("core:dataset")
        if length < 0 and isinstance(dataset, str) and dataset:
            if os.path.basename(dataset) != dataset:
                raise ValueError("core:dataset is not the name of a file beside it")
            data = os.path.join(os.path.dirname(path), dataset)
        layout = Layout(data, kind, channels * (2 if iq else 1), iq, round(said))
        if not 1 <= channels <= 1024:
            raise ValueError("core:num_channels is not from 1 to 1024")
        octets = os.path.getsize(data)
        end = octets if length < 0 else min(octets, first + length)
        _lay_out(metadata, layout, first, end - _count(about, "core:trailing_bytes"))
    except (ValueError, RecursionError) as error:
        raise ValueError(f"cannot read {path!r}: {error}") from None
    return SampleFile(layout)
