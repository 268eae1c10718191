// The page's side of the wire, against a gateway that a script plays.
import assert from "node:assert/strict";
import { afterEach, beforeEach, test } from "node:test";

import { Connection } from "../../client/protocol.mjs";
import { WebSocket } from "./support/packages.mjs";
import { ScriptedGateway } from "./support/scripted_gateway.mjs";

/** What the page was told, in order, and promises of what it is told next. */
class Heard {
    events = [];
    #waits = [];
    note = (...event) => {
        this.events.push(event);
        this.#waits = this.#waits.filter(({ wanted, resolve }) => !wanted(event) || resolve(event));
    };
    /** The first event, past or future, of this kind. */
    until(kind, matches = () => true) {
        const wanted = ([k, ...rest]) => k === kind && matches(...rest);
        const found = this.events.find(wanted);
        if (found) return Promise.resolve(found);
        return new Promise((resolve) => this.#waits.push({ wanted, resolve }));
    }
    of(kind) {
        return this.events.filter(([k]) => k === kind).map(([, ...rest]) => rest);
    }
    handlers = {
        onState: (state) => this.note("state", state.name, state.reason),
        onHello: (hello) => this.note("hello", hello.kind),
        onText: (channel, text) => this.note("text", channel, text),
        onBlock: (channel, block) => this.note("block", channel, [...block]),
        onRefused: (what, channel) => this.note("refused", what, channel),
        onFault: (error) => this.note("fault", error.message),
    };
}

let gateway;
let heard;
let page;

/** Connects, with no delay before a further attempt. */
async function connect(options = {}, welcome = {}) {
    page = new Connection(gateway.url, heard.handlers, {
        WebSocket, backoff: { first: 0, soon: 0, most: 0 }, ...options,
    });
    const peer = await gateway.peer();
    peer.hello = await peer.welcome(welcome);
    await heard.until("state", (name) => name === "live");
    return peer;
}

/** Ends when the page has handled everything before. */
async function settled(peer, number) {
    peer.batch(number, [["/end", String(number)]]);
    await heard.until("text", (channel, text) => channel === "/end" && text === String(number));
}

beforeEach(async () => {
    gateway = await ScriptedGateway.start();
    heard = new Heard();
});
afterEach(() => {
    page?.close();
    gateway.stop();
});

test("A batch is read record by record, whatever its texts contain", async () => {
    const peer = await connect({ subscribe: ["/a"] });
    assert.deepEqual(peer.hello.subscribe, ["/a"]);
    peer.raw("1\x1e/a\x1f{}\x1e\x1fnot JSON \u{1f600}\x1e/b\x1f\x1f/w==\x1e\x1f\x1fHh8=\x1e/c\x1f");
    await heard.until("text", (channel) => channel === "/c");
    assert.deepEqual(heard.of("text"), [
        ["/a", "{}"], ["/a", "not JSON \u{1f600}"], ["/b", "\ufffd"], ["/b", "\x1e\x1f"], ["/c", ""],
    ]);
});

test("A text that cannot be read costs neither its neighbours nor the connection", async () => {
    const handlers = { ...heard.handlers };
    heard.handlers.onText = (channel, text) => {
        if (text === "bad") throw new Error("cannot read bad");
        handlers.onText(channel, text);
    };
    const peer = await connect();
    peer.batch(1, [["/a", "one"], ["/a", "bad"], ["/a", "three"]]);
    peer.raw("4\x1eno unit separator");
    peer.raw("{broken");
    peer.raw(Buffer.from([1, 1, 0]));
    await settled(peer, 4);
    assert.deepEqual(heard.of("text"), [["/a", "one"], ["/a", "three"], ["/end", "4"]]);
    assert.equal(heard.of("fault").length, 4);
    assert.match(heard.of("fault")[0][0], /cannot read bad/);
    assert.equal(page.state.name, "live");
});

test("Blocks come whole or in pieces, and each is answered", async () => {
    const peer = await connect({ blockSize: 100 });
    assert.equal(peer.hello.limits.block, 100);
    peer.control({ t: "channel", number: 1, name: "/bin" });
    peer.piece({ transfer: 7, number: 1, data: [4, 0, 0, 0, 0, 0, 0, 0, 255] });
    peer.piece({ transfer: 8, last: false, number: 4, data: [1, 2, 3] });
    peer.piece({ transfer: 9, last: false, number: 101, data: [0] }); // larger than is taken
    peer.piece({ transfer: 11, last: false, number: 2, data: [9] });
    peer.batch(2, [["/a", "between"]]);
    peer.piece({ transfer: 8, number: 3, data: [4] });
    peer.control({ t: "withdrawn", transfer: 11, number: 4 });
    peer.piece({ transfer: 9, number: 5, data: [0] });
    await settled(peer, 6);
    assert.deepEqual(
        heard.events.filter(([kind]) => kind === "block" || kind === "text"),
        [
            ["block", "/bin", [4, 0, 0, 0, 0, 0, 0, 0, 255]], ["text", "/a", "between"],
            ["block", "/bin", [1, 2, 3, 4]], ["text", "/end", "6"],
        ],
    );
    const answers = [];
    for (let i = 0; i < 3; ++i) answers.push(await peer.nextOf("block"));
    assert.deepEqual(answers.map(({ transfer, ok }) => [transfer, ok]), [[7, true], [9, false], [8, true]]);
    // The refused one is reported; the withdrawn one and the refused one leave no gap.
    assert.deepEqual(heard.of("fault"), [["a block of 101 bytes"]]);
    assert.equal(page.last, 6);
});

test("What a handler cannot take is given back, and a gap is reported", async () => {
    heard.handlers.onBlock = () => { throw new Error("no room"); };
    const peer = await connect({}, { blockChannels: ["/bin"] });
    peer.piece({ number: 1, data: [1] });
    assert.equal((await peer.nextOf("block")).ok, false);
    await settled(peer, 5);
    assert.deepEqual(heard.of("fault"), [["no room"], ["messages 2 to 4 are missing"]]);
});

test("A lost connection is made again, and goes on behind the last message", async () => {
    const peer = await connect({ subscribe: ["/a", "/given/up"] }, { next: 10 });
    assert.equal(peer.hello.view, undefined);
    peer.batch(10, [["/a", "ten"], ["/a", "eleven"]]);
    await heard.until("text", (_, text) => text === "eleven");
    peer.cut();
    await heard.until("state", (name) => name === "reconnecting");
    page.subscribe(["/b"]);
    page.unsubscribe(["/given/up"]);
    assert.equal(page.publish("/r", "kept"), true);
    const second = await gateway.peer();
    const hello = await second.welcome({ kind: "return", next: 11, subscribed: ["/a", "/b", "/given/up"] });
    assert.deepEqual([hello.view, hello.last, hello.subscribe], ["v1", 11, ["/a", "/b"]]);
    assert.deepEqual(await second.next(), { t: "unsubscribe", channels: ["/given/up"] });
    assert.deepEqual(await second.next(), { t: "publish", channel: "/r", text: "kept" });
    second.batch(11, [["/a", "eleven"], ["/a", "twelve"]]);
    await heard.until("text", (_, text) => text === "twelve");
    assert.deepEqual(heard.of("text").map(([, text]) => text), ["ten", "eleven", "twelve"]);
    assert.deepEqual(heard.of("fault"), []);
});

test("A close says whether to come back, to begin afresh, or to give up", async () => {
    const peer = await connect();
    peer.close(4004, "no sign of life");
    const second = await gateway.peer();
    assert.equal((await second.welcome({ kind: "return" })).view, "v1");
    second.close(4003, "too slow: 1 byte");
    await heard.until("state", (name, reason) => name === "reconnecting" && reason.startsWith("too slow"));
    const third = await gateway.peer();
    assert.equal((await third.welcome({ kind: "further", view: "v2", ended: "too slow" })).view, undefined);
    await heard.until("state", (name, reason) => name === "live" && reason === "begun afresh: too slow");
    third.close(4000, "bad message: x");
    await heard.until("state", (name, reason) => name === "refused" && reason === "bad message: x");
    page.retry();
    const fourth = await gateway.peer();
    assert.equal((await fourth.welcome()).view, undefined);
});

test("Who is not let in although the program is there gives up; who finds nobody goes on", async () => {
    gateway.sockets.options.verifyClient = (_, done) => done(false, 403);
    // A network that comes and goes, a question without an answer, and two refusals.
    const served = [false, true, false, true, new Promise(() => {}), true, true];
    page = new Connection(gateway.url, heard.handlers, {
        WebSocket, backoff: { first: 0, soon: 0, most: 0 }, patience: { open: 100, quiet: 1e4, answer: 1e4 },
        isServed: async () => served.shift(),
    });
    await heard.until("state", (name) => name === "refused");
    assert.deepEqual(served, []);
});

test("Attempts follow soon while the view is there, then less and less; half of a wait is chance", async (t) => {
    let now = 0;
    t.mock.method(performance, "now", () => now);
    const peer = await connect(
        { backoff: { first: 100, soon: 150, most: 300 }, random: () => 0.5 },
        { limits: { message: 4096, returnMilliseconds: 1000 } },
    );
    const waits = [];
    const original = globalThis.setTimeout;
    t.mock.method(globalThis, "setTimeout", (call, ms, ...rest) => {
        if (ms < 1000) waits.push(ms);
        return original(call, ms < 1000 ? 0 : ms, ...rest);
    });
    gateway.sockets.options.verifyClient = (_, done) => done(false, 503);
    let losses = 0;
    const enough = new Promise((resolve) => {
        heard.handlers.onState = () => {
            if (++losses === 4) now = 1000;
            if (losses === 6) resolve();
        };
    });
    peer.cut();
    await enough;
    assert.deepEqual(waits.slice(0, 5), [75, 112.5, 112.5, 225, 225]);
});

test("Publishing is bounded, in one frame and while nobody is there", async () => {
    const peer = await connect({ queueSize: 10 }, { limits: { message: 200 } });
    assert.equal(page.publish("/r", "é".repeat(100)), false);
    assert.equal(page.publish("/r", "x".repeat(100)), true);
    for (let i = 0; i < 20; ++i) page.publish("/r", `message ${i}`);
    assert.equal((await peer.nextOf("publish")).text.length, 100);
    for (let i = 0; i < 20; ++i) assert.equal((await peer.nextOf("publish")).text, `message ${i}`);
    peer.cut();
    await heard.until("state", (name) => name === "reconnecting");
    assert.equal(page.publish("/r", "12345"), true);
    assert.equal(page.publish("/r", "6789"), false);
});

test("Handled messages are acknowledged when there are many bytes of them, and in time", async () => {
    const peer = await connect({}, { limits: { message: 4096, ackBytes: 100, ackMilliseconds: 2 } });
    peer.batch(1, [["/a", "x".repeat(60)]]);
    assert.equal((await peer.nextOf("ack")).last, 1);
    peer.batch(2, [["/a", "x"]]);
    assert.equal((await peer.nextOf("ack")).last, 2);
});

test("The page's own blocks follow their channel's number, and echoes what was sent before", async () => {
    const peer = await connect();
    page.publish("/r", "before");
    page.publishBlock("/picks", new Uint8Array([1, 2]));
    const settledPage = page.settled();
    assert.equal((await peer.next()).text, "before");
    assert.deepEqual(await peer.next(), { t: "channel", number: 1, name: "/picks" });
    const frame = await peer.next();
    assert.deepEqual([...frame], [1, 1, 1, ...new Array(13).fill(0), 1, 2]);
    peer.control(await peer.nextOf("echo"));
    await settledPage;
});

test("A connection that has gone silent is given up", async () => {
    const peer = await connect({ patience: { open: 1e4, quiet: 1, answer: 1 } });
    await peer.nextOf("echo");
    await heard.until("state", (name, reason) => name === "reconnecting" && /silent/.test(reason));
    assert.equal(await peer.closed, 4900);
    const second = await gateway.peer();
    assert.equal((await second.nextOf("hello")).view, "v1");
});
