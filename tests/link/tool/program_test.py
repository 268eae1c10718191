"""The gateway's program as its user meets it: exit statuses, one clear line for each thing that is wrong,
and what it serves. program_test.py PROGRAM UNIT"""

import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
import urllib.error
import urllib.request

UNIT = pathlib.Path(sys.argv.pop())
PROGRAM = sys.argv.pop()
ROOT = pathlib.Path(__file__).resolve().parents[3]
# Nothing listens there: the gateway serves all the same.
GOOD = "name = east\ntls = off\nport = 0\nservers = 127.0.0.1:1\ncluster-tls = off\n"


def status_of(address):
    try:
        with urllib.request.urlopen(address) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()


class Program(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.config = pathlib.Path(folder.name) / "gateway.conf"

    def run_it(self, *arguments):
        done = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout, done.stderr

    def test_tells_what_it_is(self):
        status, out, _ = self.run_it("--help")
        self.assertEqual(status, 0)
        for key in ("servers", "status-port", "--config", "Exit status"):
            self.assertIn(key, out)
        self.assertRegex(self.run_it("--version")[1], r"\Akiroweb-gateway \d+\.\d+\.\d+\n\Z")

    def test_names_what_is_wrong(self):
        for text, word in (
            (GOOD + "pages = x\n", "pages = x"),
            (GOOD.replace("cluster-tls = off\n", ""), "no TLS to 127.0.0.1:1"),
            (GOOD + "credentials = /none\n", "/none"),
        ):
            with self.subTest(text):
                self.config.write_text(text, encoding="utf-8")
                status, out, error = self.run_it("--config", str(self.config))
                self.assertEqual((status, out), (2, ""))
                self.assertRegex(error, rf"\Akiroweb-gateway: [^\n]*{re.escape(word)}[^\n]*\n\Z")
        for arguments in ((), ("--colour",), ("/none",), ("a", "b")):
            with self.subTest(arguments):
                self.assertEqual(self.run_it(*arguments)[0], 2)
        self.config.write_text(GOOD + "status-address = 192.0.2.1\n", encoding="utf-8")
        status, _, error = self.run_it(str(self.config))
        self.assertEqual(status, 1)
        self.assertIn("192.0.2.1", error)

    def test_serves_until_it_is_told_to_stop(self):
        self.config.write_text(GOOD, encoding="utf-8")
        with subprocess.Popen([PROGRAM, str(self.config)], stderr=subprocess.PIPE, text=True) as process:
            said = {}
            while "status" not in said:
                line = process.stderr.readline()
                event, detail = re.search(r'event="([^"]*)"(?: detail="([^"]*)")?', line).groups()
                said[event] = detail
            status, text = status_of(said["status"] + "/healthz")
            self.assertEqual((status, text), (503, "not connected to the cluster\n"))
            status, text = status_of(said["status"] + "/metrics")
            self.assertEqual(status, 200)
            self.assertIn("\nkiroweb_gateway_pages 0\n", text)
            self.assertEqual(status_of(said["status"] + "/")[0], 404)
            self.assertEqual(status_of(said["serving"] + "/s/none/")[0], 200)
            for path in ("/", "/s/", "/metrics"):
                self.assertEqual(status_of(said["serving"] + path)[0], 404)
            process.send_signal(signal.SIGTERM)
            self.assertEqual(process.wait(), 0)

    def test_its_service_is_handed_all_that_its_configuration_names(self):
        folder = pathlib.Path(self.config.parent, "cluster")
        for what in (["nodes", "127.0.0.1"], ["gateway", "east"]):
            subprocess.run([ROOT / "deploy/cluster-files", folder, *what], check=True)
        config = (folder / "gateway-east/gateway.conf").read_text(encoding="utf-8")
        unit = UNIT.read_text(encoding="utf-8")
        named = re.findall("^(?:credentials|ca|certificate|key) = (.*)$", config, re.M)
        named += re.findall("^ExecStart=.* --config (.*)$", unit, re.M)
        self.assertEqual(len(named), 5)
        handed = re.findall("^LoadCredential=(.*):/etc/kiroweb/.*$", unit, re.M)
        self.assertEqual(sorted(named), sorted(f"/run/credentials/{UNIT.name}/{name}" for name in handed))
        if not shutil.which("systemd-analyze"):
            return
        tried = pathlib.Path(self.config.parent, UNIT.name)
        tried.write_text(re.sub("(?<=^ExecStart=)[^ ]*", str(PROGRAM), unit, flags=re.M), encoding="utf-8")
        done = subprocess.run(["systemd-analyze", "verify", tried], capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))


if __name__ == "__main__":
    unittest.main()
