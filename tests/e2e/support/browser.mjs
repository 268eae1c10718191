// The browser of tests, both through playwright-core: Debian's Chromium over its DevTools, or its
// Firefox over WebDriver BiDi where the environment's KIROWEB_BROWSER is "firefox".
import assert from "node:assert/strict";
import { once } from "node:events";
import { readFileSync, readdirSync } from "node:fs";
import { mkdtemp, rename, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { basename, join } from "node:path";

import { playwright } from "../../client/support/packages.mjs";

export const NAME = process.env.KIROWEB_BROWSER || "chromium";

/** For a test of what one browser offers: skips it in others, and says why. */
export const only = (name, why) => (NAME === name ? {} : { skip: `${name} only: ${why}` });

/** What playwright-core itself works with, for what its interface has no words for. */
const insideOf = (object) => object._connection.toImpl(object);

/** All processes below one. */
function* processesBelow(pid) {
    for (const task of readdirSync(`/proc/${pid}/task`)) {
        const children = readFileSync(`/proc/${pid}/task/${task}/children`, "utf8");
        for (const child of children.split(" ").filter(Boolean).map(Number)) {
            yield child;
            yield* processesBelow(child);
        }
    }
}

/** The processes of a browser in which pages run, also those that wait for pages. */
function pageProcesses(browser, title) {
    const { pid } = insideOf(browser).options.browserProcess.process;
    const isOfPages = (one) => title.test(readFileSync(`/proc/${one}/cmdline`, "latin1"));
    const pids = [...processesBelow(pid)].filter(isOfPages);
    assert.notEqual(pids.length, 0, "no process of pages is known");
    return pids;
}

class Chromium {
    static FLAGS = [
        "--headless",
        "--disable-gpu",
        "--disable-quic",
        "--no-first-run",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
    ];
    async launch(flags) {
        this.browser = await playwright().chromium.launch({
            executablePath: "/usr/bin/chromium",
            args: [...Chromium.FLAGS, ...flags],
            // The sandbox wants a user who is not root. A missing browser is an error.
            chromiumSandbox: process.getuid() !== 0,
        });
    }
    close() {
        return this.browser?.close();
    }
    context(options) {
        return this.browser.newContext(options);
    }
    pageProcesses() {
        return pageProcesses(this.browser, /--type=renderer\b/);
    }
    async download(page, ask) {
        const download = page.waitForEvent("download");
        await ask();
        const file = await download;
        return { name: file.suggestedFilename(), path: await file.path() };
    }
    async touch(page, type, touchPoints) {
        this.fingers ??= await page.context().newCDPSession(page);
        await this.fingers.send("Input.dispatchTouchEvent", { type, touchPoints });
    }
}

/** A proxy that nobody is: what Firefox would say to the world is said to no one. */
const NOBODY = { server: "socks5://127.0.0.1:9" };

const moveTo = ({ x, y }) => ({ type: "pointerMove", x, y });

/** Has pointers do something in Firefox. @param {object[][]} actions of each */
function act(page, name, pointerType, actions) {
    const { _session: session } = insideOf(page).delegate;
    const pointer = { type: "pointer", parameters: { pointerType } };
    return session.send("input.performActions", {
        context: session.sessionId,
        actions: actions.map((own, i) => ({ ...pointer, id: name + (i || ""), actions: own })),
    });
}

class Firefox {
    static PREFERENCES = {
        "network.proxy.type": 1,
        "network.proxy.socks_version": 5,
        "network.proxy.socks_remote_dns": true,
        // What would be said, besides what playwright-core leaves out.
        "app.normandy.enabled": false,
        "browser.region.network.url": "",
        "browser.region.update.enabled": false,
        "datareporting.usage.uploadEnabled": false,
        "dom.push.connection.enabled": false,
        "extensions.systemAddon.update.enabled": false,
        "media.gmp-provider.enabled": false,
        "messaging-system.rsexperimentloader.enabled": false,
        "network.captive-portal-service.enabled": false,
        "network.dns.disablePrefetch": true,
        "network.trr.mode": 5,
        "security.OCSP.enabled": 0,
        "services.settings.server": "data:,",
        "toolkit.telemetry.enabled": false,
        "toolkit.telemetry.server": "",
        // Downloads go where the test looks for them.
        "browser.download.folderList": 2,
        // Its panel would open some time later, and take the keys that are meant for the page.
        "browser.download.alwaysOpenPanel": false,
        "dom.w3c_touch_events.enabled": 1,
    };
    #browsers = new Map();
    #downloads = 0;

    async launch() {
        this.folder = await mkdtemp(join(tmpdir(), "kiroweb-"));
        // playwright-core wants a browser that ends when a process of its pages does.
        this.program = join(this.folder, "firefox");
        const script = 'unset MOZ_CRASHREPORTER_SHUTDOWN\nexec /usr/bin/firefox-esr "$@"\n';
        await writeFile(this.program, `#!/bin/sh\n${script}`, { mode: 0o755 });
        await this.#browser();
    }
    async close() {
        for (const browser of this.#browsers.values()) await browser.close();
        if (this.folder) await rm(this.folder, { recursive: true });
    }
    async context({ colorScheme, proxy, offline = false, ...options }) {
        const browser = await this.#browser(colorScheme, offline ? NOBODY : proxy);
        const context = await browser.newContext(options);
        // Clicks make a double one if they are asked for at once, which playwright-core does not.
        context.on("page", (page) => {
            page.mouse.dblclick = (x, y) => {
                const click = ["pointerDown", "pointerUp"].map((type) => ({ type, button: 0 }));
                return act(page, "pw_mouse", "mouse", [[moveTo({ x, y }), ...click, ...click]]);
            };
        });
        return context;
    }
    pageProcesses() {
        return [...this.#browsers.values()].flatMap((one) => pageProcesses(one, /\btab\0*$/));
    }
    async download(page, ask) {
        const ended = once(insideOf(page).delegate._session, "browsingContext.downloadEnd");
        await ask();
        const [{ status, filepath }] = await ended;
        assert.equal(status, "complete");
        // The next one may have the same name.
        const path = join(this.folder, `${(this.#downloads += 1)}`);
        await rename(filepath, path);
        return { name: basename(filepath), path };
    }
    async touch(page, type, touchPoints) {
        const verbs = {
            touchStart: (at) => [moveTo(at), { type: "pointerDown", button: 0 }],
            touchMove: (at) => [moveTo(at)],
            touchEnd: () => [{ type: "pointerUp", button: 0 }],
        };
        if (type !== "touchEnd") this.fingers = touchPoints;
        await act(page, "finger", "touch", this.fingers.map(verbs[type]));
    }
    /** Colours and the proxy are the browser's settings: one browser for each. Without a proxy it
     * reaches this machine, and nothing else. */
    async #browser(scheme = "light", proxy = undefined) {
        const { hostname, port, href } = new URL((proxy ?? NOBODY).server);
        const key = `${scheme} ${proxy && href}`;
        if (!this.#browsers.has(key)) {
            const browser = await playwright().firefox.launch({
                channel: "moz-firefox", // by BiDi
                executablePath: this.program,
                firefoxUserPrefs: {
                    ...Firefox.PREFERENCES,
                    "network.proxy.socks": hostname,
                    "network.proxy.socks_port": Number(port),
                    "network.proxy.no_proxies_on": proxy ? "" : "127.0.0.1",
                    "network.proxy.allow_hijacking_localhost": Boolean(proxy),
                    "browser.download.dir": this.folder,
                    "layout.css.prefers-color-scheme.content-override": scheme === "dark" ? 0 : 1,
                },
            });
            this.#browsers.set(key, browser);
        }
        return this.#browsers.get(key);
    }
}

const KINDS = { chromium: Chromium, firefox: Firefox };
assert.ok(KINDS[NAME], `KIROWEB_BROWSER is "${NAME}": it has to be one of ${Object.keys(KINDS)}`);
export const Browser = KINDS[NAME];
