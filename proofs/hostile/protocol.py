"""docs/protocol.md, line by line: what pages and the gateway say to each other."""

import itertools
import json
import re
import struct
import time

from peers import BINARY, CLOSE, PING, TEXT, close_frame, frame, same, text
from served import PROFILES

WRONG = {"text": "x", "number": 7, "negative": -1, "fraction": 1.5, "huge": 1e300, "flag": True, "null": None, "list": [],
         "object": {}, "numbers": [1], "texts": ["x"], "mixed": ["x", 1], "deep": [["x"]]}
MEMBERS = {  # of each message: a good value, and the kinds that are taken
    "hello": {"version": (1, "number"), "client": ("", "text"), "subscribe": ([], "list texts"), "resume": (True, "flag"),
              "view": ("", "text"), "refused": ([], "list numbers"), "limits": ({}, "object")},
    "publish": {"channel": ("/up/x", "text"), "text": ("", "text")}, "subscribe": {"channels": ([], "list texts")},
    "unsubscribe": {"channels": ([], "list texts")}, "ack": {"last": (0, "number")}, "echo": {"id": (1, "text number negative fraction huge")},
    "block": {"transfer": (1, "number"), "ok": (True, "flag"), "reason": ("", "text")},
    "channel": {"number": (1, "number"), "name": ("/up/x", "text")}}
OPTIONAL = ("client", "subscribe", "resume", "view", "refused", "limits", "reason")
NOT_JSON = (b"", b" ", b"nonsense", b"{", b"[", b"}", b"{'t':'echo'}", b'{"t":"ack","last":0,}', b'{t:"echo"}', b'{"t":"echo","id":NaN}',
            b'{"t":"echo","id":Infinity}', b"/**/{}", b'{"t":"echo","id":01}', b'{"t":"echo","id":+1}', b'{"t":"echo","id":.5}', b'{"t":"echo","id":1.}',
            b'{"t":"echo","id":"\x01"}', b'{"t":"echo","id":"\\x"}', b'{"t":"echo","id":"\\u12g4"}', b"\xef\xbb\xbf{}", b'{"t":"\x00"}', b"[,]")
NO_OBJECT = (b"7", b"-1", b"1.5", b"1e999", b"null", b"true", b'"x"', b"[7]", b'["x"]', b"[null]", b"[[]]", b'[[{"t":"ack","last":0}]]')


def hello(**members):
    return {"t": "hello", "version": 1} | members


def bad(said, why, joined=True, code=4000):
    """This text is answered with a close frame and exactly this reason."""
    return lambda t: t.broken(text(said), code, f"bad message: {why}" if code == 4000 else why, joined)


def answers(said, *wanted):
    """Is answered with these objects, byte for byte, and served on."""
    wanted = [(TEXT, one if isinstance(one, bytes) else json.dumps(one, ensure_ascii=False, separators=(",", ":")).encode()) for one in wanted]
    return lambda t: t.join().says(said).gets(*wanted).echo()


def refused(what, channel="", reason="not allowed"):
    return {"t": "refused", "what": what if len(what) <= 256 else "", "channel": channel if len(channel) <= 256 else "", "reason": reason}


