// How long to wait before another attempt to connect.

/** @typedef {{first: number, soon: number, most: number}} Waits milliseconds: before the first
 *   attempt, at most while the view can still be returned to, and at most */

/** Doubles with each attempt. Half of a wait is chance, so that many pages do not come at once. */
export class Backoff {
    #waits;
    #random;
    #attempts = 0;
    /** Until when the view can be returned to, by `performance.now()`. */
    #viewUntil = 0;

    /** @param {Waits} waits @param {() => number} random from 0 to below 1 */
    constructor(waits, random) {
        this.#waits = waits;
        this.#random = random;
    }

    /** The connection was lost now. @param {number} milliseconds for which its view is kept */
    lost(milliseconds) {
        this.#viewUntil = performance.now() + milliseconds;
    }

    /** The next wait is a first one. */
    reset() {
        this.#attempts = 0;
    }

    /** @returns {number} milliseconds */
    next() {
        const { first, soon, most } = this.#waits;
        const bound = performance.now() < this.#viewUntil ? soon : most;
        const longest = Math.min(bound, first * 2 ** this.#attempts++);
        return longest * (0.5 + this.#random() / 2);
    }
}
