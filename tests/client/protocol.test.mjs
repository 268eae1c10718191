// What a page makes of what a gateway sends, and of the end of a connection.
import assert from "node:assert/strict";
import { test } from "node:test";

import { Fixture, holdTimers } from "./support/page.mjs";

const fixture = new Fixture();

test("A batch is read record by record, and what cannot be read costs nothing else", async () => {
    const { heard } = fixture;
    const { onText } = heard.handlers;
    heard.handlers.onText = (channel, text) => {
        if (text === "bad") throw new Error("cannot read bad");
        onText(channel, text);
    };
    const peer = await fixture.connect();
    peer.raw(Buffer.alloc(16, 3)); // of a kind that a later version may know
    peer.raw(
        "1\x1e/a\x1f{}\x1e\x1fbad\x1e\x1fnot JSON \u{1f600}\x1e/b\x1f\x1f/w==\x1e\x1f\x1fHh8=\x1e/c\x1f",
    );
    for (const broken of ["7\x1eno unit separator", "{broken", Buffer.from([1, 1, 0])]) {
        peer.raw(broken);
    }
    await fixture.settled(peer, 9);
    assert.deepEqual(
        heard.of("text").map(([, ...rest]) => rest),
        [
            ["/a", "{}"],
            ["/a", "not JSON \u{1f600}"],
            ["/b", "\ufffd"],
            ["/b", "\x1e\x1f"],
            ["/c", ""],
            ["/end", ""],
        ],
    );
    const faults = heard.of("fault").map(([, text]) => text);
    assert.deepEqual(
        [faults.length, faults[0], faults[4]],
        [5, "cannot read bad", "messages 7 to 8 are missing"],
    );
    assert.equal(fixture.page.state.name, "live");
});

test("Blocks come whole or in pieces, and each is answered", async () => {
    const { heard } = fixture;
    const { onBlock } = heard.handlers;
    heard.handlers.onBlock = (channel, block) => {
        if (block[0] === 66) throw new Error("no room".padEnd(1000, "!"));
        onBlock(channel, block);
    };
    const peer = await fixture.connect({ blockSize: 100 });
    assert.equal(peer.hello.limits.block, 100);
    peer.control({ t: "channel", number: 1, name: "/bin" });
    peer.piece({ transfer: 7, number: 1, data: [4, 0, 0, 0, 0, 0, 0, 0, 255] });
    peer.piece({ transfer: 8, last: false, number: 4, data: [1, 2, 3] });
    peer.piece({ transfer: 9, last: false, number: 101, data: [0] }); // larger than is taken
    peer.piece({ transfer: 11, last: false, number: 2, data: [9] });
    peer.piece({ transfer: 13, last: false, number: 2, data: [9, 9, 9] }); // more than it said
    peer.piece({ transfer: 14, last: false, number: 3, data: [9] }); // less
    peer.batch(2, [["/a", "between"]]);
    peer.piece({ transfer: 8, number: 3, data: [4] });
    peer.control({ t: "withdrawn", transfer: 11, number: 4 });
    peer.piece({ transfer: 9, number: 5, data: [0] });
    peer.piece({ transfer: 12, number: 6, data: [66] });
    peer.piece({ transfer: 13, number: 7, data: [] });
    peer.piece({ transfer: 14, number: 8, data: [9] });
    peer.piece({ transfer: 11, number: 9, data: [7] }); // of the withdrawn one nothing is left
    await fixture.settled(peer, 10);
    // Neither the refused ones nor the withdrawn one leave a gap.
    assert.deepEqual(heard.of("block", "text", "fault"), [
        ["block", "/bin", [4, 0, 0, 0, 0, 0, 0, 0, 255]],
        ["text", "/a", "between"],
        ["block", "/bin", [1, 2, 3, 4]],
        ["fault", "a block of 101 bytes, of 100 at most"],
        ["fault", "no room".padEnd(1000, "!")],
        ["fault", "a block of more than its 2 bytes"],
        ["fault", "a block with a piece missing"],
        ["block", "/bin", [7]],
        ["text", "/end", ""],
    ]);
    for (const [transfer, ok] of [
        [7, true],
        [8, true],
        [9, false],
        [12, false],
        [13, false],
        [14, false],
        [11, true],
    ]) {
        const answer = await peer.next("block");
        assert.deepEqual([answer.transfer, answer.ok], [transfer, ok]);
        assert.ok(ok || answer.reason.length <= 256, answer.reason);
    }
    // The answers may be lost: the refused ones are named again, as long as the view lives.
    peer.cut();
    const second = await fixture.gateway.peer();
    const { last, refused } = await second.welcome({ kind: "return", next: 11 });
    assert.deepEqual([last, refused], [10, [5, 6, 7, 8]]);
    second.cut();
    const third = await fixture.gateway.peer();
    assert.deepEqual((await third.welcome({ kind: "further" })).refused, [5, 6, 7, 8]);
    third.cut();
    assert.deepEqual((await (await fixture.gateway.peer()).welcome()).refused, []);
});

