# SPDX-License-Identifier: MIT
"""Runs the example programs.

python3 test_gnssd.py FOLDER [unittest arguments]; FOLDER has the programs. KELVARA_RUN is a
command to run them with (an emulator). Nothing here depends on how fast a program is.
"""
import os
import pty
import random
import re
import resource
import select
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path
from socket import AF_UNIX, socket

LIMIT = 60  # seconds to wait for anything
GOOD = b"$A*41\n"
INPUT = 'path = "-"'
CONF = """log = { fileLogSwt = 1; saveLogPath = "log"; };
server = { dmNme = "gnssd.sock"; };
watchdog = { feddogSec = 0; feddogUSec = 50000; txFeddogHtDmNme = "dog.sock"; };
gnss = { records = "framed"; %s; };
"""


def careless_parent():
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGHUP, signal.SIGTERM])


class Examples(unittest.TestCase):
    def setUp(self):
        os.chdir(self.enterContext(tempfile.TemporaryDirectory(prefix="gnssd")))

    def start(self, name, *args, **options):
        with tempfile.NamedTemporaryFile(dir=".", delete=False) as log:
            process = self.enterContext(subprocess.Popen(
                [*RUN, BIN / name, *args],
                **{"stdin": subprocess.PIPE, "stdout": log, "stderr": log,
                   "preexec_fn": careless_parent, **options}))
        process.text = Path(log.name).read_bytes
        self.addCleanup(process.kill)
        return process

    def gnssd(self, settings, *args, **options):
        """When it serves."""
        Path("conf").write_text(CONF % settings)
        process = self.start("gnssd", "-c", "conf", *args, **options)
        self.until(lambda: os.path.exists("gnssd.sock"), process)
        return process

    def until(self, what, process, again=lambda: time.sleep(0.01)):
        """Waits for a text of the process, or for something else."""
        end = time.monotonic() + LIMIT
        while not (what() if callable(what) else re.search(what, process.text(), re.S)):
            if time.monotonic() > end or process.poll() is not None:
                self.fail("%s: %s" % (what, process.text()[-2000:]))
            again()

    def ends(self, process, status, text=b""):
        got, out = process.wait(LIMIT), process.text()
        self.assertEqual(status, got, out)
        self.assertRegex(out, b"(?m)" + text)

    def stops(self, process, text=b""):
        process.terminate()
        self.ends(process, 0, text)

    def test_garbage(self):
        random.seed(1)
        data = b"".join(b"$A%cB*%02X" % (byte, byte ^ 3) for byte in range(256))
        data += b"$L" + b"ong" * 1500000 + GOOD
        data += b"".join(random.randbytes(92) + GOOD for _ in range(500))  # binary messages
        gnssd = self.gnssd(INPUT)
        gnssd.stdin.write(data)
        gnssd.stdin.close()
        self.ends(gnssd, 0, b" valid 594 bad 200 broadcast 594$")
        self.assertEqual(200, gnssd.text().count(b"bad sentence, "))

    def test_sources_stop_while_waiting_for_input(self):
        for settings in ('path = "%s"', 'source = "serial"; path = "%s"',
                         'source = "command"; path = "dd bs=6 if=%s"'):
            write, read = pty.openpty()
            gnssd = self.gnssd(settings % os.ttyname(read))
            tap = self.start("tap", "-m", "frames", "gnssd.sock")
            self.until(rb"\$A\*41", tap, again=lambda: os.write(write, GOOD))
            os.close(read)
            with self.subTest(settings):
                self.stops(gnssd)
                closed = select.poll()
                closed.register(write, 0)
                self.assertTrue(closed.poll(1000 * LIMIT), "open")
                self.ends(tap, 0)

    def test_a_replay_stops_at_once_and_terminates_no_bystander(self):
        Path("data").write_bytes(GOOD * 70)
        bystander = self.start("tap", "-w", "600000", "none")
        # Reports a wrong number for the command, as if another process had it by now.
        Path("sh").write_text("#!/bin/sh\necho %d\n" % bystander.pid)
        Path("sh").chmod(0o755)
        gnssd = self.gnssd('source = "command"; path = "ln -s /proc/$$ shell; cat data"', "-v", "6",
                           "-r", "1", env={**os.environ, "PATH": ".:/usr/bin:/bin"})
        self.until(b" sent ", gnssd)
        self.until(lambda: ") Z " in Path("shell/stat").read_text(), gnssd)
        self.stops(gnssd, b"broadcast 70$")
        self.assertIsNone(bystander.poll())

    def test_mistakes_are_named(self):
        for old, new, text in (
                ("50000", "0", rb"^conf:3: .* 1 to 999999"),
                (INPUT, "baudRate = 9601", rb"^conf:4: gnss\.baudRate: allowed"),
                ("dmNme", "dmNm", rb"^conf:2: server\.dmNm: unknown, .*\n.*\.dmNme: this key is"),
                ("gnss = {", "more = {", rb"^conf:4: more: allowed"),
                (INPUT, 'source = "command"; path = "exit 3"', rb"ended with status 3!"),
                ("server = {", "server = {\n;", rb"^conf:3: syntax")):
            with self.subTest(new):
                Path("conf").write_text((CONF % INPUT).replace(old, new))
                self.ends(self.start("gnssd", "-c", "conf"), 1, text)
        for line, status, text in (("tap --help", 0, b"^usage: "),
                                   ("watchdogd conf", 1, b"conf: File exists"),
                                   ("gnssd -c x -r 5x", 2, b'rate: "5x" .* 0 to 1000000')):
            with self.subTest(line):
                self.ends(self.start(*line.split()), status, text)

    def test_signals_and_the_log(self):
        dog = self.start("watchdogd", "dog.sock")
        for option, levels in (((), (4, 3, 6)), (("-v", "4"), (5, 4, 4))):
            gnssd = self.gnssd(INPUT, *option)
            Path("conf").write_text((CONF % INPUT).replace("log = {", "log = { level = 6;"))
            told = b""
            for number, level in zip((signal.SIGUSR1, signal.SIGUSR2, signal.SIGHUP), levels):
                gnssd.send_signal(number)
                told += b"gLogLevl=%d\n.*" % level
                self.until(told, gnssd)
            resource.prlimit(gnssd.pid, resource.RLIMIT_NOFILE, (3, 256))
            gnssd.send_signal(signal.SIGHUP)
            self.until(b"no log file, until the next SIGHUP", gnssd)
            resource.prlimit(gnssd.pid, resource.RLIMIT_NOFILE, (256, 256))
            # More signals than it can handle: heartbeats continue, and it stops in time.
            beats = dog.text().count(b"heartbeat") + 10
            self.until(lambda: dog.text().count(b"heartbeat") > beats, gnssd,
                       again=lambda: [gnssd.send_signal(signal.SIGHUP) for _ in range(1000)])
            self.stops(gnssd)

    def test_closed_descriptors_and_a_pipe_without_a_writer(self):
        os.mkfifo("in")
        gnssd = self.gnssd('path = "in"', preexec_fn=lambda: os.closerange(0, 3))
        for fd in range(3):
            self.assertRegex(os.readlink("/proc/%d/fd/%d" % (gnssd.pid, fd)), "/dev/null$")
        self.stops(gnssd)

    def test_heartbeats_live_with_the_work_and_come_back(self):
        read, write = os.pipe()
        gnssd = self.gnssd('source = "command"; path = "read x; yes \\\\$A*41"', "-v", "6",
                           stdout=write)
        time.sleep(1.5)  # until it tries again
        for lasts in (False, True):
            dog = self.start("watchdogd", "dog.sock", "700")
            self.until(b"gnssd +5  heartbeat", dog)
            if not lasts:
                self.assertEqual(1, os.read(read, 65536).count(b"no watchdog at"))
                self.stops(dog)
        gnssd.stdin.write(b"\n")
        gnssd.stdin.close()  # from now on the console fills up
        self.until(rb"gnssd +\d+  IS LATE", dog)
        gnssd.kill()
        self.until(rb"gnssd +\d+  has left", dog)

    def test_watchdogd_and_its_socket(self):
        with socket(AF_UNIX) as other:
            other.bind("dog.sock")
            self.ends(self.start("watchdogd", "dog.sock"), 1, b"dog.sock: Address")
        dog = self.start("watchdogd", "dog.sock", "300")  # replaces the old socket
        with socket(AF_UNIX) as client:
            self.until(lambda: client.connect_ex("dog.sock") == 0, dog)
            client.sendall(2 * b"\0\0\0\0\4slow" + b"\0\0\0")
            self.until(b"slow +2  IS LATE", dog)
            time.sleep(0.2)  # it is reported once
            client.sendall(b"\0\4slow")
            self.until(rb"2  heartbeat[^\n]*\n[^\n]*LATE[^\n]*\n[^\n]*slow +3  h", dog)
        self.until(b"slow +3  has left", dog)
        status = Path("/proc/%d/status" % dog.pid)

        def waits():
            time.sleep(0.3)
            return int(re.search(r"\nvoluntary\D+(\d+)", status.read_text())[1])
        self.assertLess(-waits() + waits(), 3, "woken")
        self.stops(dog)

    def test_tap_tells_what_was_lost(self):
        def frame(seq):
            return struct.pack(">IIQI", 21, seq % 2**32, 0, 5) + b"$A*41"

        with socket(AF_UNIX) as server:
            server.bind("tap.sock")
            server.listen()
            server.settimeout(LIMIT)
            tap = self.start("tap", "-m", "frames", "tap.sock")
            client = server.accept()[0]
            for byte in frame(-4) + frame(-1)[:-3] + frame(0) + b"junk" * 3 + frame(5) + b"\0":
                client.sendall(bytes([byte]))
            client.close()
        self.ends(tap, 0, rb"-- 3 lost --\n +0 .*\n-- 4 lost --\n +5 .*A\*41\n.*\n"
                          rb"tap: 7 lost, 35 bytes skipped")


if __name__ == "__main__":
    BIN = Path(sys.argv.pop(1)).resolve()
    RUN = os.environ.get("KELVARA_RUN", "").split()
    unittest.main(warnings="ignore")
