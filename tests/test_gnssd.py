# SPDX-License-Identifier: MIT
"""The example programs as their users run them: python3 test_gnssd.py FOLDER_OF_THE_PROGRAMS

KELVARA_RUN holds a command to put before each program (an emulator). Nothing here depends on how
fast a program is: between the data stand marks of our own, and the client's output is awaited.
"""
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

LIMIT = 60  # seconds for anything to happen
TRACK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../examples/track.nmea")
CONFIG = {
    "log": {"logRunMd": 1, "stdoutLogSwt": 1, "logSaveMaxCnt": 100000},
    "server": {"dmNme": "gnssd.sock"},
    "watchdog": {"feddogSec": 0, "feddogUSec": 50000, "txFeddogHtDmNme": "dog.sock"},
    "gnss": {"source": "file", "path": TRACK},
}


def sentence(body, change=0, start=b"$"):
    check = change
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


def starts(data):
    """How many sentences begin: a valid one may hold a '!', a bad one ends there."""
    return sum(map(data.count, b"$!")) - sum(s.count(b"!", 1) for s in valid(data))


with open(TRACK, "rb") as file:
    TRACK_DATA = file.read()


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="gnssd")
        self.addCleanup(folder.cleanup)
        self.dir = folder.name
        self.logs = 0

    def path(self, name, data=None):
        path = os.path.join(self.dir, name)
        if data is not None:
            with open(path, "wb") as file:
                file.write(data)
        return path

    def start(self, name, *args, stdin=subprocess.DEVNULL, stdout=None):
        self.logs += 1
        log = self.path("out%d" % self.logs)
        with open(log, "wb") as out:
            process = subprocess.Popen(
                RUN + [os.path.join(BIN, name)] + list(args), stdin=stdin, stdout=stdout or out,
                stderr=out, cwd=self.dir)
        process.log = log
        self.addCleanup(lambda: process.poll() is None and (process.kill(), process.wait()))
        return process

    def out(self, process):
        with open(process.log, "rb") as file:
            return file.read()

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

    def config(self, change=None, **gnss):
        """Each group on a line of its own; no keys but None: no such group."""
        change = {"gnss": gnss, **(change or {})}
        text = ""
        for group in {**CONFIG, **change}:
            if change.get(group, {}) is not None:
                keys = {**CONFIG.get(group, {}), **change.get(group, {})}.items()
                text += "%s = { %s };\n" % (group, " ".join(
                    "%s = %s;" % (key, json.dumps(value)) for key, value in keys if value != ""))
        return self.path("conf", text.encode())

    def counts(self, process):
        found = re.findall(rb"^gnssd: read (\d+) valid (\d+) bad (\d+) broadcast (\d+)$",
                           self.out(process), re.M)
        self.assertEqual(len(found), 1, self.out(process))
        return [int(number) for number in found[0]]

    def shown(self, tap, mode):
        """The sentences that a client of a mode has printed."""
        text = self.out(tap)
        if mode == "frames":
            return re.findall(rb"^ *\d+  [\d:]+\.\d{6}  (.*)$", text.replace(b"\n" + b" " * 27, b""),
                              re.M)
        if mode == "hex":
            text = re.findall(rb"^[0-9a-f]{8} ((?: [0-9a-f]{2})+)", text, re.M)
            text = bytes.fromhex(b"".join(text).decode())
        return text.split(b"\r\n")[:-1]

    def feed(self, fd, tap, mode="text"):
        """Sends the track in parts, each with marks behind it, and goes on when the client has
        shown them: it is never so slow that it loses bytes. Checks what it got."""
        lines = TRACK_DATA.splitlines(True)
        for pos in range(-50, len(lines), 50):
            mark = sentence(b"MARK%020d" % pos)
            part = b"".join(lines[max(pos, 0):pos + 50]) + (mark + b"\r\n") * 2
            os.write(fd, part)  # twice: hex keeps the last fifteen bytes to itself
            while mark not in self.shown(tap, mode):
                self.until(lambda: True, tap)
                time.sleep(0.02)
                if pos < 0:  # the first ones may come before the client
                    os.write(fd, part)
        self.assertEqual([s for s in self.shown(tap, mode) if not s.startswith(b"$MARK")],
                         valid(TRACK_DATA))


