"""The programs of the hosts' guide at work.

    test_examples.py BEACON LISTEN_LOOP
"""

import array
import json
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
RECORDINGS = ROOT / "examples" / "recordings"
BEACON = LISTEN_LOOP = ""


def run(*command, stdin=b""):
    return subprocess.run(command, input=stdin, capture_output=True, check=False, timeout=120)


def heard(rate, raw):
    """(start, protocol, callsign, locator) of each line that listen_loop prints."""
    done = run(LISTEN_LOOP, "--stdin", str(rate), stdin=raw)
    assert done.returncode == 0, done.stderr
    pattern = r" *([\d.]+) s +[\d.]+ Hz +[-+][\d.]+ dB  (OPERA 05|ORVEL S|ORVEL L) +(\w+) (\w*)"
    found = [re.fullmatch(pattern, line).groups() for line in done.stdout.decode().splitlines()]
    return [(float(start), *rest) for start, *rest in found]


def raw_of(name):
    """Rate and samples of a 16-bit mono recording."""
    done = run("sox", RECORDINGS / (name + ".wav"), "-t", "s16", "-c", "1", "-D", "-")
    rate = int(run("sox", "--i", "-r", RECORDINGS / (name + ".wav")).stdout)
    return rate, done.stdout


class Examples(unittest.TestCase):
    def test_the_beacon_renders_a_frame_that_the_listener_decodes(self):
        done = run(BEACON, "--dry-run", "K2QRX", "fn31")
        self.assertEqual(done.returncode, 0, done.stderr)
        samples = array.array("h", done.stdout)
        self.assertAlmostEqual(len(samples) / 48000, 1 + 321 * 0.128, delta=0.01)
        self.assertAlmostEqual(max(samples) / 32768, 0.5, delta=0.001)
        found = heard(48000, done.stdout)
        self.assertEqual([spot[1:] for spot in found], [("ORVEL L", "K2QRX", "FN31")])
        self.assertAlmostEqual(found[0][0], 1, delta=0.02)

    def test_the_listener_prints_each_frame_of_a_recording_once(self):
        rate, raw = raw_of("audio-crowded")
        found = heard(rate, raw)
        truth = [json.loads(line) for line in (RECORDINGS / "audio-crowded.jsonl").read_text().splitlines()]
        self.assertEqual(sorted(spot[2] for spot in found), sorted(station["call"] for station in truth))

    def test_frames_that_end_long_before_the_end_of_a_stream_are_found_in_time(self):
        # Two minutes: more than the listener's buffer holds.
        frame = run(BEACON, "--dry-run", "G4QZB", "IO91").stdout
        found = heard(48000, frame + bytes(2 * 48000 * 40) + frame)
        self.assertEqual([spot[2] for spot in found], ["G4QZB", "G4QZB"])
        self.assertAlmostEqual(found[1][0] - found[0][0], len(frame) / 96000 + 40, delta=0.02)

    def test_what_cannot_be_sent_or_heard_is_refused(self):
        for command, message in (
            ((BEACON, "--dry-run", "K2QR1", "FN31"), b"cannot encode K2QR1 FN31"),
            ((BEACON, "--dry-run", "K2QRX", "FN3"), b"cannot encode K2QRX FN3"),
            ((LISTEN_LOOP, "--stdin", "100"), b"rate out of range"),
        ):
            with self.subTest(command=command):
                done = run(*command)
                self.assertEqual(done.returncode, 1)
                self.assertIn(message, done.stderr)
        for command in ((BEACON,), (LISTEN_LOOP, "1", "2", "3")):
            self.assertEqual(run(*command).returncode, 2)


if __name__ == "__main__":
    BEACON, LISTEN_LOOP = sys.argv[1:3]
    del sys.argv[1:3]
    unittest.main()
