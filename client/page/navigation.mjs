// What somebody looks at: zooming, moving, and going home.

import { fractionOf, part } from "./scale.mjs";

/** @typedef {import("./messages.mjs").Range} Range */
/** @typedef {import("./messages.mjs").Limits} Limits */
/** @typedef {import("./messages.mjs").Follow} Follow */
/** @typedef {import("./scale.mjs").Scale} Scale */

/** @typedef {"x" | "y" | "y2"} Which */

/** Null: the engine's. @typedef {{x: Range | Follow | null, y: Range | null, y2: Range | null}} View */

/** @returns {View} */
export const homeView = () => ({ x: null, y: null, y2: null });

/** What doubles can tell apart bounds how far one can zoom in; what a date and a logarithm can
 * be, how far out. @param {Range} limits @param {Scale} scale */
export function isShowable([low, high], scale) {
    const span = high - low;
    const largest = Math.max(Math.abs(low), Math.abs(high));
    if (!Number.isFinite(low) || !Number.isFinite(high)) return false;
    if (scale === "log" && !(low > 1e-300 && high < 1e300)) return false;
    return span > largest * 1e-13 && span > 1e-300 && largest < 1e300;
}

/** Around the place `at`, which stays where it is. @param {Range} limits @param {Scale} scale
 * @param {number} at from 0 to 1 @param {number} factor below 1: closer @returns {Range} */
export function zoomed(limits, scale, at, factor) {
    const next = part(limits, scale, at - at * factor, at + (1 - at) * factor);
    return isShowable(next, scale) ? next : limits;
}

/** @param {Range} limits @param {Scale} scale @param {number} by of its length, upwards
 * @returns {Range} */
export function moved(limits, scale, by) {
    const next = part(limits, scale, by, 1 + by);
    return isShowable(next, scale) ? next : limits;
}

/** Whether limits are the same to the eye. @param {Range | null} a @param {Range | null} b
 * @param {Scale} scale */
export function isSame(a, b, scale) {
    const TOLERANCE = 1e-6;
    if (a === null || b === null) return a === b;
    const near = (/** @type {number} */ value, /** @type {number} */ wanted) =>
        Math.abs(fractionOf(value, b, scale) - wanted) < TOLERANCE;
    return near(a[0], 0) && near(a[1], 1);
}

/** How a picture that shows `drawn` is moved and stretched so that it shows `wanted`: the fractions
 * at which it begins, and its size. @param {Range} drawn @param {Range} wanted @param {Scale} scale */
export function stretch(drawn, wanted, scale) {
    const from = fractionOf(drawn[0], wanted, scale);
    return { from, size: fractionOf(drawn[1], wanted, scale) - from };
}

/** A part that was selected, made larger until a unit of x is as long as one of y.
 * @param {Range} x @param {Range} y @param {number} ratio the plotting area's width by its height
 * @returns {{x: Range, y: Range}} */
export function withEqualAspect(x, y, ratio) {
    const grown = (/** @type {Range} */ [low, high], /** @type {number} */ span) => {
        const middle = low + (high - low) / 2;
        return /** @type {Range} */ ([middle - span / 2, middle + span / 2]);
    };
    const span = Math.max(x[1] - x[0], (y[1] - y[0]) * ratio);
    return { x: grown(x, span), y: grown(y, span / ratio) };
}

/** What is shown: each axis as somebody wants it, or as it is drawn. @param {View} view
 * @param {Limits} drawn @returns {Limits} */
export function shownLimits(view, drawn) {
    const x = Array.isArray(view.x) ? view.x : drawn.x;
    return { x, y: view.y ?? drawn.y, y2: drawn.y2 && (view.y2 ?? drawn.y2) };
}
