// The page as an instrument: what somebody does with figures.
import assert from "node:assert/strict";
import { readFile } from "node:fs/promises";
import { test } from "node:test";

import { only } from "./support/browser.mjs";
import { Engine } from "./support/engine.mjs";
import { assertClean, untilKnown } from "./support/page.mjs";
import { decoded, pictures, shot, untilSettled } from "./support/pictures.mjs";
import { masksOf } from "./support/shapes.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();
const LINE = 3;
const POINTS = 12;
const RED = [0xd0, 0, 0];
const x = Array.from({ length: 101 }, (_, i) => i / 10);
const y = x.map((at) => at * at);

/** Two axes with a line, linked; a map with points, which takes picks; and controls. */
async function start(context) {
    const engine = await Engine.open(stage, context);
    const outcome = await engine.frame(() => {
        engine.create(1, "figure", 0, { title: "A parabola <b>" });
        const axis = { label: "time", unit: "s", limits: [0, 10] };
        const axes = { x: axis, y: { label: "way", unit: "m", limits: [0, 100] }, linkX: 1 };
        engine.create(2, "axes", 1, axes);
        engine.create(LINE, "line", 2, { name: "fall", color: "#d00000" });
        engine.create(4, "line", 2, { name: "flight", color: "#0000d0" });
        engine.create(5, "axes", 1, { ...axes, title: "Ca\u0002lm" });
        engine.create(6, "line", 5, { name: "other" });
        engine.create(10, "figure", 0, { title: "Map" });
        const four = { limits: [0, 4] };
        engine.create(11, "axes", 10, { picks: true, x: four, y: four });
        engine.create(POINTS, "scatter", 11, { name: "places", size: 10 });
        engine.create(20, "slider", 10, { label: "Gain", low: 0, high: 1, step: 0.25, value: 0.5 });
        for (const id of [LINE, 6]) engine.data(id, { x, y });
        engine.data(4, { x, y: y.map((way) => 100 - way) });
        engine.create(13, "line", 11, { name: "rim" });
        engine.data(POINTS, { x: [1, 2, 3], y: [1, 3, 2] });
        engine.data(13, { x, y: x.map(() => 4) });
    }, true);
    assert.equal(outcome, "painted");
    const { page } = engine;
    const place = async (index, across, up) => {
        const { x: left, y: top, width, height } = await engine.area(index);
        return [left + across * width, top + (1 - up) * height];
    };
    const point = async (...at) => page.mouse.move(...(await place(...at)));
    /** Something that is done while keys are held. */
    const held = async (key, call) => {
        await page.keyboard.down(key);
        await call();
        await page.keyboard.up(key);
    };
    const drag = async (from, to) => {
        await point(...from);
        await page.mouse.down();
        await point(...to);
        await page.mouse.up();
    };
    return { engine, page, place, point, held, drag };
}

/** Of these axes: no data without pixels, no pixel without data. */
async function checkPixels(page, id, ...data) {
    const picture = (await pictures(page)).find(({ description }) => description.id === id);
    const how = { ...picture, place: picture.placer() };
    const masks = await Promise.all(data.map((one) => masksOf(page, one, how)));
    for (const { required } of masks) {
        assert.ok(required.includes(1));
        assert.deepEqual(picture.missing(required), []);
    }
    const isWanted = ([column, row]) =>
        masks.some(({ allowed }) => allowed[row * picture.width + column]);
    assert.deepEqual(
        [...picture.all()].filter((at) => !isWanted(at)),
        [],
    );
}

