# SPDX-License-Identifier: MIT
"""The services under load: slow and dead clients, sinks that fail, a host that is killed.

python3 test_stress.py PROGRAM [unittest arguments]; PROGRAM is what stress_host.cpp makes.

KELVARA_RUN holds a command to put before it (an emulator), KELVARA_PEERS how many clients there
are at once. Nothing here depends on how fast a program is.
"""
import contextlib
import os
import random
import re
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

LIMIT = 60  # seconds for anything to happen
LINE = re.compile(rb"^\[OFF:\d\d:\d\d:\d\d\.\d{8} {12}host 0001\] <(\d{8}) 0{80}>\n", re.M)
CONNECT = """
import os, socket, time
def connected():
    one = socket.socket(socket.AF_UNIX)
    one.connect("serv")
    return one
socks = [connected() for _ in range(50)]
print(flush=True)
"""


def late(*_):
    raise TimeoutError


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="stress")
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)

    def started(self, command, **options):
        process = self.enterContext(subprocess.Popen(command, **options))
        self.addCleanup(process.kill)
        return process

    def host(self, *args, **options):
        return self.started([*RUN, BIN, *map(str, args)], stdin=subprocess.PIPE,
                            stderr=subprocess.PIPE, **{"stdout": subprocess.DEVNULL, **options})

    def asks(self, host, text):
        host.stdin.write(text)
        host.stdin.flush()

    def does(self, host, text):
        self.asks(host, text)
        signal.signal(signal.SIGALRM, late)
        signal.alarm(LIMIT)
        while host.stderr.readline() != b"done\n":
            self.assertIsNone(host.poll())
        signal.alarm(0)

    def ends(self, host):
        host.stdin.close()
        self.assertEqual(0, host.wait(LIMIT))


