"""The lines between an engine or a gateway and the nodes of a cluster: slow, lossy and far, each beside what a
plain TCP connection gets through it; and a gateway that stands still, or gets on too slowly, while the others go
on."""

import concurrent.futures
import dataclasses
import functools
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time

import load
from cluster import Cluster, settle

HERE = pathlib.Path(__file__).resolve().parent
NODES = "10.78.0.1"  # where engines find them
FLOOR_PORT, FAR_PORT = 7100, 7110
PAGES = 2  # of each engine at each of its gateways
BLOCK = 9600  # bytes, about
FLOOR_SECONDS, STREAM_SECONDS = 2.0, 3.0
LEAST_RATIO = 0.7
LATE_WAIT = 1.5  # seconds; one until a gateway counts as gone, and what a look takes
QUIET_SECONDS, DROPPED_WITHIN = 2.5, 14.0
WEAK = 50  # kbit/s of a gateway that cannot follow
ROUND = 50  # seconds
# Of the engine's; the first that comes through.
REASONS = ("it is 10 s behind", "nothing was heard of it", "it is not known")
MOST_RATIO, FLOOR = 2, 1  # of the p99, and the ms below which it is chance

# One end of a connection: "serve" or "connect" HOST PORT, and "send", or SECONDS for which it receives from the
# first byte on; it prints how many bytes that were.
END = """
import socket, sys, time
how, host, port, what = sys.argv[1:]
if how == "serve":
    with socket.create_server((host, int(port))) as server:
        print("ready", flush=True)
        line, _ = server.accept()
else:
    line = socket.create_connection((host, int(port)))
if what == "send":
    try:
        while True:
            line.sendall(bytes(65536))
    except OSError:
        sys.exit()
count, until = len(line.recv(65536)), time.monotonic() + float(what)
while (left := until - time.monotonic()) > 0:
    line.settimeout(left)
    try:
        count += len(line.recv(65536))
    except TimeoutError:
        break
print(count, flush=True)
"""


def do(command: str) -> None:
    subprocess.run(command, shell=True, check=True)


def add_namespace(name: str, net: str) -> None:
    """With a link "to-NAME" to this one. Here is NET.1, and NET.2 there."""
    do(f"ip netns add {name} && ip link add to-{name} type veth peer name eth0 netns {name} && "
       f"ip addr add {net}.1/24 dev to-{name} && ip link set to-{name} up && "
       f"ip -n {name} link set lo up && ip -n {name} addr add {net}.2/24 dev eth0 && ip -n {name} link set eth0 up")


def quantile(delays: list, share: float) -> float:
    """In milliseconds."""
    wanted = share * sum(count for _, count in delays)
    for delay, count in sorted(delays):
        wanted -= count
        if wanted <= 0:
            return (delay + 1) / 100
    return 0


