# SPDX-License-Identifier: MIT
"""The example programs as their users run them: python3 test_gnssd.py FOLDER_OF_THE_PROGRAMS

KELVARA_RUN holds a command to put before each program (an emulator). Nothing here depends on how
fast a program is: between the data stand marks of our own, and the client's output is awaited.
"""
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


def sentence(body, change=0):
    check = change
    for byte in body:
        check ^= byte
    return b"$%s*%02X" % (body, check)


def valid(data):
    """The good sentences, found in another way than the daemon does."""
    found = re.findall(rb"\$[ -#%-)+-~]+\*[0-9A-Fa-f]{2}", data)
    return [s for s in found if len(s) <= 1024 and s.upper()[-2:] == sentence(s[1:-3])[-2:]]


def track():
    with open(TRACK, "rb") as file:
        return file.read()


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

    def start(self, name, *args, stdin=subprocess.DEVNULL):
        self.logs += 1
        log = self.path("out%d" % self.logs)
        with open(log, "wb") as out:
            process = subprocess.Popen(
                RUN + [os.path.join(BIN, name)] + list(args), stdin=stdin, stdout=out,
                stderr=subprocess.STDOUT, cwd=self.dir)
        process.log = log
        self.addCleanup(lambda: process.poll() is None and (process.kill(), process.wait()))
        return process

    def out(self, process):
        with open(process.log, "rb") as file:
            return file.read()

    def until(self, what, message, process=None):
        end = time.monotonic() + LIMIT
        while not what():
            if time.monotonic() > end or (process and process.poll() is not None):
                self.fail(b"%s: %s" % (message.encode(), self.out(process) if process else b""))
            time.sleep(0.01)

    def ends(self, process, status, *texts, stop=None):
        if stop:
            process.send_signal(stop)
        self.assertEqual(process.wait(LIMIT), status, self.out(process))
        for text in texts:
            self.assertRegex(self.out(process), text)

    def config(self, drop="", log="", **gnss):
        gnss = {"source": "file", "path": TRACK, **gnss}
        groups = {
            "log": "logRunMd = 1; stdoutLogSwt = 1; logSaveMaxCnt = 100000; " + log,
            "server": 'dmNme = "gnssd.sock";',
            "watchdog": 'feddogSec = 0; feddogUSec = 50000; feddogNme = "gnssd";'
                        'txFeddogHtDmNme = "dog.sock";',
            "gnss": "".join("%s = %s; " % (key, '"%s"' % value if isinstance(value, str) else value)
                            for key, value in gnss.items()),
        }
        text = "".join("%s = { %s };\n" % (k, v) for k, v in groups.items() if k != drop)
        return self.path("conf", text.encode())

    def counts(self, process):
        found = re.findall(rb"^gnssd: read (\d+) valid (\d+) bad (\d+) broadcast (\d+)$",
                           self.out(process), re.M)
        self.assertEqual(len(found), 1, self.out(process))
        return [int(number) for number in found[0]]

    def shown(self, tap, mode):
        """The sentences that a client of a mode has printed."""
        if mode == "frames":
            return re.findall(rb"^ *\d+  [\d:]+\.\d{6}  (.*)$", self.out(tap), re.M)
        text = self.out(tap)
        if mode == "hex":
            text = re.findall(rb"^[0-9a-f]{8} ((?: [0-9a-f]{2})+)", text, re.M)
            text = bytes.fromhex(b"".join(text).decode())
        return text.split(b"\r\n")[:-1]

    def feed(self, write, data, gnssd, tap, mode="text"):
        """Sends the data in parts, each with marks behind it, and goes on when the client has shown
        them: it is never so slow that it loses bytes. Returns the number of marks."""
        lines = data.splitlines(True)
        sent = 0
        for pos in range(-50, len(lines), 50):
            write(b"".join(lines[max(pos, 0):pos + 50]))
            mark = sentence(b"MARK%020d" % pos)
            end = time.monotonic() + LIMIT
            due = True
            while mark not in self.shown(tap, mode):
                alive = gnssd.poll() is None and tap.poll() is None and time.monotonic() < end
                self.assertTrue(alive, self.out(gnssd) + self.out(tap))
                if due:
                    write((mark + b"\r\n") * 2)  # hex keeps the last fifteen bytes to itself
                    sent += 2
                due = pos < 0  # again: the first ones may come before the client
                time.sleep(0.02)
        return sent

    def data(self, tap, mode="text"):
        return [s for s in self.shown(tap, mode) if not s.startswith(b"$MARK")]


