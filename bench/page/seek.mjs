// node bench/page/seek.mjs [--quick]: how long the page takes to show any moment of a recording of an
// hour and 1 GB, of two of them beside each other, and what it holds meanwhile. No test driver is
// attached, which would slow the page down: it is asked through the browser's Runtime domain only.
// REQUIRES: the page and kiroweb_bench_recording are built; KIROWEB_BUILD names the folder of the build.
import { execFileSync, spawn } from "node:child_process";
import { mkdtemp, open, readFile, readdir, rm, stat } from "node:fs/promises";
import { createServer } from "node:http";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath } from "node:url";

const require = createRequire(new URL("../../client/package.json", import.meta.url));
const { WebSocket } = require("ws");

const DIST = new URL("../../client/dist/", import.meta.url);
const BUILD =
    process.env.KIROWEB_BUILD ?? fileURLToPath(new URL("../../build/release", import.meta.url));
const TYPES = { html: "text/html", js: "text/javascript", css: "text/css", svg: "image/svg+xml" };
const isQuick = process.argv.includes("--quick");
const SECONDS = isQuick ? 120 : 3600;
const SEEKS = isQuick ? 10 : 50;
const FRAMES_PER_SECOND = 30;
const MEGABYTE = 1e6;
const KILOBYTES = 1024;
const MS_PER_TICK = 10;

/** Serves the page, and under any name of a recording this one. */
async function serve(path) {
    const file = await open(path);
    const { size } = await file.stat();
    const server = createServer(async (request, response) => {
        const name = request.url === "/" ? "index.html" : request.url.slice(1);
        if (!name.endsWith(".mcap")) {
            const body = await readFile(new URL(name, DIST)).catch(() => null);
            response.writeHead(body ? 200 : 404, { "Content-Type": TYPES[name.split(".").pop()] });
            response.end(body);
            return;
        }
        const [from, to] = request.headers.range.match(/\d+/g).map(Number);
        const bytes = Buffer.alloc(Math.min(to, size - 1) + 1 - from);
        await file.read(bytes, 0, bytes.length, from);
        const range = `bytes ${from}-${from + bytes.length - 1}/${size}`;
        response.writeHead(206, { "Content-Range": range, "Cache-Control": "no-store" });
        response.end(bytes);
    });
    await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
    return server;
}

class Browser {
    #next = 0;
    static async start(folder, address) {
        const browser = new Browser();
        const flags = [
            "--headless",
            "--disable-gpu",
            "--no-first-run",
            "--remote-debugging-port=0",
        ];
        // The sandbox wants a user who is not root.
        if (process.getuid() === 0) flags.push("--no-sandbox");
        const profile = await mkdtemp(join(folder, "profile-"));
        browser.process = spawn("chromium", [...flags, `--user-data-dir=${profile}`, address], {
            stdio: "ignore",
        });
        const port = await browser.#until(async () => {
            const text = await readFile(join(profile, "DevToolsActivePort"), "utf8").catch(
                () => "",
            );
            return text.split("\n")[0];
        });
        const page = await browser.#until(async () => {
            const tabs = await (await fetch(`http://127.0.0.1:${port}/json/list`)).json();
            return tabs.find(({ url }) => url.startsWith(address.split("#")[0]));
        });
        browser.socket = new WebSocket(page.webSocketDebuggerUrl);
        await new Promise((resolve) => browser.socket.once("open", resolve));
        const isThere = () => browser.evaluate(() => typeof kirowebPage === "object");
        await browser.#until(() => isThere().catch(() => false));
        return browser;
    }
    async #until(look) {
        for (;;) {
            const found = await look();
            if (found) return found;
            await new Promise((resolve) => setTimeout(resolve, 20));
        }
    }
    /** What a function of the page's comes to. */
    async evaluate(call, ...values) {
        const id = ++this.#next;
        const expression = `(${call})(...${JSON.stringify(values)})`;
        const params = { expression, awaitPromise: true, returnByValue: true };
        this.socket.send(JSON.stringify({ id, method: "Runtime.evaluate", params }));
        for (;;) {
            const text = await new Promise((resolve) => this.socket.once("message", resolve));
            const { id: answered, result } = JSON.parse(text);
            if (answered !== id) continue;
            if (!result || result.exceptionDetails) throw new Error(text);
            return result.result.value;
        }
    }
    /** What the page's process, which its worker belongs to, holds for itself, in bytes, and how many
     * milliseconds it has run. It is the largest of those that may show pages. */
    async usage() {
        let most = { memory: 0, processor: 0 };
        for (const id of (await readdir("/proc")).filter((name) => /^\d+$/.test(name))) {
            const command = await readFile(`/proc/${id}/cmdline`, "utf8").catch(() => "");
            if (!command.includes("--type=renderer")) continue;
            const parents = await readFile(`/proc/${id}/status`, "utf8").catch(() => "");
            const [, anonymous] = /RssAnon:\s+(\d+)/.exec(parents) ?? [0, 0];
            if (Number(anonymous) * KILOBYTES <= most.memory || !(await this.#isOwn(id))) continue;
            const fields = (await readFile(`/proc/${id}/stat`, "utf8")).split(") ")[1].split(" ");
            const ticks = Number(fields[11]) + Number(fields[12]);
            most = { memory: Number(anonymous) * KILOBYTES, processor: ticks * MS_PER_TICK };
        }
        return most;
    }
    async #isOwn(id) {
        for (let at = Number(id); at > 1;) {
            if (at === this.process.pid) return true;
            const status = await readFile(`/proc/${at}/status`, "utf8").catch(() => "");
            at = Number(/PPid:\s+(\d+)/.exec(status)?.[1] ?? 0);
        }
        return false;
    }
    end() {
        this.socket?.close();
        this.process.kill("SIGKILL");
        return new Promise((resolve) => this.process.once("exit", resolve));
    }
}

