// The element of a series that lies nearest to a place.

import { edgesOf, visiblePart } from "./extents.mjs";

/** @typedef {import("./scene.mjs").Item} Item */
/** @typedef {import("./columns.mjs").Places} Places */
/** @typedef {import("./scale.mjs").Scale} Scale */
/** @typedef {import("../messages.mjs").Probed} Probed */

/** In pixels; y null: only x counts. @typedef {{x: number, y: number | null, reach: number}} Spot */

/** Types whose elements are sought by their distance, not along x. */
const BY_DISTANCE = ["scatter", "outline", "polygon"];

/** @param {Item} series @param {{x: Scale, y: Scale}} scale to pixels
 * @param {Spot} spot @returns {Probed | null} null: there is none within reach */
export function nearestOf(series, scale, spot) {
    if (series.type === "image") return cellAt(series, scale, spot);
    const { places } = series;
    const values = valuesOf(series);
    if (!places || !values) return null;
    const isAlong = places.isSorted && !BY_DISTANCE.includes(series.type);
    const target = isAlong ? { ...spot, y: null } : spot;
    const [from, to] = visiblePart(places, [
        scale.x.toValue(spot.x - spot.reach),
        scale.x.toValue(spot.x + spot.reach),
    ]);
    let index = -1;
    let least = spot.reach;
    for (let i = from; i < to; ++i) {
        const across = target.y === null ? 0 : scale.y.toPixel(values.at(i)) - target.y;
        const distance = Math.hypot(scale.x.toPixel(places.at(i)) - target.x, across);
        if (!(distance <= least) || !Number.isFinite(scale.y.toPixel(values.at(i)))) continue;
        least = distance;
        index = i;
    }
    if (index < 0) return null;
    return {
        series: series.id,
        index,
        px: scale.x.toPixel(places.at(index)),
        py: scale.y.toPixel(values.at(index)),
        values: elementAt(series, places, index),
    };
}

/** The column that says where elements lie along y. @param {Item} series */
export function valuesOf({ columns }) {
    return columns.y ?? columns.high;
}

/** @param {Item} series @param {Places} places @param {number} index
 * @returns {Record<string, number>} by column */
export function elementAt({ columns }, places, index) {
    const named = Object.entries(columns).map(([name, column]) => [name, column.at(index)]);
    return { x: places.at(index), ...Object.fromEntries(named) };
}

/** @param {Item} series an image @param {{x: Scale, y: Scale}} scale @param {Spot} spot
 * @returns {Probed | null} */
function cellAt(series, scale, { x, y }) {
    const { rows, columns: across } = series.properties;
    const { z } = series.columns;
    if (y === null || !z || z.end !== rows * across) return null;
    const edges = edgesOf(series);
    const cell = (/** @type {[number, number]} */ [low, high], /** @type {number} */ value) =>
        (value - low) / (high - low);
    const column = Math.floor(cell(edges.x, scale.x.toValue(x)) * across);
    const row = Math.floor(cell(edges.y, scale.y.toValue(y)) * rows);
    if (!(column >= 0 && column < across && row >= 0 && row < rows)) return null;
    const index = row * across + column;
    const values = cellValues(series, index);
    const [px, py] = [scale.x.toPixel(values.x), scale.y.toPixel(values.y)];
    return { series: series.id, index, px, py, values };
}

/** The middle of a cell, and what it has. @param {Item} series an image @param {number} index */
export function cellValues(series, index) {
    const { rows, columns: across } = series.properties;
    const { x, y } = edgesOf(series);
    return {
        x: x[0] + ((x[1] - x[0]) * ((index % across) + 0.5)) / across,
        y: y[0] + ((y[1] - y[0]) * (Math.floor(index / across) + 0.5)) / rows,
        z: series.columns.z.at(index),
    };
}
