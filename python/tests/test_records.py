"""The records and prototypes against what the C compiler makes of the header."""

from __future__ import annotations

import ctypes
import os
import re
import subprocess
from pathlib import Path

import numpy as np
import pytest

import orvel
from orvel import _library
from orvel._records import RECORDS, CoherentRecord, SettingsRecord, TxSettingsRecord

INCLUDE = Path(__file__).parents[2] / "include"


def uncommented_header() -> str:
    return re.sub(r"/\*.*?\*/", "", (INCLUDE / "liborvel.h").read_text(), flags=re.DOTALL)


def test_records_lie_in_memory_as_the_c_compiler_lays_them(tmp_path: Path) -> None:
    lines, expected = [], []
    for name, record in RECORDS.items():
        lines.append(f'printf("{name} %zu\\n", sizeof({name}));')
        expected.append(f"{name} {ctypes.sizeof(record)}")
        for field, _ in record._fields_:  # type: ignore[misc]
            lines.append(
                f'printf("{name}.{field} %zu %zu\\n", offsetof({name}, {field}), sizeof((({name} *)0)->{field}));'
            )
            descriptor = getattr(record, field)
            expected.append(f"{name}.{field} {descriptor.offset} {descriptor.size}")
    program = tmp_path / "layout"
    source = program.with_suffix(".c")
    body = "\n".join(lines)
    headers = "#include <liborvel.h>\n#include <stddef.h>\n#include <stdio.h>\n"
    source.write_text(f"{headers}int main(void) {{\n{body}\n}}\n")
    subprocess.run([os.environ.get("CC", "cc"), f"-I{INCLUDE}", str(source), "-o", str(program)], check=True)
    printed = subprocess.run([str(program)], check=True, capture_output=True, text=True).stdout
    assert printed.splitlines() == expected


def test_no_record_of_the_header_is_missing_and_no_field_of_one() -> None:
    structs = dict(re.findall(r"typedef struct \w+ \{([^}]*)\} (\w+);", uncommented_header()))
    by_name = {name: body for body, name in structs.items()}
    assert set(by_name) == set(RECORDS)
    for name, record in RECORDS.items():
        fields = re.findall(r"(\w+)(?:\[\d+\])?;", by_name[name])
        assert [field for field, _ in record._fields_] == fields  # type: ignore[misc]


def test_every_function_of_the_header_has_a_prototype_with_as_many_arguments() -> None:
    declared = re.findall(r"OVL_API\s[^;(]*?(\w+)\(([^)]*)\);", uncommented_header())
    counts = {name: 0 if arguments.strip() == "void" else arguments.count(",") + 1 for name, arguments in declared}
    assert counts == {name: len(arguments) for name, (_, arguments) in _library.PROTOTYPES.items()}


def test_default_settings_are_the_librarys() -> None:
    settings = SettingsRecord()
    _library.lib.ovl_settings_default(ctypes.byref(settings))
    assert bytes(orvel.Search().record()) == bytes(settings)
    coherent = CoherentRecord()
    _library.lib.ovl_coherent_default(ctypes.byref(coherent))
    assert bytes(orvel.Coherent().record()) == bytes(coherent)
    sound = TxSettingsRecord()
    _library.lib.ovl_tx_settings_default(ctypes.byref(sound))
    ours = orvel.TransmitSettings()
    assert (ours.rate, ours.tone_hz, ours.level, ours.ramp_s) == (
        sound.sample_rate,
        sound.tone_hz,
        sound.level,
        sound.ramp_s,
    )


def test_protocols_are_those_of_the_header() -> None:
    header = uncommented_header()
    for protocol in (orvel.Protocol.OPERA, orvel.Protocol.ORVEL_S, orvel.Protocol.ORVEL_L):
        assert re.search(rf"OVL_{protocol.name} = {protocol.value}\b", header)
    assert [p.label for p in orvel.Protocol if p.value in (1, 2, 4)] == ["OPERA 05", "ORVEL S", "ORVEL L"]
    assert orvel.Protocol.ALL.label == "OPERA 05 | ORVEL S | ORVEL L"
    assert [orvel.Protocol(k).frame_chips for k in (1, 2, 4, 7)] == [239, 239, 321, 0]
    assert orvel.CHIP_SECONDS == 0.128


@pytest.mark.parametrize("protocol", [orvel.Protocol.OPERA, orvel.Protocol.ORVEL_S, orvel.Protocol.ORVEL_L])
def test_frames_have_chips_of_both_kinds(protocol: orvel.Protocol) -> None:
    chips = orvel.encode("K2QRX", "FN31", protocol=protocol)
    assert chips.shape == (protocol.frame_chips,) and chips.dtype == np.uint8
    assert set(chips.tolist()) == {0, 1}


def test_a_locator_makes_a_frame_orvel_l_and_case_does_not_matter() -> None:
    assert np.array_equal(orvel.encode("k2qrx", "fn31"), orvel.encode("K2QRX", "FN31", protocol=orvel.Protocol.ORVEL_L))
    assert np.array_equal(orvel.encode("K2QRX"), orvel.encode("K2QRX", protocol=orvel.Protocol.OPERA))


@pytest.mark.parametrize(
    ("call", "locator"), [("", ""), ("K2QRX!", ""), ("D\xd61AB", ""), ("K2QRX", "ZZ99"), ("K2QRX" * 9, "")]
)
def test_what_no_frame_can_carry_is_refused(call: str, locator: str) -> None:
    with pytest.raises(orvel.OrvelError, match="cannot encode"):
        orvel.encode(call, locator)


def test_wrong_arguments_of_encode_are_told() -> None:
    with pytest.raises(TypeError, match="call is 5"):
        orvel.encode(5)  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="NUL"):
        orvel.encode("K2\0QRX")
    with pytest.raises(ValueError, match="one of"):
        orvel.encode("K2QRX", protocol=orvel.Protocol.ALL)
    with pytest.raises(ValueError, match="one of"):
        orvel.encode("K2QRX", protocol="all")
    with pytest.raises(ValueError, match="protocol is 'MORSE'; opera, orvel-s, orvel-l or all is needed"):
        orvel.encode("K2QRX", protocol="MORSE")
    with pytest.raises(TypeError, match="whole number"):
        orvel.encode("K2QRX", protocol=b"OPERA")  # type: ignore[arg-type]
