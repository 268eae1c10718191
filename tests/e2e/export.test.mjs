// Recordings as single HTML files, opened from disk by a browser without a network.
import assert from "node:assert/strict";
import { execFile } from "node:child_process";
import { mkdtemp, readdir, readFile, rename, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";
import { pathToFileURL } from "node:url";
import { promisify } from "node:util";

import { Engine } from "./support/engine.mjs";
import { assertClean, untilState } from "./support/page.mjs";
import { pictures, untilSettled } from "./support/pictures.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();
const FRAMES = 4;
const MB = 1e6;

const exportOf = async (...words) => {
    const { stdout } = await promisify(execFile)(process.env.KIROWEB_EXPORT, words.map(String));
    // Of a page: how many frames, and how many bytes.
    return stdout
        .match(/: (\d+) frames, (\d+) bytes/)
        ?.slice(1)
        .map(Number);
};

/** The title, and of all axes each pixel. */
async function seenOn(page) {
    await untilSettled(page);
    return [await page.locator(".figure h2").allTextContents(), await pictures(page)];
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
    assert.deepEqual(own, title);
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

/** Three seconds of the monitor, as a page saw them. */
async function recordMonitor(file) {
    const monitor = await stage.monitor("--frames=90", `--record=${file}`);
    const page = await stage.page();
    await page.goto(monitor.link);
    assert.equal(await monitor.exited, 0);
}

test("kiroweb-export makes a page of a run, of a part of it, and within a size", async () => {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-export-"));
    stage.defer(() => rm(folder, { recursive: true }));
    const [run, all, part, few, picture] = ["run.mcap", "a.html", "p.html", "f.html", "p.png"].map(
        (name) => join(folder, name),
    );
    await recordMonitor(run);
    const [frames, size] = await exportOf(run, "-o", all);
    assert.equal(frames, 90);
    // What the page and the first frame take is in it each of the twenty times.
    assert.ok(20 * (size - 0.2 * MB) < 5 * MB, `${size} bytes for three seconds`);

    // A part begins before its moment, with what that needs, and opens there.
    const same = await open(all, "#frame=45");
    await untilFrame(same, 45);
    const [, seconds] = (await same.locator(".now").textContent()).match(/^0:([\d.]+) /);
    const from = Number(seconds) + 0.001;
    const [some] = await exportOf(run, "-o", part, `--from=${from}`, `--to=${from + 0.5}`);
    assert.ok(some > 1 && some < 90, `${some} frames`);
    const opened = await open(part);
    await untilFrame(opened, 45);
    await assertSeen(opened, await seenOn(same));
    await assertClean(opened);

    const most = size - 10_000;
    const [kept, smaller] = await exportOf(run, "-o", few, `--most=${most}`);
    assert.ok(kept < 90 && smaller <= most, `${kept} frames, ${smaller} bytes`);
    const thinned = await open(few);
    await untilFrame(thinned, 0);
    await assertSeen(thinned, await seenOn(await open(all)));
    await assertClean(thinned);

    await exportOf(run, "-o", picture, "--png=42");
    const png = await readFile(picture);
    assert.deepEqual(
        [png.toString("latin1", 1, 4), png.readUInt32BE(16), png.readUInt32BE(20)],
        ["PNG", 1280, 800],
    );
    assert.deepEqual((await readdir(folder)).sort(), [
        "a.html",
        "f.html",
        "p.html",
        "p.png",
        "run.mcap",
    ]);
});
