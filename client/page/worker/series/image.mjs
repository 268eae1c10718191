// Images: each pixel of the canvas has the colour of the value that lies there.

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

/** Which row or column each pixel shows; -1: none.
 * @param {Scale} scale @param {[number, number]} edges @param {number} count of cells
 * @param {number} size in pixels @returns {Int32Array} */
export function cellsOf(scale, [low, high], count, size) {
    return Int32Array.from({ length: size }, (_, pixel) => {
        const cell = Math.floor(((scale.toValue(pixel + 0.5) - low) / (high - low)) * count);
        return cell >= 0 && cell < count ? cell : -1;
    });
}

/** @param {import("../columns.mjs").Elements} values row by row
 * @param {number} across values in a row
 * @param {{columns: Int32Array, rows: Int32Array}} cells by columns and rows of the picture
 * @param {[number, number]} limits @param {Uint32Array} table
 * @param {Uint32Array} pixels where the picture goes, row by row */
export function lookUp(values, across, { columns, rows }, [low, high], table, pixels) {
    const width = columns.length;
    const count = table.length;
    const factor = count / (high - low);
    // Columns without a cell are at the ends.
    let from = 0;
    let to = width;
    while (from < to && columns[from] < 0) ++from;
    while (from < to && columns[to - 1] < 0) --to;
    for (let row = 0; row < rows.length; ++row) {
        if (rows[row] < 0) continue;
        const begin = rows[row] * across;
        for (let column = from; column < to; ++column) {
            const value = (values[begin + columns[column]] - low) * factor;
            let color = MISSING_PIXEL;
            if (value >= 0 && value < count) color = table[value | 0];
            else if (value - value === 0) color = table[value < 0 ? 0 : count - 1];
            pixels[row * width + column] = color;
        }
    }
}
