// What a page says: whatever it is, the gateway can take it.
import assert from "node:assert/strict";
import { test } from "node:test";

import { byteLength, encode, framesOf, takeNames } from "../../client/outgoing.mjs";
import { readJson } from "../../client/protocol.mjs";
import { Fixture } from "./support/page.mjs";

const fixture = new Fixture();
const CONTROL = "\u0001"; // six bytes as JSON

for (const known of [true, false]) {
    const where = known ? "" : ", where the browser does not do it";
    test(`Half characters are made whole in whatever goes out${where}`, async (t) => {
        if (!known) {
            const { toWellFormed } = String.prototype;
            delete String.prototype.toWellFormed;
            t.after(() => toWellFormed && (String.prototype.toWellFormed = toWellFormed));
        }
        const half = "a\ud800b\u{1f600}\udc00";
        const whole = "a\ufffdb\u{1f600}\ufffd";
        fixture.heard.handlers.onBlock = () => {
            throw new Error(half);
        };
        const peer = await fixture.connect({ client: half, subscribe: [half] });
        assert.deepEqual([peer.hello.client, peer.hello.subscribe], [whole, [whole]]);
        const { page } = fixture;
        page.publish(half, half);
        page.subscribe([half]);
        page.unsubscribe([half]);
        page.publishBlock(half, new Uint8Array(8));
        peer.piece({ number: 1, data: [1] });
        const { channel, text } = await peer.next("publish");
        assert.deepEqual([channel, text], [whole, whole]);
        assert.deepEqual((await peer.next("subscribe")).channels, [whole]);
        assert.deepEqual((await peer.next("unsubscribe")).channels, [whole]);
        assert.equal((await peer.next("channel")).name, whole);
        assert.equal((await peer.next("block")).reason, `Error: ${whole}`);
    });
}

test("Frames are as few as can be, and each is within its bounds", () => {
    for (const text of ["", "aé€\u{1f600}\u0001", "\u{1f600}€"]) {
        assert.equal(byteLength(text), Buffer.byteLength(text), text);
    }
    const messages = Array.from({ length: 40 }, (_, i) => ["é".repeat(i % 7), "a".repeat(i % 5)]);
    const sizes = messages.map((message) => Buffer.byteLength(JSON.stringify(message)));
    for (let most = Math.max(...sizes); most < 80; ++most) {
        const encoded = messages.map((message) => encode(message));
        const frames = [...framesOf(encoded, most)].map((frame) => [frame, JSON.parse(frame)]);
        const all = frames.map(([, value]) => (Array.isArray(value[0]) ? value : [value]));
        assert.deepEqual(all.flat(), messages);
        let next = 0;
        frames.forEach(([frame], i) => {
            next += all[i].length;
            assert.ok(Buffer.byteLength(frame) <= most, frame);
            const brackets = all[i].length === 1 ? 2 : 0;
            assert.ok(!(Buffer.byteLength(frame) + brackets + 1 + sizes[next] <= most), frame);
        });
    }
    const naming = [1000, 24, 1, 1023, 2].map((count) => encode({ count }, count));
    assert.deepEqual(
        [...framesOf(naming, 1e6)].map((frame) => [JSON.parse(frame)].flat().map((m) => m.count)),
        [[1000, 24], [1, 1023], [2]],
    );
    const names = ["é".repeat(10), "b", "c".repeat(100), "d"]; // as JSON, with a comma: 23, 4, 103, 4
    assert.deepEqual(
        [27, 102, 4].map((most) => takeNames(names, most).length),
        [2, 1, 1],
    );
});

test("A client's name is cut between two characters", async () => {
    const peer = await fixture.connect({ client: "é".repeat(127) + "a\u{1f600}" });
    assert.equal(peer.hello.client, "é".repeat(127) + "a");
});

test("What is too large for the gateway throws, with both sizes, and nothing is sent", async () => {
    const peer = await fixture.connect({}, { limits: { message: 200 } });
    const { page } = fixture;
    const room = 200 - JSON.stringify({ t: "publish", channel: "/r", text: "" }).length;
    for (const text of [
        "é".repeat(room / 2 + 1),
        CONTROL.repeat(room / 6 + 1),
        "a".repeat(room + 1),
    ]) {
        assert.throws(() => page.publish("/r", text), {
            name: "RangeError",
            message: /20\d bytes.* 200/,
        });
    }
    const block = (size) => () => page.publishBlock("/r", new Uint8Array(size));
    assert.throws(block(185), { name: "RangeError", message: /185 bytes.* 184/ });
    const name = "é".repeat(512);
    for (const call of ["publish", "publishBlock", "subscribe", "unsubscribe"]) {
        const channels = call.endsWith("ubscribe") ? [`${name}a`] : `${name}a`;
        assert.throws(() => page[call](channels, ""), {
            name: "RangeError",
            message: /1025 .* 1024/,
        });
    }
    assert.equal(page.publish("/r", "a".repeat(room)), true);
    block(184)();
    assert.equal((await peer.next("publish")).text.length, room);
    assert.equal((await peer.next("bytes")).data.length, 200);
    assert.deepEqual([peer.largest, page.state.name], [200, "live"]);
});

