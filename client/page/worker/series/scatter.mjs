// Points: stamped, or where they are few drawn one by one.

import { colorLimitsOf, colorPixels } from "../color_maps.mjs";
import { withOpacity } from "../painter.mjs";
import { ColoredPointPicture, GREATEST_RADIUS, INSIDE, PointPicture, RIM } from "../stamps.mjs";

/** @typedef {import("../scene.mjs").Item} Item */
/** @typedef {import("../columns.mjs").Places} Places */
/** @typedef {import("../painter.mjs").Place} Place */

/** So many circles a canvas draws as fast, and smoother. */
const FEW = 500;
/** With more a drawing of vectors would become too large: they are embedded as pixels. */
const MANY = 5000;

/** Points that are to be drawn. @typedef {{x: Float64Array, y: Float64Array,
 *     radii: Float64Array | number, colors: Uint32Array | null}} Points */

/**
 * What was stamped, so that only what was appended has to be.
 * @typedef {object} Kept
 * @property {PointPicture | ColoredPointPicture} picture
 * @property {string} look what it was stamped with
 * @property {number} begin the index of the first element in it
 * @property {number} end
 */

/** @type {WeakMap<Item, Kept>} */
const pictures = new WeakMap();

/** @param {Item} series @param {Place} place */
export function paintScatter(series, place) {
    const { places } = series;
    if (!places) return;
    const count = places.end - places.begin;
    if (count <= (place.isVector ? MANY : FEW)) {
        drawCircles(pointsOf(series, place, places.begin, places.end), place);
    } else {
        stampPoints(series, places, place);
    }
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
        const radius = Math.min(typeof radii === "number" ? radii : radii[i], GREATEST_RADIUS);
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
function stampPoints(series, places, place) {
    const { width, height, ratio, color } = place;
    const { properties, columns, sets } = series;
    const { size, colorMap } = properties;
    const colorLimits = columns.value ? colorLimitsOf(series) : null;
    const limits = [place.x.limits, place.y.limits, place.x.least, place.y.least];
    const look = JSON.stringify([limits, width, height, ratio, size, sets, colorMap, colorLimits]);
    const kept = keptPicture(series, look, places.begin, place);
    const { picture } = kept;
    const { x, y, radii, colors } = pointsOf(series, place, kept.end, places.end);
    kept.end = places.end;
    if (picture instanceof PointPicture) picture.stamp(x, y, radii);
    else picture.stamp(x, y, radii, /** @type {Uint32Array} */ (colors));
    place.drawPixels((pixels) => picture.write(pixels, color));
}

/** Empty, unless it was stamped in the same way and nothing in it was forgotten since.
 * @param {Item} series @param {string} look @param {number} begin @param {Place} place
 * @returns {Kept} */
function keptPicture(series, look, begin, { width, height }) {
    const old = pictures.get(series);
    if (old?.look === look && old.begin === begin) return old;
    const Picture = series.columns.value ? ColoredPointPicture : PointPicture;
    const picture = emptied(old?.picture, Picture, width, height);
    const kept = { picture, look, begin, end: begin };
    pictures.set(series, kept);
    return kept;
}

/** An empty picture: the old one, if it is of the same kind and size.
 * @param {Kept["picture"] | undefined} old
 * @param {typeof PointPicture | typeof ColoredPointPicture} Picture
 * @param {number} width @param {number} height */
function emptied(old, Picture, width, height) {
    if (!(old instanceof Picture) || old.width !== width || old.height !== height) {
        return new Picture(width, height);
    }
    old.clear();
    return old;
}
