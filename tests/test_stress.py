# SPDX-License-Identifier: MIT
"""The services under fire: slow and dead clients, sinks that fail, a host that is killed.

python3 test_stress.py PROGRAM [unittest arguments]; PROGRAM is what stress_host.cpp makes.

KELVARA_RUN holds a command to put before it (an emulator), KELVARA_PEERS how many clients there
are at once, KELVARA_ROUNDS how often they are sent fifty messages, and KELVARA_KILLS how often the
host is killed. Nothing here depends on how fast a program is.
"""
import glob
import os
import random
import re
import resource
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

LIMIT = 60
BURST, SIZE = 50, 256  # messages that every socket takes without being read, and their bytes
LINE = re.compile(rb"^\[OFF:\d\d:\d\d:\d\d\.\d{8} {12}host 0001\] <(\d{8}) 0{80}>\n", re.M)


def setting(name, default):
    return int(os.environ.get(name, default))


class Host:
    """The program, and what it has reported."""

    def __init__(self, path, mode=0, naming=0, writes=10000, console=0, file=0, log="", **options):
        self.process = subprocess.Popen(
            RUN + [BIN, path] + [str(n) for n in (mode, naming, writes, console, file)] + [log],
            stdin=subprocess.PIPE, stderr=subprocess.PIPE,
            **dict({"stdout": subprocess.DEVNULL}, **options))
        self.started = self.report("started")

    def report(self, word):
        late = threading.Timer(LIMIT, self.process.kill)
        late.start()
        try:
            for line in self.process.stderr:
                if line.startswith(word.encode()):
                    return int(line.split()[1]) if line.split()[1:] else 0
        finally:
            late.cancel()
        raise AssertionError("the host is gone, or does not get on")

    def ask(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()

    def do(self, text):
        self.ask(text)
        self.report("done")

    def end(self):
        self.process.stdin.close()
        stopped = self.report("stopped")
        assert self.process.wait(LIMIT) == 0
        self.process.stderr.close()
        return stopped

    def kill(self):
        """What it had reported until then."""
        self.process.kill()
        said = self.process.stderr.read()
        self.process.wait()
        self.process.stdin.close()
        self.process.stderr.close()
        return said


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="stress")
        self.addCleanup(folder.cleanup)
        self.dir = folder.name
        self.children = []

    def host(self, *args, **options):
        host = Host(*args, **options)
        self.addCleanup(lambda: host.process.poll() is None and host.kill())
        return host

    def child(self, text):
        """A process of its own that runs a piece of Python against the server, endlessly."""
        process = subprocess.Popen(
            [sys.executable, "-c", "import os, socket, sys, time\n"
             "def connected():\n"
             "  one = socket.socket(socket.AF_UNIX)\n"
             "  one.connect(%r)\n"
             "  return one\n" % self.path + text], stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (process.kill(), process.wait(), process.stdout.close()))
        process.stdout.readline()  # it is there
        return process


