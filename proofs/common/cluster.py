"""Nodes and gateways of a cluster on this machine, each a process of its own."""

import contextlib
import os
import pathlib
import socket
import subprocess

import load

os.environ["PATH"] += ":/usr/sbin"


def free_ports(count: int) -> list[int]:
    with contextlib.ExitStack() as held:
        bound = [held.enter_context(socket.socket()) for _ in range(count)]
        for each in bound:
            each.bind(("127.0.0.1", 0))
        return [each.getsockname()[1] for each in bound]


class Cluster:
    """Three nodes and gateways, with their files and logs in a folder."""

    def __init__(self, folder: str, gateways: tuple, sessions: tuple, settings: dict):
        """`settings` are the gateways'."""
        self.folder, self.running = pathlib.Path(folder), {}
        ports = free_ports(6 + len(gateways))
        self.ports = {f"node-{i}": port for i, port in enumerate(ports[:3], 1)}
        self.ports |= {f"gateway-{name}": port for name, port in zip(gateways, ports[6:])}
        self.files("nodes", *(f"127.0.0.1:{ports[i]}:{ports[i + 3]}" for i in range(3)))
        self.files("session", *sessions)
        self.files("gateway", *gateways)
        for name in gateways:
            self.write(f"gateway-{name}", "gateway.conf", (2, 3, 1), name=name, tls="off",
                       port=self.ports[f"gateway-{name}"], **settings)

    def files(self, *arguments: str) -> None:
        subprocess.run([load.ROOT / "deploy/cluster-files", self.folder, *arguments], check=True)

    def write(self, user: str, file: str, order: tuple, credentials="", **settings) -> pathlib.Path:
        settings |= {"servers": ",".join(f"127.0.0.1:{self.ports[f'node-{i}']}" for i in order),
                     "credentials": self.folder / (credentials or user) / "credentials",
                     "ca": self.folder / user / "ca.pem"}
        written = self.folder / user / file
        written.write_text("".join(f"{key} = {value}\n" for key, value in settings.items()))
        return written

    def start(self, *names: str) -> None:
        for name in names:
            folder = self.folder / name
            command = (["nats-server", "-c", "node.conf"] if name.startswith("node") else
                       [load.PROGRAMS / "kiroweb-gateway", folder / "gateway.conf"])
            with open(folder / "log", "ab") as log:
                self.running[name] = subprocess.Popen(
                    ["setpriv", "--pdeathsig", "KILL", *command], cwd=folder, stdout=log, stderr=log)

    def kill(self, *names: str) -> None:
        for name in names:
            process = self.running.pop(name)
            process.kill()
            process.wait()

    def signal(self, name: str, number: int) -> None:
        self.running[name].send_signal(number)

    def log(self, name: str) -> str:
        return (self.folder / name / "log").read_text()
