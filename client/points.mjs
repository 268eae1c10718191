// Many points, fast: discs stamped into one picture, which only grows while points are appended.
// A canvas would take many times as long for 100,000 circles.

/** A disc's rim, which tells overlapping ones apart: the part of its radius. */
const RIM = 0.25;
const INSIDE = 0.45;
/** Discs are drawn at so many sizes a pixel. */
const STEPS = 2;
/** In pixels. */
const GREATEST_RADIUS = 31;
/** What lies around the picture, so that no disc needs to be cut off. */
const MARGIN = 2 * (GREATEST_RADIUS + 1);
/** How opaque a pixel is, from 0 to this, is kept as so many of the lowest bits of a byte. The more
 * opaque of two pixels is then their bitwise or, which a word does for four pixels at once. */
const OPAQUE = 8;
const PIXELS_PER_WORD = Int32Array.BYTES_PER_ELEMENT;

/** What a disc adds to a picture: words that are not zero, and how far they lie from the first.
 * @typedef {{words: Int32Array, offsets: Int32Array}} Marks */

/** How opaque a disc is, from 0 to 1. @param {number} radius @param {number} distance */
function opacity(radius, distance) {
    const covered = Math.min(1, Math.max(0, radius + 0.5 - distance));
    const onRim = Math.min(1, Math.max(0, distance - radius * (1 - RIM) + 0.5));
    return covered * Math.max(INSIDE, onRim);
}

/** @param {number} radius @param {number} shift pixels between a word's beginning and the disc's
 * @param {number} stride words in a row of the picture @returns {Marks} */
function makeMarks(radius, shift, stride) {
    const half = Math.ceil(radius);
    const size = 2 * half + 1;
    const bytes = new Uint8Array(stride * size * PIXELS_PER_WORD);
    for (let y = 0; y < size; ++y) {
        for (let x = 0; x < size; ++x) {
            const level = Math.round(OPAQUE * opacity(radius, Math.hypot(x - half, y - half)));
            bytes[y * stride * PIXELS_PER_WORD + shift + x] = (1 << level) - 1;
        }
    }
    const words = new Int32Array(bytes.buffer);
    const offsets = Int32Array.from(words.keys()).filter((at) => words[at] !== 0);
    return { words: words.filter((word) => word !== 0), offsets };
}

/** A picture of points in one colour. */
export class PointPicture {
    /** By the step of the radius and the shift. @type {Marks[]} */
    #marks = [];
    #stride;
    #words;
    #colors = new Uint32Array(1 << OPAQUE);

    /** @param {number} width @param {number} height in pixels
     * @param {[number, number, number]} color from 0 to 1 */
    constructor(width, height, color) {
        this.width = width;
        this.height = height;
        this.#stride = Math.ceil((width + 2 * MARGIN) / PIXELS_PER_WORD);
        this.#words = new Int32Array(this.#stride * (height + 2 * MARGIN));
        const bytes = new Uint8ClampedArray(this.#colors.buffer);
        for (let level = 0; level <= OPAQUE; ++level) {
            const rgba = [...color.map((part) => part * 255), (level / OPAQUE) * 255];
            bytes.set(rgba, ((1 << level) - 1) * rgba.length);
        }
    }

    clear() {
        this.#words.fill(0);
    }

    /** Draws one point. @param {number} x @param {number} y its middle
     * @param {number} radius in pixels */
    stamp(x, y, radius) {
        const step = Math.round(Math.min(radius, GREATEST_RADIUS) * STEPS);
        const half = Math.ceil(step / STEPS);
        // What is not a number is not within.
        if (!(x > -half && x < this.width + half && y > -half && y < this.height + half)) return;
        const left = Math.round(x) - half + MARGIN;
        const top = Math.round(y) - half + MARGIN;
        const shift = left % PIXELS_PER_WORD;
        const marks = (this.#marks[step * PIXELS_PER_WORD + shift] ??= makeMarks(
            step / STEPS,
            shift,
            this.#stride,
        ));
        const first = top * this.#stride + (left - shift) / PIXELS_PER_WORD;
        const { words, offsets } = marks;
        const target = this.#words;
        for (let i = 0; i < words.length; ++i) target[first + offsets[i]] |= words[i];
    }

    /** Writes the picture, in rows. @param {Uint32Array} pixels one number each */
    write(pixels) {
        const levels = new Uint8Array(this.#words.buffer);
        for (let row = 0; row < this.height; ++row) {
            const from = (row + MARGIN) * this.#stride * PIXELS_PER_WORD + MARGIN;
            const to = row * this.width;
            for (let x = 0; x < this.width; ++x) pixels[to + x] = this.#colors[levels[from + x]];
        }
    }
}