class Peers(Case):
    """Clients of every bad kind at once, and many good ones, who get everything."""

    def connected(self, count):
        found = []
        while len(found) < count:
            one = socket.socket(socket.AF_UNIX)
            self.addCleanup(one.close)
            end = time.monotonic() + LIMIT
            while one.connect_ex(self.path) != 0:
                self.assertLess(time.monotonic(), end, "nobody listens")
                time.sleep(0.01)
            found.append(one)
        return found

    def admitted(self, socks):
        """Sends single messages until all have got one, and then reads what else there is."""
        left, end = list(socks), time.monotonic() + LIMIT
        while left:
            self.assertLess(time.monotonic(), end)
            self.burst(1)
            left = [one for one in left if not self.drained(one)]
        for one in socks:
            self.drained(one)

    def drained(self, sock):
        got = b""
        try:
            while True:
                got += sock.recv(1 << 20, socket.MSG_DONTWAIT)
        except BlockingIOError:
            return got

    def burst(self, count=BURST):
        """The numbers of the messages, and the longest call in ns."""
        self.instance.ask("b%d %d" % (count, SIZE))
        longest = self.instance.report("longest")
        self.instance.report("done")
        first, self.sent = self.sent, self.sent + count
        return b"".join(b"<%08d%s>" % (k, b"." * (SIZE - 10)) for k in range(first, self.sent)), \
            longest

    def rounds(self, healthy, count):
        """Bursts that all of the good ones get whole; the longest call."""
        poll = select.epoll()
        self.addCleanup(poll.close)
        for number, one in enumerate(healthy):
            poll.register(one, select.EPOLLIN)
        by_fd = {one.fileno(): one for one in healthy}
        longest = 0
        for _ in range(count):
            wanted, took = self.burst()
            longest = max(longest, took)
            left, end = dict.fromkeys(by_fd, 0), time.monotonic() + LIMIT
            while left:
                self.assertLess(time.monotonic(), end, "%d got less" % len(left))
                for fd, _ in poll.poll(1):
                    data = by_fd[fd].recv(len(wanted))
                    at = left[fd]
                    self.assertEqual(data, wanted[at:at + len(data)])
                    self.assertTrue(data, "a good client was dropped")
                    left[fd] = at + len(data)
                    if left[fd] == len(wanted):
                        del left[fd]
        return longest

    def test_slow_and_dead_ones(self):
        most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        self.path = os.path.join(self.dir, "serv")
        self.sent = 0
        self.instance = host = self.host(self.path)
        count = min(setting("KELVARA_PEERS", 2000), most - 200)
        healthy = self.connected(count - count // 10)
        self.admitted(healthy)
        alone = self.rounds(healthy, 2)

        # Fifty of each: those that never read are ours, the others processes. Good ones come later
        # than they, too.
        deaf = self.connected(50)
        self.admitted(deaf)
        stopped = self.child("socks = [connected() for _ in range(50)]\nprint(flush=True)\n"
                             "while True: time.sleep(1)\n")
        stopped.send_signal(signal.SIGSTOP)
        self.child("print(flush=True)\nwhile True: connected().close()\n")
        self.child("socks = [connected() for _ in range(50)]\nprint(flush=True)\n"
                   "while True:\n"
                   "  for one in socks:\n"
                   "    one.setblocking(False)\n"
                   "    try: one.send(os.urandom(65536))\n"
                   "    except OSError: pass\n")
        run, killed = threading.Event(), []

        def vanish():
            while not run.is_set():
                dead = self.child("socks = [connected() for _ in range(10)]\n"
                                  "print(flush=True)\nwhile True: time.sleep(1)\n")
                dead.kill()
                killed.append(dead.wait())

        reaper = threading.Thread(target=vanish)
        reaper.start()
        try:
            healthy += self.connected(count // 10)
            self.admitted(healthy)
            before = self.sent
            under = self.rounds(healthy, setting("KELVARA_ROUNDS", 5))
        finally:
            run.set()
            reaper.join()
        lost = []
        for one in deaf:
            whole = re.findall(rb"<(\d{8})\.{%d}>" % (SIZE - 10), self.drained(one))
            lost.append(self.sent - before - sum(int(k) >= before for k in whole))
        stop = host.end()
        print("%d good clients, %d messages; longest call %.2f ms with them alone, %.2f ms with the bad "
              "ones;\na client that never reads lost %d to %d; %d processes killed; the stop took %.1f ms"
              % (count, self.sent, alone / 1e6, under / 1e6, min(lost), max(lost), len(killed),
                 stop / 1e6))
        self.assertGreater(len(killed), 0)
        self.assertLess(under, 10e9, "a bad client held the sender up")
        self.assertLess(stop, 5e9)


class Sinks(Case):
    """Log files and consoles that fail. A line that the host reports is one whose call is over."""

    def setUp(self):
        super().setUp()
        self.logs = os.path.join(self.dir, "logs")
        os.mkdir(self.logs)

    def log(self, *args, **options):
        return self.host("-", *args, log=self.logs + "/l", **options)

    def text(self):
        """All log files' contents, oldest first."""
        names = sorted(glob.glob(self.logs + "/*"), key=lambda name: os.stat(name).st_mtime_ns)
        found = []
        for name in names:
            with open(name, "rb") as file:
                found.append(file.read())
        found.sort(key=lambda data: LINE.search(data).group(1) if LINE.search(data) else b"~")
        return found

    def numbers(self):
        """The whole lines of files that were not cut at a rotation."""
        return [int(k) for k in LINE.findall(b"\n".join(self.text()))]

    def test_killed_at_any_moment(self):
        """Files rotate at every other line; the writer thread's lines may be in the pipe."""
        dice = random.Random(7)
        kills = [setting("KELVARA_KILLS", 40), 0]
        for turn in range(kills[0]):
            naming, mode = turn % 2, turn // 2 % 2
            for name in glob.glob(self.logs + "/*"):
                os.unlink(name)
            host = self.log(mode=mode, naming=naming, writes=2, file=1)
            host.ask("l100000000")
            reported = [int(host.process.stderr.readline()) for _ in range(dice.randrange(2, 60))]
            reported += [int(k) for k in re.findall(rb"(\d+)\n", host.kill())]
            said = reported[-1] + 1
            files = self.text()
            whole = [int(k) for k in LINE.findall(b"".join(files))]
            with self.subTest(turn=turn, mode=mode, naming=naming, reported=said):
                # One stretch without a gap, with nothing behind it but a line on its way.
                self.assertEqual(whole, list(range(whole[0], whole[-1] + 1)) if whole else [])
                self.assertGreaterEqual(len(whole), min(said, 2) if mode == 0 else 0)
                rest = LINE.sub(b"", b"".join(files))
                self.assertLess(len(rest), 300)
                self.assertNotIn(b"\n", rest if mode == 0 else b"")
                if mode == 0:
                    self.assertIn((whole or [-1])[-1] - said, (-1, 0))
                if naming == 0:
                    self.assertLessEqual(len(files), 2)
                elif whole:
                    self.assertEqual(whole[0], 0)
                kills[1] += len(whole)
        print("%d kills between rotations: all %d lines of the files whole" % tuple(kills))
        self.assertGreater(kills[1], 0)

    def test_full_disk(self):
        """At a file size limit a write is cut short, the next one fails; later there is room."""
        host = self.log(file=1, preexec_fn=lambda: signal.signal(signal.SIGXFSZ, signal.SIG_IGN))
        host.do("l20")
        limit = len(b"".join(self.text())) + 30
        most = resource.getrlimit(resource.RLIMIT_FSIZE)[1]
        resource.prlimit(host.process.pid, resource.RLIMIT_FSIZE, (limit, most))
        host.do("l20")
        self.assertEqual(len(b"".join(self.text())), limit)
        resource.prlimit(host.process.pid, resource.RLIMIT_FSIZE, (most, most))
        host.do("l20")
        host.end()
        text = b"".join(self.text())
        self.assertEqual(self.numbers()[:20], list(range(20)))
        self.assertEqual(sorted(map(int, re.findall(rb"<(\d{8}) 0{80}>\n", text))),
                         list(range(20)) + list(range(40, 60)))

    def test_folder_goes_and_comes(self):
        host = self.log(file=1, writes=10)
        host.do("l10")
        self.assertEqual(self.numbers(), list(range(10)))
        for name in glob.glob(self.logs + "/*"):
            os.unlink(name)
        os.rmdir(self.logs)
        host.do("l5")  # the rotation has nowhere to go: file output ends
        os.mkdir(self.logs)
        host.do("l5")
        self.assertEqual(self.text(), [])
        host.do("r")  # until the next start
        host.do("l5")
        host.end()
        self.assertEqual(self.numbers(), list(range(20, 25)))

    def test_console_is_gone(self):
        """Closed before the start, a pipe that nobody reads any more, or a full device."""
        serv = os.path.join(self.dir, "serv")
        for mode in (0, 1):
            for kind in ("closed", "pipe", "full"):
                for name in glob.glob(self.logs + "/*"):
                    os.unlink(name)
                ends, full = os.pipe(), os.open("/dev/full", os.O_WRONLY)
                options = {"preexec_fn": lambda: os.close(1)} if kind == "closed" else \
                    {"stdout": ends[1] if kind == "pipe" else full}
                # The pipe's reader leaves when SIGPIPE is ignored, as in a host with a server.
                host = self.host(serv, mode, 0, 1000, 1, 1, self.logs + "/l", **options)
                end = time.monotonic() + LIMIT
                while not os.path.exists(serv):
                    self.assertLess(time.monotonic(), end)
                time.sleep(0.05)
                for fd in ends + (full,):
                    os.close(fd)
                if kind == "closed" and not RUN:  # an emulator has descriptors of its own
                    taken = os.readlink("/proc/%d/fd/1" % host.process.pid)
                    self.assertNotIn("eventfd", taken, "the console is what stops the server")
                host.do("l100")
                host.end()
                with self.subTest(mode=mode, kind=kind):
                    text = b"".join(self.text())
                    self.assertRegex(LINE.sub(b"", text), rb"\A(\[OFF.*dmn_serv.*------\n){2}\Z")
                    self.assertEqual(self.numbers(), list(range(100)))
                os.unlink(serv)


if __name__ == "__main__":
    BIN = os.path.abspath(sys.argv.pop(1))
    RUN = os.environ.get("KELVARA_RUN", "").split()
    unittest.main(verbosity=2)
