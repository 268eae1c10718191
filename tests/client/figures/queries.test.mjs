// What lies at a place, what is seen as a table, and pictures as SVG.
import assert from "node:assert/strict";
import { test } from "node:test";

import { answerQuery } from "../../../client/page/worker/queries.mjs";
import { limitsOf } from "../../../client/page/worker/limits.mjs";
import { Random } from "./support/random.mjs";
import { Builder, look } from "./support/scenes.mjs";

const UNITS = { x: { limits: [0, 10] }, y: { limits: [0, 10] } };

const range = (count, valueAt) => Array.from({ length: count }, (_, i) => valueAt(i));

/** What is answered about axes of 100 by 100 pixels. */
function stageOf({ scene }, shown = {}) {
    const size = { width: 100, height: 100, ratio: 2 };
    const how = look({ sizes: scene.axes.map(({ id }) => [id, size]), ...shown });
    const shows = (series) => !how.hidden.has(series.id);
    return { scene, limits: () => limitsOf(scene, how), shows, ...how };
}
function ask(builder, query, shown) {
    const answers = [];
    const stage = stageOf(builder, shown);
    answerQuery(stage, { id: 5, axes: 2, ...query }, (answer) => answers.push(answer));
    assert.equal(answers[0].id, 5);
    return answers[0];
}
const probe = (builder, x, y, shown) =>
    ask(builder, { kind: "probe", x, y, reach: 15 }, shown).values;

test("Of a line the element that is nearest along x is found, of points the nearest", () => {
    const random = new Random(2);
    const sorted = random.values(80, -1, 11, 0).sort((a, b) => a - b);
    const columns = () => ({
        x: random.values(80, 0, 10),
        y: random.values(80, 0, 10),
    });
    const builder = new Builder(UNITS);
    const line = { x: sorted, y: random.values(80, 0, 10, 0.2) };
    const points = columns();
    builder.create("line", {}, line);
    builder.create("scatter", { axis: "y2" }, points);
    builder.set(2, { y2: { limits: [0, 10] } });
    for (let i = 0; i < 200; ++i) {
        const [x, y] = [random.value(-2, 12, 0) * 10, random.value(-2, 12, 0) * 10];
        const nearest = (series, { x: xs, y: ys }, isAlong) => {
            const far = (at) =>
                Math.hypot(xs[at] * 10 - x, isAlong ? ys[at] * 0 : 100 - ys[at] * 10 - y);
            const near = range(80, (at) => at).filter((at) => far(at) <= 15);
            const [index] = near.sort((one, other) => far(one) - far(other));
            if (index === undefined) return [];
            const values = { x: xs[index], y: ys[index] };
            return [{ series, index, values }];
        };
        const found = probe(builder, x, y).map(({ px, py, ...one }) => {
            const { x: at, y: up } = one.values;
            assert.ok(Math.abs(px - at * 10) + Math.abs(py - 100 + up * 10) < 1e-9);
            return one;
        });
        assert.deepEqual(found, [...nearest(3, line, true), ...nearest(4, points, false)]);
    }
    assert.deepEqual(probe(builder, 50, 50, { hidden: [3, 4] }), []);
    assert.deepEqual(ask(builder, { kind: "probe", axes: 99, x: 1, y: 1, reach: 5 }).values, []);
});

test("Of an image the cell is found that lies there", () => {
    const builder = new Builder(UNITS);
    const z = Uint8Array.of(1, 2, 3, 4, 5, 6);
    builder.create("image", { rows: 2, columns: 3, x: [2, 8], y: [0, 5] }, { z });
    const values = { x: 7, y: 3.75, z: 6 };
    assert.deepEqual(probe(builder, 75, 60), [{ series: 3, index: 5, px: 70, py: 62.5, values }]);
    const beside = [probe(builder, 85, 60), probe(builder, 75, 40), probe(builder, 75, null)];
    assert.deepEqual(beside.flat(), []);
});

