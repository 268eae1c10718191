// What the page's main thread works out without a browser.
import assert from "node:assert/strict";
import { test } from "node:test";

import { fileName } from "../../../client/page/file_name.mjs";
import { meaningOf } from "../../../client/page/keys.mjs";
import { gridOf, placeAxes } from "../../../client/page/layout.mjs";
import * as navigation from "../../../client/page/navigation.mjs";
import { NextFrame } from "../../../client/page/next_frame.mjs";
import { Watch } from "../../../client/page/stale.mjs";
import { FigureDrawing } from "../../../client/page/svg.mjs";
import { captionOf } from "../../../client/page/table.mjs";
import { pathOf, timeText } from "../../../client/page/time_line.mjs";
import { WorkerLink } from "../../../client/page/worker_link.mjs";

const { moved, zoomed, isSame, stretch, withEqualAspect, isShowable } = navigation;

test("Zooming keeps the place under the pointer, moving keeps the size, in decades as well", () => {
    assert.deepEqual(zoomed([0, 10], "linear", 0.25, 0.5), [1.25, 6.25]);
    assert.deepEqual(zoomed([1, 1e4], "log", 0.5, 0.5).map(Math.round), [10, 1000]);
    assert.deepEqual(moved([0, 10], "time", 0.5), [5, 15]);
    assert.deepEqual(moved([1, 100], "log", 0.5).map(Math.round), [10, 1000]);
});

test("Nobody gets to limits between which nothing can be told apart", () => {
    assert.ok(isShowable([1e15, 1e15 + 1000], "linear"));
    for (const [low, high, scale] of [
        [1e15, 1e15 + 1, "linear"],
        [0, Infinity, "linear"],
        [NaN, 1, "linear"],
        [-1, 1, "log"],
        [5, 5, "linear"],
    ]) {
        assert.ok(!isShowable([low, high], scale), `${low} ${high}`);
    }
    assert.deepEqual(zoomed([1, 1 + 1e-12], "linear", 0.5, 0.01), [1, 1 + 1e-12]);
});

test("The old picture lies where its values are until the new one has come", () => {
    assert.deepEqual(stretch([0, 10], [0, 20], "linear"), { from: 0, size: 0.5 });
    assert.deepEqual(stretch([10, 100], [1, 100], "log"), { from: 0.5, size: 0.5 });
    assert.ok(isSame([0, 1 + 1e-9], [0, 1], "linear") && !isSame([0, 1.001], [0, 1], "linear"));
    assert.ok(isSame(null, null, "linear") && !isSame(null, [0, 1], "linear"));
});

test("A selection grows until a unit of x is as long as one of y", () => {
    assert.deepEqual(withEqualAspect([0, 4], [0, 1], 2), { x: [0, 4], y: [-0.5, 1.5] });
    assert.deepEqual(withEqualAspect([0, 1], [0, 4], 2), { x: [-3.5, 4.5], y: [0, 4] });
});

test("Figures share the window so that they are neither flat nor narrow", () => {
    const rooms = "1400x800 1400x800 1400x800 1400x800 390x800 2000x500 700x1200".split(" ");
    const columns = [1, 2, 4, 5, 6, 3, 2].map((count, i) => {
        const [width, height] = rooms[i].split("x").map(Number);
        return gridOf(count, { width, height }).columns;
    });
    assert.deepEqual(columns, [1, 2, 2, 3, 1, 3, 1]);
});

test("Axes go where the engine wants them, or behind one another where that is too narrow", () => {
    const free = { row: null, column: null };
    const wanted = [{ row: 0, column: 1 }, free, free, { row: 1, column: 1 }];
    const cellsIn = (width, columns) => {
        const { cells } = placeAxes(wanted, { width, height: 600 }, columns);
        return cells.map(({ row, column }) => `${row}${column}`).join(" ");
    };
    assert.equal(cellsIn(900, 2), "01 00 10 11");
    assert.equal(cellsIn(900, 3), "01 00 02 11");
    assert.equal(cellsIn(300, 3), "00 10 20 30");
    assert.equal(placeAxes([free, free], { width: 900, height: 300 }, 0).columns, 2);
});

