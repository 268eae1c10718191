// From messages to figures: commands and blocks brought together, and tokens answered.
import assert from "node:assert/strict";
import { test } from "node:test";

import { Inbox, parse } from "../../client/commands.mjs";
import { Numbers, Scene, timesOf } from "../../client/figures.mjs";
import { Flusher } from "../../client/flush.mjs";
import { PointPicture } from "../../client/points.mjs";

/** An inbox whose commands end in a scene, and what it says. */
function start() {
    const told = [];
    const scene = new Scene();
    const inbox = new Inbox({
        draw: (command, data) => {
            told.push(command.cmd);
            scene.apply(command, data);
        },
        token: (command) => told.push(command.ACT),
        report: (error) => told.push(error),
    });
    let sequence = 0;
    const say = (cmd, members = {}) => inbox.text(JSON.stringify({ seq: ++sequence, ...members, cmd }));
    return { told, scene, inbox, say, skip: () => ++sequence };
}

/** A block of 32-bit floats. */
function blockOf(id, values) {
    const block = new Uint8Array(8 + 4 * values.length);
    new DataView(block.buffer).setUint32(0, id, true);
    new Float32Array(block.buffer, 8).set(values);
    return block;
}

/** An electrocardiogram without data. */
function beginFigure(say) {
    say("beginFrame", { frame: 0, attempt: 1, whole: true });
    say("create", { handle: "1", type: "figure", name: "f" });
    say("create", { handle: "2", type: "axes", name: "a", parent: "1" });
    say("create", { handle: "9007199254741001", type: "line", name: "l", parent: "2" });
    say("setChildren", { handle: "2", children: ["9007199254741001"] });
}
const data = (id, first, count) => ({
    handle: "9007199254741001", data: `${id} 0`, first, count, columns: 1, async: false,
});
const errorsOf = (told) => told.filter((what) => what instanceof Error).map((error) => error.message);

test("Bare words are read as numbers, but not inside texts", () => {
    assert.deepEqual(parse('{"x":[NaN,-Infinity,Infinity,1],"NaN":"NaN \\"Infinity"}'), {
        x: [NaN, -Infinity, Infinity, 1], NaN: 'NaN "Infinity',
    });
    for (const text of ["{", '{"x":NaNa}', "nan", '{"x":+Infinity}']) {
        assert.throws(() => parse(text), SyntaxError, text);
    }
});

test("A command waits for its block, and everything behind it waits too", () => {
    const { told, scene, inbox, say } = start();
    beginFigure(say);
    say("setData", data(4, 0, 2));
    say("setTitle", { handle: "1", text: "title" });
    say("sendACT", { ACT: "token" });
    assert.equal(inbox.waiting, 3);
    inbox.text('{"cmd":"binarydata","data":{"4 0":"SOF6vvYoXL4="}}');
    assert.deepEqual(told.slice(5), ["setData", "setTitle", "token"]);
    assert.deepEqual([...scene.named("l").data.values], [Math.fround(-0.245), Math.fround(-0.215)]);
    assert.equal(scene.named("f").text, "title");
    // A copy of what was drawn, for another page's sake, is not kept.
    inbox.text('{"cmd":"binarydata","data":{"4 0":"SOF6vvYoXL4="}}');
    say("setData", data(4, 0, 2));
    assert.equal(inbox.waiting, 1);
});

test("What cannot be read, found or done is reported, and does not stop the rest", () => {
    const { told, scene, inbox, say, skip } = start();
    beginFigure(say);
    inbox.text("{oops");
    inbox.text("[1]");
    say("setText", { handle: "77", text: "x" });
    say("explode", { handle: "1" });
    inbox.block(blockOf(4, [1, 2]));
    say("setData", data(4, 0, 3));
    inbox.block(blockOf(5, [1, 2]));
    say("appendData", data(5, 7, 2));
    skip();
    say("setTitle", { handle: "1", text: "title" });
    inbox.text('{"cmd":"binarydata","data":{"2 0":"\\u0006"}}');
    say("setData", data(6, 0, 1));
    say("sendACT", { ACT: "token" });
    const complaints = [
        /JSON/, /not a command/, /no object 77/, /no such command/, /8 bytes for 3/,
        /element 7 appended instead of 0/, /came instead of/, /no memory/, /block 6 0 is lost/,
    ];
    const errors = errorsOf(told);
    assert.equal(errors.length, complaints.length, errors.join("\n"));
    complaints.forEach((complaint, i) => assert.match(errors[i], complaint));
    assert.equal(scene.named("f").text, "title");
    assert.equal(told.at(-1), "token");
});

