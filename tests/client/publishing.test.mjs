// What a page says: whatever it is, the gateway can take it.
import assert from "node:assert/strict";
import { test } from "node:test";

import { encode, framesOf, takeNames } from "../../client/outgoing.mjs";
import { readJson } from "../../client/protocol.mjs";
import { Fixture } from "./support/page.mjs";

const fixture = new Fixture();
const CONTROL = "\u0001"; // six bytes as JSON

test("Half characters are made whole in whatever goes out", async () => {
    const half = "a\ud800b\u{1f600}\udc00";
    const whole = "a\ufffdb\u{1f600}\ufffd";
    const peer = await fixture.connect({ client: half + "é".repeat(200), subscribe: [half] });
    assert.equal(peer.hello.client, whole + "é".repeat(122)); // 256 bytes at most
    assert.deepEqual(peer.hello.subscribe, [whole]);
    fixture.page.publish(half, half);
    fixture.page.publishBlock(half, new Uint8Array(8));
    assert.deepEqual(await peer.next("publish"), { t: "publish", channel: whole, text: whole });
    assert.equal((await peer.next("channel")).name, whole);
});

test("What is too large for the gateway throws, with both sizes, and nothing is sent", async () => {
    const peer = await fixture.connect({}, { limits: { message: 200 } });
    const { page } = fixture;
    const room = 200 - JSON.stringify({ t: "publish", channel: "/r", text: "" }).length;
    const name = `${"é".repeat(512)}a`;
    for (const [call, message] of [
        [() => page.publish("/r", "é".repeat(room / 2 + 1)), /20\d bytes.* 200/],
        [() => page.publish("/r", CONTROL.repeat(room / 6 + 1)), /20\d bytes.* 200/],
        [() => page.publishBlock("/r", new Uint8Array(185)), /185 bytes.* 184/],
        [() => page.publish(name, ""), /1025 .* 1024/],
        [() => page.subscribe([name]), /1025 .* 1024/],
    ]) {
        assert.throws(call, { name: "RangeError", message });
    }
    page.publish("/r", "a".repeat(room));
    page.publishBlock("/r", new Uint8Array(184));
    await peer.next("publish"); // before the block that was sent behind it
    await peer.next("bytes");
    assert.equal(peer.largest, 200);
});

test("What a page says by itself is what any gateway takes", async () => {
    const peer = await fixture.connect({ blockSize: Infinity });
    assert.equal(peer.hello.limits.block, Number.MAX_SAFE_INTEGER);
    fixture.page.reportError({ message: "é".repeat(500), stack: "é".repeat(2000) });
    const { text } = await peer.next("publish");
    assert.deepEqual(JSON.parse(text), { message: "é".repeat(250), stack: "é".repeat(1000) });
    fixture.page.close();
    assert.equal((await fixture.connect({ blockSize: 8.5 })).hello.limits.block, 8);
});

test("What is published before the connection is there comes in frames that the gateway takes", async () => {
    fixture.begin({ queueSize: 10_000 });
    const { page, heard } = fixture;
    assert.equal(page.publish("/r", CONTROL.repeat(9_000)), false); // as JSON it is more
    assert.equal(page.publish("/r", CONTROL.repeat(100)), true);
    for (let i = 0; i < 20; ++i) page.publish("/r", `message ${i} ${CONTROL.repeat(20)}`);
    const peer = await fixture.peer({ limits: { message: 500 } });
    for (let i = 0; i < 20; ++i) {
        assert.match((await peer.next("publish")).text, RegExp(`^message ${i} `));
    }
    assert.ok(peer.largest > 250 && peer.largest <= 500, `a frame of ${peer.largest} bytes`);
    assert.match(heard.of("fault")[0][1], /6\d\d bytes.* 500/);
});

test("More names than a frame may have, or than fit, go in several", async () => {
    const names = Array.from({ length: 2500 }, (_, i) => `/channel/${i}`);
    const peer = await fixture.connect({ subscribe: names });
    const heard = [...peer.hello.subscribe];
    let frames = 1;
    for (; heard.length < names.length; ++frames) {
        heard.push(...(await peer.next("subscribe")).channels);
    }
    assert.ok(frames > 5, `${frames} frames`);
    assert.deepEqual(heard, names);
});

