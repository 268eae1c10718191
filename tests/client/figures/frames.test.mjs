// Commands gathered into frames, frames drawn, tokens answered.
import assert from "node:assert/strict";
import { test } from "node:test";

import { LimitsEvents } from "../../../client/page/worker/events.mjs";
import { Flusher } from "../../../client/page/worker/flusher.mjs";
import { Frames } from "../../../client/page/worker/frames.mjs";
import { Inbox } from "../../../client/page/worker/inbox.mjs";

/** Has time-outs wait for `tick`, which lets milliseconds pass. */
function holdTimers(t) {
    const waiting = new Map();
    let time = 0;
    let last = 0;
    t.mock.method(globalThis, "setTimeout", (call, ms) => {
        waiting.set(++last, { at: time + ms, call });
        return last;
    });
    t.mock.method(globalThis, "clearTimeout", (timer) => waiting.delete(timer));
    const first = () => [...waiting].sort(([, one], [, other]) => one.at - other.at)[0];
    const tick = (ms) => {
        const end = time + ms;
        for (let next = first(); next && next[1].at <= end; next = first()) {
            const [timer, { at, call }] = next;
            waiting.delete(timer);
            time = at;
            call();
        }
        time = end;
    };
    return { tick };
}

test("What is between a frame's beginning and its token is one frame; other changes wait 50 ms", (t) => {
    const timers = holdTimers(t);
    const complete = [];
    const frames = new Frames(
        (frame) => complete.push(frame),
        () => 7,
    );
    const expect = (...expected) => {
        const seen = complete.splice(0).map(({ number, commands, token, error }) => {
            const words = commands.map(([{ cmd }]) => cmd);
            return [number, words.join(), token?.command.ACT ?? null, error?.message ?? null];
        });
        assert.deepEqual(seen, expected);
    };
    const take = (cmd, members) => frames.take({ cmd, ...members }, null);
    const begin = (frame) => take("beginFrame", { frame, attempt: 1 });
    begin(3);
    take("set");
    timers.tick(1000);
    expect();
    frames.fail(new Error("first"));
    frames.fail(new Error("second"));
    take("sendACT", { ACT: "a" });
    expect([3, "beginFrame,set", "a", "first"]);
    take("set");
    take("data");
    timers.tick(49);
    expect();
    timers.tick(1);
    expect([-1, "set,data", null, null]);
    // The next frame begins before the time is over; and a frame whose token does not come.
    take("set");
    begin(4);
    begin(5);
    timers.tick(1000);
    expect([-1, "set", null, null], [4, "beginFrame", null, null]);
    take("sendACT", { ACT: "b" });
    take("sendACT", { ACT: "c" });
    expect([5, "beginFrame", "b", null], [-1, "", "c", null]);
    take("set");
    frames.forget();
    timers.tick(1000);
    expect();
});

test("Limits are told not too often, but the last ones always", (t) => {
    const timers = holdTimers(t);
    const told = [];
    let high = 0;
    const events = new LimitsEvents(
        (event) => told.push(event),
        (axes) => (axes === 2 ? { x: [0, ++high] } : null),
    );
    const expect = (...expected) => assert.deepEqual(told.splice(0), expected);
    const event = (end) => ({ event: "limits", axes: 2, x: [0, end] });
    for (let i = 0; i < 5; ++i) events.changed(2);
    expect(event(1));
    timers.tick(99);
    expect();
    timers.tick(1);
    expect(event(2));
    timers.tick(1000);
    events.changed(2);
    events.changed(7);
    expect(event(3));
    events.changed(2);
    events.forget();
    timers.tick(1000);
    expect();
});

/** A flusher, what is told of it, and hands to move it. */
function start() {
    const log = [];
    const calls = { frame: [], after: [] };
    const state = { unseen: null, stamp: 0 };
    const flusher = new Flusher({
        apply: (frame) => log.push(`apply ${frame.name}`),
        unseen: () => state.unseen,
        isReady: () => true,
        paint: () => {
            log.push("paint");
            return { stamp: state.stamp, errors: [] };
        },
        onFrame: (call) => calls.frame.push(call),
        afterPaint: (call) => calls.after.push(call),
        answer: (frame, outcome) => log.push(`${frame.name} ${outcome}`),
        counted: () => log.push("count"),
    });
    return {
        flusher,
        state,
        run: (which) => calls[which].splice(0).forEach((call) => call()),
        take: (name, members) =>
            flusher.take({ name, token: { command: {} }, error: null, isWhole: false, ...members }),
        expect: (...expected) => assert.deepEqual(log.splice(0), expected),
    };
}

