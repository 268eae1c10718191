// The programs that show and export recordings, in Chromium: a run that the monitor has recorded.
import assert from "node:assert/strict";
import { execFile } from "node:child_process";
import { mkdtemp, readFile, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { test } from "node:test";
import { pathToFileURL } from "node:url";
import { promisify } from "node:util";

import { NAME } from "./support/browser.mjs";
import { assertClean, untilFrame, untilReplay } from "./support/page.mjs";
import { digests, untilSettled } from "./support/pictures.mjs";
import { Program } from "./support/program.mjs";
import { Stage } from "./support/stage.mjs";

const { KIROWEB_EXPORT, KIROWEB_REPLAY } = process.env;
const stage = new Stage();
const FRAMES = 90;
const MB = 1e6;
const call = promisify(execFile);

/** The file of three seconds of the monitor, as a page saw them. */
async function record() {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(folder, { recursive: true }));
    const run = join(folder, "run.mcap");
    const monitor = await stage.monitor(`--frames=${FRAMES}`, `--record=${run}`);
    const page = await stage.page();
    await page.goto(monitor.link);
    assert.equal(await monitor.exited, 0);
    return run;
}

test("Recorded runs are shown beside each other, and again to who reloads, without an engine", async () => {
    const run = await record();
    const program = await Program.run(KIROWEB_REPLAY, ["--no-browser", run, run]);
    stage.defer(() => program.kill());
    const page = await stage.page();
    const sockets = [];
    page.on("websocket", (socket) => sockets.push(socket.url()));
    page.on("request", (request) => {
        if (request.url().startsWith("ws")) sockets.push(request.url()); // Firefox's way
    });
    await page.goto(program.link);
    await untilReplay(page);
    await untilFrame(page, 0, 0);
    // The token is with the tab, and the recordings' names in the address.
    assert.equal(new URL(page.url()).hash, "#replay=run.mcap,run-2.mcap");
    await page.reload();
    await untilFrame(page, 0, 0);
    await page.keyboard.press(".");
    await untilFrame(page, 1, 0);
    await assertClean(page);
    assert.deepEqual(sockets, []);
    program.process.kill("SIGINT");
    assert.equal(await program.exited, 0);
});

test("What a program's window recorded is seen as it was live, pixel for pixel", async () => {
    const run = join(await mkdtemp(join(tmpdir(), "kiroweb-")), "run.mcap");
    stage.defer(() => rm(dirname(run), { recursive: true }));
    const scene = await stage.scene("live");
    scene.tell(`record ${run}`);
    const live = await stage.page();
    await live.goto(scene.link);
    const seen = [];
    const see = async (page) => untilSettled(page).then(() => digests(page));
    for (const steps of [30, 1, 5, 40]) {
        seen.push([await scene.draw(`step ${steps}`), await see(live)]);
    }
    scene.tell("quit");
    await scene.exited;
    const program = await Program.run(KIROWEB_REPLAY, ["--no-browser", run]);
    stage.defer(() => program.kill());
    const page = await stage.page();
    await page.goto(program.link);
    await untilReplay(page);
    for (const [frame, wanted] of seen) {
        await untilFrame(page, frame);
        assert.deepEqual(await see(page), wanted, `frame ${frame}`);
        await page.keyboard.press(".");
    }
});

/** What tells a part of a picture, PNG, from another one. */
const digestOf = (page, png, { x, y, width, height }) =>
    page.evaluate(
        async ([text, ...part]) => {
            const bytes = Uint8Array.from(atob(text), (one) => one.charCodeAt(0));
            const image = await createImageBitmap(new Blob([bytes]), ...part);
            const copy = new OffscreenCanvas(image.width, image.height).getContext("2d");
            copy.drawImage(image, 0, 0);
            const { data } = copy.getImageData(0, 0, image.width, image.height);
            return String(new Uint8Array(await crypto.subtle.digest("SHA-256", data)));
        },
        [png.toString("base64"), ...[x, y, width, height].map(Math.floor)],
    );

test("kiroweb-export makes a page of a run, of a part of it, and within a size", async () => {
    const run = await record();
    const [all, part, few, picture] = ["a.html", "p.html", "f.html", "p.png"].map(
        (name) => `${run}.${name}`,
    );
    const exported = async (...words) => {
        const { stdout } = await call(KIROWEB_EXPORT, [run, "-o", ...words]);
        return /: (\d+) frames, (\d+) bytes/.exec(stdout)?.slice(1).map(Number);
    };
    const open = async (path, moment = "") => {
        const page = await stage.page({ offline: true });
        await page.goto(pathToFileURL(path).href + moment);
        await untilReplay(page);
        return page;
    };
    const [frames, size] = await exported(all);
    assert.equal(frames, FRAMES);
    // What the page and the first frame take is in it each of the twenty times.
    assert.ok(20 * (size - 0.2 * MB) < 5 * MB, `${size} bytes for three seconds`);

    // A part begins before its moment, with what that needs, and opens there.
    const same = await open(all, "#frame=45");
    await untilFrame(same, 45);
    const [, seconds] = (await same.locator(".now").textContent()).match(/^0:([\d.]+) /);
    const from = Number(seconds) + 0.001;
    const [some] = await exported(part, `--from=${from}`, `--to=${from + 0.5}`);
    assert.ok(some > 1 && some < FRAMES, `${some} frames`);
    const opened = await open(part);
    await untilFrame(opened, 45);
    await assertClean(opened);

    const most = size - 10_000;
    const [kept, smaller] = await exported(few, `--most=${most}`);
    assert.ok(kept > 0 && kept < FRAMES && smaller <= most, `${kept} frames, ${smaller} bytes`);

    await exported(picture, "--png=42");
    const png = await readFile(picture);
    const head = [png.toString("latin1", 1, 4), png.readUInt32BE(16), png.readUInt32BE(20)];
    assert.deepEqual(head, ["PNG", 1280, 800]);
    // It shows that frame, as the same browser does in a page of tests.
    if (NAME !== "chromium") return;
    const shown = await stage.page({ offline: true });
    await shown.goto(`${pathToFileURL(all).href}#frame=42`);
    await untilFrame(shown, 42);
    const chart = await shown.locator(".chart").first().boundingBox();
    const wanted = await digestOf(shown, await shown.screenshot(), chart);
    assert.equal(await digestOf(shown, png, chart), wanted);
});