@dataclasses.dataclass
class Line:
    name: str
    number: int
    kilobits: int
    lost: int = 0  # of 100 packets, each way
    seconds: float = 0  # one way
    ends_at: str = "engine"  # who is behind it; else a gateway

    def __post_init__(self):
        self.space, self.net, self.proxies = f"line-{self.number}", f"10.78.{self.number}", []
        self.inside = ["ip", "netns", "exec", self.space]
        add_namespace(self.space, self.net)
        self.add_route()
        # Packets have the size that they have on a line.
        shape = self.shape(self.kilobits)
        do(f"ip link set to-{self.space} gso_max_segs 1 && tc qdisc add dev to-{self.space} {shape} && "
           f"ip -n {self.space} link set eth0 gso_max_segs 1 && tc -n {self.space} qdisc add dev eth0 {shape}")
        if self.lost:
            for inside, device in ((" ".join(self.inside), "eth0"), ("", f"to-{self.space}")):
                do(f"{inside} nft 'add table inet lost; "
                   "add chain inet lost input { type filter hook input priority 0; }; "
                   f"add rule inet lost input iifname {device} numgen random mod 100 < {self.lost} drop'")

    @staticmethod
    def shape(kilobits: int) -> str:
        burst = max(4000, kilobits * 1000 // 8 // 100)  # bytes; what 10 ms bring
        return f"root tbf rate {kilobits}kbit burst {burst} latency 300ms"

    def limit(self, kilobits: int) -> None:
        """What comes to who is behind it."""
        do(f"tc qdisc change dev to-{self.space} {self.shape(kilobits)}")

    def add_route(self) -> None:
        do(f"ip -n {self.space} route add default via {self.net}.1")

    def proxied(self, to: int) -> int:
        """The port where the line leads to that one."""
        if not self.seconds:
            return to
        listen = FAR_PORT + 10 * self.number + len(self.proxies)
        proxy = load.Program([sys.executable, str(HERE / "proxy.py")], {
            "name": "far", "seed": 0, "listen": [NODES, listen], "host": NODES, "to": to,
            "seconds": self.seconds})
        proxy.answer()
        self.proxies.append(proxy)
        return listen

    def floor(self) -> float:
        """Bytes a second of a plain connection, the way that the stream takes."""
        port = FLOOR_PORT + self.number
        what = [str(FLOOR_SECONDS), "send"][::1 if self.ends_at == "engine" else -1]
        run, pipe = [sys.executable, "-c", END], {"stdout": subprocess.PIPE, "text": True}
        server = subprocess.Popen([*run, "serve", NODES, str(port), what[0]], **pipe)
        server.stdout.readline()
        client = subprocess.Popen([*self.inside, *run, "connect", NODES, str(self.proxied(port)), what[1]], **pipe)
        sink, source = (server, client)[::1 if self.ends_at == "engine" else -1]
        count = int(sink.stdout.readline())
        source.kill()
        for each in (sink, source):
            each.wait()
        return count / FLOOR_SECONDS

    def cut(self) -> None:
        do(f"ip -n {self.space} link set eth0 down")

    def mend(self) -> None:
        do(f"ip -n {self.space} link set eth0 up")
        self.add_route()


@dataclasses.dataclass
class Result:
    ratio: float
    wait: float
    cut: float
    given_back: int
    blocks: int


class Load:
    """An engine, behind a line if there is one, and pages at gateways with their manners. The line may be a
    gateway's instead."""

    def __init__(self, cluster: Cluster, session: str, gateways: dict, line: Line | None = None, **rates):
        inside, way = [], {}
        if line is not None and line.ends_at == "engine":
            inside, way = line.inside, {"servers": f"{NODES}:{line.proxied(cluster.ports['node-1'])}"}
        elif line is not None:
            begin_behind(cluster, line)
        self.cluster, self.line = cluster, line
        self.engine = cluster.engine(session, inside=inside, way=way, **rates)
        self.groups = {name: cluster.pages(name, session, line.inside if line and name == line.ends_at else (),
                                           pages=PAGES, seed=1, **manner)
                       for name, manner in gateways.items()}
        self.settle()

    def settle(self) -> None:
        settle(self.engine, list(self.groups.values()), len(self.groups) * PAGES)

    def rest(self) -> list[dict]:
        """Ends the stream: each page has to have all of it. Returns what they saw."""
        last = self.engine.ask("rest")
        for group in self.groups.values():
            group.say(f"until {last['texts']}")
        return [group.answer() for group in self.groups.values()]

    def answered(self) -> bool:
        now = self.engine.ask("report")
        return now["delivered"] + now["givenBack"] == now["blocks"]

    def end(self) -> None:
        for each in (*self.groups.values(), self.engine, *(self.line.proxies if self.line else [])):
            each.end()


def begin_behind(cluster: Cluster, line: Line) -> None:
    """The gateway at the line's end: browsers find it there."""
    name = f"gateway-{line.ends_at}"
    cluster.write(name, "gateway.conf", (1,), name=line.ends_at, tls="off", port=cluster.ports[name],
                  servers=f"{NODES}:{line.proxied(cluster.ports['node-1'])}")
    cluster.inside[name] = line.inside
    cluster.start(name)


def behind(cluster: Cluster, line: Line) -> Load:
    """More than the line carries."""
    gateways = {"one": {}, "two": {}} if line.ends_at == "engine" else {line.ends_at: {}}
    return Load(cluster, line.name, gateways, line,
                texts=200, blocks=1.5 * line.kilobits * 1000 / 8 / BLOCK)


def stream(it: Load) -> Result:
    """For some seconds: how much of it comes through, in order and once. Then the line is cut."""
    line, engine = it.line, it.engine
    floor = line.floor()
    before = engine.ask("go")
    began = time.monotonic()
    time.sleep(STREAM_SECONDS)
    seen = it.rest()
    came = time.monotonic()
    load.until(it.answered, "blocks are answered")
    wait = time.monotonic() - came
    after = engine.ask("report")
    got = (after["gateway"]["bytesSent"] - before["gateway"]["bytesSent"]) / (came - began)
    print(f"# {line.name} line: {floor:,.0f} bytes/s of a plain connection, {got:,.0f} of the link", flush=True)
    if (least := quantile(seen[0]["delays"][""], 0)) < line.seconds * 1000:
        raise RuntimeError(f"the {line.name} line is none: a text came after {least:.0f} ms")
    engine.ask("go")
    time.sleep(0.5)
    line.cut()
    cut = time.monotonic()
    engine.ask("rest")
    load.until(it.answered, "blocks are answered")
    took = time.monotonic() - cut
    line.mend()
    it.rest()
    return Result(got / floor, wait, took, after["givenBack"] - before["givenBack"], after["blocks"] - before["blocks"])


def failure(it: Load, name: str, harm, heal) -> tuple[float, float, float]:
    """Harms the gateway of that name. Returns the p99 of the other one's pages before and then, in
    milliseconds, and after how many seconds the engine let go of it."""
    one, dropped = it.groups["one"], lambda: it.engine.ask("report")["gateway"]["dropped"]
    told = lambda: sum(it.cluster.log(f"gateway-{name}").count(f"left: {why}") for why in REASONS)
    reasons = told()
    it.engine.ask("go")
    before = dropped()
    time.sleep(1)
    one.ask("phase quiet")
    time.sleep(QUIET_SECONDS)
    one.ask("phase harmed")
    harm()
    try:
        took = load.until(lambda: dropped() > before, "the gateway is dropped", DROPPED_WITHIN)
    finally:
        heal()
    one.ask("phase after")
    it.settle()  # it has joined again
    if told() == reasons:
        load.found(f"the gateway {name} was not told why it was dropped")
    delays = it.rest()[0]["delays"]
    load.until(it.answered, "blocks are answered")
    return quantile(delays["quiet"], 0.99), quantile(delays["harmed"], 0.99), took


def times_worse(result: tuple[float, float, float]) -> float:
    return result[1] / max(result[0], FLOOR)


def lasting_failure(*what) -> tuple[float, float, float]:
    """What the bound refuses is played once more: a machine that has something else to do breaks it
    once, a gateway that harms others each time."""
    result = failure(*what)
    return result if times_worse(result) <= MOST_RATIO else min(result, failure(*what), key=times_worse)


def run(end: float) -> None:
    """Rounds until then, at least one."""
    do(f"ip addr add {NODES}/32 dev lo")
    lines = [Line("slow", 1, 1000), Line("lossy", 2, 5000, lost=5), Line("far", 3, 20_000, seconds=0.1),
             Line("slow-gateways", 4, 1000, ends_at="slow"), Line("lossy-gateways", 5, 5000, lost=5, ends_at="lossy"),
             Line("far-gateways", 6, 20_000, seconds=0.1, ends_at="far")]
    weak = Line("weak", 7, 20_000, ends_at="weak")
    behind_lines = [line.ends_at for line in (*lines[3:], weak)]
    with tempfile.TemporaryDirectory(prefix="kiroweb-lines-") as folder:
        sessions = (*(line.name for line in lines), "stopped", "weak")
        cluster = Cluster(folder, ("one", "two", "failing", *behind_lines), sessions, {}, NODES)
        cluster.start(*(name for name in cluster.ports if name.removeprefix("gateway-") not in behind_lines))
        time.sleep(1)  # until they have found each other
        try:
            judge(*play(cluster, lines, weak, end))
        finally:
            cluster.kill(*cluster.running)


def play(cluster: Cluster, lines: list[Line], weak: Line, end: float) -> tuple[dict, dict]:
    results, failures = {line.name: [] for line in lines}, {"stopped": [], "slow": []}
    with concurrent.futures.ThreadPoolExecutor() as all_at_once:
        loads = list(all_at_once.map(lambda line: behind(cluster, line), lines))
        fails = {"mayLose": True, "mayEnd": True}
        stopping = Load(cluster, "stopped", {"one": {}, "failing": fails}, texts=1000, blocks=20)
        weakening = Load(cluster, "weak", {"one": {}, "weak": fails}, weak, texts=1000, blocks=20)
        while not failures["slow"] or time.monotonic() + ROUND < end:
            for it, result in zip(loads, all_at_once.map(stream, loads)):
                results[it.line.name].append(result)
            signalled = [functools.partial(cluster.signal, "gateway-failing", number)
                         for number in (signal.SIGSTOP, signal.SIGCONT)]
            failures["stopped"].append(lasting_failure(stopping, "failing", *signalled))
            limited = [functools.partial(weak.limit, kilobits) for kilobits in (WEAK, weak.kilobits)]
            failures["slow"].append(lasting_failure(weakening, "weak", *limited))
        for it in (*loads, stopping, weakening):
            it.end()
    return results, failures


def judge(results: dict, failures: dict) -> None:
    print(f"figure: link: rounds: {len(failures['slow'])}")
    for name, all_of_it in results.items():
        ratio, wait, cut = (pick(getattr(each, what) for each in all_of_it)
                            for pick, what in ((min, "ratio"), (max, "wait"), (max, "cut")))
        given_back = sum(each.given_back for each in all_of_it)
        print(f"figure: link: {name} line: {ratio:.2f} of a plain connection; wait behind the last text "
              f"{wait:.2f} s, after a cut {cut:.2f} s; blocks given back "
              f"{given_back} of {sum(each.blocks for each in all_of_it)}")
        if ratio < LEAST_RATIO:
            load.found(f"the {name} line: {ratio:.2f} of what a plain connection gets")
        if max(wait, cut) > LATE_WAIT:
            load.found(f"the {name} line: a wait ended after {wait:.2f} s, and {cut:.2f} s after a cut")
    for how, all_of_it in failures.items():
        quiet, harmed, _ = max(all_of_it, key=times_worse)
        print(f"figure: link: p99 quiet: {quiet:.2f} ms\nfigure: link: p99 beside a {how} gateway: {harmed:.2f} ms")
        print(f"figure: link: ratio: {harmed / quiet:.2f}")
        print(f"figure: link: {how} gateway dropped after: {max(each[2] for each in all_of_it):.2f} s")
        if harmed > MOST_RATIO * max(quiet, FLOOR):
            load.found(f"p99 of the other gateway's pages: {quiet:.2f} ms, beside a {how} one {harmed:.2f} ms")
