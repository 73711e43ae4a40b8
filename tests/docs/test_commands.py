"""Every command line that the documents show is one that works.

    test_commands.py ORVEL BUILD

Command lines are the lines of code blocks that begin with a command (COMMANDS); two blanks end one and begin a remark.
They run in a scratch directory that has the files of which they speak. What needs a sound device has its options
checked only; what would build or install is in NOT_RUN, with the reason. Lines after "$ " in docs/formats.md are not
tested here but in test_formats.py.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
ORVEL = BUILD = STATION = pathlib.Path()

COMMANDS = ("orvel", "sox", "cc", "cmake", "ctest", "git", "sudo", "apt-get", "python3", "pip", "dpkg-buildpackage")
PATHS = ("./", "build/", "examples/", "scripts/", ".ci/")

# Command lines that are not run, and why. Each is looked at by test_what_is_not_run_exists.
NOT_RUN = (
    (r"\./demo|\./test( \w+)?|\.ci/run", "install packages and build everything"),
    (r"(sudo )?cmake --(preset|build|install) .*", "build what this test is a part of"),
    (r"ctest .*", "run the suite that this test is a part of"),
    (r"dpkg-buildpackage .*", "builds everything; tests/install/check does it"),
    (r"git .*", "change the repository"),
    (r"(sudo )?apt(-get)? .*", "install packages"),
    (r"(python3 -m )?pip .*|python3 .*", "ask for packages that this test cannot count on"),
    (r"(sudo )?systemctl .*", "start services"),
    (r"(sudo )?orvel collect .*", "would run until interrupted"),
    (r"(sudo )?orvel station (run|doctor|--demo).*", "would run until interrupted, or look after this machine"),
    (r".*capture\.cu8.*", "is run in test_recipes.py, where there is such a file"),
    (r"orvel plot day\.flac .*", "would need half a day of audio"),
    (r"examples/slurm/.*", "needs a cluster; tests/archive/check makes one"),
    (r"orvel merge \[0-9\].*", "joins what parallel started; tests/archive/check does both"),
    (r"scripts/\w[\w-]*( .*)?", "take minutes, or need a build of their own"),
)

# These talk to a sound device. With a device that does not exist they tell whether everything else is right.
NEED_A_DEVICE = r"orvel (send|listen)\b(?!.*--stdin)(?!.*--help)"
NO_DEVICE = "no device has this name"

# These are orvel-station's, which is not built everywhere.
OF_THE_STATION = r"orvel (station|spots)\b(?!.*--help)"

# For the others there is one on every machine, which plays nothing.
ONE_DEVICE = "pcm.sink { type file file /dev/null slave.pcm { type null } }\n"

# Recordings under the names that the documents give them, of one station each: what crowded ones hold is the subject of
# other tests.
FILES = {
    "audio.wav": "--rate 8000 opera=K2QRX,start=2",
    "recording.wav": "--rate 8000 orvel-s=K2QRX,start=2",
    "capture.wav": "--rate 4000 --iq opera=K2QRX,start=2",
    "band.wav": "--rate 4000 --iq opera=K2QRX,start=2",
}


def pages():
    found = [ROOT / name for name in ("README.md", "CONTRIBUTING.md", "CHANGELOG.md", "bench/README.md")]
    found += sorted((ROOT / "docs").rglob("*.md")) + sorted((ROOT / "python").rglob("*.md"))
    return [page for page in found if page.exists()]


def manual_pages():
    return sorted(ROOT.glob("man/*.1*")) + sorted((ROOT / "docs").rglob("*.1"))


def code_blocks(page):
    """The code blocks of a Markdown page as lists of lines; those of other languages than the shell's are left out."""
    block, language = [], None
    for line in page.read_text(encoding="utf-8").splitlines() + [""]:
        fence = re.match(r"\s*```\s*(\w*)", line)
        if fence and language is None:
            language, block = fence[1], []
        elif fence:
            if language in ("", "sh", "bash", "console", "text"):
                yield block
            language, block = None, []
        elif language is not None:
            block.append(line)
        elif line.startswith("    "):
            block.append(line[4:])
        elif block and line.strip():
            yield block
            block = []
    if block:
        yield block


def is_command(line):
    return line.startswith(PATHS) or line.split(" ")[0] in COMMANDS


def without_remark(line):
    return re.split(r" {2,}|\s+# ", line.strip())[0].removesuffix(" …")


def command_lines():
    """(page, command line, output shown) of all pages; the output is None where none is shown."""
    found = []
    for page in pages():
        last = None
        for block in code_blocks(page):
            block = [line for line in block if line.strip()]
            commands = [line for line in block if is_command(line)]
            if last is not None and block and not commands and block[0].startswith(" "):
                last[2] = block  # a table of numbers after the command that prints it
            found += [[page.name, without_remark(line), None] for line in commands]
            last = found[-1] if len(commands) == len(block) == 1 else None
    for page in manual_pages():
        text = page.read_text(encoding="utf-8")
        examples = re.search(r"\n\.S[hH] EXAMPLES\n(.*?)(\n\.S[hH] |\Z)", text, re.DOTALL)
        for line in examples[1].splitlines() if examples else []:
            line = re.sub(r"^\.Dl \$ ", "", line).replace("\\-", "-").replace("\\&", "")
            line = line.split(" | jq ")[0]  # which the tests do not ask for
            if is_command(line):
                found.append([page.name, without_remark(line), None])
    return found


def reason_not_to_run(command):
    return next((reason for pattern, reason in NOT_RUN if re.fullmatch(pattern, command)), None)


