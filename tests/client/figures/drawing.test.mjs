// What painters draw, pixel by pixel where they make pixels, against the data.
import assert from "node:assert/strict";
import { test } from "node:test";

import { MISSING, channelsOf, cycleColor } from "../../../client/page/colors.mjs";
import { colorTable } from "../../../client/page/worker/color_maps.mjs";
import { isGpu } from "../../../client/page/worker/gpu_points.mjs";
import { KeptPainter } from "../../../client/page/worker/kept.mjs";
import { ColoredPointPicture, PointPicture } from "../../../client/page/worker/stamps.mjs";
import { Random } from "./support/random.mjs";
import { limitsOf } from "../../../client/page/worker/limits.mjs";
import { Builder, FakeCanvas, THEME, look, paint, spell } from "./support/scenes.mjs";

/** Axes of 100 by 100 pixels, in which a unit is ten of them. */
const UNITS = { x: { limits: [0, 10] }, y: { limits: [0, 10] } };
const range = (count, valueAt = (i) => i) => Array.from({ length: count }, (_, i) => valueAt(i));
const pixelOf = (color) => new Uint32Array(Uint8Array.from(channelsOf(color)).buffer)[0];

/** What one series of this kind draws. */
function drawOne(type, members, columns, { axes = UNITS, ...how } = {}) {
    const builder = new Builder(axes);
    builder.create(type, members, columns);
    return paint(builder, how);
}

const flat = (count, y) => ({ x: range(count, (i) => i / 100), y: range(count, () => y) });
const LOG = { x: { scale: "log", limits: [1, 100] }, y: UNITS.y };
const ERRORS = { x: [2], y: [5], minus: [NaN], plus: [1] };
const BACK = { x: [1, 1.01, 1.02, 3, 3.01], y: [1, 1, 1, 1, 1] };

test("Series are stroked as their data say", () => {
    const spelled = (...all) => {
        const { drawn, errors } = drawOne(...all);
        assert.deepEqual(errors, []);
        return drawn.map(({ path }) => spell(path)).filter(Boolean);
    };
    const gaps = { x: range(7), y: [1, 1, NaN, 2, Infinity, 3, 3] };
    assert.deepEqual(spelled("line", {}, gaps), ["M0,90 L10,90 M30,80 L30,80 M50,70 L60,70"]);
    // Nothing that lies outside but what leads to it.
    const beyond = { x: range(20, (i) => i - 5.5), y: range(20, () => 1) };
    const inside = `M-5,90 ${range(11, (i) => `L${5 + 10 * i},90`).join(" ")}`;
    assert.deepEqual(spelled("line", {}, beyond), [inside]);
    const bar = "M20,40 L20,50 M18,40 L22,40 M18,50 L22,50";
    assert.deepEqual(spelled("errorBars", { cap: 4 }, ERRORS), [bar]);
    assert.deepEqual(spelled("reference", { at: NaN }, null), []);
    const even = spelled("line", {}, { x: [1, 10, -1, 100], y: [1, 2, 3, 4] }, { axes: LOG });
    assert.deepEqual(even, ["M0,90 L50,80 M100,60 L100,60"]);
    // What comes back to the same pixel costs nothing, but the end is where it is.
    assert.deepEqual(spelled("outline", {}, BACK), ["M10,90 L30,90 L30.1,90"]);
    // A million pixels outside: zoomed in, a canvas would draw coarsely.
    const near = drawOne("line", {}, { x: [-1e9, 1e9], y: [-1e9, 1e9] });
    const [[, left], [, right]] = near.drawn[0].path;
    assert.ok(left > -2e4 && right < 2e4);
});

const rectOf = ({ rect }) => rect.map((n) => Number(n.toFixed(6)));

test("Bars are as wide as they are near each other, also where that leaves a logarithmic axis", () => {
    const rects = (x, how) => {
        const values = { x, y: range(x.length, () => 5) };
        return drawOne("bars", {}, values, how).drawn.map(({ rect: [left, , width] }) =>
            [left, width].map((pixel) => Number(pixel.toFixed(3))).join("+"),
        );
    };
    assert.deepEqual(rects([3]), ["26+8"]);
    assert.deepEqual(rects([3, 3]), ["26+8", "26+8"]);
    assert.deepEqual(rects([7, 1, 5]), ["62+16", "2+16", "42+16"]);
    assert.deepEqual(rects([-1], { axes: LOG }), []);
    // The first one would begin below 0.
    const even = rects([1, 10, 100], { axes: LOG });
    assert.deepEqual(even, ["-10000+10033.138", "40.309+16.368", "99.204+1.564"]);
});

