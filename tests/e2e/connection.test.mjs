// What pages do to the monitor, and networks to both.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, readFile, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, beforeEach, afterEach, test } from "node:test";

import { WebSocket } from "../client/support/packages.mjs";
import { ScriptedGateway } from "../client/support/scripted_gateway.mjs";
import { launchBrowser, openPage } from "./support/browser.mjs";
import { Monitor } from "./support/monitor.mjs";
import { assertClean, errorsOf, outcomesOf, untilMore, untilState } from "./support/page.mjs";
import { Proxy } from "./support/proxy.mjs";
import { RawBrowser } from "./support/raw_browser.mjs";

let browser;
let monitor;
let cleanUps;

before(async () => (browser = await launchBrowser()));
after(() => browser?.close());
beforeEach(() => {
    monitor = undefined;
    cleanUps = [];
});
afterEach(async () => {
    for (const cleanUp of cleanUps.reverse()) await cleanUp();
    await monitor?.kill();
});

async function newPage(options) {
    const page = await openPage(browser, options);
    cleanUps.push(() => page.context().close());
    return page;
}

/** The monitor, and a page that it draws to. */
async function start({ options = [], context } = {}) {
    monitor = await Monitor.start(...options);
    const page = await newPage(context);
    await page.goto(monitor.link);
    await untilMore(page, "painted", 5);
    return page;
}

/** A client that says nothing by itself. */
function connect(headers) {
    return new WebSocket(`${monitor.address.replace("http", "ws")}kiroweb`, "kiroweb.v1", { headers });
}

async function startBehindProxy(options = []) {
    const proxy = await Proxy.start();
    cleanUps.push(() => proxy.stop());
    return { proxy, page: await start({ options, context: { proxy: proxy.settings } }) };
}

/** What lets a client in that is no browser. */
async function admission() {
    const response = await fetch(monitor.link, { redirect: "manual" });
    return { Origin: monitor.address.slice(0, -1), Cookie: response.headers.get("set-cookie").split(";")[0] };
}

/** The status with which the gateway refuses an upgrade. */
async function refusalOf(headers) {
    const socket = connect(headers);
    const [, response] = await once(socket, "unexpected-response");
    socket.on("error", () => {});
    socket.terminate();
    return response.statusCode;
}

test("SIGINT ends it with status 0, with and without a page", async () => {
    monitor = await Monitor.start();
    assert.equal((await monitor.result()).status, 0);
    const page = await start();
    const result = await monitor.result();
    assert.equal(result.status, 0);
    assert.match(await untilState(page, "reconnecting"), /gateway stopped|no connection/);
});

test("A script error is reported, costs its frame at once, and the figures go on", async () => {
    const page = await start();
    await page.evaluate(() => {
        const { scene } = kirowebPage;
        scene.apply = () => {
            delete scene.apply;
            throw new Error("a broken figure");
        };
    });
    await monitor.line(/script error .*a broken figure/);
    await untilMore(page, "painted", 5);
    assert.equal((await outcomesOf(page)).failed, 1);
    const { failed, timedOut } = await monitor.result();
    assert.deepEqual({ failed, timedOut }, { failed: 1, timedOut: 0 }, monitor.said);
});

test("What a page floods its errors with is shown in few lines, which it cannot forge", async () => {
    const page = await start();
    await page.evaluate(() => {
        for (let i = 0; i < 500; ++i) kirowebPage.flusher.fail(new Error("\u009b31m\u007f"));
    });
    await monitor.line(/\d+ more script errors/);
    assert.match(monitor.said, /script error .*\\xc2\\x9b31m\\x7f/);
    assert.ok(monitor.said.match(/script error /g).length <= 20, monitor.said);
});

test("A reloaded page sees everything again", async () => {
    const page = await start();
    await page.reload();
    await untilMore(page, "painted", 5);
    assert.equal(await page.locator("canvas").count(), 2);
    const { failed, timedOut } = await monitor.result();
    assert.deepEqual({ failed, timedOut }, { failed: 0, timedOut: 0 }, monitor.said);
    assert.deepEqual(await errorsOf(page), []);
});

