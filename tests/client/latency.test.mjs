// Where frames take their time: the arithmetic.
import assert from "node:assert/strict";
import { test } from "node:test";

import { STAMPS, latencyOf, stackOf, summaryOf } from "../../client/page/latency.mjs";
import { notesOf } from "../../client/page/latency_panel.mjs";
import { Latencies } from "../../client/page/worker/latencies.mjs";

/** Of frames, each as its stamps in milliseconds in the order of its way; null: there is none. The
 * clocks begin at different times. */
function columnsOf(frames, engine = 1e9, page = 1e9) {
    const latencies = new Latencies(100);
    frames.forEach((frame, i) => {
        const stamps = STAMPS.map((name, k) => {
            const begin = name.startsWith("server") ? engine : page;
            return [name, frame[k] === null ? 0 : (begin + frame[k]) * 1000];
        });
        latencies.add(i, Object.fromEntries(stamps));
    });
    return latencies.copy();
}

const LATE = [null, null, null, null, null];
const TWO = [
    [0, 2, 5, 12, 13],
    [20, 25, 26, 30, 34],
];
const without = (...gone) =>
    TWO.map((frame) => frame.map((stamp, k) => (gone.includes(STAMPS[k]) ? null : stamp)));
const SPLIT = "Page’s queue 3,1; Painting 7,4";
const WAYS = `Engine to page 2,5; ${SPLIT}; Way back 1,4`;
const FROM_FASTEST = `Engine to page 0,3; ${SPLIT}; Way back 0,3`;

/** What there is, the clocks, what is found, and within what the clocks agree; null: times are
 * counted from the fastest. */
const CASES = [
    [[TWO], WAYS, 2],
    // A page whose clock is coarse, one that is ahead, so that answers come before they go, and one
    // that is far behind.
    [[TWO, 1e9, 1e9 - 2.5], `Engine to page 0,2.5; ${SPLIT}; Way back 3.5,6.5`, 3.5],
    [[TWO, 1e9, 1e9 + 2.5], FROM_FASTEST, null],
    [[TWO, 5e9, 1e9], FROM_FASTEST, null],
    // What a page knows, an engine that does not stamp, and nothing of painting.
    [[without("serverReceive"), 1e9, 7e9], `Engine to page 0,3; ${SPLIT}`, null],
    [[without("serverSend", "serverReceive")], SPLIT, null],
    [[without("clientPaint")], "Engine to page 2,5; In the page 10,5; Way back 1,4", 2],
    // Some stamps are missing, and those of one clock are in the wrong order.
    [
        [[TWO[0], [20, 25, null, 30, null]]],
        "Engine to page 2,5; Page’s queue 3,NaN; Painting 7,NaN; Way back 1,NaN",
        2,
    ],
    [
        [[TWO[0], [20, 25, 31, 30, 34]]],
        "Engine to page 2,5; Page’s queue 3,6; Painting 7,NaN; Way back 1,4",
        2,
    ],
    [[[]], "", null],
];

test("Each part's times are those of its stamps, whatever the clocks of the two sides say", () => {
    for (const [given, wanted, within] of CASES) {
        const { parts, clocks } = latencyOf(columnsOf(...given));
        const found = parts.map(({ name, times }) => `${name} ${times}`).join("; ");
        assert.deepEqual([found, clocks.isShifted], [wanted, within === null]);
        assert.equal(clocks.within, within ?? NaN, wanted);
    }
    assert.deepEqual([...latencyOf(columnsOf(TWO, 1e9, 9e9)).whole.times], [13, 14]);
    const { late, parts } = latencyOf(columnsOf([TWO[0], LATE, TWO[1]]));
    assert.deepEqual([[...late], parts[0].summary.count], [[1], 2]);
});

test("Where the clocks were compared times stand as they are, and it is said how far they are apart", () => {
    const clock = { ahead: 100, uncertainty: 300, shift: 0 };
    const live = (page) => latencyOf(columnsOf(without("serverReceive"), 1e9, page), clock);
    const { clocks, parts } = live(1e9);
    assert.deepEqual([[...parts[0].times], clocks.within], [[2, 5], 0.4]);
    assert.ok(live(1e9 - 3.5).clocks.isShifted, "it came before it was sent");
    assert.match(notesOf(live(1e9), false, clock), /clocks .* agree to within 0\.4 ms\./);
    const late = { ahead: 2500, uncertainty: 400, shift: 2500 };
    const note = notesOf(latencyOf(columnsOf(TWO), late), false, late);
    assert.equal(
        note,
        "The page’s clock is 2.5 ms behind the engine’s, to within 0.4 ms; that is taken out.",
    );
});

test("A percentile is a time that was measured, by nearest rank", () => {
    const hundred = Float64Array.from({ length: 100 }, (_, i) => 100 - i);
    for (const [times, ...wanted] of [
        [hundred, 100, 50, 90, 99, 100],
        [Float64Array.of(NaN, 3, NaN, 1), 2, 1, 3, 3, 3],
        [hundred.slice(-7), 7, 4, 7, 7, 7],
        [Float64Array.of(7), 1, 7, 7, 7, 7],
        [Float64Array.of(NaN), 0, NaN, NaN, NaN, NaN],
    ]) {
        assert.deepEqual(Object.values(summaryOf(times)), wanted);
    }
});

test("A picture has the slowest frame of each stretch, its parts one upon the other", () => {
    const frames = [...TWO, LATE, [0, 1, 2, 3, 4], [0, 1, 5, null, null]];
    const latency = latencyOf(columnsOf(frames));
    const stack = stackOf(latency, 2);
    assert.deepEqual(stack.time, [1, 4]);
    assert.deepEqual(stack.sums, [
        [5, 1],
        [6, 5],
        [10, 5],
        [14, 5],
    ]);
    assert.deepEqual(stackOf(latency, 5).time, [0, 1, 3, 4]);
    assert.deepEqual(stackOf(latencyOf(columnsOf([])), 5).time, []);
});

test("The newest frames are kept, in their order, and what is no stamp is none", () => {
    const latencies = new Latencies(3);
    for (const [time, stamp] of [1, -1, "x", NaN, 2 ** 60].entries()) {
        latencies.add(time, { clientSend: stamp });
        const { clientSend } = latencies.copy();
        if (time === 0) assert.deepEqual([...clientSend], [1]);
        else assert.equal(clientSend.at(-1), 0);
    }
    assert.deepEqual([latencies.total, ...latencies.copy().time], [5, 2, 3, 4]);
});