test("A span ends at the axes, and a text has a rim", () => {
    const span = drawOne("reference", { span: [-Infinity, 4] }, null);
    assert.deepEqual(rectOf(span.drawn[0]), [0, 60, 100, 41]);
    const members = { text: "t", at: [1, 1], inAxes: true, anchor: "right" };
    const [rim, text] = drawOne("text", members, null, { ratio: 2 }).drawn;
    const at = { text: "t", x: 100, y: 0 };
    assert.deepEqual(rim, { kind: "strokeText", ...at, color: THEME.ground, width: 8 });
    const how = { color: THEME.text, anchor: "right", font: "24px system-ui, sans-serif" };
    assert.deepEqual(text, { kind: "fillText", ...at, ...how });
});

test("What is dense, or winds, is filled by columns, with its true extremes", () => {
    const spike = flat(1000, 4);
    spike.y[505] = 9;
    spike.y[506] = NaN;
    const expected = range(100, (i) => {
        const top = i === 50 ? 10 : 60;
        return [i, top - 0.75, 1, 60 - top + 1.5];
    });
    assert.deepEqual(drawOne("line", {}, spike).drawn.map(rectOf), expected);
    const winds = { x: range(90, (i) => i / 9), y: range(90, (i) => 10 * (i % 2)) };
    assert.ok(drawOne("line", {}, winds).drawn.every(({ kind }) => kind === "fillRect"));
    const { x, y: low } = flat(1000, 4);
    const { y: high } = flat(1000, 6);
    low[505] = 1;
    high[303] = NaN;
    const band = drawOne("band", {}, { x, low, high }).drawn.map(rectOf);
    assert.equal([band[50], band[30]].join(" "), "50,40,1,50 30,40,1,20");
    assert.equal([band[150], band[250]].join(" "), "50,59.5,1,31 50,39.5,1,1", "its edges");
    const area = drawOne("area", { width: 0 }, flat(1000, 4));
    assert.deepEqual(rectOf(area.drawn[20]), [20, 60, 1, 40]);
});

test("Stamped points are where the points are; appended ones are added, forgotten ones are gone", () => {
    const random = new Random(5);
    const many = { x: random.values(600, 0, 10), y: random.values(600, 0, 10) };
    const builder = new Builder(UNITS);
    const id = builder.create("scatter", { color: "#ff0000", size: 5, keep: 900 }, many);
    const [{ pixels, isFirst }] = paint(builder).pictures;
    assert.ok(isFirst);
    const places = many.x.map((x, i) => [x, 10 - many.y[i]].map((at) => Math.floor(at * 10)));
    pixels.forEach((pixel, at) => {
        const [column, row] = [at % 100, Math.floor(at / 100)];
        const isNear = places.some(([x, y]) => Math.hypot(x - column, y - row) < 3);
        assert.equal(pixel !== 0, isNear, `${column} ${row}`);
        assert.ok(!pixel || (pixel & 0xffffff) === 0x0000ff);
    });
    const shown = (first, count, x) => {
        builder.data(id, first, { x: range(count, () => x), y: range(count, () => 5) });
        return paint(builder).pictures[0].pixels.filter(Boolean).length;
    };
    // In two halves, as one picture that grows.
    builder.data(id, 600, { x: many.x.slice(300), y: many.y.slice(300) });
    assert.deepEqual(paint(builder).pictures[0].pixels, pixels);
    assert.equal(shown(900, 900, 5), 25, "those before are forgotten");
    shown(0, 501, 2);
    assert.equal(shown(0, 501, NaN), 0, "all is set");
});