def messages():
    for said, joined in itertools.product(NOT_JSON, (False, True)):
        yield f"not-JSON-{said!r}-{joined}", bad(said, "not JSON", joined)
    for said in NO_OBJECT:
        yield f"no-object-{said!r}", bad(said, "not an object")
    for said in ({}, {"T": "ack", "last": 0}, {"t": 1}, {"t": None}, {"t": ["ack"]}):
        yield f"no-t-{json.dumps(said)}", bad(said, 'member "t"')
    for what, members in MEMBERS.items():
        good = {"t": what} | {member: value for member, (value, _) in members.items() if member not in OPTIONAL}
        if what != "hello":
            yield f"{what}-before-hello", bad(good, "hello comes first", joined=False)
        for member, (_, kinds) in members.items():
            if member not in OPTIONAL:
                yield f"{what}-without-{member}", bad({k: v for k, v in good.items() if k != member}, f'member "{member}"', what != "hello")
            for kind in WRONG.keys() - set(kinds.split()):
                yield f"{what}-{member}-is-{kind}", bad(good | {member: WRONG[kind]}, f'member "{member}"', what != "hello")
    yield "unknown-before-hello", bad({"t": "x"}, "hello comes first", joined=False)
    yield "binary-before-hello", lambda t: t.broken(frame(BINARY, b"x"), 4000, "bad message: hello comes first", joined=False)
    yield "second-hello", bad(hello(), "a second hello")
    for what in ("x", "", "Echo", "hello ", "x" * 256, "x" * 257, "a\r\nb", "é😀"):
        yield f"unknown-{what[:9]!r}-{len(what)}", answers({"t": what}, refused(what, "", "unknown"))
    hundred = [{"t": "echo", "id": i} for i in range(100)]
    yield "array-in-order", answers(hundred, *hundred)
    yield "array-empty", answers([])
    yield "array-until-the-bad-one", lambda t: publishes(t, f"/up/{t.name}", [[{"t": "publish", "channel": f"/up/{t.name}", "text": "x"}, 7, hello()]])
    yield "repeated-members-the-last-counts", answers(b'{"t":"x","id":1,"t":"echo","id":2}', {"t": "echo", "id": 2})
    yield "unknown-members-are-ignored", answers({"t": "echo", "id": 1, "x": {"y": [1, None, {"z": "t"}]}}, {"t": "echo", "id": 1})
    for name, inner in (("keys", b",".join(b'"%d":0' % i for i in range(7000))), ("letters-in-a-key", b'"%s":0' % (b"k" * 65_000))):
        yield f"many-{name}", answers(b'{"t":"echo","id":1,"x":{%s}}' % inner, {"t": "echo", "id": 1})
    for depth in (7, 8, 9, 32, 33, 10_000):
        said = b'{"t":"echo","id":1,"x":' + b"[" * (depth - 1) + b"]" * (depth - 1) + b"}"
        yield f"depth-{depth}", answers(said, {"t": "echo", "id": 1}) if depth <= 8 else bad(said, "not JSON")


def echoes():
    numbers = "0 -0 1 -1 1.0 1.50 1e5 1E+05 -0.0 0.1 1e-300 18446744073709551615 9223372036854775808 123456789012345678901234567890".split()
    texts_ = ('""', '"x"', '"é€😀"', '"/"', r'"a\"b"', r'"a\\b"')
    changed = {r'"\u00e9"': '"é"', r'"\ud83d\ude00"': '"😀"', r'"\/"': '"/"', r'"\ud83d"': '"\ufffd"', r'"\ude00x"': '"\ufffdx"',
               r'"\ud83d\ud83d"': '"\ufffd\ufffd"', r'"\n"': r'"\n"', r'"\u0000"': r'"\u0000"'}
    for said, back in ({one: one for one in (*numbers, *texts_)} | changed).items():
        yield f"id-{said}", answers(b'{"t":"echo","id":%s}' % said.encode(), b'{"t":"echo","id":%s}' % back.encode())
    for quote, size in itertools.product((b'"', b""), (255, 256, 257, 1000, 60_000)):
        said = b'{"t":"echo","id":%s}' % (quote + b"1" * (size - 2 * len(quote)) + quote)
        yield f"id-of-{size}-{quote}", answers(said, said) if size <= 256 else bad(said, 'member "id"')


def hellos():
    yield "answer", hello_answer
    for member, value in (("client", "x" * 256), ("client", "é\r\n\0"), ("resume", True), ("limits", {"block": 0, "x": {}}), ("capabilities", ["x"]),
                          ("capabilities", 7), ("x", None), ("last", 9), ("version", 1.0)):
        yield f"{member}-{str(value)[:12]!r}", lambda t, member=member, value=value: t.join(**{member: value}).echo()
    for value in (0, 2, 10, 2**53 + 1):
        yield f"version-{value}", bad(hello(version=value), "unknown version", False, 4002)
    for member, value, why in (
            ("client", "x" * 257, 'member "client"'), ("view", "x", 'member "last"'), ("refused", [1] * 4097, "too many numbers"),
            ("subscribe", ["/to/x"] * 1025, "too many names"), *(("limits", {"block": value}, 'member "limits"') for value in ("x", -1, True, None))):
        yield f"bad-{member}-{str(value)[:15]!r}", bad(hello(**{member: value}), why, joined=False)
    for name, said in (("apart", [hello(), {"t": "echo", "id": 1}]), ("in-an-array", [[hello(), {"t": "echo", "id": 1}]])):
        def play(t, said=said):
            peer = t.connect().says(*said)
            peer.control(t="hello")
            peer.gets((TEXT, b'{"t":"echo","id":1}'))
        yield f"further-things-behind-it-{name}", play
    yield "announced", announced


