"""Sound for the tests: whatever the machine has, they capture and play nothing."""

from __future__ import annotations

import os
import tempfile
from collections.abc import Iterator

import pytest

# ALSA's null device plays at once what it is given, and records at once what was in memory.
NULL_DEVICE = 'pcm.default { type null hint { show on description "Nothing" } }\n'
# A card that is not there.
BROKEN_DEVICE = "pcm.default { type hw card 99 }\n"


def sound_environment(devices: str, directory: str) -> dict[str, str]:
    """Variables with which PortAudio finds the devices of that ALSA configuration and no others."""
    path = os.path.join(directory, "asound.conf")
    with open(path, "w", encoding="ascii") as file:
        file.write(devices)
    return {"ALSA_CONFIG_PATH": path, "JACK_NO_START_SERVER": "1", "JACK_DEFAULT_SERVER": "none_for_tests"}


@pytest.fixture(scope="session", autouse=True)
def null_device() -> Iterator[None]:
    """Set before the library first looks for devices; it does so once in a process."""
    with tempfile.TemporaryDirectory() as directory:
        os.environ.update(sound_environment(NULL_DEVICE, directory))
        yield
