// Reference lines, spans, and texts.

import { withOpacity } from "../painter.mjs";
import { setPen } from "./line.mjs";
import { isDrawable } from "./path.mjs";

/** @typedef {import("../scene.mjs").Item} Item */
/** @typedef {import("../painter.mjs").Place} Place */

export const FONT = "system-ui, sans-serif";
/** CSS pixels around a text that keep what is below it away. */
const RIM = 2;

/** @param {Item} series @param {Place} place */
export function paintReference({ properties }, place) {
    const { orientation, at, span, opacity, width, dash } = properties;
    const isVertical = orientation === "vertical";
    const size = isVertical ? place.width : place.height;
    const scale = isVertical ? place.x : place.y;
    const { context } = place;
    // What a logarithmic axis has no place for lies below everything.
    const below = isVertical ? -1 : size + 1;
    const within = (/** @type {number} */ value) => {
        const pixel = scale.toPixel(value);
        return Number.isNaN(pixel) ? below : Math.min(Math.max(pixel, -1), size + 1);
    };
    if (span && !span.some(Number.isNaN)) {
        const [from, to] = span
            .map(within)
            .sort((/** @type {number} */ a, /** @type {number} */ b) => a - b);
        context.fillStyle = withOpacity(place.color, opacity);
        if (isVertical) context.fillRect(from, 0, to - from, place.height);
        else context.fillRect(0, from, place.width, to - from);
    }
    const pixel = at === null ? NaN : scale.toPixel(at);
    if (!(pixel > -size && pixel < 2 * size) || !(width > 0)) return;
    setPen(place, width * place.ratio, dash);
    context.beginPath();
    context.moveTo(isVertical ? pixel : 0, isVertical ? 0 : pixel);
    context.lineTo(isVertical ? pixel : place.width, isVertical ? place.height : pixel);
    context.stroke();
}

/** @param {Item} series @param {Place} place */
export function paintText({ properties }, place) {
    const { text, at, anchor, inAxes, fontSize } = properties;
    if (!text || !at) return;
    const { context, width, height, ratio } = place;
    const x = inAxes ? at[0] * width : place.x.toPixel(at[0]);
    const y = inAxes ? (1 - at[1]) * height : place.y.toPixel(at[1]);
    if (!isDrawable(x, y)) return;
    context.fillStyle = place.color;
    context.font = `${fontSize * ratio}px ${FONT}`;
    context.textAlign = anchor;
    context.textBaseline = "middle";
    setPen({ ...place, color: place.ground }, 2 * RIM * ratio, "solid");
    context.strokeText(text, x, y);
    context.fillText(text, x, y);
}
