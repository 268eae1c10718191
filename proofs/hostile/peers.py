"""Clients that do what they are told, right or wrong, and read strictly what comes back."""

import base64
import hashlib
import json
import re
import socket
import ssl
import struct

PATIENCE = 20  # seconds until something that does not come is missed
TEXT, BINARY, CLOSE, PING, PONG = 1, 2, 8, 9, 10
KEY = "dGhlIHNhbXBsZSBub25jZQ=="
ACCEPT = base64.b64encode(
    hashlib.sha1((KEY + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11").encode()).digest()).decode()
TLS = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
TLS.check_hostname, TLS.verify_mode = False, ssl.CERT_NONE  # it is signed by itself


class Broken(Exception):
    """Something was not as it has to be."""


def same(got, wanted, what="what came"):
    if got != wanted:
        raise Broken(f"{what}: {got!r:.300}, wanted {wanted!r:.300}")


def masked(payload: bytes, mask: bytes) -> bytes:
    size = len(payload)
    key = (mask * (size // 4 + 1))[:size]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(key, "big")).to_bytes(size, "big")


def frame(opcode, payload=b"", fin=1, rsv=0, mask=b"7z!=", form=None, length=None) -> bytes:
    """A client's frame; `form`: how many bytes tell the length, the fewest unless said."""
    length = len(payload) if length is None else length
    if form is None:
        form = 0 if length < 126 else 2 if length < 65536 else 8
    head = bytes([fin << 7 | rsv << 4 | opcode])
    seven = {0: length, 2: 126, 8: 127}[form]
    head += bytes([(0x80 if mask else 0) | seven]) + (length.to_bytes(form, "big") if form else b"")
    return head + (mask + masked(payload, mask) if mask else payload)


def text(said) -> bytes:
    return frame(TEXT, said if isinstance(said, bytes) else json.dumps(said).encode())


def close_frame(code, reason=b"") -> bytes:
    return frame(CLOSE, struct.pack(">H", code) + reason)


class Peer:
    def __init__(self, port, tls, journal):
        self.journal, self.bytes, self.is_reset, self.is_websocket = journal, b"", False, False
        self.hello, self.is_alive = {}, True
        self.socket = socket.create_connection(("127.0.0.1", port), PATIENCE)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if tls:
            self.socket = TLS.wrap_socket(self.socket)

    def send(self, *pieces: bytes) -> "Peer":
        for piece in pieces:
            self.journal.append((">", piece))
            try:
                self.socket.sendall(piece)
            except (ConnectionError, ssl.SSLError):
                break  # whoever reads learns of it
        return self

    def says(self, *objects) -> "Peer":
        return self.send(*map(text, objects))

    def more(self) -> bool:
        try:
            got = self.socket.recv(65536)
        except TimeoutError:
            raise Broken(f"nothing came for {PATIENCE} s after {self.bytes!r:.200}") from None
        except (ConnectionError, ssl.SSLError):
            got, self.is_reset = b"", True
        self.journal.append(("<", got or b"(end)"))
        self.bytes += got
        return bool(got)

    def take(self, size) -> bytes:
        while len(self.bytes) < size:
            if not self.more():
                raise Broken(f"the connection ended within {self.bytes!r:.200}")
        taken, self.bytes = self.bytes[:size], self.bytes[size:]
        return taken

    def everything(self) -> bytes:
        while self.more():
            pass
        taken, self.bytes = self.bytes, b""
        return taken

    def end(self) -> None:
        same(self.everything(), b"", "behind the end")
        same(self.is_reset, False, "a reset")

    # --- HTTP ------------------------------------------------------------------------------------

    def response(self, has_body=True):
        """The next answer: status, fields by their names in small letters, body."""
        while b"\r\n\r\n" not in self.bytes:
            if not self.more():
                raise Broken(f"no answer but {self.bytes!r:.200}")
        head, self.bytes = self.bytes.split(b"\r\n\r\n", 1)
        first, *lines = head.decode("ascii").split("\r\n")
        if not (match := re.fullmatch(r"HTTP/1\.1 (\d{3}) [A-Z][A-Za-z -]+", first)):
            raise Broken(f"no status line: {first!r}")
        fields = {}
        for line in lines:
            if not (pair := re.fullmatch(r"([A-Za-z-]+): ([ -~]*)", line)):
                raise Broken(f"no field: {line!r}")
            same(pair[1].lower() in fields, False, f"a second {pair[1]}")
            fields[pair[1].lower()] = pair[2]
        status = int(match[1])
        if status == 101:
            return status, fields, b""
        size = int(fields["content-length"]) if has_body else 0
        return status, fields, self.take(size)

    # --- WebSocket -------------------------------------------------------------------------------

    def frame(self) -> tuple[int, bytes]:
        """The next frame; everything that a server must not send is refused."""
        first, second = self.take(2)
        same(first & 0xF0, 0x80, "FIN and reserved bits")
        same(first & 15 in (TEXT, BINARY, CLOSE, PING, PONG), True, f"opcode {first & 15}")
        same(second & 0x80, 0, "mask")
        length = second & 0x7F
        if length > 125:
            same(first & 8, 0, "a long control frame")
            length = int.from_bytes(self.take(2 if length == 126 else 8), "big")
            same(length > (125 if second == 126 else 65535), True, "the shortest length form")
        payload = self.take(length)
        if first & 15 == TEXT:
            payload.decode()  # throws for what is not UTF-8
        if first & 15 == PING and self.is_alive:
            return self.send(frame(PONG, payload)).frame()
        return first & 15, payload

    def gets(self, *frames: tuple[int, bytes]) -> "Peer":
        for wanted in frames:
            same(self.frame(), wanted, "frame")
        return self

    def has(self, wanted: dict) -> "Peer":
        return self.gets((TEXT, json.dumps(wanted, ensure_ascii=False, separators=(",", ":")).encode()))

    def control(self, **wanted) -> dict:
        """The next frame, which is control and has these members."""
        opcode, payload = self.frame()
        same((opcode, payload[:1]), (TEXT, b"{"), f"control, {payload!r:.200}")
        said = json.loads(payload)
        for name, value in wanted.items():
            same(said.get(name), value, f"{name!r} of {said}")
        return said

    def records(self, count) -> list[tuple[int, str, bytes]]:
        """The next messages that are texts: number, channel, text."""
        found = []
        while len(found) < count:
            opcode, payload = self.frame()
            same((opcode, payload[:1].isdigit()), (TEXT, True), f"a batch, {payload!r:.200}")
            number, *records = payload.split(b"\x1e")
            channel = b""
            for at, record in enumerate(records):
                name, said = record.split(b"\x1f", 1)
                channel = name or channel
                if said[:1] == b"\x1f":
                    said = base64.b64decode(said[1:], validate=True)
                found.append((int(number) + at, channel.decode(), said))
        return found

    def echo(self) -> "Peer":
        """Everything said before has been acted upon, and nothing else was answered."""
        return self.says({"t": "echo", "id": "settled"}).has({"t": "echo", "id": "settled"})

    def closed(self, code, reason: str | None = "") -> None:
        """The next frame is the close frame, byte for byte, and nothing follows."""
        opcode, payload = self.frame()
        same(opcode, CLOSE, f"a close frame, {payload!r:.200}")
        wanted = struct.pack(">H", code) + (reason or "").encode()
        same(payload if reason is not None else payload[:2], wanted, "close frame")
        self.end()

    def leave(self, code=1000) -> "Peer":
        """Goes, with this code, or without one: the gateway has noticed it then."""
        if self.is_websocket and self.socket.fileno() >= 0:
            if code:
                self.send(close_frame(code)).everything()
            else:
                self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()
        return self
