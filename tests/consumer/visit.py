"""visit.py PROGRAM: runs the program of docs/library.md that serves a page and visits it as a browser does: fetches the
page and every module, comes in with the link's token, and waits for the line."""

import http.client
import json
import os
import re
import subprocess
import sys
import urllib.parse

sys.path.append(os.path.join(os.path.dirname(__file__), "../support"))
from page import hear, say, upgrade  # noqa: E402


def fetch(address, path):
    connection = http.client.HTTPConnection(address)
    connection.request("GET", path)
    response = connection.getresponse()
    assert response.status == 200, f"{path}: {response.status}"
    return response.getheader("Content-Type"), response.read().decode()


def fetch_modules(address, todo):
    """The paths of the modules in todo and of all that they import, which can all be had."""
    paths = set()
    while todo:
        path = todo.pop()
        if path in paths:
            continue
        paths.add(path)
        kind, text = fetch(address, path)
        assert kind.startswith("text/javascript"), f"{path}: {kind}"
        imported = re.findall(r'^(?:import|export|\}).* from "([./][^"]+)";', text, re.M)
        todo += [urllib.parse.urljoin(path, name) for name in imported]
    return paths


def visit(link):
    url = urllib.parse.urlsplit(link)
    kind, page = fetch(url.netloc, "/")
    assert kind.startswith("text/html"), kind
    scripts = re.findall(r'<script type="module" src="([^"]+)"></script>', page)
    assert len(scripts) == page.count("<script") > 0, "a script that the browser would not run"
    modules = fetch_modules(url.netloc, scripts)
    assert "/kiroweb/protocol.mjs" in modules, modules

    token = url.fragment.removeprefix("token=")
    assert upgrade(url.netloc, token[1:])[1] == "403"
    stream, status = upgrade(url.netloc, token)
    assert status == "101", status
    say(stream, {"t": "hello", "version": 1, "subscribe": ["/figure1/line"]})
    say(stream, {"t": "publish", "channel": "/figure1/ready", "text": "{}"})
    while '"y":[0' not in (heard := hear(stream)):
        assert not json.loads(heard).get("refused"), heard


def main():
    program = subprocess.Popen(
        sys.argv[1], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
    )
    try:
        visit(program.stdout.readline().strip())
        program.communicate("\n")
        assert program.returncode == 0, program.returncode
    finally:
        program.kill()


main()
