// Tells when data that should have come have not.

/** Milliseconds without news, after which data are stale. */
export const PATIENCE = 2000;
/** So many times there has to be something new, one soon after the other, for more to be due. */
const REGULAR = 3;

/** Whether news of a figure are due, from when there were some. Moments are milliseconds. */
export class Watch {
    #last = 0;
    #regular = 0;

    /** Something in the figure is new. @param {number} at */
    heard(at) {
        // What comes now and then is not due: it would be called stale again and again.
        if (at - this.#last > PATIENCE) this.#regular = 0;
        ++this.#regular;
        this.#last = at;
    }

    /** Whether more is to be expected. */
    get isDue() {
        return this.#regular >= REGULAR;
    }

    /** Since when news are missing; null: they are not, or nobody expects any. An engine that goes
     * on says of the other figures that there is nothing new; without a connection nobody knows.
     * @param {number} now @param {boolean} isLive whether there is a connection
     * @param {number} last when anything came from the engine; 0: never
     * @returns {number | null} */
    staleSince(now, isLive, last) {
        if (last === 0 || now - last <= PATIENCE) return null;
        if (!isLive) return last;
        return this.isDue && last - this.#last <= PATIENCE ? this.#last : null;
    }
}

/** The time of day. @param {number} moment */
export function clockText(moment) {
    return new Date(moment).toLocaleTimeString([], { hour12: false });
}

/** @param {number} since @param {number} now */
export function staleText(since, now) {
    const seconds = Math.round((now - since) / 1000);
    const ago = seconds < 120 ? `${seconds} s` : `${Math.round(seconds / 60)} min`;
    return `No news since ${clockText(since)} (${ago})`;
}