def hello_answer(t):
    got, limits = t.join(subscribe=["/to/a", "/none", "/to/*"]).hello, PROFILES["calm"]
    same([bool(re.fullmatch(form, got.pop(name))) for name, form in (("view", "[0-9a-f]{32}"), ("server", r"kiroweb \d+\.\d+\.\d+"))], [True, True], "view, server")
    same(got, hello(
        kind="further", next=1, blockChannels=[], subscribed=["/to/a", "/to/*"], refused=["/none"], capabilities=["return", "pieces", "echo"],
        configuration={"figures": ["/fig/1"]}, limits={
            "message": limits["messageSize"], "queue": 64 << 20, "frame": 64 << 10, "blocksUnderWay": 8, "bytesUnderWay": 32 << 20, "names": limits["namesPerFrame"],
            "queueMilliseconds": limits["queue"], "ackBytes": 256 << 10, "ackMilliseconds": 200, "blockMilliseconds": limits["block"], "returnMilliseconds": limits["comeback"]}), "hello")


def announced(t):
    """To the engine: the view, and each return."""
    peer = t.join(client=t.name, subscribe=[f"/to/{t.name}"]).leave(4900)
    t.join(view=peer.hello["view"], last=0, client="another")
    for channel, kind in (("/views", "further"), ("/returns", "return")):
        t.gateway.wait("heard", channel, wanted=lambda said, kind=kind: (json.loads(said)["client"], json.loads(said)["kind"]) == (t.name, kind))


# --- Channels ------------------------------------------------------------------------------------

NAMES = {"plain": "x", "nothing": "", "blank": " ", "line-ends": "a\r\nb", "nul": "a\0b", "escape": "\x1b[2J", "star": "*", "slash-star": "a/*", "quotes": "\"'\\",
         "slashes": "//", "dots": "../up/x", "percent": "%2e%00", "unicode": "é€😀", "separators": "\x1e\x1f"}
NOT_PUBLISHED = ("/x", "/up", "/up*", "/Up/x", "/upx/y", "*", "/*", " /up/x", "/beat", "/views", "/up\0/x", "up/x", "x" * 256, "x" * 257, "/up/" + "x" * 1021, "x" * 65_000)
NOT_HEARD = ("/x", "/to", "*", "/*", "/t/*", "/to*", "/**", "/beats", "/beat/*", "/views", "x" * 256, "x" * 257, "/to/" + "x" * 1021, "x" * 65_000)


def channels():
    for name, behind in NAMES.items():
        yield f"publish-{name}", lambda t, behind=behind: publishes(t, f"/up/{t.name}/{behind}")
        yield f"hear-{name}", lambda t, behind=behind: hears(t, f"/to/{t.name}/{behind}")
    for channel in ("", "/up/" + "n" * 1020):
        yield f"publish-{len(channel)}", lambda t, channel=channel: publishes(t, channel)
    for name in NOT_PUBLISHED:
        yield f"publish-not-{name[:12]!r}-{len(name)}", answers({"t": "publish", "channel": name, "text": "x"}, refused("publish", name))
    for name in NOT_HEARD:
        yield f"subscribe-not-{name[:12]!r}-{len(name)}", answers({"t": "subscribe", "channels": [name]}, refused("subscribe", name, "not allowed, or too many"))
    for name, said in (("long", "x" * 60_000), ("empty", ""), ("nul", "a\0b"), ("line-ends", "\r\n\x1b"), ("unicode", "é€😀")):
        yield f"publish-text-{name}", lambda t, said=said: publishes(t, f"/up/{t.name}", heard=said)
    yield "publish-half-characters", lambda t: publishes(t, f"/up/{t.name}", [{"t": "publish", "channel": f"/up/{t.name}", "text": "\ud83dx\ude00"}], "\ufffdx\ufffd")
    eight = [f"/to/{i}" for i in range(8)]
    too_many = refused("subscribe", "/to/8", "not allowed, or too many")
    yield "subscriptions-at-most", lambda t: t.join(subscribe=eight).says({"t": "subscribe", "channels": ["/to/0", "/to/8", "/to/7"]}).has(too_many).says(
        {"t": "unsubscribe", "channels": ["/to/3", "/none"]}, {"t": "subscribe", "channels": ["/to/8"]}).echo()
    yield "names-at-most", answers({"t": "subscribe", "channels": eight * 128})
    yield "names-more", bad([{"t": "unsubscribe", "channels": eight * 64}, {"t": "subscribe", "channels": eight * 65}], "too many names")
    for play in (unsubscribe, apart, texts, worked_example, in_order):
        yield play.__name__, play


