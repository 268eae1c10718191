"""HTTP/1.1: requests, their borders, and who gets in."""

import gzip
import itertools
import time

from peers import ACCEPT, CLOSE, KEY, PING, frame, same, text

TOKEN = "/kiroweb/token"
TARGETS = {"page": "GET /", "code": f"POST {TOKEN}", "upgrade": "GET /kiroweb"}

# Tables by the status of the answer. %d stands for the port, %h for the host, %s for the origin, %S for it with the other
# scheme, %t for the token, %< and %> for it without its last and first character, %~ for it with the last one changed.
LINES = {
    200: ("GET / HTTP/1.1",),
    400: ("GET / HTTP/0.9", "GET / HTTP/2.0", "GET / HTTP/1.2", "GET / HTTP/1.10", "GET / HTTP/1", "GET / HTTP/01.1", "GET / http/1.1", "GET / HTTPS/1.1",
          "GET / HTTP/1.1 ", "GET  / HTTP/1.1", "GET /  HTTP/1.1", "GET\t/ HTTP/1.1", " GET / HTTP/1.1", "GET /", "GET", "/ HTTP/1.1", "GET  HTTP/1.1",
          "G\0T / HTTP/1.1", "G(T / HTTP/1.1", "GET /\0 HTTP/1.1", "GET /\x01 HTTP/1.1", "GET /\x7f HTTP/1.1", "GET /ä HTTP/1.1", "GET /\xff HTTP/1.1",
          "GET /a\rb HTTP/1.1", "\x16\x03\x01", "\r\nGET / HTTP/1.1", "GET / HTTP/1.1\r\n X: fold", "GET / HTTP/1.1\nX: y", "GET / HTTP/1.1\rX: y"),
    405: tuple(f"{method} / HTTP/1.1" for method in "POST PUT DELETE OPTIONS TRACE CONNECT PATCH PROPFIND BREW get Get GETX GET!".split()) + ("A" * 500 + " / HTTP/1.1",)}
PATHS = {
    200: ("/", "/?", "/?q=/../", "/a.js?x#y", "/?token=%t"),
    404: ("/none", "//", "/./", "/..", "/../", "/../../etc/passwd", "/a.js/..", "/..;/", "/.%2e/", "/%2e%2e/%2e%2e/etc/passwd", "/%2E%2E/",
          "/..%2f..%2fetc/passwd", "/%252e%252e/", "/%c0%ae%c0%ae/", "/..%5c..%5c", "/..\\..\\", "/%00", "/a.js%00", "/a.js%00.html", "/%61.js", "/A.JS",
          "/a.js/", "/%", "/%zz", "/%0d%0aX:y", "/kiroweb/", "/kiroweb/../", "/kiroweb/none", "/kiroweb?", "/kiroweb%20", "/kiroweb/token/", "/Kiroweb",
          "http://%h/", "http://%h/a.js", "%s/", "http://evil.example/", "%s/kiroweb", "//evil.example/", "ws://%h/kiroweb", "file:///etc/passwd", "*",
          "a.js", "%h", "javascript:alert(1)", "/kiroweb?token=%t", "/kiroweb/%t", "/kiroweb#token=%t")}
