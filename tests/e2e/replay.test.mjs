// Recordings: what the page shows of them, and how somebody moves in them.
import assert from "node:assert/strict";
import { readFile, rename } from "node:fs/promises";
import { test } from "node:test";
import { pathToFileURL } from "node:url";

import { CHANNELS } from "../../client/page/recording/channels.mjs";
import { Writer } from "../../client/page/recording/writer.mjs";
import { messagesOf, open as openRecording } from "../client/support/recordings.mjs";
import { NAME } from "./support/browser.mjs";
import { Engine } from "./support/engine.mjs";
import { assertClean, untilFrame, untilReplay, untilState } from "./support/page.mjs";
import { digests, untilSettled } from "./support/pictures.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();
const FRAMES = 10;

/** A page with a picture of all kinds. */
async function start() {
    const engine = await Engine.open(stage);
    await engine.frame(() => {
        engine.create(1, "figure", 0, { title: "A run" });
        // How much room numbers have depends on those before, too: they stay.
        engine.create(2, "axes", 1, { x: { label: "time" }, y: { limits: [-10, 10] } });
        engine.create(3, "line", 2, { name: "a wave" });
        engine.create(4, "scatter", 2, { name: "places", limits: [0, 20] });
        engine.create(5, "axes", 1, { y: { limits: [0, 20] } });
        engine.create(6, "bars", 5);
        engine.create(7, "slider", 1, { label: "Gain", low: 0, high: 1, value: 0.5 });
    }, true);
    return engine;
}

function draw(engine, i) {
    engine.data(3, { x: [i, i + 0.5], y: [Math.sin(i), Math.cos(i)] }, 2 * i);
    engine.data(4, { x: [i / 2, 1], y: [i, -i], value: [i, 2 * i] });
    engine.data(6, { x: [0, 1, 2], y: [i, 5, 2 * i] });
    engine.say("set", { id: 1, title: `Frame ${i}` });
}

/** The titles, and of all axes each pixel. A browser does not smooth corners alike each time. */
async function seenOn(page) {
    await untilSettled(page);
    return [await page.locator(".figure h2").allTextContents(), await digests(page)];
}

/** A file that the page gives when it is asked for it. */
async function downloaded(page, ask, ending = "") {
    const { path } = await stage.browser.download(page, () => ask(page));
    // By its name a browser knows what it is.
    await rename(path, path + ending);
    return path + ending;
}
const saveAsPage = (page) => page.getByRole("button", { name: "Save as HTML" }).click();

/** What is recorded of ten frames by their page, and what was seen of each. */
async function record(engine, end = (page) => page.keyboard.press("r"), ending = "") {
    const { page } = engine;
    await page.locator(".chart").first().focus();
    await page.keyboard.press("r");
    await page.locator('.record[aria-pressed="true"]').waitFor();
    const seen = new Map();
    for (let i = 0; i < FRAMES; ++i) {
        assert.equal(await engine.frame(() => draw(engine, i)), "painted");
        seen.set(i + 1, await seenOn(page));
    }
    const path = await downloaded(page, end, ending);
    return { page, path, bytes: await readFile(path), seen };
}

/** What the panel behind the flush figure says of painting. */
async function latencies(page) {
    await page.getByRole("button", { name: "latency" }).press("Enter");
    await page.locator(".latency canvas").waitFor();
    const row = await page.getByRole("row", { name: "Painting" }).textContent();
    await page.keyboard.press("Escape");
    await page.locator("dialog").waitFor({ state: "detached" });
    assert.equal(await page.locator('[data-part="latency"]:focus').count(), 1);
    return row;
}

/** Its messages, and when each frame is, in milliseconds since the beginning. */
async function contentOf(bytes) {
    const reader = await openRecording(bytes);
    const all = await messagesOf(reader);
    const isMark = ({ channel }) => channel === reader.find("frames");
    const numbered = all.filter(isMark).map(({ data, time }) => {
        return [JSON.parse(Buffer.from(data)).frame, Number(time - all[0].time) / 1e6];
    });
    return { times: new Map(numbered), all, isMark };
}

/** The recording up to a frame. */
async function firstOf({ all, isMark }, frames) {
    const writer = new Writer(CHANNELS);
    const end = all.indexOf(all.filter(isMark)[frames - 1]);
    for (const { channel, time, data } of all.slice(0, end + 1)) writer.add(channel, time, [data]);
    return Buffer.from(await writer.end().arrayBuffer());
}

/** Drops files onto a page. @param {[string, Buffer][]} files */
async function drop(page, ...files) {
    const encoded = files.map(([name, bytes]) => [name, bytes.toString("base64")]);
    await page.evaluate((all) => {
        const dataTransfer = new DataTransfer();
        for (const [name, text] of all) {
            const data = Uint8Array.from(atob(text), (one) => one.charCodeAt(0));
            dataTransfer.items.add(new File([data], name));
        }
        document.body.dispatchEvent(new DragEvent("drop", { dataTransfer, bubbles: true }));
    }, encoded);
}

