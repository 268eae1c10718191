// Images: each pixel of the canvas has the colour of the value that lies there, or of the mean of
// several.

import { MISSING_PIXEL, colorLimitsOf, colorTable } from "../color_maps.mjs";
import { edgesOf } from "../extents.mjs";

/** @typedef {import("../scene.mjs").Item} Item */
/** @typedef {import("../painter.mjs").Place} Place */
/** @typedef {import("../scale.mjs").Scale} Scale */

/** @param {Item} series @param {Place} place */
export function paintImage(series, place) {
    const { columns, properties } = series;
    const { rows, columns: across, colorMap } = properties;
    if (!columns.z || rows * across === 0) return;
    if (columns.z.end !== rows * across) {
        throw new RangeError(`${columns.z.end} values for ${rows} rows of ${across}`);
    }
    const { x, y } = edgesOf(series);
    const cells = {
        columns: cellsOf(place.x, x, across, place.width),
        rows: cellsOf(place.y, y, rows, place.height),
    };
    const values = columns.z.elements;
    const limits = colorLimitsOf(series);
    place.drawPixels((pixels) => {
        lookUp(values, across, cells, limits, colorTable(colorMap), pixels);
    });
}

/** Which rows or columns each pixel shows: from `begins` to below `ends`, which are the same where
 * there are none. @typedef {{begins: Int32Array, ends: Int32Array}} Cells */

/** Those whose middle lies in a pixel, or else the one that lies at its own middle.
 * @param {Scale} scale @param {[number, number]} edges @param {number} count of cells
 * @param {number} size in pixels @returns {Cells} */
function cellsOf(scale, [low, high], count, size) {
    const cellAt = (/** @type {number} */ pixel) =>
        ((scale.toValue(pixel) - low) / (high - low)) * count;
    const begins = new Int32Array(size);
    const ends = new Int32Array(size);
    for (let pixel = 0; pixel < size; ++pixel) {
        const middle = Math.floor(cellAt(pixel + 0.5));
        if (!(middle >= 0 && middle < count)) continue;
        const [one, other] = [cellAt(pixel), cellAt(pixel + 1)];
        const begin = Math.max(Math.round(Math.min(one, other)), 0);
        const end = Math.min(Math.round(Math.max(one, other)), count);
        begins[pixel] = begin < end ? begin : middle;
        ends[pixel] = begin < end ? end : middle + 1;
    }
    return { begins, ends };
}

/** Takes means of cells, so that nothing between two pixels is passed over.
 * @param {import("../columns.mjs").Elements} values row by row @param {number} across in a row
 * @param {Cells} columns of the picture */
function meansOf(values, across, { begins, ends }) {
    const sums = new Float64Array(across);
    const isPlain = begins.every((begin, i) => ends[i] - begin <= 1);

    const addUp = (/** @type {number} */ top, /** @type {number} */ bottom) => {
        // The first two at once: that saves a pass over the sums.
        let at = top * across;
        if (bottom - top === 1) {
            for (let cell = 0; cell < across; ++cell, ++at) sums[cell] = values[at];
            return;
        }
        for (let cell = 0; cell < across; ++cell, ++at) {
            sums[cell] = values[at] + values[at + across];
        }
        for (at += across; at < bottom * across;) {
            for (let cell = 0; cell < across; ++cell, ++at) sums[cell] += values[at];
        }
    };
    /** Without what is missing. What is missing for the most part is NaN.
     * @param {number} begin @param {number} end @param {number} top @param {number} bottom */
    const meanOfRest = (begin, end, top, bottom) => {
        let sum = 0;
        let count = 0;
        for (let row = top; row < bottom; ++row) {
            for (let at = row * across + begin; at < row * across + end; ++at) {
                const value = values[at];
                if (value - value !== 0) continue;
                sum += value;
                ++count;
            }
        }
        return 2 * count >= (end - begin) * (bottom - top) ? sum / count : NaN;
    };

    /** Of the rows from `top` to below `bottom`.
     * @param {number} top @param {number} bottom @param {Float64Array} line by columns */
    return (top, bottom, line) => {
        if (isPlain && bottom - top === 1) {
            for (let i = 0; i < line.length; ++i) line[i] = values[top * across + begins[i]];
            return;
        }
        addUp(top, bottom);
        for (let i = 0; i < line.length; ++i) {
            const begin = begins[i];
            const end = ends[i];
            let sum = sums[begin];
            for (let cell = begin + 1; cell < end; ++cell) sum += sums[cell];
            // One value that is missing makes the sum NaN.
            line[i] =
                sum - sum === 0
                    ? sum / ((end - begin) * (bottom - top))
                    : meanOfRest(begin, end, top, bottom);
        }
    };
}

/** @param {import("../columns.mjs").Elements} values row by row
 * @param {number} across values in a row
 * @param {{columns: Cells, rows: Cells}} cells by columns and rows of the picture
 * @param {[number, number]} limits @param {Uint32Array} table
 * @param {Uint32Array} pixels where the picture goes, row by row */
function lookUp(values, across, { columns, rows }, [low, high], table, pixels) {
    const width = columns.ends.length;
    const count = table.length;
    const factor = count / (high - low);
    // Columns without a cell are at the ends.
    let from = 0;
    let to = width;
    while (from < to && columns.ends[from] === 0) ++from;
    while (from < to && columns.ends[to - 1] === 0) --to;
    const takeMeans = meansOf(values, across, columns);
    const line = new Float64Array(width);
    for (let row = 0; row < rows.ends.length; ++row) {
        if (rows.ends[row] === 0) continue;
        takeMeans(rows.begins[row], rows.ends[row], line);
        for (let column = from; column < to; ++column) {
            const value = (line[column] - low) * factor;
            let color = MISSING_PIXEL;
            if (value >= 0 && value < count) color = table[value | 0];
            else if (value - value === 0) color = table[value < 0 ? 0 : count - 1];
            pixels[row * width + column] = color;
        }
    }
}
