// Where frames take their time: the arithmetic.
import assert from "node:assert/strict";
import { test } from "node:test";

import { STAMPS, latencyOf, stackOf, summaryOf } from "../../client/page/latency.mjs";
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
const QUEUE = { "Page’s queue": [3, 1] };
const PAINTING = { Painting: [7, 4] };
const PAGE = { "In the page": [10, 5] };
const AS_IT_IS = { "Engine to page": [2, 5], ...QUEUE, ...PAINTING, "Way back": [1, 4] };
const FROM_FASTEST = { "Engine to page": [0, 3], ...QUEUE, ...PAINTING, "Way back": [0, 3] };

/** What there is, the clocks, and what is found; "within": null where times are counted from the
 * fastest. */
const CASES = {
    "clocks that agree": [[TWO], AS_IT_IS, 2],
    "a page whose clock is coarse": [
        [TWO, 1e9, 1e9 - 2.5],
        { "Engine to page": [0, 2.5], ...QUEUE, ...PAINTING, "Way back": [3.5, 6.5] },
        3.5,
    ],
    "a page that is ahead, so that answers come before they go": [
        [TWO, 1e9, 1e9 + 2.5],
        FROM_FASTEST,
        null,
    ],
    "a page that is far behind": [
        [[TWO[1], TWO[0]], 5e9, 1e9],
        { "Engine to page": [3, 0], "Page’s queue": [1, 3], Painting: [4, 7], "Way back": [3, 0] },
        null,
    ],
    "what a page knows": [
        [without("serverReceive"), 1e9, 7e9],
        { "Engine to page": [0, 3], ...QUEUE, ...PAINTING },
        null,
    ],
    "an engine that does not stamp": [
        [without("serverSend", "serverReceive")],
        { ...QUEUE, ...PAINTING },
        null,
    ],
    "nothing of painting": [
        [without("clientPaint")],
        { "Engine to page": [2, 5], ...PAGE, "Way back": [1, 4] },
        2,
    ],
    "some stamps missing": [
        [[TWO[0], [20, 25, null, 30, null]]],
        {
            "Engine to page": [2, 5],
            "Page’s queue": [3, NaN],
            Painting: [7, NaN],
            "Way back": [1, NaN],
        },
        2,
    ],
    "stamps of one clock in the wrong order": [
        [[TWO[0], [20, 25, 31, 30, 34]]],
        {
            "Engine to page": [2, 5],
            "Page’s queue": [3, 6],
            Painting: [7, NaN],
            "Way back": [1, 4],
        },
        2,
    ],
    "no frame": [[[]], {}, null],
};

test("Each part's times are those of its stamps, whatever the clocks of the two sides say", () => {
    for (const [what, [given, parts, within]] of Object.entries(CASES)) {
        const found = latencyOf(columnsOf(...given));
        const named = found.parts.map(({ name, times }) => [name, [...times]]);
        assert.deepEqual(Object.fromEntries(named), parts, what);
        assert.equal(found.clocks.isShifted, within === null, what);
        if (within !== null) assert.equal(found.clocks.within, within, what);
    }
    assert.deepEqual([...latencyOf(columnsOf(TWO, 1e9, 9e9)).whole.times], [13, 14]);
    const { late, parts } = latencyOf(columnsOf([TWO[0], LATE, TWO[1]]));
    assert.deepEqual([[...late], parts[0].summary.count], [[1], 2]);
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