FIELDS = {  # as they stand between the Host and the end
    200: ("X: y", "X:y", "X:", "X: \t y \t", "X: \xe4", "x" * 300 + ": y", "X: a\r\n b", "X: a\r\n\tb", "X:\r\n ", "X: a\r\n \r\n b", "Content-Length: 0",
          "Content-Length: 00", "Content-Length: 0\r\nContent-Length: 0", "Expect: 100-continue", "Cookie: a=b; c\r\nCookie: d", "Range: bytes=0-1",
          "Upgrade: h2c\r\nConnection: Upgrade, HTTP2-Settings\r\nHTTP2-Settings: AAMAAABk", "If-None-Match: *", "X-Forwarded-Host: evil.example",
          "X-HTTP-Method-Override: DELETE"),
    400: ("X : y", "X\t: y", ": y", "X", "X y", "X\0: y", "X: \0", "X: a\x01b", "X: \x7f", "(X): y", "X: a\rb", "X: a\nY: b", "X: a\n", "X: a\r", "\xe4: y", "\n", "\r",
          "Content-Length: 1", "Content-Length: -1", "Content-Length: +0", "Content-Length: 0x0", "Content-Length: ", "Content-Length: a", "Content-Length: 1 0",
          "Content-Length: 0, 1", "Content-Length: 0,", "Content-Length: 18446744073709551616", "Content-Length: 18446744073709551615",
          "Content-Length: 0\r\nContent-Length: 1", "Content-Length : 0", "Transfer-Encoding: chunked", "Transfer-Encoding: identity", "Transfer-Encoding: ",
          "Transfer-Encoding:\r\n chunked", "Connection: \x01")}
HOSTS = {
    200: ("127.0.0.1:%d", "localhost:%d", "[::1]:%d", "plot.example"),
    403: ("127.0.0.1", "127.0.0.1:", "127.0.0.1:80", "127.0.0.1:0%d", "127.0.0.1:%d0", "127.0.0.1:%d:%d", "127.0.0.1:%d.", "127.0.0.1:%d/", "127.0.0.1:%d/x",
          "127.0.0.1:%d?", "127.0.0.1:%d#", "127.0.0.1.:%d", "127.0.0.01:%d", "127.1:%d", "0x7f.0.0.1:%d", "2130706433:%d", "127.0.0.2:%d", "0.0.0.0:%d",
          "localhost", "localhost.:%d", "LOCALHOST:%d", "Localhost:%d", "localhost:%d.evil.example", "127.0.0.1:%d.evil.example", "evil.example",
          "evil.example:%d", "localhost.evil.example:%d", "evil@127.0.0.1:%d", "127.0.0.1:%d@evil.example", "[::1]", "::1:%d", "[::]:%d",
          "[0:0:0:0:0:0:0:1]:%d", "[::ffff:127.0.0.1]:%d", "http://127.0.0.1:%d", "plot.example:80", "plot.example:%d", "xplot.example", "null", "*", "-",
          "127.0.0.1:%d,evil.example"),
    400: ("", "a b", "127.0.0.1:%d evil.example", "127.0.0.1 :%d", "127.0.0.1:%d\xff", "l\xf6calhost:%d", "127.0.0.1:%d, evil.example")}
ORIGINS = {
    101: ("%s", "%s//localhost:%d", "%s//[::1]:%d", "%s//plot.example", "http://dev.example:5173"),
    403: (None, "null", "NULL", "http://evil.example", "https://evil.example", "%s.evil.example", "%s/", "%s/x", "%s?", "%s#", "%s:", "%s0", "%s%00", "http://127.0.0.1",
          "https://127.0.0.1", "http://localhost", "http://[::1]", "ftp://%h", "ws://%h", "wss://%h", "file://", "%h", "//%h", "://%h", "%S", "HTTP://%h",
          "http:/%h", "http:///%h", "http://evil@%h", "http://%h@evil.example", "http://127.0.0.2:%d", "http://0.0.0.0:%d", "http://localhost.:%d",
          "http://LOCALHOST:%d", "http://127.1:%d", "http://evil.example:%d", "http://localhost.evil.example:%d", "http://xlocalhost:%d", "http://dev.example",
          "http://dev.example:5174", "https://dev.example:5173", "http://dev.example:5173/", "http://sub.dev.example:5173", "chrome-extension://abc",
          "about:blank", "data:", "*", "%s,http://evil.example", "moz-extension://x", "app://%h"),
    400: ("", "%s http://evil.example", "http://evil.example %s", "%s\xff", "%s, %s", "http://ev\xeel.example")}