test("What is published before the connection is there comes in frames that the gateway takes", async () => {
    fixture.begin({ queueSize: 10_000 });
    const { page, heard, gateway } = fixture;
    assert.equal(page.publish("/r", CONTROL.repeat(900_000)), false);
    assert.equal(page.publish("/r", CONTROL.repeat(100)), true);
    for (let i = 0; i < 20; ++i) page.publish("/r", `message ${i} ${CONTROL.repeat(20)}`);
    const peer = await gateway.peer();
    await peer.welcome({ limits: { message: 500 } });
    for (let i = 0; i < 20; ++i) {
        assert.match((await peer.next("publish")).text, RegExp(`^message ${i} `));
    }
    assert.ok(peer.largest > 250 && peer.largest <= 500, `a frame of ${peer.largest} bytes`);
    assert.match(heard.of("fault")[0][1], /6\d\d bytes.* 500/);
    assert.equal(page.state.name, "live");
});

test("More names than a frame may have, or than fit, go in several", async () => {
    const names = Array.from({ length: 2500 }, (_, i) => `/channel/${i}`);
    const peer = await fixture.connect({ subscribe: names });
    const { page } = fixture;
    const heard = [...peer.hello.subscribe];
    assert.ok(heard.length <= 1024);
    while (heard.length < names.length) heard.push(...(await peer.next("subscribe")).channels);
    assert.deepEqual(heard, names);
    const left = [...names];
    page.unsubscribe(names);
    while (left.length > 0) {
        const { channels } = await peer.next("unsubscribe");
        assert.deepEqual(channels, left.splice(0, channels.length));
    }
    page.close();
    await peer.closed;
    assert.ok(peer.largest <= 64 * 1024 && peer.largest > 0);
    const second = await fixture.connect({}, { limits: { message: 1e6 } });
    fixture.page.subscribe(names);
    for (let i = 0; i < 1100; ++i) fixture.page.publish("/r", "");
    const frames = [];
    for (let seen = 0; seen < names.length; seen += frames.at(-1)) {
        frames.push((await second.next("subscribe")).channels.length);
    }
    assert.deepEqual(frames, [1024, 1024, 452]);
});

test("What is subscribed while the gateway says hello is not forgotten", async () => {
    fixture.begin({ subscribe: ["/a"] });
    const peer = await fixture.gateway.peer();
    const { subscribe } = await peer.next("hello");
    fixture.page.subscribe(["/late", "/refused"]);
    const limits = { message: 4096 };
    const members = { view: "v1", kind: "first", next: 1, blockChannels: [], configuration: {} };
    peer.control({ t: "hello", ...members, limits, subscribed: subscribe, refused: ["/refused"] });
    assert.deepEqual((await peer.next("subscribe")).channels, ["/late"]);
    assert.deepEqual(fixture.heard.of("refused"), [["refused", "subscribe", "/refused"]]);
});

test("Block channels beyond the sixteenth take the number that was not used for longest", async () => {
    const peer = await fixture.connect();
    const { page } = fixture;
    const numberOf = new Map();
    const send = async (name, isNew) => {
        assert.equal(page.publishBlock(name, Uint8Array.of(1, 2, 3, 4, 5, 6, 7, 8)), true);
        if (isNew) {
            const { number } = await peer.next("channel");
            assert.ok(number >= 1 && number <= 16, `number ${number}`);
            numberOf.set(name, number);
        }
        const { data } = await peer.next("bytes");
        assert.deepEqual([...data.subarray(0, 4)], [1, 1, numberOf.get(name), 0]);
        assert.deepEqual([...data.subarray(16)], [1, 2, 3, 4, 5, 6, 7, 8]);
    };
    for (let i = 1; i <= 16; ++i) await send(`/${i}`, true);
    await send("/1", false);
    await send("/17", true);
    assert.equal(numberOf.get("/17"), numberOf.get("/2"));
    await send("/1", false);
    await send("/2", true);
    assert.equal(numberOf.get("/2"), numberOf.get("/3"));
    // A connection of its own has names of its own.
    peer.cut();
    const second = await fixture.gateway.peer();
    await second.welcome({ kind: "return" });
    await fixture.settled(second, 1);
    page.publishBlock("/1", new Uint8Array(8));
    assert.equal((await second.next("channel")).number, 1);
});

