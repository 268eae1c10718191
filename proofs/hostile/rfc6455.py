"""RFC 6455, chapter by chapter. Each function yields cases: a name and what is played."""

import itertools
import random

from peers import BINARY, CLOSE, PING, PONG, TEXT, close_frame, frame, same, text

MESSAGE = 70_000  # the largest message, as the gateways are set
ECHO = b'{"t":"echo","id":"x"}'
ECHOED = (TEXT, ECHO)
HELLO = {False: "before-hello", True: "with-view"}
MASKS = {"zero": bytes(4), "ones": b"\xff" * 4, "mixed": b"\x00\xff\x80\x01", "text": b"7z!="}


def gets(sent, *frames, joined=True):
    """Sends the pieces, gets the frames, and is served on."""
    def play(t):
        peer = t.there(joined).send(*([sent] if isinstance(sent, bytes) else sent)).gets(*frames)
        if joined:
            peer.echo()
    return play


def breaks(sent, code, joined=True, reason: str | None = ""):
    return lambda t: t.broken(sent, code, reason, joined)


def framing():
    sizes = (21, 124, 125, 126, 127, 128, 255, 256, 65534, 65535, 65536, 65537, MESSAGE)
    for size, (name, mask) in itertools.product(sizes, MASKS.items()):
        yield f"text-{size}-mask-{name}", gets(frame(TEXT, ECHO.ljust(size), mask=mask), ECHOED)
        yield f"binary-{size}-mask-{name}", lambda t, size=size, mask=mask: blocks(t, size, mask)
    for size in range(17):
        yield f"binary-{size}", lambda t, size=size: blocks(t, size)
    for joined in HELLO:
        yield f"text-0-{HELLO[joined]}", breaks(frame(TEXT), 4000, joined, "bad message: not JSON")
        for opcode, (form, size) in itertools.product(
                (TEXT, BINARY, 0), ((2, 0), (2, 1), (2, 125), (8, 0), (8, 125), (8, 126), (8, 65535))):
            start = frame(TEXT, fin=0) if opcode == 0 else b""
            yield (f"length-{size}-in-{form}-bytes-opcode-{opcode}-{HELLO[joined]}",
                   breaks(start + frame(opcode, bytes(size), form=form), 1002, joined))
        for opcode, form in itertools.product((CLOSE, PING, PONG), (2, 8)):
            yield (f"control-{opcode}-length-in-{form}-bytes-{HELLO[joined]}",
                   breaks(frame(opcode, b"\x03\xe8", form=form), 1002, joined))
    for opcode, size in itertools.product(
            (TEXT, BINARY, 0), (MESSAGE + 1, 2**17, 2**31, 2**32, 2**48, 2**63 - 1, 2**63, 2**64 - 1)):
        start = frame(TEXT, fin=0) if opcode == 0 else b""
        yield (f"too-large-{size}-opcode-{opcode}",
               breaks(start + frame(opcode, length=size, form=8), 1009))
    for split in range(1, 14):
        whole = frame(TEXT, ECHO.ljust(65536))
        yield f"header-cut-at-{split}", gets((whole[:split], whole[split:]), ECHOED)
    yield "byte-by-byte", gets([bytes([b]) for b in frame(TEXT, ECHO)], ECHOED)
    yield "many-in-one-piece", gets(frame(TEXT, ECHO) * 500, *[ECHOED] * 500)


def blocks(t, size, mask=b"7z!="):
    """A binary frame of `size` bytes: shorter than its header it is ignored, else it arrives."""
    peer, channel = t.join(), f"/up/{t.name}"
    payload = t.block(peer, channel, random.Random(size).randbytes(max(0, size - 16)))[:size]
    peer.send(frame(BINARY, payload, mask=mask))
    peer.echo()
    if size >= 16:
        same(t.gateway.wait("block", channel), [payload[16:]], "block")