class Commands(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = pathlib.Path(tempfile.mkdtemp(prefix="orvel-docs-"))
        scratch = cls.scratch
        for name in ("docs", "examples", "include"):  # copies: a command may write into them
            shutil.copytree(ROOT / name, scratch / name)
        for build in ("demo", "release"):
            (scratch / "build" / build).parent.mkdir(exist_ok=True)
            (scratch / "build" / build).symlink_to(BUILD)
        for name, scene in FILES.items():
            subprocess.run([ORVEL, "simulate", "-o", scratch / name, *scene.split()], check=True)
        subprocess.run(["sox", scratch / "audio.wav", scratch / "audio.flac"], check=True)
        shutil.copy(ROOT / "examples" / "recordings" / "iq-narrow.jsonl", scratch / "stations.jsonl")
        (scratch / "friends.txt").write_text("# friends\nK2QRX G4QZB\n", encoding="ascii")
        (scratch / "archive.list").write_text("audio.wav\nrecording.wav\n", encoding="ascii")
        with open(scratch / "shard-1.jsonl", "wb") as shard:
            subprocess.run([ORVEL, "decode", "--shard", "1/1", "archive.list"], cwd=scratch, stdout=shard, check=True)
        (scratch / "asound.conf").write_text(ONE_DEVICE, encoding="ascii")
        (scratch / "bin").mkdir()
        (scratch / "bin" / "orvel").symlink_to(ORVEL)
        if STATION.exists():
            cls.keep_spots(scratch)

    @classmethod
    def keep_spots(cls, scratch):
        """A station without receivers makes a store, as station.toml says."""
        (scratch / "station.toml").write_text(
            '[station]\ncallsign = "DL1QXA"\nlocator = "JO62"\n[store]\npath = "spots.db"\n', encoding="ascii"
        )
        command = [STATION, "run", "station.toml"]
        with subprocess.Popen(command, cwd=scratch, env=dict(os.environ, LD_LIBRARY_PATH=str(BUILD))) as station:
            while subprocess.run([STATION, "spots", "--store", "spots.db"], cwd=scratch, capture_output=True, check=False).returncode:
                assert station.poll() is None
                time.sleep(0.05)
            station.terminate()

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.scratch)

    def run_line(self, line):
        paths = str(self.scratch / "bin") + os.pathsep + os.environ["PATH"]
        environment = dict(os.environ, PATH=paths, LD_LIBRARY_PATH=str(BUILD))
        environment["ALSA_CONFIG_PATH"] = str(self.scratch / "asound.conf")
        return subprocess.run(
            ["bash", "-o", "pipefail", "-c", line],
            cwd=self.scratch,
            env=environment,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=180,
            check=False,
        )

    def test_every_command_line_works(self):
        ran = set()
        for page, command, shown in command_lines():
            if reason_not_to_run(command) or re.match(NEED_A_DEVICE, command):
                continue
            if re.match(OF_THE_STATION, command) and not STATION.exists():
                continue
            if command in ran and shown is None:
                continue  # which another page shows too
            with self.subTest(page=page, command=command):
                done = self.run_line(command)
                self.assertEqual(done.returncode, 0, done.stderr)
                if shown is not None:
                    self.assertEqual(done.stdout.splitlines(), shown)
                ran.add(command)
        self.assertGreater(len(ran), 15)

    def test_what_needs_a_sound_device_has_valid_options(self):
        checked = 0
        for page, command, _ in command_lines():
            if not re.match(NEED_A_DEVICE, command):
                continue
            with self.subTest(page=page, command=command):
                command = command.split(" | ")[0]  # the rest is in test_recipes.py
                named = " --receiver " in command  # whose devices, if any, do not exist here
                option = "--receiver none=" if named else "--device "
                done = self.run_line(re.sub(r" --device \S+", "", command) + " %s'%s'" % (option, NO_DEVICE))
                device = r"\w[\w ]*" if named else NO_DEVICE
                self.assertRegex(done.stderr, r"--device: no (in|out)put device '%s'" % device)
                checked += 1
        self.assertGreater(checked, 3)

    def test_options_that_do_not_exist_would_be_noticed(self):
        for command in ("orvel send --evry 10m opera=K2QRX", "orvel listen --jsn", "orvel send opera=K2QR1"):
            done = self.run_line(command + " --device '%s'" % NO_DEVICE)
            self.assertNotIn("--device", done.stderr)
            self.assertEqual(done.returncode, 2)

    def test_what_is_not_run_exists(self):
        presets = json.loads((ROOT / "CMakePresets.json").read_text(encoding="utf-8"))
        names = {kind: {preset["name"] for preset in presets[kind]} for kind in presets if kind.endswith("Presets")}
        for page, command, _ in command_lines():
            if reason_not_to_run(command) is None:
                continue
            with self.subTest(page=page, command=command):
                if command.startswith(PATHS):
                    program = ROOT / command.split(" ")[0]
                    self.assertTrue(os.access(program, os.X_OK), program)
                for kind, pattern in (
                    ("configurePresets", r"cmake --preset (\S+)"),
                    ("buildPresets", r"cmake --build --preset (\S+)"),
                    ("testPresets", r"ctest --preset (\S+)"),
                ):
                    if used := re.match(pattern, command):
                        self.assertIn(used[1], names[kind])


if __name__ == "__main__":
    ORVEL, BUILD = map(pathlib.Path, sys.argv[1:3])
    STATION = ORVEL.with_name("orvel-station")
    del sys.argv[1:3]
    unittest.main()
