"""The pipes and the service of docs/recipes.md at work.

    test_recipes.py ORVEL

Each line is run as it is shown, but for what this machine lacks: a receiver's output is a file of its format, spots
come from a recording, and ports and the broker are this test's own.
"""

import configparser
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
RECORDINGS = ROOT / "examples" / "recordings"
PAGE = (ROOT / "docs" / "recipes.md").read_text(encoding="utf-8")
ORVEL = pathlib.Path()

CROWDED = {"DL1QXA", "OH3QKJ", "G4QZB", "F5QVB", "K2QRX"}  # audio-crowded.wav
NARROW = {"LA6QTN", "I4QPD", "PA3QCW", "JA1QEM", "W7QNH"}  # iq-narrow.wav
CAPTURE = "-r 250000 -e unsigned -b 8 -c 2 -t raw"

PIPES = [line.strip() for line in PAGE.splitlines() if line.startswith("    ") and re.search(r" (\||&&) ", line)]
TESTED = set()


def pipe(start):
    """The line of the page that begins so."""
    (line,) = [line for line in PIPES if line.startswith(start)]
    TESTED.add(line)
    return line


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def callsigns(text):
    return set(re.findall(r"OPERA 05\W+(?:call\W+)?(\w+)", text))


class Recipes(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="orvel-recipes-")
        cls.addClassCleanup(directory.cleanup)
        cls.capture = pathlib.Path(directory.name) / "capture.cu8"  # what rtl_sdr writes at 250 kHz
        sox = ["sox", RECORDINGS / "iq-narrow.wav", *CAPTURE.split(), cls.capture]
        subprocess.run(sox, stderr=subprocess.DEVNULL, check=True)

    def setUp(self):
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="orvel-recipes-"))
        self.addCleanup(shutil.rmtree, self.scratch)
        (self.scratch / "orvel").symlink_to(ORVEL)
        self.paths = str(self.scratch) + os.pathsep + os.environ["PATH"] + os.pathsep + "/usr/sbin"
        shutil.copy(RECORDINGS / "audio-crowded.wav", self.scratch / "audio.wav")
        (self.scratch / "capture.cu8").symlink_to(self.capture)

    def start(self, line, **variables):
        """A line at work, in a process group of its own that ends with the test."""
        process = subprocess.Popen(
            ["bash", "-o", "pipefail", "-c", line],
            cwd=self.scratch,
            env=dict(os.environ, PATH=self.paths, **variables),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            start_new_session=True,
        )
        self.addCleanup(self.end, process)
        return process

    def end(self, process):
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
        process.communicate()

    def run_line(self, line, **variables):
        process = self.start(line, **variables)
        out, errors = process.communicate(timeout=120)
        self.assertEqual(process.returncode, 0, errors.decode())
        return out

    def spots(self, between="sleep 0.02", files=""):
        """What stands in the place of `orvel listen`: it prints the spots of a recording, one after the other."""
        self.run_line("orvel decode --json audio.wav >heard.jsonl")
        return f'while read -r spot; do echo "$spot"; {between}; done <heard.jsonl {files}'

    def test_the_dial_is_added_to_each_frequency(self):
        rows = self.run_line("orvel decode audio.wav --dial 136000").decode().splitlines()
        self.assertEqual(len(rows), 6)
        for row in rows[1:]:
            self.assertAlmostEqual(float(row.split()[2]), 136000 + float(row.split()[1]), places=2)

    def test_a_capture_of_rtl_sdr_decodes(self):
        (line,) = re.findall(r"    (orvel decode capture\.cu8.*)", PAGE)
        self.assertEqual(callsigns(self.run_line(line).decode()), NARROW)

    def test_a_live_rtl_sdr_decodes(self):
        line = pipe("rtl_sdr").replace("rtl_sdr -f 28.2M -s 250000 -", "cat capture.cu8")
        text = self.run_line(line).decode()
        self.assertEqual(callsigns(text), NARROW)
        (row,) = [row for row in text.splitlines() if "PA3QCW" in row]
        self.assertAlmostEqual(float(row.split()[1]), 4.64, delta=0.5)
        self.assertAlmostEqual(float(row.split()[2]), 28200004.64, delta=0.5)

    def test_a_stream_in_another_format_decodes(self):
        self.run_line("ffmpeg -loglevel error -i audio.wav -b:a 64k audio.mp3")
        line = pipe("ffmpeg").replace("http://localhost:8000/", "")
        self.assertEqual(callsigns(self.run_line(line).decode()), CROWDED)

    def test_samples_by_udp_come_through_as_they_were_sent(self):
        port = free_port(socket.SOCK_DGRAM)
        command = pipe("nc -l -u").removesuffix(" | orvel listen --stdin").replace("7355", f"127.0.0.1 {port}")
        samples = self.run_line("sox audio.wav -r 48000 -c 1 -b 16 -e signed -t raw - trim 0 1")
        process = self.start(f"exec {command} >heard.raw")
        time.sleep(0.5)
        heard = self.scratch / "heard.raw"
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for begin in range(0, len(samples), 1440):
                sender.sendto(samples[begin : begin + 1440], ("127.0.0.1", port))
                time.sleep(0.001)
        for _ in range(100):
            if heard.stat().st_size == len(samples):
                break
            time.sleep(0.05)
        self.assertIsNone(process.poll())
        self.assertEqual(heard.read_bytes(), samples)

    def test_the_monitor_of_a_sound_server_gives_what_the_machine_plays(self):
        socket_path = self.scratch / "native"
        here = dict.fromkeys(("HOME", "XDG_RUNTIME_DIR", "PULSE_RUNTIME_PATH", "PULSE_STATE_PATH"), str(self.scratch))
        here["PULSE_SERVER"] = f"unix:{socket_path}"
        self.start(
            "exec pulseaudio -n --daemonize=no --use-pid-file=no --exit-idle-time=-1 --disable-shm=yes --realtime=no "
            "--high-priority=no -L 'module-null-sink rate=48000' "
            f"-L 'module-native-protocol-unix auth-anonymous=1 socket={socket_path}'",
            **here,
        )
        for _ in range(100):
            if socket_path.exists():
                break
            time.sleep(0.1)
        line = pipe("parec")
        self.assertTrue(line.endswith(" | orvel listen --stdin"))
        self.run_line("sox -n -r 48000 -c 1 -b 16 tone.wav synth 3 sine 1500 gain -6")
        player = self.start("paplay tone.wav", **here)
        time.sleep(0.5)
        recorder = line.removesuffix(" | orvel listen --stdin")  # 16-bit samples, one channel, 48 kHz
        self.start(f"timeout 2 {recorder} >heard.raw", **here).communicate(timeout=20)
        player.communicate(timeout=20)
        stat = "sox -t raw -r 48000 -c 1 -b 16 -e signed heard.raw -n trim 0.5 0.5 stat 2>&1"
        found = self.run_line(stat).decode()
        self.assertAlmostEqual(float(re.search(r"Rough +frequency: +(\S+)", found)[1]), 1500, delta=20)
        self.assertAlmostEqual(float(re.search(r"Maximum amplitude: +(\S+)", found)[1]), 0.5, delta=0.02)

    def test_spots_become_datagrams(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
            receiver.bind(("127.0.0.1", 0))
            receiver.settimeout(30)
            line = pipe("orvel listen --json | nc").replace("localhost 2237", f"127.0.0.1 {receiver.getsockname()[1]}")
            os.mkfifo(self.scratch / "next")  # what waits in a pipe when netcat gets to it is one datagram
            self.start(line.replace("orvel listen --json", self.spots("read -r _ <&3", "3<next")))
            datagrams = []
            with open(self.scratch / "next", "w", buffering=1, encoding="ascii") as next_spot:
                for _ in CROWDED:
                    datagrams.append(receiver.recv(65536).decode())
                    next_spot.write("\n")
        self.assertEqual(set.union(*map(callsigns, datagrams)), CROWDED)

    def test_spots_become_messages_and_a_copy(self):
        port = free_port(socket.SOCK_STREAM)
        self.start(f"exec mosquitto -p {port}")
        subscriber = self.start(f"for i in $(seq 50); do mosquitto_sub -p {port} -t orvel/spots -C 10 && break; "
                                "sleep 0.1; done")
        time.sleep(1)
        spots = self.spots()
        for start in ("orvel listen --json | mosquitto_pub", "orvel listen --json | tee"):
            line = pipe(start).replace("orvel listen --json", spots)
            self.run_line(line.replace("mosquitto_pub", f"mosquitto_pub -p {port}"))
        messages = subscriber.communicate(timeout=30)[0].decode().splitlines()
        copy = (self.scratch / "spots.jsonl").read_text(encoding="utf-8").splitlines()
        self.assertEqual([callsigns(message) for message in messages[5:]], [callsigns(row) for row in copy])
        self.assertEqual(callsigns("".join(messages[:5])), CROWDED)

    def test_the_service_is_one_that_systemd_takes(self):
        (text,) = re.findall(r"```ini\n(.*?)```", PAGE, re.DOTALL)
        unit = configparser.ConfigParser(interpolation=None)
        unit.optionxform = str
        unit.read_string(text)
        self.assertEqual(unit.sections(), ["Unit", "Service", "Install"])
        command = unit["Service"]["ExecStart"]
        words = [ORVEL, *command.split()[1:-1], "no such device"]
        done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, check=False)
        self.assertIn(b"no such device", done.stderr)
        if shutil.which("systemd-analyze") is None:
            return
        file = self.scratch / "orvel-listen.service"
        file.write_text(text.replace("/usr/bin/orvel", str(ORVEL)).replace("=-/usr/bin/chronyc", "=-/bin/true"))
        done = subprocess.run(["systemd-analyze", "verify", file], capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))


def tearDownModule():  # after all tests
    untested = [line for line in PIPES if line not in TESTED and not line.startswith("journalctl")]
    if len(sys.argv) == 1 and untested:
        raise AssertionError("no test runs " + str(untested))


if __name__ == "__main__":
    ORVEL = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main()
