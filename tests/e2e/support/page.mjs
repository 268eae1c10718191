// What a page shows of itself, and waits for it.
import assert from "node:assert/strict";

const PATIENCE = { timeout: 30_000 };

/** Ends when the page is in this state; the reason that it gives. */
export async function untilState(page, name) {
    await page.waitForSelector(`#status[data-state="${name}"]`, PATIENCE);
    return page.textContent('[data-part="reason"]');
}

/** Ends when so many more tokens have gone back with this outcome. */
export async function untilMore(page, outcome, count) {
    await page.waitForFunction(() => globalThis.kirowebPage, null, PATIENCE);
    const before = await page.evaluate((o) => kirowebPage.outcomes[o], outcome);
    const isReached = ([o, wanted]) => kirowebPage.outcomes[o] >= wanted;
    await page.waitForFunction(isReached, [outcome, before + count], PATIENCE);
}

export const outcomesOf = (page) => page.evaluate(() => ({ ...kirowebPage.outcomes }));

/** The page has met nothing wrong. */
export async function assertClean(page) {
    assert.deepEqual(await page.evaluate(() => kirowebPage.errors), []);
    assert.deepEqual(page.complaints, []);
}

/** What a chart of the figure shows: the colours of its canvas, and where in it the axes lie. */
export async function pictureOf(page, axes) {
    const picture = await page.evaluate((name) => {
        const host = document.querySelector(`[data-name="${name}"]`);
        const canvas = host.querySelector("canvas");
        const whole = canvas.getBoundingClientRect();
        const part = host.querySelector(".u-over").getBoundingClientRect();
        const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
        let bytes = "";
        for (let i = 0; i < data.length; i += 8192) {
            bytes += String.fromCharCode(...data.subarray(i, i + 8192));
        }
        return {
            width: canvas.width,
            height: canvas.height,
            base64: btoa(bytes),
            left: part.left - whole.left,
            top: part.top - whole.top,
            across: part.width,
            down: part.height,
        };
    }, axes);
    return new Picture(picture);
}

class Picture {
    constructor({ base64, ...members }) {
        Object.assign(this, members);
        this.pixels = Buffer.from(base64, "base64");
    }
    /** Where values lie on the canvas. */
    place([x, y], limits) {
        return [
            this.left + ((x - limits.x[0]) / (limits.x[1] - limits.x[0])) * this.across,
            this.top + ((limits.y[1] - y) / (limits.y[1] - limits.y[0])) * this.down,
        ];
    }
    /** Whether a pixel that `matches` (red, green, blue, alpha) lies within so many pixels. */
    hasNear([x, y], reach, matches) {
        for (let row = Math.floor(y - reach); row <= y + reach; ++row) {
            for (let column = Math.floor(x - reach); column <= x + reach; ++column) {
                if (this.#matches(column, row, matches)) return true;
            }
        }
        return false;
    }
    /** The middles of all pixels that match. */
    *all(matches) {
        for (let row = 0; row < this.height; ++row) {
            for (let column = 0; column < this.width; ++column) {
                if (this.#matches(column, row, matches)) yield [column + 0.5, row + 0.5];
            }
        }
    }
    #matches(column, row, matches) {
        if (column < 0 || row < 0 || column >= this.width || row >= this.height) return false;
        const at = (row * this.width + column) * 4;
        return matches(...this.pixels.subarray(at, at + 4));
    }
}