def publishes(t, channel, says=None, heard="x"):
    """The engine hears exactly this, and what follows."""
    says = says or [{"t": "publish", "channel": channel, "text": heard}]
    with t.gateway.exclusive:
        t.join().says(*says)
        same(t.gateway.wait("heard", channel), [heard.encode()], "what the engine heard")


def hears(t, channel):
    """A name stands for itself, unless it ends in a slash and a star; one that cannot be named is not heard."""
    peer = t.join().says({"t": "subscribe", "channels": [channel]}).echo()
    is_wildcard, can_be_named = channel.endswith("/*"), not set(channel) & set("\x1e\x1f")
    told = [channel + "z", channel[:-1], channel[:-1] + "y", channel, f"/to/{t.name}"]
    for other in told:
        t.gateway.tell("text", other, "to " + other)
    wanted = [name for name in told if (name.startswith(channel[:-1]) if is_wildcard else name == channel) and can_be_named]
    same(peer.records(len(wanted)), [(at, name, f"to {name}".encode()) for at, name in enumerate(wanted, 1)], "records")
    peer.echo()


def unsubscribe(t):
    one, every = f"/to/{t.name}/a", f"/to/{t.name}/*"
    peer = t.join(subscribe=[one, every])
    for number, taken in enumerate((one, f"/to/{t.name}/b", f"/to/{t.name}*", every), 1):
        peer.says({"t": "unsubscribe", "channels": [taken]}).echo()
        t.gateway.tell("text", one, "x")
        same(peer.records(number < 4), [(number, one, b"x")] * (number < 4), "records")
    peer.echo()


def apart(t):
    """Pages do not hear each other, nor themselves."""
    channel = f"/up/{t.name}"
    hearer, speaker = t.join(subscribe=[channel]), t.join(subscribe=[channel]).says({"t": "publish", "channel": channel, "text": "from a page"}).echo()
    same(t.gateway.wait("heard", channel), [b"from a page"], "the engine heard")
    hearer.echo()
    t.gateway.tell("text", channel, "from the engine")
    same([peer.records(1) for peer in (hearer, speaker)], [[(1, channel, b"from the engine")]] * 2, "records")


def texts(t):
    """Each text as it comes: as it is, or in Base64 if it could be mistaken."""
    channel, as_it_is = f"/to/{t.name}", (b"", b"{}", b'{"x":NaN}', b"-Infinity", b"7", b"\0", "é😀".encode(), b"x" * 300_000)
    coded = {b"\xff": b"\x1f/w==", b"\xed\xa0\x80": b"\x1f7aCA", b"\xe2\x82": b"\x1f4oI=", b"a\x1eb": b"\x1fYR5i", b"\x1f": b"\x1fHw=="}
    peer = t.join(subscribe=[channel])
    for number, (said, shown) in enumerate(({one: one for one in as_it_is} | coded).items(), 1):
        t.gateway.tell("text", channel, said)
        peer.gets((TEXT, b"%d\x1e%s\x1f%s" % (number, channel.encode(), shown)))


def worked_example(t):
    """The frames that docs/protocol.md shows, but for names and numbers."""
    channel = f"/to/{t.name}"
    peer = t.join(subscribe=[channel])
    t.gateway.tell("block", channel, bytes.fromhex("0401000000000000 0102ff"))
    peer.gets((TEXT, f'{{"t":"channel","number":1,"name":"{channel}"}}'.encode()))
    opcode, payload = peer.frame()
    same((opcode, payload), (BINARY, bytes.fromhex("01010100") + payload[4:8] + bytes.fromhex("0100000000000000 0401000000000000 0102ff")), "block")
    peer.send(frame(TEXT, b'{"t":"block","transfer":%d,"ok":true}' % struct.unpack("<I", payload[4:8]), mask=bytes.fromhex("37fa213d")))
    same(t.gateway.wait("sent", channel), ["yes"], "the block")