OFFERS = {
    101: ("kiroweb.v1, kiroweb.token.%t", "kiroweb.token.%t,kiroweb.v1", "a, kiroweb.token.%t ,\tb,kiroweb.v1", ["kiroweb.v1", "kiroweb.token.%t"]),
    403: (None, "", "kiroweb.v1", "kiroweb.v1, kiroweb.token.", "kiroweb.v1, kiroweb.token.%t0", "kiroweb.v1, kiroweb.token.%<", "kiroweb.v1, kiroweb.token.0%t",
          "kiroweb.v1, kiroweb.token.%>", "kiroweb.v1, kiroweb.token.%t%t", "kiroweb.v1, kiroweb.token.%~", "kiroweb.v1, kiroweb.token.%t.",
          "kiroweb.v1, kiroweb.token..%t", "kiroweb.v1, kiroweb.tokens.%t", "kiroweb.v1, %t", "kiroweb.v1, Kiroweb.Token.%t", "kiroweb.v1, token.%t",
          "kiroweb.v1.%t", "kiroweb.v1, kiroweb.token=%t", "kiroweb.v1 kiroweb.token.%t", "kiroweb.v1; kiroweb.token.%t", '"kiroweb.v1", kiroweb.token.%t'),
    400: ("kiroweb.v1, kiroweb.token.%t, kiroweb.token.%t", "kiroweb.v1, kiroweb.token.x, kiroweb.token.%t", "kiroweb.v1, kiroweb.token.%t, kiroweb.token.",
          "kiroweb.token.%t", "kiroweb.v2, kiroweb.token.%t", "kiroweb.v11, kiroweb.token.%t", "KIROWEB.V1, kiroweb.token.%t", "kiroweb, kiroweb.token.%t",
          "kiroweb.v1,kiroweb.token.\x01")}
UPGRADES = {
    101: {"Upgrade": ("WebSocket", "h2c, websocket"), "Connection": ("upgrade", "keep-alive, Upgrade")},
    400: {"Sec_WebSocket_Version": (None, "", "8", "12", "14", "013", "13, 8", "13.0", "a", ["13", "13"], ["13", "8"]),
          "Sec_WebSocket_Key": (None, "", "x", KEY[:-1], KEY[:-2], KEY + "=", KEY[:-3] + "R==", "d!" + KEY[2:], KEY[:-2] + "AA", "AAAA" * 10, [KEY] * 2),
          "Upgrade": (None, "", "h2c", "websockets", "web socket"), "Connection": (None, "", "close", "keep-alive", "Upgrades"), "Content_Length": ("1",)}}


def filled(form, t):
    if not isinstance(form, str):
        return form and [filled(one, t) for one in form]
    gateway, token = t.gateway, t.gateway.token
    own, other = (f"{scheme}://{gateway.host}" for scheme in (("https", "http") if gateway.tls else ("http", "https")))
    for sign, value in (("%s//", own.split("/")[0] + "//"), ("%s", own), ("%S", other), ("%h", gateway.host), ("%d", str(gateway.port)), ("%<", token[:-1]),
                        ("%>", token[1:]), ("%~", token[:-1] + "x"), ("%t", token)):
        form = form.replace(sign, value)
    return form


def rows(name, table, ask):
    """A case for each entry of the table; `ask` makes the request of it."""
    for status, forms in table.items():
        for form in forms:
            yield f"{name}-{status}-{form!r:.70}", lambda t, form=form, status=status: t.answered(ask(t, filled(form, t)), status)


def head(t, *lines):
    return "\r\n".join([*lines, "", ""]).encode("latin-1")


