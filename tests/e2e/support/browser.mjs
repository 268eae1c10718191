// Debian's Chromium, driven by playwright-core.
import { playwright } from "../../client/support/packages.mjs";

export const EXECUTABLE = "/usr/bin/chromium";

const FLAGS = [
    "--headless", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
];

/** The sandbox wants a user who is not root. */
export function browserFlags() {
    return process.getuid() === 0 ? [...FLAGS, "--no-sandbox"] : FLAGS;
}

/** A missing browser is an error: nothing is skipped. */
export function launchBrowser() {
    return playwright().chromium.launch({
        executablePath: EXECUTABLE,
        args: browserFlags(),
        chromiumSandbox: process.getuid() !== 0,
    });
}

/** A page of its own, in a window of its own, that fails the test on what the page complains of. */
export async function openPage(browser, options = {}) {
    const context = await browser.newContext({ viewport: { width: 1280, height: 800 }, ...options });
    const page = await context.newPage();
    page.complaints = [];
    page.on("pageerror", (error) => page.complaints.push(String(error)));
    page.on("console", (message) => {
        if (message.type() === "error") page.complaints.push(message.text());
    });
    return page;
}