/** What keys mean; nothing: they are the browser's. */
const KEYS = `
    ArrowRight: crosshair 0.02 0 | ArrowUp: crosshair 0 0.02    | ArrowDown: crosshair 0 -0.02
    Shift+ArrowLeft: move -0.1 0 | Shift+ArrowDown: move 0 -0.1 | Escape: leave
    x: zoom true true false      | Shift+Y: zoom false false true | q: engine q
    Enter: pick | Shift+Enter: mark | r: record | o: open | Shift+?: help | Shift+ : pause
    =: action zoomIn | Home: action home | Ctrl+c: | Alt+x: | Meta+s: | Control: | Tab: | F5:`;

test("Keys are the page's, the engine's or the browser's", () => {
    for (const row of KEYS.trim().split(/[|\n]/)) {
        const [name, meaning] = row.trim().split(/: ?/);
        const [key, held] = name.split("+").reverse();
        const meant = meaningOf({ key, [`${held?.toLowerCase()}Key`]: true });
        assert.equal(Object.values(meant ?? {}).join(" "), meaning, name);
    }
});

test("A figure is stale when its engine drew regularly and stops, or the connection is gone", () => {
    const watch = new Watch();
    assert.equal(watch.staleSince(1e6, false, 0), null, "nothing has come yet");
    watch.heard(1000);
    assert.equal(watch.staleSince(9000, true, 1000), null, "one picture that stays");
    assert.equal(watch.staleSince(9000, false, 5000), 5000, "nobody knows");
    [1500, 2000, 2500].forEach((at) => watch.heard(at));
    assert.equal(watch.staleSince(4400, true, 2500), null);
    assert.equal(watch.staleSince(4501, true, 2500), 2500);
    assert.equal(watch.staleSince(9000, true, 5000), null, "the engine went on elsewhere");
    watch.heard(20000);
    assert.equal(watch.staleSince(30000, true, 20000), null, "once again is not regularly");
    [33000, 36000, 39000, 42000].forEach((at) => watch.heard(at));
    assert.equal(watch.staleSince(44500, true, 42000), null, "every 3 s is not soon");
});

test("A saved file says what it is, and when; a table which rows it has", () => {
    const date = new Date(Date.UTC(2026, 10, 21, 9, 5, 7));
    assert.equal(fileName("Ünïts: m/s", "", date, "png"), "units-m-s-2026-11-21-090507.png");
    assert.equal(fileName("", "x..", date, "csv"), "figure-x-2026-11-21-090507.csv");
    for (const [total, step, text] of [
        [100000, 200, "Every 200th of 100,000 rows"],
        [900, 2, "Every 2nd of 900 rows"],
        [9000, 21, "Every 21st of 9,000 rows"],
        [9000, 112, "Every 112th of 9,000 rows"],
        [1, 1, "1 row"],
        [500, 1, "500 rows"],
    ]) {
        assert.equal(captionOf({ total, step }), `${text} of what is seen`);
    }
});

test("A question ends with its answer, or with what went wrong in the worker", async (t) => {
    let worker;
    globalThis.Worker = class {
        asked = [];
        constructor() {
            worker = this;
        }
        postMessage = (message) => this.asked.push(message);
    };
    t.after(() => delete globalThis.Worker);
    const heard = [];
    const note = ({ kind, message }) => heard.push(kind ?? message);
    const link = new WorkerLink("w", note, note);
    const answers = [1, 2, 3].map((axes) => link.ask({ kind: "csv", axes }));
    const [first, second] = worker.asked;
    worker.onmessage({ data: { kind: "csv", id: second.id, text: "t" } });
    worker.onmessage({ data: { kind: "ask", id: first.id } });
    worker.onmessage({ data: { kind: "unanswered", id: first.id, text: "no" } });
    worker.onerror({ message: "over" });
    const ends = await Promise.allSettled(answers);
    const said = ends.map(({ value, reason }) => value?.text ?? reason.message);
    assert.deepEqual(said, ["no", "t", "over"]);
    assert.deepEqual(heard, ["ask", "over"]);
});

