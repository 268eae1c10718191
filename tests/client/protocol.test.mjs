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
        this.#waits = this.#waits.filter(({ wanted, resolve }) => !wanted(event) || resolve());
    };
    /** Ends when an event has these members, or has had. */
    until(...members) {
        const wanted = (event) => members.every((member, i) => event[i] === member);
        if (this.events.some(wanted)) return Promise.resolve();
        return new Promise((resolve) => this.#waits.push({ wanted, resolve }));
    }
    of(...kinds) {
        return this.events.filter(([kind]) => kinds.includes(kind));
    }
    handlers = {
        onState: (state) => this.note("state", state.name, state.reason),
        onText: (channel, text) => this.note("text", channel, text),
        onBlock: (channel, block) => this.note("block", channel, [...block]),
        onFault: (error) => this.note("fault", error.message),
    };
}

let gateway;
let heard;
let page;

/** Begins to connect, with no delay before a further attempt. */
function begin(options) {
    page = new Connection(gateway.url, heard.handlers, {
        WebSocket, backoff: { first: 0, soon: 0, most: 0 }, ...options,
    });
}
async function connect(options = {}, welcome = {}) {
    begin(options);
    const peer = await gateway.peer();
    peer.hello = await peer.welcome(welcome);
    await heard.until("state", "live");
    return peer;
}

/** Ends when the page has handled everything before. */
async function settled(peer, number) {
    peer.batch(number, [["/end", ""]]);
    await heard.until("text", "/end");
}

beforeEach(async () => {
    gateway = await ScriptedGateway.start();
    heard = new Heard();
});
afterEach(() => {
    page.close();
    gateway.stop();
});

test("A batch is read record by record, and what cannot be read costs nothing else", async () => {
    const { onText } = heard.handlers;
    heard.handlers.onText = (channel, text) => {
        if (text === "bad") throw new Error("cannot read bad");
        onText(channel, text);
    };
    const peer = await connect();
    peer.raw("1\x1e/a\x1f{}\x1e\x1fbad\x1e\x1fnot JSON \u{1f600}\x1e/b\x1f\x1f/w==\x1e\x1f\x1fHh8=\x1e/c\x1f");
    for (const broken of ["7\x1eno unit separator", "{broken", Buffer.from([1, 1, 0])]) peer.raw(broken);
    await settled(peer, 9);
    assert.deepEqual(heard.of("text").map(([, ...rest]) => rest), [
        ["/a", "{}"], ["/a", "not JSON \u{1f600}"], ["/b", "\ufffd"], ["/b", "\x1e\x1f"], ["/c", ""],
        ["/end", ""],
    ]);
    const faults = heard.of("fault").map(([, text]) => text);
    assert.deepEqual([faults.length, faults[0], faults[4]], [5, "cannot read bad", "messages 7 to 8 are missing"]);
    assert.equal(page.state.name, "live");
});

test("Blocks come whole or in pieces, and each is answered", async () => {
    const { onBlock } = heard.handlers;
    heard.handlers.onBlock = (channel, block) => {
        if (block[0] === 66) throw new Error("no room");
        onBlock(channel, block);
    };
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
    peer.piece({ transfer: 12, number: 6, data: [66] });
    await settled(peer, 7);
    // The refused ones are reported, and neither they nor the withdrawn one leave a gap.
    assert.deepEqual(heard.of("block", "text", "fault"), [
        ["block", "/bin", [4, 0, 0, 0, 0, 0, 0, 0, 255]], ["fault", "a block of 101 bytes"],
        ["text", "/a", "between"], ["block", "/bin", [1, 2, 3, 4]], ["fault", "no room"],
        ["text", "/end", ""],
    ]);
    for (const [transfer, ok] of [[7, true], [8, true], [9, false], [12, false]]) {
        const answer = await peer.next("block");
        assert.deepEqual([answer.transfer, answer.ok], [transfer, ok]);
    }
    assert.equal(page.last, 7);
});