class Gnssd(Case):
    def garbage(self):
        rng = random.Random(1)
        good = [sentence(b"GPTXT,%d" % i) for i in range(50)]
        yield "empty", b""
        yield "no line end", good[0]
        ends = [b"\r\n", b"\n", b"\r", b"", b"\0"]
        yield "line ends", b"".join(s + rng.choice(ends) for s in good)
        yield "dollars", b"$" * 3000 + good[1]
        yield "every byte in a sentence", b"".join(
            sentence(b"A" + bytes([i]) + b"B") + b"\n" for i in range(256))
        yield "cut everywhere", b"".join(good[9][:i] + good[i] for i in range(len(good[9])))
        yield "check digits", b"\n".join(
            [b"$*00", b"$A*4", b"$A*", b"$A", b"$A*41", b"$a*6g", b"$z*7a", b"$z*7A", b"$A*0041",
             sentence(b"GPTXT,1", 1), b"$A*41*41", b"*41", b"$A**41"])
        yield "lengths", b"\n".join(sentence(b"x" * n) for n in range(1010, 1040))
        yield "a megabyte in front", b"\xb5b\0x" * 250000 + good[2]
        yield "a megabyte inside", b"$" + b"long" * 250000 + good[3]
        parts = good[:5] + [b"$", b"*", b"\r", b"\n", b"\0", b"$GP", b"*47", b"#", b"\xff"]
        for seed in range(8):
            rng.seed(seed)
            yield "random parts %d" % seed, b"".join(rng.choice(parts) for _ in range(2000))
            yield "random bytes %d" % seed, rng.getrandbits(160000).to_bytes(20000, "little")

    def test_garbage_of_every_kind(self):
        for name, data in self.garbage():
            good = len(valid(data))
            starts = data.count(b"$")
            for source in ("file", "stdin"):
                with self.subTest(name, source=source):
                    config = self.config(log='fileLogSwt = 1; saveLogPath = "log"',
                                         path=self.path("data", data) if source == "file" else "-")
                    pipe = subprocess.PIPE if source == "stdin" else subprocess.DEVNULL
                    gnssd = self.start("gnssd", "--config", config, stdin=pipe)
                    if source == "stdin":
                        gnssd.communicate(data, LIMIT)
                    self.ends(gnssd, 0)
                    self.assertEqual(self.counts(gnssd), [starts, good, starts - good, good])
                    with open(self.path("log-00.log"), "rb") as log:
                        self.assertEqual(log.read().count(b"bad sentence, "), starts - good)

    def test_a_line_of_5_megabytes_takes_no_memory(self):
        peaks = []
        for line in (b"$", b"$" + b"long" * 1250000, b"\xb5b\0x" * 1250000):
            gnssd = self.start("gnssd", "-c", self.config(), "-i", "-", "-v", "6", "-l", "3600000",
                               stdin=subprocess.PIPE)
            gnssd.stdin.write(line + sentence(b"END"))
            gnssd.stdin.close()
            self.until(lambda: b"sent " + sentence(b"END") in self.out(gnssd), "the end", gnssd)
            with open("/proc/%d/status" % gnssd.pid) as status:
                peaks.append(int(re.search(r"VmHWM:\s+(\d+) kB", status.read())[1]))
            self.ends(gnssd, 0, stop=signal.SIGINT)
        self.assertLess(max(peaks) - peaks[0], 3000, peaks)

    def open_source(self, kind):
        """Returns the settings, the program's standard input and a function that writes to it."""
        if kind == "stdin":
            read, write = os.pipe()
            settings, stdin = {"path": "-"}, read
        elif kind == "serial":
            write, read = pty.openpty()
            settings = {"source": "serial", "path": os.ttyname(read), "baudRate": 115200}
            stdin = subprocess.DEVNULL
        else:
            pipe = self.path("pipe of " + kind)
            os.mkfifo(pipe)
            read = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
            write = os.open(pipe, os.O_WRONLY)
            settings = {"path": pipe} if kind == "named pipe" else {
                "source": "command", "path": "cat '%s'" % pipe}
            stdin = subprocess.DEVNULL
        return settings, stdin, read, write

    def test_sources_and_stop_while_waiting_for_input(self):
        for number, kind in enumerate(("stdin", "serial", "named pipe", "command")):
            with self.subTest(kind):
                settings, stdin, read, write = self.open_source(kind)
                gnssd = self.start("gnssd", "-c", self.config(**settings), stdin=stdin)
                tap = self.start("tap", "-w", "60000", "gnssd.sock")
                if kind != "serial":  # its other end stays open: a hang-up is another case
                    self.until(lambda: b"starts" in self.out(gnssd), "start", gnssd)
                marks = self.feed(lambda part: os.write(write, part), track(), gnssd, tap)
                self.ends(gnssd, 0, stop=(signal.SIGTERM, signal.SIGINT)[number % 2])
                self.ends(tap, 0)
                self.assertEqual(self.data(tap), valid(track()))
                self.assertEqual(self.counts(gnssd)[3], 397 + marks)
                os.close(read)
                if kind == "command":  # nobody has the pipe open any more: the command was ended
                    gone = select.poll()
                    gone.register(write, select.POLLERR)
                    self.assertTrue(gone.poll(1000 * LIMIT))
                os.close(write)

    def test_records_and_the_ways_tap_shows_them(self):
        for records, mode in (("text", "hex"), ("framed", "frames")):
            with self.subTest(mode):
                clock = [time.strftime("%T", time.localtime(time.time() + i)) for i in range(LIMIT)]
                config = self.config(records=records)
                gnssd = self.start("gnssd", "-c", config, "-i", "-", stdin=subprocess.PIPE)
                tap = self.start("tap", "-m", mode, "-w", "60000", "gnssd.sock")
                self.feed(lambda part: os.write(gnssd.stdin.fileno(), part), track(), gnssd, tap,
                          mode)
                gnssd.stdin.close()
                self.ends(gnssd, 0)
                self.ends(tap, 0)
                if mode == "frames":
                    rows = re.findall(rb"^ *(\d+)  ([\d:]+)\.\d{6} ", self.out(tap), re.M)
                    for i, row in enumerate(rows):
                        self.assertEqual(int(row[0]), int(rows[0][0]) + i)
                        self.assertIn(row[1].decode(), clock)
                    self.assertIn(b", 0 lost, 0 bytes skipped", self.out(tap))
                self.assertEqual(self.data(tap, mode), valid(track()))
                self.assertEqual(self.counts(gnssd)[2], 16)

    def test_a_replay_stops_at_once_and_sends_all_it_has_read(self):
        self.path("data", b"".join(sentence(b"N%d" % i) + b"\n" for i in range(3000)))
        config = self.config(path="data")
        for option, value in (("-r", "20"), ("-d", "3600000"), ("-l", "3600000")):
            with self.subTest(option):
                gnssd = self.start("gnssd", "-c", config, "-v", "6", option, value)
                sign = b"sent $N2999*" if option == "-l" else b" starts"
                self.until(lambda: sign in self.out(gnssd), "start", gnssd)
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
        master, slave = pty.openpty()
        tty = os.ttyname(slave)
        for settings, status, text in (
                ({"source": "serial", "path": tty, "baudRate": 9601}, 1, rb"9601 is unknown"),
                ({"source": "serial", "path": tty, "baudRate": 0}, 1, rb"baud rate 0 is unknown"),
                ({"source": "serial", "path": "conf"}, 1, rb"no serial line"),
                ({"source": "serial", "path": "absent"}, 1, rb"open\(absent\) err, msg:No such"),
                ({"path": "absent"}, 1, rb"open\(absent\) err, msg:No such"),
                ({"path": "."}, 1, rb"read\(\) err, msg:Is a dir"),
                ({"source": "command", "path": "exit 3"}, 1, rb"ended with status 3"),
                ({"source": "command", "path": "no-such-command"}, 1, rb"ended with status 127"),
                ({"source": "command", "path": "cat " + TRACK}, 0, rb"read 413 valid 397 bad 16 "),
                ({"source": "radio"}, 1, rb'"radio" is nothing that source can be'),
                ({"records": "xml"}, 1, rb'"xml" is nothing that records can be'),
                ({"drop": "log"}, 1, rb"\[ERR:"), ({"drop": "server"}, 1, rb"\[ERR:"),
                ({"drop": "watchdog"}, 1, rb"\[ERR:"), ({"drop": "gnss"}, 1, rb"no group gnss"),
                ({"log": 'fileLogSwt = 1; saveLogPath = "no/log";'}, 1, rb"fopen\(\) err")):
            with self.subTest(**settings):
                self.ends(self.start("gnssd", "-c", self.config(**settings)), status, text)
        for args, status, text in (
                ([], 2, rb"usage"), (["-c", "conf", "-r", "fast"], 2, rb"usage"),
                (["-c", "conf", "more"], 2, rb"usage"), (["-c", "none"], 1, rb"none line 0: file"),
                (["-c", self.path("junk", b"gnss = {\n;")], 1, rb"junk line 2: syntax error")):
            with self.subTest(args):
                self.ends(self.start("gnssd", *args), status, text)
        config = self.config(source="serial", path=tty)
        gnssd = self.start("gnssd", "-c", config)
        self.until(lambda: b" starts" in self.out(gnssd), "start", gnssd)
        time.sleep(0.2)
        os.close(slave)
        os.close(master)
        self.ends(gnssd, 1, rb"open\(|line is gone|no serial line")