test("A token goes back once the frame is drawn, and confirmed if somebody was told of it", () => {
    const { flusher, state, run, take, expect } = start();
    take("a");
    expect("apply a");
    run("frame");
    expect("paint", "count");
    run("after");
    expect("a painted");
    state.stamp = 5;
    take("b");
    run("frame");
    state.stamp = 0;
    take("c");
    run("frame");
    run("after");
    expect("apply b", "paint", "count", "apply c", "paint", "count");
    flusher.confirm(4);
    expect();
    flusher.confirm(6);
    expect("b painted", "c painted");
    // Nothing is counted that no frame has brought.
    flusher.request();
    flusher.request();
    run("frame");
    expect("paint");
});

test("A frame waits for the one before to be painted, unless too many do", () => {
    const { run, take, expect } = start();
    for (const name of ["a", "b", "c"]) take(name);
    expect("apply a");
    take("d");
    expect("apply b");
    run("frame");
    expect("paint", "count", "apply c");
    run("after");
    expect("a painted", "b painted");
});

test("Nobody waits for a page that is hidden or paused", () => {
    for (const unseen of ["hidden", "paused"]) {
        const { flusher, state, run, take, expect } = start();
        state.stamp = 1;
        take("a");
        run("frame");
        take("b");
        take("c");
        expect("apply a", "paint", "count", "apply b");
        state.unseen = unseen;
        flusher.seenChanged();
        expect(`a ${unseen}`, `b ${unseen}`, "apply c", `c ${unseen}`);
        take("d");
        expect("apply d", `d ${unseen}`);
        run("after");
        flusher.confirm(9);
        run("frame");
        expect(...(unseen === "hidden" ? [] : ["paint"]));
        state.unseen = null;
        flusher.seenChanged();
        run("frame");
        expect("paint");
    }
});

test("A frame that failed says so, and one without a token lets the next one say it", () => {
    const { flusher, run, take, expect } = start();
    const settle = () => {
        run("frame");
        run("after");
    };
    take("a", { error: new Error("a") });
    settle();
    expect("apply a", "paint", "count", "a failed");
    take("b", { token: null, error: new Error("b") });
    settle();
    take("c");
    settle();
    take("d");
    settle();
    const drawn = (name) => [`apply ${name}`, "paint", "count"];
    expect(...drawn("b"), ...drawn("c"), "c failed", ...drawn("d"), "d painted");
    // What was before a whole frame, or another view, means nothing any more.
    take("f", { token: null, error: new Error("f") });
    settle();
    take("g", { isWhole: true });
    settle();
    take("h");
    run("frame");
    flusher.forget();
    run("after");
    expect(...drawn("f"), ...drawn("g"), "g painted", ...drawn("h"));
});

test("A command waits for its block with all behind it; a whole frame begins anew", () => {
    const told = [];
    const errors = [];
    const inbox = new Inbox({
        take: ({ cmd }, data) => told.push(data ? `${cmd} ${data.length}` : cmd),
        report: (error) => errors.push(error.message),
    });
    let seq = 0;
    const say = (cmd, members) => inbox.text(JSON.stringify({ seq: ++seq, ...members, cmd }));
    const expect = (...expected) => assert.deepEqual(told.splice(0), expected);
    const act = () => inbox.text('{"cmd":"sendACT"}');
    const block = (id) => Uint8Array.of(id, 0, 0, 0, 0, 0, 0, 0, 9, 9);
    say("set");
    act();
    expect();
    say("beginFrame", { whole: true });
    say("data", { data: "4 0" });
    act();
    expect("beginFrame");
    inbox.text('{"cmd":"binarydata","data":{"4 0":"AQL/"}}');
    expect("data 3", "sendACT");
    // Given back by another page it comes again; it is not kept.
    inbox.text('{"cmd":"binarydata","data":{"4 0":"AQL/"}}');
    inbox.block(block(5));
    say("data", { data: "5 0" });
    say("data", { data: "4 0" });
    expect("data 2");
    inbox.block(block(8));
    say("beginFrame", { whole: true });
    inbox.block(block(7));
    say("data", { data: "7 0" });
    expect("beginFrame", "data 2");
    assert.deepEqual(errors, []);
    inbox.text('{"cmd":"binarydata","data":{"2 0":"\\u0008"}}');
    say("data", { data: "8 0" });
    say("data", { data: "9 0" });
    say("set", { seq: 99 });
    expect();
    // What cannot be read may have been the block that is waited for: nothing waits any more.
    inbox.text('{"cmd":"binarydata","data":{"9 0":"!"}}');
    expect("set");
    for (const text of ["{oops", "5", '{"cmd":"binarydata","data":null}']) inbox.text(text);
    say("beginFrame", { whole: true });
    say("data", { data: "6 0" });
    act();
    expect("beginFrame");
    assert.throws(() => inbox.block(Uint8Array.of(1)), RangeError);
    const expected =
        /no memory.*;block 8 0 is lost;.*"9 0":"!".*;block 9 0 is lost;command 99 came instead.*;.*JSON.*;.*not a command.*;.*null/;
    assert.match(errors.join(";"), expected);
});
