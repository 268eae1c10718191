"""A page without a browser: it speaks the gateway's protocol and the vocabulary of figures."""

import array
import base64
import json
import socket
import struct
import urllib.parse

KEY = "dGhlIHNhbXBsZSBub25jZQ=="
TYPES = {"f64": ("d", 8), "f32": ("f", 4), "u8": ("B", 1)}


def upgrade(address, token):
    """A stream that has asked for a WebSocket, and the status of the answer."""
    host, port = address.split(":")
    web_socket = socket.create_connection((host, int(port)))
    web_socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    request = (
        f"GET /kiroweb HTTP/1.1\r\nHost: {address}\r\nOrigin: http://{address}\r\n"
        "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
        f"Sec-WebSocket-Key: {KEY}\r\n"
        f"Sec-WebSocket-Protocol: kiroweb.v1, kiroweb.token.{token}\r\n\r\n"
    )
    web_socket.sendall(request.encode())
    stream = web_socket.makefile("rwb")
    web_socket.close()  # with the stream
    status = stream.readline().split()[1].decode()
    while stream.readline().strip():
        pass
    return stream, status


def say(stream, message):
    """Sends a message. A mask of zeros is a mask."""
    payload = json.dumps(message).encode()
    size = len(payload)
    header = [0x81, 0x80 | size] if size < 126 else [0x81, 0xFE, size >> 8, size & 0xFF]
    stream.write(bytes([*header, 0, 0, 0, 0]) + payload)
    stream.flush()


def hear(stream):
    """The payload of the next frame: a text, or the bytes of a binary one."""
    first, size = stream.read(2)
    if size > 125:
        size = int.from_bytes(stream.read(2 if size == 126 else 8), "big")
    payload = stream.read(size)
    return payload.decode() if first & 0xF == 1 else payload


class Page:
    """Comes in by the program's link. `objects` are the figures' by their numbers: their
    properties, and under "data" the columns that a program has given them."""

    def __init__(self, link):
        url = urllib.parse.urlsplit(link)
        self.stream, status = upgrade(url.netloc, url.fragment.removeprefix("token="))
        assert status == "101", status
        self.objects, self.blocks, self.waiting = {}, {}, []
        self.knows = False  # what the figures are: what comes before the first whole frame is others'
        say(self.stream, {"t": "hello", "version": 1})
        hello = json.loads(hear(self.stream))
        self.names, self.view = hello["configuration"], hello["view"]
        assert self.names["vocabulary"] == "kirofigures/1", self.names
        channels = [self.names["commands"], self.names["blocks"]]
        say(self.stream, [{"t": "subscribe", "channels": channels}, {"t": "echo", "id": 1}])
        while isinstance(message := hear(self.stream), bytes) or '"echo"' not in message:
            self.receive(message)  # what was published meanwhile
        self.publish("ready", {"binaryChannelStatus": 1, "useFastBinary": 1})
        self.publish("newView", {})

    def publish(self, name, message):
        say(self.stream, {"t": "publish", "channel": self.names.get(name, name), "text": json.dumps(message)})

    def event(self, name, **fields):
        self.publish("events", {"event": name, **fields})

    def of(self, kind):
        """The objects of a type, in the order of their creation."""
        return [one for one in self.objects.values() if one["type"] == kind]

    def draw(self, frames=1, outcome="painted", **fields):
        """Draws frames and answers for them."""
        for _ in range(frames):
            token = self.take()
            self.event("frame", **self.frame, outcome=outcome, **fields)
            self.publish(token["returnChannel"], {"ACT": token["ACT"]})
        return self

    def take(self):
        """Takes everything up to the next token in, and returns that."""
        while True:
            while self.waiting:
                command = self.waiting[0]
                # The block of a frame that began before may have been sent before this page came.
                if self.knows and "data" in command and command["data"] not in self.blocks:
                    break
                self.waiting.pop(0)
                self.knows |= command.get("whole", False)
                if self.knows and command["cmd"] == "sendACT":
                    return command
                if self.knows:
                    self.apply(command)
            self.receive(hear(self.stream))

    def receive(self, message):
        if isinstance(message, bytes):
            assert message[:2] == b"\1\1", "a block in pieces"
            say(self.stream, {"t": "block", "transfer": int.from_bytes(message[4:8], "little"), "ok": True})
            self.blocks["%d %d" % struct.unpack("<II", message[16:24])] = message[24:]
        elif message[0].isdigit():
            number, *records = message.split("\x1e")
            commands = [json.loads(record.split("\x1f")[-1]) for record in records]
            for command in commands:
                if command["cmd"] == "binarydata":
                    self.blocks |= {one: base64.b64decode(text) for one, text in command["data"].items()}
                else:
                    self.waiting.append(command)
            say(self.stream, {"t": "ack", "last": int(number) + len(records) - 1})

    def apply(self, command):
        name = command.pop("cmd")
        if name == "beginFrame":
            self.frame = {"frame": command["frame"], "attempt": command["attempt"]}
            if command["whole"]:
                self.objects.clear()
        elif name == "create":
            self.objects[command["id"]] = {**command, "data": {}}
        elif name == "set":
            self.objects[command["id"]] |= command
        elif name == "remove":
            del self.objects[command["id"]]
        elif name == "data":
            self.take_data(**command)

    def take_data(self, id, data, first, count, columns, **_):
        block, held = self.blocks.pop(data), self.objects[id]["data"]
        if first == 0:
            held.clear()
        for column, kind in columns:
            code, size = TYPES[kind]
            assert first == len(held.setdefault(column, [])), "elements are missing"
            held[column] += array.array(code, block[: size * count])
            block = block[size * count :]
        assert not block, "a block is too large"
