// Many points, fast: discs stamped into the bytes of one picture, which only grows while points are
// appended. A canvas would take many times as long for 100,000 circles, every frame anew.

/** A disc's rim, which tells overlapping ones apart: the part of its radius. */
const RIM = 0.25;
const INSIDE = 0.45;
/** Discs are drawn at so many sizes a pixel. */
const STEPS = 2;
const BYTES_PER_PIXEL = 4;

/** @typedef {{size: number, alpha: Uint8Array}} Stamp */

/** @param {number} radius in pixels @returns {Stamp} */
function makeStamp(radius) {
    const half = Math.ceil(radius + 0.5);
    const size = 2 * half + 1;
    const alpha = new Uint8Array(size * size);
    for (let y = 0; y < size; ++y) {
        for (let x = 0; x < size; ++x) {
            const distance = Math.hypot(x - half, y - half);
            const covered = Math.min(1, Math.max(0, radius + 0.5 - distance));
            const onRim = Math.min(1, Math.max(0, distance - radius * (1 - RIM) + 0.5));
            alpha[y * size + x] = Math.round(255 * covered * Math.max(INSIDE, onRim));
        }
    }
    return { size, alpha };
}

/** A picture of points in one colour. */
export class PointPicture {
    /** @type {Map<number, Stamp>} */
    #stamps = new Map();

    /** @param {number} width @param {number} height in pixels
     * @param {[number, number, number]} color from 0 to 1 */
    constructor(width, height, color) {
        this.width = width;
        this.height = height;
        this.bytes = new Uint8ClampedArray(width * height * BYTES_PER_PIXEL);
        for (let i = 0; i < this.bytes.length; i += BYTES_PER_PIXEL) {
            for (let c = 0; c < 3; ++c) this.bytes[i + c] = color[c] * 255;
        }
    }

    /** Draws one point. @param {number} x @param {number} y its middle
     * @param {number} radius in pixels */
    stamp(x, y, radius) {
        const step = Math.round(radius * STEPS);
        let stamp = this.#stamps.get(step);
        if (!stamp) this.#stamps.set(step, (stamp = makeStamp(step / STEPS)));
        const { size, alpha } = stamp;
        const left = Math.round(x) - (size >> 1);
        const top = Math.round(y) - (size >> 1);
        const fromX = Math.max(0, -left);
        const toX = Math.min(size, this.width - left);
        const fromY = Math.max(0, -top);
        const toY = Math.min(size, this.height - top);
        const { bytes, width } = this;
        for (let row = fromY; row < toY; ++row) {
            let at = ((top + row) * width + left + fromX) * BYTES_PER_PIXEL + 3;
            for (let i = row * size + fromX; i < row * size + toX; ++i) {
                if (alpha[i] > bytes[at]) bytes[at] = alpha[i];
                at += BYTES_PER_PIXEL;
            }
        }
    }
}