test("Of pictures that wait to be shown only the newest stay, and none of axes that are others now", () => {
    const closed = [];
    const frame = (stamp, ...ids) => {
        const named = ids.map((id) => [id, `${stamp} ${id}`]);
        const picture = ([id, name]) => [id, { name, close: () => closed.push(name) }];
        return {
            limits: Object.fromEntries(named),
            pictures: Object.fromEntries(named.map(picture)),
        };
    };
    const next = new NextFrame();
    next.forget(2);
    assert.ok(next.put(frame(1, 2, 5)));
    const newer = frame(2, 5, 7);
    assert.ok(!next.put({ ...newer, limits: { ...newer.limits, 2: "2 2" } }));
    next.forget(7);
    assert.deepEqual(closed.splice(0), ["1 5", "2 7"]);
    next.show(({ limits, pictures }) => {
        assert.deepEqual(Object.values(limits), ["2 2", "2 5"]);
        assert.deepEqual(
            Object.values(pictures).map(({ name }) => name),
            ["1 2", "2 5"],
        );
        assert.deepEqual(closed, []);
    });
    assert.deepEqual(closed, ["1 2", "2 5"]);
    next.show(assert.fail);
    assert.ok(next.put(frame(3)));
});

test("A time line says times in full, and marks what lies side by side as one", () => {
    const texts = [0, 61_001.9, 3_600_000, 3_599_999].map(timeText);
    assert.deepEqual(texts, ["0:00.000", "1:01.001", "1:00:00.000", "59:59.999"]);
    assert.equal(pathOf(Uint8Array.of(2, 1, 3, 2), 2, 0, 3), "M0 0h1v3H0ZM2 0h2v3H2Z");
});

/** Canvases of a test's own, which measure texts with such a context. */
function fakeCanvases(t, contextOf) {
    globalThis.OffscreenCanvas = class {
        context = contextOf();
        getContext = () => this.context;
    };
    t.after(() => delete globalThis.OffscreenCanvas);
}

test("A text is measured once, and no canvas measures texts without end", async (t) => {
    // Not what others measure with.
    const { textWidth } = await import("../../../client/page/text_width.mjs?alone");
    const measured = [];
    fakeCanvases(t, () => {
        const at = measured.push(0) - 1;
        return { measureText: () => ({ width: ++measured[at] }) };
    });
    for (let i = 0; i < 20_000; ++i) textWidth(`text ${i >> 1}`);
    assert.ok(Math.max(...measured) <= 1000, `${measured}`);
    assert.ok(measured.reduce((sum, count) => sum + count) <= 10_000, `${measured}`);
});

/** What an SVG has: elements with the values of their attributes. */
const DRAWN = `
    rect 316 216 panel | line 83 18 83 68 grid | line 58 58 158 58 grid
    line 58 18 58 68 rule | line 58 68 158 68 rule | line 158 18 158 68 rule
    line 83 68 83 73 rule | text 83 83 4 middle a | text 83 98 4 middle b
    line 58 58 53 58 rule | text 49 58 4 end c | line 158 28 163 28 rule | text 167 28 4 start d
    text 108 95.5 4 middle n (u) | text 15.5 43 4 middle rotate(-90 15.5 43.0) m`;

test("A saved figure has its grid, rules, ticks and labels where the page has them", (t) => {
    fakeCanvases(t, () => ({ measureText: ({ length }) => ({ width: 7 * length }) }));
    const at = (left, top, width, height) => ({
        getBoundingClientRect: () => ({ left, top, width, height }),
    });
    const tick = (share, text) => ({ ticks: [{ at: share, text }] });
    const hidden = { hidden: true, children: [] };
    const view = {
        description: { y2: {} },
        plot: { over: at(60, 40, 100, 50) },
        ticks: { x: tick(0.25, "a\nb"), y: tick(0.2, "c"), y2: tick(0.8, "d") },
        labels: {
            x: { element: at(60, 110, 100, 15), parts: ["n", "(u)", ""] },
            y: { element: at(10, 40, 15, 50), parts: ["m", "", ""] },
            y2: { element: hidden },
        },
        ...{ isLaidOut: true, title: hidden, legend: { element: hidden }, colorBars: hidden },
    };
    const figure = { description: {}, grid: at(10, 30, 300, 200), axes: new Map([[2, view]]) };
    const drawing = new FigureDrawing(figure, { get: (color) => color }, false);
    const svg = drawing.svg({ ground: true, scale: 2 });
    const drawn = [...svg.matchAll(/<((?:line|text|rect) .*?)\/?>([^<]*)/g)].map(([, tag, text]) =>
        `${tag.replace(/\S+="(.*?)"/g, "$1")} ${text}`.trim(),
    );
    assert.deepEqual(drawn, DRAWN.trim().split(/ *[|\n] */));
});
