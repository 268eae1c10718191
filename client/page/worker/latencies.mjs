// What is known of frames' ways: when each was where. As many as there is room for, the newest.

import { STAMPS } from "../latency.mjs";

/** Of a connection, and of a recording: an hour at 60 frames a second. */
export const MOST_LIVE = 10_000;
export const MOST_RECORDED = 1 << 18;

export class Latencies {
    #most;
    #columns;
    /** How many there were, also those that are forgotten. */
    total = 0;

    /** @param {number} most frames that are kept */
    constructor(most) {
        this.#most = most;
        this.#columns = ["time", ...STAMPS].map(() => new Float64Array(most));
    }

    /** @param {number} time of the frame, in milliseconds @param {Record<string, unknown>} stamps
     * microseconds since 1970, by the clock of their side; none at all: it was late */
    add(time, stamps) {
        const at = this.total++ % this.#most;
        this.#columns[0][at] = time;
        for (let i = 0; i < STAMPS.length; ++i) {
            const stamp = Number(stamps[STAMPS[i]]);
            this.#columns[i + 1][at] = Number.isSafeInteger(stamp) && stamp > 0 ? stamp : 0;
        }
    }

    /** All that are kept, as they came. @returns {import("../latency.mjs").Columns} */
    copy() {
        const count = Math.min(this.total, this.#most);
        const begin = this.total % this.#most;
        const [time, ...stamps] = this.#columns.map((column) => {
            if (count < this.#most) return column.slice(0, count);
            const copy = new Float64Array(count);
            copy.set(column.subarray(begin));
            copy.set(column.subarray(0, begin), count - begin);
            return copy;
        });
        const named = Object.fromEntries(STAMPS.map((name, i) => [name, stamps[i]]));
        return /** @type {any} */ ({ time, ...named });
    }
}
