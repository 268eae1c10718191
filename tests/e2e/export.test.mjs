// Recordings as single HTML files, opened from disk by a browser without a network.
import assert from "node:assert/strict";
import { readFile, rename } from "node:fs/promises";
import { test } from "node:test";
import { pathToFileURL } from "node:url";

import { Engine } from "./support/engine.mjs";
import { assertClean, untilState } from "./support/page.mjs";
import { pictures, untilSettled } from "./support/pictures.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();
const FRAMES = 4;

/** The title, and of all axes each pixel. */
async function seenOn(page) {
    await untilSettled(page);
    return [await page.locator(".figure h2").textContent(), await pictures(page)];
}

/** A page that records what it is given; what was seen of each frame. */
async function record() {
    const engine = await Engine.open(stage);
    const { page } = engine;
    await engine.frame(() => {
        engine.create(1, "figure", 0, { title: "A run" });
        engine.create(2, "axes", 1, { y: { limits: [-10, 10] } });
        engine.create(3, "line", 2, { name: "a wave" });
    }, true);
    await page.locator(".record").click();
    await page.locator('.record[aria-pressed="true"]').waitFor();
    const seen = [];
    for (let i = 0; i < FRAMES; ++i) {
        await engine.frame(() => {
            engine.data(3, { x: [i, i + 0.5], y: [Math.sin(i), 3 * Math.cos(i)] }, 2 * i);
            engine.say("set", { id: 1, title: `Frame ${i}` });
        });
        seen.push(await seenOn(page));
    }
    return { engine, page, seen };
}

/** What "Save as HTML" gives. */
async function saveAsPage(page) {
    const download = page.waitForEvent("download");
    await page.getByRole("button", { name: "Save as HTML" }).click();
    const file = await (await download).path();
    // By its name a browser knows what it is.
    await rename(file, `${file}.html`);
    return `${file}.html`;
}

/** A single file, as a double click opens it; what it asked for. */
async function open(path, moment = "") {
    const page = await stage.page({ offline: true });
    page.requests = [];
    page.on("request", (request) => page.requests.push(request.url().replace(/^blob:.*/, "blob:")));
    await page.goto(pathToFileURL(path).href + moment);
    assert.equal(await untilState(page, "replay"), "");
    const line = page.locator("#time-line");
    await line.waitFor();
    // What the time line takes, so that the figures have their size.
    const { height } = await line.boundingBox();
    await page.setViewportSize({ width: 1280, height: 800 + height });
    return page;
}

async function untilFrame(page, number) {
    await page.waitForFunction(
        (wanted) => document.querySelector(".now").title.startsWith(`Frame ${wanted},`),
        number,
        { timeout: 10_000 },
    );
}

async function assertSeen(page, [title, axes]) {
    const [own, ownAxes] = await seenOn(page);
    assert.equal(own, title);
    assert.deepEqual(ownAxes, axes);
}

test("What a page recorded is one file, which needs no network and shows what was seen", async () => {
    const { engine, page, seen } = await record();
    // Also when the program is gone meanwhile.
    await engine.stop();
    const saved = await saveAsPage(page);
    const alone = await open(saved);
    for (let i = 0; i < FRAMES; ++i) {
        await alone.keyboard.press(".");
        await untilFrame(alone, i + 1);
        await assertSeen(alone, seen[i]);
    }
    await alone.keyboard.press(",");
    await untilFrame(alone, FRAMES - 1);
    // Saved again it is the same, but for where it opens.
    const again = await saveAsPage(alone);
    const own = pathToFileURL(saved).href;
    assert.deepEqual([...new Set(alone.requests)], [own, "blob:"]);
    await assertClean(alone);
    const copy = await open(again);
    await untilFrame(copy, FRAMES - 1);
    await assertSeen(copy, seen[FRAMES - 2]);
    const recordings = await Promise.all(
        [saved, again].map(async (path) => {
            const text = await readFile(path, "utf8");
            return text.match(/id="recording" data-at="[\d.]*">([^<]*)/)[1];
        }),
    );
    assert.ok(recordings[0].length > 0 && recordings[0] === recordings[1]);
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

test("A single file opens at the frame that its address names", async () => {
    const { page, seen } = await record();
    const saved = await saveAsPage(page);
    const alone = await open(saved, "#frame=3");
    await untilFrame(alone, 3);
    await assertSeen(alone, seen[2]);
    await assertClean(alone);
});
