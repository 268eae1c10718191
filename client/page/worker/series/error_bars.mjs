// Error bars.

import { visiblePart } from "../extents.mjs";
import { setPen } from "./line.mjs";
import { isDrawable } from "./path.mjs";

/** Pixels outside of the picture beyond which nothing is drawn. */
const FAR = 10_000;

/** A length that is missing is none; one whose end has no place goes to the edge.
 * @param {import("../scene.mjs").Item} series @param {import("../painter.mjs").Place} place */
export function paintErrorBars(series, place) {
    const { places, columns, properties } = series;
    if (!places || !(properties.width > 0)) return;
    const { context, ratio, height } = place;
    const cap = (properties.cap * ratio) / 2;
    const within = (/** @type {number} */ pixel, /** @type {number} */ otherwise) =>
        Number.isFinite(pixel) ? Math.min(Math.max(pixel, -FAR), height + FAR) : otherwise;
    setPen(place, properties.width * ratio, "solid");
    context.lineCap = "butt";
    context.beginPath();
    const [from, to] = visiblePart(places, place.x.limits);
    for (let i = from; i < to; ++i) {
        const x = place.x.toPixel(places.at(i));
        const y = columns.y.at(i);
        if (!isDrawable(x, place.y.toPixel(y)) || x < -FAR || x > place.width + FAR) continue;
        const top = within(place.y.toPixel(y + (columns.plus.at(i) || 0)), -FAR);
        const bottom = within(place.y.toPixel(y - (columns.minus.at(i) || 0)), height + FAR);
        context.moveTo(x, top);
        context.lineTo(x, bottom);
        for (const end of cap > 0 ? [top, bottom] : []) {
            context.moveTo(x - cap, end);
            context.lineTo(x + cap, end);
        }
    }
    context.stroke();
}