class Gnssd(Case):
    def garbage(self):
        rng = random.Random(1)
        good = [sentence(b"GPTXT,%d" % i) for i in range(50)]
        ais = sentence(b"AIVDM,1,1,,A,13u?etPv2;0n", start=b"!")
        yield "noise", b"\xb5b\0x" * 100000
        yield "empty", b""
        yield "no line end", good[0]
        ends = [b"\r\n", b"\n", b"\r", b"", b"\0"]
        yield "line ends", b"".join(s + rng.choice(ends) for s in good)
        yield "dollars", b"$" * 3000 + good[1]
        yield "every byte in a sentence", b"".join(
            sentence(b"A" + bytes([i]) + b"B") + b"\n" for i in range(256))
        yield "cut everywhere", b"".join(s[:i] + s for s in (good[9], ais) for i in range(len(s)))
        yield "check digits", b"\n".join(
            [b"$*00", b"$A*4", b"$A*", b"$A", b"$A*41", b"$a*6g", b"$z*7a", b"$z*7A", b"$A*0041",
             sentence(b"GPTXT,1", 1), b"$A*41*41", b"*41", b"$A**41"])
        yield "lengths", b"\n".join(sentence(b"x" * n) for n in range(1010, 1040))
        yield "5 megabytes in front", b"\xb5b\0x" * 1250000 + good[2]
        yield "5 megabytes inside", b"$" + b"long" * 1250000 + good[3]
        parts = good[:5] + [ais] + [b"$", b"!", b"*", b"\r", b"\n", b"\0", b"$GP", b"*47", b"\xff"]
        for seed in range(8):
            rng.seed(seed)
            yield "random parts %d" % seed, b"".join(rng.choice(parts) for _ in range(2000))
            yield "random bytes %d" % seed, rng.getrandbits(160000).to_bytes(20000, "little")

    def test_garbage_of_every_kind(self):
        peaks = []
        for name, data in self.garbage():
            good = len(valid(data))
            bad = starts(data) - good
            with self.subTest(name):
                config = self.config({"log": {"fileLogSwt": 1, "saveLogPath": "log"}}, path="-")
                gnssd = self.start("gnssd", "--config", config, stdin=subprocess.PIPE)
                gnssd.stdin.write(data)
                gnssd.stdin.flush()
                with open("/proc/%d/status" % gnssd.pid) as status:
                    peaks.append(int(re.search(r"VmHWM:\s+(\d+) kB", status.read())[1]))
                gnssd.stdin.close()
                self.ends(gnssd, 0)
                self.assertEqual(self.counts(gnssd), [good + bad, good, bad, good])
                with open(self.path("log-00.log"), "rb") as log:
                    self.assertEqual(log.read().count(b"bad sentence, "), bad)
        self.assertLess(max(peaks) - peaks[0], 3000, peaks)  # kB: no line is kept

    def open_source(self, kind):
        """Returns the settings, the program's standard input and a descriptor to write to."""
        if kind == "stdin":
            read, write = os.pipe()
            return {"path": "-"}, read, read, write
        if kind == "serial":
            write, read = pty.openpty()
            settings = {"source": "serial", "path": os.ttyname(read), "baudRate": 115200}
        else:
            pipe = self.path("pipe of " + kind)
            os.mkfifo(pipe)
            read = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
            write = os.open(pipe, os.O_WRONLY)
            settings = {"path": pipe} if kind == "named pipe" else {
                "source": "command", "path": "cat '%s'" % pipe}
        return settings, subprocess.DEVNULL, read, write

    def test_sources_and_stop_while_waiting_for_input(self):
        for number, kind in enumerate(("stdin", "serial", "named pipe", "command")):
            with self.subTest(kind):
                settings, stdin, read, write = self.open_source(kind)
                gnssd = self.start("gnssd", "-c", self.config(**settings), stdin=stdin)
                tap = self.start("tap", "-w", "60000", "gnssd.sock")
                if kind != "serial":  # opened at both ends from the start
                    self.until(rb"gnssd serves gnssd\.sock", gnssd)
                self.feed(write, tap)
                if kind == "serial":
                    os.close(read)
                    os.close(write)
                    self.ends(gnssd, 1, rb"Input/output error")
                else:
                    self.ends(gnssd, 0, stop=(signal.SIGTERM, signal.SIGINT)[number % 2])
                self.ends(tap, 0)
                self.assertEqual(self.counts(gnssd)[2], 16)
                self.assertFalse(os.path.exists(self.path("gnssd.sock")))
                if kind == "command":  # nobody has the pipe open any more: the command was ended
                    os.close(read)
                    gone = select.poll()
                    gone.register(write, select.POLLERR)
                    self.assertTrue(gone.poll(1000 * LIMIT))

    def test_records_and_the_ways_tap_shows_them(self):
        for records, mode in (("text", "hex"), ("framed", "frames")):
            with self.subTest(mode):
                clock = [time.strftime("%T", time.localtime(time.time() + i)) for i in range(LIMIT)]
                gnssd = self.start("gnssd", "-c", self.config(records=records), "-i", "-",
                                   stdin=subprocess.PIPE)
                tap = self.start("tap", "-m", mode, "-w", "60000", "gnssd.sock")
                self.feed(gnssd.stdin.fileno(), tap, mode)
                gnssd.stdin.close()
                self.ends(gnssd, 0)
                self.ends(tap, 0)
                if mode == "frames":
                    rows = re.findall(rb"^ *(\d+)  ([\d:]+)\.\d{6} ", self.out(tap), re.M)
                    for i, row in enumerate(rows):
                        self.assertEqual(int(row[0]), int(rows[0][0]) + i)
                        self.assertIn(row[1].decode(), clock)
                    self.assertIn(b"tap: 0 lost, 0 bytes skipped", self.out(tap))
                self.assertLessEqual(max(map(len, self.out(tap).splitlines())), 80)

    def test_a_replay_stops_at_once_and_sends_all_it_has_read(self):
        self.path("data", b"".join(sentence(b"N%d" % i) + b"\n" for i in range(3000)))
        config = self.config(path="data")
        for option, value in (("-r", "20"), ("-d", "3600000"), ("-l", "3600000")):
            with self.subTest(option):
                gnssd = self.start("gnssd", "-c", config, "-v", "6", option, value)
                self.until(rb"sent \$N2999\*" if option == "-l" else b" serves", gnssd)
                time.sleep(0.3)
                self.ends(gnssd, 0, stop=signal.SIGTERM)
                read, good, bad, sent = self.counts(gnssd)
                self.assertEqual((read, bad, sent), (good, 0, good))
                self.assertEqual(good == 3000, option == "-l", good)
        self.path("data", b"".join(sentence(b"N%d" % i) for i in range(26)))
        begun = time.monotonic()
        self.ends(self.start("gnssd", "-c", config, "-r", "50"), 0, rb"broadcast 26\n")
        self.assertGreater(time.monotonic() - begun, 25 / 50)

    def test_what_goes_wrong_is_said(self):
        count = rb"allowed is a whole number from 0 to "
        for change, status, text in (
                ({"gnss": {"source": "serial", "path": "conf"}}, 1, rb"no serial line"),
                ({"gnss": {"source": "serial", "path": "absent"}}, 1, rb"open\(absent\) err"),
                ({"gnss": {"path": "absent"}}, 1, rb"open\(absent\) err, msg:No such"),
                ({"gnss": {"path": "."}}, 1, rb"input \. err, msg:Is a dir"),
                ({"gnss": {"source": "command", "path": "exit 3"}}, 1, rb"ended with status 3"),
                ({"gnss": {"source": "command", "path": "no-such-command"}}, 1, rb"status 127"),
                ({"gnss": {"source": "command", "path": "cat " + TRACK}}, 0,
                 rb"read 414 valid 398 bad 16 "),
                ({"log": {"fileLogSwt": 1, "saveLogPath": "no/log"}}, 1, rb"no log, msg:No such"),
                ({"server": {"dmNme": "no/s"}}, 1, rb"no/s cannot be served: No such file"),
                ({"server": {"dmNme": "conf"}}, 1, rb"conf cannot be served: File exists"),
                ({"server": {"dmNme": 108 * "x"}}, 1, rb"conf:2: .*allowed is a text of 1 to 107 c"),
                ({"server": {"dmNm": "s"}}, 1, rb"conf:2: server\.dmNm: unknown, .* dmNme\n"),
                ({"server": {"dmNme": ""}}, 1, rb"conf:2: server\.dmNme: this key is missing"),
                ({"log": {"fileMod": 2}}, 1, rb"conf:1: log\.fileMod: " + count + b"1\n"),
                ({"watchdog": {"feddogSec": 0.5}}, 1, rb"conf:3: watchdog\.feddogSec: " + count),
                ({"watchdog": {"feddogUSec": 0}}, 1, rb"conf:3: .*whole number from 1 to 999999"),
                ({"gnss": {"rate": "fast"}}, 1, rb"conf:4: gnss\.rate: " + count + b"1000000\n"),
                ({"gnss": {"rate": -3}}, 1, rb"conf:4: gnss\.rate: " + count),
                ({"gnss": {"records": 5}}, 1, rb'conf:4: .*allowed is "text" or "framed"'),
                ({"gnss": {"source": "radio"}}, 1, rb'"file", "serial" or "command"'),
                ({"gnss": {"baudRate": 9601}}, 1, rb"conf:4: gnss\.baudRate: allowed is a speed"),
                ({"gnss": None}, 1, rb"conf:\d+: gnss: this group is missing"),
                ({"more": {}}, 1, rb"conf:5: more: allowed are the groups log,")):
            with self.subTest(**change):
                self.ends(self.start("gnssd", "-c", self.config(change)), status, text)
        conf = self.config()
        for tool, args, status, text in (
                ("gnssd", [], 2, rb"usage"), ("gnssd", ["-c", conf, "more"], 2, rb"usage"),
                ("gnssd", ["-c", conf, "-r", "5x"], 2, rb'rate: "5x" .* from 0 to 1000000'),
                ("gnssd", ["-c", "none"], 1, rb"^none: No such file"),
                ("gnssd", ["-c", self.path("junk", b"a = {\n;")], 1, rb"junk:2: syntax error"),
                ("watchdogd", [], 2, rb"usage"), ("watchdogd", ["d", "abc"], 2, rb"LATE_MS: .abc"),
                ("watchdogd", [conf], 1, rb"conf: File exists"),
                ("watchdogd", [108 * "x"], 1, rb"File name too long"),
                ("tap", ["none"], 1, rb"none: No such file"), ("tap", ["-m", "x", "s"], 2, rb"usage"),
                ("tap", ["-w", "5s", "s"], 2, rb'wait: "5s" .* whole number'),
                *((tool, [option], 0, rb"^(usage: )?%s " % tool.encode())
                  for tool in ("gnssd", "watchdogd", "tap") for option in ("--help", "--version"))):
            with self.subTest(tool, args=args):
                process = self.start(tool, *args)
                self.ends(process, status, text)
                self.assertFalse([line for line in self.out(process).splitlines()
                                  if len(line) > 80 and b"xxx" not in line])
        self.assertTrue(os.path.isfile(conf))

    def test_a_socket_of_somebody_else_stays(self):
        for tool, args in (("watchdogd", ["gnssd.sock"]),
                           ("gnssd", ["-c", self.config(), "-l", "3600000"])):
            with self.subTest(tool), socket.socket(socket.AF_UNIX) as other:
                other.bind(self.path("gnssd.sock"))
                self.ends(self.start(tool, *args), 1, rb"gnssd.sock.*: Address already in use")
                os.stat(self.path("gnssd.sock"))
                other.close()  # leaves its socket behind
                process = self.start(tool, *args)
                with socket.socket(socket.AF_UNIX) as client, socket.socket(socket.AF_UNIX) as new:
                    path = self.path("gnssd.sock")
                    self.until(lambda: client.connect_ex(path) == 0, process)
                    time.sleep(0.2)  # between listen() and a look at the file
                    os.unlink(path)
                    new.bind(path)
                    self.ends(process, 0, stop=signal.SIGTERM)
                    os.unlink(path)

    def test_signals_that_change_the_log(self):
        log = {"log": {"fileLogSwt": 1, "saveLogPath": "log", "level": 3}}
        gnssd = self.start("gnssd", "-c", self.config(log), "-i", "-", stdin=subprocess.PIPE)
        self.until(b" serves", gnssd)
        for number, text in ((signal.SIGUSR1, rb"gLogLevl=4\n"), (signal.SIGUSR2, rb"gLogLevl=3\n")):
            gnssd.send_signal(number)
            self.until(text, gnssd)
        log["log"]["level"] = 6
        self.config(log)
        gnssd.send_signal(signal.SIGHUP)
        self.until(rb"gLogLevl=6\n", gnssd)
        gnssd.communicate(sentence(b"LATER"), LIMIT)
        with open(self.path("log-01.log"), "rb") as file:
            self.assertIn(b"sent $LATER", file.read())

    def test_heartbeats_live_with_the_work_and_come_back(self):
        config = self.config(source="command", path="read x <go; yes '$A*41'")
        os.mkfifo(self.path("go"))
        read, write = os.pipe()
        gnssd = self.start("gnssd", "-c", config, "-v", "6", stdout=write)
        out = b""
        while out.count(b"no watchdog at dog.sock") < 1:
            out += os.read(read, 4096)
        time.sleep(2.5)
        for _ in range(2):  # the second time it comes back to another one
            dog = self.start("watchdogd", "dog.sock", "700")
            self.until(rb"gnssd +3  heartbeat +\d\.\d{3} s", dog)
            if _ == 0:
                dog.kill()
                dog.wait()
        self.assertLessEqual((out + os.read(read, 65536)).count(b"no watchdog at"), 2)
        self.path("go", b"\n")  # from here on the console fills, and nobody reads it
        self.until(rb"gnssd +\d+  IS LATE", dog)
        begun = time.monotonic()
        self.ends(gnssd, 1, stop=signal.SIGTERM)
        self.assertLess(time.monotonic() - begun, 3)
        self.ends(dog, 0, rb"gnssd +\d+  has left", stop=signal.SIGHUP)
        os.close(read)
        os.close(write)


