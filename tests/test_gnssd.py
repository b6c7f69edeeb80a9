# SPDX-License-Identifier: MIT
"""The example programs as their users run them: python3 test_gnssd.py FOLDER_OF_THE_PROGRAMS

KELVARA_RUN holds a command to put before each program (an emulator). Nothing here depends on how
fast a program is: between the data stand marks of our own, and the client's output is awaited.
"""
import fcntl
import json
import os
import pty
import random
import re
import resource
import select
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


def sentence(body, start=b"$"):
    check = 0
    for byte in body:
        check ^= byte
    return b"%s%s*%02X" % (start, body, check)


def valid(data):
    """The good sentences, found in another way than the daemon does."""
    good, end = [], 0
    for match in re.finditer(rb"(?=([$!][ -#%-)+-~]+\*[0-9A-Fa-f]{2}))", data):
        if match.start() >= end and match[1].upper()[-2:] == sentence(match[1][1:-3])[-2:]:
            end = match.end(1)
            good.append(match[1])
    return [s for s in good if len(s) <= 1024]


def sock():
    return socket.socket(socket.AF_UNIX)


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="gnssd")
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)

    def start(self, name, *args, stdin=subprocess.DEVNULL, stdout=None):
        log, path = tempfile.mkstemp(dir=".")
        process = subprocess.Popen(RUN + [os.path.join(BIN, name)] + list(args), stdin=stdin,
                                   stdout=stdout or log, stderr=log)
        os.close(log)
        process.log = Path(path)
        self.addCleanup(lambda: process.poll() is None and (process.kill(), process.wait()))
        return process

    def gnssd(self, change=None, *args, **more):
        return self.start("gnssd", "-c", self.config(change or {}), *args, **more)

    def out(self, process):
        return process.log.read_bytes()

    def until(self, what, process):
        """Waits for a text of the process, or for something else to be true."""
        end = time.monotonic() + LIMIT
        while not (what() if callable(what) else re.search(what, self.out(process))):
            if time.monotonic() > end or process.poll() is not None:
                self.fail("%s: %s" % (what, self.out(process)))
            time.sleep(0.01)

    def ends(self, process, status, *texts, stop=None):
        if stop:
            process.send_signal(stop)
        self.assertEqual(process.wait(LIMIT), status, self.out(process))
        for text in texts:
            self.assertRegex(self.out(process), text)

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

    def counts(self, process):
        return [int(n) for n in re.findall(rb" (\d+)", self.out(process).split(b"gnssd: read")[-1])]

    def shown(self, tap, mode):
        """The sentences that a client of a mode has printed."""
        text = self.out(tap).replace(b"\n" + b" " * 27, b"")
        head = rb" *\d+  [\d:]+\.\d{6}  " if mode == "frames" else b""
        return re.findall(rb"^%s([$!].*?)\r?$" % head, text, re.M)

    def feed(self, fd, tap, mode):
        """Sends the track in parts, each with marks behind it, and goes on when the client has
        shown them: it is never so slow that it loses bytes. Checks what it got."""
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