test("Stamps at an edge are cut off, and none is lost or thrown", () => {
    const random = new Random(9);
    const radii = Float64Array.from(random.values(400, -1, 90));
    const places = () => Float64Array.from(random.values(400, -200, 260));
    const picture = new PointPicture(61, 47);
    picture.stamp(places(), places(), radii);
    const colored = new ColoredPointPicture(61, 47);
    colored.stamp(places(), places(), radii, new Uint32Array(400).fill(0xff112233));
    const pixels = new Uint32Array(61 * 47);
    colored.write(pixels);
    assert.ok(pixels.every((pixel) => pixel === 0 || (pixel & 0xffffff) === 0x112233));
    picture.clear();
    picture.stamp(Float64Array.of(30), Float64Array.of(20), 40);
    const corner = [Float64Array.of(60), Float64Array.of(46), 1];
    picture.stamp(...corner);
    picture.write(pixels, "#000000");
    const drawn = () => [...pixels.keys()].filter((at) => pixels[at] !== 0);
    const expected = [45 * 61 + 59, 45 * 61 + 60, 46 * 61 + 59, 46 * 61 + 60];
    assert.deepEqual(drawn(), expected);
    const single = new ColoredPointPicture(61, 47);
    single.stamp(...corner, Uint32Array.of(0xff112233));
    single.write(pixels.fill(0));
    assert.deepEqual(drawn(), expected);
});

test("Large points lie below those that are stamped", () => {
    const at = { x: range(600, () => 5), y: range(600, () => 5) };
    const size = range(600, (i) => (i === 3 ? 150 : 5));
    for (const more of [{ size }, { size, value: range(600) }]) {
        const { drawn, pictures } = drawOne("scatter", {}, { ...at, ...more }, { ratio: 4 });
        const radii = drawn.filter(({ kind }) => kind === "fill").map(({ path }) => path[0][3]);
        assert.deepEqual([radii, pictures.map(({ isFirst }) => isFirst)], [[300], [false]]);
    }
});

test("What renders in software is no GPU, nor what hides its name", () => {
    const software = [
        "SwiftShader Device",
        "llvmpipe (LLVM 15.0.6)",
        "Microsoft Basic Render Driver",
    ];
    for (const name of [...software, "Apple Software Renderer", "WebKit WebGL"]) {
        assert.ok(!isGpu(name), name);
    }
    assert.ok(isGpu("ANGLE (NVIDIA, NVIDIA GeForce RTX 3060 Direct3D11)") && isGpu("Apple M1"));
});

const pictureOf = (members, z, axes) =>
    drawOne("image", members, { z }, { axes }).pictures[0].pixels;

test("Each pixel of an image has the colour of its value", () => {
    const random = new Random(11);
    const table = colorTable("turbo");
    for (const scale of ["linear", "log"]) {
        const [rows, columns] = [7, 13];
        const z = random.values(rows * columns, -1, 3, 0.2);
        const axes = { x: { limits: [0.5, 12] }, y: { limits: [0.1, 9], scale } };
        const image = { rows, columns, x: [1, 11], y: [1, 8], limits: [0, 2], colorMap: "turbo" };
        pictureOf(image, z, axes).forEach((pixel, at) => {
            const share = 1 - (Math.floor(at / 100) + 0.5) / 100;
            const y = scale === "log" ? 0.1 * 90 ** share : 0.1 + 8.9 * share;
            const x = 0.5 + (11.5 * ((at % 100) + 0.5)) / 100;
            const value = z[Math.floor(y - 1) * columns + Math.floor((x - 1) * 1.3)];
            const level = Math.min(255, Math.max(0, Math.floor(value * 128)));
            let color = Number.isFinite(value) ? table[level] : pixelOf(MISSING);
            if (x < 1 || x >= 11 || y < 1 || y >= 8) color = 0;
            assert.equal(pixel, color, `${scale} ${at}`);
        });
    }
});

test("A pixel in which several values lie has the colour of their mean, or is a gap if most are", () => {
    // Pixels of 3 by 2 cells. The columns take turns, so that every third is of one kind.
    const [rows, columns] = [200, 300];
    const missing = (row, column) =>
        row < 100 ? column < 150 && column % 3 > 0 : (column % 3) + (row % 2) === 0;
    const z = range(rows * columns, (i) => {
        const [row, column] = [Math.floor(i / columns), i % columns];
        return missing(row, column) ? NaN : row % 2 === 0 ? 30 : 90;
    });
    const image = { rows, columns, x: [0, 10], y: [0, 10], limits: [0, 256], colorMap: "gray" };
    const pixels = pictureOf(image, z);
    // From above: of five values two are 30.
    const levels = [0, 4999, 5050, 9999].map((at) => colorTable("gray").indexOf(pixels[at]));
    assert.deepEqual(levels, [66, 66, 60, 60]);
    assert.equal(pixels[99 * 100 + 49], pixelOf(MISSING));
});

