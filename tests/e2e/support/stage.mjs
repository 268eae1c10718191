// What tests put before a browser.
import { after, afterEach, before } from "node:test";

import { Browser } from "./browser.mjs";
import { Program } from "./program.mjs";
import { Scene } from "./scene.mjs";

/** One browser for a file of tests; what a test asks for goes with it. */
export class Stage {
    #cleanUps = [];
    browser = new Browser();
    /** @param {string[]} flags of Chromium's, besides those that all tests want */
    constructor(flags = []) {
        before(() => this.browser.launch(flags));
        after(() => this.browser.close());
        afterEach(async () => {
            for (const cleanUp of this.#cleanUps.splice(0).reverse()) await cleanUp();
        });
    }
    /** Calls when the test is over, the latest first. */
    defer(cleanUp) {
        this.#cleanUps.push(cleanUp);
    }
    /** A page in a window of its own, which keeps what it complains of. */
    async page(options = {}) {
        const context = await this.browser.context({
            viewport: { width: 1280, height: 800 },
            ...options,
        });
        this.defer(() => context.close());
        const page = await context.newPage();
        page.complaints = [];
        page.on("pageerror", (error) => page.complaints.push(String(error)));
        page.on("console", (message) => {
            if (message.type() === "error") page.complaints.push(message.text());
        });
        return page;
    }
    /** A scene of the program that draws for tests. */
    async scene(...options) {
        const scene = await Scene.start(...options);
        this.defer(() => scene.kill());
        return scene;
    }
    /** The monitor, without a browser of its own. */
    async monitor(...options) {
        const { KIROWEB_MONITOR } = process.env;
        const monitor = await Program.run(KIROWEB_MONITOR, ["--no-browser", ...options]);
        this.defer(() => monitor.kill());
        return monitor;
    }
    /** Stops the processes of pages; they go on when the result is called. */
    freeze() {
        const pids = this.browser.pageProcesses();
        const send = (signal) => pids.forEach((pid) => process.kill(pid, signal));
        send("SIGSTOP");
        const wake = () => send("SIGCONT");
        this.defer(wake);
        return wake;
    }
}
