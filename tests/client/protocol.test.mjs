// What a page makes of what a gateway sends, and of the end of a connection.
import assert from "node:assert/strict";
import { test } from "node:test";

import { Acknowledgement } from "../../client/acknowledgement.mjs";
import { Backoff } from "../../client/backoff.mjs";
import { Fixture } from "./support/page.mjs";
import { ScriptedGateway } from "./support/scripted_gateway.mjs";

const fixture = new Fixture();

test("A batch is read record by record, and what cannot be read costs nothing else", async () => {
    const peer = await fixture.connect();
    const unknown = Buffer.alloc(16, 3); // of a kind that a later version may know
    const batch =
        "1\x1e/a\x1f{}\x1e\x1fnot JSON \u{1f600}\x1e/b\x1f\x1f/w==\x1e\x1f\x1fHh8=\x1e/c\x1f";
    for (const frame of [unknown, batch, "6\x1eno text", "{broken", Buffer.from([1, 1, 0])]) {
        peer.socket.send(frame);
    }
    await fixture.settled(peer, 8);
    const texts = fixture.heard.of("text").map(([, channel, text]) => channel + text);
    const read = ["/a{}", "/anot JSON \u{1f600}", "/b\ufffd", "/b\x1e\x1f", "/c", "/end"];
    assert.deepEqual(texts, read);
    const faults = fixture.heard.of("fault").join();
    assert.match(faults, /text.*JSON.*cut off.*messages 6 to 7 are missing/);
});

test("Blocks come whole or in pieces, and each is answered", async () => {
    const { heard } = fixture;
    const { onBlock } = heard.handlers;
    heard.handlers.onBlock = (channel, block) => {
        if (block[0] === 66) throw new Error("no room".padEnd(1000, "!"));
        onBlock(channel, block);
    };
    let peer = await fixture.connect({ blockSize: 100 });
    peer.control({ t: "channel", number: 1, name: "/bin" });
    peer.control({ t: "channel", number: 258, name: "/far" });
    peer.piece(7, 1, [255]);
    peer.piece(8, 3, [1, 2], false);
    peer.piece(9, 101, [0], false); // larger than is taken
    peer.piece(11, 2, [9], false);
    peer.piece(12, 2, [9, 9, 9], false); // more than it said
    peer.batch(2, [["/a", "between"]]);
    peer.piece(8, 3, [3]);
    peer.control({ t: "withdrawn", transfer: 11, number: 4 });
    peer.piece(9, 5, [0]);
    peer.piece(12, 6, []);
    peer.piece(13, 7, [66]);
    peer.piece(11, 8, [7]); // of the withdrawn one nothing is left
    peer.piece(65537, 9, [5], true, 258);
    peer.piece(14, 3, [1], false);
    peer.piece(14, 10, []); // less than it said
    await fixture.settled(peer, 11);
    // Neither the refused ones nor the withdrawn one leave a gap.
    const told = heard.of("block", "text").map(([, channel, what]) => `${channel} ${what}`);
    assert.deepEqual(told, ["/bin 255", "/a between", "/bin 1,2,3", "/bin 7", "/far 5", "/end "]);
    const faults = /101 bytes, of 100.*more than its 2.*no room!+,.*piece missing$/;
    assert.match(heard.of("fault").join(), faults);
    const answers = [];
    while (answers.length < 8) answers.push(await peer.next("block"));
    const refused = answers.filter(({ ok, reason }) => !ok && reason.length <= 256);
    assert.equal(refused.map(({ transfer }) => transfer).join(), "9,12,13,14");
    assert.ok(answers.some(({ transfer }) => transfer === 65537));
    // The answers may be lost: the refused ones are named again, as long as the view lives.
    peer.socket.terminate();
    peer = await fixture.peer({ kind: "return" });
    assert.deepEqual([peer.hello.last, peer.hello.refused], [11, [5, 6, 7, 10]]);
    for (let i = 0; i < 1024; ++i) peer.piece(20, 12 + i, [66]); // more than are remembered
    await fixture.settled(peer, 1036, "many");
    peer.socket.terminate();
    peer = await fixture.peer({ kind: "return" });
    assert.deepEqual([peer.hello.refused.length, peer.hello.refused[0]], [1024, 12]);
    peer.socket.close(4003, "too slow");
    (await fixture.peer()).socket.terminate();
    assert.deepEqual((await fixture.peer({ kind: "return" })).hello.refused, []);
});

