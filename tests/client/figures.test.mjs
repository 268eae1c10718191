// From messages to figures: commands and blocks brought together, tokens answered, points drawn.
import assert from "node:assert/strict";
import { test } from "node:test";

import { Inbox } from "../../client/commands.mjs";
import { Scene } from "../../client/figures.mjs";
import { Flusher } from "../../client/flush.mjs";
import { PointPicture } from "../../client/points.mjs";
import { StatusBar } from "../../client/status_bar.mjs";
import { readJson } from "../../client/wire.mjs";

/** An inbox whose commands end in a scene, and what it says. A line is begun, with handle 2. */
function start() {
    const told = [];
    const errors = [];
    const scene = new Scene();
    const inbox = new Inbox({
        draw: (command, data) => {
            scene.apply(command, data);
            told.push(command.cmd);
        },
        token: (command) => told.push(command.ACT),
        report: (error) => errors.push(error.message),
    });
    let sequence = 0;
    const say = (cmd, members = {}) =>
        inbox.text(JSON.stringify({ seq: ++sequence, ...members, cmd }));
    const begin = () => {
        say("beginFrame", { frame: 0, attempt: 1, whole: true });
        say("create", { handle: "1", type: "figure", name: "f" });
        say("create", { handle: "2", type: "line", name: "l", parent: "1" });
        told.splice(0);
    };
    begin();
    const data = (cmd, id, first, count) =>
        say(cmd, { handle: "2", data: `${id} 0`, first, count, columns: 1 });
    return { told, errors, scene, inbox, say, data, begin, skip: () => ++sequence };
}

/** A block of 32-bit floats. */
function blockOf(id, values) {
    const block = new Uint8Array(8 + 4 * values.length);
    block[0] = id;
    new Float32Array(block.buffer, 8).set(values);
    return block;
}

test("Bare words are read as numbers, but not inside texts", () => {
    const text = '{"x":[NaN,-Infinity,Infinity,1],"NaN":"NaN \\"Infinity","y":"\uf8ff\\uf8ff"}';
    assert.deepEqual(readJson(text), {
        x: [NaN, -Infinity, Infinity, 1],
        NaN: 'NaN "Infinity',
        y: "\uf8ff\uf8ff",
    });
    for (const broken of ["{", '{"x":NaNa}', "nan", '{"x":+Infinity}']) {
        assert.throws(() => readJson(broken), SyntaxError, broken);
    }
});

test("A command waits for its block with all behind it, unless a whole frame begins anew", () => {
    const { told, errors, scene, inbox, say, data, begin } = start();
    data("setData", 4, 0, 2);
    say("setTitle", { handle: "1", text: "title" });
    say("sendACT", { ACT: "token" });
    assert.deepEqual([told, inbox.waiting], [[], 3]);
    inbox.text('{"cmd":"binarydata","data":{"4 0":"SOF6vvYoXL4="}}');
    assert.deepEqual(told, ["setData", "setTitle", "token"]);
    assert.deepEqual([...scene.named("l").data.values], [Math.fround(-0.245), Math.fround(-0.215)]);
    // A copy of what was drawn, for another page's sake, is not kept.
    inbox.text('{"cmd":"binarydata","data":{"4 0":"SOF6vvYoXL4="}}');
    data("setData", 4, 0, 2);
    say("sendACT", { ACT: "void" });
    inbox.text('{"cmd":"binarydata","data":{"2 0":"\\u0006"}}');
    errors.pop();
    begin();
    data("setData", 6, 0, 1);
    inbox.block(blockOf(6, [3]));
    assert.deepEqual([told, errors, scene.figures.length], [["setData"], [], 1]);
});

test("What cannot be read, found or done is reported, and does not stop the rest", () => {
    const { told, errors, scene, inbox, say, data, skip } = start();
    inbox.text("{oops");
    inbox.text("[1]");
    say("setText", { handle: "77", text: "x" });
    say("explode", { handle: "1" });
    inbox.block(blockOf(4, [1, 2]));
    data("setData", 4, 0, 3);
    inbox.block(blockOf(5, [1, 2]));
    data("appendData", 5, 7, 2);
    skip();
    say("setTitle", { handle: "1", text: "title" });
    inbox.text('{"cmd":"binarydata","data":{"2 0":"\\u0006"}}');
    data("setData", 6, 0, 1);
    say("sendACT", { ACT: "token" });
    const complaints = [
        /JSON/,
        /not a command/,
        /no object 77/,
        /no such command/,
        /8 bytes for 3/,
        /element 7 appended instead of 0/,
        /came instead of/,
        /no memory/,
        /block 6 0 is lost/,
    ];
    assert.equal(errors.length, complaints.length, errors.join("\n"));
    complaints.forEach((complaint, i) => assert.match(errors[i], complaint));
    assert.deepEqual([told, scene.named("f").text], [["setTitle", "token"], "title"]);
});

