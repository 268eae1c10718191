// Draws the series of axes.

import { channelsOf, cycleColor } from "../colors.mjs";
import { isVisible } from "./limits.mjs";
import { Scale } from "./scale.mjs";
import { paintBand, paintArea, paintBars } from "./series/filled.mjs";
import { paintErrorBars } from "./series/error_bars.mjs";
import { paintImage } from "./series/image.mjs";
import { paintLine } from "./series/line.mjs";
import { paintReference, paintText } from "./series/marks.mjs";
import { paintOutline, paintPolygon } from "./series/outlines.mjs";
import { paintScatter } from "./series/scatter.mjs";
import { axisOf } from "./vocabulary.mjs";

/** @typedef {import("./scene.mjs").Item} Item */
/** @typedef {import("../messages.mjs").Limits} Limits */
/** @typedef {import("../messages.mjs").Theme} Theme */

/**
 * What of a 2d context is used; so that there can be another one, which writes SVG.
 * @typedef {Pick<CanvasRenderingContext2D, "fillStyle" | "strokeStyle" | "lineWidth" | "lineCap" |
 *     "lineJoin" | "font" | "textAlign" | "textBaseline" | "beginPath" | "moveTo" | "lineTo" |
 *     "closePath" | "arc" | "fill" | "stroke" | "fillRect" | "fillText" |
 *     "strokeText" | "setLineDash">} Context
 */

/**
 * Where and how a series is drawn. Pixels are those of the canvas.
 * @typedef {object} Place
 * @property {Context} context
 * @property {number} width
 * @property {number} height
 * @property {number} ratio pixels for a CSS pixel
 * @property {Scale} x
 * @property {Scale} y
 * @property {string} color
 * @property {string} ground what it is drawn over
 * @property {boolean} isVector marks are drawn one by one, not as pixels
 * @property {(fill: (pixels: Uint32Array) => void, isOver?: boolean) => void} drawPixels what `fill`
 *   writes, over what is there: the whole picture row by row, a number each as an `ImageData` has
 *   them, at first 0. isOver: the series itself has drawn something
 * @property {Surface["drawCanvas"]} drawCanvas
 */

/**
 * What is drawn onto.
 * @typedef {object} Surface
 * @property {Context} context
 * @property {boolean} isVector
 * @property {(fill: (pixels: Uint32Array) => void, isFirst: boolean) => void} drawPixels
 *   isFirst: nothing is there
 * @property {(canvas: OffscreenCanvas) => void} [drawCanvas] its upper left corner, over what is
 *   there; none: only pixels can be drawn
 */

/** @typedef {{width: number, height: number, ratio: number}} Size in pixels of the canvas */

/** @type {Record<string, (series: Item, place: Place) => void>} */
const PAINTERS = {
    line: paintLine,
    scatter: paintScatter,
    area: paintArea,
    band: paintBand,
    bars: paintBars,
    errorBars: paintErrorBars,
    outline: paintOutline,
    polygon: paintPolygon,
    image: paintImage,
    reference: paintReference,
    text: paintText,
};

/** Types that take no colour of the cycle. */
const UNCOLORED = ["image", "reference", "text"];

/** The colours of the series of axes, by their order. @param {Item} axes @param {Theme} theme
 * @returns {Map<number, string>} by series */
export function colorsOf(axes, { dark, text }) {
    let next = 0;
    const colorOf = (/** @type {Item} */ { type, properties }) => {
        if (UNCOLORED.includes(type)) return properties.color ?? text;
        return properties.color ?? cycleColor(next++, dark);
    };
    return new Map(axes.childrenOf("series").map((series) => [series.id, colorOf(series)]));
}

/** A colour made less opaque. @param {string} color @param {number} opacity from 0 to 1 */
export function withOpacity(color, opacity) {
    const [red, green, blue, alpha] = channelsOf(color);
    return `rgba(${red},${green},${blue},${(alpha / 255) * opacity})`;
}

/** Those that are visible, in the order in which they are drawn. @param {Item} axes
 * @param {Set<number>} hidden @returns {Item[]} */
export function drawnSeries(axes, hidden) {
    const series = axes.childrenOf("series").filter((one) => isVisible(one, hidden));
    const isImage = (/** @type {Item} */ one) => one.type === "image";
    return [...series.filter(isImage), ...series.filter((one) => !isImage(one))];
}

/** From values to pixels. @param {Item} axes @param {Limits} limits @param {{width: number, height: number}} size
 * @returns {{x: Scale, y: Scale, y2: Scale}} */
export function scalesOf(axes, limits, { width, height }) {
    return {
        x: new Scale(axisOf(axes, "x").scale, limits.x, 0, width),
        y: new Scale(axisOf(axes, "y").scale, limits.y, height, 0),
        y2: new Scale(axisOf(axes, "y2").scale, limits.y2 ?? limits.y, height, 0),
    };
}

/** @param {string} what @param {unknown} thrown */
export function errorOf(what, thrown) {
    return new Error(`${what}: ${thrown instanceof Error ? thrown.message : thrown}`);
}

/** Draws the series that are visible, over what is there: all, or some in order. One that cannot be
 * drawn does not hold up the others. @param {Item} axes @param {Limits} limits @param {Size} size
 * @param {{theme: Theme, hidden: Set<number>}} look
 * @param {Surface} surface @param {{from?: number, to?: number}} part
 * @returns {Error[]} why some were not drawn */
export function paintAxes(axes, limits, size, { theme, hidden }, surface, { from = 0, to } = {}) {
    const scales = scalesOf(axes, limits, size);
    const colors = colorsOf(axes, theme);
    const { context, isVector, drawCanvas } = surface;
    const { ground } = theme;
    const errors = [];
    let isFirst = from === 0;
    for (const series of drawnSeries(axes, hidden).slice(from, to)) {
        const y = series.properties.axis === "y2" ? scales.y2 : scales.y;
        const color = colors.get(series.id) ?? theme.text;
        /** @type {Place["drawPixels"]} */
        const drawPixels = (fill, isOver = false) => surface.drawPixels(fill, isFirst && !isOver);
        const how = { context, isVector, drawPixels, drawCanvas };
        const place = { ...how, ...size, x: scales.x, y, color, ground };
        try {
            PAINTERS[series.type](series, place);
        } catch (thrown) {
            errors.push(errorOf(`${series.type} ${series.properties.name}`, thrown));
        }
        isFirst = false;
    }
    return errors;
}
