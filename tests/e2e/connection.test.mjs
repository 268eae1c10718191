// What pages do to the monitor, and networks to both.
import assert from "node:assert/strict";
import { mkdtemp, readFile, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";

import { assertClean, outcomesOf, untilMore, untilState } from "./support/page.mjs";
import { Stage } from "./support/stage.mjs";
import { Tab } from "./support/tabs.mjs";

const stage = new Stage();

test("A script error is reported, costs its frame at once, and the figure is made whole", async () => {
    const { monitor, page } = await stage.start();
    await page.evaluate(() => {
        const { scene } = kirowebPage;
        const { apply } = Object.getPrototypeOf(scene);
        scene.apply = (command, data) => {
            if (command.cmd !== "appendData") return apply.call(scene, command, data);
            delete scene.apply;
            throw new Error("a broken figure");
        };
    });
    await monitor.line(/script error .*a broken figure/);
    await untilMore(page, "painted", 5);
    // The engine may have sent the next frame already when it hears that the page wants all.
    const { failed } = await outcomesOf(page);
    assert.ok(failed === 1 || failed === 2, `${failed} failed`);
    await monitor.end({ failed: [0, 1, 2] });
});

test("Every page sees everything, reloaded or not; the engine goes on with those that are left", async () => {
    const { monitor, page: first } = await stage.start();
    const second = await stage.page();
    await second.goto(monitor.link);
    await untilMore(second, "painted", 5);
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
    const painted = await tab.until("document.hidden && kirowebPage.outcomes.hidden >= 20 && kirowebPage.outcomes.painted");
    assert.equal(await tab.until("kirowebPage.outcomes.hidden >= 40 && kirowebPage.outcomes.painted"), painted);
    await tab.show();
    await tab.until(`kirowebPage.outcomes.painted >= ${painted + 5}`);
    await monitor.end();
});

test("A page whose connection was lost returns to its view, and nothing is missing", async () => {
    const { proxy, monitor, page } = await stage.startBehindProxy();
    const losses = [["cut", 0, /lost|no connection/], ["cut", 40, /lost|no connection/], ["stall", 0, /silent/]];
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
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(folder, { recursive: true }));
    const file = join(folder, "diagnostics.json");
    const { monitor, page } = await stage.start({ options: ["--timeout", "1", "--diagnostics", file] });
    await page.evaluate(() => kirowebPage.flusher.fail(new Error("to be remembered")));
    await monitor.line(/to be remembered/);
    await untilMore(page, "painted", 1);
    const devtools = await page.context().newCDPSession(page);
    await devtools.send("Debugger.enable");
    await devtools.send("Debugger.pause");
    await monitor.line(/timed out: client stalled/);
    await devtools.send("Debugger.disable");
    await untilMore(page, "painted", 5);
    const { cause, gateway, latency, history } = JSON.parse(await readFile(file, "utf8"));
    assert.deepEqual([cause, gateway.pages], ["client stalled", 1]);
    assert.ok(history.some((entry) => entry.includes("to be remembered")), "the history has the error");
    const { toClient, atClient, toEngine, total } = latency;
    assert.ok(latency.flushes >= 6 && atClient.p50 > 0 && atClient.p50 <= atClient.p99, "the page's part");
    assert.equal(toClient.last + atClient.last + toEngine.last, total.last);
});

test("Who does not have the token is refused, and told what to do", async () => {
    const monitor = await stage.monitor();
    const page = await stage.page();
    const response = await page.goto(`${monitor.origin}/?token=${"0".repeat(64)}`);
    assert.equal(response.status(), 403);
    await page.goto(monitor.origin);
    assert.match(await untilState(page, "refused"), /link/);
    await page.goto(monitor.link);
    await untilMore(page, "painted", 3);
});

test("A page of another origin is refused, although the browser has the cookie", async () => {
    const { monitor, page } = await stage.start();
    const stranger = await page.context().newPage();
    await stranger.route("**", (route) => route.fulfill({ contentType: "text/html", body: "stranger" }));
    await stranger.goto("http://127.0.0.1:8080/");
    const opened = await stranger.evaluate((url) => new Promise((resolve) => {
        const socket = new WebSocket(url, "kiroweb.v1");
        socket.onopen = () => resolve(true);
        socket.onerror = () => resolve(false);
    }), monitor.socket);
    assert.equal(opened, false);
    await untilMore(page, "painted", 3);
});
