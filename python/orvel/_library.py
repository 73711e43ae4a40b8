"""Finds and loads the shared library, once, when the package is imported.

Looked for in this order: the file that the environment variable ORVEL_LIBRARY names, and nothing else when it is set;
liborvel.so.1 or liborvel.so next to this file; what the system finds as "orvel".
"""

import ctypes
import ctypes.util
import os
from ctypes import POINTER, c_char_p, c_double, c_float, c_int32, c_uint8, c_uint32, c_void_p
from pathlib import Path

from . import _records as records

API_VERSION = 5

_floats = POINTER(c_float)

# Result and arguments of each function. CDLL calls release the interpreter's lock.
PROTOTYPES: dict[str, tuple[object, list[object]]] = {
    "ovl_api_version": (c_int32, []),
    "ovl_version": (c_char_p, []),
    "ovl_frame_chips": (c_int32, [c_uint32]),
    "ovl_proto_name": (c_char_p, [c_uint32]),
    "ovl_chip_seconds": (c_double, []),
    "ovl_encode": (c_int32, [c_uint32, c_char_p, c_char_p, POINTER(c_uint8), c_int32]),
    "ovl_tx_settings_default": (None, [POINTER(records.TxSettingsRecord)]),
    "ovl_tx_create": (c_void_p, []),
    "ovl_tx_destroy": (None, [c_void_p]),
    "ovl_tx_start": (
        c_int32,
        [c_void_p, POINTER(records.TxSettingsRecord), POINTER(records.TxStepRecord), c_int32],
    ),
    "ovl_tx_render": (c_int32, [c_void_p, _floats, c_int32]),
    "ovl_tx_stop": (None, [c_void_p]),
    "ovl_tx_set_level": (c_int32, [c_void_p, c_double]),
    "ovl_tx_status": (None, [c_void_p, POINTER(records.TxProgressRecord)]),
    "ovl_tx_last_error": (c_char_p, [c_void_p]),
    "ovl_audio_available": (c_int32, []),
    "ovl_audio_device_count": (c_int32, []),
    "ovl_audio_device_info": (c_int32, [c_int32, POINTER(records.AudioDeviceRecord)]),
    "ovl_audio_create": (c_void_p, []),
    "ovl_audio_destroy": (None, [c_void_p]),
    "ovl_audio_start_input": (c_int32, [c_void_p, c_int32, c_int32, c_double]),
    "ovl_audio_stop_input": (None, [c_void_p]),
    "ovl_audio_push": (c_int32, [c_void_p, _floats, c_int32, c_int32]),
    "ovl_audio_last": (c_int32, [c_void_p, _floats, c_int32]),
    "ovl_audio_input_stats": (None, [c_void_p, POINTER(records.AudioStatsRecord)]),
    "ovl_audio_start_output_at": (c_int32, [c_void_p, c_int32, c_void_p, c_double]),
    "ovl_audio_start_output": (c_int32, [c_void_p, c_int32, c_void_p]),
    "ovl_audio_output_latency": (c_double, [c_void_p]),
    "ovl_audio_output_started": (c_double, [c_void_p]),
    "ovl_audio_output_active": (c_int32, [c_void_p]),
    "ovl_audio_stop_output": (None, [c_void_p]),
    "ovl_audio_last_error": (c_char_p, [c_void_p]),
    "ovl_create": (c_void_p, []),
    "ovl_destroy": (None, [c_void_p]),
    "ovl_last_error": (c_char_p, [c_void_p]),
    "ovl_set_known": (c_int32, [c_void_p, c_char_p]),
    "ovl_settings_default": (None, [POINTER(records.SettingsRecord)]),
    "ovl_decode": (
        c_int32,
        [c_void_p, _floats, c_int32, c_int32, POINTER(records.SettingsRecord), POINTER(records.ResultRecord), c_int32],
    ),
    "ovl_decode_recent": (
        c_int32,
        [
            c_void_p,
            _floats,
            c_int32,
            c_int32,
            POINTER(records.SettingsRecord),
            c_double,
            POINTER(records.ResultRecord),
            c_int32,
        ],
    ),
    "ovl_coherent_default": (None, [POINTER(records.CoherentRecord)]),
    "ovl_set_coherent": (c_int32, [c_void_p, POINTER(records.CoherentRecord)]),
    "ovl_findings": (c_int32, [c_void_p, POINTER(records.FindingRecord), c_int32]),
    "ovl_keyed": (
        c_int32,
        [
            _floats,
            c_int32,
            c_int32,
            POINTER(records.SettingsRecord),
            c_double,
            c_double,
            POINTER(records.HitRecord),
            c_int32,
        ],
    ),
}


def _candidates() -> list[str]:
    chosen = os.environ.get("ORVEL_LIBRARY")
    if chosen:
        return [chosen]
    beside = [Path(__file__).parent / name for name in ("liborvel.so.1", "liborvel.so")]
    known = ctypes.util.find_library("orvel")
    return [str(path) for path in beside if path.exists()] + ([known] if known else [])


def _load() -> tuple[ctypes.CDLL, str]:
    tried = []
    for path in _candidates():
        try:
            return ctypes.CDLL(path), path
        except OSError as error:
            tried.append(f"{path}: {error}")
    raise ImportError(
        "the shared library of liborvel cannot be loaded"
        + "".join(f"\n  {line}" for line in tried or ["it is neither next to the package nor known to the system"])
        + "\nInstall it, or name the file in the environment variable ORVEL_LIBRARY."
    )


def _declare(library: ctypes.CDLL, path: str) -> None:
    try:
        for name, (result, arguments) in PROTOTYPES.items():
            function = getattr(library, name)
            function.restype = result
            function.argtypes = arguments
    except AttributeError as error:
        raise ImportError(f"{path} is not the liborvel that this package is for: {error}") from None
    version = library.ovl_api_version()
    if version != API_VERSION:
        raise ImportError(f"{path} has version {version} of the C interface; this package is for {API_VERSION}")


lib, _path = _load()
_declare(lib, _path)


def library_path() -> str:
    """The shared library in use: a path, or a name that the system's loader resolved."""
    return _path


def library_version() -> str:
    """Version of the shared library in use, "1.6.1"."""
    version: bytes = lib.ovl_version()
    return version.decode()