/** Shows recordings, with figures as large as they were live. */
async function replay(page, ...files) {
    await drop(page, ...files);
    await untilReplay(page);
}

const seek = (page, time) =>
    page.evaluate((wanted) => {
        const slider = document.querySelector("#time-line input");
        slider.valueAsNumber = Math.min(wanted, Number(slider.max));
        slider.dispatchEvent(new Event("input"));
    }, time);

async function assertSeen(page, [titles, axes], what) {
    const [own, ownAxes] = await seenOn(page);
    assert.deepEqual(own, titles);
    ownAxes.forEach((one, k) => assert.deepEqual(one, axes[k], `axes ${k} of ${what}`));
}

test("What is seen of a recording was seen live, pixel for pixel", async () => {
    const { page, bytes, seen } = await record(await start());
    const { times } = await contentOf(bytes);
    await replay(page, ["run.mcap", bytes]);
    const frames = [...seen.keys()];
    const show = async (frame) => {
        await seek(page, times.get(frame) + 0.001);
        await untilFrame(page, frame);
    };
    // In the new size.
    await show(frames[1]);
    // Forwards, by changes, and back, by what is whole.
    for (const frame of [...frames, ...[...frames].reverse()]) {
        await show(frame);
        await assertSeen(page, seen.get(frame), frame);
    }
    await page.keyboard.press(".");
    await untilFrame(page, frames[1]);
    await page.keyboard.press(",");
    await untilFrame(page, frames[0]);
    await page.getByLabel("Speed").selectOption("as fast as possible");
    await page.locator(".chart").first().focus();
    await page.keyboard.press("Space");
    await untilFrame(page, frames.at(-1));
    await page.getByRole("button", { name: "Play" }).waitFor();
    assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
});

test("Two recordings are shown beside each other, at the same time since their beginning", async () => {
    const { page, bytes } = await record(await start(), async (live) => {
        const error = { kind: "report", text: "a script error" };
        await live.evaluate((message) => kirowebPage.worker.post(message), error);
        await live.keyboard.press("r");
    });
    // Of the other run only what was before its last two frames.
    const long = await contentOf(bytes);
    const short = await firstOf(long, FRAMES - 2);
    await replay(page, ["long.mcap", bytes]);
    // Keys lead by 5 s, to what went wrong, and to other speeds.
    const press = async (keys) => {
        for (const key of keys) await page.keyboard.press(key);
    };
    const trouble = page.getByRole("button", { name: "Next error or late frame" });
    for (const ask of [() => press("llllll"), () => press("e"), () => trouble.click()]) {
        await ask();
        await untilFrame(page, FRAMES);
        await press("jjjjjj");
        await untilFrame(page, 0);
    }
    assert.match(await page.textContent("#said"), /^Frame 10 at .*: a script error$/);
    const speed = page.getByLabel("Speed").locator("option:checked");
    for (const [keys, wanted] of Object.entries({ ">>": "5 ×", "<": "2 ×" })) {
        await press(keys);
        assert.equal(await speed.textContent(), wanted);
    }
    await drop(page, ["short.mcap", short]);
    await page.getByRole("button", { name: "Beside this one" }).click();
    const sides = page.locator(".sides > section");
    await sides.nth(1).waitFor();
    assert.match((await sides.locator("> h2").allTextContents()).join(), /long.mcap.*short.mcap/);
    for (const frame of [5, FRAMES]) {
        await seek(page, long.times.get(frame) + 0.001);
        const other = Math.min(frame, FRAMES - 2);
        await untilFrame(page, frame, other);
        const wanted = [frame, other].map((one) => `Frame ${one - 1}`);
        assert.deepEqual(await sides.locator(".figure h2").allTextContents(), wanted);
        const isOver = /over/.test(await sides.nth(1).locator("> h2").textContent());
        assert.equal(isOver, other < frame);
    }
    await seek(page, long.times.get(3) + 0.001);
    await untilFrame(page, 3, 3);
    // What is the same in both is the same picture, and is looked at together.
    const [one, , two] = await digests(page);
    assert.deepEqual(one, two);
    await page.locator(".chart").first().focus();
    await page.keyboard.press("x");
    await page.waitForFunction(() => {
        const [[left], [right]] = [...kirowebPage.figures.values()].map(({ axes }) => [
            ...axes.values(),
        ]);
        return !left.isHome && String(left.shown.x) === String(right.shown.x);
    });
    assert.equal(await page.locator("#time-line svg .frame").count(), 2);
    // One more asks for a place of one that is there.
    await drop(page, ["third.mcap", short]);
    await page.getByRole("button", { name: "In place of the second one" }).click();
    await sides.locator("> h2", { hasText: "third.mcap" }).waitFor();
    assert.match((await sides.locator("> h2").allTextContents()).join(), /long.mcap.*third.mcap/);
    await drop(page, ...["a", "b", "c"].map((name) => [name, bytes]));
    assert.match(await untilState(page, "closed"), /cannot be shown/);
    assert.match(await page.textContent('[data-part="error"]'), /2 recordings can be shown/);
});

