# SPDX-License-Identifier: MIT
"""The example programs as their users run them: python3 test_gnssd.py FOLDER_OF_THE_PROGRAMS [CASE]

Without a case all run, four at once, each in a process of its own. KELVARA_RUN holds a command to
put before each program (an emulator). Nothing here depends on how fast a program is.
"""
import concurrent.futures
import fcntl
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
CONF = """log = { logRunMd = 1; logSaveMaxCnt = 100000; };
server = { dmNme = "gnssd.sock"; };
watchdog = { feddogSec = 0; feddogUSec = 50000; txFeddogHtDmNme = "dog.sock"; };
gnss = { path = "-"; };
"""
FILES = CONF.replace("log = {", 'log = { fileLogSwt = 1; saveLogPath = "log";')


def sentence(body, start=b"$"):
    check = 0
    for byte in body:
        check ^= byte
    return b"%s%s*%02X" % (start, body, check)


def careless_parent():
    os.umask(0o137)
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGHUP, signal.SIGTERM])


def locked():
    folder = os.open(".", os.O_RDONLY)
    fcntl.flock(folder, fcntl.LOCK_EX)
    return folder


def open_files(process):
    names = ["/proc/%d/fd/%d" % (process.pid, fd) for fd in range(20)]
    return [os.readlink(name) if os.path.lexists(name) else "" for name in names]