test("A table has what is seen, and no more rows than are wanted", () => {
    const builder = new Builder(UNITS);
    builder.create("line", { name: 'a "b", c' }, { x: [-1, 1, 2, 11], y: [1, NaN, 50, 3] });
    builder.create("scatter", {}, { x: [3, 4, 5], y: [1, 99, 2], size: [7, 8, 9] });
    builder.create("image", { rows: 1, columns: 2, x: [6, 20] }, { z: [1, 2] });
    builder.create("reference", { at: 3 });
    const rows = [
        '"a ""b"", c",1,,,',
        '"a ""b"", c",2,50,,',
        "scatter 4,3,1,,7",
        "scatter 4,5,2,,9",
        "image 5,9.5,0.5,1,",
    ];
    const csv = (...axes) => ask(builder, { kind: "csv", axes }).text.split("\r\n");
    assert.deepEqual(csv(2), ["series,x,y,z,size", ...rows, ""]);
    const table = ask(builder, { kind: "table", axes: [2], rows: 3 });
    assert.deepEqual([table.total, table.step], [5, 5]);
    assert.deepEqual(table.header, ["series", "x", "y", "z", "size"]);
    const told = table.rows.map(([name, x]) => `${name} ${x}`);
    assert.deepEqual(told, ['a "b", c 1', "scatter 4 3", "image 5 9.5"]);
    assert.deepEqual(ask(builder, { kind: "table", axes: [9], rows: 3 }).rows, []);
    const parent = builder.create("axes", { title: "other" });
    builder.create("line", { parent }, { x: [1], y: [2] });
    const both = [...rows.map((row) => `axes 2,${row}`), "other,line 8,1,2,,", ""];
    assert.deepEqual(csv(2, parent), ["axes,series,x,y,z,size", ...both]);
    builder.create("line", {}, { x: range(4000, (i) => i / 400), y: range(4000, () => 1) });
    const long = ask(builder, { kind: "table", axes: [2], rows: 104 });
    assert.deepEqual([long.total, long.step, long.rows.length], [4005, 41, 3 + 98]);
});

test("Each question is answered, also when there is nothing, or it goes wrong", () => {
    const builder = new Builder(UNITS);
    assert.equal(ask(builder, { kind: "picture", axes: 9, ratio: 1 }).bitmap, null);
    builder.create("image", { rows: 2, columns: 2 }, { z: [1, 2, 3] });
    // Node.js has no canvas.
    const { kind, text } = ask(builder, { kind: "picture", ratio: 1 });
    assert.deepEqual([kind, text], ["unanswered", "picture: OffscreenCanvas is not defined"]);
});

test("SVG says what a canvas shows, and no text of an engine becomes an element", async () => {
    const builder = new Builder(UNITS);
    const how = { color: "#11223380", dash: "dashed", width: 2 };
    builder.create("line", how, { x: [1, 2], y: [1, 5.12345] });
    builder.create("bars", { barWidth: 1 }, { x: [5], y: [2] });
    builder.create("scatter", { size: 4 }, { x: [3], y: [3] });
    builder.create("text", { text: '<b>&"\u0001\ufffe', at: [1, 1] });
    // The ticks' limits, whatever the scene's are meanwhile.
    const query = {
        kind: "vectors",
        axes: 2,
        limits: { x: [0, 10], y: [0, 10], y2: null },
    };
    const stage = stageOf(builder, {
        views: [[2, { x: [0, 5], y: null, y2: null }]],
    });
    const { svg } = await new Promise((done) => answerQuery(stage, query, done));
    const [line, bar, disc, rim, halo, text] = svg.split("\n");
    assert.match(
        line,
        /^<path d="M10 90L20 48.77" fill="none" stroke="#112233" stroke-opacity="0.5" .*dasharray="8 6"\/>$/,
    );
    assert.match(bar, /^<path d="M45 80h10v20h-10Z" fill="#0068ad"\/>$/);
    assert.match(disc, /^<path d="M32 70a2 2 0 1 0 -4 0a2 2 0 1 0 4 0Z" .*fill-opacity="0.45"\/>$/);
    assert.match(rim, /stroke-width="1"/);
    assert.match(halo, /^<text x="10" y="90" .*fill="none" stroke="#ffffff" .*>&lt;b&gt;/);
    assert.match(text, /^<text x="10" y="90" .*fill="#222222">&lt;b&gt;&amp;&quot; {2}<\/text>$/);
});
