// From values to pixels and back.

/** @typedef {import("./columns.mjs").Places} Places */
/** @typedef {[number, number]} Range */

export class Scale {
    #isLog;
    #low;
    #factor;
    #origin;

    /** @param {string} kind "log", or any other for an even one
     * @param {Range} limits above 0 for "log"
     * @param {number} first the pixel at the lower limit @param {number} last at the upper one */
    constructor(kind, limits, first, last) {
        this.limits = limits;
        this.#isLog = kind === "log";
        const [low, high] = this.#isLog ? limits.map(Math.log10) : limits;
        this.#low = low;
        this.#factor = (last - first) / (high - low);
        this.#origin = first;
        /** Values that are not greater have no place. */
        this.least = this.#isLog ? 0 : -Infinity;
    }

    /** @param {number} value @returns {number} not finite: it has no place */
    toPixel(value) {
        const even = this.#isLog ? Math.log10(value) : value;
        return (even - this.#low) * this.#factor + this.#origin;
    }

    /** @param {number} pixel */
    toValue(pixel) {
        const even = (pixel - this.#origin) / this.#factor + this.#low;
        return this.#isLog ? 10 ** even : even;
    }

    /** The pixels of the elements from index `from` to before `to`.
     * @param {Places} places @param {number} from @param {number} to
     * @param {Float64Array} pixels where they go @returns {Float64Array} */
    toPixels(places, from, to, pixels) {
        const low = this.#low;
        const factor = this.#factor;
        const origin = this.#origin;
        const elements = /** @type {any} */ (places).elements;
        const offset = from - (elements ? /** @type {any} */ (places).offset : 0);
        const count = to - from;
        if (elements) for (let i = 0; i < count; ++i) pixels[i] = elements[i + offset];
        else for (let i = 0; i < count; ++i) pixels[i] = places.at(i + offset);
        if (this.#isLog) for (let i = 0; i < count; ++i) pixels[i] = Math.log10(pixels[i]);
        for (let i = 0; i < count; ++i) pixels[i] = (pixels[i] - low) * factor + origin;
        return pixels;
    }
}