class Gnssd(Case):
    def garbage(self):
        rng = random.Random(1)
        good = [sentence(b"GPTXT,%d" % i) for i in range(5)]
        ais = sentence(b"AIVDM,1,1,,A,13u?etPv2;0n", start=b"!")
        yield "noise", b"\xb5b\0x" * 100000
        yield "every byte in a sentence", b"".join(
            sentence(b"A" + bytes([i]) + b"B") + b"\n" for i in range(256))
        yield "cut everywhere", b"".join(s[:i] + s for s in (good[1], ais) for i in range(len(s)))
        yield "lengths", b"\n".join(sentence(b"x" * n) for n in range(1010, 1040))
        yield "5 megabytes in front", b"\xb5b\0x" * 1250000 + good[2]
        yield "5 megabytes inside", b"$" + b"long" * 1250000 + good[3]
        parts = good + [ais, b"$", b"!", b"*", b"\r", b"\n", b"\0", b"$z*7a", b"*47", b"*6g", b"\xff"]
        for seed in range(8):
            yield "random parts %d" % seed, b"".join(rng.choices(parts, k=2000))
            yield "random characters %d" % seed, bytes(rng.choices(b"$!A*41", k=9999))
            yield "random bytes %d" % seed, rng.randbytes(20000)

    def test_garbage_of_every_kind(self):
        peaks = []
        for name, data in self.garbage():
            good = valid(data)
            # a valid one may hold a '!', a bad one ends there
            begun = sum(map(data.count, b"$!")) - sum(s.count(b"!", 1) for s in good)
            with self.subTest(name):
                gnssd = self.gnssd({"log": {"fileLogSwt": 1, "saveLogPath": "log"}}, "-i", "-",
                                   stdin=subprocess.PIPE)
                gnssd.stdin.write(data)
                gnssd.stdin.flush()
                status = Path("/proc/%d/status" % gnssd.pid).read_text()
                peaks.append(int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]))
                gnssd.stdin.close()
                self.ends(gnssd, 0)
                bad = begun - len(good)
                self.assertEqual(self.counts(gnssd), [begun, len(good), bad, len(good)])
                self.assertEqual(Path("log-00.log").read_bytes().count(b"bad sentence, "), bad)
        self.assertLess(max(peaks) - peaks[0], 3000, peaks)  # kB: no line is kept

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

    def test_sources_records_and_stop_while_waiting_for_input(self):
        for kind, records, mode, stop in (
                ("stdin", "text", "text", signal.SIGTERM), ("serial", "text", "text", None),
                ("named pipe", "framed", "frames", signal.SIGINT),
                ("command", "text", "text", signal.SIGTERM)):
            with self.subTest(kind):
                clock = [time.strftime("%T", time.localtime(time.time() + i)) for i in range(LIMIT)]
                settings, stdin, read, write = self.open_source(kind)
                gnssd = self.gnssd({"gnss": {**settings, "records": records}}, stdin=stdin)
                tap = self.start("tap", "-m", mode, "-w", "60000", "gnssd.sock")
                if kind != "serial":  # opened at both ends from the start
                    self.until(rb"gnssd serves gnssd\.sock", gnssd)
                self.feed(write, tap, mode)
                if kind == "serial":
                    os.close(read)
                    os.close(write)
                self.ends(gnssd, *((0,) if stop else (1, rb"Input/output error")), stop=stop)
                self.ends(tap, 0)
                self.assertEqual(self.counts(gnssd)[2], 16)
                self.assertFalse(os.path.exists("gnssd.sock"))
                if mode == "frames":
                    time_of_day = re.search(rb"^ *\d+  ([\d:]+)\.\d{6} ", self.out(tap), re.M)[1]
                    self.assertIn(time_of_day.decode(), clock)
                    self.assertIn(b"tap: 0 lost, 0 bytes skipped", self.out(tap))
                    self.assertLessEqual(max(map(len, self.out(tap).splitlines())), 80)
                if kind == "command":  # nobody has the pipe open any more: the command was ended
                    os.close(read)
                    gone = select.poll()
                    gone.register(write, select.POLLERR)
                    self.assertTrue(gone.poll(1000 * LIMIT))

    def test_a_replay_stops_at_once_and_sends_all_it_has_read(self):
        Path("data").write_bytes(b"".join(sentence(b"N%d" % i) + b"\n" for i in range(3000)))
        for option, value in (("-r", "20"), ("-l", "3600000")):
            with self.subTest(option):
                gnssd = self.gnssd(None, "-i", "data", "-v", "6", option, value)
                self.until(rb"sent \$N2999\*" if option == "-l" else b" serves", gnssd)
                time.sleep(0.3)
                self.ends(gnssd, 0, stop=signal.SIGTERM)
                read, good, bad, sent = self.counts(gnssd)
                self.assertEqual((read, bad, sent), (good, 0, good))
                self.assertEqual(good == 3000, option == "-l", good)
        Path("data").write_bytes(b"".join(sentence(b"N%d" % i) for i in range(26)))
        begun = time.monotonic()
        self.ends(self.gnssd(None, "-i", "data", "-r", "50"), 0, rb"broadcast 26\n")
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
                tool = self.start(*line.split())
                self.ends(tool, status, text)
                if "./" not in line:
                    self.assertLessEqual(max(map(len, self.out(tool).splitlines())), 80)
        self.assertTrue(os.path.isfile("conf"))

    def test_a_socket_of_somebody_else_stays(self):
        for line in ("watchdogd gnssd.sock", "gnssd -c %s -l 3600000" % self.config({})):
            with self.subTest(line), sock() as other, sock() as client, sock() as new:
                lock = os.open(".", os.O_RDONLY)
                fcntl.flock(lock, fcntl.LOCK_EX)
                tool = self.start(*line.split())
                time.sleep(0.2)  # it waits for its turn
                other.bind("gnssd.sock")
                os.close(lock)
                self.ends(tool, 1, rb"gnssd.sock.*: Address already in use")
                os.stat("gnssd.sock")
                other.close()  # leaves its socket behind
                tool = self.start(*line.split())
                self.until(lambda: client.connect_ex("gnssd.sock") == 0, tool)
                time.sleep(0.2)  # between listen() and a look at the file
                new.bind("new")
                new.close()
                os.rename("new", "gnssd.sock")
                self.ends(tool, 0, stop=signal.SIGTERM)
                os.unlink("gnssd.sock")

    def test_signals_that_change_the_log(self):
        log = {"fileLogSwt": 1, "saveLogPath": "log"}
        gnssd = self.gnssd({"log": log}, "-i", "-", stdin=subprocess.PIPE)
        self.until(b" serves", gnssd)
        self.config({"log": {**log, "level": 6}})
        for number, level in ((signal.SIGUSR1, 4), (signal.SIGUSR2, 3), (signal.SIGHUP, 6)):
            gnssd.send_signal(number)
            self.until(b"gLogLevl=%d\n" % level, gnssd)
        gnssd.communicate(sentence(b"LATER"), LIMIT)
        self.assertIn(b"sent $LATER", Path("log-01.log").read_bytes())

    def test_heartbeats_live_with_the_work_and_come_back(self):
        os.mkfifo("go")
        read, write = os.pipe()
        gnssd = self.gnssd({"gnss": {"source": "command", "path": "read x <go; yes '$A*41'"}},
                           "-v", "6", stdout=write)
        out = b""
        while b"no watchdog at dog.sock" not in out:
            out += os.read(read, 4096)
        time.sleep(2.5)
        for restart in (False, True):
            dog = self.start("watchdogd", "dog.sock", "700")
            self.until(rb"gnssd +25  heartbeat +\d\.\d{3} s", dog)  # more than a second
            if not restart:
                dog.kill()
                dog.wait()
        self.assertLessEqual((out + os.read(read, 65536)).count(b"no watchdog at"), 2)
        Path("go").write_text("\n")  # from here on the console fills, and nobody reads it
        self.until(rb"gnssd +\d+  IS LATE", dog)
        begun = time.monotonic()
        if b"__tsan_init" in Path(BIN, "gnssd").read_bytes():
            gnssd.kill()  # there a handler has to wait for the end of the write
        else:
            self.ends(gnssd, 1, stop=signal.SIGTERM)
        self.assertLess(time.monotonic() - begun, 3)
        self.until(rb"gnssd +\d+  has left", dog)
        self.ends(dog, 0, stop=signal.SIGHUP)