test("A lost connection is made again, and goes on behind the last message", async () => {
    const peer = await connect({ subscribe: ["/a", "/given/up"], queueSize: 10 }, { next: 10 });
    assert.equal(peer.hello.view, undefined);
    peer.batch(10, [["/a", "ten"], ["/a", "eleven"]]);
    await heard.until("text", "/a", "eleven");
    peer.cut();
    await heard.until("state", "reconnecting");
    page.subscribe(["/b"]);
    page.unsubscribe(["/given/up"]);
    assert.deepEqual([page.publish("/r", "kept"), page.publish("/r", "too much")], [true, false]);
    const second = await gateway.peer();
    const hello = await second.welcome({ kind: "return", next: 11, subscribed: ["/a", "/given/up", "/b"] });
    assert.deepEqual([hello.view, hello.last, hello.subscribe], ["v1", 11, ["/a", "/b"]]);
    assert.deepEqual((await second.next("unsubscribe")).channels, ["/given/up"]);
    assert.equal((await second.next("publish")).text, "kept");
    second.batch(11, [["/a", "eleven"], ["/a", "twelve"]]);
    await settled(second, 13);
    assert.deepEqual(heard.of("text").map(([, , text]) => text), ["ten", "eleven", "twelve", ""]);
    assert.deepEqual(heard.of("fault"), []);
});

test("A close says whether to come back, to begin afresh, or to give up", async () => {
    let peer = await connect();
    for (const [code, reason, viewAfter] of [[4004, "no sign of life", "v1"], [4003, "too slow: 1 byte", undefined]]) {
        peer.close(code, reason);
        await heard.until("state", "reconnecting", reason);
        peer = await gateway.peer();
        assert.equal((await peer.welcome({ kind: viewAfter ? "return" : "further", ended: reason })).view, viewAfter);
        await heard.until("state", "live", `begun afresh: ${reason}`);
    }
    peer.close(4000, "bad message: x");
    await heard.until("state", "refused", "bad message: x");
    page.retry();
    assert.equal((await (await gateway.peer()).welcome()).view, undefined);
});

test("What is published comes in order, in frames that the gateway takes", async () => {
    const peer = await connect({}, { limits: { message: 200 } });
    assert.equal(page.publish("/r", "é".repeat(100)), false);
    for (let i = 0; i < 20; ++i) page.publish("/r", `message ${i}`);
    for (let i = 0; i < 20; ++i) assert.equal((await peer.next("publish")).text, `message ${i}`);
});

test("Attempts follow soon while the view is there, then less and less; half of a wait is chance", async (t) => {
    const waits = [];
    let now = 0;
    t.mock.method(performance, "now", () => now);
    const peer = await connect(
        { backoff: { first: 100, soon: 150, most: 300 }, random: () => 0.5 },
        { limits: { returnMilliseconds: 1000 } },
    );
    const original = globalThis.setTimeout;
    const enough = new Promise((resolve) => {
        t.mock.method(globalThis, "setTimeout", (call, ms, ...rest) => {
            if (ms < 1000 && waits.push(ms) === 3) now = 1000;
            if (waits.length === 5) resolve();
            return original(call, ms < 1000 ? 0 : ms, ...rest);
        });
    });
    gateway.sockets.options.verifyClient = (_, done) => done(false, 503);
    peer.cut();
    await enough;
    assert.deepEqual(waits, [75, 112.5, 112.5, 225, 225]);
});

test("Who is turned away twice in a row gives up; whatever else happens, it goes on", async () => {
    gateway.sockets.options.verifyClient = (_, done) => done(false, 403);
    const served = [false, true, false, true, new Promise(() => {}), true, true];
    const patience = { open: 100, quiet: 1e4, answer: 1e4 };
    begin({ patience, isServed: async () => served.shift() });
    await heard.until("state", "refused");
    assert.deepEqual(served, []);
});

test("A connection that has gone silent is given up, with a code that leaves the view", async () => {
    const peer = await connect({ patience: { open: 1e4, quiet: 1, answer: 1 } });
    assert.equal(await peer.closed, 4900);
});
