"""Nodes and gateways of a cluster on this machine, each a process of its own; engines and pages there."""

import contextlib
import os
import pathlib
import secrets
import shutil
import socket
import subprocess

import load

os.environ["PATH"] += ":/usr/sbin"


def missing() -> str:
    """Why there can be no cluster here; nothing if there can."""
    lacking = [name for name in ("nats-server", "openssl") if not shutil.which(name)]
    return f"no {' and no '.join(lacking)} here" if lacking else ""


def free_ports(count: int) -> list[int]:
    with contextlib.ExitStack() as held:
        bound = [held.enter_context(socket.socket()) for _ in range(count)]
        for each in bound:
            each.bind(("127.0.0.1", 0))
        return [each.getsockname()[1] for each in bound]


class Cluster:
    """Three nodes and gateways, with their files and logs in a folder."""

    def __init__(self, folder: str, gateways: tuple, sessions: tuple, settings: dict, host="127.0.0.1"):
        """`settings` are the gateways', and `host` is where the nodes are found."""
        self.folder, self.host, self.running = pathlib.Path(folder), host, {}
        self.inside = {}  # by name: the beginning of a command that runs another one elsewhere
        self.token = secrets.token_hex(32)
        ports = free_ports(6 + len(gateways))
        self.ports = {f"node-{i}": port for i, port in enumerate(ports[:3], 1)}
        self.ports |= {f"gateway-{name}": port for name, port in zip(gateways, ports[6:])}
        self.files("nodes", *(f"{host}:{ports[i]}:{ports[i + 3]}" for i in range(3)))
        self.files("session", *sessions)
        self.files("gateway", *gateways)
        for name in gateways:
            self.write(f"gateway-{name}", "gateway.conf", (2, 3, 1), name=name, tls="off",
                       port=self.ports[f"gateway-{name}"], **settings)

    def files(self, *arguments: str) -> None:
        subprocess.run([load.ROOT / "deploy/cluster-files", self.folder, *arguments], check=True)

    def write(self, user: str, file: str, order: tuple, credentials="", **settings) -> pathlib.Path:
        settings = {"servers": ",".join(f"{self.host}:{self.ports[f'node-{i}']}" for i in order),
                    "credentials": self.folder / (credentials or user) / "credentials",
                    "ca": self.folder / user / "ca.pem"} | settings
        written = self.folder / user / file
        written.write_text("".join(f"{key} = {value}\n" for key, value in settings.items()))
        return written

    def engine(self, session: str, credentials="", inside=(), way={}, **settings) -> load.Program:
        """That publishes over the cluster. `credentials` are whose; `way` may have "servers"."""
        file = self.write(f"session-{session}", "link.conf", (1, 2, 3), credentials, session=session, **way)
        defaults = {"linkFile": str(file), "token": self.token, "milliseconds": {}}
        return load.engine(inside, **defaults | settings)[0]

    def pages(self, gateway: str, session: str, inside=(), **settings) -> load.Program:
        """Of the session, at that gateway. They are where that is."""
        port = self.ports[f"gateway-{gateway}"]
        pages = load.pages(f"http://127.0.0.1:{port}/s/{session}/#token={self.token}", inside, name=gateway, **settings)
        pages.ask("forgive 0")  # they may come before their gateway has reached the engine
        return pages

    def start(self, *names: str) -> None:
        for name in names:
            folder = self.folder / name
            command = (["nats-server", "-c", "node.conf"] if name.startswith("node") else
                       [load.PROGRAMS / "kiroweb-gateway", folder / "gateway.conf"])
            with open(folder / "log", "ab") as log:
                self.running[name] = subprocess.Popen(
                    ["setpriv", "--pdeathsig", "KILL", *self.inside.get(name, ()), *command], cwd=folder, stdout=log, stderr=log)

    def kill(self, *names: str) -> None:
        for name in names:
            process = self.running.pop(name)
            process.kill()
            process.wait()

    def signal(self, name: str, number: int) -> None:
        self.running[name].send_signal(number)

    def log(self, name: str) -> str:
        return (self.folder / name / "log").read_text()


def settle(engine: load.Program, groups: list[load.Program], count: int, patience=20.0) -> None:
    """Until all pages are there, `count` of them, and the engine knows."""
    for group in groups:
        group.ask("settle")
    load.until(lambda: engine.ask("report")["gateway"]["pages"] == count, "all pages are known", patience)
