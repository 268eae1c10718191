// Chance that is the same in each run.

export class Random {
    #state;
    constructor(seed) {
        this.#state = seed >>> 0;
    }
    /** From 0 to below 1. */
    next() {
        this.#state = (Math.imul(this.#state, 1664525) + 1013904223) >>> 0;
        return this.#state / 2 ** 32;
    }
    /** A whole number from 0 to below `end`. */
    below(end) {
        return Math.floor(this.next() * end);
    }
    /** From `low` to `high`, and now and then something that is not finite. */
    value(low, high, missing = 0.05) {
        const chance = this.next();
        if (chance >= missing) return low + (high - low) * this.next();
        return [NaN, NaN, Infinity, -Infinity][this.below(4)];
    }
    values(count, ...range) {
        return Array.from({ length: count }, () => this.value(...range));
    }
}
