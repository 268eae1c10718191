"""What the jobs with a load have in common: their arguments, the engine and the pages, the figures."""

import argparse
import contextlib
import json
import os
import pathlib
import queue
import signal
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = ROOT / "build/release/bin"
CANNOT_RUN = 77

findings: list[str] = []
replay = ""


def found(what: str) -> None:
    findings.append(what)
    print(f"finding: {what} ({replay})", flush=True)


def read_arguments(job: str, what: str) -> argparse.Namespace:
    class Parser(argparse.ArgumentParser):
        def error(self, message: str):
            self.exit(2, f"{job}: {message}, see --help\n")

    parser = Parser(prog=f"proofs/{job}/run", description=what)
    form = parser.add_mutually_exclusive_group(required=True)
    form.add_argument("--short", action="store_true", help="the form that ./check runs")
    form.add_argument("--minutes", type=float, metavar="N", help="not counting what it builds")
    parser.add_argument("--seed", type=int, help="of an earlier run")
    given = parser.parse_args()
    if given.minutes is not None and not 0 < given.minutes <= 100_000:
        parser.error(f"--minutes {given.minutes:g}: not above 0 and up to 100000")
    if given.seed is None:
        given.seed = time.time_ns() // 1_000_000_000 % 1_000_000
    form = "--short" if given.short else f"--minutes {given.minutes:g}"
    global replay
    replay = f"proofs/{job}/run {form} --seed {given.seed}"
    return given


def build() -> None:
    for command in (["cmake", "--preset", "release"],
                    ["cmake", "--build", "--preset", "release", "--target",
                     "kiroweb_prove_engine", "kiroweb_prove_pages", "kiroweb_gateway_program"]):
        done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if done.returncode != 0:
            sys.exit(done.stdout.decode(errors="replace"))


def until(what, text: str, patience=20.0) -> float:
    """Looks again and again until it is so, and returns how many seconds that took."""
    began = time.monotonic()
    while not what():
        if time.monotonic() > began + patience:
            raise RuntimeError(f"in vain: {text}")
        time.sleep(0.02)
    return time.monotonic() - began


def go_first() -> None:
    """Whatever else the machine does is not what is measured, as far as that can be had."""
    with contextlib.suppress(PermissionError):
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))


def go_last() -> None:
    os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))


class Program:
    """A program that answers each line with one. It ends with its input, so also with this process."""

    def __init__(self, command: list[str], settings: dict, is_measured=True):
        self.name = settings.get("name", "engine")
        self.process = subprocess.Popen([*command, json.dumps(settings)], text=True, bufsize=1,
                                        preexec_fn=None if is_measured else go_last,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.answers: queue.Queue = queue.Queue()
        self.log: list[str] = []
        threading.Thread(target=self.read, daemon=True).start()

    def read(self) -> None:
        for line in self.process.stdout:
            said = json.loads(line)
            if "finding" in said:
                found(said["finding"])
            elif "log" in said:
                self.log.append(said["log"])
            else:
                self.answers.put(said)
        self.answers.put(None)

    def say(self, command: str) -> None:
        self.process.stdin.write(command + "\n")

    def answer(self) -> dict:
        said = self.answers.get(timeout=60)
        if said is None:
            raise RuntimeError(f"{self.name} has ended with {self.process.wait()}")
        return said

    def ask(self, command: str) -> dict:
        self.say(command)
        return self.answer()

    def end(self) -> None:
        self.process.stdin.close()
        if self.process.wait(20) != 0:
            found(f"{self.name} ended with {self.process.returncode}")


def engine(inside=(), **settings) -> tuple[Program, str]:
    """`inside` is the beginning of a command that runs another one elsewhere."""
    defaults = {"address": "127.0.0.1", "port": 0, "hosts": [], "queueSize": 64 << 20,
                "linkFile": "", "token": ""}
    program = Program([*inside, str(PROGRAMS / "kiroweb_prove_engine")], defaults | settings)
    return program, program.answer()["link"]


def pages(link: str, inside=(), **settings) -> Program:
    host, port = link.split("/")[2].split(":")
    defaults = {"link": link, "address": host, "port": int(port), "mayLose": False, "mayEnd": False,
                "mayBeSlow": False, "isWild": False, "silence": 60_000, "gone": 1000}
    return Program([*inside, str(PROGRAMS / "kiroweb_prove_pages")], defaults | settings)


def run(main) -> None:
    """Ends with the outcome; a signal ends it as an exception does, and so its programs."""
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda given, _: sys.exit(128 + given))
    status = None
    try:
        status = main()
    except (OSError, RuntimeError, queue.Empty, subprocess.SubprocessError) as error:
        found(f"{type(error).__name__}: {error}")
    sys.exit(int(bool(findings)) if status is None else status)
