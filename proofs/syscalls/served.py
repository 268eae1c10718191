"""A program that serves figures, the pages that visit it, and what proofs about them have in common."""

import argparse
import contextlib
import http.client
import os
import pathlib
import random
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = ROOT / "build/release/bin"
sys.path.insert(0, str(ROOT / "tests/support"))
import page  # noqa: E402

PATIENCE = 15.0  # seconds; what takes longer hangs
LIFE = 8 * PATIENCE  # of a program, unless it is allowed more: with it ends whatever waits for it
socket.setdefaulttimeout(PATIENCE)
# What a page raises that was cut off, refused or kept waiting, or got what it could not read.
FAILURES = (OSError, ValueError, LookupError, TypeError, AssertionError, http.client.HTTPException)


class Failure(Exception):
    """What was found: the promise that does not hold."""


class Hang(Failure):
    pass


def require(holds, what):
    if not holds:
        raise Failure(what)


class Visitor(page.Page):
    """A page that counts: no message may be missing or come twice."""

    def __init__(self, link, frames=1):
        self.due, self.end = None, time.monotonic() + PATIENCE
        super().__init__(link)
        self.draw(frames)

    def take(self):
        self.end = time.monotonic() + PATIENCE
        return super().take()

    def receive(self, message):
        if message == b"":
            if time.monotonic() > self.end:  # a socket that gets pings is never silent for long
                raise TimeoutError("nothing comes but pings")
            self.stream.write(b"\x8a\x80\0\0\0\0")  # it was a ping
            return self.stream.flush()
        if isinstance(message, bytes):
            assert message[:2] == b"\1\1", f"closed: {message[2:]}"
            self.count(int.from_bytes(message[8:16], "little"), 1)
        elif message[0].isdigit():
            number, *records = message.split("\x1e")
            self.count(int(number), len(records))
        super().receive(message)

    def count(self, first, size):
        assert self.due in (None, first), f"message {first} in the place of {self.due}"
        self.due = first + size

    def follow(self, frame):
        """Draws what comes until it has seen this frame."""
        while self.frame["frame"] < frame:
            self.draw()

    def leave(self):
        self.stream.write(b"\x88\x82\0\0\0\0\x03\xe8")
        self.stream.close()


class Program:
    """One that is started, and is gone whatever happens."""

    def __init__(self, command, environment, **how):
        self.log = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=self.log, env={**os.environ, **environment}, **how)
        self.is_overdue, self.watch = False, None
        self.allow()

    def allow(self):
        """It may live for this long from now on."""
        if self.watch:
            self.watch.cancel()
        self.watch = threading.Timer(LIFE, self.give_up)
        self.watch.daemon = True
        self.watch.start()

    def give_up(self):
        self.is_overdue = True
        self.process.kill()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.watch.cancel()
        self.process.kill()
        with contextlib.suppress(subprocess.TimeoutExpired):  # others may hold its output open
            self.process.communicate(timeout=PATIENCE)
        self.log.close()

    def link(self):
        """The first line of its output; empty when it has ended without."""
        if not select.select([self.process.stdout], [], [], 2 * PATIENCE)[0]:
            raise Hang("it says nothing")
        line = self.process.stdout.readline().decode().strip()
        if not line:
            self.process.wait(PATIENCE)
        return line

    def end(self, ask=signal.SIGTERM):
        """Its status, output and errors."""
        if ask is not None:
            self.process.send_signal(ask)
        try:
            out = self.process.communicate(timeout=2 * PATIENCE)[0]
        except subprocess.TimeoutExpired:
            raise Hang("it does not end") from None
        if self.is_overdue:
            raise Hang(f"it was not over after {LIFE:g} s")
        self.log.seek(0)
        return self.process.returncode, out.decode(errors="replace"), self.log.read().decode(errors="replace")


class Arguments(argparse.ArgumentParser):
    """Those of every proof."""

    def __init__(self, job, description):
        super().__init__(prog=f"proofs/{job}/run", description=description)
        self.job = job
        self.form = self.add_mutually_exclusive_group(required=True)
        self.form.add_argument("--short", action="store_true", help="what takes seconds")
        self.form.add_argument("--minutes", type=float, metavar="N", help="as much as is done in this time")
        self.add_argument("--seed", type=int, default=random.randrange(1 << 32), help="of all that is chosen")

    def error(self, message):
        self.exit(2, f"{self.job}: {message}, see --help\n")

    def read(self):
        given = self.parse_args()
        if given.minutes is not None and not given.minutes > 0:
            self.error("--minutes: not above 0")
        return given


def carry_out(command, **how):
    """Runs what ends by itself; returns what came of it."""
    try:
        return subprocess.run(command, timeout=2 * PATIENCE, **how)
    except subprocess.TimeoutExpired:
        raise Hang(f"{command[0]} does not end") from None


def build(targets):
    for command in ("cmake --preset release", f"cmake --build --preset release --target {targets}"):
        subprocess.run(command.split(), cwd=ROOT, check=True, stdout=subprocess.DEVNULL)


def begin(main):
    """Runs a proof's main; asked to end, it tidies up."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