test("A block whose pieces a lost connection cut off comes again whole, and once", async () => {
    const { heard, gateway } = fixture;
    const peer = await fixture.connect({}, { blockChannels: ["/bin"] });
    peer.piece({ transfer: 1, last: false, number: 4, data: [1, 2] });
    peer.batch(1, [["/a", "one"]]);
    await heard.until("text", "/a", "one");
    peer.cut();
    const second = await gateway.peer();
    await second.welcome({ kind: "return", next: 2, blockChannels: ["/bin"] });
    second.piece({ transfer: 1, last: false, number: 4, data: [1, 2] });
    for (let i = 0; i < 2; ++i) second.piece({ transfer: 1, number: 2, data: i ? [9] : [3, 4] });
    await fixture.settled(second, 3);
    assert.deepEqual(heard.of("block", "fault"), [["block", "/bin", [1, 2, 3, 4]]]);
    // What was taken before is answered, too.
    for (let i = 0; i < 2; ++i) assert.equal((await second.next("block")).ok, true);
});

test("What is handled is acknowledged by bytes or by time; what is withdrawn counts, once it is due", async () => {
    const limits = { ackBytes: 100, ackMilliseconds: 1e6 };
    const peer = await fixture.connect({}, { limits });
    peer.batch(1, [["/a", "few"]]);
    peer.control({ t: "withdrawn", transfer: 1, number: 3 }); // overtakes message 2
    peer.batch(2, [["/a", "more than a third of what is allowed"]]);
    assert.equal((await peer.next("ack")).last, 3);
    peer.control({ t: "withdrawn", transfer: 2 });
    await fixture.settled(peer, 4);
    assert.deepEqual([fixture.page.last, fixture.heard.of("fault")], [4, []]);
    peer.cut();
    const second = await fixture.gateway.peer();
    await second.welcome({ kind: "return", next: 5, limits: { ackMilliseconds: 2 } });
    second.batch(5, [["/a", "few"]]);
    assert.equal((await second.next("ack")).last, 5);
    // What was withdrawn of one view says nothing of the next.
    second.control({ t: "withdrawn", transfer: 3, number: 7 });
    second.close(4003, "too slow");
    const third = await fixture.gateway.peer();
    await third.welcome({ kind: "further", next: 6 });
    await fixture.settled(third, 6, "afresh");
    assert.equal(fixture.page.last, 6);
});