def requests():
    yield from rows("line", LINES, lambda t, line: head(t, line, f"Host: {t.gateway.host}"))
    yield from rows("target", PATHS, lambda t, path: t.request(f"GET {path}"))
    yield from rows("field", FIELDS, lambda t, field: head(t, "GET / HTTP/1.1", f"Host: {t.gateway.host}", field))
    for form in ("GET / HTTP/1.0", "GET / HTTP/1.1\r\nConnection: close, x"):
        yield f"closes-{form!r}", lambda t, form=form: t.refused(head(t, form, f"Host: {t.gateway.host}"), 200)
    for size in (1, 7, 100):
        yield f"in-pieces-of-{size}", lambda t, size=size: same(t.peer().send(*(
            t.request(X="y" * 500)[at:at + size] for at in range(0, len(t.request(X="y" * 500)), size))).response()[0], 200, "status")
    for count in (2, 10, 100):
        yield f"pipelined-{count}", lambda t, count=count: pipelined(t, count)
    yield "fields-of-every-answer", every_field
    for taken in ("gzip", "deflate, GZIP;q=0.5", "identity", "gzip;q=0", "xgzip", "gzip;q=0.000, br", "*", "", ",,;"):
        yield f"encoding-{taken}", lambda t, taken=taken: encoding(t, taken)


def pipelined(t, count):
    """Answers come in order, HEAD with the fields of GET; what follows a refusal is not answered."""
    lines = (["GET /", "HEAD /", "GET /a.js", "HEAD /a.js", "GET /?x"] * count)[:count]
    peer, last = t.peer().send(b"".join(map(t.request, lines)) + t.request("GET /none") + t.request()), None
    for line in lines:
        status, fields, body = peer.response(has_body=not line.startswith("HEAD"))
        same((status, "javascript" in fields["content-type"], bool(body)), (200, "a.js" in line, line.startswith("GET")), line)
        if line.startswith("HEAD"):
            same(fields, last, "fields of HEAD")
        last = fields
    same(peer.response()[0], 404, "the refusal")
    peer.end()


def every_field(t):
    own = ("wss://" if t.gateway.tls else "ws://") + t.gateway.host
    for line, connect in (("GET /", f"'self' {own}"), ("GET /none", "'self'"), ("BREW /", "'self'")):
        fields = t.peer().send(t.request(line)).response()[1]
        fixed = {
            "content-security-policy": "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; font-src 'self'; "
                                       f"connect-src {connect}; base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
            "referrer-policy": "no-referrer", "x-content-type-options": "nosniff", "cache-control": "no-store",
            "cross-origin-resource-policy": "same-origin", "cross-origin-opener-policy": "same-origin"}
        same(fields, {name: fields.get(name) for name in ("content-type", "content-length", "connection")} | fixed
             | ({"allow": "GET, HEAD"} if line == "BREW /" else {}), "fields")


def encoding(t, taken):
    is_taken = taken in ("gzip", "deflate, GZIP;q=0.5")
    _, fields, body = t.peer().send(t.request("GET /a.js", Accept_Encoding=taken)).response()
    same((fields.get("content-encoding"), fields.get("vary")), ("gzip" if is_taken else None, "Accept-Encoding"), "fields")
    same((gzip.decompress(body) if is_taken else body)[:9], b"// line 0", "the script")


# --- Borders of requests -------------------------------------------------------------------------

LENGTHS = {"right": ["%d"], "twice": ["%d", "%d"], "different": ["%d", "0"], "zero": ["0"], "no-number": ["%dx"]}
ENCODINGS = {"chunked": ["chunked"], "capitals": ["CHUNKED"], "list": ["gzip, chunked"], "two-fields": ["identity", "chunked"],
             "tab": ["\tchunked"], "unknown": ["xchunked"], "last-is-not": ["chunked, identity"], "empty": [""]}
DISGUISES = ("Transfer-Encoding ", "Transfer_Encoding", " Transfer-Encoding", "X: y\nTransfer-Encoding", "Transfer-Encoding\t", "transfer-encoding",
             "Transfer-\r\n Encoding", "Transfer-Encoding\0")