def reserved():
    for joined, rsv, opcode in itertools.product(HELLO, range(1, 8), (0, TEXT, BINARY, CLOSE, PING, PONG)):
        start = frame(TEXT, b" ", fin=0) if opcode == 0 else b""
        yield (f"bits-{rsv:03b}-opcode-{opcode}-{HELLO[joined]}",
               breaks(start + frame(opcode, b"\x03\xe8", rsv=rsv), 1002, joined))
    for joined, opcode, fin, size in itertools.product(
            HELLO, (3, 4, 5, 6, 7, 11, 12, 13, 14, 15), (0, 1), (0, 5)):
        yield (f"opcode-{opcode}-fin-{fin}-size-{size}-{HELLO[joined]}",
               breaks(frame(opcode, bytes(size), fin=fin), 1002, joined))
    for joined, opcode in itertools.product(HELLO, (0, TEXT, BINARY, CLOSE, PING, PONG)):
        yield (f"no-mask-opcode-{opcode}-{HELLO[joined]}",
               breaks((frame(TEXT, b" ", fin=0) if opcode == 0 else b"")
                      + frame(opcode, b"\x03\xe8", mask=b""), 1002, joined))
    for offer in ("permessage-deflate", "permessage-deflate; client_max_window_bits, x",
                  "x-webkit-deflate-frame", "deflate-stream", ";;,", "a" * 500):
        yield f"extension-{offer[:30]}", lambda t, offer=offer: extension(t, offer)


def extension(t, offer):
    """Not taken up; a compressed frame is a broken one then."""
    peer = t.peer().send(t.upgrade(Sec_WebSocket_Extensions=offer))
    status, fields, _ = peer.response()
    same((status, "sec-websocket-extensions" in fields), (101, False), "the upgrade")
    peer.send(frame(TEXT, b"\xaa\x56\x2a\x01\x00", rsv=4)).closed(1002)


def control():
    for joined, size in itertools.product(HELLO, (0, 1, 4, 64, 124, 125)):
        said = bytes((i * 37 + size) % 256 for i in range(size))
        yield f"ping-{size}-{HELLO[joined]}", gets(frame(PING, said), (PONG, said), joined=joined)
        yield f"pong-{size}-{HELLO[joined]}", gets(frame(PONG, said) + frame(PING), (PONG, b""), joined=joined)
    for joined, opcode in itertools.product(HELLO, (CLOSE, PING, PONG)):
        yield f"control-{opcode}-in-fragments-{HELLO[joined]}", breaks(frame(opcode, b"\x03\xe8", fin=0), 1002, joined)
        yield f"control-{opcode}-of-126-{HELLO[joined]}", breaks(frame(opcode, b"\x03\xe8" + b"x" * 124), 1002, joined)
    yield "pings-in-order", gets(b"".join(frame(PING, b"%d" % i) for i in range(50)),
                                 *((PONG, b"%d" % i) for i in range(50)))
    whole = frame(PING, b"cut")
    for split in range(1, len(whole)):
        yield f"ping-cut-at-{split}", gets((whole[:split], whole[split:]), (PONG, b"cut"))
    yield "ping-within-a-frame-is-its-payload", breaks(frame(TEXT, frame(PING)), 1007)
    yield "ping-flood-unread", ping_flood


def ping_flood(t):
    """Answers that are not read are left out at some point; who reads on is served."""
    peer = t.join().send(*[frame(PING, b"p" * 125) * 100] * 100, frame(TEXT, ECHO))
    while (got := peer.frame()) != ECHOED:
        same(got, (PONG, b"p" * 125), "pong")


CODES = ([(code, 1002) for code in (0, 1, 500, 999, 1004, 1005, 1006, 1014, 1015, 1016, 1100, 2000, 2999)]
         + [(code, code) for code in (*range(1000, 1004), *range(1007, 1014), 3000, 3999, 4000, 4001,
                                      4900, 4999, 5000, 65535)])


def close():
    for joined, (code, answer) in itertools.product(HELLO, CODES):
        yield f"code-{code}-{HELLO[joined]}", breaks(close_frame(code), answer, joined)
        yield f"code-{code}-reason-{HELLO[joined]}", breaks(close_frame(code, b"why"), answer, joined)
    for joined, size in itertools.product(HELLO, (0, 1, 2, 3, 124, 125, 126, 127, 500)):
        answer = {0: 1000, 1: 1002}.get(size, 1000 if size <= 125 else 1002)
        yield f"length-{size}-{HELLO[joined]}", breaks(
            frame(CLOSE, (b"\x03\xe8" + b"r" * 500)[:size]), answer, joined)
    for name, reason, answer in (("utf8", "grüß €😀".encode(), 1000), ("cut-utf8", b"\xe2\x82", 1002),
                                 ("not-utf8", b"a\xffb", 1002), ("surrogate", b"\xed\xa0\x80", 1002)):
        yield f"reason-{name}", breaks(close_frame(1000, reason), answer)
    for joined in HELLO:
        behind = frame(TEXT, b"\xff") + frame(PING) + frame(3) + close_frame(999)
        yield f"nothing-behind-it-is-heard-{HELLO[joined]}", breaks(close_frame(1000) + behind, 1000, joined)
    yield "within-a-message", breaks(frame(TEXT, b"{", fin=0) + close_frame(1001), 1001)
    whole = close_frame(1000, b"bye")
    for split in range(1, len(whole)):
        yield f"cut-at-{split}", lambda t, split=split: t.join().send(whole[:split], whole[split:]).closed(1000)


