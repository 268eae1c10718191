"""An engine, two gateways and three nodes, each a process of its own, with pages that check all that they
get. Nodes, gateways and the engine are ended and hung while it streams."""

import os
import pathlib
import signal
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT / "proofs/common"))
import load  # noqa: E402
from cluster import Cluster, settle  # noqa: E402

load.PROGRAMS = pathlib.Path(os.environ["KIROWEB_PROGRAMS"])
TEXTS, BLOCKS = 5000, 20  # a second
SLOWNESS = float(os.environ.get("KIROWEB_SLOWNESS", "1"))  # of programs that are sanitized
PATIENCE = 20 * SLOWNESS  # seconds; only what has failed takes as long
PAGES = 3  # of each gateway


def until(what, text: str) -> float:
    return load.until(what, text, PATIENCE)


class Streaming(unittest.TestCase):
    """What is the same for all: everything runs and streams. Each test harms something, and all that the
    engine published afterwards has to come, in order and once."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="kiroweb-faults-")
        cls.cluster = Cluster(cls.folder.name, ("one", "two"), ("alpha", "beta"), {})
        cls.addClassCleanup(cls.folder.cleanup)
        cls.addClassCleanup(lambda: cls.cluster.kill(*cls.cluster.running))

    def setUp(self):
        load.findings.clear()
        missing = [name for name in self.cluster.ports if name not in self.cluster.running]
        self.cluster.start(*missing)
        self.engine = self.start_engine()
        self.pages = {name: self.start_pages(name) for name in ("one", "two")}

    def start_engine(self, session="alpha", credentials="", **settings) -> load.Program:
        engine = self.cluster.engine(session, credentials, texts=TEXTS, blocks=BLOCKS, **settings)
        self.addCleanup(engine.process.wait)
        self.addCleanup(engine.process.kill)
        return engine

    def start_pages(self, gateway: str) -> load.Program:
        pages = self.cluster.pages(gateway, "alpha", pages=PAGES, seed=1, mayLose=True, mayEnd=True)
        self.addCleanup(pages.process.wait)
        self.addCleanup(pages.process.kill)
        return pages

    def begin(self) -> None:
        self.settle()
        self.before = self.losses()
        self.engine.ask("go")
        self.streams()

    def settle(self) -> None:
        settle(self.engine, list(self.pages.values()), 2 * PAGES, PATIENCE)

    def streams(self, *gateways: str) -> None:
        """Until pages have what is published from now on, for half a second."""
        wanted = self.engine.ask("report")["texts"] + TEXTS // 2
        until(lambda: self.engine.ask("report")["texts"] >= wanted, "the engine publishes")
        for name in gateways or self.pages:
            self.pages[name].ask(f"until {wanted}")

    def phase(self, name: str) -> None:
        for pages in self.pages.values():
            pages.ask(f"phase {name}")

    def rest(self, *gateways: str) -> dict:
        """Ends the stream: each page has to have all of it. Returns what the engine says."""
        last = self.engine.ask("rest")
        for name in gateways or self.pages:
            self.pages[name].ask(f"until {last['texts']}")
        until(lambda: (now := self.engine.ask("report"))["delivered"] + now["givenBack"] == now["blocks"],
              "blocks are answered")
        self.assertEqual(load.findings, [])
        ended = [name for name, process in self.cluster.running.items() if process.poll() is not None]
        self.assertEqual(ended, [], "by themselves")
        return self.engine.ask("report")

    def losses(self) -> list[dict]:
        """How often pages have lost something by now, of each gateway."""
        kinds = ("connections lost", "cut off", "returns")
        counts = [pages.ask("phase after")["counts"] for pages in self.pages.values()]
        return [{kind: each.get(kind, 0) for kind in kinds} for each in counts]

    def undisturbed(self) -> None:
        """Nobody has lost a connection or a view, or been told that a frame did not arrive."""
        self.assertEqual(self.rest()["givenBack"], 0)
        self.assertEqual(self.losses(), self.before)

    def slowest(self, phase: str, gateway: str) -> float:
        """Seconds from the engine to a page, of the text that took longest."""
        delays = self.pages[gateway].ask("phase after")["delays"][phase]
        return max(delay for delay, _ in delays) / 100_000


class Faults(Streaming):
    def test_any_node_may_die_and_come_back(self):
        self.begin()
        for node in ("node-1", "node-2"):  # the engine's, and the gateways'
            self.phase(node)
            self.cluster.kill(node)
            self.streams()
            self.cluster.start(node)
            self.streams()
            for gateway in self.pages:
                self.assertLess(self.slowest(node, gateway), 0.5 * SLOWNESS, node)
        self.undisturbed()

    def test_two_of_three_nodes_may_die(self):
        self.begin()
        self.cluster.kill("node-1", "node-2")
        self.streams()
        self.cluster.start("node-1", "node-2")
        self.streams()
        self.undisturbed()

    def test_a_node_that_hangs_is_left(self):
        self.begin()
        for node in ("node-1", "node-2"):
            self.phase(node)
            self.cluster.signal(node, signal.SIGSTOP)
            self.streams()
            self.cluster.signal(node, signal.SIGCONT)
            self.streams()
            for gateway in self.pages:
                self.assertLess(self.slowest(node, gateway), 3 * SLOWNESS, node)
        # After a second a gateway counts as gone, so blocks may have been given back.
        self.rest()
        self.assertEqual(self.losses(), self.before)

    def test_a_gateway_may_die(self):
        self.begin()
        self.phase("gateway-one")
        self.cluster.kill("gateway-one")
        self.streams("two")
        self.assertLess(self.slowest("gateway-one", "two"), 0.5 * SLOWNESS)
        self.cluster.start("gateway-one")
        self.settle()
        self.streams()
        self.rest()

    def test_a_new_engine_goes_on_when_one_has_died(self):
        self.begin()
        self.engine.process.kill()
        told = lambda: all(pages.ask("phase gone")["counts"].get("engine silent", 0) >= PAGES
                           for pages in self.pages.values())
        self.assertLess(until(told, "the pages are told"), 2 * SLOWNESS)
        self.engine = self.start_engine()
        self.settle()
        self.engine.ask("go")
        self.streams()
        self.rest()

    def test_all_may_come_before_the_cluster(self):
        self.cluster.kill("node-1", "node-2", "node-3")
        engine = self.start_engine("beta")
        until(lambda: any("trying on" in line and str(self.cluster.ports["node-1"]) in line
                          for line in engine.log), "the addresses are named")
        self.cluster.start("node-1", "node-2", "node-3")
        self.begin()
        self.rest()

    def test_nobody_takes_part_in_a_session_with_the_credentials_of_another(self):
        self.begin()
        impostor = self.start_engine(credentials="session-beta")
        until(lambda: any("Permissions Violation" in line for line in impostor.log), "it is refused")
        impostor.ask("go")
        self.streams()
        self.assertEqual(impostor.ask("rest")["delivered"], 0)
        self.assertIn("session-beta", self.cluster.log("node-1"))
        self.undisturbed()


if __name__ == "__main__":
    unittest.main(warnings="ignore")  # programs that were killed leave their pipes to the collector