test("Every page sees everything, and the engine goes on with those that are left", async () => {
    const first = await start();
    // As if an animation frame came at the worst moment, when little of the whole frame is there.
    await first.evaluate(() => {
        const { scene, views } = kirowebPage;
        const apply = scene.apply;
        scene.apply = function (...command) {
            apply.apply(scene, command);
            views.paint();
        };
        document.querySelector('[data-name="quakes.axes"]').focus();
    });
    const second = await newPage();
    await second.goto(monitor.link);
    await Promise.all([untilMore(first, "painted", 5), untilMore(second, "painted", 5)]);
    const coast = (page) => page.evaluate(() => kirowebPage.scene.named("quakes.coast").count);
    assert.equal(await coast(second), await coast(first));
    assert.equal(await first.evaluate(() => document.activeElement.dataset.name), "quakes.axes");
    await first.close();
    await untilMore(second, "painted", 20);
    assert.doesNotMatch(monitor.said, /client gone/);
    await assertClean(second);
    await second.close();
    await monitor.line(/client gone/);
    const { status, failed, timedOut } = await monitor.result();
    assert.deepEqual({ status, failed, timedOut }, { status: 0, failed: 0, timedOut: 0 }, monitor.said);
});

test("A hidden page answers without painting, and paints when it is shown", async () => {
    monitor = await Monitor.start();
    const raw = await RawBrowser.launch();
    cleanUps.push(() => raw.close());
    const tab = await raw.open(monitor.link);
    await raw.until(tab, "globalThis.kirowebPage?.outcomes.painted >= 5");
    const other = await raw.open("about:blank");
    await raw.show(other);
    await raw.until(tab, "document.hidden && kirowebPage.outcomes.hidden >= 20");
    const painted = await raw.evaluate(tab, "kirowebPage.outcomes.painted");
    await raw.until(tab, "kirowebPage.outcomes.hidden >= 40");
    assert.equal(await raw.evaluate(tab, "kirowebPage.outcomes.painted"), painted);
    await raw.show(tab);
    await raw.until(tab, `kirowebPage.outcomes.painted >= ${painted + 5}`);
    const { failed, timedOut } = await monitor.result();
    assert.deepEqual({ failed, timedOut }, { failed: 0, timedOut: 0 }, monitor.said);
});

test("After a cut the page returns to its view, and nothing is missing", async () => {
    const { proxy, page } = await startBehindProxy();
    for (let round = 0; round < 3; ++round) {
        proxy.cut();
        await untilState(page, "reconnecting");
        proxy.mend();
        await untilState(page, "live");
        await untilMore(page, "painted", 5);
    }
    assert.deepEqual(await errorsOf(page), []);
    const { failed, timedOut, returns, views } = await monitor.result();
    assert.deepEqual({ failed, timedOut, views }, { failed: 0, timedOut: 0, views: 0 }, monitor.said);
    assert.ok(returns <= 3, monitor.said);
});

test("Behind a slow network the figures go on", async () => {
    const { proxy, page } = await startBehindProxy();
    proxy.delay = 40;
    await untilMore(page, "painted", 10);
    await assertClean(page);
    assert.equal((await monitor.result()).timedOut, 0);
});

test("A network that has gone silent is given up, and the page returns", async () => {
    const { proxy, page } = await startBehindProxy();
    proxy.stall();
    assert.match(await untilState(page, "reconnecting"), /silent/);
    proxy.mend();
    await untilState(page, "live");
    await untilMore(page, "painted", 5);
    assert.deepEqual(await errorsOf(page), []);
});

test("A frozen page is named as the cause of a time-out, and goes on when it wakes", async () => {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    cleanUps.push(() => rm(folder, { recursive: true }));
    const file = join(folder, "diagnostics.json");
    const page = await start({ options: ["--timeout", "1", "--diagnostics", file] });
    await page.evaluate(() => kirowebPage.flusher.fail(new Error("to be remembered")));
    await monitor.line(/to be remembered/);
    await untilMore(page, "painted", 1);
    const devtools = await page.context().newCDPSession(page);
    await devtools.send("Debugger.enable");
    await devtools.send("Debugger.pause");
    await monitor.line(/timed out: client stalled/);
    await devtools.send("Debugger.disable");
    await untilMore(page, "painted", 5);
    const { cause, gateway, history } = JSON.parse(await readFile(file, "utf8"));
    assert.equal(cause, "client stalled");
    assert.equal(gateway.pages, 1);
    assert.ok(history.some((entry) => entry.includes("to be remembered")), "the history has the error");
});

