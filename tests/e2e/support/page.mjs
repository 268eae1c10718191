// What a page shows of itself, and waits for it.
import assert from "node:assert/strict";

const PATIENCE = { timeout: 30_000 };

/** Ends when the page is in this state; the reason that it gives. */
export async function untilState(page, name) {
    await page.waitForSelector(`#status[data-state="${name}"]`, PATIENCE);
    return page.textContent('[data-part="reason"]');
}

/** Ends when the page's worker knows what was done to the page; what an engine sends then comes later. */
export async function untilKnown(page) {
    await page.evaluate(() => kirowebPage.worker.ask({ kind: "csv", axes: [] }));
}

/** The page has met nothing wrong. */
export async function assertClean(page) {
    assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
    assert.deepEqual(page.complaints, []);
}

/** Ends when a recording's time line is there, and figures are as large as without it. */
export async function untilReplay(page) {
    assert.equal(await untilState(page, "replay"), "");
    const line = page.locator("#time-line");
    await line.waitFor();
    const { height } = await line.boundingBox();
    await page.setViewportSize({ width: 1280, height: 800 + Math.round(height) });
    const twice = (call) => requestAnimationFrame(() => requestAnimationFrame(call));
    await page.evaluate(`new Promise(${twice})`);
}

/** Ends when these frames are seen, one of each recording. */
export async function untilFrame(page, ...numbers) {
    await page.waitForFunction(
        (wanted) => {
            const told = document.querySelector(".now").title.matchAll(/Frame (\d+),/g);
            return String([...told].map(([, frame]) => frame)) === wanted;
        },
        String(numbers),
        { timeout: 20_000 },
    );
}