test("Bytes are coloured from 0 to 255, other values between their extremes", () => {
    const axes = { x: { limits: [0, 4] }, y: { limits: [0, 1] } };
    const colors = (z) => {
        const pixels = pictureOf({ rows: 1, columns: 4, colorMap: "gray" }, z, axes);
        return [12, 37, 62, 87].map((column) => colorTable("gray").indexOf(pixels[column]));
    };
    assert.deepEqual(colors(Uint8Array.of(10, 100, 200, 250)), [10, 100, 200, 250]);
    assert.deepEqual(colors([5, 5.5, 6, NaN]), [0, 128, 255, -1]);
    assert.deepEqual(colors([3, 3, 3, 3]), [128, 128, 128, 128]);
});

test("A series that cannot be drawn is told, and the others are drawn, images below", () => {
    const builder = new Builder(UNITS);
    builder.create("line", {}, { x: [0, 1], y: [0, 1] });
    builder.create("image", { rows: 1, columns: 1 }, { z: [1] });
    builder.create("image", { name: "i", rows: 2, columns: 2 }, { z: [1, 2, 3] });
    const { drawn, pictures, errors } = paint(builder);
    assert.deepEqual(errors, ["image i: 3 values for 2 rows of 2"]);
    assert.deepEqual([drawn.length, pictures.map(({ isFirst }) => isFirst)], [1, [true]]);
});

test("Series that did not change are drawn once, and copied below the others", (t) => {
    globalThis.OffscreenCanvas = FakeCanvas;
    t.after(() => delete globalThis.OffscreenCanvas);
    const builder = new Builder(UNITS);
    const line = (at) => ({ x: [0, 1], y: [at, at] });
    const ids = [1, 2, 3].map((at) => builder.create("line", {}, line(at)));
    const canvas = new FakeCanvas();
    const painter = new KeptPainter(canvas);
    /** The heights of what is drawn, copies in parentheses, when these are changed before. */
    const drawn = (changed, at, how = look()) => {
        for (const i of changed) builder.data(ids[i], 0, line(at));
        const limits = limitsOf(builder.scene, how).get(2);
        const size = { width: 100, height: 100, ratio: 1 };
        assert.deepEqual(painter.paint(builder.find(2), limits, size, how), []);
        const heights = (all) =>
            all.map(({ path, drawn: copied }) => (copied ? `(${heights(copied)})` : path[0][2]));
        return heights(canvas.drawn).join();
    };
    assert.equal(drawn([], 0), "90,80,70");
    assert.equal(drawn([2], 4), "(90,80),60");
    builder.find(ids[0]).columns = {};
    const steps = [2, 0, 2, 1, 2].map((i, step) => drawn([i], 5 + step));
    // The first one is not drawn again before it is changed.
    const expected = "(90,80),50 40,80,50 (40,80),30 (40),20,30 (40),20,10";
    assert.equal(steps.join(" "), expected);
    assert.equal(drawn([2], 9, { ...look(), hidden: new Set([ids[0]]) }), "20,10");
    builder.set(2, { y: { limits: [1, 100] } });
    drawn([0, 1, 2], 10);
    builder.set(2, { y: { limits: [1, 100], scale: "log" } });
    assert.equal(drawn([2], 10), "50,50,50");
});

test("Colours follow the cycle, unless a series has its own", () => {
    const builder = new Builder(UNITS);
    const line = { x: [0, 1], y: [0, 1] };
    for (const color of [null, "#12345678", null]) builder.create("line", { color }, line);
    builder.create("reference", { at: 1 });
    const { drawn } = paint(builder);
    const colors = drawn.map(({ color }) => color);
    assert.deepEqual(colors, [cycleColor(0, false), "#12345678", cycleColor(1, false), THEME.text]);
});