def fragments():
    size = len(ECHO)
    for split in range(size + 1):
        first, second = frame(TEXT, ECHO[:split], fin=0), frame(0, ECHO[split:])
        yield f"two-cut-at-{split}", gets(first + second, ECHOED)
        both = (PONG, b"p"), ECHOED  # a message is handled as soon as it is whole, whatever is behind it
        yield f"ping-between-at-{split}", gets(first + frame(PING, b"p") + second, *(both if split < size else both[::-1]))
    for step in (1, 2, 3, 7):
        parts = [ECHO[at:at + step] for at in range(0, size, step)]
        frames = [frame(0 if at else TEXT, part, fin=at + 1 == len(parts)) for at, part in enumerate(parts)]
        yield f"of-{step}", gets(b"".join(frames), ECHOED)
        yield f"of-{step}-in-pieces", gets(frames, ECHOED)
        yield f"of-{step}-with-pings", gets(b"".join(one + frame(PING, b"p") for one in frames[:-1]) + frames[-1],
                                            *[(PONG, b"p")] * (len(frames) - 1), ECHOED)
    empty = frame(0, fin=0)
    for name, sent in (("first", frame(TEXT, fin=0) + frame(0, ECHO)),
                       ("last", frame(TEXT, ECHO, fin=0) + frame(0)),
                       ("everywhere", frame(TEXT, fin=0) + empty * 99 + frame(0, ECHO, fin=0) + empty * 99 + frame(0))):
        yield f"empty-{name}", gets(sent, ECHOED)
    for joined, opcode, before in itertools.product(HELLO, (TEXT, BINARY), (b"", b" ")):
        start = frame(opcode, before, fin=0)
        for inner in (TEXT, BINARY):
            yield (f"message-{inner}-within-{opcode}-size-{len(before)}-{HELLO[joined]}",
                   breaks(frame(TEXT, before, fin=0) + frame(inner, b"x"), 1002, joined))
        if joined:
            yield f"second-start-of-{opcode}-size-{len(before)}", breaks(start * 2, 1002)
    for joined, fin in itertools.product(HELLO, (0, 1)):
        yield f"continues-nothing-fin-{fin}-{HELLO[joined]}", breaks(frame(0, b"x", fin=fin), 1002, joined)
    for fin in (0, 1):
        yield f"continues-what-is-over-fin-{fin}", lambda t, fin=fin: t.join().send(
            frame(TEXT, ECHO[:9], fin=0) + frame(0, ECHO[9:])).gets(ECHOED).send(frame(0, b"x", fin=fin)).closed(1002)
    half = frame(TEXT, b" " * (MESSAGE // 2), fin=0)
    yield "together-too-large", breaks(half + frame(0, b" " * (MESSAGE // 2 + 1)), 1009)
    yield "together-just-not-too-large", gets(half + frame(0, ECHO.rjust(MESSAGE // 2)), ECHOED)
    yield "binary-in-fragments", block_in_fragments
    yield "million-empty", lambda t: many_empty(t, 1_000_000, b"")
    yield "many-empty-with-pings", lambda t: many_empty(t, 200_000, frame(PING))




def block_in_fragments(t):
    peer, channel = t.join(), f"/up/{t.name}"
    whole = t.block(peer, channel, b"payload")
    for split in range(len(whole) + 1):
        peer.send(frame(BINARY, whole[:split], fin=0) + frame(0, whole[split:]))
    peer.echo()
    same(t.gateway.wait("block", channel, len(whole) + 1), [b"payload"] * (len(whole) + 1), "blocks")


def many_empty(t, count, between):
    """Time and memory stay bounded, and the message is whole in the end."""
    peer = t.join()
    before = t.gateway.resident()
    chunk = (frame(0, fin=0) + between) * 1000
    peer.send(frame(TEXT, fin=0))
    for _ in range(count // 1000):
        peer.send(chunk)
        for _ in range(1000 if between else 0):
            peer.gets((PONG, b""))
    peer.send(frame(0, ECHO))
    peer.gets(ECHOED)
    same(t.gateway.resident() - before < 32 << 20, True, "memory stays below 32 MiB more")


VALID = {  # the edges of each length, and of the surrogates' gap
    "U+7F": "7f", "U+80": "c280", "U+7FF": "dfbf", "U+800": "e0a080", "U+D7FF": "ed9fbf",
    "U+E000": "ee8080", "U+FFFD": "efbfbd", "U+FFFF": "efbfbf", "U+10000": "f0908080",
    "U+10FFFF": "f48fbfbf", "U+1F600": "f09f9880", "U+FEFF": "efbbbf"}
INVALID = {
    "overlong-2": "c080", "overlong-2-last": "c1bf", "overlong-3": "e08080", "overlong-3-last": "e09fbf",
    "surrogate-first": "eda080", "surrogate-last": "edbfbf", "surrogate-pair": "eda0bdedb880",
    "overlong-4": "f0808080", "overlong-4-last": "f08fbfbf", "beyond-last": "f4908080", "f5": "f5808080",
    "five": "f888808080", "six": "fc8480808080", "fe": "fe", "ff": "ff", "alone-80": "80", "alone-bf": "bf",
    "cut-2": "c220", "cut-3": "e28220", "cut-3-early": "e220", "cut-4": "f09f9820", "cut-4-early": "f020",
    "latin-1": "e4f6fc"}
UNFINISHED = {"2": "c2", "3": "e2", "3-but-one": "e282", "4": "f0", "4-but-two": "f09f", "4-but-one": "f09f98"}


def utf8():
    def ways(name, start, payload, end):
        """The bytes of `payload`, cut at every position between frames and between pieces."""
        for split in range(len(payload) + 1):
            head, rest = start + payload[:split], payload[split:] + end
            yield f"{name}-frames-cut-at-{split}", frame(TEXT, head, fin=0) + frame(0, rest)
            whole = frame(TEXT, head + rest)
            at = len(whole) - len(rest)
            yield f"{name}-pieces-cut-at-{split}", (whole[:at], whole[at:])
        yield f"{name}-ping-between", (frame(TEXT, start + payload[:1], fin=0) + frame(PING, b"\xff")
                                       + frame(0, payload[1:] + end))

    for name, bytes_ in VALID.items():
        payload = bytes.fromhex(bytes_)
        for case, sent in ways(name, b'{"t":"echo","id":"', payload, b'"}'):
            pong = [(PONG, b"\xff")] if case.endswith("ping-between") else []
            yield f"valid-{case}", gets(sent, *pong, (TEXT, b'{"t":"echo","id":"' + payload + b'"}'))
    for name, bytes_ in INVALID.items():
        for case, sent in ways(name, b'{"t":"echo","id":"', bytes.fromhex(bytes_), b'"}'):
            yield f"invalid-{case}", lambda t, sent=sent: invalid(t, sent)
    for name, bytes_ in UNFINISHED.items():
        payload = b'{"t":"echo","id":"' + bytes.fromhex(bytes_)
        for end, joined in itertools.product((b"", frame(0), frame(0, fin=0) * 3 + frame(0)), HELLO):
            start = frame(TEXT, payload, fin=not end)
            yield f"unfinished-{name}-{len(end)}-{HELLO[joined]}", breaks(start + end, 1007, joined)
        yield f"unfinished-{name}-byte-by-byte", breaks(
            frame(TEXT, fin=0) + b"".join(frame(0, bytes([b]), fin=0) for b in payload) + frame(0), 1007)
    yield "refused-before-the-end", breaks(frame(TEXT, b'"\xff', fin=0), 1007)
    yield "refused-before-the-end-of-a-frame", breaks(frame(TEXT, b'"\xff', length=9999), 1007)
    yield "not-looked-at-in-binary", lambda t: blocks(t, 300)


def invalid(t, sent):
    peer = t.join().send(*([sent] if isinstance(sent, bytes) else sent))
    while (got := peer.frame())[0] == PONG:  # the ping came before the character was found to be wrong
        pass
    same(got, (CLOSE, b"\x03\xef"), "close frame")
    peer.end()


CHAPTERS = {"framing": framing, "reserved": reserved, "control": control, "close": close,
            "fragments": fragments, "utf8": utf8}