def in_order(t):
    """Texts and blocks in the order of publishing, numbered without gap."""
    channel = f"/to/{t.name}"
    peer, number = t.join(subscribe=[channel]), 0
    for i in range(60):
        t.gateway.tell("block" if i % 2 else "text", channel, str(i))
    while number < 60:
        opcode, payload = peer.frame()
        if payload[:1] != b"{":
            got = (struct.unpack("<Q", payload[8:16])[0], payload[16:]) if opcode == BINARY else (int(payload.split(b"\x1e")[0]), payload.split(b"\x1f")[1])
            same((opcode, got), (BINARY if number % 2 else TEXT, (number + 1, b"%d" % number)), "message")
            number += 1
        if opcode == BINARY:
            peer.says(answer(struct.unpack("<I", payload[4:8])[0], True))
    same(t.gateway.wait("sent", channel, 30), ["yes"] * 30, "blocks")


# --- Blocks --------------------------------------------------------------------------------------

def blocks():
    for name, pages in (("one-takes-it", "y"), ("one-refuses-it", "n"), ("both-take-it", "yy"), ("one-of-two-refuses", "yn"), ("one-of-two-leaves", "yl"),
                        ("one-of-two-breaks", "yb"), ("one-hears-nothing", "y-"), ("nobody", ""), ("nobody-hears-it", "--"), ("one-of-two-is-too-small", "ys")):
        yield f"delivered-{name}", lambda t, pages=pages: delivered(t, pages)
    for size in (0, 1, 7, 8, 999, 1000, 1001, 2000, 2500, 10_000):
        for limit in (size - 1, size, 2**53):
            if limit >= 0:
                yield f"size-{size}-limit-{limit}", lambda t, size=size, limit=limit: sized(t, size, limit)
    yield "answers-that-are-none", odd_answers
    none = "no such block channel"
    for name, header, why in (("in-pieces", b"\1\0\1\0", "a block in pieces"), ("channel-0", b"\1\1\0\0", none), ("channel-17", b"\1\1\x11\0", none),
                              ("channel-256", b"\1\1\0\1", none), ("channel-65535", b"\1\1\xff\xff", none)):
        yield f"from-a-page-{name}", lambda t, header=header, why=why: t.broken(frame(BINARY, header + bytes(12)), 4000, f"bad message: {why}")
    for number in (0, 17, 2**53):
        yield f"own-channel-{number}", bad({"t": "channel", "number": number, "name": "/up/x"}, 'member "number"')
    for first in (0, 2, 3, 127, 255):
        yield f"from-a-page-first-byte-{first}", lambda t, first=first: t.join().send(frame(BINARY, bytes([first]) + bytes(30))).echo()
    for name, header in (("plain", b"\1\1\1\0" + bytes(12)), ("other-bits", b"\1\xff\1\0" + b"\xff" * 12)):
        yield f"from-a-page-{name}", lambda t, header=header: own_blocks(t, [(1, "")], header)
    yield "from-a-page-all-sixteen-and-again", lambda t: own_blocks(t, [(number, f"-{turn}{number}") for turn in "ab" for number in range(1, 17)])
    for name in ("/x", "x" * 257, "/up/" + "x" * 1021, None):
        yield f"from-a-page-not-{str(name)[:9]}-{len(name or '')}", lambda t, name=name: t.join().says(
            *([{"t": "channel", "number": 1, "name": name}] if name else [])).send(frame(BINARY, b"\1\1\1" + bytes(13))).has(refused("block", name or "")).echo()


def answer(transfer, ok):
    return {"t": "block", "transfer": transfer, "ok": ok, "reason": "because"}


def take(peer, channel, number=1, size=None) -> tuple[int, bytes]:
    """The next block, whole: its transfer and its bytes. In pieces of 1000 bytes; each tells the size, and the last one the number."""
    if channel:
        peer.control(t="channel", number=1, name=channel)
    whole, transfer = b"", None
    while True:
        opcode, payload = peer.frame()
        same((opcode, payload[0], payload[2:4], len(payload) <= 1016), (BINARY, 1, b"\1\0", True), "header")
        same(transfer or payload[4:8], payload[4:8], "transfer")
        transfer, whole = payload[4:8], whole + payload[16:]
        same(size is None or payload[8:16] == struct.pack("<Q", number if payload[1] else size), True, "number or size")
        if payload[1] == 1:
            return struct.unpack("<I", transfer)[0], whole