test("A lost connection is made again, and goes on behind the last message", async () => {
    const { heard, gateway } = fixture;
    const peer = await fixture.connect(
        { subscribe: ["/a", "/given/up"], queueSize: 60 },
        { next: 10 },
    );
    const { page } = fixture;
    assert.equal(peer.hello.view, undefined);
    peer.batch(10, [
        ["/a", "ten"],
        ["/a", "eleven"],
    ]);
    await heard.until("text", "/a", "eleven");
    peer.cut();
    await heard.until("state", "reconnecting");
    page.subscribe(["/b"]);
    page.unsubscribe(["/given/up"]);
    assert.deepEqual([page.publish("/r", "kept"), page.publish("/r", "too much")], [true, false]);
    assert.equal(page.publishBlock("/r", new Uint8Array(8)), false);
    let second = await gateway.peer();
    const subscribed = ["/a", "/given/up", "/b"];
    const hello = await second.welcome({ kind: "return", next: 11, subscribed });
    assert.deepEqual([hello.view, hello.last, hello.subscribe], ["v1", 11, ["/a", "/b"]]);
    assert.deepEqual((await second.next("unsubscribe")).channels, ["/given/up"]);
    assert.equal((await second.next("publish")).text, "kept");
    second.close(4004, "no sign of life");
    await heard.until("state", "reconnecting", "no sign of life");
    assert.equal(page.publish("/r", "kept"), true, "there is room again");
    second = await gateway.peer();
    await second.welcome({ kind: "return", next: 11, subscribed: ["/a", "/b"] });
    second.batch(11, [
        ["/a", "eleven"],
        ["/a", "twelve"],
    ]);
    await fixture.settled(second, 13);
    const texts = heard.of("text").map(([, , text]) => text);
    assert.deepEqual(texts, ["ten", "eleven", "twelve", ""]);
    assert.deepEqual(heard.of("fault"), []);
});

test("A close says whether to come back, to begin afresh, or to give up", async () => {
    const { heard, gateway } = fixture;
    let peer = await fixture.connect();
    for (const [code, reason, viewAfter] of [
        [4004, "no sign of life", "v1"],
        [4003, "too slow: 1 byte", undefined],
        [4006, "bad return: 9 of 3", undefined],
    ]) {
        peer.close(code, reason);
        await heard.until("state", "reconnecting", reason);
        peer = await gateway.peer();
        const hello = await peer.welcome({ kind: viewAfter ? "return" : "further", ended: reason });
        assert.equal(hello.view, viewAfter);
        await heard.until("state", "live", `begun afresh: ${reason}`);
    }
    peer.close(4000, "bad message: x");
    await heard.until("state", "refused", "bad message: x");
    fixture.page.retry();
    assert.equal((await (await gateway.peer()).welcome()).view, undefined);
});

test("Attempts follow soon while the view is there, then less and less; half of a wait is chance", async (t) => {
    const waits = [];
    let now = 0;
    t.mock.method(performance, "now", () => now);
    const peer = await fixture.connect(
        { backoff: { first: 100, soon: 150, most: 300 }, random: () => 0.2 },
        { limits: { returnMilliseconds: 1000 } },
    );
    const original = globalThis.setTimeout;
    const enough = new Promise((resolve) => {
        t.mock.method(globalThis, "setTimeout", (call, ms, ...rest) => {
            if (ms < 1000 && waits.push(ms) === 3) now = 1000;
            if (waits.length === 5) fixture.gateway.refuses = () => false;
            if (waits.length === 6) resolve();
            return original(call, ms < 1000 ? 0 : ms, ...rest);
        });
    });
    fixture.gateway.refuses = () => true;
    peer.cut();
    const second = await fixture.gateway.peer();
    await second.welcome({ kind: "return", limits: { returnMilliseconds: 1000 } });
    await fixture.settled(second, 1);
    second.cut();
    await enough;
    // The last one follows a connection that came about.
    assert.deepEqual(waits, [60, 90, 90, 180, 180, 60]);
});

test("A connection that has gone silent is given up, with a code that leaves the view", async (t) => {
    const run = holdTimers(t);
    const peer = await fixture.connect({ patience: { open: 11, quiet: 12, answer: 13 } });
    assert.equal(run(11), false);
    for (let number = 1; number <= 2; ++number) {
        assert.equal(run(12), true);
        await peer.next("echo");
        await fixture.settled(peer, number, `sign ${number}`);
        assert.equal(run(13), false, "a sign of life came");
    }
    peer.answersEchoes = false;
    run(12);
    run(13);
    assert.equal(await peer.closed, 4900);
    assert.deepEqual(fixture.heard.of("state").at(-1), [
        "state",
        "reconnecting",
        "the connection has gone silent",
    ]);
    run(0);
    assert.equal((await (await fixture.gateway.peer()).welcome({ kind: "return" })).view, "v1");
});
