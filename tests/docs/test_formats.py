"""The encoder that was written from docs/formats.md alone, and the page's examples, against the library.

    test_formats.py ORVEL
"""

import pathlib
import random
import subprocess
import sys
import unittest
import warnings

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "examples"), str(ROOT / "python")]
sys.dont_write_bytecode = True

import encoder  # noqa: E402
import orvel  # noqa: E402

ORVEL = ""
FRAMES = 100  # of each protocol
LETTERS = encoder.LETTERS
DIGITS = encoder.DIGITS


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False, timeout=60)


def encoded_by_command(protocol, call, locator=None):
    """The chips, or None when the command refuses them."""
    done = run(ORVEL, "encode", "--protocol", protocol, "--", call, *([locator] if locator is not None else []))
    return done.stdout.strip() if done.returncode == 0 else None


def encoded_by_library(protocol, call, locator=""):
    """The same without the start of a process."""
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")  # that decoders take some of them for errors
            return "".join(map(str, orvel.encode(call, locator, protocol=protocol)))
    except orvel.OrvelError:
        return None


def encoded_by_page(protocol, call, locator=None):
    try:
        return encoder.text_of(encoder.encode(protocol, call, locator))
    except encoder.Refused:
        return None


def any_of(generator, *alphabets):
    return "".join(generator.choice(alphabet) for alphabet in alphabets)


def random_call(generator):
    call = any_of(generator, *encoder.PLACES[:3]).lstrip()
    call += any_of(generator, *[LETTERS] * generator.randrange(4))
    return call.lower() if generator.random() < 0.3 else call


def random_locator(generator):
    locator = any_of(generator, *encoder.LOCATOR_PLACES)[: generator.choice((4, 6))]
    return locator.lower() if generator.random() < 0.3 else locator


def examples():
    """(command, lines that it prints) of every example in the page."""
    found = []
    for line in (ROOT / "docs" / "formats.md").read_text(encoding="utf-8").splitlines():
        if line.startswith("    $ "):
            found.append((line[6:].split(), []))
            printing = True
        elif line.startswith("    ") and found and printing:
            found[-1][1].append(line[4:])
        else:
            printing = False
    return found


class Formats(unittest.TestCase):
    def test_the_page_shows_what_the_programs_print(self):
        shown = examples()
        self.assertGreaterEqual(len(shown), 6)
        for command, lines in shown:
            with self.subTest(command=command):
                program = {"orvel": [ORVEL], "examples/encoder.py": [sys.executable, ROOT / "examples" / "encoder.py"]}
                done = run(*program[command[0]], *command[1:])
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertEqual(done.stdout.splitlines(), lines)

    def test_the_stages_in_the_page_end_in_the_chips_of_the_library(self):
        staged = [(command, lines) for command, lines in examples() if "--stages" in command]
        self.assertEqual({command[2] for command, _ in staged}, {"opera", "orvel-s", "orvel-l"})
        for command, lines in staged:
            self.assertEqual(lines[-1].split(), ["chips", encoded_by_command(*command[2:])])

    def test_random_frames_have_the_chips_of_the_library(self):
        generator = random.Random(1)
        for protocol in ("opera", "orvel-s", "orvel-l"):
            for _ in range(FRAMES):
                message = [random_call(generator)]
                if protocol == "orvel-l":
                    message.append(random_locator(generator))
                with self.subTest(protocol=protocol, message=message):
                    chips = encoded_by_page(protocol, *message)
                    self.assertIsNotNone(chips)
                    self.assertEqual(chips, encoded_by_library(protocol, *message))

    def test_what_the_library_refuses_cannot_be_encoded(self):
        generator = random.Random(2)
        refused = 0
        for _ in range(FRAMES):
            call = any_of(generator, *[LETTERS + DIGITS + " -"] * generator.randrange(1, 8)) or "A"
            chips = encoded_by_page("opera", call)
            refused += chips is None
            self.assertEqual(chips, encoded_by_library("opera", call), repr(call))
        self.assertGreater(refused, 10)
        self.assertLess(refused, FRAMES)
        for locator in ("SA00", "AS00", "AAA0", "AA0A", "AA00YA", "AA00AY", "AA0", "AA000", "AA00A", "AA00AA0"):
            self.assertIsNone(encoded_by_page("orvel-l", "K2QRX", locator))
            self.assertIsNone(encoded_by_library("orvel-l", "K2QRX", locator), locator)


if __name__ == "__main__":
    ORVEL = sys.argv.pop(1)
    unittest.main()
