#!/usr/bin/env python3
"""What many machines cost, on this one: three nodes, gateways, engines and pages, each a process of its own.

    bench/link/figures.py [--quick] [TEXT]

  --quick  one short round: shows that everything works, the figures mean little
  TEXT     only the figures whose name contains it
"""

import contextlib
import os
import pathlib
import secrets
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "proofs/common"))
import load  # noqa: E402
from cluster import Cluster  # noqa: E402

GATEWAYS, SESSIONS = 10, 100
TICKS, PAGE_SIZE = os.sysconf("SC_CLK_TCK"), os.sysconf("SC_PAGE_SIZE")
TOKEN = secrets.token_hex(32)
PATIENCE = 60  # seconds; only what has failed takes as long


def processor(process: subprocess.Popen) -> float:
    """Seconds that it ran."""
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def memory(process: subprocess.Popen) -> int:
    """Bytes that it holds of the machine's."""
    return int(pathlib.Path(f"/proc/{process.pid}/statm").read_text().split()[1]) * PAGE_SIZE


def print_row(figure, unit, measured, floor=None, wanted=None) -> None:
    """As `kiroweb_link_bench` prints them; what is wanted is the most that the ratio may be."""
    row = f"{figure:<20} {unit:<13} {measured:10.1f}"
    if floor is not None:
        ratio = measured / floor
        row += f" {floor:10.1f} {ratio:6.2f}"
        if wanted is not None:
            row += f"  <= {wanted:<6.2f} {'yes' if ratio <= wanted else 'no'}"
    print(row, flush=True)


