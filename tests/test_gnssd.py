# SPDX-License-Identifier: MIT
"""The example programs as their users run them: python3 test_gnssd.py FOLDER_OF_THE_PROGRAMS [CASE]

Without a case all run at once, each in a process of its own. KELVARA_RUN holds a command to put
before each program (an emulator). Nothing here depends on how fast a program is.
"""
import fcntl
import json
import os
import pty
import random
import re
import resource
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

LIMIT = 60  # seconds for anything to happen
TRACK = str(Path(__file__).resolve().parent.parent / "examples/track.nmea")
CONFIG = {
    "log": {"logRunMd": 1, "stdoutLogSwt": 1, "logSaveMaxCnt": 100000},
    "server": {"dmNme": "gnssd.sock"},
    "watchdog": {"feddogSec": 0, "feddogUSec": 50000, "txFeddogHtDmNme": "dog.sock"},
    "gnss": {"source": "file", "path": TRACK},
}
FILES = {"fileLogSwt": 1, "saveLogPath": "log"}


def sentence(body, start=b"$"):
    check = 0
    for byte in body:
        check ^= byte
    return b"%s%s*%02X" % (start, body, check)


def valid(data):
    """The good sentences, found in another way than the daemon does."""
    good, end = [], 0
    for match in re.finditer(rb"(?=([$!][A-Z][ -#%-)+-~]*\*[0-9A-Fa-f]{2}))", data):
        if match.start() >= end and match[1].upper()[-2:] == sentence(match[1][1:-3])[-2:]:
            end = match.end(1)
            good.append(match[1])
    return [s for s in good if len(s) <= 1024]


def garbage():
    rng = random.Random(1)
    good = [sentence(b"GPTXT,%d" % i) for i in range(5)]
    ais = sentence(b"AIVDM,1,1,,A,13u?etPv2;0n", start=b"!")
    yield "noise", b"\xb5b\0x" * 100000
    yield "every byte in a sentence", b"".join(
        sentence(b"A" + bytes([i]) + b"B") + b"\n" for i in range(256))
    yield "cut everywhere", b"".join(s[:i] + s for s in (good[1], ais) for i in range(len(s)))
    yield "lengths", b"\n".join(sentence(b"X" * n) for n in range(1010, 1040))
    yield "5 megabytes in front", b"\xb5b\0x" * 1250000 + good[2]
    yield "5 megabytes inside", b"$L" + b"ong" * 1666666 + good[3]
    yield "binary frames between", b"".join(rng.randbytes(92) + good[4] for _ in range(500))
    parts = good + [ais, b"$", b"!", b"*", b"\r", b"\n", b"\0", b"$Z*5a", b"*47", b"*6G", b"\xff"]
    for seed in range(3):
        yield "random parts %d" % seed, b"".join(rng.choices(parts, k=2000))
        yield "random characters %d" % seed, bytes(rng.choices(b"$!A*41", k=9999))


def careless_parent():
    os.umask(0o137)
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGHUP, signal.SIGTERM])


def locked():
    folder = os.open(".", os.O_RDONLY)
    fcntl.flock(folder, fcntl.LOCK_EX)
    return folder


def open_files(process):
    folder = "/proc/%d/fd" % process.pid
    found = {}
    for name in os.listdir(folder):
        try:
            found[int(name)] = os.readlink(os.path.join(folder, name))
        except FileNotFoundError:
            pass  # closed at this moment
    return found


