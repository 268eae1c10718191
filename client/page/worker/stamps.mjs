// Many points, fast: discs stamped into a picture. A canvas would take many times as long for
// 100,000 circles.

import { channelsOf } from "../colors.mjs";

/** A disc's rim, which tells overlapping ones apart: the part of its radius. */
export const RIM = 0.25;
export const INSIDE = 0.45;
/** Discs are drawn at so many sizes a pixel. */
export const STEPS = 2;
/** In pixels. A canvas fills a larger circle as fast, and its stamps would take much memory. */
export const GREATEST_RADIUS = 31;
/** What lies around the picture, so that no disc needs to be cut off. */
const MARGIN = 2 * (GREATEST_RADIUS + 1);
/** How opaque a pixel is, from 0 to this, is kept as so many of the lowest bits of a byte. The more
 * opaque of two pixels is then their bitwise or, which a word does for four pixels at once. */
const OPAQUE = 8;
const PIXELS_PER_WORD = Int32Array.BYTES_PER_ELEMENT;
const ALPHA_SHIFT = 24;
const RGB = 0xffffff;
/** How opaque discs are inside of their rims, and in how many levels. */
export const LOOKS = {
    plain: { inside: INSIDE, levels: OPAQUE },
    colored: { inside: 1, levels: 255 },
};

/** What a disc adds to a picture: words, row by row, at least two in each.
 * @typedef {{words: Int32Array, width: number}} Marks */

/** The pixels of a disc of one colour: how opaque, and how far they lie from the upper left one.
 * @typedef {{alphas: Uint8Array, offsets: Int32Array}} Disc */

/** How opaque a disc is, from 0 to 1. @param {number} radius @param {number} distance
 * @param {number} inside */
function opacity(radius, distance, inside) {
    const covered = Math.min(1, Math.max(0, radius + 0.5 - distance));
    const onRim = Math.min(1, Math.max(0, distance - radius * (1 - RIM) + 0.5));
    return covered * Math.max(inside, onRim);
}

/** @param {number} radius @returns {number} in steps */
export function stepOf(radius) {
    return Math.round(Math.max(radius, 0.5) * STEPS);
}

/** @param {number} radius @param {number} shift pixels between a word's beginning and the disc's
 * @returns {Marks} */
function makeMarks(radius, shift) {
    const { inside, levels } = LOOKS.plain;
    const half = Math.ceil(radius);
    const size = 2 * half + 1;
    const width = Math.max(2, Math.ceil((shift + size) / PIXELS_PER_WORD));
    const bytes = new Uint8Array(width * size * PIXELS_PER_WORD);
    for (let y = 0; y < size; ++y) {
        for (let x = 0; x < size; ++x) {
            const distance = Math.hypot(x - half, y - half);
            const level = Math.round(levels * opacity(radius, distance, inside));
            bytes[y * width * PIXELS_PER_WORD + shift + x] = (1 << level) - 1;
        }
    }
    return { words: new Int32Array(bytes.buffer), width };
}

/** @param {number} radius @param {number} stride pixels @returns {Disc} */
function makeDisc(radius, stride) {
    const { inside, levels } = LOOKS.colored;
    const half = Math.ceil(radius);
    const alphas = [];
    const offsets = [];
    for (let y = -half; y <= half; ++y) {
        for (let x = -half; x <= half; ++x) {
            const alpha = Math.round(levels * opacity(radius, Math.hypot(x, y), inside));
            if (alpha === 0) continue;
            alphas.push(alpha);
            offsets.push((y + half) * stride + x + half);
        }
    }
    return { alphas: Uint8Array.from(alphas), offsets: Int32Array.from(offsets) };
}

/** A picture of points in one colour, which may grow. */
export class PointPicture {
    /** By the step of the radius and the shift. @type {Marks[]} */
    #marks = [];
    #stride;
    #words;

    /** @param {number} width @param {number} height in pixels */
    constructor(width, height) {
        this.width = width;
        this.height = height;
        this.#stride = Math.ceil((width + 2 * MARGIN) / PIXELS_PER_WORD);
        this.#words = new Int32Array(this.#stride * (height + 2 * MARGIN));
    }

    clear() {
        this.#words.fill(0);
    }

    /** Draws points; one whose place is no number, or that is too large, is left out.
     * @param {ArrayLike<number>} x @param {ArrayLike<number>} y their middles
     * @param {ArrayLike<number> | number} radii in pixels */
    stamp(x, y, radii) {
        const every = typeof radii === "number" ? radii : null;
        for (let i = 0; i < x.length; ++i) {
            this.#stampOne(x[i], y[i], every ?? /** @type {ArrayLike<number>} */ (radii)[i]);
        }
    }