class Bench:
    def __init__(self, folder: str, quick: bool):
        self.seconds = 1 if quick else 8
        self.rounds = 1 if quick else 2
        self.most_pages = 50 if quick else 1000
        self.sessions = 10 if quick else SESSIONS
        names = tuple(f"g{i}" for i in range(1, GATEWAYS + 1))
        sessions = tuple(f"s{i}" for i in range(1, SESSIONS + 1))
        self.cluster = Cluster(folder, (*names, "bare"), ("bench", "bare", *sessions),
                               {"pages": 2000, "sessions": 2 * SESSIONS})
        for session in ("bench", "bare", *sessions):
            self.cluster.write(f"session-{session}", "link.conf", (1, 2, 3), session=session)
        self.cluster.write("gateway-bare", "link.conf", (2, 3, 1), session="bare")
        self.cluster.start("node-1", "node-2", "node-3")
        time.sleep(3)  # until they have found each other

    # --- Processes ---

    @contextlib.contextmanager
    def gateways(self, count: int):
        names = [f"gateway-g{i}" for i in range(1, count + 1)]
        self.cluster.start(*names)
        yield [self.cluster.running[name] for name in names]
        self.cluster.kill(*names)

    @contextlib.contextmanager
    def engine(self, session="bench", **settings):
        settings = {"texts": 2000, "blocks": 10, "milliseconds": {}, "token": TOKEN,
                    "linkFile": str(self.cluster.folder / f"session-{session}/link.conf")} | settings
        engine, link = load.engine(**settings)
        engine.link = link
        with self.ending(engine):
            yield engine

    def pages(self, number: int, pages: int, session="bench", link=""):
        """At the gateway of that number."""
        port = self.cluster.ports[f"gateway-g{number}"]
        link = link or f"http://127.0.0.1:{port}/s/{session}/#token={TOKEN}"
        return self.ending(load.pages(link, name=f"{session}-{number}-{pages}-", pages=pages, seed=number,
                                      mayLose=True, mayEnd=True))

    @contextlib.contextmanager
    def ending(self, program: load.Program):
        try:
            yield program
        finally:
            program.process.kill()
            program.process.wait()

    def until(self, what, text: str) -> None:
        began = time.monotonic()
        while not what():
            if time.monotonic() > began + PATIENCE:
                raise RuntimeError(f"in vain: {text}")
            time.sleep(0.05)

    def settle(self, engine, *pages) -> None:
        for each in pages:
            each.ask("settle")
        self.until(lambda: engine.ask("report")["gateway"]["pages"] > 0, "the engine knows its pages")

    def took(self, groups: dict) -> dict:
        """Percent of a processor that the processes of each group have from now on, for some seconds."""
        before, began = {name: sum(map(processor, all)) for name, all in groups.items()}, time.monotonic()
        time.sleep(self.seconds)
        seconds = time.monotonic() - began
        return {name: round((sum(map(processor, all)) - before[name]) / seconds * 100, 1)
                for name, all in groups.items()}

    def stream(self, name: str, engine, gateways: list, *pages) -> dict:
        """Streams, says what that took, and sees to it that the pages had all of it."""
        nodes = [self.cluster.running[f"node-{i}"] for i in (1, 2, 3)]
        groups = {"engine": [engine.process], "nodes": nodes, "gateways": gateways}
        engine.ask("go")
        time.sleep(1)
        before = engine.ask("report")
        began = time.monotonic()
        took = self.took(groups)
        after, seconds = engine.ask("report"), time.monotonic() - began
        last = engine.ask("rest")
        for each in pages:
            each.ask(f"until {last['texts']}")
        texts = after["texts"] - before["texts"]
        sent = {key: (after["gateway"].get(key, 0) - before["gateway"].get(key, 0)) / seconds
                for key in ("bytesSent", "framesSent")}
        print(f"# {name}: {texts / seconds:.0f} texts/s, {sent['framesSent']:.0f} frames/s, "
              f"{sent['bytesSent'] / 1000:.0f} kB/s; {took}", flush=True)
        return {"cost": took["engine"] / 100 * seconds / texts * 1e6, "publish": after["publishMicroseconds"]}

    # --- Figures ---

    def link(self, arguments: list) -> None:
        """Texts, blocks and round trips."""
        program = str(load.PROGRAMS / "kiroweb_link_bench")
        environment = os.environ | {"KIROWEB_BENCH_FOLDER": str(self.cluster.folder),
                                    "KIROWEB_BENCH_PORT": str(self.cluster.ports["gateway-g1"])}
        answers = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", program, "--answer"],
                                   env=environment, stdout=subprocess.PIPE)
        with self.gateways(1):
            answers.stdout.readline()
            subprocess.run([program, *arguments], env=environment, check=True)
        answers.kill()
        answers.wait()

    def many_gateways(self) -> None:
        costs = {1: [], GATEWAYS: []}
        for count in [*costs] * self.rounds:
            with contextlib.ExitStack() as all:
                gateways = all.enter_context(self.gateways(count))
                engine = all.enter_context(self.engine())
                pages = [all.enter_context(self.pages(i, 1)) for i in range(1, count + 1)]
                self.settle(engine, *pages)
                costs[count].append(self.stream(f"gateways, {count}", engine, gateways, *pages)["cost"])
        print_row(f"{GATEWAYS} gateways, engine", "us/text", *map(statistics.mean, (costs[GATEWAYS], costs[1])),
                  wanted=1.3)

    def many_pages(self) -> None:
        publishes, growth = {}, 0
        with contextlib.ExitStack() as all:
            gateways = all.enter_context(self.gateways(2))
            # Before all others: on a machine of its own it would not wait for a processor.
            load.go_first()
            engine = all.enter_context(self.engine(texts=40, blocks=0.01))
            load.go_last()
            pages = []
            there = 0
            for now in (2, self.most_pages // 4, self.most_pages):
                more, there = (now - there) // 2, now
                before = sum(map(memory, gateways))
                for i in (1, 2):
                    pages.append(all.enter_context(self.pages(i, more)))
                self.settle(engine, *pages)
                growth = (sum(map(memory, gateways)) - before) / (2 * more)
                publishes[now] = self.stream(f"pages, {now}", engine, gateways, *pages)["publish"]
        print_row("page, two gateways", "kB", growth / 1000, self.embedded_page() / 1000)
        print_row(f"publish p99, {self.most_pages}", "us", publishes[self.most_pages], publishes[2])

    def embedded_page(self) -> float:
        """Bytes of a page at a gateway in the engine's process."""
        more = self.most_pages // 5 - 1  # it takes 250
        with self.engine(linkFile="") as engine, self.pages(1, 1, link=engine.link) as first:
            self.settle(engine, first)
            before = memory(engine.process)
            with self.pages(1, more, link=engine.link) as others:
                self.settle(engine, others)
                return (memory(engine.process) - before) / more

    def many_sessions(self) -> None:
        with contextlib.ExitStack() as all:
            (gateway,) = all.enter_context(self.gateways(1))
            names = [f"s{i}" for i in range(1, self.sessions + 1)]
            engines = [all.enter_context(self.engine(name, texts=100, blocks=1)) for name in names]
            time.sleep(3)
            self.rest("heard", gateway, engines)
            before = memory(gateway)
            pages = [all.enter_context(self.pages(1, 1, name)) for name in names]
            for engine, page in zip(engines, pages):
                self.settle(engine, page)
            grown = (memory(gateway) - before) / self.sessions
            self.rest("followed", gateway, engines)
            print_row(f"one of {self.sessions} sessions", "kB", grown / 1000)

    def rest(self, name: str, gateway, engines: list) -> None:
        """What sessions cost in which nothing happens."""
        groups = {"engines": [engine.process for engine in engines], "gateway": [gateway],
                  "nodes": [self.cluster.running[f"node-{i}"] for i in (1, 2, 3)]}
        took = self.took(groups)
        print(f"# sessions, {self.sessions} {name}: {took}", flush=True)


def main() -> None:
    words = [word for word in sys.argv[1:] if word != "--quick"]
    if words and (words[0].startswith("-") or len(words) > 1):
        sys.exit(__doc__)
    with tempfile.TemporaryDirectory(prefix="kiroweb-bench-") as folder:
        bench = Bench(folder, "--quick" in sys.argv)
        try:
            bench.link(sys.argv[1:])
            for name in ("many_gateways", "many_pages", "many_sessions"):
                if not words or words[0] in name.replace("_", " "):
                    getattr(bench, name)()
        finally:
            bench.cluster.kill(*bench.cluster.running)
    sys.exit(int(bool(load.findings)))


if __name__ == "__main__":
    main()
