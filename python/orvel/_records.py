"""The records of the C interface, field by field as include/liborvel.h declares them."""

import ctypes
from ctypes import c_char, c_double, c_int32


class SettingsRecord(ctypes.Structure):
    _fields_ = [
        ("protocols", c_int32),
        ("center_hz", c_double),
        ("search_hz", c_double),
        ("spread_hz", c_double),
        ("deep_search", c_int32),
        ("known_only", c_int32),
        ("end_min", c_double),
        ("end_max", c_double),
    ]


class ResultRecord(ctypes.Structure):
    _fields_ = [
        ("call", c_char * 8),
        ("locator", c_char * 8),
        ("protocol", c_int32),
        ("deep", c_int32),
        ("t_start", c_double),
        ("t_end", c_double),
        ("freq_hz", c_double),
        ("snr_db", c_double),
        ("drift_hz_s", c_double),
    ]


class CoherentRecord(ctypes.Structure):
    _fields_ = [("places", c_int32), ("passes", c_int32), ("threads", c_int32), ("known", c_int32)]


class FindingRecord(ctypes.Structure):
    _fields_ = [("method", c_int32), ("odds", c_double)]


class HitRecord(ctypes.Structure):
    _fields_ = [("freq_hz", c_double), ("z", c_double)]


class TxSettingsRecord(ctypes.Structure):
    _fields_ = [("sample_rate", c_int32), ("tone_hz", c_double), ("level", c_double), ("ramp_s", c_double)]


class TxStepRecord(ctypes.Structure):
    _fields_ = [
        ("kind", c_int32),
        ("protocol", c_int32),
        ("call", c_char * 16),
        ("locator", c_char * 8),
        ("seconds", c_double),
        ("keep_keyed", c_int32),
    ]


class TxProgressRecord(ctypes.Structure):
    _fields_ = [
        ("step", c_int32),
        ("kind", c_int32),
        ("chip", c_int32),
        ("chips", c_int32),
        ("elapsed_s", c_double),
        ("total_s", c_double),
        ("keyed", c_int32),
        ("done", c_int32),
    ]


class AudioDeviceRecord(ctypes.Structure):
    _fields_ = [
        ("name", c_char * 128),
        ("host_api", c_char * 32),
        ("input_channels", c_int32),
        ("output_channels", c_int32),
        ("default_rate", c_double),
        ("is_default_input", c_int32),
        ("is_default_output", c_int32),
    ]


class AudioStatsRecord(ctypes.Structure):
    _fields_ = [
        ("peak_db", c_double),
        ("rms_db", c_double),
        ("captured_s", c_double),
        ("latency_s", c_double),
        ("overflows", c_int32),
        ("rate", c_int32),
    ]


# The name of each record in the header.
RECORDS: dict[str, type[ctypes.Structure]] = {
    "ovl_settings": SettingsRecord,
    "ovl_result": ResultRecord,
    "ovl_coherent": CoherentRecord,
    "ovl_finding": FindingRecord,
    "ov_hit": HitRecord,
    "ovl_tx_settings": TxSettingsRecord,
    "ovl_tx_step": TxStepRecord,
    "ovl_tx_progress": TxProgressRecord,
    "ovl_audio_device": AudioDeviceRecord,
    "ovl_audio_stats": AudioStatsRecord,
}
