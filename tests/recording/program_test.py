"""kiroweb-record and kiroweb-export as their user meets them, and a recording whose program was killed.

KIROWEB_RECORD, KIROWEB_EXPORT and KIROWEB_MONITOR name the programs.
"""

import fcntl
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest


def run(*arguments, program="KIROWEB_RECORD", **options):
    got = subprocess.run([os.environ[program], *arguments], text=True, stderr=subprocess.PIPE,
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

        with open(self.file) as written:
            fcntl.flock(written, fcntl.LOCK_EX)
            for more in [(), ("-o", self.file)]:
                status, said, error = run("repair", self.file, *more)
                self.assertEqual((status, said), (1, ""))
                self.assertIn("somebody is writing it", error)
        self.assertEqual(self.file.read_bytes(), before)
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

    def export(self, *arguments, **options):
        return run(*arguments, program="KIROWEB_EXPORT", **options)

    def test_tables_of_a_run_are_made_whole_or_not_at_all(self):
        subprocess.run([os.environ["KIROWEB_MONITOR"], "--headless", f"--record={self.file}", "--frames=40",
                        "--speed=max"], stdout=subprocess.DEVNULL, check=True)
        tables = self.folder / "tables"
        self.assertEqual(self.export(self.file, "--csv", tables), (0, f"{tables}: 3 tables\n", ""))
        last = {path.name: path.read_text() for path in tables.iterdir()}
        self.assertEqual(sorted(last), ["1-line-3.csv", "2-outline-7.csv", "3-depth-in-km.csv"])
        self.assertEqual(self.export(self.file, "--csv", self.folder / "early", "--frame=0")[0], 0)
        early = (self.folder / "early" / "1-line-3.csv").read_text().splitlines()
        # The electrocardiogram, 360 times a second.
        self.assertEqual(early[:3], ["x,y", "0,-0.245", "0.002777777777777778,-0.215"])
        self.assertEqual(last["1-line-3.csv"].splitlines()[:len(early)], early)
        self.assertGreater(last["1-line-3.csv"].count("\n"), len(early))

        kept = sorted(path.name for path in self.folder.iterdir())
        damaged = self.folder / "damaged.mcap"
        data = bytearray(self.file.read_bytes())
        data[len(data) // 3] ^= 1
        damaged.write_bytes(data)
        cut = self.folder / "cut.mcap"
        cut.write_bytes(self.file.read_bytes()[:-100])
        out = self.folder / "out.html"
        out.write_text("as it was")
        for words, *arguments in [
                (r"tables: cannot be written: .*", self.file, "--csv", tables),
                (r"damaged.mcap: offset \d+: .*", damaged, "--csv", self.folder / "new"),
                (r"damaged.mcap: offset \d+: .*", damaged, "-o", out),
                (r"cut.mcap: offset \d+: .*kiroweb-record repair.*", cut, "-o", out),
                (r"no frame 40: they are 0 to 39", self.file, "--csv", self.folder / "new", "--frame=40"),
                (r"behind the end, .* s", self.file, "-o", out, "--from=9999"),
                (r"a single frame takes more than 9000 bytes|built without the page", self.file, "-o", out, "--most=9k"),
                (r"there is no chromium on the PATH", self.file, "-o", out, "--png=3")]:
            with self.subTest(arguments):
                status, said, error = self.export(*arguments, env={"PATH": "", **{
                    name: value for name, value in os.environ.items() if name != "PATH"}})
                self.assertEqual((status, said), (1, ""))
                self.assertRegex(error, rf"\Akiroweb-export: [^\n]*(?:{words})\n\Z")
        programs = self.folder / "bin"
        programs.mkdir()
        (programs / "chromium").write_text("#!/bin/sh\nexit 1\n")
        (programs / "chromium").chmod(0o755)
        status, said, error = self.export(self.file, "-o", out, "--png=3", env={**os.environ, "PATH": str(programs)})
        self.assertEqual((status, said), (1, ""))
        self.assertRegex(error, r"\Akiroweb-export: (the browser has ended|.*built without the page[^\n]*)\n\Z")
        self.assertEqual(out.read_text(), "as it was")
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()),
                         sorted(["bin", *kept, "damaged.mcap", "cut.mcap", "out.html"]))

    def test_an_export_says_which_option_is_wrong(self):
        for words, *arguments in [
                ("one file", "-o", "x"), ("one file", "a", "b", "-o", "x"), ("-o OUT", "a"),
                ("-o is for", "a", "-o", "x", "--csv", "y"), ("two things", "a", "--csv", "y", "--png=1"),
                ("are for a page", "a", "--csv", "y", "--from=1"), ("are for a page", "a", "-o", "x", "--png=1", "--to=1"),
                ("--frame is for --csv", "a", "-o", "x", "--frame=1"), ("before --from", "a", "-o", "x", "--from=2", "--to=1"),
                ("not '-1'", "a", "-o", "x", "--from=-1"), ("not 'nan'", "a", "-o", "x", "--from=nan"),
                ("not '5T'", "a", "-o", "x", "--most=5T"), ("not 'G'", "a", "-o", "x", "--most=G"),
                ("not 'x'", "a", "-o", "x", "--png=x"), ("--mend", "a", "-o", "x", "--mend")]:
            with self.subTest(arguments):
                status, out, error = self.export(*arguments)
                self.assertEqual((status, out), (2, ""))
                self.assertRegex(error, r"\Akiroweb-export: [^\n]*\n\Z")
                self.assertIn(words, error)
        self.assertIn("Usage: kiroweb-export FILE", self.export("--help")[1])


if __name__ == "__main__":
    unittest.main()
