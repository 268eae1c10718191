// What pages do to the monitor, and networks to both.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { createReadStream } from "node:fs";
import { mkdtemp, readFile, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { text } from "node:stream/consumers";
import { test } from "node:test";

import { Monitor } from "./support/monitor.mjs";
import { assertClean, outcomesOf, untilMore, untilState } from "./support/page.mjs";
import { Stage } from "./support/stage.mjs";
import { Tab } from "./support/tabs.mjs";

const stage = new Stage();

async function folder() {
    const path = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(path, { recursive: true }));
    return path;
}

test("Script errors are reported in few lines, cost their frame at once, and the figure is made whole", async () => {
    const { monitor, page } = await stage.start();
    await page.evaluate(() => {
        const { scene } = kirowebPage;
        const { apply } = Object.getPrototypeOf(scene);
        scene.apply = (command, data) => {
            if (command.cmd !== "appendData") return apply.call(scene, command, data);
            delete scene.apply;
            const error = new Error("a broken figure\u009b31m\u007f");
            for (let i = 1; i < 100; ++i) kirowebPage.flusher.fail(error);
            throw error;
        };
    });
    await monitor.line(/\d+ more script errors/);
    assert.match(monitor.said, /script error .*a broken figure\\xc2\\x9b31m\\x7f/);
    assert.ok(monitor.said.match(/script error /g).length <= 10, monitor.said);
    await untilMore(page, "painted", 5);
    // The engine may have sent the next frame already when it hears that the page wants all.
    await page.waitForFunction(() => document.querySelector(".error").textContent === "");
    const { failed } = await outcomesOf(page);
    assert.ok(failed === 1 || failed === 2, `${failed} failed`);
    await monitor.end({ failed: [0, 1, 2] });
});

test("Every page sees everything, reloaded or not; the engine goes on with those that are left", async () => {
    const { monitor, page: first } = await stage.start();
    // As if animation frames came at the worst moments, when little of a whole frame is there.
    await first.evaluate(() => {
        const { scene, views } = kirowebPage;
        const { apply } = scene;
        scene.apply = (command, data) => {
            apply.call(scene, command, data);
            views.paint();
        };
        document.querySelector('[data-name="quakes.axes"]').focus();
    });
    const second = await stage.page();
    await second.goto(monitor.link);
    await untilMore(second, "painted", 5);
    assert.equal(await first.evaluate(() => document.activeElement.dataset.name), "quakes.axes");
    await first.reload();
    await Promise.all([untilMore(first, "painted", 5), untilMore(second, "painted", 5)]);
    const coast = (page) => page.evaluate(() => kirowebPage.scene.named("quakes.coast").count);
    assert.equal(await coast(first), await coast(second));
    await second.close();
    await untilMore(first, "painted", 20);
    assert.doesNotMatch(monitor.said, /client gone/);
    await assertClean(first);
    await first.goto("about:blank");
    await monitor.line(/client gone/);
    await first.goBack();
    await untilMore(first, "painted", 5);
    await monitor.end();
    assert.match(await untilState(first, "reconnecting"), /gateway stopped|no connection/);
});

test("A hidden page answers without painting, and paints when it is shown", async () => {
    const monitor = await stage.monitor();
    const session = await stage.browser.newBrowserCDPSession();
    const tab = await Tab.open(session, monitor.link);
    stage.defer(() => tab.close());
    await tab.until("globalThis.kirowebPage?.outcomes.painted >= 5");
    const other = await Tab.open(session, "about:blank");
    stage.defer(() => other.close());
    const painted = await tab.until(
        "document.hidden && kirowebPage.outcomes.hidden >= 20 && kirowebPage.outcomes.painted",
    );
    assert.equal(
        await tab.until("kirowebPage.outcomes.hidden >= 40 && kirowebPage.outcomes.painted"),
        painted,
    );
    await tab.show();
    await tab.until(`kirowebPage.outcomes.painted >= ${painted + 5}`);
    await monitor.end();
});