/** In the page: shows a moment, and ends when its frame is on the screen; milliseconds. */
async function seek(time, frame, sides) {
    const slider = document.querySelector("#time-line input");
    const now = document.querySelector(".now");
    const shown = () =>
        [...now.title.matchAll(/Frame (\d+),/g)].map(([, number]) => Number(number));
    const begin = performance.now();
    slider.valueAsNumber = time;
    slider.dispatchEvent(new Event("input"));
    await new Promise((resolve, reject) => {
        const look = () => {
            const { errors } = kirowebPage;
            if (String(shown()) === String(Array(sides).fill(frame))) resolve();
            else if (errors.length > 0) reject(new Error(errors.join()));
            else setTimeout(look);
        };
        look();
    });
    const took = performance.now() - begin;
    for (const { textContent } of document.querySelectorAll(".figure h2")) {
        if (textContent !== `Frame ${frame}`) throw new Error(`${textContent}, not ${frame}`);
    }
    return took;
}

/** In the page: ends when there is a time line; how much of the recordings was gone through. */
async function untilOpen() {
    while (document.querySelector("#time-line")?.hidden !== false) {
        await new Promise((resolve) => setTimeout(resolve, 20));
    }
}

const isRead = () => document.querySelector(".reading").textContent === "";

function print(what, times, most, processor) {
    const sorted = [...times].sort((a, b) => a - b);
    const median = sorted[Math.floor(sorted.length / 2)];
    const [mid, last] = [median, sorted.at(-1)].map((time) => time.toFixed(1).padStart(8));
    const memory = (most / MEGABYTE).toFixed(0).padStart(6);
    const ran = (processor / times.length).toFixed(0).padStart(4);
    console.log(
        `${what.padEnd(28)} median ${mid} ms, most ${last} ms, processor ${ran} ms each, ${memory} MB`,
    );
}

/** Seeks while the page goes through the recordings, and again when it has. */
async function measure(folder, origin, sides) {
    const names = ["a.mcap", "b.mcap"].slice(0, sides);
    const browser = await Browser.start(folder, `${origin}/#replay=${names.join()}`);
    try {
        await browser.evaluate(untilOpen);
        let random = 7;
        for (const phase of ["while it is read through", "later"]) {
            const times = [];
            let most = 0;
            const before = await browser.usage();
            for (let i = 0; i < SEEKS; ++i) {
                random = (random * 48271) % 2147483647;
                const frame = random % (SECONDS * FRAMES_PER_SECOND);
                const time = ((frame + 0.5) / FRAMES_PER_SECOND) * 1000;
                times.push(await browser.evaluate(seek, time, frame, sides));
                most = Math.max(most, (await browser.usage()).memory);
            }
            const { processor } = await browser.usage();
            while (!(await browser.evaluate(isRead))) {
                most = Math.max(most, (await browser.usage()).memory);
                await new Promise((resolve) => setTimeout(resolve, 200));
            }
            print(
                `${sides === 1 ? "one" : "two"}, ${phase}`,
                times,
                most,
                processor - before.processor,
            );
        }
    } finally {
        await browser.end();
    }
}

const folder = await mkdtemp(join(tmpdir(), "kiroweb-seek-"));
try {
    const path = join(folder, "long.mcap");
    execFileSync(join(BUILD, "bin/kiroweb_bench_recording"), [path, String(SECONDS)]);
    const { size } = await stat(path);
    console.log(`${SECONDS} s, ${(size / MEGABYTE).toFixed(0)} MB, ${SEEKS} seeks each`);
    const server = await serve(path);
    const origin = `http://127.0.0.1:${server.address().port}`;
    for (const sides of [1, 2]) await measure(folder, origin, sides);
    server.closeAllConnections();
    server.close();
} finally {
    // What the browser leaves behind may still be written.
    await rm(folder, { recursive: true, force: true, maxRetries: 20, retryDelay: 100 });
}
