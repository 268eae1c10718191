// From messages to figures: commands and blocks brought together, tokens answered.
import assert from "node:assert/strict";
import { test } from "node:test";

import { Inbox } from "../../client/commands.mjs";
import { Scene } from "../../client/figures.mjs";
import { Flusher } from "../../client/flush.mjs";

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
    const say = (cmd, members) =>
        inbox.text(JSON.stringify({ seq: ++sequence, handle: "1", ...members, cmd }));
    const begin = () => {
        say("beginFrame", { frame: 0, attempt: 1, whole: true });
        say("create", { type: "figure", name: "f" });
        say("create", { handle: "2", type: "line", name: "l", parent: "1" });
        told.splice(0);
    };
    begin();
    const data = (id, count) =>
        say("setData", { handle: "2", data: `${id} 0`, first: 0, count, columns: 1 });
    return { told, errors, scene, inbox, say, data, begin };
}

/** A block of two 32-bit floats. */
const blockOf = (id) => Uint8Array.of(id, ...Array(9).fill(0), 0x80, 0x3f, 0, 0, 0, 0x40);

test("A command waits for its block with all behind it, unless a whole frame begins anew", () => {
    const { told, errors, scene, inbox, say, data, begin } = start();
    data(4, 2);
    say("setTitle", { text: "title" });
    say("sendACT", { ACT: "token" });
    assert.deepEqual([told, inbox.waiting], [[], 3]);
    const asText = '{"cmd":"binarydata","data":{"4 0":"SOF6vvYoXL4="}}';
    inbox.text(asText);
    assert.deepEqual(told, ["setData", "setTitle", "token"]);
    assert.deepEqual([...scene.named("l").data.values], [Math.fround(-0.245), Math.fround(-0.215)]);
    inbox.text(asText); // for another page's sake: it is not kept
    data(4, 2);
    say("sendACT", { ACT: "void" });
    begin();
    data(6, 2);
    inbox.block(blockOf(6));
    assert.deepEqual([told, errors, scene.figures.length], [["setData"], [], 1]);
});

test("What cannot be read, found or done is reported, and does not stop the rest", () => {
    const { told, errors, scene, inbox, say, data } = start();
    inbox.text("{oops");
    say("setText", { handle: "77", text: "x" });
    inbox.block(blockOf(4));
    data(4, 3);
    inbox.text('{"cmd":"setTitle","seq":99,"handle":"1","text":"NaN","bare":[NaN,-Infinity]}');
    inbox.text('{"cmd":"binarydata","data":{"2 0":"\\u0006"}}');
    data(6, 1);
    say("sendACT", { ACT: "token" });
    const complaints = /JSON.* no object 77.*8 bytes for 3.*came instead.*no memory.*6 0 is lost$/;
    assert.match(errors.join(), complaints);
    assert.deepEqual([told, scene.named("f").text], [["setTitle", "token"], "NaN"]);
});

test("A token goes back after the frame that painted what was before it, or failed to", () => {
    const log = [];
    const frames = [];
    const painted = [];
    let hidden = false;
    let broken = false;
    const flusher = new Flusher({
        paint: () => log.push(broken ? null.broken : "paint"),
        isHidden: () => hidden,
        onFrame: (call) => frames.push(call),
        afterPaint: (call) => painted.push(call),
        report: () => log.push("report"),
        answer: (token, outcome) => log.push(`${token} ${outcome}`),
    });
    const expect = (...expected) => assert.deepEqual(log.splice(0), expected);
    flusher.token("a");
    frames.shift()();
    flusher.token("b");
    expect("paint");
    painted.shift()();
    broken = true;
    frames.shift()();
    expect("a painted", "report", "b failed");
    flusher.fail(new Error("no such thing"));
    flusher.token("d");
    expect("report", "d failed");
    // Hidden between a token and its frame, the page gets no frames: the token does not wait for one.
    broken = false;
    flusher.token("e");
    hidden = true;
    flusher.visibilityChanged();
    expect("e hidden");
    hidden = false;
    // A view that is over has no tokens, and what it failed to draw is forgotten with it.
    flusher.token("g");
    flusher.fail(new Error("old"));
    flusher.forget();
    flusher.token("h");
    for (const call of frames) call();
    for (const call of painted) call();
    expect("report", "paint", "h painted");
});
