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
    """The text of each module in todo and of all that they import, by its path."""
    modules = {}
    while todo:
        path = todo.pop()
        if path in modules:
            continue
        kind, modules[path] = fetch(address, path)
        assert kind.startswith("text/javascript"), f"{path}: {kind}"
        imported = re.findall(r'^(?:import|export|\}).* from "([./][^"]+)";', modules[path], re.M)
        todo += [urllib.parse.urljoin(path, name) for name in imported]
    return modules


def check_names(modules):
    """Fails when a module imports by name what the other one does not export."""
    exports = {}
    for path, text in modules.items():
        names = re.findall(r"^export (?:async )?(?:class|function\*?|const|let) (\w+)", text, re.M)
        for listed in re.findall(r"^export \{([^}]*)\}", text, re.M):
            names += re.findall(r"\w+", listed)
        exports[path] = set(names)
    for path, text in modules.items():
        for listed, name in re.findall(r'^import \{([^}]*)\} from "([^"]+)";', text, re.M):
            missing = set(re.findall(r"\w+", listed)) - exports[urllib.parse.urljoin(path, name)]
            assert not missing, f"{path} imports from {name}: {missing}"


def visit(link):
    url = urllib.parse.urlsplit(link)
    kind, page = fetch(url.netloc, "/")
    assert kind.startswith("text/html"), kind
    scripts = re.findall(r'<script type="module" src="([^"]+)"></script>', page)
    assert len(scripts) == page.count("<script") > 0, "a script that the browser would not run"
    modules = fetch_modules(url.netloc, scripts)
    assert "/kiroweb/protocol.mjs" in modules, list(modules)
    check_names(modules)

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
