// What each axes shows: what somebody looks at, what the engine says, or everything.

import { extentOf } from "./extents.mjs";
import { axisOf } from "./vocabulary.mjs";

/** @typedef {import("./scene.mjs").Item} Item */
/** @typedef {import("./scene.mjs").Scene} Scene */
/** @typedef {import("../messages.mjs").Limits} Limits */
/** @typedef {[number, number]} Range */
/** @typedef {import("../messages.mjs").Follow} Follow */
/** @typedef {{x: Range | Follow | null, y: Range | null, y2: Range | null}} View null: the engine's */

/**
 * @typedef {object} Shown what the page shows of a scene
 * @property {Map<number, View>} views by axes
 * @property {Set<number>} hidden series that the legend hides
 * @property {Map<number, {width: number, height: number}>} sizes of axes
 */

/** Steps to which automatic limits are rounded, in a unit: so they seldom change, and axes with
 * them. */
const STEPS = [1, 2, 5, 10];
const STEPS_IN_RANGE = 20;
const NONE = /** @type {Range} */ ([0, 1]);
/** A decade each, where nothing above 0 is known. */
const NONE_LOG = /** @type {Range} */ ([0.1, 10]);

/** @param {Item} series @param {Set<number>} hidden */
export function isVisible(series, hidden) {
    return series.properties.visible && !hidden.has(series.id);
}

/** @param {Scene} scene @param {Shown} shown @returns {Map<number, Limits>} by axes */
export function limitsOf(scene, shown) {
    /** @type {Map<number, Item[]>} */
    const groups = new Map();
    const { axes: all } = scene;
    for (const axes of all) {
        const { linkX } = axes.properties;
        const group = linkX === null ? undefined : groups.get(linkX);
        if (group) group.push(axes);
        else groups.set(linkX ?? -axes.id - 0.5, [axes]);
    }
    const limits = new Map();
    for (const group of groups.values()) {
        const x = xLimitsOf(group, shown);
        for (const axes of group) limits.set(axes.id, axesLimits(axes, x, shown, group.length > 1));
    }
    return limits;
}

/** @param {Item} axes @param {Range} x @param {Shown} shown @param {boolean} isLinked
 * @returns {Limits} */
function axesLimits(axes, x, shown, isLinked) {
    const view = shown.views.get(axes.id);
    const ofY = (/** @type {"y" | "y2"} */ which) => {
        const axis = axisOf(axes, which);
        const isLog = axis.scale === "log";
        if (view?.[which]) return usable(view[which], isLog);
        const series = seriesOf([axes], shown.hidden).filter(
            (one) => one.properties.axis === which,
        );
        return byEngine(axis, series, (one) => extentOf(one).y(x, isLog), true);
    };
    const limits = { x, y: ofY("y"), y2: hasSecond(axes) ? ofY("y2") : null };
    const size = shown.sizes.get(axes.id);
    return axes.properties.equalAspect && size ? withEqualUnits(limits, size, isLinked) : limits;
}

/** Whether there is a second y axis. @param {Item} axes */
export function hasSecond(axes) {
    return axes.properties.y2 !== null || axes.children.some((one) => one.properties.axis === "y2");
}

/** @param {Item[]} group axes with the same x @param {Shown} shown @returns {Range} */
function xLimitsOf(group, shown) {
    const isLog = axisOf(group[0], "x").scale === "log";
    const view = group.map((axes) => shown.views.get(axes.id)?.x).find(Boolean);
    if (Array.isArray(view)) return usable(view, isLog);
    const chosen = group.find((axes) => axisOf(axes, "x").limits) ?? group[0];
    const series = seriesOf(group, shown.hidden);
    const axis = axisOf(chosen, "x");
    const wanted = view ? { ...axis, limits: view } : axis;
    return byEngine(wanted, series, (one) => extentOf(one).x(isLog), false);
}

