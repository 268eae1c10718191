// A line that has many more elements than the picture has columns of pixels: what it covers of each
// column, from its true least to its true greatest value.

/** @typedef {import("./columns.mjs").Places} Places */
/** @typedef {import("./columns.mjs").Column} Column */
/** @typedef {import("./scale.mjs").Scale} Scale */

/** For each column of pixels the index of the first element that lies in it or behind it, and at
 * last that of the first behind all. REQUIRES: the places are sorted.
 * @param {Places} places @param {Scale} scale from left to right @param {number} width
 * @returns {Int32Array} */
export function columnBounds(places, scale, width) {
    const bounds = new Int32Array(width + 1);
    let index = places.begin;
    for (let column = 0; column <= width; ++column) {
        index = places.lowerBound(scale.toValue(column), index);
        bounds[column] = index;
    }
    return bounds;
}

/** What a line covers, by columns of pixels: from `tops` to `bottoms`, NaN: nothing. */
export class Cover {
    /** @param {number} width */
    constructor(width) {
        this.width = width;
        this.tops = new Float64Array(width).fill(NaN);
        this.bottoms = new Float64Array(width).fill(NaN);
    }

    /** @param {number} column @param {number} top @param {number} bottom */
    #extend(column, top, bottom) {
        if (!(this.tops[column] <= top)) this.tops[column] = top;
        if (!(this.bottoms[column] >= bottom)) this.bottoms[column] = bottom;
    }

    /** The elements themselves. A missing one is passed over.
     * @param {Column} values @param {Int32Array} bounds @param {Scale} scale */
    addElements(values, bounds, scale) {
        for (let column = 0; column < this.width; ++column) {
            if (bounds[column] === bounds[column + 1]) continue;
            const [low, high] = values.extremes(bounds[column], bounds[column + 1], scale.least);
            if (low <= high) this.#extend(column, scale.toPixel(high), scale.toPixel(low));
        }
    }

    /** What connects the last element before a column with the first one in it, unless one of them
     * is missing.
     * @param {Places} places @param {Column} values @param {Int32Array} bounds
     * @param {{x: Scale, y: Scale}} scales @param {string | null} steps */
    addConnections(places, values, bounds, { x, y }, steps) {
        for (let column = 0; column <= this.width; ++column) {
            const index = bounds[column];
            if (column > 0 && index === bounds[column - 1]) continue;
            if (index <= places.begin || index >= places.end) continue;
            const before = [x.toPixel(places.at(index - 1)), y.toPixel(values.at(index - 1))];
            const after = [x.toPixel(places.at(index)), y.toPixel(values.at(index))];
            if (![...before, ...after].every(Number.isFinite)) continue;
            this.#addStep(before, after, steps);
        }
    }

    /** @param {number[]} before @param {number[]} after @param {string | null} steps */
    #addStep([x0, y0], [x1, y1], steps) {
        if (!steps) return this.#addSegment(x0, y0, x1, y1);
        const turn = steps === "after" ? x1 : steps === "before" ? x0 : (x0 + x1) / 2;
        this.#addSegment(x0, y0, turn, y0);
        this.#addSegment(turn, y0, turn, y1);
        return this.#addSegment(turn, y1, x1, y1);
    }

    /** @param {number} x0 @param {number} y0 @param {number} x1 not less @param {number} y1 */
    #addSegment(x0, y0, x1, y1) {
        const last = Math.min(this.width - 1, Math.floor(x1));
        const slope = x1 > x0 ? (y1 - y0) / (x1 - x0) : 0;
        for (let column = Math.max(0, Math.floor(x0)); column <= last; ++column) {
            const a = x0 >= column ? y0 : y0 + (column - x0) * slope;
            const b = x1 <= column + 1 ? y1 : y0 + (column + 1 - x0) * slope;
            this.#extend(column, Math.min(a, b), Math.max(a, b));
        }
    }

    /** Widens everything to both sides and up and down, as a pen of a width does.
     * @param {number} thickness in pixels */
    thicken(thickness) {
        const side = Math.round((thickness - 1) / 2);
        const { tops, bottoms } = this;
        this.tops = tops.map((_, at) => extremeAround(tops, at, side, Math.min) - thickness / 2);
        this.bottoms = bottoms.map(
            (_, at) => extremeAround(bottoms, at, side, Math.max) + thickness / 2,
        );
    }
}

/** @param {Float64Array} values @param {number} at @param {number} side
 * @param {(a: number, b: number) => number} choose */
function extremeAround(values, at, side, choose) {
    let found = values[at];
    for (let i = Math.max(0, at - side); i <= Math.min(values.length - 1, at + side); ++i) {
        if (Number.isNaN(found)) found = values[i];
        else if (!Number.isNaN(values[i])) found = choose(found, values[i]);
    }
    return found;
}