class Peers(Case):
    """Clients of every bad kind at once, and many good ones, which get everything."""

    def connected(self, count):
        """Clients that have been admitted: the last one has got a message."""
        end = time.monotonic() + LIMIT
        socks = [socket.socket(socket.AF_UNIX) for _ in range(count)]
        for one in socks:
            self.addCleanup(one.close)
            while one.connect_ex("serv") != 0:
                self.assertLess(time.monotonic(), end, "no server listens")
                time.sleep(0.01)
        while not self.drained(socks[-1]):
            self.assertLess(time.monotonic(), end, "a client was not admitted")
            self.broadcast(1)
        return socks

    def drained(self, sock):
        got = b""
        with contextlib.suppress(BlockingIOError):
            while True:
                got += sock.recv(1 << 20, socket.MSG_DONTWAIT)
        return got

    def broadcast(self, count):
        self.does(self.server, b"b%d\n" % count)
        self.sent += count
        return b"".join(b"<%08d%s>" % (k, b"0" * 246) for k in range(self.sent - count, self.sent))

    def bad(self, work):
        process = self.started([sys.executable, "-c", CONNECT + work], stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL)
        process.stdout.readline()  # it is connected
        return process

    def test_slow_and_dead_ones(self):
        most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        self.sent, self.server = 0, self.host("serv", 0, 0, 10000, 0, 0, "")
        count = min(int(os.environ.get("KELVARA_PEERS", 2000)), most - 200)
        good = self.connected(count)
        self.connected(50)  # and never read
        self.bad("time.sleep(1000)").send_signal(signal.SIGSTOP)
        self.bad("while True: connected().close()")
        self.bad("for one in socks: one.setblocking(False)\n"
                 "while True:\n"
                 "    for one in socks:\n"
                 "        try: one.send(os.urandom(65536))\n"
                 "        except OSError: pass\n")
        good += self.connected(count // 10)
        for one in good:
            self.drained(one)
            one.settimeout(LIMIT)
        for _ in range(5):
            self.bad("time.sleep(1000)").kill()
            wanted = self.broadcast(50)  # as much as a socket takes without being read
            for one in good:
                self.assertEqual(wanted, one.recv(len(wanted), socket.MSG_WAITALL))
        self.ends(self.server)


class Sinks(Case):
    """Log files and consoles that fail. A line that the host reports is one whose call is over."""

    def text(self):
        """All log files' contents, oldest first."""
        found = [path.read_bytes() for path in Path().glob("log*")]
        return b"".join(sorted(found, key=lambda data: [*LINE.findall(data), b"~"][0]))

    def numbers(self):
        return [int(number) for number in LINE.findall(self.text())]

    def cleared(self):
        for path in Path().glob("log*"):
            path.unlink()

    def test_killed_at_any_moment(self):
        """Files rotate at every other line; the writer thread's lines may be in the pipe."""
        dice, lines = random.Random(7), 0
        for turn in range(40):
            naming, mode = turn % 2, turn // 2 % 2
            self.cleared()
            host = self.host("-", mode, naming, 2, 0, 1, "log")
            self.asks(host, b"l100000000\n")
            for _ in range(dice.randrange(2, 60)):
                last = host.stderr.readline()
            host.kill()
            rest = re.findall(rb"\d+\n", host.stderr.read())
            reported = int((rest or [last])[-1])
            whole = self.numbers()
            lines += len(whole)
            with self.subTest(turn=turn, mode=mode, naming=naming, reported=reported):
                # One stretch without a gap, with nothing behind it but a line on its way.
                self.assertEqual(list(range(whole[0], whole[-1] + 1)) if whole else [], whole)
                cut = LINE.sub(b"", self.text())
                self.assertLess(len(cut), 300)
                if mode == 0:
                    self.assertNotIn(b"\n", cut)
                    self.assertGreaterEqual(len(whole), min(reported + 1, 2))
                    self.assertIn(whole[-1] - reported, (0, 1))
                if naming == 0:
                    self.assertLessEqual(len(list(Path().glob("log*"))), 2)
                elif whole:
                    self.assertEqual(0, whole[0])
        self.assertGreater(lines, 0)

    def test_full_disk(self):
        """At a file size limit a write is cut short, the next one fails; later there is room."""
        host = self.host("-", 0, 0, 10000, 0, 1, "log",
                         preexec_fn=lambda: signal.signal(signal.SIGXFSZ, signal.SIG_IGN))
        most = resource.getrlimit(resource.RLIMIT_FSIZE)[1]
        for limit in (most, 30, most):
            if limit == 30:
                limit += len(self.text())
            resource.prlimit(host.pid, resource.RLIMIT_FSIZE, (limit, most))
            self.does(host, b"l20\n")
            if limit != most:
                self.assertEqual(limit, len(self.text()))
        self.ends(host)
        self.assertEqual(list(range(20)), self.numbers()[:20])
        whole = re.findall(rb"<(\d{8}) 0{80}>\n", self.text())
        self.assertEqual([*range(20), *range(40, 60)], sorted(map(int, whole)))

    def test_console_is_gone(self):
        """Closed before the start, a pipe that has no reader any more, or a full device."""
        for mode, kind in ((mode, kind) for mode in (0, 1) for kind in ("closed", "pipe", "full")):
            self.cleared()
            read, write = os.pipe()
            if kind == "full":
                os.close(write)
                write = os.open("/dev/full", os.O_WRONLY)
            host = self.host("serv", mode, 0, 1000, 1, 1, "log", stdout=write,
                             preexec_fn=lambda: os.close(1) if kind == "closed" else None)
            self.does(host, b"b1\n")
            end = time.monotonic() + LIMIT
            while not os.path.exists("serv"):  # from then on SIGPIPE is ignored
                self.assertLess(time.monotonic(), end)
            time.sleep(0.05)
            os.close(read)
            os.close(write)
            if kind == "closed" and not RUN:  # an emulator has descriptors of its own
                taken = os.readlink("/proc/%d/fd/1" % host.pid)
                self.assertNotIn("eventfd", taken, "the console is what stops the server")
            self.does(host, b"l100\n")
            self.ends(host)
            with self.subTest(mode=mode, kind=kind):
                self.assertEqual(list(range(1, 101)), self.numbers())
                notices = LINE.sub(b"", self.text())
                self.assertRegex(notices, rb"\A(\[OFF.*dmn_serv.*------\n){2}\Z")
            os.unlink("serv")


if __name__ == "__main__":
    BIN = os.path.abspath(sys.argv.pop(1))
    RUN = os.environ.get("KELVARA_RUN", "").split()
    unittest.main(verbosity=2)
