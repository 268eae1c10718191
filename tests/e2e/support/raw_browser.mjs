// Chromium without playwright, which holds every page to be looked at: here tabs can be hidden.
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";

import { WebSocket } from "../../client/support/packages.mjs";
import { EXECUTABLE, browserFlags } from "./browser.mjs";

export class RawBrowser {
    #answers = new Map();
    /** By session, who waits for its page to be loaded. */
    #loads = new Map();
    #count = 0;

    static async launch() {
        const browser = new RawBrowser();
        browser.profile = await mkdtemp(join(tmpdir(), "kiroweb-browser-"));
        const own = ["--remote-debugging-port=0", `--user-data-dir=${browser.profile}`, "about:blank"];
        browser.process = spawn(EXECUTABLE, [...browserFlags(), ...own]);
        browser.exited = once(browser.process, "exit");
        const url = await new Promise((resolve, reject) => {
            browser.exited.then(() => reject(new Error("the browser has ended")));
            createInterface({ input: browser.process.stderr }).on("line", (line) => {
                const found = line.match(/listening on (ws:.*)/);
                if (found) resolve(found[1]);
            });
        });
        browser.socket = new WebSocket(url);
        await once(browser.socket, "open");
        browser.socket.on("message", (data) => browser.#hear(JSON.parse(data)));
        return browser;
    }
    /** A tab in front of the others, as the identifiers of its target and of a session with it. */
    async open(url) {
        const { targetId } = await this.send("Target.createTarget", { url: "about:blank" });
        const { sessionId } = await this.send("Target.attachToTarget", { targetId, flatten: true });
        await this.send("Page.enable", {}, sessionId);
        const loaded = new Promise((resolve) => this.#loads.set(sessionId, resolve));
        await this.send("Page.navigate", { url }, sessionId);
        await loaded;
        return { targetId, sessionId };
    }
    /** Brings it to the front. */
    show({ targetId }) {
        return this.send("Target.activateTarget", { targetId });
    }
    async evaluate({ sessionId }, expression) {
        const how = { expression, awaitPromise: true, returnByValue: true };
        const { result, exceptionDetails } = await this.send("Runtime.evaluate", how, sessionId);
        if (exceptionDetails) throw new Error(exceptionDetails.exception?.description);
        return result.value;
    }
    /** Ends when the expression is true. */
    until(tab, expression) {
        return this.evaluate(tab, `new Promise((done) => {
            const { port1, port2 } = new MessageChannel();
            port1.onmessage = () => ${expression} ? done() : setTimeout(() => port2.postMessage(0), 20);
            port2.postMessage(0);
        })`);
    }
    async close() {
        this.process.kill("SIGKILL");
        await this.exited;
        await rm(this.profile, { recursive: true, maxRetries: 5 });
    }
    async send(method, params, sessionId) {
        const id = ++this.#count;
        this.socket.send(JSON.stringify({ id, method, params, sessionId }));
        const { result, error } = await new Promise((resolve) => this.#answers.set(id, resolve));
        if (error) throw new Error(`${method}: ${error.message}`);
        return result;
    }
    #hear(message) {
        if (message.method === "Page.loadEventFired") this.#loads.get(message.sessionId)?.();
        this.#answers.get(message.id)?.(message);
        this.#answers.delete(message.id);
    }
}
