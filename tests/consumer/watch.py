"""watch.py PROGRAM: runs the README's ten lines and draws what they say, as a page does."""

import os
import subprocess
import sys

sys.path.append(os.path.join(os.path.dirname(__file__), "../support"))
from page import Page  # noqa: E402

env = {key: value for key, value in os.environ.items() if not key.endswith("DISPLAY")}
program = subprocess.Popen(sys.argv[1], stdout=subprocess.PIPE, text=True, env=env)
try:
    page = Page(program.stdout.readline().strip()).draw(3)
    line = page.of("line")[0]
    assert len(line["data"]["y"]) == 3, line
    program.terminate()
    assert program.wait() == 0, program.returncode
finally:
    program.kill()
