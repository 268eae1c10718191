// What the monitor's page shows.
import assert from "node:assert/strict";
import { mkdtemp, readFile, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";

import { shownValues } from "./support/scene.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

test("A thousand flushes are drawn, and what was drawn last stays", async () => {
    const page = await stage.page();
    const monitor = await stage.monitor("--speed", "max", "--frames", "1000");
    await page.goto(monitor.link);
    // It ends by itself. Of its frames: all, drawn, failed, timed out, left; and views that were lost.
    const told = await monitor.line(/ frames: /);
    assert.deepEqual(told.match(/\d+/g).slice(0, 6).map(Number), [1000, 1000, 0, 0, 0, 0]);
    assert.equal(await monitor.exited, 0);
    const values = await shownValues(page);
    assert.equal(values.trimEnd().split("\r\n").at(-1).split(",")[1], String((12_000 - 1) / 360));
    assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
});

test("A page that does not answer is named as the cause, and its latency told", async () => {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(folder, { recursive: true }));
    const file = join(folder, "diagnostics.json");
    const monitor = await stage.monitor("--timeout", "1", "--diagnostics", file);
    const page = await stage.page();
    await page.goto(monitor.link);
    await page.waitForFunction(() => globalThis.kirowebPage?.statistics?.outcomes.painted >= 5);
    const wake = stage.freeze();
    await monitor.line(/timed out: client stalled/);
    await monitor.line(/monitor: client stalled: connected/);
    wake();
    await monitor.line(/client answers again/);
    const { cause, latency } = JSON.parse(await readFile(file, "utf8"));
    assert.equal(cause, "client stalled");
    const { toClient, atClient, toEngine, total } = latency;
    assert.ok(atClient.p50 > 0 && atClient.p50 <= atClient.p99, "the page's part");
    assert.equal(toClient.last + atClient.last + toEngine.last, total.last);
});
