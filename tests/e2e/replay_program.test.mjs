// The program that shows recordings, in Chromium: a run that the monitor has recorded.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, rm } from "node:fs/promises";
import { createServer } from "node:http";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";

import { assertClean, untilState } from "./support/page.mjs";
import { pictures, untilSettled } from "./support/pictures.mjs";
import { Program } from "./support/program.mjs";
import { Stage } from "./support/stage.mjs";

const stage = new Stage();

/** kiroweb-replay of a run, whose frames up to 9 were sent once each. */
async function start() {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(folder, { recursive: true }));
    const file = join(folder, "run.mcap");
    const options = ["--headless", "--frames=40", "--speed=max", `--record=${file}`];
    execFileSync(process.env.KIROWEB_MONITOR, options, { stdio: "ignore" });
    const program = await Program.run(process.env.KIROWEB_REPLAY, ["--no-browser", file]);
    stage.defer(() => program.kill());
    return program;
}

/** Frame by frame to that one; what is seen of it. */
async function stepTo(page, number, key) {
    for (;;) {
        const title = await page.locator(".now[title]").getAttribute("title");
        if (title.startsWith(`Frame ${number},`)) break;
        await page.keyboard.press(key);
        await page.waitForFunction(
            (before) => document.querySelector(".now").title !== before,
            title,
        );
    }
    await untilSettled(page);
    return pictures(page);
}

test("A recorded run is shown, moved in, and shown again by who reloads", async () => {
    const program = await start();
    const page = await stage.page();
    await page.goto(program.link);
    await page.locator("#time-line").waitFor();
    const early = await stepTo(page, 3, ".");
    const late = await stepTo(page, 8, ".");
    assert.notDeepEqual(late, early);
    assert.deepEqual(await stepTo(page, 3, ","), early);
    await assertClean(page);
    // The token is with the tab, and the recording's name in the address.
    assert.equal(new URL(page.url()).hash, "#replay=run.mcap");
    await page.reload();
    await page.locator("#time-line").waitFor();
    assert.deepEqual(await stepTo(page, 3, "."), early);
    program.process.kill("SIGINT");
    assert.equal(await program.exited, 0);
});

test("Nothing is shown without the token, nor to another's page with it", async () => {
    const program = await start();
    const page = await stage.page();
    await page.goto(`${new URL(program.link).origin}/#replay=run.mcap`);
    assert.match(await untilState(page, "closed"), /cannot be shown/);
    assert.match(await page.textContent('[data-part="error"]'), /open the link/);
    assert.equal(await page.locator("#time-line").isVisible(), false);
    const other = createServer((_, response) => {
        response.setHeader("Content-Type", "text/html");
        response.end("<title>Another's</title>");
    }).listen(0, "127.0.0.1");
    stage.defer(() => other.close());
    await once(other, "listening");
    await page.goto(`http://127.0.0.1:${other.address().port}/`);
    const [, token] = /#token=([^&]+)/.exec(program.link);
    const attempts = await page.evaluate(
        async ([address, Authorization]) => {
            const Range = "bytes=0-9";
            const tries = [
                fetch(address, { headers: { Authorization, Range } }),
                fetch(address, { headers: { Range }, mode: "no-cors" }),
                fetch(new URL("/", address)),
            ];
            return (await Promise.allSettled(tries)).map(({ status }) => status);
        },
        [`${new URL(program.link).origin}/run.mcap`, `Bearer ${token}`],
    );
    assert.deepEqual(attempts, ["rejected", "rejected", "rejected"]);
});
