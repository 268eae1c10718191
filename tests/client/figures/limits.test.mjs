// What axes show by themselves, by the engine, and by who looks.
import assert from "node:assert/strict";
import { test } from "node:test";

import { limitsOf } from "../../../client/page/worker/limits.mjs";
import { Builder, look } from "./support/scenes.mjs";

const ALL = { x: [0, 1, 2, 10], y: [1, NaN, -4, 8] };

/** Limits of x, y and y2 as a text that is easy to read. */
function limits(builder, shown, axes = 2) {
    const { x, y, y2 } = limitsOf(builder.scene, look(shown)).get(axes);
    const all = [x, y, y2].filter(Boolean);
    return all.map((range) => range.map((value) => Number(value.toPrecision(6)))).join(" ");
}

const line = (x, y, members = {}) => ["line", members, { x, y }];
const SPREAD = { minus: [199, 2, NaN, 0], plus: [1, NaN, Infinity, 0] };
const VERTICAL = { orientation: "vertical" };
const AXES = {
    plain: {},
    log: { x: { scale: "log" }, y: { scale: "log" } },
    fixed: { x: { limits: [-1, 1] }, y: { scale: "log", limits: [-2, 100] } },
    newest: { x: { limits: { follow: 9.5 } } },
    part: { x: { limits: [0, 3] } },
    second: { y2: { limits: [0, 5] } },
};
const SERIES = {
    wave: ["line", {}, ALL],
    points: ["scatter", {}, ALL],
    area: ["area", { base: 2 }, { x: [0, 1], y: [3, 12] }],
    bars: ["bars", {}, { x: [4, 0, 2, 2], y: [1, 2, 3, 1] }],
    band: ["band", {}, { x: [0, 1], low: [-8, 0], high: [0, 6] }],
    errors: ["errorBars", {}, { x: [9, 0, 3, -1], y: [99, 4, 3, -9], ...SPREAD }],
    deep: ["errorBars", {}, { x: [1, 2], y: [5, -1], minus: [6, 0], plus: [5, 9] }],
    image: ["image", { rows: 2, columns: 2, x: [-1, 1], y: [3, 5] }, { z: [1, 2, 3, 4] }],
    level: ["reference", { at: 7 }],
    span: ["reference", { ...VERTICAL, span: [3, Infinity] }],
    far: ["reference", { ...VERTICAL, at: 90 }],
    text: ["text", { text: "t", at: [9, 1] }],
    corner: ["text", { text: "t", at: [50, 50], inAxes: true }],
    single: line([5], [100]),
    positive: line([-3, 0, 0.5, 2, 50], [1e-3, 4, 10, -5, 1000]),
    mixed: line([50, -3, 0.5, 1], [1000, 7, 10, -5]),
    early: line([3, -1, 0], [4, -50, 2]),
    late: line([9, 3, 0, 1, 2], [100, 4, 2, NaN, Infinity]),
    other: line([0, 1], [900, 1000], { axis: "y2" }),
    regular: ["line", { regular: [5, 0.5] }, { y: [0, 1, 2] }],
};

/** Axes, what is in them, and what they show: a line fills x, and has room above and below; other
 * series have it to their sides, too, but an image has none. */
const EXTENTS = `
    plain  |                        | 0,1 0,1
    plain  | points                 | -0.3,10.3 -5,9
    plain  | area                   | 0,1 2,13
    plain  | bars                   | -0.968,4.968 0,3.2
    plain  | band                   | 0,1 -9,7
    plain  | image                  | -1,1 3,5
    plain  | level span text corner | 2.7,9.18 0.5,7.5
    plain  | single                 | 4.75,5.25 95,105
    log    | positive mixed         | 0.5,50 7.94328,1258.93
    log    | errors                 | 2.90274,9.30157 2.51755,119.164
    log    | deep                   | 0.97942,2.04202 4.82968,10.3526
    fixed  | wave                   | -1,1 0.1,100
    newest | wave far               | 0.5,10 -5,9
    part   | early late             | 0,3 1.8,4.2
    part   | errors                 | 0,3 1.8,4.2
    second | wave other             | 0,10 -5,9 0,5
    plain  | regular                | 5,6 -0.2,2.2`;

test("Limits follow from what there is", () => {
    for (const row of EXTENTS.trim().split("\n")) {
        const [axes, series, expected] = row.split("|").map((cell) => cell.trim());
        const builder = new Builder(AXES[axes]);
        for (const name of series.split(" ").filter(Boolean)) builder.create(...SERIES[name]);
        assert.equal(limits(builder), expected, row);
    }
});

test("Somebody's view comes before the engine's, and what is hidden does not count", () => {
    const builder = new Builder({ x: { limits: [0, 100] } });
    const wave = builder.create(...SERIES.wave);
    const other = builder.create(...line([0, 1], [0, 50], { axis: "y2" }));
    const views = [[2, { x: [-1, 1.5], y: null, y2: [5, 6] }]];
    assert.equal(limits(builder, { views }), "-1,1.5 0.95,1.05 5,6");
    const following = [[2, { x: { follow: 4 }, y: null, y2: null }]];
    assert.match(limits(builder, { views: following }), /^6,10 /);
    const hidden = "0,100 0,1 -5,55";
    assert.equal(limits(builder, { hidden: [wave] }), hidden);
    builder.set(wave, { visible: false });
    assert.equal(limits(builder), hidden);
    builder.scene.apply({ cmd: "remove", id: other }, null);
    assert.equal(limits(builder), "0,100 0,1");
});

test("Axes that are linked have the same x", () => {
    const builder = new Builder({ linkX: 1 });
    const second = builder.create("axes", { linkX: 1 });
    const third = builder.create("axes", { linkX: 2 });
    builder.create(...SERIES.wave);
    builder.create(...line([-5, 2], [0, 20], { parent: second }));
    const all = () => [2, second, third].map((axes) => limits(builder, {}, axes));
    assert.deepEqual(all(), ["-5,10 -5,9", "-5,10 -2,22", "0,1 0,1"]);
    builder.set(second, { x: { limits: { follow: 4 } } });
    assert.match(limits(builder), /^6,10 /);
});

test("With equal units both axes show as much as one of them needs", () => {
    const units = { x: { limits: [0, 10] }, y: { limits: [0, 10] } };
    const builder = new Builder({ equalAspect: true, ...units });
    const inSize = (width, height) => limits(builder, { sizes: [[2, { width, height }]] });
    assert.equal(inSize(400, 200), "-5,15 0,10");
    assert.equal(inSize(200, 400), "0,10 -5,15");
    builder.set(2, { linkX: 1 });
    builder.create("axes", { linkX: 1 });
    assert.equal(inSize(400, 200), "0,10 2.5,7.5");
});
