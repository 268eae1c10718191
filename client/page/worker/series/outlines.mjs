// Outlines, and polygons.

import { withOpacity } from "../painter.mjs";
import { setPen } from "./line.mjs";
import { isDrawable, tracePath } from "./path.mjs";

/** @typedef {import("../scene.mjs").Item} Item */
/** @typedef {import("../painter.mjs").Place} Place */

/** @param {Item} series @param {Place} place */
export function paintOutline(series, place) {
    const { places, columns, properties } = series;
    if (!places || !(properties.width > 0)) return;
    setPen(place, properties.width * place.ratio, "solid");
    place.context.beginPath();
    tracePath(places, columns.y, [places.begin, places.end], place);
    place.context.stroke();
}

/** @param {Item} series @param {Place} place */
export function paintPolygon({ places, columns, properties }, place) {
    if (!places) return;
    const { context, color } = place;
    const count = places.end - places.begin;
    const x = place.x.toPixels(places, places.begin, places.end, new Float64Array(count));
    const y = place.y.toPixels(columns.y, places.begin, places.end, new Float64Array(count));
    context.beginPath();
    let isOpen = false;
    for (let i = 0; i < count; ++i) {
        const isThere = isDrawable(x[i], y[i]);
        if (isThere && isOpen) context.lineTo(x[i], y[i]);
        else if (isThere) context.moveTo(x[i], y[i]);
        else if (isOpen) context.closePath();
        isOpen = isThere;
    }
    if (isOpen) context.closePath();
    context.fillStyle = withOpacity(color, properties.opacity);
    context.fill("evenodd");
    if (!(properties.width > 0)) return;
    setPen(place, properties.width * place.ratio, "solid");
    context.stroke();
}