class Tools(Case):
    def test_watchdogd(self):
        dog = self.start("watchdogd", "dog.sock", "700")
        self.until(lambda: os.path.exists(self.path("dog.sock")), "socket", dog)
        gnssd = self.start("gnssd", "-c", self.config(), "-l", "3600000")
        self.until(lambda: re.search(rb"gnssd +3  heartbeat +\d\.\d{3} s", self.out(dog)), "3", dog)
        beat = struct.pack("=iB", 0, 4) + b"slow"
        with socket.socket(socket.AF_UNIX) as slow, socket.socket(socket.AF_UNIX) as mad:
            self.until(lambda: slow.connect_ex(self.path("dog.sock")) == 0, "connection", dog)
            mad.connect(self.path("dog.sock"))
            slow.sendall(beat * 2 + beat[:3])
            mad.sendall(struct.pack("=iB", 7, 255) + b"\x1b" * 255)
            self.until(lambda: re.search(rb"slow +2  heartbeat", self.out(dog)), "two in one", dog)
            slow.sendall(beat[3:7])
            self.until(lambda: re.search(rb"slow +2  IS LATE", self.out(dog)), "late", dog)
            slow.sendall(beat[7:])
            self.until(lambda: re.search(rb"slow +3  heartbeat", self.out(dog)), "in pieces", dog)
            self.until(lambda: re.search(rb"\?{255} +1  heartbeat", self.out(dog)), "name", dog)
        self.until(lambda: re.search(rb"slow +3  has left", self.out(dog)), "leaving", dog)
        self.assertNotIn(b"\x1b", self.out(dog))
        self.assertEqual(len(re.findall(rb"slow +\d  IS LATE", self.out(dog))), 1)
        self.ends(gnssd, 0, stop=signal.SIGINT)
        self.until(lambda: re.search(rb"gnssd +\d+  has left", self.out(dog)), "leaving", dog)
        self.ends(dog, 0, stop=signal.SIGTERM)
        self.assertFalse(os.path.exists(self.path("dog.sock")))

    def test_tap_tells_what_was_lost(self):
        def frame(seq, text=b"$A*41"):
            return struct.pack(">IIQI", 16 + len(text), seq % 2**32, 10**15, len(text)) + text
        stream = (frame(-5) + frame(-4, b"") + frame(-1)[:-3] + frame(0) + b"junk" * 3 + frame(1) +
                  frame(5, b"$B*42") + frame(6)[:9])
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(self.path("s"))
            server.listen(1)
            for mode, data, texts in (
                    ("frames", stream, (rb"-- 3 lost --\n +0 .*\n +1 .*\n-- 3 lost --\n +5 .*\$B",
                                        rb"tap: 5 records, \d+ bytes in .*, 6 lost, 43 bytes sk")),
                    ("text", b"one\ntwo", (rb"^one\ntwo", rb"tap: 1 lines, 7 bytes"))):
                tap = self.start("tap", "-m", mode, "s")
                client = server.accept()[0]
                for byte in data:
                    client.sendall(bytes([byte]))
                if mode == "text":
                    self.until(lambda: b"two" in self.out(tap), "text", tap)
                    tap.send_signal(signal.SIGINT)
                    self.ends(tap, 0, *texts)
                client.close()
                self.ends(tap, 0, *texts)
        self.ends(self.start("tap", "none"), 1, rb"none: No such file")
        self.ends(self.start("tap", "-m", "wide", "s"), 2, rb"usage")

    def test_minimal(self):
        minimal = self.start("minimal", "m.sock")
        with socket.socket(socket.AF_UNIX) as client:
            self.until(lambda: client.connect_ex(self.path("m.sock")) == 0, "connection", minimal)
            client.settimeout(LIMIT)
            self.assertEqual(client.recv(5), b"tick\n")
            self.ends(minimal, 0, stop=signal.SIGTERM)

    @unittest.skipIf(os.environ.get("KELVARA_RUN"), "an emulator needs descriptors of its own")
    def test_stop_without_a_descriptor_left(self):
        minimal = self.start("minimal", "m.sock")
        resource.prlimit(minimal.pid, resource.RLIMIT_NOFILE, (32, 32))
        clients = [socket.socket(socket.AF_UNIX) for _ in range(40)]
        path = self.path("m.sock")
        self.until(lambda: clients[0].connect_ex(path) == 0, "connection", minimal)
        for client in clients[1:]:
            client.connect(path)
        fds = "/proc/%d/fd" % minimal.pid
        self.until(lambda: len(os.listdir(fds)) == 32, "descriptors", minimal)
        self.ends(minimal, 0, stop=signal.SIGTERM)
        for client in clients:
            client.close()


if __name__ == "__main__":
    BIN = os.path.abspath(sys.argv.pop(1))
    RUN = os.environ.get("KELVARA_RUN", "").split()
    unittest.main(verbosity=2)
