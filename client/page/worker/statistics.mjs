// How the page keeps up, told twice a second.

/** @typedef {import("../messages.mjs").ToMain} ToMain */

const PERIOD = 500;

export class Statistics {
    #post;
    /** @type {ReturnType<typeof setInterval> | undefined} */
    #timer;
    #frames = 0;
    #frame = 0;
    #news = 0;
    /** Figures, since the last time. @type {Set<number>} */
    #changed = new Set();
    /** Microseconds, since the last time. @type {number[]} */
    #flushes = [];
    /** @type {Record<string, number>} */
    #outcomes = { painted: 0, hidden: 0, paused: 0, failed: 0 };

    /** @param {(message: ToMain) => void} post */
    constructor(post) {
        this.#post = post;
    }

    /** @param {() => {bytes: number, recorded: number}} sizes of what was received, altogether, and
     * of the recording */
    begin(sizes) {
        clearInterval(this.#timer);
        this.#timer = setInterval(() => this.#tell(sizes()), PERIOD);
    }
    end() {
        clearInterval(this.#timer);
    }
    /** @param {number} frame its number */
    countFrame(frame) {
        ++this.#frames;
        this.#frame = frame;
    }
    countNews() {
        this.#news = Date.now();
    }
    /** @param {Iterable<number>} figures in which something is new */
    countChanged(figures) {
        for (const figure of figures) this.#changed.add(figure);
    }
    /** @param {import("../messages.mjs").Outcome} outcome @param {number} flush microseconds */
    countAnswer(outcome, flush) {
        ++this.#outcomes[outcome];
        this.#flushes.push(flush);
    }

    /** @param {{bytes: number, recorded: number}} sizes */
    #tell(sizes) {
        const flushes = this.#flushes.splice(0).sort((a, b) => a - b);
        this.#post({
            kind: "statistics",
            frames: this.#frames,
            flush: flushes[flushes.length >> 1] ?? 0,
            ...sizes,
            frame: this.#frame,
            news: this.#news,
            changed: [...this.#changed],
            outcomes: { ...this.#outcomes },
        });
        this.#frames = 0;
        this.#changed.clear();
    }
}
