"""The gateways under test, each with an engine behind it and a page that must never be harmed."""

import collections
import json
import subprocess
import threading
import time

from peers import BINARY, CLOSE, KEY, PATIENCE, PING, PONG, TEXT, Broken, Peer, frame, same, text

CALM = {name: 600_000 for name in ("request", "hello", "queue", "block", "ping", "comeback")}
PROFILES = {
    # Nothing ends by itself; small bounds, so that they are soon reached.
    "calm": CALM | {"headerSize": 2048, "messageSize": 70_000, "namesPerFrame": 1024,
                    "subscriptions": 8, "connections": 1000, "unauthenticatedConnections": 500,
                    "pieceSize": 1000, "lostViews": 1000, "close": 60_000},
    # Everything ends soon, and few get in.
    "brief": {"request": 400, "hello": 400, "queue": 500, "block": 400, "ping": 1000, "gone": 100,
              "comeback": 800, "close": 10_000, "code": 400, "connections": 12,
              "unauthenticatedConnections": 4, "queueSize": 100_000, "headerSize": 2048},
}
OF_A_CHANNEL = ("heard", "block", "sent", "listening")


def hexed(said) -> str:
    return "-" + (said.encode() if isinstance(said, str) else said).hex()


class Gateway:
    """A process of its own. Its lines are kept by their first words until somebody waits for them."""

    def __init__(self, program, profile, certificate=None):
        self.tls, self.profile = certificate is not None, profile
        words = [program] + [f"{name}={value}" for name, value in PROFILES[profile].items()]
        words += [f"tls={certificate}"] if self.tls else []
        self.process = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True, bufsize=1, start_new_session=True)
        self.said = collections.defaultdict(list)
        self.logged: list[str] = []
        self.changed, self.exclusive = threading.Condition(), threading.Lock()
        threading.Thread(target=self.listen, daemon=True).start()
        link = self.wait("ready")[0]
        self.token = link.split("=")[1]
        self.port = int(link.split("#")[0].rstrip("/").rsplit(":", 1)[1])
        self.scheme = "https" if self.tls else "http"
        self.host = f"127.0.0.1:{self.port}"
        self.bystander = Bystander(self)

    def listen(self) -> None:
        for line in self.process.stdout:
            kind, *words = line.split()
            words = [bytes.fromhex(word[1:]) if word[0] == "-" else word for word in words]
            with self.changed:
                if kind == "log":
                    self.logged.append(words[0].decode())
                else:
                    key = (kind, words.pop(0)) if kind in OF_A_CHANNEL else kind
                    self.said[key].append(words[0] if len(words) == 1 else words)
                self.changed.notify_all()

    def tell(self, verb, *texts) -> None:
        with self.changed:
            self.process.stdin.write(" ".join([verb, *map(hexed, texts)]) + "\n")

    def wait(self, kind, channel=None, count=1, wanted=None) -> list:
        """Takes what was said of that kind and channel, at least `count` lines; or awaits the `wanted` one among them."""
        key = kind if channel is None else (kind, channel.encode())
        with self.changed:
            if not self.changed.wait_for(lambda: any(map(wanted, self.said[key])) if wanted else len(self.said[key]) >= count, PATIENCE):
                raise Broken(f"the engine did not say {key}")
            return self.said[key] if wanted else self.said.pop(key)

    def wait_for_line(self, is_it) -> str:
        """The first line of the log that is it."""
        if not self.has_line(is_it, PATIENCE):
            raise Broken("no such line in the log")
        return next(filter(is_it, self.logged))

    def has_line(self, is_it, patience: float) -> bool:
        with self.changed:
            return self.changed.wait_for(lambda: any(map(is_it, self.logged)), patience)

    def resident(self) -> int:
        """Bytes of memory that the process has."""
        with open(f"/proc/{self.process.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * 4096

    def stop(self) -> None:
        """The bystander hears, as every page does, that it is over."""
        self.process.stdin.close()
        self.bystander.thread.join(PATIENCE)
        same(self.bystander.ended, (CLOSE, b"\x03\xe9gateway stopped"), "the bystander's end")
        same(self.process.wait(PATIENCE), 0, "exit status")


class Bystander:
    """A page connected all the time, which hears a beat: no number and no beat is missing, and
    nothing else is sent to it."""

    def __init__(self, gateway):
        self.number, self.beat, self.broken, self.ended = 0, None, None, None
        self.changed = threading.Condition()
        self.page = Trial(gateway, "bystander").join(subscribe=["/beat"])
        self.page.socket.settimeout(PATIENCE)
        self.thread = threading.Thread(target=self.live, daemon=True)
        self.thread.start()

    def live(self) -> None:
        acknowledged = 0.0
        try:
            while True:
                del self.page.journal[:]
                opcode, payload = self.page.frame()
                if opcode == PING:
                    self.page.send(frame(PONG, payload))
                elif opcode == CLOSE:
                    self.ended = opcode, payload
                    return
                else:
                    self.hear(payload)
                    if time.monotonic() > acknowledged + 0.1:
                        self.page.send(text({"t": "ack", "last": self.number}))
                        acknowledged = time.monotonic()
        except Exception as error:
            self.broken = str(error)

    def hear(self, payload) -> None:
        number, *records = payload.split(b"\x1e")
        for at, record in enumerate(records):
            same(int(number) + at, self.number + 1, "the bystander's number")
            beat = int(record.split(b"\x1f")[1])
            same(beat, beat if self.beat is None else self.beat + 1, "the bystander's beat")
            with self.changed:
                self.number, self.beat = self.number + 1, beat
                self.changed.notify_all()

    def lives(self) -> None:
        now = self.number
        with self.changed:
            if not self.changed.wait_for(lambda: self.number > now, PATIENCE):
                raise Broken(f"the bystander: {self.broken or self.ended or 'no beat'}")
        same(self.broken or self.ended, None, "the bystander")


class Trial:
    """One case against one gateway: what it may use, and its peers."""

    def __init__(self, gateway: Gateway, name: str):
        self.gateway, self.name, self.peers, self.journal = gateway, name, [], []

    def peer(self) -> Peer:
        self.peers.append(Peer(self.gateway.port, self.gateway.tls, self.journal))
        return self.peers[-1]

    def upgrade(self, **fields) -> bytes:
        """An upgrade; `fields` stand for those of the same name, None: without it."""
        gateway = self.gateway
        all_fields = {
            "Host": gateway.host, "Origin": f"{gateway.scheme}://{gateway.host}",
            "Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
            "Sec-WebSocket-Key": KEY,
            "Sec-WebSocket-Protocol": f"kiroweb.v1, kiroweb.token.{gateway.token}"}
        all_fields |= {name.replace("_", "-"): value for name, value in fields.items()}
        return self.request("GET /kiroweb", **all_fields)

    def request(self, line="GET /", body=b"", **fields) -> bytes:
        """A request; a list stands for several fields of that name."""
        fields = {"Host": self.gateway.host} | fields
        lines = [f"{line} HTTP/1.1"]
        for name, values in fields.items():
            values = values if isinstance(values, list) else [values]
            lines += [f"{name.replace('_', '-')}: {value}" for value in values if value is not None]
        return "\r\n".join(lines + ["", ""]).encode("latin-1") + body

    def connect(self) -> Peer:
        """A peer that has upgraded."""
        peer = self.peer()
        peer.send(self.upgrade())
        same(peer.response()[0], 101, "status of the upgrade")
        peer.is_websocket = True
        return peer

    def join(self, **members) -> Peer:
        """A peer with a view."""
        peer = self.connect()
        peer.send(text({"t": "hello", "version": 1} | members))
        peer.hello = peer.control(t="hello", version=1)
        return peer

    def there(self, joined) -> Peer:
        return self.join() if joined else self.connect()

    def refused(self, request: bytes, status: int) -> None:
        """Exactly one answer, and the end: what follows is no second request."""
        peer, follows = self.peer(), self.request("GET /a.js")
        # An upgrade is refused for what is right behind it, whatever else is wrong.
        is_alone = request.startswith(b"GET /kiroweb HTTP/1.1") and request.endswith(b"\r\n\r\n") and b"\r\n\r\n" not in request[:-4]
        peer.send(request if is_alone else request + follows)
        got, fields, body = peer.response()
        if is_alone:
            peer.send(follows)
        same(got, status, f"status, {body!r}")
        same(fields.get("connection"), "close", "Connection")
        peer.end()

    def answered(self, request: bytes, status: int) -> None:
        """As `refused` if it is an error; with anything else the next request is served."""
        if status >= 400:
            return self.refused(request, status)
        peer = self.peer()
        peer.send(request)
        same(peer.response()[0], status, "status")
        if status != 101:
            peer.send(self.request("GET /none"))
            same(peer.response()[0], 404, "status of the next")

    def broken(self, sent: bytes, code: int, reason: str | None = "", joined=True) -> None:
        """`sent` is answered with this close frame and nothing else."""
        peer = self.there(joined)
        peer.send(sent)
        peer.closed(code, reason)

    def block(self, peer, channel, payload: bytes) -> bytes:
        """The bytes of a frame with a block, whose channel the page has named."""
        peer.send(text({"t": "channel", "number": 1, "name": channel}))
        self.gateway.tell("listen", channel)
        self.gateway.wait("listening", channel)
        return b"\1\1\1" + bytes(13) + payload

    def finish(self) -> None:
        """The gateway serves a fresh page, and the bystander has noticed nothing."""
        for peer in self.peers:
            peer.leave()
        fresh = self.join()
        fresh.echo()
        fresh.leave()
        self.gateway.bystander.lives()