test("A wait without an answer names its cause, and is over when the last page closes", async () => {
    monitor = await Monitor.start("--timeout", "1");
    await monitor.line(/timed out: no client yet/);
    const page = await newPage();
    await page.goto(monitor.link);
    await untilMore(page, "painted", 3);
    await page.evaluate(() => {
        globalThis.swallowed = 0;
        kirowebPage.flusher.token = () => ++swallowed;
    });
    await monitor.line(/timed out: token lost/);
    const swallowed = await page.evaluate(() => swallowed);
    await page.waitForFunction((before) => swallowed > before, swallowed);
    await page.close();
    await monitor.line(/monitor: client gone/);
    assert.equal((await monitor.result()).left, 1, monitor.said);
});

test("A client that breaks the rules is told so, and the others go on", async () => {
    const page = await start();
    const headers = await admission();
    for (const [frame, code] of [
        ["{oops", 4000], ['{"t":"echo","id":1}', 4000], [Buffer.alloc(16), 4000],
        [" ".repeat(4 * 1024 * 1024 + 1), 1009],
    ]) {
        const socket = connect(headers);
        await once(socket, "open");
        socket.send(frame);
        assert.equal((await once(socket, "close"))[0], code);
    }
    await monitor.line(/monitor: gateway: bad message from a page: /);
    const socket = connect(headers);
    await once(socket, "open");
    socket.send('{"t":"hello","version":1,"client":"stranger"}');
    await once(socket, "message");
    socket.send('{"t":"explode"}');
    const [refusal] = await once(socket, "message");
    assert.equal(JSON.parse(refusal).what, "explode");
    socket.close();
    await untilMore(page, "painted", 3);
    await assertClean(page);
});

test("The browser that is opened is a program of its own, and gets no more than a link", async () => {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    cleanUps.push(() => rm(folder, { recursive: true }));
    const pipe = join(folder, "said");
    execFileSync("mkfifo", [pipe]);
    const script = "#!/bin/sh\n{ echo $1; grep Sig /proc/self/status; ls -l /proc/self/fd; } > $PIPE\n";
    await writeFile(join(folder, "xdg-open"), script, { mode: 0o755 });
    const environment = { ...process.env, PATH: `${folder}:${process.env.PATH}`, DISPLAY: ":0", PIPE: pipe };
    const said = readFile(pipe, "utf8");
    monitor = await Monitor.run([], environment);
    assert.match(await said, /code=[0-9a-f]+\n[^]*SigBlk:\t0+\nSigIgn:\t0+\n/);
    assert.doesNotMatch(await said, /socket/);
});

test("Who does not have the token is refused, and told what to do", async () => {
    monitor = await Monitor.start();
    const page = await newPage();
    const response = await page.goto(`${monitor.address}?token=${"0".repeat(64)}`);
    assert.equal(response.status(), 403);
    await page.goto(monitor.address);
    assert.match(await untilState(page, "refused"), /link/);
    assert.equal(await refusalOf({ Origin: monitor.address.slice(0, -1) }), 403);
    await page.goto(monitor.link);
    await untilMore(page, "painted", 3);
});

test("A page of another origin is refused, although the browser has the cookie", async () => {
    const page = await start();
    const [cookie] = await page.context().cookies();
    assert.deepEqual([cookie.httpOnly, cookie.sameSite], [true, "Strict"]);
    const own = monitor.address.slice(0, -1);
    const Cookie = `${cookie.name}=${cookie.value}`;
    for (const Origin of ["http://127.0.0.1:1", "null", "http://localhost.evil.example", `${own}.example`]) {
        assert.equal(await refusalOf({ Origin, Cookie }), 403, Origin);
    }
    const stranger = await ScriptedGateway.start((_, response) => {
        response.setHeader("content-type", "text/html").end("<p>stranger");
    });
    cleanUps.push(() => stranger.stop());
    const other = await page.context().newPage();
    await other.goto(`http://127.0.0.1:${stranger.port}/`);
    const opened = await other.evaluate((url) => new Promise((resolve) => {
        const socket = new WebSocket(url, "kiroweb.v1");
        socket.onopen = () => resolve(true);
        socket.onerror = () => resolve(false);
    }), `${monitor.address.replace("http", "ws")}kiroweb`);
    assert.equal(opened, false);
    await untilMore(page, "painted", 3);
});