/** @param {Item[]} group @param {Set<number>} hidden */
function seriesOf(group, hidden) {
    return group.flatMap((axes) =>
        axes.childrenOf("series").filter((series) => isVisible(series, hidden)),
    );
}

/** @param {Record<string, any>} axis its properties @param {Item[]} series
 * @param {(series: Item) => import("./extents.mjs").Extent} extent along this axis
 * @param {boolean} isRounded @returns {Range} */
function byEngine({ scale, limits }, series, extent, isRounded) {
    const isLog = scale === "log";
    if (Array.isArray(limits)) return usable(/** @type {Range} */ (limits), isLog);
    const counted = limits?.follow ? series.filter((one) => one.firstColumn) : series;
    const extents = counted.map(extent);
    const low = Math.min(...extents.map(({ range }) => range[0]));
    const high = Math.max(...extents.map(({ range }) => range[1]));
    if (limits?.follow) {
        const end = high === -Infinity ? limits.follow : high;
        return usable([end - limits.follow, end], isLog);
    }
    if (low > high) return isLog ? NONE_LOG : NONE;
    // Those at the ends say how much room there is.
    const below = extents.filter(({ range }) => range[0] === low).map(({ margin }) => margin[0]);
    const above = extents.filter(({ range }) => range[1] === high).map(({ margin }) => margin[1]);
    const all = widened([low, high], [Math.max(...below), Math.max(...above)], isLog);
    const hasImage = series.some((one) => one.type === "image");
    return usable(isRounded && !isLog && !hasImage ? rounded(all) : all, isLog);
}

/** @param {Range} range @param {[number, number]} margins shares of it, at its ends
 * @param {boolean} isLog @returns {Range} */
function widened([low, high], [below, above], isLog) {
    if (!(low < high)) return [low, high];
    if (!isLog) return [low - (high - low) * below, high + (high - low) * above];
    const ratio = high / low;
    return [low / ratio ** below, high * ratio ** above];
}

/** Outwards. @param {Range} range @returns {Range} */
function rounded([low, high]) {
    if (!(low < high)) return [low, high];
    const least = (high - low) / STEPS_IN_RANGE;
    const unit = 10 ** Math.floor(Math.log10(least));
    const step = unit * (STEPS.find((one) => one * unit >= least) ?? 1);
    const from = Math.floor(low / step) * step;
    const to = Math.ceil(high / step) * step;
    return Number.isFinite(from) && Number.isFinite(to) ? [from, to] : [low, high];
}

/** Limits between which something can be drawn. @param {Range} limits @param {boolean} isLog
 * @returns {Range} */
function usable([low, high], isLog) {
    if (!isLog) {
        if (high > low && Number.isFinite(high - low)) return [low, high];
        const half = Math.max(Math.abs(low) * 0.05, Number.MIN_VALUE * 2 ** 60) || 0.5;
        return Number.isFinite(low) && low === high ? aroundOne(low, half) : NONE;
    }
    if (!(high > 0)) return NONE_LOG;
    if (!(low > 0)) return [high / 1000, high];
    return low < high ? [low, high] : [low / 2, low * 2];
}

/** @param {number} value @param {number} half @returns {Range} */
function aroundOne(value, half) {
    return value === 0 ? [-0.5, 0.5] : [value - half, value + half];
}

/** @param {Limits} limits @param {{width: number, height: number}} size
 * @param {boolean} keepsX @returns {Limits} */
function withEqualUnits({ x, y, y2 }, { width, height }, keepsX) {
    const unit = Math.max(keepsX ? 0 : (y[1] - y[0]) / height, (x[1] - x[0]) / width);
    const around = (/** @type {Range} */ [low, high], /** @type {number} */ pixels) =>
        /** @type {Range} */ ([(low + high - unit * pixels) / 2, (low + high + unit * pixels) / 2]);
    return { x: keepsX ? x : around(x, width), y: around(y, height), y2 };
}
