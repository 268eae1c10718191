"""The examples as their user meets them. KIROWEB_EXAMPLES names the programs' folder; the module page
is to be found."""

import math
import os
import signal
import subprocess
import unittest

from page import Page


class Examples(unittest.TestCase):
    def start(self, name):
        """Starts a program; returns its page."""
        program = os.path.join(os.environ["KIROWEB_EXAMPLES"], name)
        # No browser: there is no graphical session.
        env = {key: value for key, value in os.environ.items() if not key.endswith("DISPLAY")}
        self.process = subprocess.Popen([program], stdout=subprocess.PIPE, text=True, env=env)
        self.addCleanup(self.process.stdout.close)
        self.addCleanup(self.process.kill)
        return Page(self.process.stdout.readline().strip())

    def end(self):
        self.process.send_signal(signal.SIGINT)
        self.assertEqual(self.process.wait(), 0)

    def almost(self, values, expected):
        self.assertEqual(len(values), len(expected))
        self.assertLess(max(abs(a - b) for a, b in zip(values, expected)), 1e-5)

    def test_histogram(self):
        page = self.start("histogram").draw(50)
        bars, curve = page.of("bars")[0], page.of("line")[0]
        self.assertEqual(bars["regular"], [-3.875, 0.25])
        self.assertEqual(page.of("axes")[0]["title"], "5000 samples")
        self.assertAlmostEqual(sum(bars["data"]["y"]), 5000, delta=5)
        self.assertAlmostEqual(sum(curve["data"]["y"]), 5000, delta=5)
        self.assertGreater(bars["data"]["y"][15], 300)
        self.end()

    def test_image(self):
        page = self.start("image").draw()
        image = page.of("image")[0]
        self.assertEqual((image["rows"], image["columns"], image["limits"]), (256, 256, [-2, 2]))
        first = list(image["data"]["z"])
        # In the middle both sources are equally far.
        self.assertAlmostEqual(first[128 * 256 + 128], 2 * math.sin(12), places=5)
        page.draw()
        self.assertNotEqual(first, image["data"]["z"])
        self.end()

    def test_map(self):
        page = self.start("map").draw()
        axes, coast, cities = page.of("axes")[0], page.of("outline")[0], page.of("scatter")[0]
        self.assertTrue(axes["picks"])
        self.assertGreater(len(coast["data"]["x"]), 5000)
        self.assertTrue(any(map(math.isnan, coast["data"]["y"])))
        page.event("pick", axes=axes["id"], x=36, y=-1, series=cities["id"], index=1)
        picked = page.draw().of("text")[0]
        self.assertEqual((picked["text"], picked["at"]), ("Nairobi", [36, -1]))
        page.event("pick", axes=axes["id"], x=0, y=0)
        self.assertEqual(page.draw().of("text")[0]["text"], "no city")
        self.end()

    def test_controls(self):
        page = self.start("controls").draw()

        def voltage(frequency, amplitude):
            return [amplitude * math.sin(2 * math.pi * frequency * i / 1000) for i in range(1000)]

        def use(kind, value=None):
            page.event("control", id=page.of(kind)[0]["id"], value=value)
            return page.draw().of("line")[0]["data"]["y"]

        self.almost(page.of("line")[0]["data"]["y"], voltage(2, 1))
        self.almost(use("slider", 5), voltage(5, 1))
        self.almost(use("number", 2), voltage(5, 2))
        self.assertEqual(set(use("choice", 1)), {-2, 2})
        self.almost(use("button"), voltage(2, 1))
        self.assertEqual(page.of("choice")[0]["value"], 0)
        self.end()


if __name__ == "__main__":
    unittest.main()