def smuggling():
    """A request in what might be a body is never answered."""
    for target, length, encoding_, is_length_first in itertools.product(TARGETS, LENGTHS, ENCODINGS, (True, False)):
        names = [("Content-Length", value) for value in LENGTHS[length]], [("Transfer-Encoding", value) for value in ENCODINGS[encoding_]]
        fields = names[not is_length_first] + names[is_length_first]
        yield (f"{target}-length-{length}-{'before' if is_length_first else 'behind'}-encoding-{encoding_}",
               lambda t, target=target, fields=fields: smuggle(t, target, fields, 400))
    for target, name in itertools.product(TARGETS, DISGUISES):
        status = 403 if (target, name) == ("code", "Transfer_Encoding") else 400  # another field, and a wrong code
        yield f"{target}-encoding-called-{name!r}", lambda t, target=target, name=name, status=status: smuggle(
            t, target, [("Content-Length", "%d"), (name, "chunked")], status)


def smuggle(t, target, fields, status):
    body = b"0\r\n\r\n" + t.request("GET /a.js")
    whole = t.upgrade() if target == "upgrade" else t.request(TARGETS[target], Origin=filled("%s", t))
    lines = [f"{name}: {value}".replace("%d", str(len(body))) for name, value in fields]
    t.refused(head(t, whole[:-4].decode(), *lines) + body, status)


# --- Floods and slowness -------------------------------------------------------------------------

