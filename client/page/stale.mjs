// Tells when data that should have come have not.

/** Milliseconds without news, after which data are stale. */
export const PATIENCE = 2000;
/** So many frames have to have come one after the other for an engine to be due. */
const REGULAR = 3;

/** Whether an engine is due, from when its frames came. */
export class Watch {
    #last = 0;
    #frame = -1;
    /** Frames that came one soon after the other. */
    #regular = 0;

    /** Moments are milliseconds. @param {number} at when something came last; 0: never
     * @param {number} frame the engine's number of the last frame */
    heard(at, frame) {
        if (at === 0 || at === this.#last) return;
        // What is over when frames stop for a while is counted anew.
        if (at - this.#last > 2 * PATIENCE) this.#regular = 0;
        if (frame !== this.#frame) ++this.#regular;
        this.#frame = frame;
        this.#last = at;
    }

    /** Since when news are missing; null: they are not, or nobody expects any.
     * @param {number} now @param {boolean} isLive whether there is a connection
     * @returns {number | null} */
    staleSince(now, isLive) {
        if (this.#last === 0 || now - this.#last <= PATIENCE) return null;
        return !isLive || this.#regular >= REGULAR ? this.#last : null;
    }
}

/** @param {number} since @param {number} now */
export function staleText(since, now) {
    const clock = new Date(since).toLocaleTimeString([], { hour12: false });
    const seconds = Math.round((now - since) / 1000);
    const ago = seconds < 120 ? `${seconds} s` : `${Math.round(seconds / 60)} min`;
    return `No news since ${clock} (${ago})`;
}