test("What is zoomed and moved is shown in linked axes too, drawn and told to the engine", async () => {
    const { engine, page, place, point, held, drag } = await start();
    const told = async ([low, high], home, of = 5) => {
        await engine.event("limits", ({ axes, x: [from, to], home: isHome }) => {
            const isNear = Math.abs(from - low) + Math.abs(to - high) < (high - low) / 50;
            return axes === of && isNear && isHome === home;
        });
        await engine.untilShown(2, "x", [low, high]);
    };
    await point(0, 0.5, 0.5);
    await held("Shift", () => page.mouse.wheel(0, -200));
    await told([1.97, 8.03]);
    await engine.untilShown(2, "y", [0, 100]);
    // In linked axes it is x that is shared: what is done there keeps it.
    await point(1, 0.5, 0.5);
    await held("Alt", () => page.mouse.wheel(0, -200));
    await engine.untilShown(5, "y", [19.7, 80.3]);
    await told([1.97, 8.03]);
    await page.mouse.dblclick(...(await place(0, 0.5, 0.5)));
    await told([0, 10], true, 2);
    await drag([0, 0.2, 0.1], [0, 0.6, 0.9]);
    await told([2, 6]);
    await engine.untilShown(2, "y", [10, 90]);
    await page.locator(".chart").first().press("Shift+ArrowRight");
    await told([2.4, 6.4]);
    // It holds while data come.
    await engine.frame(() => engine.data(LINE, { x: x.map((at) => at * 2), y }));
    await engine.untilShown(2, "x", [2.4, 6.4]);
    await engine.frame(() => engine.data(LINE, { x, y }));
    await page.keyboard.press("0");
    await told([0, 10], true);
    await held("Shift", () => drag([0, 0.5, 0.5], [0, 0.4, 0.5]));
    await told([1, 11]);
    await page.getByRole("button", { name: "Move" }).first().click();
    await page.mouse.click(...(await place(0, 0.6, 0.5)));
    await told([2, 12]);
    await page.getByRole("button", { name: "Follow" }).first().click();
    assert.equal(await engine.frame(() => engine.data(LINE, { x: [30], y: [50] }, 101)), "painted");
    await engine.untilShown(2, "x", [20, 30]);
    await page.evaluate(() => {
        const { worker } = kirowebPage;
        const post = worker.post.bind(worker);
        globalThis.posted = [];
        worker.post = (...all) => globalThis.posted.push(all[0].kind) && post(...all);
    });
    await engine.frame(() => [5, 10].forEach((id) => engine.say("remove", { id })));
    const left = await page.evaluate(() => [
        document.querySelectorAll(".figure, .axes").length,
        [...kirowebPage.figures.values()].map(({ axes }) => [...axes.keys()]).join(),
        globalThis.posted.filter((kind) => kind === "gone").length,
    ]);
    assert.deepEqual(left, [2, "2", 2]);
    await assertClean(page);
});

test("The crosshair says what lies there, by pointer and by key, in linked axes too", async () => {
    const { engine, page, point } = await start();
    await point(0, 0.501, 0.3);
    await page.locator(".tip", { hasText: "fall25 m" }).waitFor();
    await page.locator(".tip", { hasText: "other25 m" }).waitFor();
    const told = await page.locator(".tip").first().textContent();
    assert.match(told, /^time 5(\.\d+)? sfall25 mflight75 m$/);
    await engine.frame(() => engine.data(LINE, { x, y: x }));
    await page.locator(".tip", { hasText: "fall5 m" }).waitFor();
    await page.keyboard.press("Escape");
    await page.locator(".tip").first().waitFor({ state: "hidden" });
    for (let i = 0; i < 10; ++i) await page.locator(".chart").first().press("ArrowRight");
    await page.locator("#said", { hasText: /time 7 s; fall 7 m; flight 51 m/ }).waitFor();
    await page.keyboard.press("Escape");
    await page.locator(".tip").first().waitFor({ state: "hidden" });
    // A range from the middle; first one that is forgotten, then one along x, and one along both.
    const [right, down] = ["Right", "Down"].map((way) => Array(10).fill(`Arrow${way}`));
    for (const [keys, across, up] of [
        ["x", [1, 9], [0, 100]],
        ["Shift+x", [0, 10], [0, 100]],
        ["y", [0, 10], [10, 90]],
        [`0,Shift+Enter,${right},Escape,Escape`, [0, 10], [0, 100]],
        [`Shift+Enter,${right},Shift+Enter`, [5, 7], [0, 100]],
        [`Shift+Enter,${down},ArrowLeft,Shift+Enter`, [6.36, 6.4], [30, 50]],
        // Before the legend's two buttons, the toolbar: it zooms out, and then in.
        [`0,Escape,${Array(3).fill("Shift+Tab")},End,Tab,Shift+Tab`, [0, 10], [0, 100]],
        ["ArrowRight,ArrowRight,Enter", [-1.25, 11.25], [-12.5, 112.5]],
        ["ArrowRight,ArrowRight,Home,ArrowLeft,ArrowRight,Enter", [0, 10], [0, 100]],
    ]) {
        for (const key of keys.split(",")) await page.keyboard.press(key);
        await engine.untilShown(2, "x", across);
        await engine.untilShown(2, "y", up);
    }
    const said = /^A parabola <b>\. line fall, line flight\. x, time in s, from 0 to 10\. y, way/;
    await page.getByRole("application", { name: said }).waitFor();
    await engine.frame(() => engine.say("set", { id: 5, y2: { label: "depth" } }));
    await page.getByRole("application", { name: /second y, depth/ }).waitFor();
    await assertClean(page);
});

