// Points: stamped, or drawn by a GPU; where they are few or large, drawn one by one.

import { colorLimitsOf, colorPixels } from "../color_maps.mjs";
import { gpuPoints } from "../gpu_points.mjs";
import { withOpacity } from "../painter.mjs";
import { ColoredPointPicture, GREATEST_RADIUS, INSIDE, PointPicture, RIM } from "../stamps.mjs";

/** @typedef {import("../scene.mjs").Item} Item */
/** @typedef {import("../columns.mjs").Places} Places */
/** @typedef {import("../painter.mjs").Place} Place */

/** So many circles a canvas draws as fast, and smoother. */
const FEW = 500;
/** With more a drawing of vectors would become too large: they are embedded as pixels. */
const MANY = 5000;
/** Fewer are not worth the way to a GPU and back. */
const GPU_WORTH = 10000;

/** Points that are to be drawn. @typedef {{x: ArrayLike<number>, y: ArrayLike<number>,
 *     radii: ArrayLike<number> | number, colors: ArrayLike<number> | null}} Points */

/** Points that are too large for stamps. @typedef {{x: number[], y: number[], radii: number[],
 *     colors: number[] | null}} Large */

/**
 * What was stamped, so that only what was appended has to be.
 * @typedef {object} Kept
 * @property {PointPicture | ColoredPointPicture | null} picture null: a GPU drew it
 * @property {Large} large
 * @property {string} look what it was drawn with
 * @property {number} begin the index of the first element in it
 * @property {number} end
 */

/** @type {WeakMap<Item, Kept>} */
const pictures = new WeakMap();

/** @param {Item["columns"]} columns @returns {Large} */
const noPoints = ({ value }) => ({ x: [], y: [], radii: [], colors: value ? [] : null });

/** @param {Item} series @param {Place} place */
export function paintScatter(series, place) {
    const { places, columns, properties } = series;
    if (!places) return;
    const count = places.end - places.begin;
    const isFew = count <= (place.isVector ? MANY : FEW);
    const isLarge = !columns.size && (properties.size * place.ratio) / 2 > GREATEST_RADIUS;
    if (isFew || isLarge) drawCircles(pointsOf(series, place, places.begin, places.end), place);
    else drawMany(series, places, place);
}

/** @param {Item} series @param {Place} place @param {number} from index @param {number} to
 * @returns {Points} */
function pointsOf(series, place, from, to) {
    const { places, columns, properties } = series;
    const pixels = () => new Float64Array(to - from);
    const { size, value, y } = columns;
    const half = place.ratio / 2;
    return {
        x: place.x.toPixels(/** @type {Places} */ (places), from, to, pixels()),
        y: place.y.toPixels(y, from, to, pixels()),
        radii: size ? pixels().map((_, i) => size.at(from + i) * half) : properties.size * half,
        colors: value
            ? colorPixels(value, colorLimitsOf(series), properties.colorMap, from, to)
            : null,
    };
}

/** @param {Points} points @param {Place} place */
function drawCircles({ x, y, radii, colors }, { context, color, width, height }) {
    const inside = withOpacity(color, INSIDE);
    context.setLineDash([]);
    for (let i = 0; i < x.length; ++i) {
        const radius = typeof radii === "number" ? radii : radii[i];
        const isWithin = x[i] > -radius && x[i] < width + radius;
        if (!isWithin || !(y[i] > -radius && y[i] < height + radius) || !(radius > 0)) continue;
        context.beginPath();
        context.arc(x[i], y[i], radius, 0, 2 * Math.PI);
        context.fillStyle = colors ? cssColor(colors[i]) : inside;
        context.fill();
        if (colors) continue;
        const rim = Math.max(1, radius * RIM);
        context.beginPath();
        context.arc(x[i], y[i], Math.max(radius - rim / 2, 0), 0, 2 * Math.PI);
        context.strokeStyle = color;
        context.lineWidth = rim;
        context.stroke();
    }
}

/** @param {number} pixel as an `ImageData` has it */
function cssColor(pixel) {
    const [red, green, blue] = new Uint8Array(Uint32Array.of(pixel).buffer);
    return `rgb(${red},${green},${blue})`;
}

/** @param {Item} series @param {Places} places @param {Place} place */
function drawMany(series, places, place) {
    const { width, height, ratio, color } = place;
    const { properties, columns, sets } = series;
    const { size, colorMap } = properties;
    const { begin, end } = places;
    const colorLimits = columns.value ? colorLimitsOf(series) : null;
    const limits = [place.x.limits, place.y.limits, place.x.least, place.y.least];
    const look = JSON.stringify([limits, width, height, ratio, size, sets, colorMap, colorLimits]);
    const old = pictures.get(series);
    const isSame = old?.look === look && old.begin === begin;
    const kept = isSame
        ? old
        : { picture: null, large: noPoints(columns), look, begin, end: begin };
    pictures.set(series, kept);
    // What was drawn stays: to stamp only what is new is faster than any GPU.
    if (!isSame && drawByGpu(series, places, place)) return;
    const Picture = columns.value ? ColoredPointPicture : PointPicture;
    const picture = isSame && old.picture ? old.picture : emptied(old?.picture, Picture, place);
    const points = pointsOf(series, place, kept.end, end);
    const { x, y, radii, colors } = points;
    Object.assign(kept, { picture, end });
    addLarge(kept.large, points);
    if (picture instanceof PointPicture) picture.stamp(x, y, radii);
    else picture.stamp(x, y, radii, /** @type {ArrayLike<number>} */ (colors));
    drawCircles(kept.large, place);
    place.drawPixels((pixels) => picture.write(pixels, color), kept.large.x.length > 0);
}

/** @param {Item} series @param {Places} places @param {Place} place
 * @returns {boolean} whether it could */
function drawByGpu(series, { begin, end }, place) {
    if (!place.drawCanvas || end - begin < GPU_WORTH) return false;
    const points = pointsOf(series, place, begin, end);
    const canvas = gpuPoints.draw(points, place);
    if (!canvas) return false;
    const large = noPoints(series.columns);
    addLarge(large, points);
    drawCircles(large, place);
    place.drawCanvas(canvas);
    return true;
}

/** Large points lie below the others. @param {Large} large @param {Points} points */
function addLarge(large, { x, y, radii, colors }) {
    if (typeof radii === "number") return;
    for (let i = 0; i < radii.length; ++i) {
        if (!(radii[i] > GREATEST_RADIUS)) continue;
        large.x.push(x[i]);
        large.y.push(y[i]);
        large.radii.push(radii[i]);
        if (colors) large.colors?.push(colors[i]);
    }
}

/** An empty picture: the old one, if it is of the same kind and size.
 * @param {Kept["picture"] | undefined} old
 * @param {typeof PointPicture | typeof ColoredPointPicture} Picture
 * @param {{width: number, height: number}} size */
function emptied(old, Picture, { width, height }) {
    if (!(old instanceof Picture) || old.width !== width || old.height !== height) {
        return new Picture(width, height);
    }
    old.clear();
    return old;
}
