// tabs.mjs RELOADS KILLED SECONDS SEED: reloads a page, closes its tab and kills its process, so often
// or for so long, while an engine draws one frame after the other. After each the page has to show the
// engine's numbers, and the engine may not wait for one that is gone.
import assert from "node:assert/strict";

import { Browser, NAME } from "../../tests/e2e/support/browser.mjs";
import { assertClean, untilState } from "../../tests/e2e/support/page.mjs";
import { Scene, assertLive, shownValues } from "../../tests/e2e/support/scene.mjs";

const [reloads, killed, seconds, seed] = process.argv.slice(2).map(Number);
const END = performance.now() + seconds * 1000;
/** Seconds for which the engine waits for a page that says nothing. No page of these does so. */
const TIMEOUT = 60;
/** An engine is a new one after so many rounds, so that what it keeps stays small. */
const ROUNDS = 50;

/** From 0 to `below`, the same ones for the same seed (xorshift). */
let state = Math.imul(seed, 0x9e3779b1) | 1;
function random(below) {
    state ^= state << 13;
    state ^= state >>> 17;
    state ^= state << 5;
    return Math.floor(((state >>> 0) / 2 ** 32) * below);
}

/** Draws so long until the page has this many frames more. */
async function untilPainted(page, more) {
    await page.waitForFunction(
        (wanted) => {
            const painted = globalThis.kirowebPage?.statistics?.outcomes.painted ?? 0;
            globalThis.wanted ??= painted + wanted;
            return painted >= globalThis.wanted;
        },
        more,
        { timeout: 30_000 },
    );
}

/** A page and what draws to it. */
class Stand {
    static async open(browser) {
        const stand = new Stand();
        stand.browser = browser;
        stand.scene = await Scene.start("live", TIMEOUT);
        await stand.openTab();
        return stand;
    }
    async openTab() {
        this.context = await this.browser.context({ viewport: { width: 900, height: 700 } });
        this.page = await this.context.newPage();
        this.page.complaints = [];
        this.page.on("pageerror", (error) => this.page.complaints.push(String(error)));
        await this.page.goto(this.scene.link);
    }
    /** What is done to the page. */
    async reload() {
        await this.page.reload();
    }
    async close() {
        await this.page.close();
        await this.#comeBack();
    }
    async kill() {
        for (const pid of this.browser.pageProcesses()) process.kill(pid, "SIGKILL");
        await this.#comeBack();
    }
    async #comeBack() {
        // Without a page the engine goes on; now and then that is seen before there is one again.
        if (random(2) === 0) await this.scene.answer(/no page/);
        const { context } = this;
        await this.openTab();
        await context.close();
    }
    /** The page shows what the engine has drawn, of which each frame is a step. */
    async check() {
        await untilState(this.page, "live");
        const frame = await this.scene.draw("step 1");
        assertLive(await shownValues(this.page), frame + 1);
        await assertClean(this.page);
        const late = this.scene.lines.filter((line) => /late|failed/.test(line));
        assert.deepEqual(late, [], "the engine waited");
    }
    async stop() {
        await this.context.close();
        this.scene.tell("quit");
        await this.scene.exited;
    }
}

const done = { reload: 0, close: 0, kill: 0 };
const isLeft = () => performance.now() < END && (left("reload") > 0 || left("kill") > 0);
function left(kind) {
    return kind === "reload" ? reloads - done.reload : killed - done.close - done.kill;
}
function next() {
    const isReload = left("kill") <= 0 || random(left("reload") + left("kill")) < left("reload");
    if (isReload) return "reload";
    return random(2) === 0 ? "close" : "kill";
}

async function run(browser) {
    let stand = null;
    for (let round = 0; isLeft(); ++round) {
        if (round % ROUNDS === 0) {
            await stand?.stop();
            stand = await Stand.open(browser);
        }
        const kind = next();
        try {
            await stand.scene.stream();
            await untilPainted(stand.page, random(20));
            await stand[kind]();
            await stand.check();
        } catch (error) {
            console.log(`${NAME}, seed ${seed}, round ${round}, ${kind}: ${error.stack}`);
            console.log(stand.scene.lines.slice(-5).join("\n"));
            throw error;
        }
        ++done[kind];
    }
    await stand?.stop();
}

const browser = new Browser();
await browser.launch([]);
try {
    await run(browser);
} catch {
    process.exitCode = 1;
} finally {
    console.log(`figure: ${NAME}, reloads: ${done.reload}`);
    console.log(`figure: ${NAME}, tabs closed: ${done.close}`);
    console.log(`figure: ${NAME}, tabs killed: ${done.kill}`);
    await browser.close();
}