test("Channels come from the configuration, and the view is announced when they are in force", async () => {
    const options = {
        client: "test",
        subscribe: ({ commands }) => commands,
        announce: ({ newView }) => newView,
    };
    const channels = (...commands) => ({ configuration: { commands, newView: "/newView" } });
    fixture.begin(options);
    const { gateway, heard } = fixture;
    let peer = await gateway.peer();
    peer.answersEchoes = false;
    await peer.welcome({ kind: "further", ...channels("/a", "/b") });
    const first = await peer.upTo("echo");
    assert.deepEqual(first, [
        { t: "subscribe", channels: ["/a", "/b"] },
        { t: "echo", id: first[1].id },
    ]);
    peer.control({ t: "echo", id: first[1].id + 1 }); // of something else
    await fixture.settled(peer, 1);
    assert.deepEqual(heard.of("ready"), []);
    peer.control(first[1]);
    const { channel, text } = await peer.next("publish");
    assert.deepEqual(
        [channel, JSON.parse(text)],
        ["/newView", { kind: "further", client: "test" }],
    );
    assert.deepEqual(heard.of("ready"), [["ready", "further"]]);
    // Lost before it is known that the announcement came: it is made again, and then no more.
    for (const announces of [true, false]) {
        peer.cut();
        peer = await gateway.peer();
        await peer.welcome({ kind: "return", next: 2, ...channels("/a", "/b") });
        fixture.page.publish("/r", "end");
        const sent = await peer.upTo("publish");
        if (announces) assert.deepEqual((await peer.upTo("publish")).at(-1).channel, "/newView");
        else {
            assert.deepEqual(
                sent.map(({ t }) => t),
                ["publish"],
            );
        }
        if (announces) await peer.next("echo");
        await fixture.settled(peer, announces ? 2 : 3, `${announces}`);
    }
    // A program that was started again has a configuration of its own.
    peer.close(1001, "gateway stopped");
    const { subscribe } = await (peer = await gateway.peer()).welcome(channels("/b", "/c"));
    assert.deepEqual(subscribe, ["/a", "/b"]);
    assert.deepEqual((await peer.next("subscribe")).channels, ["/c"]);
    assert.deepEqual((await peer.next("unsubscribe")).channels, ["/a"]);
    assert.equal((await peer.next("publish")).channel, "/newView");
});

test("A token does not go back when something before it could not be read, and the engine hears why", async () => {
    const { heard } = fixture;
    delete heard.handlers.onFault;
    heard.handlers.onText = (channel, text) => {
        const command = readJson(text);
        if (command.cmd === "sendACT") heard.note("token", fixture.page.returnToken(command));
        else if (!Number.isNaN(command.x)) throw new Error(`x is ${command.x}`);
    };
    const peer = await fixture.connect();
    const token = (ACT) => ["/a", JSON.stringify({ cmd: "sendACT", ACT, returnChannel: "/r" })];
    peer.batch(1, [
        ["/a", '{"x":NaN}'],
        token("one"),
        ["/a", '{"x":5}'],
        ["/a", "{"],
        token("two"),
        token("three"),
    ]);
    const published = [];
    for (let i = 0; i < 4; ++i) published.push(await peer.next("publish"));
    assert.deepEqual(heard.of("token"), [
        ["token", true],
        ["token", false],
        ["token", true],
    ]);
    const said = published.map(({ channel, text }) => [
        channel,
        JSON.parse(text).ACT ?? JSON.parse(text).message,
    ]);
    const errors = "/services/ErrorLoggingService/JSErrors";
    assert.deepEqual(
        [said[0], said[1], said[3]],
        [
            ["/r", "one"],
            [errors, "x is 5"],
            ["/r", "three"],
        ],
    );
    assert.match(said[2][1], /JSON/);
    // Another view has nothing to do with it.
    peer.batch(7, [["/a", "{"]]);
    await peer.next("publish");
    peer.close(4003, "too slow");
    const second = await fixture.gateway.peer();
    await second.welcome({ kind: "further" });
    second.batch(1, [token("four")]);
    assert.match((await second.next("publish")).text, /four/);
    fixture.page.publish("/r", "the last word");
    fixture.page.close();
    assert.equal((await second.next("publish")).text, "the last word");
    assert.equal(await second.closed, 1000);
});
