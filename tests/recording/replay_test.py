"""kiroweb-replay as its user, and whoever else finds its port, meets it.

KIROWEB_REPLAY and KIROWEB_RECORDING_SAMPLE name the programs.
"""

import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest
import urllib.parse

PROGRAM = os.environ["KIROWEB_REPLAY"]
MIB = 1 << 20


class Replay(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.file = self.folder / "run.mcap"
        subprocess.run([os.environ["KIROWEB_RECORDING_SAMPLE"], self.file, "plain"], check=True)
        self.bytes = self.file.read_bytes()

    def start(self, *files, options=("--no-browser",), **how):
        """Serves these files; what it said until it had printed its link is in `self.said`."""
        errors = self.folder / "errors"
        with open(errors, "w") as log:
            self.program = subprocess.Popen([PROGRAM, *options, *files], stdout=subprocess.PIPE, stderr=log, text=True, **how)
        self.addCleanup(self.program.stdout.close)
        self.addCleanup(self.program.wait)
        self.addCleanup(self.program.kill)
        link = urllib.parse.urlsplit(self.program.stdout.readline())
        self.port, self.host = link.port, link.netloc
        self.errors = errors
        self.token, self.names = re.fullmatch(r"token=([0-9a-f]{64})&replay=(.+)\n?", link.fragment).groups()

    def connect(self, room=None):
        peer = socket.socket()
        if room:
            peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
        self.addCleanup(peer.close)
        peer.connect(("127.0.0.1", self.port))
        return peer

    def send(self, peer, target="/run.mcap", method="GET", body=b"", **fields):
        """A request with these fields in place of the usual ones; None: without."""
        usual = {"Host": self.host, "Authorization": f"Bearer {self.token}", "Range": "bytes=0-9"}
        lines = [f"{name.replace('_', '-')}: {value}" for name, value in {**usual, **fields}.items() if value is not None]
        peer.sendall("\r\n".join([f"{method} {target} HTTP/1.1", *lines, "", ""]).encode("latin-1") + body)

    def read(self, peer, has_body=True):
        """The next answer: status, fields, and as much of the body as comes."""
        stream = peer.makefile("rb")
        self.addCleanup(stream.close)
        status = stream.readline().split()
        fields = dict(line.decode().rstrip().split(": ", 1) for line in iter(stream.readline, b"\r\n") if line)
        length = int(fields.get("Content-Length", 0))
        return int(status[1]) if status else 0, fields, stream.read(length) if has_body else b""

    def ask(self, *arguments, **request):
        peer = self.connect()
        self.send(peer, *arguments, **request)
        return self.read(peer, request.get("method") != "HEAD")

    def test_shows_nobody_a_recording_without_the_token(self):
        self.start(self.file)
        ours, foreign = f"http://{self.host}", "http://127.0.0.1:1"
        turned = self.token[1:] + self.token[0]
        for status, request in [
                (206, {}),
                (206, {"Host": f"localhost:{self.port}"}),
                (206, {"Origin": ours}),
                (403, {"Authorization": None}),
                (403, {"Authorization": f"Bearer {turned}"}),
                (403, {"Authorization": f"Bearer {self.token}0"}),
                (403, {"Authorization": "Bearer "}),
                (403, {"Authorization": f"Digest {self.token}"}),
                (400, {"Authorization": f"Bearer {turned}\r\nAuthorization: Bearer {self.token}"}),
                (403, {"Authorization": None, "target": f"/run.mcap?token={self.token}"}),
                (403, {"Origin": foreign}),
                (403, {"Host": f"evil.example:{self.port}"}),
                (403, {"Host": "127.0.0.1"}),
                (400, {"Host": None}),
                (400, {"Host": f"{self.host}\r\nHost: evil.example"}),
                (403, {"Host": f"evil.example:{self.port}", "target": "/"}),
                (404, {"target": "/other.mcap"}),
                (403, {"target": "/other.mcap", "Authorization": None}),
                (404, {"target": f"/..{self.file}"}),
                (404, {"target": "/run.mcap%00"}),
                (400, {"target": "run.mcap"}),
                (400, {"target": "/run.mcap\x80"}),
                (400, {"Content_Length": "1", "body": b"x"}),
                (413, {"Content_Length": "129"}),
                (400, {"Transfer_Encoding": "chunked", "body": b"0\r\n\r\n"}),
                (405, {"method": "OPTIONS", "Origin": foreign, "Access_Control_Request_Headers": "authorization"}),
                (431, {"X": "x" * 9000}),
                (200, {"target": "/", "Authorization": None}),
                (200, {"target": "/page.js?x", "Authorization": None, "method": "HEAD"})]:
            with self.subTest(request):
                got, fields, body = self.ask(**request)
                self.assertEqual(got, status)
                self.assertEqual(body == self.bytes[:10], status == 206)
                self.assertEqual([name for name in fields if name.startswith("Access-Control")], [])
                self.assertRegex(fields["Content-Security-Policy"], "default-src 'none'.*connect-src 'self';.*frame-ancestors 'none'")
                self.assertEqual(fields["Cross-Origin-Resource-Policy"], "same-origin")
                self.assertEqual(fields["Cache-Control"], "no-store")

    def test_gives_one_range_of_what_is_there(self):
        self.start(self.file)
        size = len(self.bytes)
        peer = self.connect()  # one for all that is good
        for asked, first, last in [("0-0", 0, 0), (f"5-{size * 2}", 5, size - 1), (f"{size - 1}-", size - 1, size - 1),
                                   ("-7", size - 7, size - 1), (f"-{size + 1}", 0, size - 1),
                                   (f"0-{1 << 64}", 0, size - 1)]:
            for method in ("GET", "HEAD"):
                with self.subTest(asked, method=method):
                    self.send(peer, Range=f"bytes={asked}", method=method)
                    status, fields, body = self.read(peer, method == "GET")
                    self.assertEqual((status, fields["Content-Range"]), (206, f"bytes {first}-{last}/{size}"))
                    self.assertEqual(int(fields["Content-Length"]), last - first + 1)
                    self.assertEqual(body, self.bytes[first:last + 1] if method == "GET" else b"")
        for asked in (f"bytes={size}-", f"bytes={size}-{size}", "bytes=-0", f"bytes={1 << 64}-"):
            status, fields, _ = self.ask(Range=asked)
            self.assertEqual((status, fields["Content-Range"]), (416, f"bytes */{size}"))
        for asked in (None, "", "0-9", "bytes=", "bytes=-", "bytes=9-0", "bytes=0-1,3-4", "bytes=0-1-2", "bytes=+1-2",
                      "bytes= 0-1", "bytes=0x0-1", "bytes=--1", "lines=0-1",
                      "bytes=0-1\r\nRange: bytes=2-3"):
            with self.subTest(asked):
                self.assertEqual(self.ask(Range=asked)[0], 400)

    def make_large(self):
        """A recording that was not closed, and much that is none behind it."""
        with open(self.file, "r+b") as file:
            file.truncate(len(self.bytes) // 2)
            file.truncate(20 * MIB)

    def test_gives_a_bounded_part_at_once_and_survives_what_becomes_of_its_file(self):
        self.make_large()
        self.start(self.file)
        status, fields, body = self.ask(Range="bytes=0-")
        self.assertEqual((status, fields["Content-Range"]), (206, f"bytes 0-{8 * MIB - 1}/{20 * MIB}"))
        self.assertEqual(len(body), 8 * MIB)
        # Nothing else can have its name meanwhile.
        other = self.folder / "other"
        other.write_bytes(b"secret")
        moved = self.folder / "moved"
        self.file.rename(moved)
        self.file.symlink_to(other)
        self.assertEqual(self.ask()[2], self.bytes[:10])
        # More is under way than the two sockets hold.
        slow = self.connect(room=4096)
        self.send(slow, Range="bytes=0-")
        self.assertEqual(slow.recv(8), b"HTTP/1.1")
        os.truncate(moved, 100)
        rest = 0
        while got := slow.recv(MIB):
            rest += len(got)
        self.assertLess(rest, 8 * MIB)
        self.assertEqual(self.ask(Range="bytes=50-149")[0], 500)
        self.assertEqual(self.ask()[2], self.bytes[:10])

    def test_makes_room_for_who_asks(self):
        self.start(self.file)
        idle = [self.connect() for _ in range(40)]
        self.assertEqual(self.ask()[0], 206)
        self.assertEqual(idle[0].recv(1), b"")

    def test_names_are_plain_and_unique(self):
        for names, expected in [(["run.mcap"] * 2, "run.mcap,run-2.mcap"),
                                (["a b,ü.mcap", ".run"], "a_b___.mcap,_run"),
                                (["page.js", "page-2.js"], "page-2.js,page-2-2.js")]:
            files = [self.folder / name for name in names]
            for file in files:
                file.write_bytes(self.bytes)
            self.start(*files)
            self.assertEqual(self.names, expected)
            for name in expected.split(","):
                self.assertEqual(self.ask(f"/{name}")[2], self.bytes[:10])

    def test_its_browser_gets_a_link_that_is_good_once(self):
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        opener = self.folder / "xdg-open"
        opener.write_text(f"#!/bin/sh\n{{ echo $1; ls -l /proc/self/fd; }} > {pipe}\n")
        opener.chmod(0o755)
        self.start(self.file, options=(), env={**os.environ, "PATH": f"{self.folder}:{os.environ['PATH']}", "DISPLAY": ":0"})
        link, open_files = pipe.read_text().split("\n", 1)
        self.assertNotIn(self.token, link)
        self.assertNotIn("socket", open_files)
        code = re.search(r"#code=([0-9a-f]{64})&replay=run.mcap$", link)[1]
        exchange = {"target": "/kiroweb/token", "method": "POST", "Authorization": None, "Origin": f"http://{self.host}",
                    "Content_Length": "64", "body": code.encode()}
        for status, changed in [(403, {"Origin": None}), (403, {"Origin": "http://127.0.0.1:1"}), (403, {"Host": "a"}),
                                (405, {"method": "GET"}), (403, {"body": b"0" * 64}), (200, {}), (403, {})]:
            got, _, body = self.ask(**{**exchange, **changed})
            self.assertEqual((got, body == self.token.encode()), (status, status == 200))

    def test_ends_well_when_it_is_asked_to(self):
        self.make_large()
        for how in (signal.SIGINT, signal.SIGTERM):
            self.start(self.file)
            self.assertRegex(self.errors.read_text(), r"\Akiroweb-replay: .*run.mcap: offset \d+: [^\n]*\"kiroweb-record repair\"[^\n]*\n\Z")
            peer = self.connect()
            self.send(peer, Range="bytes=0-")
            self.assertEqual(peer.recv(4), b"HTTP")
            self.program.send_signal(how)
            self.assertEqual(self.program.wait(), 0)

    def test_says_what_is_wrong_in_one_line(self):
        taken = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(taken.close)
        text = self.folder / "text"
        text.write_text("nothing of the kind")
        foreign = self.folder / "foreign.mcap"
        foreign.write_bytes(b"\x89MCAP0\r\n\x01" + (9).to_bytes(8, "little") + b"\x01\0\0\0x\0\0\0\0")
        for status, words, *arguments in [
                (1, "offset 0: this is no recording", self.file, text),
                (1, "not a recording of kiroweb", foreign),
                (1, "cannot be read", self.folder),
                (1, "in use", f"--port={taken.getsockname()[1]}", self.file),
                (2, "see --help"),
                (2, "two recordings", self.file, self.file, self.file),
                (2, "--port 65536", self.file, "--port=65536")]:
            with self.subTest(arguments):
                got = subprocess.run([PROGRAM, "--no-browser", *arguments], text=True, capture_output=True)
                self.assertEqual((got.returncode, got.stdout), (status, ""))
                self.assertRegex(got.stderr, r"\Akiroweb-replay: [^\n]*\n\Z")
                self.assertIn(words, got.stderr)
        with open("/dev/full", "w") as full:
            for arguments in (["--help"], ["--no-browser", self.file]):
                self.assertEqual(subprocess.run([PROGRAM, *arguments], stdout=full, stderr=subprocess.DEVNULL).returncode, 3)


if __name__ == "__main__":
    unittest.main()
