// Paths through elements.

/** @typedef {import("../columns.mjs").Places} Places */
/** @typedef {import("../columns.mjs").Column} Column */
/** @typedef {import("../painter.mjs").Place} Place */

/** Pixels outside of the picture, from which on a canvas draws coarsely. */
const FAR = 10_000;
/** Pixels for which the pen does not move. */
const CLOSE = 0.35;

/** @param {number} x @param {number} y whether both are finite */
export function isDrawable(x, y) {
    return x - x === 0 && y - y === 0;
}

/** Adds lines to the context's path, with a gap wherever something is missing. An element between
 * two gaps becomes a dot.
 * @param {Places} places @param {Column} values @param {[number, number]} extent indices
 * @param {Place} place @param {string | null} [steps] */
export function tracePath(places, values, [from, to], place, steps = null) {
    const count = Math.max(0, to - from);
    const x = place.x.toPixels(places, from, from + count, new Float64Array(count));
    const y = place.y.toPixels(values, from, from + count, new Float64Array(count));
    const pen = new Pen(place);
    for (let i = 0; i < count; ++i) {
        if (!isDrawable(x[i], y[i])) {
            pen.lift();
            continue;
        }
        if (steps && pen.isDown) {
            const turn =
                steps === "after" ? x[i] : steps === "before" ? x[i - 1] : (x[i - 1] + x[i]) / 2;
            pen.to(turn, y[i - 1]);
            pen.to(turn, y[i]);
        }
        pen.to(x[i], y[i]);
    }
    pen.lift();
}

/** Draws from place to place, and leaves out what is far outside or too close to be seen. */
export class Pen {
    #context;
    #width;
    #height;
    #x = NaN;
    #y = NaN;
    /** Places since it came down. */
    #count = 0;
    /** A place so close to where the pen is that it did not move.
     * @type {[number, number] | null} */
    #passed = null;
    /** Whether the context's path ends where the pen is. */
    #isJoined = false;

    /** @param {Place} place */
    constructor({ context, width, height }) {
        this.#context = context;
        this.#width = width;
        this.#height = height;
    }
    get isDown() {
        return this.#count > 0;
    }
    /** @param {number} x @param {number} y */
    to(x, y) {
        ++this.#count;
        if (Math.abs(x - this.#x) < CLOSE && Math.abs(y - this.#y) < CLOSE) {
            this.#passed = [x, y];
            return;
        }
        if (this.#count > 1) this.#draw(this.#x, this.#y, x, y);
        this.#x = x;
        this.#y = y;
        this.#passed = null;
    }
    lift() {
        if (this.#passed) this.#draw(this.#x, this.#y, ...this.#passed);
        else if (this.#count === 1) this.#draw(this.#x, this.#y, this.#x, this.#y);
        this.#passed = null;
        this.#x = this.#y = NaN;
        this.#count = 0;
        this.#isJoined = false;
    }

    /** @param {number} x0 @param {number} y0 @param {number} x1 @param {number} y1 */
    #draw(x0, y0, x1, y1) {
        if (!this.#isNear(x0, y0) || !this.#isNear(x1, y1)) {
            this.#drawPart(x0, y0, x1, y1);
            return;
        }
        if (!this.#isJoined) this.#context.moveTo(x0, y0);
        this.#context.lineTo(x1, y1);
        this.#isJoined = true;
    }
    /** @param {number} x0 @param {number} y0 @param {number} x1 @param {number} y1 */
    #drawPart(x0, y0, x1, y1) {
        this.#isJoined = false;
        const part = this.#partInside(x0, y0, x1, y1);
        if (!part) return;
        this.#context.moveTo(part[0][0], part[0][1]);
        this.#context.lineTo(part[1][0], part[1][1]);
        this.#isJoined = this.#isNear(x1, y1);
    }
    /** @param {number} x @param {number} y */
    #isNear(x, y) {
        return x > -FAR && x < this.#width + FAR && y > -FAR && y < this.#height + FAR;
    }
    /** @param {number} x0 @param {number} y0 @param {number} x1 @param {number} y1
     * @returns {[number[], number[]] | null} null: all of it is far outside */
    #partInside(x0, y0, x1, y1) {
        let begin = 0;
        let end = 1;
        /** @type {[number, number, number][]} */
        const sides = [
            [x0, x1 - x0, this.#width],
            [y0, y1 - y0, this.#height],
        ];
        for (const [start, way, size] of sides) {
            const a = (-FAR - start) / way;
            const b = (size + FAR - start) / way;
            if (way === 0 && !(start > -FAR && start < size + FAR)) return null;
            if (way === 0) continue;
            begin = Math.max(begin, Math.min(a, b));
            end = Math.min(end, Math.max(a, b));
        }
        if (!(begin < end)) return null;
        const at = (/** @type {number} */ share) => [
            x0 + (x1 - x0) * share,
            y0 + (y1 - y0) * share,
        ];
        return [at(begin), at(end)];
    }
}