test("A whole frame begins anew, whatever waited; before the first one nothing is known", () => {
    const { told, scene, inbox, say } = start();
    say("setTitle", { handle: "1", text: "too early" });
    say("sendACT", { ACT: "not ours" });
    assert.deepEqual(told, []);
    beginFigure(say);
    say("setData", data(4, 0, 1));
    say("sendACT", { ACT: "void" });
    beginFigure(say);
    inbox.block(blockOf(5, [3]));
    say("setData", data(5, 0, 1));
    say("sendACT", { ACT: "good" });
    assert.deepEqual(errorsOf(told), []);
    assert.equal(told.at(-1), "good");
    assert.ok(!told.includes("void"));
    assert.deepEqual([...scene.named("l").data.values], [3]);
    assert.equal(scene.figures.length, 1);
});

test("A line forgets the samples that have left the chart, and keeps its place", () => {
    const { told, scene, inbox, say } = start();
    beginFigure(say);
    inbox.block(blockOf(4, [0, 1, 2, 3, 4, 5]));
    say("setData", data(4, 720, 6));
    say("setLimits", { handle: "2", x: [723 / 360, 726 / 360], y: [-1, 1] });
    inbox.block(blockOf(5, [6]));
    say("appendData", data(5, 726, 1));
    assert.deepEqual(errorsOf(told), []);
    const line = scene.named("l");
    assert.deepEqual([...line.data.values], [2, 3, 4, 5, 6]);
    assert.deepEqual([...timesOf(line)].map((time) => Math.round(time * 360)), [722, 723, 724, 725, 726]);
});

test("Numbers stay right while they grow and move on", () => {
    const numbers = new Numbers();
    for (let i = 0; i < 1000; ++i) {
        numbers.append(Float32Array.of(2 * i, 2 * i + 1));
        if (numbers.length > 10) numbers.forget(2);
    }
    assert.deepEqual([...numbers.values], Array.from({ length: 10 }, (_, i) => 1990 + i));
});

/** A flusher whose surroundings the test moves on by hand. */
function startFlusher() {
    const world = { hidden: false, frames: [], painted: [], log: [], paint: () => world.log.push("paint") };
    const flusher = new Flusher({
        paint: () => world.paint(),
        isHidden: () => world.hidden,
        onFrame: (call) => world.frames.push(call),
        afterPaint: (call) => world.painted.push(call),
        report: (error) => world.log.push(error.message),
        answer: (token, outcome) => world.log.push(`${token} ${outcome}`),
    });
    const run = (calls) => calls.splice(0).forEach((call) => call());
    return { world, flusher, frame: () => run(world.frames), paintingDone: () => run(world.painted) };
}

test("A token goes back after the frame that painted what was before it", () => {
    const { world, flusher, frame, paintingDone } = startFlusher();
    flusher.request();
    flusher.token("a");
    assert.equal(world.frames.length, 1);
    frame();
    flusher.token("b");
    assert.deepEqual(world.log, ["paint"]);
    paintingDone();
    assert.deepEqual(world.log, ["paint", "a painted"]);
    frame();
    paintingDone();
    assert.deepEqual(world.log.slice(2), ["paint", "b painted"]);
});

test("A hidden page answers at once, and paints when it is shown", () => {
    const { world, flusher, frame } = startFlusher();
    flusher.token("a");
    world.hidden = true;
    flusher.visibilityChanged();
    flusher.token("b");
    assert.deepEqual(world.log, ["a hidden", "b hidden"]);
    frame();
    world.hidden = false;
    flusher.visibilityChanged();
    assert.equal(world.frames.length, 1);
});

test("A failure is reported before the token is answered, at once and once", () => {
    const { world, flusher, frame } = startFlusher();
    flusher.fail(new Error("no such thing"));
    flusher.token("a");
    assert.deepEqual(world.log, ["no such thing", "a failed"]);
    world.paint = () => { throw new Error("broken canvas"); };
    flusher.token("b");
    frame();
    flusher.request();
    frame();
    flusher.token("c");
    assert.deepEqual(world.log.slice(2), ["broken canvas", "b failed", "broken canvas", "c failed"]);
    assert.equal(world.painted.length, 0);
});

test("Points are stamped where they lie, cut off at the edges, in any order", () => {
    const picture = new PointPicture(20, 10, [1, 0.5, 0]);
    const alphaAt = (x, y) => picture.bytes[(y * 20 + x) * 4 + 3];
    picture.stamp(5, 5, 2);
    picture.stamp(19.4, -0.4, 2);
    picture.stamp(-100, 300, 2);
    assert.deepEqual([...picture.bytes.subarray(0, 3)], [255, 128, 0]);
    assert.ok(alphaAt(5, 5) > 100 && alphaAt(7, 5) > 100 && alphaAt(19, 0) > 100);
    assert.equal(alphaAt(9, 5), 0);
    assert.equal(alphaAt(0, 9), 0);
    const reversed = new PointPicture(20, 10, [1, 0.5, 0]);
    reversed.stamp(19.4, -0.4, 2);
    reversed.stamp(5, 5, 2);
    assert.deepEqual(reversed.bytes, picture.bytes);
});