test("What is near is picked, keys reach the engine, and a control shows who has said its value last", async () => {
    const { engine, page, place } = await start();
    await page.mouse.click(...(await place(2, 0.505, 0.75)));
    assert.equal((await engine.event("pick")).index, 1);
    await page.locator("#said", { hasText: /^Picked places 2, 3$/ }).waitFor();
    await page.mouse.move(1, 1);
    await page.locator(".chart").nth(2).press("ArrowRight");
    await page.keyboard.press("Enter");
    assert.ok(Math.abs((await engine.event("pick")).x - 2.08) < 0.02);
    // Keys that nobody wants are the browser's.
    await page.evaluate(() =>
        addEventListener("keydown", (event) => (globalThis.isTaken = event.defaultPrevented)),
    );
    const isTaken = () => page.evaluate(() => globalThis.isTaken);
    await page.keyboard.press("z");
    assert.equal(await isTaken(), false);
    engine.listens = true;
    await engine.frame(() => engine.data(13, { x, y: x }));
    await page.keyboard.press("q");
    assert.deepEqual(await engine.event("key"), { event: "key", key: "q", axes: 11 });
    assert.equal(await isTaken(), true);
    // Who speaks to the browser presses no key of the engine's.
    await page.locator(":focus").evaluate((chart) => chart.blur());
    await page.keyboard.press("q");
    assert.equal(await isTaken(), false);
    const slider = page.getByRole("slider", { name: "Gain" });
    await slider.press("ArrowRight");
    assert.deepEqual(await engine.event("control"), { event: "control", id: 20, value: 0.75 });
    // What the engine says of something else does not put the slider back; a value of its own does,
    // also the same one again, but not while somebody holds it.
    const isGain = (value) =>
        page.waitForFunction(
            (wanted) => document.querySelector("[type=range]").value === wanted,
            value,
        );
    await engine.frame(() => engine.say("set", { id: 1, title: "Else" }));
    assert.equal(await slider.inputValue(), "0.75");
    await engine.frame(() => engine.say("set", { id: 20, value: 0.5 }));
    await isGain("0.5");
    await slider.hover();
    await page.mouse.down();
    await engine.frame(() => engine.say("set", { id: 20, value: 1 }));
    assert.equal(await slider.inputValue(), "0.5");
    await page.mouse.up();
    await isGain("1");
    await assertClean(page);
});

test("The legend hides series, pausing holds the picture, and what is late looks so", async () => {
    const { engine, page } = await start();
    const legend = (name, pressed) => page.getByRole("button", { name, pressed }).waitFor();
    await page.getByRole("button", { name: "flight", pressed: true }).press("Enter");
    for (const isFall of [false, true]) {
        await page.getByRole("button", { name: "flight" }).click({ modifiers: ["Control"] });
        await legend("fall", isFall);
        await legend("flight", true);
    }
    await page.getByRole("button", { name: "flight" }).click();
    await engine.frame(() => engine.create(7, "line", 2, { name: "more", visible: false }));
    await legend("more", false);
    await legend("flight", false);
    await engine.frame(() => engine.say("set", { id: 7, visible: true }));
    await legend("more", true);
    assert.equal(await engine.frame(() => engine.data(LINE, { x, y: x })), "painted");
    await page.getByRole("button", { name: "Pause" }).click();
    await page.locator('#status[data-state="paused"]').waitFor();
    await untilKnown(page);
    assert.equal(await engine.frame(() => engine.say("set", { id: 10, title: "New" })), "paused");
    assert.equal(await page.locator("h2").nth(1).textContent(), "Map");
    await page.keyboard.press(" ");
    await page.locator("h2", { hasText: "New" }).waitFor();
    // Of the map there never was anything more to come.
    const isDue = () => [...kirowebPage.figures.values()][0].watch.isDue;
    while (!(await page.evaluate(isDue))) {
        await engine.frame(() => engine.data(LINE, { x, y: x }));
    }
    assert.equal(await page.locator(".is-stale").count(), 0);
    const isBright = async () => (await shot(page.locator(".u-over").first())).has(RED);
    assert.ok(await isBright());
    await page.locator(".is-stale", { hasText: /^A parabola/ }).waitFor();
    assert.equal(await page.locator(".is-stale").count(), 1);
    await page.locator("#said", { hasText: /^A parabola <b>: No news since/ }).waitFor();
    await page.waitForFunction(() => document.getAnimations().length === 0);
    assert.ok(!(await isBright()));
    await engine.stop();
    await page
        .locator(".is-stale .stale", { hasText: /^No news since \d+:\d+/ })
        .first()
        .waitFor();
});

