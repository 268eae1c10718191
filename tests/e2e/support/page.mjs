// What a page shows of itself, and waits for it.
import assert from "node:assert/strict";

const PATIENCE = { timeout: 30_000 };

/** Ends when the page is in this state; the reason that it gives. */
export async function untilState(page, name) {
    await page.waitForSelector(`#status[data-state="${name}"]`, PATIENCE);
    return page.textContent('[data-part="reason"]');
}

/** The page has met nothing wrong. */
export async function assertClean(page) {
    assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
    assert.deepEqual(page.complaints, []);
}
