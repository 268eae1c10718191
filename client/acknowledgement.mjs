// What has been handled of the messages that a view gets, and when the gateway is told.

/** As long as the gateway says nothing else. */
const DEFAULTS = { ackBytes: 1e6, ackMilliseconds: 1000 };

/** Counts the messages of one view after another. */
export class Acknowledgement {
    #acknowledge;
    /** Everything up to this message has been handled. */
    #last = 0;
    #acknowledged = 0;
    /** Numbers, above `#last`, of messages that will not come: their withdrawal may overtake what
     * comes before them. @type {Set<number>} */
    #withdrawn = new Set();
    /** Of the frames since. */
    #size = 0;
    #bounds = DEFAULTS;
    /** @type {ReturnType<typeof setTimeout> | undefined} */
    #timer;

    /** @param {(last: number) => void} acknowledge tells the gateway */
    constructor(acknowledge) {
        this.#acknowledge = acknowledge;
    }

    /** The number of the last message handled. */
    get last() {
        return this.#last;
    }

    /** A view begins. @param {number} next the number of its first message */
    begin(next) {
        this.#last = next - 1;
        this.#acknowledged = this.#last;
        this.#withdrawn.clear();
    }

    /** A connection begins. @param {Record<string, number>} limits of the gateway */
    connected(limits) {
        this.#bounds = { ...DEFAULTS, ...limits };
        this.#size = 0;
    }

    /** The connection is over: the next one's hello acknowledges. */
    stop() {
        clearTimeout(this.#timer);
        this.#timer = undefined;
    }

    /** Counts a message as handled. Returns how many are missing before it, or -1 if it was handled
     * already. @param {number} number @returns {number} */
    take(number) {
        if (number <= this.#last) return -1;
        const missing = number - this.#last - 1;
        this.#last = number;
        this.#passWithdrawn();
        return missing;
    }

    /** Counts a message that will not come as handled, once all before it are.
     * @param {number} [number] absent: it was not numbered */
    withdraw(number = 0) {
        if (number > this.#last) this.#withdrawn.add(number);
        this.#passWithdrawn();
    }

    /** A frame of so many bytes, or UTF-16 units, has been handled. Acknowledges, now or later, what
     * is new. Before it is due: a unit may be three bytes, and the acknowledgement takes its time.
     * @param {number} size */
    count(size) {
        if (this.#last === this.#acknowledged) return;
        this.#size += size;
        const { ackBytes, ackMilliseconds } = this.#bounds;
        if (this.#size > ackBytes / 3) this.#tell();
        else this.#timer ??= setTimeout(() => this.#tell(), ackMilliseconds / 2);
    }

    #tell() {
        this.stop();
        this.#size = 0;
        this.#acknowledged = this.#last;
        this.#acknowledge(this.#last);
    }

    #passWithdrawn() {
        while (this.#withdrawn.delete(this.#last + 1)) ++this.#last;
    }
}
