// Colours of values.

import { MISSING, channelsOf } from "../colors.mjs";

/** Colours at equal distances, between which the others lie. @type {Record<string, string[]>} */
const MAPS = {
    viridis: [
        "#440154",
        "#482878",
        "#3e4a89",
        "#31688e",
        "#26828e",
        "#1f9e89",
        "#35b779",
        "#6dcd59",
        "#b4de2c",
        "#fde725",
    ],
    cividis: [
        "#00204d",
        "#00336f",
        "#39486b",
        "#575d6d",
        "#707173",
        "#8a8779",
        "#a69d75",
        "#c4b56c",
        "#e4cf5b",
        "#ffea46",
    ],
    turbo: [
        "#30123b",
        "#4662d7",
        "#36aaf9",
        "#1ae4b6",
        "#72fe5e",
        "#c7ef34",
        "#faba39",
        "#f66b19",
        "#cb2a04",
        "#7a0403",
    ],
    gray: ["#000000", "#ffffff"],
};
/** Colours in a table. */
const COUNT = 256;

/** As an `ImageData` has it, in a number. @param {number[]} channels from 0 to 255 */
function pixelOf(channels) {
    return new Uint32Array(Uint8ClampedArray.from(channels).buffer)[0];
}

export const MISSING_PIXEL = pixelOf(channelsOf(MISSING));

/** The colours of a map, from that of the lowest value to that of the highest, each from 0 to 255.
 * @param {string} name @param {number} [count] @returns {[number, number, number, number][]} */
export function colorsOfMap(name, count = COUNT) {
    const stops = MAPS[name].map(channelsOf);
    return Array.from({ length: count }, (_, i) => {
        const at = (i / (count - 1)) * (stops.length - 1);
        const before = Math.min(Math.floor(at), stops.length - 2);
        const mix = (/** @type {number} */ part) =>
            stops[before][part] + (stops[before + 1][part] - stops[before][part]) * (at - before);
        return [mix(0), mix(1), mix(2), 255];
    });
}

/** @type {Map<string, Uint32Array>} */
const tables = new Map();

/** @param {string} name @returns {Uint32Array} */
export function colorTable(name) {
    let table = tables.get(name);
    if (!table) {
        table = Uint32Array.from(colorsOfMap(name), pixelOf);
        tables.set(name, table);
    }
    return table;
}

/** The limits of a series' colours: those that are set, or of all its values.
 * @param {import("./scene.mjs").Item} series @returns {[number, number]} */
export function colorLimitsOf({ properties, columns }) {
    if (properties.limits) return properties.limits;
    const values = columns.z ?? columns.value;
    if (!values) return [0, 1];
    if (columns.z?.elements instanceof Uint8Array) return [0, 255];
    const [low, high] = values.extremes(values.begin, values.end);
    if (low < high) return [low, high];
    return low === high ? [low - 0.5, high + 0.5] : [0, 1];
}

/** The colour of each value. @param {import("./columns.mjs").Column} values
 * @param {[number, number]} limits @param {string} map @param {number} from index
 * @param {number} to @returns {Uint32Array} */
export function colorPixels(values, [low, high], map, from, to) {
    const table = colorTable(map);
    const factor = table.length / (high - low);
    const colors = new Uint32Array(to - from);
    for (let i = from; i < to; ++i) {
        const value = (values.at(i) - low) * factor;
        const nearest = Math.min(Math.max(value, 0), table.length - 1) | 0;
        colors[i - from] = Number.isFinite(value) ? table[nearest] : MISSING_PIXEL;
    }
    return colors;
}