test("A token goes back after the frame that painted what was before it, or failed to", () => {
    const log = [];
    const frames = [];
    const painted = [];
    let hidden = false;
    let paint = () => log.push("paint");
    const flusher = new Flusher({
        paint: () => paint(),
        isHidden: () => hidden,
        onFrame: (call) => frames.push(call),
        afterPaint: (call) => painted.push(call),
        report: (error) => log.push(error.message),
        answer: (token, outcome) => log.push(`${token} ${outcome}`),
    });
    flusher.request();
    flusher.token("a");
    frames.shift()();
    flusher.token("b");
    assert.deepEqual(log, ["paint"]);
    painted.shift()();
    paint = () => {
        throw new Error("broken canvas");
    };
    frames.shift()();
    paint = () => {};
    flusher.token("fine");
    frames.shift()();
    painted.shift()();
    assert.equal(log.pop(), "fine painted");
    paint = () => {
        throw new Error("broken canvas");
    };
    flusher.fail(new Error("no such thing"));
    flusher.token("c");
    assert.deepEqual(log, [
        "paint",
        "a painted",
        "broken canvas",
        "b failed",
        "no such thing",
        "c failed",
    ]);
    frames.shift()();
    flusher.token("d");
    assert.deepEqual(log.slice(6), ["broken canvas", "d failed"]);
    assert.deepEqual([frames.length, painted.length], [1, 0]);
    // Hidden between a token and its frame, the page gets no frames: the token does not wait for one.
    paint = () => log.push("paint");
    flusher.token("e");
    hidden = true;
    flusher.visibilityChanged();
    flusher.token("f");
    assert.deepEqual(log.slice(8), ["e hidden", "f hidden"]);
    hidden = false;
    flusher.visibilityChanged();
    flusher.token("g");
    // A view that is over has no tokens, and what it failed to draw is forgotten with it.
    flusher.fail(new Error("old"));
    flusher.forget();
    flusher.token("h");
    for (const call of frames.splice(0)) call();
    for (const call of painted.splice(0)) call();
    assert.deepEqual(log.slice(10), ["old", "paint", "h painted"]);
});

test("The status counts the engine's frames, and an error leaves when it is mended and was read", (t) => {
    let now = 0;
    let tick = () => {};
    const parts = new Map();
    class Element extends EventTarget {}
    const part = (name) => parts.get(name) ?? parts.set(name, new Element()).get(name);
    const root = { dataset: {}, querySelector: (what) => part(/"(.*)"/.exec(what)[1]) };
    t.mock.method(performance, "now", () => now);
    t.mock.method(globalThis, "setInterval", (call) => (tick = call));
    globalThis.HTMLElement = Element;
    t.after(() => delete globalThis.HTMLElement);
    let retries = 0;
    const status = new StatusBar(
        root,
        () => ++retries,
        () => 2048,
    );
    for (let i = 0; i < 60; ++i) status.countFrame();
    status.countFlush(3000);
    now = 2000;
    tick();
    assert.deepEqual(
        ["fps", "flush", "bytes"].map((name) => part(name).textContent),
        ["30", "3.0 ms", "2.0 KiB"],
    );
    status.showError("broken");
    status.countFrame();
    assert.equal(part("error").textContent, "broken");
    now = 60_000;
    assert.equal(part("error").textContent, "broken");
    status.countFrame();
    assert.equal(part("error").textContent, "");
    status.showState({ name: "refused", reason: "open the link" });
    assert.deepEqual([part("retry").hidden, part("reason").textContent], [false, "open the link"]);
    part("retry").dispatchEvent(new Event("click"));
    assert.equal(retries, 1);
});

test("Points lie where they are, at every place in a word, cut off at the edges, in any order", () => {
    const [width, height] = [19, 10];
    const points = [0, 1, 2, 3].map((shift) => [5 + shift, 5, 1.5]);
    points.push([width - 0.6, -0.4, 2], [-1, 8, 2], [-100, 300, 2], [NaN, 1, 2]);
    const draw = (all) => {
        const picture = new PointPicture(width, height, [1, 0.5, 0]);
        all.forEach((point) => picture.stamp(...point));
        const pixels = new Uint32Array(width * height);
        picture.write(pixels);
        return new Uint8Array(pixels.buffer);
    };
    for (const point of points) {
        const bytes = draw([point]);
        const [x, y, radius] = point;
        for (let at = 0; at < width * height; ++at) {
            const distance = Math.hypot(
                (at % width) - Math.round(x),
                Math.floor(at / width) - Math.round(y),
            );
            assert.equal(bytes[4 * at + 3] > 0, distance < radius + 0.5, `${point}: ${distance}`);
            if (distance === 0) {
                assert.deepEqual([...bytes.subarray(4 * at, 4 * at + 3)], [255, 128, 0]);
            }
        }
    }
    const together = draw(points);
    assert.deepEqual(draw(points.reverse()), together);
    const rims = points.map((point) => draw([point])[(5 * width + 6) * 4 + 3]);
    assert.equal(together[(5 * width + 6) * 4 + 3], Math.max(...rims));
});
