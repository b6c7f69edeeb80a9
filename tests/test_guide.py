# SPDX-License-Identifier: MIT
"""Types the guide's trial as it stands, in its order, and compares what each terminal shows.

python3 test_guide.py SOURCE; the trial is made in a copy of it.
"""
import os
import pty
import re
import select
import shutil
import signal
import sys
import tempfile
import time

LIMIT = 120  # seconds for a command, of which only the build needs many


def shown(text):
    """What a line of the guide stands for, as a pattern."""
    pattern = r"\s+".join(map(re.escape, text.split()))
    pattern = pattern.replace("hh:mm:ss", r"\d\d:\d\d:\d\d")
    return re.sub(r"\bN+\b|\bu+\b", r"\\d+", pattern)


class Terminal:
    def __init__(self, folder):
        self.process, self.fd = pty.fork()
        if self.process == 0:
            os.chdir(folder)
            os.execvpe("bash", ["bash", "--norc", "-i"], dict(os.environ, PS1="ready> ", HISTFILE=""))
        self.text = ""
        self.wait("ready> ")

    def wait(self, pattern):
        """Until the pattern is there; what stands before it is done with."""
        end = time.monotonic() + LIMIT
        while (found := re.search(pattern, self.text)) is None:
            if not select.select([self.fd], [], [], max(0, end - time.monotonic()))[0]:
                sys.exit(f"the guide promises {pattern!r}, but this is shown:\n{self.text}")
            self.text += os.read(self.fd, 65536).decode(errors="replace").replace("\r", "")
        self.text = self.text[found.end():]

    def expect(self, lines):
        for line in lines:
            self.wait(shown(line.replace("^C", "")))

    def type(self, text):
        os.write(self.fd, text.encode())

    def end(self):
        os.kill(self.process, signal.SIGKILL)  # between two prompts a shell can miss any other signal
        os.close(self.fd)
        os.waitpid(self.process, 0)


def main():
    source = sys.argv[1]
    with open(os.path.join(source, "docs/writing.md")) as file:
        trial = file.read().split("### Try it")[1].split("\n## ")[0]
    blocks = [[line[4:] for line in block.splitlines()]
              for block in re.findall(r"(?:^    .*\n)+", trial, re.M)]
    build, watchdog, daemon, client = blocks
    stop = next(n for n, line in enumerate(daemon) if line.startswith("^C"))
    with tempfile.TemporaryDirectory(prefix="guide") as work:
        copy = os.path.join(work, "kelvara")
        shutil.copytree(source, copy, ignore=shutil.ignore_patterns("build", ".git"))
        first = Terminal(copy)
        for line in build:
            first.type(line[2:] + "\n")
            first.wait("ready> ")
        first.type("echo left $?\n")
        first.wait("left 0")
        terminals = [Terminal(os.path.join(copy, "build/trial")) for _ in range(3)]
        for terminal, block in zip(terminals, (watchdog, daemon[:stop], client)):
            terminal.type(block[0][2:] + "\n")
            if block is not watchdog:
                terminal.expect(block[1:])
            time.sleep(0.5)  # nobody types the next command faster
        terminals[0].expect(watchdog[1:])
        terminals[1].type("\x03")
        terminals[1].expect(daemon[stop:])
        terminals[2].wait("ready> ")  # the client ends with the daemon
        terminals[0].type("\x03")
        terminals[0].wait("ready> ")
        for terminal in [first] + terminals:
            terminal.end()
    print("typed, and shown:", sum(map(len, blocks)), "lines")


main()