def delivered(t, pages):
    channel = f"/to/{t.name}"
    peers = [t.join(subscribe=[] if page == "-" else [channel], limits={"block": 3} if page == "s" else {}) for page in pages]
    t.gateway.tell("block", channel, b"12345678")
    for page, peer in zip(pages, peers):
        if page not in "-s":
            transfer, whole = take(peer, channel)
            same(whole, b"12345678", "block")
            peer.says(answer(transfer, page == "y")) if page in "yn" else peer.send(close_frame(1000) if page == "l" else frame(3))
    same(t.gateway.wait("sent", channel), ["yes" if "y" in pages and not set("nlbs") & set(pages) else "no"], "the block")


def sized(t, size, limit):
    channel, payload = f"/to/{t.name}", bytes(i * 7 % 256 for i in range(size))
    peer = t.join(subscribe=[channel], limits={"block": limit})
    t.gateway.tell("text", channel, "first")
    same(peer.records(1), [(1, channel, b"first")], "the text")
    t.gateway.tell("block", channel, payload)
    if size <= limit:
        transfer, whole = take(peer, channel, 2, size)
        same(whole, payload, "the block")
        peer.says(answer(transfer, True))
    same(t.gateway.wait("sent", channel), ["yes" if size <= limit else "no"], "the block")


def odd_answers(t):
    """Answers to what is unknown or over change nothing, and the first one counts."""
    channel = f"/to/{t.name}"
    peer = t.join(subscribe=[channel]).says(*(answer(odd, False) for odd in (0, 1, 2**32 - 1, 2**32, 2**53, 2**64 - 1))).echo()
    t.gateway.tell("block", channel, b"x")
    transfer, _ = take(peer, channel)
    peer.says(*(answer(odd, odd == transfer) for odd in (transfer + 1, transfer + 2**32, transfer, 0)), answer(transfer, False)).echo()
    same(t.gateway.wait("sent", channel), ["yes"], "the block")


def own_blocks(t, numbers, header=None):
    peer = t.join()
    for number, name in numbers:
        channel = f"/up/{t.name}{name}"
        t.block(peer, channel, b"")
        peer.says({"t": "channel", "number": number, "name": channel}).send(frame(BINARY, (header or struct.pack("<BBH12x", 1, 1, number)) + channel.encode()))
        same(t.gateway.wait("block", channel), [channel.encode()], "block")


# --- Returning -----------------------------------------------------------------------------------

def returns():
    for end, (acknowledged, last) in itertools.product((4900, 0, None), (([], 0), ([], 3), ([2], 2), ([2], 5), ([5], 5), ([3, 6, 2**53, 2**64 - 1, 1, 0], 3))):
        yield f"after-{end}-last-{last}-acknowledged-{acknowledged}", lambda t, end=end, a=acknowledged, last=last: comes_back(t, end, a, last)
    for name, last, acknowledged in (("beyond", 6, []), ("far-beyond", 2**53, []), ("before-the-acknowledged", 1, [3])):
        yield f"bad-{name}", lambda t, last=last, a=acknowledged: bad_return(t, last, a)
    for name, members, code in (("left", {}, 1000), ("left-otherwise", {}, 4000), ("without-resume", {"resume": False}, 4900)):
        yield f"none-{name}", lambda t, members=members, code=code: over(t, members, code)
    for view in ("x", "0" * 32, "é", "\0", "x" * 2000):
        yield f"unknown-view-{view[:8]!r}-{len(view)}", lambda t, view=view: same(
            [t.join(view=view, last=3).hello.get(name) for name in ("kind", "next", "ended")], ["further", 1, None], "hello")
    yield "refused-4096", lambda t: t.join(view="x", last=0, refused=[1] * 4096).echo()
    for name, last, refused_, wanted in (("again", 0, [], "yes"), ("refused-before", 1, [1], "no"), ("taken-before", 1, [], "yes")):
        yield f"block-{name}", lambda t, last=last, refused_=refused_, wanted=wanted: block_and_return(t, last, refused_, wanted)
    yield "what-stands-and-what-begins-anew", begins_anew


