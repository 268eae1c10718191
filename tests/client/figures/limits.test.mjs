// What axes show by themselves, by the engine, and by who looks.
import assert from "node:assert/strict";
import { test } from "node:test";

import { limitsOf } from "../../../client/page/worker/limits.mjs";
import { Builder, look } from "./support/scenes.mjs";

const ALL = { x: [0, 1, 2, 10], y: [1, NaN, -4, 8] };

/** Limits of the axes 2, as numbers that are easy to read. */
function limits(builder, shown, axes = 2) {
    const found = limitsOf(builder.scene, look(shown)).get(axes);
    const short = (range) => range && range.map((value) => Number(value.toPrecision(6)));
    return { x: short(found.x), y: short(found.y), y2: short(found.y2) };
}

const EXTENTS = [
    ["nothing", {}, [], { x: [0, 1], y: [0, 1] }],
    [
        "a line fills x, and has room above and below",
        {},
        [["line", {}, ALL]],
        { x: [0, 10], y: [-5, 9] },
    ],
    ["points have room on all sides", {}, [["scatter", {}, ALL]], { x: [-0.3, 10.3], y: [-5, 9] }],
    [
        "an area stands on its base",
        {},
        [["area", { base: 2 }, { x: [0, 1], y: [3, 12] }]],
        { x: [0, 1], y: [2, 13] },
    ],
    [
        "bars are as wide as their distance lets them",
        {},
        [["bars", {}, { x: [4, 0, 2], y: [1, 2, 3] }]],
        { x: [-0.968, 4.968], y: [0, 3.2] },
    ],
    [
        "a band, and error bars of which a length is missing",
        {},
        [
            ["band", {}, { x: [0, 1], low: [-8, 0], high: [0, 6] }],
            ["errorBars", {}, { x: [0.5], y: [10], minus: [1], plus: [NaN] }],
        ],
        { x: [0, 1], y: [-9, 11] },
    ],
    [
        "an image has its edges and no room",
        {},
        [["image", { rows: 2, columns: 2, x: [-1, 1], y: [3, 5] }, { z: [1, 2, 3, 4] }]],
        { x: [-1, 1], y: [3, 5] },
    ],
    [
        "references and texts are shown, those in the corner of the axes are there anyway",
        {},
        [
            ["reference", { at: 7 }, null],
            ["reference", { orientation: "vertical", span: [3, Infinity] }, null],
            ["text", { text: "t", at: [9, 1] }, null],
            ["text", { text: "t", at: [50, 50], inAxes: true }, null],
        ],
        { x: [2.7, 9.18], y: [0.5, 7.5] },
    ],
    [
        "one value lies in the middle",
        {},
        [["line", {}, { x: [5], y: [100] }]],
        { x: [4.75, 5.25], y: [95, 105] },
    ],
    [
        "a logarithmic axis knows nothing below 0",
        { x: { scale: "log" }, y: { scale: "log" } },
        [["line", {}, { x: [-3, 0, 0.5, 50], y: [1e-3, 4, 10, 1000] }]],
        { x: [0.5, 50], y: [7.94328, 1258.93] },
    ],
    [
        "fixed limits hold, and of a logarithmic axis what can be shown",
        { x: { limits: [-1, 1] }, y: { scale: "log", limits: [-2, 100] } },
        [["line", {}, ALL]],
        { x: [-1, 1], y: [0.1, 100] },
    ],
    [
        "the newest stretch, and y of what lies in it",
        { x: { limits: { follow: 9.5 } } },
        [
            ["line", {}, ALL],
            ["reference", { orientation: "vertical", at: 90 }, null],
        ],
        { x: [0.5, 10], y: [-5, 9] },
    ],
    [
        "unsorted places are gone through for y",
        { x: { limits: [0, 3] } },
        [["line", {}, { x: [9, 1, 2], y: [100, 2, 4] }]],
        { x: [0, 3], y: [1.8, 4.2] },
    ],
    [
        "a second y axis",
        { y2: { limits: [0, 5] } },
        [
            ["line", {}, ALL],
            ["line", { axis: "y2" }, { x: [0, 1], y: [900, 1000] }],
        ],
        { x: [0, 10], y: [-5, 9], y2: [0, 5] },
    ],
    [
        "a rule in place of x",
        {},
        [["line", { regular: [5, 0.5] }, { y: [0, 1, 2] }]],
        { x: [5, 6], y: [-0.2, 2.2] },
    ],
];

test("Limits follow from what there is", () => {
    for (const [what, axes, series, expected] of EXTENTS) {
        const builder = new Builder(axes);
        for (const one of series) builder.create(...one);
        assert.deepEqual(limits(builder), { y2: null, ...expected }, what);
    }
});

test("Somebody's view comes before the engine's, and what is hidden does not count", () => {
    const builder = new Builder({ x: { limits: [0, 100] } });
    const line = builder.create("line", {}, ALL);
    const other = builder.create("line", { axis: "y2" }, { x: [0, 1], y: [0, 50] });
    const view = { x: [-1, 1.5], y: null, y2: [5, 6] };
    assert.deepEqual(limits(builder, { views: [[2, view]] }), {
        x: [-1, 1.5],
        y: [0.95, 1.05],
        y2: [5, 6],
    });
    const following = { views: [[2, { x: { follow: 4 }, y: null, y2: null }]] };
    assert.deepEqual(limits(builder, following).x, [6, 10]);
    const hidden = { x: [0, 100], y: [0, 1], y2: [-5, 55] };
    assert.deepEqual(limits(builder, { hidden: [line] }), hidden);
    builder.set(line, { visible: false });
    assert.deepEqual(limits(builder), hidden);
    builder.scene.apply({ cmd: "remove", id: other }, null);
    assert.deepEqual(limits(builder).y2, null);
});

test("Axes that are linked have the same x", () => {
    const builder = new Builder({ linkX: 1 });
    const second = builder.create("axes", { linkX: 1 });
    const third = builder.create("axes", { linkX: 2 });
    builder.create("line", {}, ALL);
    const command = { cmd: "create", id: 90, type: "line", parent: second };
    builder.scene.apply(command, null);
    builder.data(90, 0, { x: [-5, 2], y: [0, 20] });
    assert.deepEqual(limits(builder), { x: [-5, 10], y: [-5, 9], y2: null });
    assert.deepEqual(limits(builder, {}, second), { x: [-5, 10], y: [-2, 22], y2: null });
    assert.deepEqual(limits(builder, {}, third).x, [0, 1]);
    builder.set(second, { x: { limits: { follow: 4 } } });
    assert.deepEqual(limits(builder).x, [6, 10]);
});

test("With equal units both axes show as much as one of them needs", () => {
    const builder = new Builder({
        equalAspect: true,
        x: { limits: [0, 10] },
        y: { limits: [0, 10] },
    });
    const wide = [[2, { width: 400, height: 200 }]];
    assert.deepEqual(limits(builder, { sizes: wide }), { x: [-5, 15], y: [0, 10], y2: null });
    const high = [[2, { width: 200, height: 400 }]];
    assert.deepEqual(limits(builder, { sizes: high }), { x: [0, 10], y: [-5, 15], y2: null });
    builder.set(2, { linkX: 1 });
    builder.create("axes", { linkX: 1 });
    assert.deepEqual(limits(builder, { sizes: wide }), { x: [0, 10], y: [2.5, 7.5], y2: null });
});
