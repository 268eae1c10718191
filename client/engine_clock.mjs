// How far the engine's clock is ahead of the page's: the page asks its gateway what its clock says, and
// the gateway knows how far the engine's is ahead of that.

/** The smallest round trip of so many counts: what is late was late on one of its ways only. */
const SAMPLES = 16;
/** So many exchanges follow each other soon; milliseconds between them, and between later ones. */
const SOON = 4;
const WAIT_SOON = 100;
const WAIT = 2000;

/** In microseconds. What is ahead is right up to the uncertainty.
 * @typedef {{ahead: number, uncertainty: number}} Difference */
/** "shift": what makes of a stamp of the page's one of the engine's; 0 where it is not known that they
 * differ. @typedef {Difference & {shift: number}} Clock */

/** Measures while there is a connection. What was measured stays until there is something new. */
export class EngineClock {
    #now;
    #ask;
    /** Of the gateway's clock. @type {Difference[]} */
    #samples = [];
    /** Whether they are of an earlier connection, which may have led to another gateway. */
    #areOld = false;
    /** Of the engine's clock to the gateway's. @type {Difference | null} */
    #engine = null;
    /** @type {ReturnType<typeof setTimeout> | undefined} */
    #timer;

    /** @param {() => number} now microseconds since 1970
     * @param {(answered: (message: any) => void) => void} ask the gateway */
    constructor(now, ask) {
        this.#now = now;
        this.#ask = ask;
    }

    /** The engine's to the page's; null: nothing is known. @returns {Clock | null} */
    get clock() {
        const [first, ...others] = this.#samples;
        if (!first || !this.#engine) return null;
        const best = others.reduce((a, b) => (b.uncertainty < a.uncertainty ? b : a), first);
        const ahead = best.ahead + this.#engine.ahead;
        const uncertainty = best.uncertainty + this.#engine.uncertainty;
        return { ahead, uncertainty, shift: Math.abs(ahead) > uncertainty ? Math.round(ahead) : 0 };
    }

    /** There is a connection. */
    begin() {
        this.#areOld = true;
        this.#exchange(SOON);
    }
    /** It is lost. */
    stop() {
        clearTimeout(this.#timer);
    }

    /** @param {number} left exchanges that follow soon */
    #exchange(left) {
        const sent = this.#now();
        this.#ask((answer) => {
            // A gateway of an earlier version does not say, and is not asked again.
            if (!this.#take(sent, answer)) return;
            const wait = left > 1 ? WAIT_SOON : WAIT;
            this.#timer = setTimeout(() => this.#exchange(left - 1), wait);
        });
    }

    /** @param {number} sent @param {any} answer @returns {boolean} whether it says the time */
    #take(sent, { time, engineAhead, uncertainty }) {
        if (!Number.isFinite(time)) return false;
        const received = this.#now();
        const isKnown = Number.isFinite(engineAhead) && Number.isFinite(uncertainty);
        this.#engine = isKnown ? { ahead: engineAhead, uncertainty } : null;
        if (this.#areOld) this.#samples = [];
        this.#areOld = false;
        const one = { ahead: time - (sent + received) / 2, uncertainty: (received - sent) / 2 };
        if (one.uncertainty < 0) return true; // the page's clock was set meanwhile
        // What cannot be true beside the newest was so before a clock was set.
        const agrees = (/** @type {Difference} */ { ahead, uncertainty: range }) =>
            Math.abs(ahead - one.ahead) <= range + one.uncertainty;
        this.#samples = [...this.#samples.filter(agrees).slice(1 - SAMPLES), one];
        return true;
    }
}