class Examples(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="gnssd")
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)

    def start(self, name, *args, before=(), **options):
        log, path = tempfile.mkstemp(dir=".")
        options = {"stdin": subprocess.DEVNULL, "stdout": log, "stderr": log,
                   "preexec_fn": careless_parent, **options}
        process = subprocess.Popen([*before, *RUN, os.path.join(BIN, name), *args], **options)
        os.close(log)
        process.log = Path(path)
        self.addCleanup(lambda: process.poll() is None and (process.kill(), process.wait()))
        return process

    def gnssd(self, change, *args, **options):
        return self.start("gnssd", "-c", self.config(change), *args, **options)

    def config(self, change):
        """Each group on a line of its own; a key "", a group None: left out."""
        text = ""
        for group in {**CONFIG, **change}:
            if change.get(group, {}) is not None:
                keys = {**CONFIG.get(group, {}), **change.get(group, {})}.items()
                text += "%s = { %s };\n" % (group, " ".join(
                    "%s = %s;" % (key, json.dumps(value)) for key, value in keys if value != ""))
        Path("conf").write_text(text)
        return "conf"

    def out(self, process):
        return process.log.read_bytes()

    def until(self, what, process, meanwhile=lambda: time.sleep(0.01)):
        """Waits for a text of the process, or for something else to be true."""
        end = time.monotonic() + LIMIT
        while not (what() if callable(what) else re.search(what, self.out(process))):
            if time.monotonic() > end or process.poll() is not None:
                self.fail("%s: %s" % (what, self.out(process)[-2000:]))
            meanwhile()

    def ends(self, process, status, *texts, stop=None):
        if stop:
            process.send_signal(stop)
        self.assertEqual(process.wait(LIMIT), status, self.out(process))
        for text in texts:
            self.assertRegex(self.out(process), text)

    def counts(self, process):
        return [int(n) for n in re.findall(rb" (\d+)", self.out(process).split(b"gnssd: read")[-1])]

    def shown(self, tap, mode):
        """The sentences that a client of a mode has printed."""
        text = self.out(tap).replace(b"\n" + b" " * 27, b"")
        head = rb" *\d+  [\d:]+\.\d{6}  " if mode == "frames" else b""
        return re.findall(rb"^%s([$!].*?)\r?$" % head, text, re.M)

    def feed(self, fd, tap, mode):
        """Sends the track in parts, each with a mark behind it, and goes on when the client has
        shown the mark, so that it loses nothing. Checks what it got."""
        track = Path(TRACK).read_bytes()
        lines = track.splitlines(True)
        for pos in range(-50, len(lines), 50):
            mark = sentence(b"MARK%020d" % pos)
            part = b"".join(lines[max(pos, 0):pos + 50]) + mark + b"\n"
            os.write(fd, part)
            while mark not in self.shown(tap, mode):
                self.until(lambda: True, tap)
                time.sleep(0.02)
                if pos < 0:  # the first ones may come before the client
                    os.write(fd, part)
        got = [s for s in self.shown(tap, mode) if not s.startswith(b"$MARK")]
        self.assertEqual(got, valid(track))

    def open_source(self, kind):
        """Returns the settings, the program's standard input, and both ends to write to it."""
        if kind == "stdin":
            read, write = os.pipe()
            return {"path": "-"}, read, read, write
        if kind == "serial":
            write, read = pty.openpty()
            settings = {"source": kind, "path": os.ttyname(read), "baudRate": 115200}
        else:
            os.mkfifo(kind)
            read = os.open(kind, os.O_RDONLY | os.O_NONBLOCK)
            write = os.open(kind, os.O_WRONLY)
            settings = {"path": kind} if kind == "named pipe" else {
                "source": kind, "path": "cat '%s'" % kind}
        return settings, subprocess.DEVNULL, read, write

    def test_garbage_of_every_kind(self):
        peaks = []
        for name, data in garbage():
            good = valid(data)
            begun = len(re.findall(rb"[$!][A-Z]", data))
            begun -= sum(len(re.findall(rb"![A-Z]", s[1:])) for s in good)
            with self.subTest(name):
                gnssd = self.gnssd({"log": FILES}, "-i", "-", stdin=subprocess.PIPE)
                gnssd.stdin.write(data)
                gnssd.stdin.flush()
                status = Path("/proc/%d/status" % gnssd.pid).read_text()
                peaks.append(int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]))
                gnssd.stdin.close()
                self.ends(gnssd, 0)
                bad = begun - len(good)
                self.assertEqual(self.counts(gnssd), [begun, len(good), bad, len(good)])
                self.assertEqual(Path("log-00.log").read_bytes().count(b"bad sentence, "), bad)
                if name == "binary frames between":
                    self.assertLess(bad, 100, "they flood the log")
        self.assertLess(max(peaks) - peaks[0], 3000, peaks)  # kB: no line is kept

    def test_sources_records_and_stop_while_waiting_for_input(self):
        for kind, records, mode, stop in (
                ("stdin", "text", "text", signal.SIGTERM), ("serial", "text", "text", None),
                ("named pipe", "framed", "frames", signal.SIGINT),
                ("command", "text", "text", signal.SIGTERM)):
            with self.subTest(kind):
                settings, stdin, read, write = self.open_source(kind)
                gnssd = self.gnssd({"gnss": {**settings, "records": records}}, stdin=stdin)
                tap = self.start("tap", "-m", mode, "-w", "60000", "gnssd.sock")
                if kind != "serial":  # opened at both ends from the start
                    self.until(rb"gnssd serves gnssd\.sock", gnssd)
                self.feed(write, tap, mode)
                os.close(read)
                if kind == "serial":
                    os.close(write)
                self.ends(gnssd, *((0,) if stop else (1, rb"Input/output error")), stop=stop)
                self.ends(tap, 0)
                self.assertEqual(self.counts(gnssd)[2], 12)
                self.assertFalse(os.path.exists("gnssd.sock"))
                if mode == "frames":
                    self.assertIn(b"tap: 0 lost, 0 bytes skipped", self.out(tap))
                    self.assertLessEqual(max(map(len, self.out(tap).splitlines())), 80)
                if kind == "command":  # it was ended, so the pipe has no reader
                    end = time.monotonic() + LIMIT
                    with self.assertRaises(BrokenPipeError):
                        while time.monotonic() < end:
                            os.write(write, b"\n")

    def test_a_replay_stops_at_once_and_sends_all_it_has_read(self):
        Path("data").write_bytes(b"".join(sentence(b"N%d" % i) + b"\n" for i in range(600)))
        bystander = subprocess.Popen(["sleep", "600"])
        self.addCleanup(lambda: (bystander.kill(), bystander.wait()))
        # The command's own number comes from this program: another process has it by now.
        os.mkdir("bin")
        Path("bin/sh").write_text("#!/bin/sh\necho %d\n" % bystander.pid)
        os.chmod("bin/sh", 0o755)
        for source, option, value, last, most in (
                ("file", "-r", "20", 3, 599), ("file", "-l", "3600000", 599, 600),
                ("command", "-r", "20", 3, 600)):
            with self.subTest(source, option=option):
                path = {"file": "data", "command": "cat data"}[source]
                gnssd = self.gnssd({"gnss": {"source": source, "path": path}}, "-v", "6", option,
                                   value, env={**os.environ, "PATH": "bin:" + os.environ["PATH"]})
                self.until(rb"sent \$N%d\*" % last, gnssd)
                if source == "command":
                    child = Path("/proc/%d/task/%d/children" % (gnssd.pid, gnssd.pid)).read_text()
                    state = Path("/proc/%d/stat" % int(child))
                    self.until(lambda: ") Z " in state.read_text(), gnssd)
                self.ends(gnssd, 0, stop=signal.SIGTERM)
                read, good, bad, sent = self.counts(gnssd)
                self.assertEqual((read, bad, sent), (good, 0, good))
                self.assertTrue(last < good <= most, good)
        self.assertIsNone(bystander.poll(), "a stranger was terminated")
        Path("data").write_bytes(b"".join(sentence(b"N%d" % i) for i in range(26)))
        begun = time.monotonic()
        self.ends(self.gnssd({}, "-i", "data", "-r", "50"), 0, rb"broadcast 26\n")
        self.assertGreater(time.monotonic() - begun, 25 / 50)

    def test_what_goes_wrong_is_said(self):
        count = rb"allowed is a whole number from 0 to "
        for group, key, value, text in (
                ("gnss", "path", "absent", rb"open\(absent\) err, msg:No such"),
                ("gnss", "path", ".", rb"input \. err, msg:Is a dir"),
                ("gnss", "source", "serial", rb"no serial line"),
                ("gnss", "source", "command", rb"ended with status 126"),  # it is no program
                ("gnss", "source", "radio", rb'allowed is "file", "serial" or "command"'),
                ("gnss", "baudRate", 9601, rb"conf:4: gnss\.baudRate: allowed is a speed"),
                ("gnss", "rate", -3, rb"conf:4: gnss\.rate: " + count + b"1000000\n"),
                ("watchdog", "feddogSec", 0.5, rb"conf:3: watchdog\.feddogSec: " + count),
                ("watchdog", "feddogUSec", 0, rb"conf:3: .*whole number from 1 to 999999"),
                ("server", "dmNme", "no/s", rb"no/s cannot be served: No such file"),
                ("server", "dmNme", "conf", rb"conf cannot be served: File exists"),
                ("server", "dmNme", 108 * "x", rb"conf:2: .*allowed is a text of 1 to 107 c"),
                ("server", "dmNme", "", rb"conf:2: server\.dmNme: this key is missing"),
                ("server", "dmNm", "s", rb"conf:2: server\.dmNm: unknown, .* dmNme\n"),
                ("log", "fileLogSwt", 1, rb"no log, msg:No such"),  # in /opt
                ("more", "key", 1, rb"conf:5: more: allowed are the groups log,")):
            with self.subTest(key=key, value=value):
                self.ends(self.gnssd({group: {key: value}}), 1, text)
        self.ends(self.gnssd({"gnss": None}), 1, rb"conf:\d+: gnss: this group is missing")
        self.config({})
        Path("junk").write_text("a = {\n;")
        for line, status, text in (
                ("gnssd", 2, rb"usage"), ("gnssd -c conf more", 2, rb"usage"),
                ("gnssd -c conf -r 5x", 2, rb'rate: "5x" .* from 0 to 1000000'),
                ("gnssd -c none", 1, rb"^none: No such file"),
                ("gnssd -c junk", 1, rb"junk:2: syntax error"),
                ("watchdogd", 2, rb"usage"), ("watchdogd d abc", 2, rb"LATE_MS: .abc"),
                ("watchdogd conf", 1, rb"conf: File exists"),
                ("watchdogd " + 60 * "./", 1, rb"File name too long"),
                ("tap none", 1, rb"none: No such file"), ("tap -m wide s", 2, rb"usage"),
                ("tap -w 5s s", 2, rb'wait: "5s" .* whole number'),
                *(("%s --%s" % (tool, option), 0, rb"^(usage: )?%s " % tool.encode())
                  for tool in ("gnssd", "watchdogd", "tap") for option in ("help", "version"))):
            with self.subTest(line):
                self.ends(self.start(*line.split()), status, text)
        self.assertTrue(os.path.isfile("conf"))

    def test_a_socket_of_another_program_stays(self):
        for line in ("watchdogd gnssd.sock", "gnssd -c %s -l 3600000" % self.config({})):
            with self.subTest(line), socket.socket(socket.AF_UNIX) as other, \
                    socket.socket(socket.AF_UNIX) as client, socket.socket(socket.AF_UNIX) as new:
                lock = locked()
                tool = self.start(*line.split())
                self.until(lambda: os.getcwd() in open_files(tool).values(), tool)  # it waits
                other.bind("gnssd.sock")
                os.close(lock)
                self.ends(tool, 1, rb"gnssd.sock.*: Address already in use")
                os.stat("gnssd.sock")
                other.close()  # leaves its socket behind
                tool = self.start(*line.split())
                self.until(lambda: client.connect_ex("gnssd.sock") == 0, tool)
                os.close(locked())  # it has looked at its socket
                new.bind("new")
                new.close()
                os.rename("new", "gnssd.sock")
                self.ends(tool, 0, stop=signal.SIGTERM)
                os.unlink("gnssd.sock")

    def test_signals(self):
        def sends(number, *levels):
            gnssd.send_signal(number)
            told = rb".*".join(b"gLogLevl=%d\n" % level for level in levels)
            self.until(re.compile(told, re.S), gnssd)

        dog = self.start("watchdogd", "dog.sock")
        for option, levels in (((), (4, 3, 6)), (("-v", "4"), (5, 4, 4))):
            gnssd = self.gnssd({"log": FILES}, "-i", "-", *option, stdin=subprocess.PIPE)
            self.until(b" serves", gnssd)
            self.config({"log": {**FILES, "level": 6}})
            sends(signal.SIGUSR1, *levels[:1])
            sends(signal.SIGUSR2, *levels[:2])
            sends(signal.SIGHUP, *levels)
            limit = resource.prlimit(gnssd.pid, resource.RLIMIT_NOFILE)
            resource.prlimit(gnssd.pid, resource.RLIMIT_NOFILE, (3, limit[1]))
            self.assertEqual([oct(os.stat(path).st_mode)[-3:] for path in ("gnssd.sock", "log-00.log")],
                             ["666", "640"])
            gnssd.send_signal(signal.SIGHUP)
            self.until(b"no log file, until the next SIGHUP", gnssd)
            resource.prlimit(gnssd.pid, resource.RLIMIT_NOFILE, limit)
            sends(signal.SIGHUP, *levels, levels[2])
            names = Path("/proc/%d/task" % gnssd.pid).glob("*/comm")
            self.assertIn("gnssd reader\n", [name.read_text() for name in names])
            # More signals than it can answer: heartbeats go on, and the end comes in time.
            wanted = self.out(dog).count(b"heartbeat") + 10
            self.until(lambda: self.out(dog).count(b"heartbeat") >= wanted, gnssd,
                       meanwhile=lambda: [gnssd.send_signal(signal.SIGHUP) for _ in range(1000)])
            self.ends(gnssd, 0, stop=signal.SIGTERM)
            self.assertNotIn(b"Interrupted", self.out(gnssd))
            self.assertTrue(any(b"gnssd ends" in log.read_bytes() for log in Path().glob("log-*")))
            self.assertFalse(os.path.exists("gnssd.sock"))

    def test_closed_descriptors(self):
        """Without /dev/null, where a process may make a /dev of its own."""
        own_dev = ["unshare", "-rm", "sh", "-c", "mount -t tmpfs none /dev && exec \"$@\" <&- >&- 2>&-",
                   "sh"]
        if subprocess.call("unshare -rm mount -t tmpfs none /dev", shell=True) != 0:
            self.skipTest("no right to make a /dev")
        gnssd = self.gnssd({"log": FILES}, "-l", "600000", before=own_dev)
        self.until(lambda: os.path.exists("gnssd.sock"), gnssd)
        found = open_files(gnssd)
        self.assertEqual([found[fd] for fd in range(3)], ["/"] * 3)
        self.ends(gnssd, 0, stop=signal.SIGTERM)

    def test_heartbeats_live_with_the_work_and_come_back(self):
        os.mkfifo("go")
        read, write = os.pipe()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other:
            other.bind("dog.sock")
            gnssd = self.gnssd({"gnss": {"source": "command", "path": "read x <go; yes '$A*41'"}},
                               "-v", "6", stdout=write)
            out = b""
            while b" serves" not in out:
                out += os.read(read, 4096)
            time.sleep(1.5)  # for another try
            os.unlink("dog.sock")
        for restart in (False, True):
            dog = self.start("watchdogd", "dog.sock", "700")
            self.until(rb"gnssd +25  heartbeat +\d\.\d{3} s", dog)  # more than a second
            if not restart:
                dog.kill()
                dog.wait()
        out += os.read(read, 65536)
        self.assertEqual(out.count(b" connect() err"), 1, out)
        self.assertLessEqual(out.count(b"no watchdog at"), 1, out)  # between the two
        Path("go").write_text("\n")  # from here on the console fills, and nobody reads it
        self.until(rb"gnssd +\d+  IS LATE", dog)
        begun = time.monotonic()
        if b"__tsan_init" in Path(BIN, "gnssd").read_bytes():
            gnssd.kill()  # there the forced end waits for the end of the write
        else:
            self.ends(gnssd, 1, stop=signal.SIGTERM)
        self.assertLess(time.monotonic() - begun, 3)
        self.until(rb"gnssd +\d+  has left", dog)
        self.ends(dog, 0, stop=signal.SIGHUP)

    def test_watchdogd(self):
        dog = self.start("watchdogd", "dog.sock", "700")
        beat = struct.pack("=iB", 0, 4) + b"slow"
        with socket.socket(socket.AF_UNIX) as slow, socket.socket(socket.AF_UNIX) as mad:
            self.until(lambda: slow.connect_ex("dog.sock") == 0, dog)
            mad.connect("dog.sock")
            slow.sendall(beat * 2 + beat[:3])
            mad.sendall(struct.pack("=iB", 7, 255) + b"\x1b" * 255)
            self.until(rb"slow +2  heartbeat", dog)
            slow.sendall(beat[3:7])
            self.until(rb"slow +2  IS LATE", dog)
            slow.sendall(beat[7:])
            self.until(rb"slow +3  heartbeat", dog)
            self.until(rb" \?{24} +1  heartbeat", dog)
        self.until(rb"slow +3  has left", dog)
        self.assertEqual(len(re.findall(rb"slow +\d  IS LATE", self.out(dog))), 1)
        status, waits = Path("/proc/%d/status" % dog.pid), []
        for _ in range(2):
            found = re.search(r"\nvoluntary_ctxt_switches:\s(\d+)", status.read_text())
            waits.append(int(found[1]))
            time.sleep(0.3)
        self.assertLess(waits[1] - waits[0], 3, "it looks for late clients, but has none")
        self.ends(dog, 0, stop=signal.SIGTERM)
        self.assertFalse(os.path.exists("dog.sock"))

    def test_tap_tells_what_was_lost(self):
        def frame(seq, text=b"$A*41"):
            return struct.pack(">IIQI", 16 + len(text), seq % 2**32, 10**15, len(text)) + text
        stream = (frame(-5) + frame(-4, b"") + frame(-1)[:-3] + frame(0) + b"junk" * 3 + frame(1) +
                  frame(5, b"$B*42") + frame(6)[:9])
        with socket.socket(socket.AF_UNIX) as server:
            for mode, data, stop, texts in (
                    ("frames", stream, None, (
                        rb"-- 3 lost --\n +0 .*\n +1 .*\n-- 3 lost --\n +5 .*\$B",
                        rb"tap: 5 records, \d+ bytes in .*\ntap: 6 lost, 43 bytes sk")),
                    ("hex", b"0123456789abcdef\n~", None, (
                        rb"^0{8}  30 31 .* 66  0123456789abcdef\n00000010  0a 7e {44}\.~\ntap: 2 l",)),
                    ("text", b"one\ntwo", signal.SIGHUP, (rb"^one\ntwo", rb"tap: 1 lines, 7 bytes"))):
                tap = self.start("tap", "-m", mode, "-w", "60000", "tap.sock")
                if mode == "frames":
                    server.bind("tap.sock")
                    server.listen(1)
                    server.settimeout(LIMIT)
                client = server.accept()[0]
                for byte in data:
                    client.sendall(bytes([byte]))
                if stop:
                    self.until(b"two", tap)
                else:
                    client.close()
                self.ends(tap, 0, *texts, stop=stop)

    @unittest.skipIf(os.environ.get("KELVARA_RUN"), "an emulator needs descriptors of its own")
    def test_minimal_stops_without_a_descriptor_left(self):
        minimal = self.start("minimal", "m.sock")
        resource.prlimit(minimal.pid, resource.RLIMIT_NOFILE, (32, 32))
        clients = [socket.socket(socket.AF_UNIX) for _ in range(40)]
        self.until(lambda: clients[0].connect_ex("m.sock") == 0, minimal)
        for client in clients[1:]:
            client.connect("m.sock")
        self.assertEqual(clients[0].recv(5), b"tick\n")
        self.until(lambda: len(open_files(minimal)) == 32, minimal)
        self.ends(minimal, 0, stop=signal.SIGTERM)


if __name__ == "__main__":
    BIN = os.path.abspath(sys.argv.pop(1))
    RUN = os.environ.get("KELVARA_RUN", "").split()
    if len(sys.argv) > 1:
        unittest.main(warnings="ignore")
    cases = unittest.TestLoader().getTestCaseNames(Examples)
    runs = [subprocess.Popen([sys.executable, __file__, BIN, "Examples." + case]) for case in cases]
    sys.exit(max([run.wait() for run in runs]))