test("Frames are full and no fuller", () => {
    const message = encode({ t: "x" }, 600);
    const framesWith = (most, names) => [...framesOf([message, message], most, names)];
    const both = `[${message.text},${message.text}]`;
    assert.deepEqual(framesWith(both.length, 1200), [both]);
    assert.equal(framesWith(both.length - 1, 1200).length, 2);
    assert.equal(framesWith(both.length, 1199).length, 2);
    assert.deepEqual(takeNames(["long", "b"], 3), ["long"], "one at least");
});

test("Block channels beyond the sixteenth take the number that was not used for longest", async () => {
    const peer = await fixture.connect();
    const numbers = [];
    for (const name of [...Array(16).keys(), 0, 16, 0, 1]) {
        fixture.page.publishBlock(`/${name}`, new Uint8Array(8));
        numbers.push((await peer.next("bytes")).data[2]);
    }
    assert.deepEqual(numbers.slice(16), [1, 2, 1, 3]);
});

test("Channels come from the configuration, and the view is announced when they are in force", async () => {
    const channels = (...commands) => ({ configuration: { commands, newView: "/newView" } });
    fixture.begin({ subscribe: ({ commands }) => commands, announce: ({ newView }) => newView });
    const { gateway, heard } = fixture;
    let peer = await gateway.peer();
    peer.answersEchoes = false;
    await peer.welcome({ kind: "further", ...channels("/a", "/b") });
    assert.deepEqual((await peer.next("subscribe")).channels, ["/a", "/b"]);
    const echo = await peer.next("echo");
    await fixture.settled(peer, 1);
    assert.deepEqual(heard.of("ready"), []);
    peer.control(echo);
    assert.equal((await peer.next("publish")).text, '{"kind":"further","client":"page"}');
    assert.deepEqual(heard.of("ready"), [["ready", "further"]]);
    peer.control(await peer.next("echo"));
    // A program that was started again has a configuration of its own.
    peer.socket.close(1001, "gateway stopped");
    peer = await fixture.peer(channels("/b", "/c"));
    assert.deepEqual((await peer.next("subscribe")).channels, ["/c"]);
    assert.deepEqual((await peer.next("unsubscribe")).channels, ["/a"]);
    assert.equal((await peer.next("publish")).text, '{"kind":"first","client":"page"}');
});

test("Numbers that JSON does not know are read, and texts that look like them stay", () => {
    assert.deepEqual(readJson('{"a":NaN,"b":"NaN \\" NaN"}'), { a: NaN, b: 'NaN " NaN' });
    assert.deepEqual(readJson("[Infinity,-Infinity]"), [Infinity, -Infinity]);
});

test("A token does not go back when something before it could not be read, and the engine hears why", async () => {
    const { heard } = fixture;
    delete heard.handlers.onFault;
    heard.handlers.onText = (_, text) => {
        const command = readJson(text);
        if (command.cmd === "sendACT") fixture.page.returnToken(command);
    };
    const peer = await fixture.connect();
    const token = (ACT) => JSON.stringify({ cmd: "sendACT", ACT, returnChannel: "/r" });
    const send = (to, ...texts) => texts.forEach((text, i) => to.batch(i + 1, [["/a", text]]));
    send(peer, '{"x":NaN}', token("one"), "{", token("two"), token("three"), "{");
    for (const what of [/\/r.*one/, /JSErrors.*JSON/, /\/r.*three/, /JSErrors.*JSON/]) {
        assert.match(JSON.stringify(await peer.next("publish")), what);
    }
    // Another view has nothing to do with it.
    peer.socket.close(4003, "too slow");
    const second = await fixture.peer({ kind: "further" });
    send(second, token("four"));
    assert.match((await second.next("publish")).text, /four/);
    fixture.page.publish("/r", "the last word");
    fixture.page.close();
    assert.equal((await second.next("publish")).text, "the last word");
    assert.equal(await second.closed, 1000);
});
