// Lines and steps: stroked, or where they are dense filled column by column.

import { Cover, columnBounds } from "../decimate.mjs";
import { visiblePart } from "../extents.mjs";
import { isDrawable, tracePath } from "./path.mjs";

/** @typedef {import("../scene.mjs").Item} Item */
/** @typedef {import("../painter.mjs").Place} Place */

/** Elements for a column of pixels, from which on a line is dense. */
const DENSE = 2;
/** The same for a line that winds: it goes up and down over so many heights of the picture. */
const WINDING = 0.25;
const LONG = 20;
/** In widths of the line. */
const DASHES = { solid: [], dashed: [4, 3], dotted: [0.01, 2] };

/** @param {Item} series @param {Place} place */
export function paintLine(series, place) {
    const { width, steps, dash } = series.properties;
    const thickness = width * place.ratio;
    if (thickness > 0) strokeSeries(series, place, { thickness, steps, dash });
}

/** @param {Place} place @param {number} thickness @param {keyof typeof DASHES} dash */
export function setPen({ context, color }, thickness, dash) {
    context.strokeStyle = color;
    context.lineWidth = thickness;
    context.lineJoin = "bevel";
    context.lineCap = dash === "dashed" ? "butt" : "round";
    context.setLineDash(DASHES[dash].map((part) => part * thickness));
}

/** The columns y over x as a line.
 * @param {Item} series @param {Place} place
 * @param {{thickness: number, steps: string | null, dash: keyof typeof DASHES}} pen */
export function strokeSeries(series, place, { thickness, steps, dash }) {
    const { places, columns } = series;
    if (!places || !columns.y) return;
    const [from, to] = visiblePart(places, place.x.limits);
    const isDense = to - from > DENSE * place.width || isWinding(columns.y, from, to, place);
    if (places.isSorted && isDense) {
        const cover = coverOf(series, place, steps);
        if (cover) fillCover(cover, place, thickness);
        return;
    }
    setPen(place, thickness, dash);
    place.context.beginPath();
    // With those outside, from which the line comes and to which it goes.
    const extent = [Math.max(from - 1, places.begin), Math.min(to + 1, places.end)];
    tracePath(places, columns.y, [extent[0], extent[1]], place, steps);
    place.context.stroke();
}

/** Whether a line goes up and down so often that stroking it takes long.
 * @param {import("../columns.mjs").Column} values @param {number} from index @param {number} to
 * @param {Place} place */
function isWinding(values, from, to, { y, width, height }) {
    if (to - from < WINDING * width) return false;
    const pixels = y.toPixels(values, from, to, new Float64Array(to - from));
    let way = 0;
    for (let i = 1; i < pixels.length; ++i) way += Math.abs(pixels[i] - pixels[i - 1]) || 0;
    return way > LONG * height;
}

/** @param {Pick<Item, "places" | "columns">} series whose places are sorted @param {Place} place @param {string | null} steps
 * @returns {Cover | null} null: it has no elements */
export function coverOf({ places, columns: { y } }, place, steps) {
    if (!places || !y) return null;
    const bounds = columnBounds(places, place.x, place.width);
    const cover = new Cover(place.width);
    cover.addElements(y, bounds, place.y);
    cover.addConnections(places, y, bounds, place, steps);
    return cover;
}

/** @param {Cover} cover @param {Place} place @param {number} thickness */
export function fillCover(cover, { context, color, height }, thickness) {
    cover.thicken(thickness);
    context.fillStyle = color;
    const { tops, bottoms } = cover;
    for (let column = 0; column < cover.width; ++column) {
        const top = Math.max(tops[column], -1);
        const bottom = Math.min(bottoms[column], height + 1);
        if (isDrawable(top, bottom) && bottom > top) {
            context.fillRect(column, top, 1, bottom - top);
        }
    }
}
