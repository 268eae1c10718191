// Chance that is the same in each run.

export class Random {
    #state;
    constructor(seed) {
        // Neighbouring seeds must not begin alike.
        this.#state = Math.imul(seed, 0x9e3779b1) | 1;
    }
    /** From 0 to below 1. */
    next() {
        this.#state ^= this.#state << 13;
        this.#state ^= this.#state >>> 17;
        this.#state ^= this.#state << 5;
        return (this.#state >>> 0) / 2 ** 32;
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