class Tools(Case):
    def test_watchdogd(self):
        dog = self.start("watchdogd", "dog.sock", "700")
        beat = struct.pack("=iB", 0, 4) + b"slow"
        with sock() as slow, sock() as mad:
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
        self.ends(dog, 0, stop=signal.SIGTERM)
        self.assertFalse(os.path.exists("dog.sock"))

    def test_tap_tells_what_was_lost(self):
        def frame(seq, text=b"$A*41"):
            return struct.pack(">IIQI", 16 + len(text), seq % 2**32, 10**15, len(text)) + text
        stream = (frame(-5) + frame(-4, b"") + frame(-1)[:-3] + frame(0) + b"junk" * 3 + frame(1) +
                  frame(5, b"$B*42") + frame(6)[:9])
        for mode, data, texts in (
                ("frames", stream, (rb"-- 3 lost --\n +0 .*\n +1 .*\n-- 3 lost --\n +5 .*\$B",
                                    rb"tap: 5 records, \d+ bytes in .*\ntap: 6 lost, 43 bytes sk")),
                ("hex", b"0123456789abcdef\n~", (rb"^0{8}  30 31 .* 66  0123456789abcdef\n"
                                                rb"00000010  0a 7e {44}\.~\ntap: 2 lines, 18",)),
                ("text", b"one\ntwo", (rb"^one\ntwo", rb"tap: 1 lines, 7 bytes"))):
            tap = self.start("tap", "-m", mode, "-w", "60000", mode + "/s")
            time.sleep(0.1)
            os.mkdir(mode)
            with sock() as server:
                server.bind(mode + "/s")
                server.listen(1)
                server.settimeout(LIMIT)
                client = server.accept()[0]
                for byte in data:
                    client.sendall(bytes([byte]))
                if mode == "text":
                    self.until(b"two", tap)
                    self.ends(tap, 0, *texts, stop=signal.SIGHUP)
                client.close()
                self.ends(tap, 0, *texts)

    @unittest.skipIf(os.environ.get("KELVARA_RUN"), "an emulator needs descriptors of its own")
    def test_minimal_stops_without_a_descriptor_left(self):
        minimal = self.start("minimal", "m.sock")
        resource.prlimit(minimal.pid, resource.RLIMIT_NOFILE, (32, 32))
        clients = [sock() for _ in range(40)]
        self.until(lambda: clients[0].connect_ex("m.sock") == 0, minimal)
        for client in clients[1:]:
            client.connect("m.sock")
        self.assertEqual(clients[0].recv(5), b"tick\n")
        self.until(lambda: len(os.listdir("/proc/%d/fd" % minimal.pid)) == 32, minimal)
        self.ends(minimal, 0, stop=signal.SIGTERM)


if __name__ == "__main__":
    BIN = os.path.abspath(sys.argv.pop(1))
    RUN = os.environ.get("KELVARA_RUN", "").split()
    unittest.main(verbosity=2, warnings="ignore")
