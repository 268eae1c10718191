// Areas, bands and bars.

import { Cover } from "../decimate.mjs";
import { barWidthOf, visiblePart } from "../extents.mjs";
import { withOpacity } from "../painter.mjs";
import { coverOf, fillCover, setPen, strokeSeries } from "./line.mjs";
import { isDrawable } from "./path.mjs";

/** @typedef {import("../scene.mjs").Item} Item */
/** @typedef {import("../columns.mjs").Places} Places */
/** @typedef {import("../painter.mjs").Place} Place */

/** Elements for a column of pixels, from which on an edge is dense. */
const DENSE = 2;
/** Pixels outside of the picture beyond which nothing is drawn. */
const FAR = 10_000;

/** @param {number} pixel @param {number} size */
const near = (pixel, size) => Math.min(Math.max(pixel, -FAR), size + FAR);

/** Where a base lies; for one that has no place, below everything.
 * @param {number} base @param {Place} place */
function basePixel(base, { y, height }) {
    const pixel = y.toPixel(base);
    return Number.isFinite(pixel) ? near(pixel, height) : height + FAR;
}

/** With the neighbours outside. @param {Places} places @param {Place} place
 * @returns {[number, number]} */
function partWithNeighbours(places, place) {
    const [from, to] = visiblePart(places, place.x.limits);
    return [Math.max(from - 1, places.begin), Math.min(to + 1, places.end)];
}

/** @param {Places} places @param {[number, number]} part @param {Place} place */
const isDense = (places, [from, to], place) => places.isSorted && to - from > DENSE * place.width;

/** @param {Item} series @param {Place} place */
export function paintArea(series, place) {
    const { places, columns, properties } = series;
    if (!places) return;
    const { context, color } = place;
    context.fillStyle = withOpacity(color, properties.opacity);
    const base = basePixel(properties.base, place);
    const part = partWithNeighbours(places, place);
    if (isDense(places, part, place)) {
        const cover = coverOf(series, place, null);
        if (cover) fillColumns(cover, () => base, place);
    } else {
        const y = place.y.toPixels(columns.y, ...part, new Float64Array(part[1] - part[0]));
        fillBetween(places, part, y, new Float64Array(y.length).fill(base), place);
    }
    const thickness = properties.width * place.ratio;
    if (thickness > 0) strokeSeries(series, place, { thickness, steps: null, dash: "solid" });
}

/** @param {Item} series @param {Place} place */
export function paintBand(series, place) {
    const { places, columns, properties } = series;
    if (!places) return;
    place.context.fillStyle = withOpacity(place.color, properties.opacity);
    const thickness = properties.width * place.ratio;
    const part = partWithNeighbours(places, place);
    if (isDense(places, part, place)) {
        const edge = (/** @type {string} */ name) =>
            coverOf(withEdge(series, name), place, null) ?? new Cover(0);
        const [low, high] = [edge("low"), edge("high")];
        fillColumns(
            high,
            (column) => low.bottoms[column],
            place,
            (column) => low.tops[column],
        );
        if (thickness > 0) fillEdges(low, high, place, thickness);
        return;
    }
    const count = part[1] - part[0];
    const low = place.y.toPixels(columns.low, ...part, new Float64Array(count));
    const high = place.y.toPixels(columns.high, ...part, new Float64Array(count));
    fillBetween(places, part, high, low, place, thickness);
}

/** @param {Cover} low @param {Cover} high @param {Place} place @param {number} thickness */
function fillEdges(low, high, place, thickness) {
    for (let column = 0; column < low.width; ++column) {
        if (!isDrawable(low.tops[column], high.tops[column])) {
            for (const { tops } of [low, high]) tops[column] = NaN;
        }
    }
    for (const edge of [low, high]) fillCover(edge, place, thickness);
}

/** A line that is one edge of a band. @param {Item} series @param {string} name */
function withEdge(series, name) {
    const { places, columns } = series;
    return { places, columns: { y: columns[name] } };
}

/** @param {Cover} cover of one edge @param {(column: number) => number} other the farthest pixel of
 * the other one @param {Place} place @param {(column: number) => number} [opposite] its nearest */
function fillColumns(cover, other, { context, height }, opposite = other) {
    for (let column = 0; column < cover.width; ++column) {
        const top = Math.max(Math.min(cover.tops[column], opposite(column)), -1);
        const bottom = Math.min(Math.max(cover.bottoms[column], other(column)), height + 1);
        if (isDrawable(top, bottom) && bottom > top) {
            context.fillRect(column, top, 1, bottom - top);
        }
    }
}

/** Fills between two edges, with a gap wherever something is missing.
 * @param {Places} places @param {[number, number]} part indices @param {Float64Array} upper
 * @param {Float64Array} lower @param {Place} place @param {number} [thickness] of the edges, too */
function fillBetween(places, [from, to], upper, lower, place, thickness = 0) {
    const { context, width, height } = place;
    const x = place.x.toPixels(places, from, to, new Float64Array(to - from));
    const isThere = (/** @type {number} */ i) =>
        isDrawable(x[i], upper[i]) && isDrawable(x[i], lower[i]);
    /** @type {[number, number][]} */
    const stretches = [];
    for (let i = 0, begin = 0; i <= x.length; ++i) {
        if (i < x.length && isThere(i)) continue;
        if (i > begin) stretches.push([begin, i]);
        begin = i + 1;
    }
    const go = (/** @type {number} */ i, /** @type {Float64Array} */ y) =>
        context.lineTo(near(x[i], width), near(y[i], height));
    const start = (/** @type {number} */ i, /** @type {Float64Array} */ y) =>
        context.moveTo(near(x[i], width), near(y[i], height));
    context.beginPath();
    for (const [begin, end] of stretches) {
        start(begin, upper);
        for (let i = begin + 1; i < end; ++i) go(i, upper);
        for (let i = end - 1; i >= begin; --i) go(i, lower);
        context.closePath();
    }
    context.fill();
    if (thickness === 0) return;
    setPen(place, thickness, "solid");
    context.beginPath();
    for (const [begin, end] of stretches) {
        for (const edge of [upper, lower]) {
            start(begin, edge);
            // To where it begins as well, so that one alone is a dot.
            for (let i = begin; i < end; ++i) go(i, edge);
        }
    }
    context.stroke();
}

/** @param {Item} series @param {Place} place */
export function paintBars(series, place) {
    const { places, columns, properties } = series;
    if (!places) return;
    const { context, width, height, color } = place;
    const half = barWidthOf(series) / 2;
    const [low, high] = place.x.limits;
    const [from, to] = visiblePart(places, [low - half, high + half]);
    const base = basePixel(properties.base, place);
    context.fillStyle = color;
    for (let i = from; i < to; ++i) {
        const y = near(place.y.toPixel(columns.y.at(i)), height);
        const at = places.at(i);
        const begin = at - half > place.x.least ? place.x.toPixel(at - half) : -FAR;
        const left = at > place.x.least ? near(begin, width) : NaN;
        const right = near(place.x.toPixel(at + half), width);
        if (!isDrawable(left, y) || !(right > left)) continue;
        // A bar that is narrower than a pixel is still seen.
        context.fillRect(left, Math.min(y, base), Math.max(right - left, 1), Math.abs(base - y));
    }
}