test("What is handled is acknowledged by bytes or by time; what is withdrawn counts, once it is due", async () => {
    const peer = await fixture.connect({}, { limits: { ackBytes: 100 } });
    peer.batch(1, [["/a", "few"]]);
    peer.control({ t: "withdrawn", transfer: 1, number: 3 }); // overtakes message 2
    peer.batch(2, [["/a", "more than a third of what is allowed"]]);
    assert.equal((await peer.next("ack")).last, 3);
    peer.socket.terminate();
    const second = await fixture.peer({ kind: "return", limits: { ackMilliseconds: 2 } });
    second.batch(4, [["/a", "few"]]);
    assert.deepEqual([(await second.next("ack")).last, fixture.heard.of("text").length], [4, 3]);
});

test("Nothing is acknowledged twice, and a view knows nothing of the one before", () => {
    const told = [];
    const handled = new Acknowledgement((last) => told.push(last));
    handled.begin(1);
    handled.connected({ ackBytes: 3 });
    handled.withdraw(3);
    handled.begin(1);
    for (const number of [1, 2]) assert.equal(handled.take(number), 0);
    for (let i = 0; i < 2; ++i) handled.count(9);
    assert.deepEqual([told, handled.take(2)], [[2], -1]);
});

test("A lost connection is made again, and goes on behind the last message and whole block", async () => {
    const { heard } = fixture;
    const subscribe = ["/a", "/given/up"];
    const peer = await fixture.connect({ subscribe, queueSize: 60 }, { next: 10 });
    const { page } = fixture;
    peer.piece(1, 4, [1, 2], false);
    await fixture.settled(peer, 10, "ten");
    page.publishBlock("/up", new Uint8Array(8));
    await peer.next("bytes");
    peer.socket.terminate();
    await heard.until("state", "reconnecting");
    page.subscribe(["/b"]);
    page.unsubscribe(["/given/up"]);
    assert.deepEqual([page.publish("/r", "kept"), page.publish("/r", "too much")], [true, false]);
    assert.equal(page.publishBlock("/r", new Uint8Array(8)), false);
    const second = await fixture.peer({
        kind: "return",
        subscribed: ["/a", "/given/up"],
        refused: ["/b"],
        blockChannels: ["/bin"],
    });
    const { view, last, subscribe: names } = second.hello;
    assert.deepEqual([peer.hello.view, view, last, names], [undefined, "v1", 10, ["/a", "/b"]]);
    assert.deepEqual((await second.next("unsubscribe")).channels, ["/given/up"]);
    assert.equal((await second.next("publish")).text, "kept");
    page.publishBlock("/up", new Uint8Array(8));
    assert.equal((await second.next("channel")).name, "/up", "a number is a connection's");
    second.batch(10, [["/a", "ten, again"]]);
    second.piece(1, 4, [1, 2], false);
    for (const end of [[3, 4], [9]]) second.piece(1, 11, end);
    await fixture.settled(second, 12, "twelve");
    const told = "text,/end,ten refused,/b block,/bin,1,2,3,4 text,/end,twelve";
    assert.equal(heard.of("text", "refused", "block", "fault").join(" "), told);
});

