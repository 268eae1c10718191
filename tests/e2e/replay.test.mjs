// A recording in Chromium: what the page shows of it, and how somebody moves in it.
import assert from "node:assert/strict";
import { readFile } from "node:fs/promises";
import { test } from "node:test";

import { Engine } from "./support/engine.mjs";
import { assertClean, untilState } from "./support/page.mjs";
import { pictures, untilSettled } from "./support/pictures.mjs";
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

/** The title, and of all axes each pixel. A browser does not smooth corners alike each time. */
async function seenOn(page) {
    await untilSettled(page);
    return [await page.locator(".figure h2").textContent(), await pictures(page)];
}

/** What is recorded of ten frames, and what was seen. */
async function record(engine) {
    const { page } = engine;
    await page.locator(".chart").first().focus();
    await page.keyboard.press("r");
    await page.locator('.record[aria-pressed="true"]').waitFor();
    const seen = [];
    for (let i = 0; i < FRAMES; ++i) {
        assert.equal(await engine.frame(() => draw(engine, i)), "painted");
        seen.push(await seenOn(page));
    }
    const download = page.waitForEvent("download");
    await page.keyboard.press("r");
    return { file: await (await download).path(), seen };
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

/** Ends when this frame is seen. */
async function untilFrame(page, number) {
    await page.waitForFunction(
        (wanted) => document.querySelector(".now").title.startsWith(`Frame ${wanted},`),
        number,
        { timeout: 10_000 },
    );
}

test("Each frame of a replay is what was seen live, pixel for pixel", async () => {
    const engine = await start();
    const { page } = engine;
    const { file, seen } = await record(engine);
    const chosen = page.waitForEvent("filechooser");
    await page.keyboard.press("o");
    await (await chosen).setFiles(file);
    assert.equal(await untilState(page, "replay"), "");
    const line = page.locator("#time-line");
    await line.waitFor();
    // What the time line takes, so that the figures have their size.
    const { height } = await line.boundingBox();
    await page.setViewportSize({ width: 1280, height: 800 + height });
    const compare = async (i) => {
        await untilFrame(page, i + 1);
        const [title, axes] = await seenOn(page);
        assert.equal(title, seen[i][0]);
        axes.forEach((one, k) => assert.deepEqual(one, seen[i][1][k], `axes ${k} of frame ${i}`));
    };
    for (let i = 0; i < FRAMES; ++i) {
        await page.keyboard.press(".");
        await compare(i);
    }
    for (const i of [3, 8, 0]) {
        await page.evaluate((part) => {
            const slider = document.querySelector("#time-line input");
            const marks = document.querySelector("#time-line .frame").getAttribute("d");
            const places = [...marks.matchAll(/M(\d+)/g)].map(([, at]) => Number(at));
            slider.valueAsNumber = ((places[part] + 1) / 1000) * Number(slider.max);
            slider.dispatchEvent(new Event("input"));
        }, i);
        await compare(i);
    }
    await page.keyboard.press("Space");
    await compare(FRAMES - 1);
    assert.equal(await page.getByRole("button", { name: "Play" }).count(), 1);
    await assertClean(page);
});

test("A recording is dropped, looked into, and refused when it is none", async () => {
    const engine = await start();
    const { page } = engine;
    const { file } = await record(engine);
    // Live, there was one before.
    assert.match(await latencies(page), /^Painting(\d+\.\d){4}11$/);
    const drop = async (bytes) =>
        page.evaluate((text) => {
            const data = Uint8Array.from(atob(text), (one) => one.charCodeAt(0));
            const dataTransfer = new DataTransfer();
            dataTransfer.items.add(new File([data], "run.mcap"));
            document.body.dispatchEvent(new DragEvent("drop", { dataTransfer, bubbles: true }));
        }, bytes.toString("base64"));
    await drop(await readFile(file));
    await untilState(page, "replay");
    await page.locator("#time-line").waitFor();
    await page.keyboard.press("End");
    await untilFrame(page, FRAMES);
    assert.equal(await page.locator('[data-part="title"]').textContent(), "Laboratory");
    // What an engine would hear is not offered.
    assert.equal(await page.locator(".controls").evaluate(({ inert }) => inert), true);
    assert.equal(await page.locator(".record").isVisible(), false);
    await page.keyboard.press("?");
    assert.match(await page.locator("dialog").textContent(), /next error or late frame/);
    await page.keyboard.press("Escape");
    assert.match(await latencies(page), /^Painting(\d+\.\d){4}10$/);
    await drop(Buffer.from("nothing of the kind"));
    assert.match(await untilState(page, "closed"), /cannot be shown/);
    assert.match(await page.textContent('[data-part="error"]'), /offset 0: this is no recording/);
    assert.equal(await page.locator("#time-line").isVisible(), false);
});

test("A page replays what is in its document, or beside it, and asks for no engine", async () => {
    const engine = await start();
    const { file } = await record(engine);
    const bytes = await readFile(file);
    const address = engine.page.url().replace(/#.*/, "");
    const context = engine.page.context();
    const inDocument = `<script type="text/plain" id="recording">${bytes.toString("base64")}</script>`;
    await context.route("**/own.html", async (route) => {
        const response = await route.fetch({ url: address });
        const text = await response.text();
        await route.fulfill({ response, body: text.replace("</body>", `${inDocument}</body>`) });
    });
    await context.route("**/run.mcap", (route) => {
        const [, from, to] = /^bytes=(\d+)-(\d+)$/.exec(route.request().headers().range);
        const range = `bytes ${from}-${to}/${bytes.length}`;
        const body = bytes.subarray(Number(from), Number(to) + 1);
        return route.fulfill({ status: 206, headers: { "Content-Range": range }, body });
    });
    for (const name of ["own.html", "#replay=run.mcap"]) {
        const page = await context.newPage();
        const sockets = [];
        page.on("websocket", (socket) => sockets.push(socket.url()));
        await page.goto(address + name);
        await untilState(page, "replay");
        await page.locator("#time-line").waitFor();
        await page.keyboard.press("l");
        await untilFrame(page, FRAMES);
        assert.deepEqual(sockets, [], name);
        await page.close();
    }
});