    /** @param {number} x @param {number} y @param {number} radius */
    #stampOne(x, y, radius) {
        const step = stepOf(radius);
        const half = Math.ceil(step / STEPS);
        // What is not a number is not within.
        if (!(x > -half && x < this.width + half && y > -half && y < this.height + half)) return;
        if (!(radius > 0 && radius <= GREATEST_RADIUS)) return;
        const left = Math.floor(x) - half + MARGIN;
        const top = Math.floor(y) - half + MARGIN;
        const shift = left % PIXELS_PER_WORD;
        const kind = step * PIXELS_PER_WORD + shift;
        const marks = this.#marks[kind] ?? this.#make(kind, step, shift);
        const { words, width } = marks;
        const target = this.#words;
        const stride = this.#stride;
        let row = top * stride + (left - shift) / PIXELS_PER_WORD;
        for (let i = 0; i < words.length; i += width, row += stride) {
            // Most discs are so narrow that this is all: a loop would take half as long again.
            target[row] |= words[i];
            target[row + 1] |= words[i + 1];
            for (let k = 2; k < width; ++k) target[row + k] |= words[i + k];
        }
    }

    /** @param {number} kind @param {number} step @param {number} shift */
    #make(kind, step, shift) {
        // Without holes: an array with some is slow.
        while (this.#marks.length <= kind) {
            this.#marks.push(/** @type {any} */ (undefined));
        }
        this.#marks[kind] = makeMarks(step / STEPS, shift);
        return this.#marks[kind];
    }

    /** Writes the picture, in rows. @param {Uint32Array} pixels one number each
     * @param {string} color */
    write(pixels, color) {
        const colors = new Uint32Array(1 << OPAQUE);
        const bytes = new Uint8ClampedArray(colors.buffer);
        const [red, green, blue, alpha] = channelsOf(color);
        for (let level = 1; level <= OPAQUE; ++level) {
            bytes.set([red, green, blue, (alpha * level) / OPAQUE], ((1 << level) - 1) * 4);
        }
        const levels = new Uint8Array(this.#words.buffer);
        for (let row = 0; row < this.height; ++row) {
            const from = (row + MARGIN) * this.#stride * PIXELS_PER_WORD + MARGIN;
            const to = row * this.width;
            for (let x = 0; x < this.width; ++x) pixels[to + x] = colors[levels[from + x]];
        }
    }
}

/** A picture of points of many colours: a later one lies over an earlier one. */
export class ColoredPointPicture {
    /** By the step of the radius. @type {Disc[]} */
    #discs = [];
    #stride;
    #pixels;

    /** @param {number} width @param {number} height in pixels */
    constructor(width, height) {
        this.width = width;
        this.height = height;
        this.#stride = width + 2 * MARGIN;
        this.#pixels = new Int32Array(this.#stride * (height + 2 * MARGIN));
    }

    clear() {
        this.#pixels.fill(0);
    }

    /** @param {ArrayLike<number>} x @param {ArrayLike<number>} y
     * @param {ArrayLike<number> | number} radii @param {ArrayLike<number>} colors opaque ones */
    stamp(x, y, radii, colors) {
        const target = this.#pixels;
        for (let i = 0; i < x.length; ++i) {
            const radius = typeof radii === "number" ? radii : radii[i];
            const step = stepOf(radius);
            const half = Math.ceil(step / STEPS);
            if (!(x[i] > -half && x[i] < this.width + half)) continue;
            if (!(y[i] > -half && y[i] < this.height + half)) continue;
            if (!(radius > 0 && radius <= GREATEST_RADIUS)) continue;
            const { alphas, offsets } = (this.#discs[step] ??= makeDisc(
                step / STEPS,
                this.#stride,
            ));
            const left = Math.floor(x[i]) - half + MARGIN;
            const first = (Math.floor(y[i]) - half + MARGIN) * this.#stride + left;
            const color = colors[i] & RGB;
            for (let k = 0; k < alphas.length; ++k) {
                const at = first + offsets[k];
                const alpha = alphas[k];
                // A rim does not make what is opaque already shine through.
                if (alpha >= target[at] >>> ALPHA_SHIFT) {
                    target[at] = color | (alpha << ALPHA_SHIFT);
                }
            }
        }
    }

    /** @param {Uint32Array} pixels in rows, one number each */
    write(pixels) {
        for (let row = 0; row < this.height; ++row) {
            const from = (row + MARGIN) * this.#stride + MARGIN;
            pixels.set(this.#pixels.subarray(from, from + this.width), row * this.width);
        }
    }
}