class Examples(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="gnssd")
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)

    def start(self, name, *args, before=(), **options):
        log, path = tempfile.mkstemp(dir=".")
        process = subprocess.Popen(
            [*before, *RUN, os.path.join(BIN, name), *args], preexec_fn=careless_parent,
            **{"stdin": subprocess.PIPE, "stdout": log, "stderr": log, **options})
        os.close(log)
        process.log = Path(path)
        self.addCleanup(lambda: (process.kill(), process.communicate()))
        return process

    def gnssd(self, conf, *args, **options):
        Path("conf").write_text(conf)
        return self.start("gnssd", "-c", "conf", *args, **options)

    def until(self, what, process, again=lambda: time.sleep(0.01)):
        """Waits for a text of the process, or for something else to be true."""
        end = time.monotonic() + LIMIT
        while not (what() if callable(what) else re.search(what, process.log.read_bytes(), re.S)):
            if time.monotonic() > end or process.poll() is not None:
                self.fail("%s: %s" % (what, process.log.read_bytes()[-2000:]))
            again()

    def ends(self, process, status, text=b"", stop=None):
        """Returns the output."""
        if stop:
            process.send_signal(stop)
        status_got, out = process.wait(LIMIT), process.log.read_bytes()
        self.assertEqual(status, status_got, out)
        self.assertTrue(re.search(text, out, re.M), (text, out))
        return out

    def test_garbage(self):
        good, ais = sentence(b"GPTXT"), sentence(b"AIVDM,13u?", start=b"!")
        rng = random.Random(1)
        peaks = []
        for data, valid, bad in (
                (b"\xb5b\0x" * 100000, 0, 0),
                (b"".join(sentence(b"A%cB" % byte) + b"\n" for byte in range(256)), 93, 164),
                (b"".join(s[:cut] + s for s in (good, ais) for cut in range(len(s))), 23, 19),
                (b"\n".join(sentence(b"X" * size) for size in range(1010, 1040)), 11, 19),
                (b"$Z*5a$Z*5A!Z*5A$Z*5b$Z*5g$Z*5\n$a*61!*00$", 3, 3),
                (b"$L" + b"ong" * 1500000 + good, 1, 1),
                # Binary messages between the sentences.
                (b"".join(rng.randbytes(92) + good for _ in range(500)), 500, 35)):
            gnssd = self.gnssd(FILES)
            gnssd.stdin.write(data)
            gnssd.stdin.flush()
            status = Path("/proc/%d/status" % gnssd.pid).read_text()
            peaks.append(int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]))
            gnssd.stdin.close()
            with self.subTest(data[:20]):
                self.ends(gnssd, 0, b" valid %d bad %d broadcast %d$" % (valid, bad, valid))
                self.assertEqual(bad, Path("log-00.log").read_bytes().count(b"bad sentence, "))
        self.assertLess(max(peaks) - peaks[0], 3000, peaks)  # kB: no line is kept

    def test_sources_records_and_stop_while_waiting_for_input(self):
        mark = sentence(b"MARK")
        for settings, mode, shown, stop in (
                ('path = "-"', "text", rb"^", signal.SIGTERM),
                ('source = "serial"; path = "in"; baudRate = 115200', "text", rb"^", None),
                ('path = "in"; records = "framed"', "frames", rb" \d+  [\d:.]+  ", signal.SIGINT),
                ('source = "command"; path = "cat in"', "text", rb"^", signal.SIGTERM)):
            if stop:
                os.mkfifo("in")
                read, write = os.open("in", os.O_RDONLY | os.O_NONBLOCK), os.open("in", os.O_WRONLY)
            else:
                write, read = pty.openpty()
                os.symlink(os.ttyname(read), "in")
            gnssd = self.gnssd(CONF.replace('path = "-"', settings), stdin=read)
            tap = self.start("tap", "-m", mode, "-w", "60000", "gnssd.sock")
            self.until(b" serves", gnssd)
            self.until(shown + re.escape(mark), tap,
                       again=lambda: (os.write(write, mark + b"\n"), time.sleep(0.01)))
            os.close(read)
            if stop:
                self.ends(gnssd, 0, b" bad 0 ", stop=stop)
                closed = select.poll()
                closed.register(write, 0)
                self.assertTrue(closed.poll(1000 * LIMIT), "the command lives on")
            else:
                os.close(write)
                self.ends(gnssd, 1, rb"Input/output error")
            self.ends(tap, 0, b"" if mode == "text" else b"tap: 0 lost, 0 bytes skipped")
            self.assertFalse(os.path.exists("gnssd.sock"))
            os.unlink("in")

    def test_a_replay_stops_at_once_and_sends_all_it_has_read(self):
        Path("data").write_bytes(b"".join(sentence(b"N%d" % i) + b"\n" for i in range(150)))
        bystander = subprocess.Popen(["sleep", "600"])
        self.addCleanup(lambda: (bystander.kill(), bystander.wait()))
        # The command's own number comes from this program: another process has it by now.
        os.mkdir("bin")
        Path("bin/sh").write_text("#!/bin/sh\necho %d\n" % bystander.pid)
        os.chmod("bin/sh", 0o755)
        settings = 'source = "command"; path = "cat data"'
        gnssd = self.gnssd(CONF.replace('path = "-"', settings), "-v", "6", "-r", "20",
                           env={**os.environ, "PATH": "bin:" + os.environ["PATH"]})
        self.until(rb"sent \$N3\*", gnssd)
        child = Path("/proc/%d/task/%d/children" % (gnssd.pid, gnssd.pid)).read_text()
        state = Path("/proc/%d/stat" % int(child))
        self.until(lambda: ") Z " in state.read_text(), gnssd)
        self.ends(gnssd, 0, b"valid 150 bad 0 broadcast 150$", stop=signal.SIGTERM)
        self.assertIsNone(bystander.poll(), "another process was terminated")
        begun = time.monotonic()
        self.ends(self.gnssd(CONF, "-i", "data", "-r", "300"), 0, b"broadcast 150$")
        self.assertGreater(time.monotonic() - begun, 0.4)

    def test_what_goes_wrong_is_said(self):
        for old, new, text in (
                ('"-"', '"absent"', rb"open\(absent\) err, msg:No such"),
                ('path = "-"', 'source = "command"; path = "exit 3"', rb"ended with status 3!"),
                ("path", 'source = "radio"; path', rb'allowed is "file", "serial" or "command"'),
                ("path", "baudRate = 9601; path", rb"^conf:4: gnss\.baudRate: allowed is a speed"),
                ("path", "rate = -3; path", rb"^conf:4: .* whole number from 0 to 1000000\n"),
                ("50000", "0", rb"^conf:3: .*whole number from 1 to 999999"),
                ("gnssd.sock", "no/s", rb"^gnssd: no/s cannot be served: No such file"),
                ("gnssd.sock", "conf", rb"^gnssd: conf cannot be served: File exists"),
                ("gnssd.sock", 108 * "x", rb"^conf:2: .*allowed is a text of 1 to 107 c"),
                ('dmNme = "gnssd.sock";', "", rb"^conf:2: server\.dmNme: this key is missing"),
                ("dmNme", "dmNm", rb"^conf:2: server\.dmNm: unknown, .* dmNme\n"),
                ("logRunMd", "fileLogSwt", rb"no log, msg:No such"),  # in /opt
                ("gnss = {", "more = {", rb"^conf:4: more: allowed are the groups log,"),
                (CONF, "log = {};", rb"^conf:\d+: gnss: this group is missing"),
                (CONF, "log = {\n;", rb"^conf:2: syntax")):
            with self.subTest(new):
                self.ends(self.gnssd(CONF.replace(old, new), stdin=subprocess.DEVNULL), 1, text)
        for line, status, text in (
                ("gnssd", 2, b"^usage: "), ("gnssd --version", 0, rb"^gnssd \d"),
                ("gnssd -c conf -r 5x", 2, b'rate: "5x" .* from 0 to 1000000'),
                ("gnssd -c none", 1, b"^none: No such file"), ("tap --help", 0, b"^usage: tap "),
                ("watchdogd conf", 1, b"conf: File exists"), ("tap -m wide s", 2, b"^usage: "),
                ("tap " + 60 * "./", 1, b"File name too long")):
            with self.subTest(line):
                self.ends(self.start(*line.split()), status, text)

    def test_a_socket_of_another_program_stays(self):
        lock = locked()
        with socket.socket(socket.AF_UNIX) as other:
            dog = self.start("watchdogd", "dog.sock")
            self.until(lambda: os.getcwd() in open_files(dog), dog)  # it waits for the lock
            other.bind("dog.sock")
            os.close(lock)
            self.ends(dog, 1, rb"dog.sock.*: Address already in use")
            os.stat("dog.sock")
        dog = self.start("watchdogd", "dog.sock")  # takes the place of the socket left behind
        with socket.socket(socket.AF_UNIX) as client, socket.socket(socket.AF_UNIX) as new:
            self.until(lambda: client.connect_ex("dog.sock") == 0, dog)
            os.close(locked())  # it has looked at its socket
            new.bind("new")
        os.rename("new", "dog.sock")
        self.ends(dog, 0, stop=signal.SIGTERM)
        os.stat("dog.sock")

    def test_signals_and_the_log(self):
        dog = self.start("watchdogd", "dog.sock")
        for option, levels in (((), (4, 3, 6, 6)), (("-v", "4"), (5, 4, 4, 4))):
            def sends(number, count):
                gnssd.send_signal(number)
                self.until(b".*".join(b"gLogLevl=%d\n" % one for one in levels[:count]), gnssd)

            def limits(most):
                resource.prlimit(gnssd.pid, resource.RLIMIT_NOFILE, (most, 256))

            gnssd = self.gnssd(FILES, *option)
            self.until(b" serves", gnssd)
            modes = [oct(os.stat(name).st_mode)[-3:] for name in ("gnssd.sock", "log-00.log")]
            self.assertEqual(["666", "640"], modes)
            tasks = Path("/proc/%d/task" % gnssd.pid)
            self.until(lambda: "gnssd reader\n" in map(Path.read_text, tasks.glob("*/comm")), gnssd)
            Path("conf").write_text(FILES.replace("log = {", "log = { level = 6;"))
            sends(signal.SIGUSR1, 1)
            sends(signal.SIGUSR2, 2)
            sends(signal.SIGHUP, 3)
            limits(3)
            gnssd.send_signal(signal.SIGHUP)
            self.until(b"no log file, until the next SIGHUP", gnssd)
            limits(256)
            sends(signal.SIGHUP, 4)
            # More signals than it can answer: heartbeats go on, and the end comes in time.
            wanted = dog.log.read_bytes().count(b"heartbeat") + 10
            self.until(lambda: dog.log.read_bytes().count(b"heartbeat") >= wanted, gnssd,
                       again=lambda: [gnssd.send_signal(signal.SIGHUP) for _ in range(1000)])
            self.assertNotIn(b"Interrupted", self.ends(gnssd, 0, stop=signal.SIGTERM))
            self.assertTrue(any(b"gnssd ends" in log.read_bytes() for log in Path().glob("log-*")))

    def test_closed_descriptors(self):
        """Without /dev/null, where a process may make a /dev of its own."""
        own_dev = ["unshare", "-rm", "sh", "-c",
                   'mount -t tmpfs none /dev && exec "$@" <&- >&- 2>&-', "sh"]
        if subprocess.call([*own_dev, "true"]) != 0:
            self.skipTest("no right to make a /dev")
        gnssd = self.gnssd(FILES, "-i", "conf", "-l", "60000", before=own_dev)
        self.until(lambda: os.path.exists("gnssd.sock"), gnssd)
        self.assertTrue(all(map(os.path.isdir, open_files(gnssd)[:3])), open_files(gnssd))
        self.ends(gnssd, 0, stop=signal.SIGTERM)

    def test_heartbeats_live_with_the_work_and_come_back(self):
        os.mkfifo("go")
        read, write = os.pipe()
        command = 'source = "command"; path = "read x <go; yes \\\\$A*41"'
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other:
            other.bind("dog.sock")  # refuses the connection
            gnssd = self.gnssd(CONF.replace('path = "-"', command), "-v", "6", stdout=write)
            out = b""
            while b" serves" not in out:
                out += os.read(read, 4096)
            time.sleep(1.5)  # for another try
            os.unlink("dog.sock")
        for restart in (False, True):
            dog = self.start("watchdogd", "dog.sock", "700")
            self.until(rb"gnssd +15  heartbeat +\d\.\d{3} s", dog)
            if not restart:
                dog.kill()
                dog.wait()
        out += os.read(read, 65536)
        self.assertEqual(1, out.count(b" connect() err"), out)
        self.assertLessEqual(out.count(b"no watchdog at"), 1, out)  # between the two
        Path("go").write_text("\n")  # from here on the console fills, and is not read
        self.until(rb"gnssd +\d+  IS LATE", dog)
        if b"__tsan_init" in Path(BIN, "gnssd").read_bytes():
            gnssd.kill()  # there the forced end waits for the end of the write
        else:
            self.ends(gnssd, 1, stop=signal.SIGTERM)
        self.until(rb"gnssd +\d+  has left", dog)
        self.ends(dog, 0, stop=signal.SIGHUP)

    def test_watchdogd(self):
        dog = self.start("watchdogd", "dog.sock", "700")
        beat = struct.pack("=iB", 0, 4) + b"slow"
        with socket.socket(socket.AF_UNIX) as client:
            self.until(lambda: client.connect_ex("dog.sock") == 0, dog)
            client.sendall(beat * 2 + beat[:3])
            self.until(b"slow +2  heartbeat.*slow +2  IS LATE", dog)
            client.sendall(beat[3:] + struct.pack("=iB", 7, 255) + b"\x1b" * 255)
            self.until(rb"slow +3  heartbeat.* \?{24} +4  heartbeat", dog)
        self.until(rb"\? +4  has left", dog)
        status, waits = Path("/proc/%d/status" % dog.pid), []
        for _ in range(2):
            waits.append(int(re.findall(r"voluntary_ctxt_switches:\s(\d+)", status.read_text())[0]))
            time.sleep(0.3)
        self.assertLess(waits[1] - waits[0], 3, "it looks for late clients, but has none")
        self.assertEqual(1, self.ends(dog, 0, stop=signal.SIGINT).count(b"IS LATE"))

    def test_tap_tells_what_was_lost(self):
        def frame(seq, text=b"$A*41"):
            return struct.pack(">IIQI", 16 + len(text), seq % 2**32, 10**15, len(text)) + text
        stream = (frame(-5) + frame(-4, b"") + frame(-1)[:-3] + frame(0) + b"junk" * 3 + frame(1) +
                  frame(5, b"$B*42") + frame(6)[:9])
        with socket.socket(socket.AF_UNIX) as server:
            server.bind("tap.sock")
            server.listen(1)
            server.settimeout(LIMIT)
            tap = self.start("tap", "-m", "frames", "tap.sock")
            client = server.accept()[0]
            for byte in stream:
                client.sendall(bytes([byte]))
            client.close()
            out = self.ends(tap, 0, b"-- 3 lost --\n +0 .*\n +1 .*\n-- 3 lost --\n +5 .*B[*]42$")
            self.assertRegex(out, rb"5 records, \d+ bytes in .*\ntap: 6 lost, 43 bytes skipped")


if __name__ == "__main__":
    BIN = os.path.abspath(sys.argv.pop(1))
    RUN = os.environ.get("KELVARA_RUN", "").split()
    if len(sys.argv) > 1:
        unittest.main(warnings="ignore")
    cases = unittest.TestLoader().getTestCaseNames(Examples)
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        sys.exit(max(pool.map(lambda case: subprocess.call(
            [sys.executable, __file__, BIN, "Examples." + case]), cases)))
