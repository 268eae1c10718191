"""kiroweb-record as its user meets it, and a recording whose program was killed.

KIROWEB_RECORD and KIROWEB_MONITOR name the programs.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest


def run(*arguments, **options):
    got = subprocess.run([os.environ["KIROWEB_RECORD"], *arguments], text=True, stderr=subprocess.PIPE,
                         **{"stdout": subprocess.PIPE, **options})
    return got.returncode, got.stdout, got.stderr


class Program(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.file = self.folder / "run.mcap"

    def killed_run(self):
        """What a monitor had written when it was killed while it drew."""
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        monitor = subprocess.Popen([os.environ["KIROWEB_MONITOR"], "--headless", f"--record={pipe}", "--frames=100000",
                                    "--speed=max"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with open(pipe, "rb") as recorded:
            begun = recorded.read(2_000_000)  # more than a chunk
            monitor.send_signal(signal.SIGKILL)
            self.file.write_bytes(begun + recorded.read())
        monitor.wait()

    def test_a_run_that_was_killed_is_repaired_up_to_its_last_whole_chunk(self):
        self.killed_run()
        self.file.chmod(0o640)
        before = self.file.read_bytes()
        status, table, error = run("info", self.file)
        self.assertEqual(status, 1)
        self.assertRegex(table, r"\nframes +[1-9]\d* +\d+\n")
        self.assertRegex(error, r"\Akiroweb-record: [^\n]*run.mcap: offset \d+: the file ends [^\n]*\n\Z")

        other = self.folder / "other.mcap"
        status, said, error = run("repair", self.file, "-o", other)
        self.assertEqual((status, error), (0, ""))
        self.assertRegex(said, r"other.mcap: \d+ messages, up to .* UTC; left out from here on: .*: offset \d+: [^\n]*\n\Z")
        self.assertEqual(self.file.read_bytes(), before)
        self.assertEqual(run("info", other), (0, table, ""))

        self.assertEqual(run("repair", self.file)[0], 0)
        self.assertEqual(self.file.read_bytes(), other.read_bytes())
        self.assertEqual(self.file.stat().st_mode & 0o777, 0o640)
        self.assertEqual(run("repair", self.file), (0, f"{self.file}: is whole\n", ""))
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["other.mcap", "pipe", "run.mcap"])

    def test_says_what_is_wrong_in_one_line(self):
        self.file.write_text("nothing of the kind")
        foreign = self.folder / "foreign.mcap"
        foreign.write_bytes(b"\x89MCAP0\r\n\x01" + (9).to_bytes(8, "little") + b"\x01\0\0\0x\0\0\0\0")
        left = foreign.read_bytes()
        for status, words, *arguments in [
                (1, "offset 0: this is no recording", "info", self.file),
                (1, "offset 0: this is no recording", "repair", self.file),
                (1, "nowhere: cannot be read: No such file", "info", "nowhere"),
                (1, "not a recording of kiroweb", "repair", foreign),
                (2, "see --help", "info"),
                (2, "see --help", "mend", self.file),
                (2, "--frobnicate", "info", self.file, "--frobnicate"),
                (2, "-o is for repair", "info", self.file, "-o", "x")]:
            with self.subTest(arguments):
                got, out, error = run(*arguments)
                self.assertEqual((got, out), (status, ""))
                self.assertRegex(error, r"\Akiroweb-record: [^\n]*\n\Z")
                self.assertIn(words, error)
        self.assertEqual(foreign.read_bytes(), left)
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["foreign.mcap", "run.mcap"])
        with open("/dev/full", "w") as full:
            self.assertEqual(run("--help", stdout=full)[0], 3)


if __name__ == "__main__":
    unittest.main()
