// Debian's Chromium, driven by playwright-core, and what tests put before it.
import { after, afterEach, before } from "node:test";

import { playwright } from "../../client/support/packages.mjs";
import { Program } from "./program.mjs";
import { Scene } from "./scene.mjs";

const FLAGS = [
    "--headless",
    "--disable-gpu",
    "--disable-quic",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
];

/** One browser for a file of tests; what a test asks for goes with it. */
export class Stage {
    #cleanUps = [];
    /** @param {string[]} flags of the browser's, besides those that all tests want */
    constructor(flags = []) {
        // The sandbox wants a user who is not root. A missing browser is an error.
        const chromiumSandbox = process.getuid() !== 0;
        const executablePath = "/usr/bin/chromium";
        before(async () => {
            this.browser = await playwright().chromium.launch({
                executablePath,
                args: [...FLAGS, ...flags],
                chromiumSandbox,
            });
        });
        after(() => this.browser?.close());
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
        const context = await this.browser.newContext({
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
    /** Holds the worker of a page, which has the connection; wakes it when the result is called. */
    async freeze(page) {
        const session = await page.context().newCDPSession(page);
        const attached = new Promise((resolve) => session.on("Target.attachedToTarget", resolve));
        const how = { autoAttach: true, waitForDebuggerOnStart: false, flatten: false };
        await session.send("Target.setAutoAttach", how);
        const { sessionId } = await attached;
        let id = 0;
        const debug = (verb) => {
            const message = JSON.stringify({ id: ++id, method: `Debugger.${verb}` });
            return session.send("Target.sendMessageToTarget", { sessionId, message });
        };
        await debug("enable");
        await debug("pause");
        return () => debug("disable");
    }
}