test("A recording is chosen, looked into, and refused when it is none", async () => {
    const engine = await start();
    const { page, path } = await record(engine);
    page.on("filechooser", (chooser) => chooser.setFiles(path));
    // Live, there was one before.
    assert.match(await latencies(page), /^Painting(\d+\.\d){4}11$/);
    await page.locator(".chart").first().focus();
    await page.keyboard.press("o");
    await untilState(page, "replay");
    await page.locator("#time-line .frame").waitFor();
    await seek(page, Infinity);
    await untilFrame(page, FRAMES);
    assert.equal(await page.locator('[data-part="title"]').textContent(), "Laboratory");
    // What an engine would hear is not offered.
    assert.equal(await page.locator(".controls input").isDisabled(), true);
    assert.match(await page.locator(".controls").getAttribute("title"), /recording/);
    assert.equal(await page.locator(".record").isVisible(), false);
    await page.keyboard.press("?");
    assert.match(await page.locator("dialog").textContent(), /next error or late frame/);
    await page.keyboard.press("Escape");
    assert.match(await latencies(page), /^Painting(\d+\.\d){4}10$/);
    await page.getByRole("button", { name: "latency" }).press("Enter");
    const picture = page.getByRole("slider", { name: "What frames took" });
    for (const key of ["Home", "ArrowRight", "Enter"]) await picture.press(key);
    await untilFrame(page, 2);
    await assertClean(page);
    await drop(page, ["none.mcap", Buffer.from("nothing of the kind")]);
    await page.getByRole("button", { name: "In its place" }).click();
    assert.match(await untilState(page, "closed"), /cannot be shown/);
    assert.match(await page.textContent('[data-part="error"]'), /offset 0: this is no recording/);
    assert.equal(await page.locator("#time-line").isVisible(), false);
});

/** A single file, as a double click opens it; what it asked for. */
async function open(path, moment = "") {
    const page = await stage.page({ offline: true });
    page.requests = [];
    page.on("request", (request) => page.requests.push(request.url().replace(/^blob:.*/, "blob:")));
    await page.goto(pathToFileURL(path).href + moment);
    await untilReplay(page);
    return page;
}

test("What a page recorded is one file, which needs no network and shows what was seen", async () => {
    const engine = await start();
    // Also when the program is gone meanwhile.
    const end = (page) => engine.stop().then(() => saveAsPage(page));
    const { path: saved, seen } = await record(engine, end, ".html");
    const alone = await open(saved, "#frame=3");
    await untilFrame(alone, 3);
    await assertSeen(alone, seen.get(3), "a single file");
    await alone.keyboard.press(".");
    await untilFrame(alone, 4);
    // Saved again it is the same, but for where it opens.
    const again = await downloaded(alone, saveAsPage, ".html");
    const own = pathToFileURL(saved).href;
    // Firefox tells only of those that leave it.
    const wanted = NAME === "firefox" ? [] : [own, "blob:"];
    assert.deepEqual([...new Set(alone.requests)], wanted);
    await assertClean(alone);
    const copy = await open(again);
    await untilFrame(copy, 4);
    await assertSeen(copy, seen.get(4), "its copy");
    const recordings = [saved, again].map(async (path) => {
        const text = await readFile(path, "utf8");
        return text.match(/id="recording" data-at="[\d.]*">([^<]+)/)[1];
    });
    assert.equal(...(await Promise.all(recordings)));
    // Whatever runs in it, the policy lets nothing out.
    const refused = await copy.evaluate(async () => {
        const violated = new Promise((resolve) =>
            document.addEventListener("securitypolicyviolation", resolve, { once: true }),
        );
        fetch("https://example.invalid/").catch(() => {});
        return (await violated).effectiveDirective;
    });
    assert.equal(refused, "connect-src");
});

test("What others wrote is in the page with its licence", async () => {
    const modules = new URL("../../client/node_modules/", import.meta.url);
    for (const [name, one] of [
        ["page.js", "uplot"],
        ["page.css", "uplot"],
        ["worker.js", "fzstd"],
    ]) {
        const text = await readFile(new URL(`../../client/dist/${name}`, import.meta.url), "utf8");
        const licence = await readFile(new URL(`${one}/LICENSE`, modules), "utf8");
        assert.ok(text.includes(licence.trim()), `${one} in ${name}`);
    }
});