def floods():
    """The bound is 2048 bytes."""
    for name, line, fields in (
            ("one-field", "GET /", {"X": "x" * 4096}), ("many-fields", "GET /", {"X": ["x"] * 500}), ("many-cookies", "GET /", {"Cookie": ["a=" + "b" * 100] * 40}),
            ("many-names", "GET /", {chr(97 + i % 26) * (1 + i // 26): "" for i in range(520)}), ("long-name", "GET /", {"X" * 4096: "y"}),
            ("long-target", "GET /" + "a" * 4096, {}), ("long-query", "GET /?" + "a" * 4096, {}), ("long-method", "G" * 4096 + " /", {}),
            ("long-code", f"POST {TOKEN}", {"X": "x" * 4096}), ("folded", "GET /", {"X": "a" + "\r\n b" * 2000}), ("million-bytes", "GET /", {"X": ["y"] * 200_000})):
        yield f"too-large-{name}", lambda t, line=line, fields=fields: t.refused(t.request(line, **fields), 431)
    yield "too-large-upgrade", lambda t: t.refused(t.upgrade(X="x" * 4096), 431)
    yield "without-end", lambda t: t.refused(b"GET / HTTP/1.1\r\nX: " + b"x" * 5000, 431)
    for size, status in ((1800, 200), (2100, 431)):
        yield f"size-{size}", lambda t, size=size, status=status: t.answered(t.request(X="x" * (size - len(t.request(X="")))), status)


def slow():
    """A request, and a hello, have 0.4 s."""
    for name, sent in (("nothing", ""), ("half-a-line", "GET / HT"), ("half-a-field", "GET / HTTP/1.1\r\nHos"), ("all-but-the-end", "GET / HTTP/1.1\r\nHost: %h\r\n"),
                       ("half-a-code", f"POST {TOKEN} HTTP/1.1\r\nHost: %h\r\nOrigin: %s\r\nContent-Length: 64\r\n\r\nabc")):
        yield f"request-{name}", lambda t, sent=sent: times_out(t, filled(sent, t))
    yield "request-byte-by-byte", drips
    yield "second-request", lambda t: same(t.peer().send(t.request()).everything()[-7:], b"<p>page", "all that comes")
    for name, sent in (("none", b""), ("half", b"\x81\x85"), ("only-pongs", frame(10) * 9), ("within-a-message", frame(1, b'{"t":"he', fin=0))):
        yield f"hello-{name}", lambda t, sent=sent: t.broken(sent, 4001, "no hello in time", joined=False)
    yield "hello-only-pings", only_pings
    yield "flood-of-connections", flood
    yield "too-many-pages", too_many
    yield "code-too-old", old_code


def times_out(t, sent):
    begin = time.monotonic()
    same(t.peer().send(sent.encode()).everything(), b"", "an answer")
    same(0.2 < time.monotonic() - begin < 5, True, "ended in time")


def drips(t):
    begin, peer = time.monotonic(), t.peer()
    while time.monotonic() - begin < 0.3:
        peer.send(b"G")
        time.sleep(0.01)
    same(peer.everything(), b"", "an answer")
    same(time.monotonic() - begin < 5, True, "ended in time")


def only_pings(t):
    peer = t.connect()
    while (got := peer.send(frame(PING)).frame())[0] != CLOSE:
        time.sleep(0.02)
    same(got[1], b"\x0f\xa1no hello in time", "the close frame")


def flood(t):
    """The oldest make room, the newest and the pages are let be."""
    page, silent = t.join(), [t.peer() for _ in range(20)]
    t.join().echo()
    same(silent[0].everything(), b"", "the oldest")
    page.echo()


def too_many(t):
    """Of pages there are no more than allowed; who comes then is told, and a place is free again."""
    pages = [t.join() for _ in range(11)]
    if not t.gateway.tls:
        same(t.peer().everything(), b"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", "the answer")
    for page in pages:
        page.echo()
    pages[0].leave()
    time.sleep(0.1)
    t.join().echo()


def old_code(t):
    t.gateway.tell("code")
    code = t.gateway.wait("code")[0].split("=")[1]
    time.sleep(0.6)
    t.refused(exchange(t, code.encode()), 403)


# --- Who gets in ---------------------------------------------------------------------------------

def access():
    yield from rows("host", HOSTS, lambda t, host: t.request(Host=host))
    yield from rows("upgrade-host", {status: forms for status, forms in HOSTS.items() if status != 200}, lambda t, host: t.upgrade(Host=host))
    yield from rows("upgrade-origin", ORIGINS, lambda t, origin: t.upgrade(Origin=origin))
    yield from rows("code-origin", {status: forms for status, forms in ORIGINS.items() if status != 101}, lambda t, origin: exchange(t, b"x" * 64, Origin=origin))
    yield from rows("offer", OFFERS, lambda t, offers: t.upgrade(Sec_WebSocket_Protocol=offers))
    for name in ("Authorization", "Cookie", "X-Kiroweb-Token", "Sec-WebSocket-Extensions", "User-Agent", "Referer"):
        yield f"token-in-{name}", lambda t, name=name: t.refused(t.upgrade(Sec_WebSocket_Protocol="kiroweb.v1", **{name: filled("kiroweb.token.%t", t)}), 403)
    for name, second in itertools.product(("Host", "Origin"), ("%s", "%h", "evil.example", "")):
        both = ["%h" if name == "Host" else "%s", second]
        yield from rows(f"two-{name}-{second}-upgrade", {400: [both]}, lambda t, both, name=name: t.upgrade(**{name: both}))
        yield from rows(f"two-{name}-{second}-code", {400: [both]}, lambda t, both, name=name: exchange(t, b"x", **{name: both}))
    for line in ("GET / HTTP/1.1", "GET / HTTP/1.0", "GET /kiroweb HTTP/1.1"):
        yield f"no-host-{line}", lambda t, line=line: t.refused(head(t, line), 400)
    for status, name in ((status, name) for status in UPGRADES for name in UPGRADES[status]):
        yield from rows(f"upgrade-{name}", {status: UPGRADES[status][name]}, lambda t, value, name=name: t.upgrade(**{name: value}))
    for method in ("POST", "CONNECT", "OPTIONS"):
        yield f"upgrade-by-{method}", lambda t, method=method: t.refused(t.upgrade().replace(b"GET", method.encode(), 1), 405)
    yield "upgrade-1.0", lambda t: t.refused(t.upgrade().replace(b"HTTP/1.1", b"HTTP/1.0"), 400)
    yield "upgrade-byte-for-byte", lambda t: same(t.peer().send(t.upgrade()).take(len(SWITCHING)), SWITCHING, "the answer")
    yield "upgrade-after-a-page", lambda t: same([status for peer in [t.peer().send(t.request() + t.upgrade())] for status in (
        peer.response()[0], peer.response()[0])], [200, 101], "the answers")
    yield "upgrade-with-frames-behind-it", lambda t: t.refused(t.upgrade() + text({"t": "hello", "version": 1}), 400)
    yield from codes()
    yield "time-of-comparison", comparison


SWITCHING = ("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             f"Sec-WebSocket-Accept: {ACCEPT}\r\nSec-WebSocket-Protocol: kiroweb.v1\r\n\r\n").encode()


def exchange(t, code, **fields):
    return t.request(f"POST {TOKEN}", code, **({"Origin": filled("%s", t), "Content_Length": len(code)} | fields))


def codes():
    """A code is good for one exchange, which only a page of ours can make; what is refused does not use it up."""
    for name, status, make in (
            ("another", 403, lambda t, code: exchange(t, b"x" * 64)), ("shorter", 403, lambda t, code: exchange(t, code[:-1])),
            ("longer", 403, lambda t, code: exchange(t, code + b"0")), ("changed", 403, lambda t, code: exchange(t, code[:-1] + b"x")),
            ("blank-behind", 403, lambda t, code: exchange(t, code + b"\n")), ("nul-behind", 403, lambda t, code: exchange(t, code + b"\0")),
            ("the-token", 403, lambda t, code: exchange(t, t.gateway.token.encode())), ("empty", 400, lambda t, code: exchange(t, b"")),
            ("no-length", 400, lambda t, code: exchange(t, code, Content_Length=None)), ("too-long", 413, lambda t, code: exchange(t, code * 3)),
            ("by-GET", 405, lambda t, code: exchange(t, code).replace(b"POST", b"GET")), ("by-PUT", 405, lambda t, code: exchange(t, code).replace(b"POST", b"PUT")),
            ("foreign-host", 403, lambda t, code: exchange(t, code, Host="evil.example")), ("foreign-origin", 403, lambda t, code: exchange(t, code, Origin="null")),
            ("as-the-token", 403, lambda t, code: t.upgrade(Sec_WebSocket_Protocol=f"kiroweb.v1, kiroweb.token.{code.decode()}")),
            ("in-the-query", 405, lambda t, code: exchange(t, b"").replace(b"/token", b"/token?code=" + code)),
            ("chunked", 400, lambda t, code: exchange(t, b"40\r\n" + code + b"\r\n0\r\n\r\n", Content_Length=None, Transfer_Encoding="chunked")),
            ("oldest-of-seventeen", 403, None)):
        yield f"code-{name}", lambda t, make=make, status=status: one_code(t, make, status)


def one_code(t, make, status):
    with t.gateway.exclusive:  # they are few at a time
        count = 1 if make else 17
        for _ in range(count):
            t.gateway.tell("code")
        made = [link.split("=")[1].encode() for link in t.gateway.wait("code", None, count)]
        t.refused(make(t, made[-1]) if make else exchange(t, made[0]), status)
        peer = t.peer().send(exchange(t, made[-1]) * 2)
        same(peer.response()[::2], (200, t.gateway.token.encode()), "the exchange")
        same(peer.response()[0], 403, "the second exchange")


def comparison(t):
    """A look at the shortest times: they do not tell where a guess is wrong."""
    with t.gateway.exclusive:
        t.gateway.tell("times")
        times = [float(word) for word in t.gateway.wait("times")[0]]
    same(max(times) < min(times) * 1.25, True, f"alike, {times} ns")


CHAPTERS = {"requests": requests, "smuggling": smuggling, "floods": floods, "access": access}
BRIEF = {"slow": slow}
