"""Encode, render, capture and decode slow, weak radio beacons: liborvel from Python.

>>> import orvel
>>> audio = orvel.render(orvel.Frame("K2QRX"), orvel.TransmitSettings(rate=12000))
>>> [(spot.call, round(spot.freq_hz)) for spot in orvel.decode(audio, 12000)]
[('K2QRX', 1500)]

Audio is one-dimensional arrays of floats, full scale usually 1; I/Q is one-dimensional complex arrays, I + jQ. An array
of another kind raises TypeError or ValueError with a hint what to do; what the library refuses raises OrvelError with
its text, or with a callsign's reason.
"""

from ._checks import IqSamples, Samples
from ._errors import OrvelError
from ._library import library_path, library_version
from .audio import DEFAULT_DEVICE, NO_DEVICE, Capture, CaptureStats, Device, Player, devices
from .decoder import Coherent, Decoder, Hit, Search, Spot, decode, scan
from .files import decode_file
from .iq import Slice, cut_slice, decode_iq
from .live import Listener
from .protocols import CHIP_SECONDS, Protocol, encode
from .transmit import Carrier, Frame, Pause, Progress, Step, Transmitter, TransmitSettings, render
from .wide import decode_wide

__version__ = "1.6.1"
"""Version of this package; library_version() is that of the library."""

__all__ = [
    "CHIP_SECONDS",
    "Capture",
    "CaptureStats",
    "Carrier",
    "Coherent",
    "DEFAULT_DEVICE",
    "Decoder",
    "Device",
    "Frame",
    "Hit",
    "IqSamples",
    "Listener",
    "NO_DEVICE",
    "OrvelError",
    "Pause",
    "Player",
    "Progress",
    "Protocol",
    "Samples",
    "Search",
    "Slice",
    "Spot",
    "Step",
    "TransmitSettings",
    "Transmitter",
    "__version__",
    "cut_slice",
    "decode",
    "decode_file",
    "decode_iq",
    "decode_wide",
    "devices",
    "encode",
    "library_path",
    "library_version",
    "render",
    "scan",
]
