// Commands gathered into frames, frames drawn, tokens answered.
import assert from "node:assert/strict";
import { test } from "node:test";

import { LimitsEvents } from "../../../client/page/worker/events.mjs";
import { Flusher } from "../../../client/page/worker/flusher.mjs";
import { Frames } from "../../../client/page/worker/frames.mjs";
import { Inbox } from "../../../client/page/worker/inbox.mjs";

/** Has time-outs wait for the result, which lets milliseconds pass. */
function holdTimers(t) {
    let waiting = [];
    let time = 0;
    t.mock.method(globalThis, "setTimeout", (call, ms) => {
        waiting.push({ at: time + ms, call });
        return waiting.at(-1);
    });
    t.mock.method(globalThis, "clearTimeout", (timer) => {
        waiting = waiting.filter((one) => one !== timer);
    });
    return function pass(ms) {
        const end = time + ms;
        for (;;) {
            const [first] = waiting.sort((one, other) => one.at - other.at);
            if (!(first?.at <= end)) break;
            waiting.shift();
            time = first.at;
            first.call();
        }
        time = end;
    };
}

test("What is between a frame's beginning and its token is one frame; other changes wait 50 ms", (t) => {
    const pass = holdTimers(t);
    const complete = [];
    const take = (frame) => complete.push(frame);
    const frames = new Frames(take, () => 7);
    /** Of each frame its number, commands, token and error. */
    const expect = (...expected) => {
        const seen = complete.splice(0).map(({ number, commands, token, error }) => {
            const words = commands.map(([{ cmd }]) => cmd);
            return [number, words, token?.command.ACT, error?.message].join(" ").trimEnd();
        });
        assert.deepEqual(seen, expected);
    };
    const say = (cmd, members) => frames.take({ cmd, ...members }, null);
    const begin = (frame) => say("beginFrame", { frame, attempt: 1 });
    begin(3);
    say("set");
    pass(1000);
    expect();
    frames.fail(new Error("first"));
    frames.fail(new Error("second"));
    say("sendACT", { ACT: "a" });
    expect("3 beginFrame,set a first");
    say("set");
    say("data");
    pass(49);
    expect();
    pass(1);
    expect("-1 set,data");
    // The next frame begins before the time is over; and a frame whose token does not come.
    say("set");
    begin(4);
    begin(5);
    pass(1000);
    expect("-1 set", "4 beginFrame");
    say("sendACT", { ACT: "b" });
    say("sendACT", { ACT: "c" });
    expect("5 beginFrame b", "-1  c");
    say("set");
    pass(30);
    frames.forget();
    say("data");
    pass(49);
    expect();
    pass(1);
    expect("-1 data");
});

test("Limits are told not too often, but the last ones always", (t) => {
    const pass = holdTimers(t);
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
    pass(99);
    expect();
    pass(1);
    expect(event(2));
    pass(1000);
    events.changed(2);
    events.changed(7);
    expect(event(3));
    events.changed(2);
    events.forget();
    pass(1000);
    expect();
});

/** A flusher: what is done to it, and what it does then. "draw" and "after" let an animation frame
 * and what is behind it come; a frame is "taken" with its token, well, unless said. */
const FLUSHES = {
    "A token goes back once the frame is drawn, and confirmed if somebody was told of it": `
        take a; draw; after | apply a, paint, count, a painted
        stamp 5; take b; draw; stamp 0; take c; draw | apply b, paint, count, apply c, paint, count
        after; confirm 4 |
        confirm 6 | b painted, c painted
        request; request; draw | paint`,
    "A frame waits for the one before to be painted, unless too many do": `
        take a; take b; take c | apply a
        take d | apply b
        draw | paint, count, apply c
        after | a painted, b painted`,
    "Nobody waits for a page that is hidden": `
        stamp 1; take a; draw; take b; take c | apply a, paint, count, apply b
        unseen hidden | a hidden, b hidden, apply c, c hidden
        take d; after; confirm 9; draw | apply d, d hidden
        unseen; draw | paint`,
    "Nor for one that is paused, which is painted nevertheless": `
        take a; unseen paused | apply a, a paused
        take b; draw | apply b, b paused, paint
        unseen; draw | paint`,
    "What somebody looks at waits for no animation frame": `
        soon; soon; after; draw | paint, paint
        take a; soon; after | apply a, paint, count
        after; draw; unseen hidden; soon; after | a painted, paint`,
    "A frame that failed says so": `
        take a failed; draw; after; take b; draw | apply a, paint, count, a failed, apply b, paint, count
        after | b painted`,
    "One without a token lets the next one say it": `
        take a untold failed; draw; after | apply a, paint, count
        take b; draw; after | apply b, paint, count, b failed
        take c; draw; after | apply c, paint, count, c painted`,
    "What was before a whole frame, or another view, means nothing any more": `
        take a untold failed; draw; after | apply a, paint, count
        take b whole; draw; after | apply b, paint, count, b painted
        take c untold failed; draw; after; take d; draw | apply c, paint, count, apply d, paint, count
        take e; take f; forget; after; draw | apply e, paint
        take g; draw; after | apply g, paint, count, g painted`,
};