class Tools(Case):
    def test_watchdogd(self):
        dog = self.start("watchdogd", "dog.sock", "700")
        beat = struct.pack("=iB", 0, 4) + b"slow"
        with socket.socket(socket.AF_UNIX) as slow, socket.socket(socket.AF_UNIX) as mad:
            self.until(lambda: slow.connect_ex(self.path("dog.sock")) == 0, dog)
            mad.connect(self.path("dog.sock"))
            slow.sendall(beat * 2 + beat[:3])
            mad.sendall(struct.pack("=iB", 7, 255) + b"\x1b" * 255)
            self.until(rb"slow +2  heartbeat", dog)
            slow.sendall(beat[3:7])
            self.until(rb"slow +2  IS LATE", dog)
            slow.sendall(beat[7:])
            self.until(rb"slow +3  heartbeat", dog)
            self.until(rb" \?{24} +1  heartbeat", dog)
        self.until(rb"slow +3  has left", dog)
        self.assertNotIn(b"\x1b", self.out(dog))
        self.assertEqual(len(re.findall(rb"slow +\d  IS LATE", self.out(dog))), 1)
        self.ends(dog, 0, stop=signal.SIGTERM)
        self.assertFalse(os.path.exists(self.path("dog.sock")))

    def test_tap_tells_what_was_lost(self):
        def frame(seq, text=b"$A*41"):
            return struct.pack(">IIQI", 16 + len(text), seq % 2**32, 10**15, len(text)) + text
        stream = (frame(-5) + frame(-4, b"") + frame(-1)[:-3] + frame(0) + b"junk" * 3 + frame(1) +
                  frame(5, b"$B*42") + frame(6)[:9])
        for mode, data, texts in (
                ("frames", stream, (rb"-- 3 lost --\n +0 .*\n +1 .*\n-- 3 lost --\n +5 .*\$B",
                                    rb"tap: 5 records, \d+ bytes in .*\ntap: 6 lost, 43 bytes sk")),
                ("text", b"one\ntwo", (rb"^one\ntwo", rb"tap: 1 lines, 7 bytes"))):
            tap = self.start("tap", "-m", mode, "-w", "60000", mode + "/s")
            time.sleep(0.1)
            os.mkdir(self.path(mode))
            with socket.socket(socket.AF_UNIX) as server:
                server.bind(self.path(mode + "/s"))
                server.listen(1)
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
        clients = [socket.socket(socket.AF_UNIX) for _ in range(40)]
        self.until(lambda: clients[0].connect_ex(self.path("m.sock")) == 0, minimal)
        for client in clients[1:]:
            client.connect(self.path("m.sock"))
        self.assertEqual(clients[0].recv(5), b"tick\n")
        self.until(lambda: len(os.listdir("/proc/%d/fd" % minimal.pid)) == 32, minimal)
        self.ends(minimal, 0, stop=signal.SIGTERM)
        for client in clients:
            client.close()


if __name__ == "__main__":
    BIN = os.path.abspath(sys.argv.pop(1))
    RUN = os.environ.get("KELVARA_RUN", "").split()
    unittest.main(verbosity=2)
