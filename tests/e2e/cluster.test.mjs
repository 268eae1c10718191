// The demo over a cluster: what the pages of two gateways show while its processes are ended.
import assert from "node:assert/strict";
import { readdirSync } from "node:fs";
import { mkdtemp, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";
import { fileURLToPath } from "node:url";

import { Program } from "./support/program.mjs";
import { Stage } from "./support/stage.mjs";

const SCRIPT = fileURLToPath(new URL("../../scripts/cluster.sh", import.meta.url));

const stage = new Stage();

/** Milliseconds until the page has painted some frames more. */
async function draws(page) {
    const began = performance.now();
    const painted = () => globalThis.kirowebPage?.statistics?.outcomes.painted ?? 0;
    const before = await page.evaluate(painted);
    // Where it has come to another gateway it has begun to count anew.
    await page.waitForFunction(
        (count) => {
            const now = globalThis.kirowebPage?.statistics?.outcomes.painted ?? 0;
            return now >= count + 5 || (now < count && now >= 5);
        },
        before,
        { polling: 20 },
    );
    return performance.now() - began;
}

test("Pages go on when a node or a gateway is ended, and nothing is left in the end", async () => {
    const folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
    stage.defer(() => rm(folder, { recursive: true }));
    const env = { ...process.env, TMPDIR: folder };
    const programs = join(process.env.KIROWEB_MONITOR, "..");
    const demo = await Program.run(SCRIPT, [programs, "--no-browser"], env);
    stage.defer(() => demo.process.kill());
    const links = [demo.link];
    links.push(await demo.line(/^https?:/, demo.lines.indexOf(demo.link) + 1));
    const pids = Object.fromEntries(
        [...(await demo.line(/end one of them/)).matchAll(/([a-z]+-\w+) (\d+)/g)].map(
            ([, name, pid]) => [name, Number(pid)],
        ),
    );
    const pages = [];
    for (const link of links) {
        const page = await stage.page();
        await page.goto(link);
        pages.push(page);
    }
    const drawn = () => Promise.all(pages.map(draws));
    await drawn();
    process.kill(pids["node-1"], "SIGKILL");
    await demo.line(/node-1 has ended/);
    await drawn();
    process.kill(pids["gateway-one"], "SIGKILL");
    await demo.line(/gateway-one has ended/);
    for (const late of await drawn()) assert.ok(late < 2000, `${late} ms`);
    demo.process.kill("SIGTERM");
    await demo.line(/ frames: .* 0 timed out/);
    await demo.exited;
    assert.deepEqual(readdirSync(folder), []);
    for (const pid of Object.values(pids)) assert.throws(() => process.kill(pid, 0));
});
