"""Those who lose the cluster, and those who are put out of it, while all stream as in faults_test.py."""

import signal
import unittest

import faults_test
from faults_test import PAGES, SLOWNESS, until

NODES = ("node-1", "node-2", "node-3")


class Access(faults_test.Streaming):
    def begin(self) -> None:
        super().begin()
        # They may have come to the session while its last engine had just gone.
        self.earlier = {name: self.silences(name) for name in self.pages}

    def silences(self, gateway: str) -> int:
        return self.pages[gateway].ask("phase told")["counts"].get("engine silent", 0)

    def told(self, *gateways: str) -> bool:
        """Whether all pages there have been told that their engine is silent."""
        return all(self.silences(name) >= self.earlier[name] + PAGES for name in gateways)

    def stays_quiet(self, gateway: str) -> None:
        """Its pages get nothing of what the engine publishes from now on, for half a second."""
        texts = lambda: self.pages[gateway].ask("phase quiet")["counts"]["texts"]
        had, published = texts(), self.engine.ask("report")["texts"]
        until(lambda: self.engine.ask("report")["texts"] >= published + faults_test.TEXTS // 2, "it publishes")
        self.assertEqual(texts(), had)


class Lost(Access):
    """Two nodes die that are all that somebody knows of."""

    def lose(self, *without: str) -> None:
        self.begin()
        self.cluster.kill("node-1", "node-2")
        self.assertLess(until(lambda: self.told(*without), "pages are told"), 2 * SLOWNESS)
        others = [name for name in self.pages if name not in without]
        if others:
            self.streams(*others)
        self.cluster.start("node-1", "node-2")
        self.streams()
        self.rest()
        self.assertEqual(self.losses(), self.before)

    def test_the_pages_of_a_gateway_are_told_and_catch_up(self):
        self.cluster.kill("gateway-two")
        self.cluster.write("gateway-two", "gateway.conf", (1, 2), name="two", tls="off",
                           port=self.cluster.ports["gateway-two"])
        self.cluster.start("gateway-two")
        self.lose("two")

    def test_all_pages_of_an_engine_are_told_and_catch_up(self):
        self.engine.process.kill()
        servers = ",".join(f"127.0.0.1:{self.cluster.ports[name]}" for name in NODES[:2])
        self.engine = self.start_engine(way={"servers": servers})
        self.lose("one", "two")


class PutOut(Access):
    """Users are taken out of what the nodes know."""

    def put_out(self, user: str, kept: str, log) -> None:
        (self.cluster.folder / f"users/{user}.conf").unlink()
        self.cluster.files(*kept.split("-"))  # makes nobody, but writes the nodes' list
        for node in NODES:
            self.cluster.signal(node, signal.SIGHUP)
        until(lambda: any(f'authentication error - User "{user}"' in self.cluster.log(node) for node in NODES),
              "a node says so")
        until(lambda: any("no node of the cluster" in line and "Authorization Violation" in line for line in log()),
              "so does the one that is refused")

    def test_nothing_comes_from_or_goes_to_whoever_is_put_out(self):
        self.begin()
        self.put_out("gateway-two", "session-alpha", lambda: self.cluster.log("gateway-two").splitlines())
        until(lambda: self.told("two"), "its pages are told")
        self.stays_quiet("two")
        self.streams("one")
        self.put_out("session-alpha", "session-beta", lambda: self.engine.log)
        until(lambda: self.told("one"), "its pages are told")
        self.stays_quiet("one")


if __name__ == "__main__":
    unittest.main(warnings="ignore")  # see faults_test.py