test("Since when the engine is silent stands in the state until one is heard again", async (t) => {
    const { heard } = fixture;
    heard.handlers.onState = (state) => heard.note("state", state.name, state.reason, state.since);
    let now = 5000;
    t.mock.method(Date, "now", () => now);
    let peer = await fixture.connect();
    peer.control({ t: "engine", state: "silent", milliseconds: 2600 });
    peer.control({ t: "engine", state: "heard" });
    peer.control({ t: "engine", state: "silent", milliseconds: 1100 });
    await fixture.settled(peer, 1);
    now = 15000;
    peer.control({ t: "engine", state: "silent", milliseconds: 11200 });
    peer.socket.close(1012, "the engine is gone");
    let attempts = 0;
    fixture.gateway.refuses = () => ++attempts === 1; // no new one is there yet
    peer = await fixture.peer();
    peer.socket.close(4003, "too slow");
    await fixture.peer({ ended: "too slow" });
    await heard.until("state", "live", "begun afresh: too slow");
    const told = heard.of("state").map(([, ...state]) => state.join());
    assert.deepEqual(told, [
        "live,,0",
        "live,engine silent,2400",
        "live,,0",
        "live,engine silent,3900",
        "live,engine silent,3900",
        "reconnecting,the engine is gone,3900",
        "reconnecting,no connection,3900",
        "live,,0",
        "reconnecting,too slow,15000",
        "live,begun afresh: too slow,0",
    ]);
});

test("A page whose gateway is lost, or stops, goes to another one with its token", async () => {
    const { gateway, heard } = fixture;
    const other = await ScriptedGateway.start();
    try {
        const gateways = [gateway.url, other.url];
        const options = { token: "good" };
        let peer = await fixture.connect(options, { gateways });
        peer.socket.terminate();
        let attempts = 0;
        gateway.refuses = () => ++attempts === 1; // a short outage
        peer = await fixture.peer({ kind: "return", gateways });
        assert.equal(peer.hello.view, "v1", "to the same one first");
        peer.socket.close(1012, "the engine is gone"); // nobody else has it either
        peer = await fixture.peer({ gateways });
        assert.equal(peer.hello.view, undefined);
        gateway.stop();
        let elsewhere = await other.peer();
        await elsewhere.welcome({ kind: "further", gateways });
        assert.deepEqual(elsewhere.offered, ["kiroweb.v1", "kiroweb.token.good"]);
        elsewhere.socket.close(1001, "gateway stopped"); // nobody is at the first one
        elsewhere = await other.peer();
        await elsewhere.welcome({ kind: "further" });
        await heard.until("ready", "further");
    } finally {
        other.stop();
    }
});

test("A close says whether to come back, to begin afresh, or to give up", async () => {
    const { heard } = fixture;
    let peer = await fixture.connect();
    for (const [code, reason, view] of [
        [4004, "no sign of life", "v1"],
        [4003, "too slow: 1 byte", undefined],
    ]) {
        peer.socket.close(code, reason);
        await heard.until("state", "reconnecting", reason);
        peer = await fixture.peer({ ended: reason });
        assert.equal(peer.hello.view, view);
        await heard.until("state", "live", `begun afresh: ${reason}`);
    }
    peer.socket.close(4000, "bad message: x");
    await heard.until("state", "refused", "bad message: x");
    fixture.page.retry();
    assert.equal((await fixture.peer()).hello.view, undefined);
});

test("Attempts come less and less, but soon while the view is there; half of a wait is chance", () => {
    const backoff = new Backoff({ first: 100, soon: 150, most: 300 }, () => 0.2);
    const waits = [1, 2, 3].map(() => backoff.next());
    backoff.lost(1e9);
    waits.push(backoff.next());
    backoff.reset();
    assert.deepEqual([...waits, backoff.next()], [60, 120, 180, 90, 60]);
});

test("A connection that has gone silent is given up, with a code that leaves the view", async (t) => {
    const timers = new Map(); // each a time of its own
    t.mock.method(globalThis, "setTimeout", (call, ms) => timers.set(ms, call) && ms);
    const clear = clearTimeout; // for what began before
    t.mock.method(globalThis, "clearTimeout", (timer) => timers.delete(timer) || clear(timer));
    const peer = await fixture.connect({ patience: { open: 11, quiet: 12, answer: 13 } });
    timers.get(12)();
    await peer.next("echo");
    await fixture.settled(peer, 1);
    assert.ok(!timers.has(13), "a sign of life came");
    peer.answersEchoes = false;
    timers.get(12)();
    timers.get(13)();
    assert.equal(await peer.closed, 4900);
    timers.get(0)();
    assert.equal((await fixture.peer()).hello.view, "v1");
});