test("A page whose connection was lost returns to its view, and nothing is missing", async () => {
    const { proxy, monitor, page } = await stage.startBehindProxy();
    const losses = [
        ["cut", 0, /lost|no connection/],
        ["cut", 40, /lost|no connection/],
        ["stall", 0, /silent/],
    ];
    for (const [how, delay, reason] of losses) {
        proxy[how]();
        assert.match(await untilState(page, "reconnecting"), reason);
        proxy.delay = delay;
        proxy.mend();
        await untilState(page, "live");
        await untilMore(page, "painted", 5);
    }
    assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
    await monitor.end({ views: 0 });
});

test("A frozen page is named as the cause of a time-out, and goes on when it wakes", async () => {
    const file = join(await folder(), "diagnostics.json");
    const { monitor, page } = await stage.start({
        options: ["--timeout", "1", "--diagnostics", file],
    });
    await page.evaluate(() => kirowebPage.flusher.fail(new Error("to be remembered")));
    await monitor.line(/to be remembered/);
    await untilMore(page, "painted", 1);
    const devtools = await page.context().newCDPSession(page);
    await devtools.send("Debugger.enable");
    await devtools.send("Debugger.pause");
    await monitor.line(/timed out: client stalled/);
    await monitor.line(/monitor: client stalled: connected/);
    await devtools.send("Debugger.disable");
    await monitor.line(/monitor: client answers again/);
    await untilMore(page, "painted", 5);
    const { cause, latency, history } = JSON.parse(await readFile(file, "utf8"));
    assert.equal(cause, "client stalled");
    assert.match(JSON.stringify(history), /to be remembered/);
    const { toClient, atClient, toEngine, total } = latency;
    assert.ok(atClient.p50 > 0 && atClient.p50 <= atClient.p99, "the page's part");
    assert.equal(toClient.last + atClient.last + toEngine.last, total.last);
});

test("The browser that is opened is a program of its own, and gets no more than a link", async () => {
    const path = await folder();
    const PIPE = join(path, "said");
    execFileSync("mkfifo", [PIPE]);
    const script =
        "#!/bin/sh\n{ echo $1; grep Sig /proc/self/status; ls -l /proc/self/fd; } > $PIPE\n";
    await writeFile(join(path, "xdg-open"), script, { mode: 0o755 });
    const said = text(createReadStream(PIPE));
    const env = { ...process.env, PATH: `${path}:${process.env.PATH}`, DISPLAY: ":0", PIPE };
    const monitor = await Monitor.run(process.env.KIROWEB_MONITOR, [], env);
    stage.defer(() => monitor.kill());
    assert.match(await said, /#code=[0-9a-f]+\n[^]*SigBlk:\t0+\n/);
    assert.doesNotMatch(await said, /([3-9]|\d\d) -> socket/);
    // The link is good for one browser, which needs it no more.
    const [link] = (await said).split("\n");
    const page = await stage.page();
    await page.goto(link);
    await untilMore(page, "painted", 3);
    await page.reload();
    await untilMore(page, "painted", 3);
    const other = await stage.page();
    await other.goto(link);
    assert.match(await untilState(other, "refused"), /open the link that the program printed/);
    assert.equal(new URL(other.url()).hash, "");
});

test("Who does not have the token is refused, and told what to do", async () => {
    const monitor = await stage.monitor();
    const page = await stage.page();
    await page.goto(monitor.origin);
    assert.match(await untilState(page, "refused"), /no token: open the link that the program/);
    // The links are opened where the page is already.
    await page.goto(`${monitor.origin}/#token=${"0".repeat(64)}`);
    await page.waitForFunction(() =>
        /does not accept.* open the link/.test(document.querySelector("#status").textContent),
    );
    await page.goto(monitor.link);
    await untilMore(page, "painted", 3);
    assert.equal(page.url(), `${monitor.origin}/`);
    assert.deepEqual(await page.context().cookies(), []);
    const duplicate = page.waitForEvent("popup");
    await page.evaluate(() => void window.open("/"));
    await untilMore(await duplicate, "painted", 3);
});