test("A figure is saved as a picture, as shapes and as values, which are copied, too", async () => {
    const { engine, page, place, point } = await start();
    await engine.frame(() => {
        for (const [id, name] of ["old", "new"].entries()) {
            engine.create(30 + id, "image", 2, { name, rows: 1, columns: 1, colorMap: "gray" });
            engine.data(30 + id, { z: [id] });
        }
    });
    await page.getByRole("button", { name: "old" }).click();
    await page.locator(".color-bar:only-child", { hasText: "new" }).waitFor();
    const save = async (format, scale, without = []) => {
        await page.getByRole("button", { name: "Save" }).first().click();
        await page.locator(`[value=${format}]`).check();
        await page.getByLabel("Scale").selectOption(scale);
        for (const name of without) await page.getByLabel(name).uncheck();
        const button = page.locator(".save button");
        const { name, path } = await stage.browser.download(page, () => button.click());
        assert.match(name, new RegExp(`^a-parabola-b-[-\\d]+\\.${format}$`));
        return readFile(path);
    };
    const grid = await page.locator(".grid").first().boundingBox();
    const [across, down] = await place(0, 0.5, 0.25);
    for (const [without, above, corner] of [
        [[], 30, [255, 255, 255, 255]],
        [["Title", "Ground"], 8, [0, 0, 0, 0]],
    ]) {
        const png = await decoded(page, await save("png", "3", without));
        assert.equal(png.width, 3 * Math.ceil(grid.width + 16));
        assert.deepEqual(png.at(0, 0), corner);
        assert.equal(png.has([0x19, 0x21, 0x2b], 3 * above), without.length === 0);
        const at = [across - grid.x + 8, down - grid.y + above].map((pixels) =>
            Math.floor(3 * pixels),
        );
        assert.deepEqual(png.at(...at), [...RED, 255]);
    }
    const svg = String(await save("svg", "1"));
    assert.match(svg, /A parabola &lt;b&gt;.*>time \(s\)<.*>way \(m\)</s);
    assert.match(svg, /stroke="#d00000".*>Ca lm</s);
    const bar =
        /y1="1" y2="0"><stop offset="0" stop-color="rgb\(0 0 0\)".*<rect x="(.+?)" y="(.+?)" width="(.+?)" height="(.+?)" fill="url\(#ramp-2-0/s;
    const ramp = await page.locator(".ramp").boundingBox();
    const seen = [ramp.x - grid.x + 8, ramp.y - grid.y + 30, ramp.width, ramp.height];
    assert.deepEqual(bar.exec(svg).slice(1).map(Math.round), seen.map(Math.round));
    assert.match(String(await save("csv", "1")), /fall,2,4\b/);
    await page.getByRole("button", { name: "Table" }).first().click();
    await page.locator("dialog select").selectOption("All axes");
    await page.getByRole("columnheader", { name: "axes" }).waitFor({ state: "attached" });
    const cell = page.getByRole("cell", { name: "99.8", exact: false }).first();
    await cell.waitFor({ state: "attached" });
    await page.keyboard.press("Escape");
    await point(0, 0.501, 0.3);
    await page.locator(".tip", { hasText: "fall" }).first().waitFor();
    for (const text of [/^time 5.*fall.*25 m/s, /^series,.*\nfall,2,4\b/s]) {
        await page.locator(".chart").first().press("c");
        await page.locator("#said", { hasText: /^Copied$/ }).waitFor();
        await page.evaluate("document.body.append(document.createElement('textarea'))");
        await page.locator("textarea").press("Control+V");
        assert.match(await page.locator("textarea").inputValue(), text);
        await page.evaluate("document.querySelector('textarea').remove(); said.textContent = ''");
        // Then all that is seen, by the browser's old way.
        await page.mouse.move(1, 1);
        await page.evaluate("void Object.defineProperty(navigator, 'clipboard', {})");
    }
    await assertClean(page);
});