def five(t, **members):
    channel = f"/to/{t.name}"
    peer = t.join(subscribe=[channel], **members)
    for i in range(1, 6):
        t.gateway.tell("text", channel, str(i))
    same(peer.records(5), [(i, channel, b"%d" % i) for i in range(1, 6)], "records")
    return peer, channel


def comes_back(t, end, acknowledged, last):
    """Everything behind `last` comes in the old order with the old numbers, and then it goes on. `end`: of the old connection; None: it stays."""
    peer, channel = five(t)
    peer.says(*({"t": "ack", "last": ack} for ack in acknowledged)).echo()
    if end is not None:
        peer.leave(end)
    back = t.join(view=peer.hello["view"], last=last)
    same([back.hello[name] for name in ("kind", "view", "next", "subscribed")], ["return", peer.hello["view"], last + 1, [channel]], "hello")
    if end is None:
        peer.closed(4005, "returned elsewhere")
    t.gateway.tell("text", channel, "6")
    got = []
    while not got or got[-1][0] < 6:
        got += back.records(1)
    same([record for record in got if record[0] > last], [(i, channel, b"%d" % i) for i in range(last + 1, 7)], "records")
    back.echo()


def bad_return(t, last, acknowledged):
    peer, _ = five(t)
    peer.says(*({"t": "ack", "last": ack} for ack in acknowledged)).echo()
    why = 'bad return: "last" is not what was sent and kept'
    same([t.join(view=peer.hello["view"], last=last).hello.get(name) for name in ("kind", "next", "ended")], ["further", 1, why], "hello")
    peer.closed(4006, why)


def over(t, members, code):
    """The page has ended its view itself."""
    peer, _ = five(t, **members)
    peer.leave(code)
    hello_ = t.join(view=peer.hello["view"], last=5).hello
    same([hello_.get(name) for name in ("kind", "ended")], ["further", "the page closed it"], "hello")


def block_and_return(t, last, refused_, wanted):
    """A block behind `last` comes again whole; of one up to it the return tells what may be lost."""
    channel = f"/to/{t.name}"
    peer = t.join(subscribe=[channel])
    t.gateway.tell("block", channel, bytes(2500))
    peer.control(t="channel")
    peer.frame() if last == 0 else take(peer, None)
    peer.leave(4900)
    back = t.join(view=peer.hello["view"], last=last, refused=refused_)
    same((back.hello["kind"], back.hello["blockChannels"]), ("return", [channel]), "hello")
    if last == 0:
        back.says(answer(take(back, None, 1, 2500)[0], True))
    same(t.gateway.wait("sent", channel), [wanted], "the block")


def begins_anew(t):
    """Subscriptions stand, a number for the page's own blocks does not."""
    one, two = f"/to/{t.name}/1", f"/to/{t.name}/2"
    peer = t.join(subscribe=[one]).says({"t": "channel", "number": 1, "name": "/up/x"}).echo().leave(4900)
    back = t.join(view=peer.hello["view"], last=0, subscribe=[one, two, "/none"])
    same((sorted(back.hello["subscribed"]), back.hello["refused"]), ([one, two], ["/none"]), "hello")
    back.send(frame(BINARY, b"\1\1\1" + bytes(13))).has(refused("block")).echo()


# --- What takes time -----------------------------------------------------------------------------

def times():
    for play in (silent, answers_pings, unanswered, takes_nothing, too_late, lost_with_block):
        yield play.__name__, play
    yield "first-view", lambda t: same(t.gateway.bystander.page.hello["kind"], "first", "kind")


def silent(t):
    peer = t.join()
    peer.is_alive = False
    while (got := peer.frame()) == (PING, b""):
        pass
    same(got, (CLOSE, b"\x0f\xa4no sign of life"), "close frame")
    peer.end()
    same(t.join(view=peer.hello["view"], last=0).hello["kind"], "return", "kind")


def answers_pings(t):
    peer, end = t.join(), time.monotonic() + 4
    while time.monotonic() < end:  # it answers its pings meanwhile
        peer.echo()
        peer.more()


def unanswered(t):
    channel = f"/to/{t.name}"
    peer = t.join(subscribe=[channel])
    t.gateway.tell("block", channel, b"x")
    transfer, _ = take(peer, channel)
    same(t.gateway.wait("sent", channel), ["no"], "the block")
    peer.says(answer(transfer, True)).echo()  # too late


