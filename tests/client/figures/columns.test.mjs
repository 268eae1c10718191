// Columns and their reduction to columns of pixels, against what can be seen by going through
// everything.
import assert from "node:assert/strict";
import { test } from "node:test";

import { Column, RegularColumn, elementsOf } from "../../../client/page/worker/columns.mjs";
import { Cover, columnBounds } from "../../../client/page/worker/decimate.mjs";
import { Scale } from "../../../client/page/worker/scale.mjs";
import { Random } from "./support/random.mjs";

const TYPES = [Uint8Array, Float32Array, Float64Array];

/** Goes through everything. */
function extremesOf(values, least = -Infinity) {
    const counted = values.filter((value) => Number.isFinite(value) && value > least);
    return [Math.min(...counted), Math.max(...counted)];
}

/** All elements that a column has. */
const elementsIn = (column) =>
    Array.from({ length: column.end - column.begin }, (_, i) => column.at(column.begin + i));

test("A column keeps the newest elements under their indices, in the wider type, and their extremes", () => {
    for (let seed = 1; seed <= 40; ++seed) {
        const random = new Random(seed);
        const keep = [1, 100, 700, 3000][random.below(4)];
        let widest = random.below(3);
        const draw = (Type) => Type.from(random.values(random.below(900), -5, 250));
        const all = [...draw(TYPES[widest])];
        const column = new Column(TYPES[widest].from(all));
        column.forget(keep);
        let snapshot = null;
        for (let turn = 0; turn < 30; ++turn) {
            const type = random.below(3);
            const added = draw(TYPES[type]);
            const before = random.below(4) === 0 ? [column.snapshot(), elementsIn(column)] : null;
            column.append(added, keep);
            widest = Math.max(widest, type);
            all.push(...added);
            const end = all.length;
            const kept = all.slice(Math.max(0, end - keep));
            assert.deepEqual([column.end, elementsIn(column)], [end, kept]);
            assert.ok(column.elements instanceof TYPES[widest]);
            assert.ok(column.elements.length <= 1.5 * (keep + added.length + 256) + 1024);
            for (let probe = 0; probe < 4; ++probe) {
                const from = column.begin + random.below(kept.length + 1);
                const to = from + random.below(end - from + 1);
                const least = [-Infinity, 0, 100][random.below(3)];
                const expected = extremesOf(all.slice(from, to), least);
                assert.deepEqual(column.extremes(from, to, least), expected);
            }
            // What somebody else looks at stays, whatever is appended and forgotten.
            snapshot ??= before;
            if (snapshot) assert.deepEqual(elementsIn(snapshot[0]), snapshot[1]);
        }
    }
});

test("Places are sorted while none is less than one before it, and are found then", () => {
    const random = new Random(7);
    const sorted = random.values(2000, 0, 50, 0).sort((a, b) => a - b);
    const rule = new RegularColumn([-3, 0.1], { begin: 40, end: 1500 });
    const column = new Column(Float64Array.from(sorted.slice(0, 900)));
    assert.ok(column.isSorted);
    column.append(Float64Array.from(sorted.slice(900)), 1300);
    assert.ok(column.isSorted && rule.isSorted);
    for (const places of [column, rule]) {
        const values = elementsIn(places);
        for (const value of [-9, 0, sorted[1500], rule.at(700), rule.at(41), 49.99, 1e3]) {
            const below = values.filter((one) => one < value).length;
            assert.equal(places.lowerBound(value), places.begin + below);
            assert.equal(places.lowerBound(value, places.end), places.end);
        }
        for (const least of [-Infinity, 0, 1e9]) {
            const found = places.extremes(places.begin + 3, places.end - 2, least);
            assert.deepEqual(found, extremesOf(values.slice(3, -2), least));
        }
    }
    column.append(Float64Array.of(49), 1300);
    const unsorted = [
        column,
        new Column(Float64Array.of(NaN, 1)),
        new Column(Float64Array.of(1, NaN)),
    ];
    assert.ok(unsorted.every(({ isSorted }) => !isSorted));
    const backwards = new RegularColumn([5, -1], { begin: 0, end: 9 });
    assert.deepEqual([backwards.isSorted, backwards.extremes(0, 9, 0)], [false, [1, 5]]);
});

test("Elements of a block are not copied where they are aligned", () => {
    const block = new Uint8Array(32);
    new DataView(block.buffer).setFloat32(12, 1.5, true);
    assert.equal(elementsOf("f32", block, 12, 1)[0], 1.5);
    assert.equal(elementsOf("f32", block, 12, 1).buffer, block.buffer);
    assert.equal(elementsOf("f32", block.subarray(3), 9, 1)[0], 1.5);
});

/** What a line through these places covers of eight columns of pixels, from 0 above; "-" is nothing. */
const PLACES = [-0.5, 0.5, 1.5, 1.6, 1.8, 2.5, 3.5, 4.5, 5.5, 7.5, 8.5];
const HEIGHTS = [8, 6, 2, 9, 8, NaN, 4, NaN, 7, 3, 1];
const COVERS = {
    linear: "4-7 2-9 - 4-4 - 6-7 4-6 2-4",
    log: "4-7 2-9 - 4-4 - 6-7 4-6 2-4",
    after: "6-8 2-9 - 4-4 - 7-7 7-7 3-7",
    before: "2-6 2-9 - 4-4 - 3-7 3-3 1-3",
    middle: "6-8 2-9 - 4-4 - 7-7 3-7 3-3",
};

test("A column of pixels has the true extremes of a line and of its steps, but nothing of a gap", () => {
    for (const [kind, expected] of Object.entries(COVERS)) {
        const isLog = kind === "log";
        // A logarithmic axis has nothing below 0.
        const valueOf = (height) => (isLog ? (height ? 10 ** (10 - height) : -1) : 10 - height);
        const places = new Column(Float64Array.from(PLACES));
        const values = new Column(Float64Array.from(HEIGHTS, valueOf));
        const x = new Scale("linear", [0, 8], 0, 8);
        const y = isLog ? new Scale("log", [1, 1e10], 10, 0) : new Scale("linear", [0, 10], 10, 0);
        const bounds = columnBounds(places, x, 8);
        const cover = new Cover(8);
        cover.addElements(values, bounds, y);
        const steps = ["linear", "log"].includes(kind) ? null : kind;
        cover.addConnections(places, values, bounds, { x, y }, steps);
        const found = [...cover.tops].map((top, at) => {
            return Number.isNaN(top)
                ? "-"
                : [top, cover.bottoms[at]].map((n) => +n.toFixed(6)).join("-");
        });
        assert.equal(found.join(" "), expected, kind);
    }
});

test("A thick line is as thick to its sides as up and down", () => {
    const cover = new Cover(7);
    cover.tops[3] = cover.bottoms[3] = 10;
    cover.thicken(3);
    assert.deepEqual([...cover.tops], [NaN, NaN, 8.5, 8.5, 8.5, NaN, NaN]);
    assert.deepEqual([...cover.bottoms], [NaN, NaN, 11.5, 11.5, 11.5, NaN, NaN]);
});
