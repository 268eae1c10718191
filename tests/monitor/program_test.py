"""The monitor as its user meets it: exit statuses, and one clear line for each thing that is wrong.

program_test.py [Program | Headless | Pages | NoPages]: KIROWEB_MONITOR names the program, KIROWEB_PAGE the
folder with the page's files.
"""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest
import urllib.error
import urllib.request

MONITOR = os.environ["KIROWEB_MONITOR"]


def start(*arguments, **options):
    return subprocess.Popen([MONITOR, *arguments], text=True, stderr=subprocess.PIPE,
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
            # A place in a source file helps nobody.
            self.assertNotRegex(error, r"\[system|\.[ch]pp")
            for word in words:
                self.assertIn(word, error)


class Program(Case):
    def test_help_and_version(self):
        status, out, error = end(start("--help"))
        self.assertEqual((status, error), (0, ""))
        for number in range(4):
            self.assertRegex(out, rf"\n  {number}  ")
        self.assertRegex(end(start("--version"))[1], r"\Amonitor \d+\.\d+\.\d+\n\Z")

    def test_wrong_options(self):
        for words, *arguments in [
            (["--frobnicate"], "--frobnicate"),
            (['"stray"'], "--headless", "stray"),
            (["--frames", '"-1"'], "--headless", "--frames=-1"),
            (["--frames", "missing"], "--frames"),
            (["--frames", "once"], "--frames=1", "--frames=2"),
            (["--duration", '"0"'], "--duration=0"),
            (["--speed", "max", '"fast"'], "--speed=fast"),
            (["--speed", "0.000001"], "--speed=1e-300"),
            (["--timeout", "1000000000"], "--timeout=99999999999"),
            (["--timeout 0"], "--headless", "--silent", "--timeout=0"),
            (["--silent"], "--headless", "--silent", "--drop-token=2"),
            (["--drop-token", "--headless"], "--drop-token=3"),
            (["--port", "65535", '"65536"'], "--port=65536"),
            (["--remind", "or 0", '"-1"'], "--remind=-1"),
            *[([f"--{name}"], "--headless", f"--{name}=1")
              for name in ("port", "remind", "client", "diagnostics")],
            (["--no-browser"], "--headless", "--no-browser"),
        ]:
            self.one_line(2, words, *arguments)

    def test_a_full_standard_output(self):
        with open("/dev/full", "w") as full:
            for arguments in [["--help"], ["--version"], ["--headless", "--frames=1", "--record=/dev/null"]]:
                status, _, error = end(start(*arguments, stdout=full))
                self.assertEqual(status, 3, arguments)
                self.assertRegex(error, r"monitor: standard output cannot be written: No space[^\n]*\n\Z")


class Headless(Case):
    def test_files_that_cannot_be_used(self):
        self.one_line(1, ["nowhere/", "--data"], "--headless", "--data=nowhere")
        self.one_line(1, ["nowhere/file", "No such file"], "--headless", "--record=nowhere/file")
        self.one_line(1, ["/dev/full", "No space"], "--headless", "--record=/dev/full")

    def test_a_signal_ends_the_run_with_its_table(self):
        for ask, arguments in [(signal.SIGINT, []), (signal.SIGTERM, ["--drop-token=1000"]),
                               (signal.SIGINT, ["--silent", "--timeout=1000", "--frames=9"])]:
            with self.subTest(arguments):
                # The first frame is written to a pipe, so it is known when it has been sent.
                pipe = self.folder / "pipe"
                os.mkfifo(pipe)
                monitor = start("--headless", f"--record={pipe}", *arguments)
                with open(pipe) as recorded:
                    recorded.readline()
                    monitor.send_signal(ask)
                    recorded.read()
                status, out, _ = end(monitor)
                self.assertEqual(status, 1)
                self.assertRegex(out, r"\Aframes +\d+\n")
                self.assertRegex(out, r"\nwrong content +0\ninterrupted after \d+ of \d+ frames\nFAILED\n\Z")
                pipe.unlink()

    def test_a_run_that_proves_nothing(self):
        status, out, error = end(start("--headless", "--speed=max", "--frames=3", "--fail-block=999"))
        self.assertEqual((status, error), (1, "frame 3 of 3\n"))
        self.assertIn("too few frames: no block failed\n", out)


class NoPages(Case):
    def test_a_build_without_the_gateway(self):
        self.one_line(2, ["without the gateway", "--headless"], "--no-browser")


class Pages(Case):
    def setUp(self):
        super().setUp()
        # The page without its packages, which only a browser would need.
        page = pathlib.Path(os.environ["KIROWEB_PAGE"])
        self.page = self.folder / "page"
        shutil.copytree(page, self.page, ignore=shutil.ignore_patterns("node_modules"))
        packages = self.page / "node_modules/uplot/dist"
        packages.mkdir(parents=True)
        for name in ("uPlot.esm.js", "uPlot.min.css"):
            (packages / name).touch()
        self.arguments = ["--no-browser", f"--client={self.page}"]

    def start(self, *arguments, **options):
        return start(*self.arguments, *arguments, **options)

    def test_what_cannot_be_used(self):
        self.one_line(1, ["nowhere/", "--data"], *self.arguments, "--data=nowhere")
        self.one_line(1, ["nowhere/file", "No such file"], *self.arguments,
                      "--diagnostics=nowhere/file")
        self.one_line(1, ["nowhere/index.html", "--client"], "--no-browser", "--client=nowhere")

    def test_files_beside_the_page_that_are_not_its_own(self):
        monitor = self.start()
        address = monitor.stdout.readline().split("#")[0]
        for name, wanted in [("page.mjs", 200), ("eslint.config.mjs", 404), ("package.json", 404)]:
            with self.subTest(name):
                try:
                    status = urllib.request.urlopen(address + name).status
                except urllib.error.HTTPError as error:
                    status = error.code
                self.assertEqual(status, wanted)
        end(monitor, signal.SIGTERM)

    def test_a_port_that_is_taken(self):
        first = self.start()
        port = first.stdout.readline().split(":")[2].split("/")[0]
        self.one_line(1, [f"--port {port}", "in use", "another"], *self.arguments, f"--port={port}")
        end(first, signal.SIGTERM)

    def test_the_link_without_a_standard_output(self):
        with open("/dev/full", "w") as full:
            self.one_line(3, ["standard output", "No space"], *self.arguments, stdout=full)

    def test_a_signal(self):
        for status, *arguments in [(0,), (1, "--frames=5"), (1, "--duration=500")]:
            with self.subTest(arguments):
                monitor = self.start(*arguments)
                monitor.stdout.readline()
                got, out, _ = end(monitor, signal.SIGINT)
                self.assertEqual(got, status)
                self.assertRegex(out, r"\A0 frames: 0 drawn.*; interrupted\n\Z")

    def test_the_link_is_repeated_as_long_as_nobody_comes(self):
        monitor = self.start("--remind=0.001")
        link = monitor.stdout.readline()
        self.assertRegex(link, r"\Ahttp://127\.0\.0\.1:\d+/")
        self.assertEqual([monitor.stdout.readline() for _ in range(3)], [link] * 3)
        self.assertIn("nobody has come yet", monitor.stderr.readline())
        end(monitor, signal.SIGINT)

    def test_a_frame_that_timed_out(self):
        file = self.folder / "diagnostics.json"
        status, out, error = end(self.start("--frames=1", "--timeout=1", "--remind=0",
                                            f"--diagnostics={file}"))
        self.assertEqual(status, 1)
        self.assertRegex(out, r"\A[^\n]*\n1 frames: 0 drawn, 0 failed, 1 timed out, [^\n]*\n\Z")
        self.assertEqual(error, "monitor: a flush timed out: no client yet\n")
        bundle = json.loads(file.read_text())
        self.assertLess(bundle["started"], bundle["time"])
        self.assertEqual(bundle["options"]["timeout"], 1)
        events = [record["Event"] for record in bundle["history"]]
        self.assertTrue({"Sending ACT", "Timeout"} <= set(events), events)
        self.assertEqual(sorted(bundle["history"], key=lambda record: record["Time"]), bundle["history"])

    def test_diagnostics_that_cannot_be_written_do_not_end_the_run(self):
        _, out, error = end(self.start("--frames=1", "--timeout=1", "--diagnostics=/dev/full"))
        self.assertIn("monitor: /dev/full: cannot be written: No space", error)
        self.assertIn("1 frames", out)


if __name__ == "__main__":
    unittest.main()