for (const [what, rows] of Object.entries(FLUSHES)) {
    test(what, () => {
        let log = [];
        let [unseen, stamp] = [null, 0];
        const calls = { draw: [], after: [] };
        const flusher = new Flusher({
            apply: (frame) => log.push(`apply ${frame.name}`),
            unseen: () => unseen,
            isReady: () => true,
            paint: () => log.push("paint") && { stamp, errors: [] },
            onFrame: (call) => calls.draw.push(call),
            afterPaint: (call) => calls.after.push(call),
            answer: (frame, outcome) => log.push(`${frame.name} ${outcome}`),
            counted: () => log.push("count"),
        });
        const run = (which) => calls[which].splice(0).forEach((call) => call());
        const hands = {
            take: (name, ...how) =>
                flusher.take({
                    name,
                    token: how.includes("untold") ? null : { command: {} },
                    error: how.includes("failed") ? new Error(name) : null,
                    isWhole: how.includes("whole"),
                }),
            draw: () => run("draw"),
            after: () => run("after"),
            stamp: (number) => (stamp = Number(number)),
            confirm: (number) => flusher.confirm(Number(number)),
            request: () => flusher.request(),
            soon: () => flusher.requestSoon(),
            forget: () => flusher.forget(),
            unseen: (why = null) => {
                unseen = why;
                flusher.seenChanged();
            },
        };
        for (const row of rows.trim().split("\n")) {
            const [steps, expected] = row.split("|").map((part) => part.trim());
            for (const step of steps.split("; ")) {
                const [hand, ...more] = step.split(" ");
                hands[hand](...more);
            }
            assert.equal(log.join(", "), expected, row);
            log = [];
        }
    });
}

test("A command waits for its block with all behind it; a whole frame begins anew", () => {
    const told = [];
    const errors = [];
    const inbox = new Inbox({
        take: ({ cmd }, data) => told.push(data ? `${cmd} ${data.length}` : cmd),
        report: (error) => errors.push(error.message),
    });
    let seq = 0;
    const expect = (...expected) => assert.deepEqual(told.splice(0), expected);
    const say = (cmd, members) => inbox.text(JSON.stringify({ seq: ++seq, ...members, cmd }));
    const whole = () => say("beginFrame", { whole: true });
    const data = (...blocks) => blocks.forEach((low) => say("data", { data: `${low} 0` }));
    const act = () => inbox.text('{"cmd":"sendACT"}');
    const block = (id) => inbox.block(Uint8Array.of(id, 0, 0, 0, 0, 0, 0, 0, 9, 9));
    const text = (name, base64) =>
        inbox.text(`{"cmd":"binarydata","data":{"${name}":"${base64}"}}`);
    say("set");
    act();
    expect();
    whole();
    data(4);
    act();
    expect("beginFrame");
    text("4 0", "AQL/");
    expect("data 3", "sendACT");
    // Given back by another page it comes again; it is not kept.
    text("4 0", "AQL/");
    block(5);
    data(5, 4);
    expect("data 2");
    block(8);
    whole();
    block(7);
    data(7);
    expect("beginFrame", "data 2");
    assert.deepEqual(errors, []);
    text("2 0", "\\u0008");
    data(8, 9);
    say("set", { seq: 99 });
    expect();
    // What cannot be read may have been the block that is waited for: nothing waits any more.
    text("9 0", "!");
    expect("set");
    for (const odd of ["{oops", "5", '{"cmd":"binarydata","data":null}']) inbox.text(odd);
    whole();
    data(6);
    act();
    expect("beginFrame");
    assert.throws(() => inbox.block(Uint8Array.of(1)), RangeError);
    const reasons =
        /no memory.*;block 8 0 is lost;.*"9 0":"!".*;block 9 0 is lost;command 99 came instead.*;.*JSON.*;.*not a command.*;.*null/;
    assert.match(errors.join(";"), reasons);
});
