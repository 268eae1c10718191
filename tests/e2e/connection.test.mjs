// What pages, and networks, do to an engine.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { createReadStream } from "node:fs";
import { mkdtemp, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { text } from "node:stream/consumers";
import { test } from "node:test";

import { assertClean, untilKnown, untilState } from "./support/page.mjs";
import { Program } from "./support/program.mjs";
import { Proxy } from "./support/proxy.mjs";
import { assertLive, shownValues } from "./support/scene.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

test("Every page sees everything, reloaded or not; the engine goes on with those that are left", async () => {
    const scene = await stage.scene("live");
    const pages = [await stage.page(), await stage.page()];
    const [first, second] = pages;
    await first.goto(scene.link);
    await scene.draw("step 30");
    // Nothing is drawn anew for these two.
    await second.goto(scene.link);
    await first.reload();
    for (const page of pages) {
        await page.locator(".chart").first().waitFor();
        await page.waitForFunction(() => kirowebPage.statistics?.outcomes.painted >= 1);
        assertLive(await shownValues(page), 30);
    }
    await scene.stream();
    await second.close();
    await scene.draw("step 1");
    await assertClean(first);
    await scene.stream();
    await first.goto("about:blank");
    await scene.answer(/no page/);
    await first.goBack();
    await scene.stream();
    // One that is hidden answers without painting, and paints when it is shown.
    const hide = async (hidden) => {
        await first.evaluate((value) => {
            Object.defineProperty(document, "hidden", { value, configurable: true });
            document.dispatchEvent(new Event("visibilitychange"));
        }, hidden);
        await untilKnown(first);
    };
    await hide(true);
    await scene.stream("hidden");
    await scene.draw("step 1", "hidden");
    await hide(false);
    await scene.draw("step 1");
    scene.tell("quit");
    assert.match(
        await untilState(first, "reconnecting"),
        /(gateway stopped|no connection), since \d+:/,
    );
    await first.locator(".is-stale .stale", { hasText: /^No news since \d+:/ }).waitFor();
    assert.equal(await scene.exited, 0);
});

test("A page whose connection was lost returns to its view, and nothing is missing", async () => {
    const proxy = await Proxy.start();
    stage.defer(() => proxy.stop());
    const scene = await stage.scene("live", 60);
    const page = await stage.page({ proxy: proxy.settings });
    await page.goto(scene.link);
    let steps = 0;
    for (const [how, delay, reason] of [
        ["cut", 0, /lost|no connection/],
        ["cut", 40, /lost|no connection/],
        ["stall", 0, /silent/],
    ]) {
        await scene.draw("step 20");
        proxy[how]();
        scene.tell("step 10");
        assert.match(await untilState(page, "reconnecting"), reason);
        proxy.delay = delay;
        proxy.mend();
        await untilState(page, "live");
        await scene.answer(/^frame \d+ painted/);
        assertLive(await shownValues(page), (steps += 30));
    }
    assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
});

test("The browser that is opened is a program of its own, and gets no more than a link", async () => {
    const path = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(path, { recursive: true }));
    const PIPE = join(path, "said");
    execFileSync("mkfifo", [PIPE]);
    const script =
        "#!/bin/sh\n{ echo $1; grep Sig /proc/self/status; ls -l /proc/self/fd; } >$PIPE";
    await writeFile(join(path, "xdg-open"), script, { mode: 0o755 });
    const said = text(createReadStream(PIPE));
    const env = { ...process.env, PATH: `${path}:${process.env.PATH}`, DISPLAY: ":0", PIPE };
    const program = await Program.run(process.env.KIROWEB_TEN_LINES, [], env);
    stage.defer(() => program.kill());
    assert.match(await said, /#code=[0-9a-f]+\n[^]*SigBlk:\t0+\n/);
    assert.doesNotMatch(await said, /([3-9]|\d\d) -> socket/);
});