test("A figure fills the screen and is drawn for it, also where a browser cannot do that", async () => {
    const { engine, page, point } = await start();
    const isSized = (isWanted) =>
        [...kirowebPage.figures.values()][0].axes.get(2).size.height > 600 === isWanted;
    const untilFull = (isWanted) => page.waitForFunction(isSized, isWanted);
    const line = (values) => ({ kind: "line", x, y: values });
    const flight = line(y.map((way) => 100 - way));
    const rim = line(x.map(() => 4));
    for (const [spoil, key, slower] of [
        ["", "f", 1],
        ["delete Element.prototype.requestFullscreen", "Escape", 2],
    ]) {
        await page.evaluate(spoil);
        await page.getByRole("button", { name: "Full screen" }).first().click();
        await untilFull(true);
        const fall = { x, y: y.map((way) => way / slower) };
        await engine.frame(() => engine.data(LINE, fall));
        await untilSettled(page);
        await checkPixels(page, 2, line(fall.y), flight);
        await page.locator(".chart").first().press(key);
        await untilFull(false);
        // Axes that are moved, and others that are not.
        await point(0, 0.5, 0.5);
        await page.mouse.wheel(0, -200);
        const places = { x: [1, 2, 3], y: [3, slower, 1] };
        const outcome = await engine.frame(() => {
            engine.data(LINE, { x, y });
            engine.data(POINTS, places);
        });
        assert.equal(outcome, "painted");
        await untilSettled(page);
        await checkPixels(page, 2, line(y), flight);
        await checkPixels(page, 11, { ...places, kind: "scatter", size: [10, 10, 10] }, rim);
    }
    await assertClean(page);
});

const forced = only("chromium", "a test can force colours");
test("Forced colours are those of axes, not of series; motion can be less", forced, async () => {
    const { page } = await start({ forcedColors: "active", reducedMotion: "reduce" });
    const [{ frame }] = await pictures(page);
    assert.ok(frame.has([191, 191, 191]) && !frame.has([0x87, 0x92, 0x9e]), "grid and rules");
    for (const place of [".u-over", ".legend"]) {
        assert.ok((await shot(page.locator(place).first())).has(RED), place);
    }
    const count = (all) =>
        all.filter((one) => getComputedStyle(one).transitionDuration !== "0s").length;
    assert.equal(await page.locator("*").evaluateAll(count), 0);
    await page.emulateMedia({ reducedMotion: "no-preference" });
    assert.equal(await page.locator("*").evaluateAll(count), 3);
});

test("On a phone everything is within reach, by fingers as well", async () => {
    const { engine, page, place } = await start({
        viewport: { width: 360, height: 640 },
        hasTouch: true,
        deviceScaleFactor: 2,
        colorScheme: "dark",
    });
    assert.equal(await page.evaluate(() => document.documentElement.scrollWidth), 360);
    const small = (all) =>
        all.filter((one) => one.offsetWidth > 0 && Math.min(one.offsetWidth, one.offsetHeight) < 24)
            .length;
    assert.equal(await page.locator("button, input, select").evaluateAll(small), 0);
    const touch = async (type, ...places) => {
        const points = await Promise.all(places.map((at) => place(0, at, 0.5)));
        const touchPoints = points.map(([left, top], id) => ({ x: left, y: top, id }));
        await stage.browser.touch(page, type, touchPoints);
    };
    await touch("touchStart", 0.4, 0.6);
    for (const part of [0.05, 0.1, 0.2]) await touch("touchMove", 0.4 - part, 0.6 + part);
    await touch("touchEnd");
    const { x: range } = await engine.event("limits");
    assert.ok(range[1] - range[0] < 9, `${range}`);
    await assertClean(page);
});