def takes_nothing(t):
    channel = f"/to/{t.name}"
    peer = t.join(subscribe=[channel], resume=False, client=t.name)
    for _ in range(40):
        t.gateway.tell("text", channel, b"x" * 250_000)
    t.gateway.wait_for_line(lambda line: "too slow" in line and t.name in line)
    while (got := peer.frame())[0] != CLOSE:
        same(got[1][:1].isdigit(), True, "a batch")
    # On a busy machine the last bytes are taken after more waits than may: then that is seen first.
    same(got[1] in (b"\x0f\xa3too slow: it took nothing for too long",
                    b"\x0f\xa3too slow: more waits for it than its share, and it takes less than it is sent"), True, f"close frame, {got[1]}")
    peer.end()


def too_late(t):
    peer = t.join().leave(4900)
    time.sleep(1.3)
    hello_ = t.join(view=peer.hello["view"], last=0).hello
    same((hello_["kind"], hello_["ended"]), ("further", "it did not return in time"), "hello")


def lost_with_block(t):
    """Given back when the page counts as gone."""
    channel = f"/to/{t.name}"
    peer = t.join(subscribe=[channel])
    t.gateway.tell("block", channel, b"x")
    take(peer, channel)
    peer.leave(0)
    same(t.gateway.wait("sent", channel), ["no"], "the block")


# --- The log -------------------------------------------------------------------------------------

FORGED, SHOWN = "a\r\n[gateway] all is well\x1b[2J\0\\", "a\\x0d\\x0a[gateway] all is well\\x1b[2J\\x00\\\\"


def logs():
    for name, said in (("channel", {"t": "publish", "channel": "%", "text": ""}), ("kind", {"t": "%"}), ("reason", answer(1, False) | {"reason": "%"}), ("client", None)):
        yield f"forged-{name}", lambda t, said=said: forged(t, said)
    yield "flooded", flooded
    yield "secrets", secrets


def forged(t, said):
    """Comes as one line, escaped. It is said again when the log was full of what other cases did."""
    put = {name: t.name + FORGED if value == "%" else value for name, value in (said or {}).items()}
    for _ in range(10):
        t.join(client="x" if said else t.name + FORGED).says(*([put] if said else []))
        if t.gateway.has_line(lambda line: t.name in line, patience=1):
            break
    same(t.name + SHOWN in t.gateway.wait_for_line(lambda line: t.name in line), True, "escaped")


def flooded(t):
    """What pages do does not fill the log, and the program's own lines come through."""
    before, begin = len(t.gateway.logged), time.monotonic()
    peer = t.join().says(*[{"t": "x"}] * 3000)
    t.gateway.tell("log", f"own line {t.name}")
    for _ in range(3000):
        peer.has(refused("x", "", "unknown"))
    t.gateway.wait_for_line(lambda line: line == f"own line {t.name}")
    same(len(t.gateway.logged) - before < 45 + 10 * (time.monotonic() - begin), True, "few lines")


def secrets(t):
    """Offered rightly and wrongly, token, code and view stand in no line, nor does anything but text."""
    t.gateway.tell("code")
    page, token, code = t.join(client=t.name), t.gateway.token, t.gateway.wait("code")[0].split("=")[1]
    for target in (f"/?token={token}", f"/{token}", f"/kiroweb/token?code={code}"):
        t.peer().send(t.request(f"GET {target}"), t.request("GET /none", Referer=f"http://x/#token={token}", Cookie=f"token={token}")).everything()
    for offer in (token + "x", code):
        t.refused(t.upgrade(Sec_WebSocket_Protocol=f"kiroweb.v1, kiroweb.token.{offer}"), 403)
    t.gateway.wait_for_line(lambda line: t.name in line)
    for line in t.gateway.logged:
        same([secret in line for secret in (token, code, page.hello["view"])], [False] * 3, f"a secret in {line!r}")
        same(line.isascii() and line.isprintable(), True, f"printable, {line!r}")


CHAPTERS = {"messages": messages, "echoes": echoes, "hellos": hellos, "channels": channels, "blocks": blocks, "returns": returns}
BRIEF = {"times": times, "logs": logs}
