"""The monitor as its user meets it: exit statuses, and one clear line for each thing that is wrong.

program_test.py [Program | Headless | Pages]: KIROWEB_MONITOR names the program; the module page is
to be found.
"""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest

from page import Page


def start(*arguments, **options):
    return subprocess.Popen([os.environ["KIROWEB_MONITOR"], *arguments], text=True, stderr=subprocess.PIPE,
                            **{"stdout": subprocess.PIPE, **options})


def end(process, ask=None):
    if ask is not None:
        process.send_signal(ask)
    out, error = process.communicate()
    return process.returncode, out, error


class Case(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def one_line(self, status, words, *arguments, **options):
        """It ends with this status, says these words in a single line, and nothing else."""
        with self.subTest(arguments):
            got, out, error = end(start(*arguments, **options))
            self.assertEqual(got, status, error)
            self.assertRegex(error, r"\Amonitor: [^\n]*\n\Z")
            self.assertFalse(out)
            for word in words:
                self.assertIn(word, error)


class Program(Case):
    def test_wrong_options(self):
        self.one_line(2, ["--frobnicate"], "--frobnicate")
        self.one_line(2, ["--frames", '"-1"'], "--headless", "--frames=-1")
        self.one_line(2, ["--timeout", "1000000000"], "--timeout=99999999999")
        self.one_line(2, ["--silent"], "--headless", "--silent", "--drop-token=2")

    def test_a_full_standard_output(self):
        with open("/dev/full", "w") as full:
            for arguments in [["--help"], ["--headless", "--frames=1", "--record=/dev/null"]]:
                status, _, error = end(start(*arguments, stdout=full))
                self.assertEqual(status, 3, arguments)
                self.assertRegex(error, r"monitor: standard output cannot be written: No space[^\n]*\n\Z")


class Headless(Case):
    def test_files_that_cannot_be_used(self):
        self.one_line(1, ["nowhere/", "--data"], "--headless", "--data=nowhere")
        self.one_line(1, ["/dev/full", "No space"], "--headless", "--record=/dev/full")

    def test_a_signal_ends_the_run_with_its_table(self):
        # The recording is written to a pipe, so it is known when the run has begun.
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        monitor = start("--headless", f"--record={pipe}", "--drop-token=1", "--timeout=1000", "--frames=9")
        with open(pipe, "rb") as recorded:
            recorded.read(8)
            monitor.send_signal(signal.SIGINT)
            recorded.read()
        status, out, _ = end(monitor)
        self.assertEqual(status, 1)
        self.assertRegex(out, r"\Aframes +\d+\n")
        self.assertRegex(out, r"\nwrong content +0\ninterrupted after \d+ of \d+ frames\nFAILED\n\Z")


class Pages(Case):
    def test_a_port_that_is_taken(self):
        first = start("--no-browser")
        port = first.stdout.readline().split(":")[2].split("/")[0]
        with tempfile.NamedTemporaryFile() as kept:
            kept.write(b"a recording")
            kept.flush()
            self.one_line(1, [f"--port {port}", "in use", "another"], "--no-browser", f"--port={port}",
                          f"--record={kept.name}")
            self.assertEqual(pathlib.Path(kept.name).read_bytes(), b"a recording")
        end(first, signal.SIGTERM)

    def test_a_signal(self):
        for status, *arguments in [(0,), (1, "--frames=5")]:
            with self.subTest(arguments):
                monitor = start("--no-browser", *arguments)
                monitor.stdout.readline()
                got, out, _ = end(monitor, signal.SIGINT)
                self.assertEqual(got, status)
                self.assertRegex(out, r"\A0 frames: 0 drawn.*; interrupted\n\Z")

    def test_frames_that_a_page_draws_fails_at_and_keeps(self):
        file = self.folder / "diagnostics.json"
        monitor = start("--no-browser", "--frames=4", "--speed=max", "--timeout=4", f"--diagnostics={file}")
        page = Page(monitor.stdout.readline().strip()).draw(2)
        page.publish("/services/ErrorLoggingService/JSErrors", "no\nink")
        page.draw(outcome="failed", error="no ink")
        page.take()
        status, out, error = end(monitor)
        self.assertEqual(status, 1)
        self.assertRegex(out, r"\A4 frames: 2 drawn, 1 failed, 1 timed out, 0 [^\n]*\n\Z")
        self.assertRegex(error, r"monitor: script error [^\n]*ink[^\n]*\nmonitor: client stalled: [^\n]*\n"
                                r"monitor: a flush timed out: token lost\n")
        bundle = json.loads(file.read_text())
        self.assertLess(bundle["started"], bundle["time"])
        self.assertEqual(bundle["options"]["timeout"], 4)
        self.assertTrue({"Sending ACT", "Timeout"} <= {record["Event"] for record in bundle["history"]})


if __name__ == "__main__":
    unittest.main()
