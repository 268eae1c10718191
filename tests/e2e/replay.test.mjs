// Recordings in Chromium: what the page shows of them, and how somebody moves in them.
import assert from "node:assert/strict";
import { readFile, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";

import { CHANNELS } from "../../client/page/recording/channels.mjs";
import { Reader } from "../../client/page/recording/reader.mjs";
import { Writer } from "../../client/page/recording/writer.mjs";
import { fzstd } from "../client/support/packages.mjs";
import { Engine } from "./support/engine.mjs";
import { assertClean, untilState } from "./support/page.mjs";
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

/** What is recorded of ten frames by their page, and what was seen of each. */
async function record(engine) {
    const { page } = engine;
    await page.locator(".chart").first().focus();
    await page.keyboard.press("r");
    await page.locator('.record[aria-pressed="true"]').waitFor();
    const seen = new Map();
    for (let i = 0; i < FRAMES; ++i) {
        assert.equal(await engine.frame(() => draw(engine, i)), "painted");
        seen.set(i + 1, await seenOn(page));
    }
    const download = page.waitForEvent("download");
    await page.keyboard.press("r");
    return { page, bytes: await readFile(await (await download).path()), seen };
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

/** A name for a program's recording. */
function newFile(name) {
    const path = join(tmpdir(), `kiroweb-${process.pid}-${name}.mcap`);
    stage.defer(() => rm(path, { force: true }));
    return path;
}

async function recordWindow() {
    const path = newFile("window");
    const scene = await stage.scene("live");
    const page = await stage.page();
    await page.goto(scene.link);
    await untilState(page, "live");
    scene.tell(`record ${path}`);
    const seen = new Map();
    // Also from what a program writes down of all there is.
    const isEnough = async () => (await contentOf(await readFile(path))).snapshots > 1;
    while (seen.size < FRAMES || !(await isEnough())) {
        await scene.draw("step 7");
        seen.set(Number((await scene.answer(/^frame /)).split(" ")[1]), await seenOn(page));
    }
    scene.tell("quit");
    await scene.exited;
    return { page, bytes: await readFile(path), seen };
}

/** The program stands still for each picture. */
async function recordMonitor() {
    const path = newFile("monitor");
    const monitor = await stage.monitor("--record", path);
    const page = await stage.page();
    await page.goto(monitor.link);
    await untilState(page, "live");
    const seen = new Map();
    const painted = () => page.evaluate(() => kirowebPage.statistics?.frames ?? 0);
    while (seen.size < FRAMES) {
        monitor.process.kill("SIGCONT");
        while ((await painted()) === 0);
        monitor.process.kill("SIGSTOP");
        await page.waitForFunction(() => kirowebPage.statistics.frames === 0);
        const number = await page.evaluate(() => kirowebPage.statistics.frame);
        seen.set(number, await seenOn(page));
    }
    monitor.process.kill("SIGCONT");
    monitor.process.kill("SIGINT");
    await monitor.exited;
    return { page, bytes: await readFile(path), seen };
}

/** When each frame is, in milliseconds since the beginning, and how often everything is there. */
async function contentOf(bytes) {
    const read = async (offset, length) => bytes.subarray(offset, offset + length);
    const zstd = (packed, size) => fzstd().decompress(packed, new Uint8Array(size));
    const reader = await Reader.open({ size: bytes.length, read }, { decompress: { zstd } });
    const all = (await Promise.all(reader.chunks.map((chunk) => reader.read(chunk)))).flat();
    const of = (topic) => all.filter(({ channel }) => channel === reader.find(topic));
    const timeOf = ({ time }) => Number(time - all[0].time) / 1e6;
    const numbered = of("frames").map((one) => [
        JSON.parse(Buffer.from(one.data)).frame,
        timeOf(one),
    ]);
    return { times: new Map(numbered), snapshots: of("snapshots").length, all, reader };
}

/** The recording up to a frame. */
async function firstOf(bytes, frames) {
    const { all, reader } = await contentOf(bytes);
    const writer = new Writer(CHANNELS);
    let left = frames;
    for (const { channel, time, data } of all) {
        if (left > 0) writer.add(channel, time, [data]);
        if (channel === reader.find("frames")) --left;
    }
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
    await untilState(page, "replay");
    const line = page.locator("#time-line");
    await line.waitFor();
    const { height } = await line.boundingBox();
    await page.setViewportSize({ width: 1280, height: 800 + height });
}

const seek = (page, time) =>
    page.evaluate((wanted) => {
        const slider = document.querySelector("#time-line input");
        slider.valueAsNumber = Math.min(wanted, Number(slider.max));
        slider.dispatchEvent(new Event("input"));
    }, time);

/** Ends when these frames are seen. */
async function untilFrame(page, ...numbers) {
    await page.waitForFunction(
        (wanted) => {
            const told = document.querySelector(".now").title.matchAll(/Frame (\d+),/g);
            return String([...told].map(([, frame]) => frame)) === wanted;
        },
        String(numbers),
        { timeout: 20_000 },
    );
}

for (const [name, run] of [
    ["the page", async () => record(await start())],
    ["a window", recordWindow],
    ["the monitor", recordMonitor],
]) {
    test(`What is seen of a recording of ${name} was seen live, pixel for pixel`, async () => {
        const { page, bytes, seen } = await run();
        const { times } = await contentOf(bytes);
        await replay(page, ["run.mcap", bytes]);
        const compare = async (frame) => {
            const [titles, axes] = await seenOn(page);
            const [wanted, before] = seen.get(frame);
            assert.deepEqual(titles, wanted);
            axes.forEach((one, k) => assert.deepEqual(one, before[k], `axes ${k} of ${frame}`));
        };
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
            await compare(frame);
        }
        await page.keyboard.press(".");
        await untilFrame(page, frames[0] + 1);
        await page.keyboard.press(",");
        await untilFrame(page, frames[0]);
        await compare(frames[0]);
        await page.getByLabel("Speed").selectOption("as fast as possible");
        await page.locator(".chart").first().focus();
        await page.keyboard.press("Space");
        await untilFrame(page, [...times.keys()].at(-1));
        await page.getByRole("button", { name: "Play" }).waitFor();
        assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
    });
}

test("Two recordings are shown beside each other, at the same time since their beginning", async () => {
    const engine = await start();
    const { page, bytes } = await record(engine);
    // Of the other run only what was before its last two frames.
    const long = await contentOf(bytes);
    const short = await firstOf(bytes, FRAMES - 2);
    await replay(page, ["long.mcap", bytes]);
    await drop(page, ["short.mcap", short]);
    await page.getByRole("button", { name: "Beside this one" }).click();
    const sides = page.locator(".sides > section");
    const titles = () => page.locator(".sides .figure h2").allTextContents();
    await sides.nth(1).waitFor();
    assert.match((await sides.locator("> h2").allTextContents()).join(), /long.mcap.*short.mcap/);
    for (const frame of [5, FRAMES, 3]) {
        await seek(page, long.times.get(frame) + 0.001);
        const other = Math.min(frame, FRAMES - 2);
        await untilFrame(page, frame, other);
        assert.deepEqual(
            await titles(),
            [frame, other].map((one) => `Frame ${one - 1}`),
        );
        const isOver = /over/.test(await sides.nth(1).locator("> h2").textContent());
        assert.equal(isOver, other < frame);
    }
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
    await drop(page, ...["a", "b", "c"].map((name) => [name, bytes]));
    assert.match(await untilState(page, "closed"), /cannot be shown/);
    assert.match(await page.textContent('[data-part="error"]'), /2 recordings can be shown/);
});

test("A recording is chosen, looked into, and refused when it is none", async () => {
    const engine = await start();
    const file = {
        name: "run.mcap",
        mimeType: "application/octet-stream",
        buffer: Buffer.alloc(0),
    };
    engine.page.on("filechooser", (chooser) => chooser.setFiles(file));
    const { page, bytes } = await record(engine);
    // Live, there was one before.
    assert.match(await latencies(page), /^Painting(\d+\.\d){4}11$/);
    file.buffer = bytes;
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
    await assertClean(page);
    await drop(page, ["none.mcap", Buffer.from("nothing of the kind")]);
    await page.getByRole("button", { name: "In its place" }).click();
    assert.match(await untilState(page, "closed"), /cannot be shown/);
    assert.match(await page.textContent('[data-part="error"]'), /offset 0: this is no recording/);
    assert.equal(await page.locator("#time-line").isVisible(), false);
});

test("A page replays what is in its document, or beside it, and asks for no engine", async () => {
    const engine = await start();
    const { bytes } = await record(engine);
    const address = engine.page.url().replace(/#.*/, "");
    const context = engine.page.context();
    const inDocument = `<script type="text/plain" id="recording">${bytes.toString("base64")}</script>`;
    await context.route("**/own.html", async (route) => {
        const response = await route.fetch({ url: address });
        const text = await response.text();
        await route.fulfill({ response, body: text.replace("</body>", `${inDocument}</body>`) });
    });
    await context.route("**/*.mcap", (route) => {
        const [, from, to] = /^bytes=(\d+)-(\d+)$/.exec(route.request().headers().range);
        const range = `bytes ${from}-${to}/${bytes.length}`;
        const body = bytes.subarray(Number(from), Number(to) + 1);
        return route.fulfill({ status: 206, headers: { "Content-Range": range }, body });
    });
    for (const [name, count] of [
        ["own.html", 1],
        ["#replay=run.mcap", 1],
        ["#replay=run.mcap,other.mcap", 2],
    ]) {
        const page = await context.newPage();
        const sockets = [];
        page.on("websocket", (socket) => sockets.push(socket.url()));
        await page.goto(address + name);
        await untilState(page, "replay");
        await page.locator("#time-line .frame").first().waitFor();
        await seek(page, Infinity);
        await untilFrame(page, ...Array(count).fill(FRAMES));
        assert.deepEqual(sockets, [], name);
        await page.close();
    }
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
