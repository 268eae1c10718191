// What is seen, as a table.

import { cellValues, elementAt, valuesOf } from "./nearest.mjs";
import { visiblePart } from "./extents.mjs";

/** @typedef {import("./scene.mjs").Item} Item */
/** @typedef {import("./queries.mjs").Seen} Seen */
/** @typedef {(number | string)[]} Row */

/** In this order. */
const COLUMNS = ["x", "y", "z", "low", "high", "minus", "plus", "size", "value"];

/** @param {Seen[]} all with more than one each row begins with the axes
 * @param {number} most rows; of more each series' first is taken, and then every `step`-th
 * @returns {{header: string[], rows: Row[], total: number, step: number}} */
export function tableOf(all, most = Infinity) {
    const named = all.map(({ axes, ...seen }) => ({
        ...seen,
        names: all.length > 1 ? [axes.properties.title || `axes ${axes.id}`] : [],
    }));
    const series = named.flatMap((seen) =>
        seen.series
            .filter((one) => one.firstColumn)
            .map((one) => ({ one, names: seen.names, indices: indicesSeen(one, seen.limits) })),
    );
    const isThere = (/** @type {string} */ name) =>
        series.some(
            ({ one }) => name in one.columns || name === "x" || (name === "y" && one.columns.z),
        );
    const columns = series.length > 0 ? COLUMNS.filter(isThere) : [];
    const total = series.reduce((sum, { indices }) => sum + indices.length, 0);
    const step = total <= most ? 1 : Math.ceil(total / Math.max(1, most - series.length));
    const rows = series.flatMap(({ one, names, indices }) => {
        const name = one.properties.name || `${one.type} ${one.id}`;
        return indices
            .filter((_, at) => at % step === 0)
            .map((index) => {
                const values = rowValues(one, index);
                return [...names, name, ...columns.map((column) => values[column] ?? "")];
            });
    });
    const header = [...(all.length > 1 ? ["axes"] : []), "series", ...columns];
    return { header, rows, total, step };
}

/** @param {Item} series @param {number} index @returns {Record<string, number>} */
function rowValues(series, index) {
    if (series.type === "image") return cellValues(series, index);
    const { places } = series;
    return places ? elementAt(series, places, index) : {};
}

/** @param {Item} series @param {import("../messages.mjs").Limits} limits @returns {number[]} */
function indicesSeen(series, limits) {
    const y = (series.properties.axis === "y2" && limits.y2) || limits.y;
    const isWithin = (/** @type {number} */ value, /** @type {[number, number]} */ range) =>
        value >= range[0] && value <= range[1];
    if (series.type === "image") {
        const all = Array.from({ length: series.columns.z.end }, (_, index) => index);
        return all.filter((index) => {
            const cell = cellValues(series, index);
            return isWithin(cell.x, limits.x) && isWithin(cell.y, y);
        });
    }
    const { places } = series;
    const values = valuesOf(series);
    if (!places || !values) return [];
    const [from, to] = visiblePart(places, limits.x);
    const indices = Array.from({ length: to - from }, (_, i) => from + i);
    // A gap, or what a line has outside of the axes, belongs to it.
    if (places.isSorted && series.type !== "scatter") return indices;
    return indices.filter((i) => isWithin(places.at(i), limits.x) && isWithin(values.at(i), y));
}

/** By RFC 4180. What is not a number is empty. @param {Seen[]} all @returns {string} */
export function csvOf(all) {
    const { header, rows } = tableOf(all);
    const cell = (/** @type {number | string} */ value) => {
        if (typeof value === "number") return Number.isNaN(value) ? "" : String(value);
        return /[",\r\n]/.test(value) ? `"${value.replaceAll('"', '""')}"` : value;
    };
    return [header, ...rows].map((row) => `${row.map(cell).join(",")}\r\n`).join("");
}
