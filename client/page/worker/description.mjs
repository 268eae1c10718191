// A scene without its data, for who lays it out.

import { sideOf } from "../sides.mjs";
import { hasSecond, isVisible } from "./limits.mjs";
import { colorsOf } from "./painter.mjs";
import { axisOf } from "./vocabulary.mjs";

/** @typedef {import("./scene.mjs").Item} Item */
/** @typedef {import("../messages.mjs").Limits} Limits */
/** @typedef {import("../messages.mjs").Theme} Theme */

/** @param {import("./scene.mjs").Scene} scene @param {{theme: Theme, hidden: Set<number>}} look
 * @param {Map<number, Limits>} limits @returns {import("../messages.mjs").FigureDescription[]} */
export function describe(scene, look, limits) {
    return scene.figures.map((figure) => ({
        id: figure.id,
        side: sideOf(figure.id),
        ...ownOfFigure(figure),
        controls: figure.childrenOf("control").map(describeControl),
        axes: figure
            .childrenOf("axes")
            .map((axes) => describeAxes(axes, look, /** @type {Limits} */ (limits.get(axes.id)))),
    }));
}

/** @param {Item} control @returns {import("../messages.mjs").ControlDescription} */
function describeControl({ id, type, properties, said }) {
    const known = /** @type {import("../messages.mjs").ControlDescription["type"]} */ (type);
    return { id, type: known, label: properties.label, ...properties, said };
}

/** @param {Item} axes @param {{theme: Theme, hidden: Set<number>}} look @param {Limits} limits
 * @returns {import("../messages.mjs").AxesDescription} */
function describeAxes(axes, { theme, hidden }, limits) {
    const colors = colorsOf(axes, theme);
    const series = axes.childrenOf("series").map((one) => ({
        id: one.id,
        type: one.type,
        ...ownOfSeries(one),
        color: colors.get(one.id) ?? theme.text,
        visible: isVisible(one, hidden),
    }));
    return { id: axes.id, ...ownOfAxes(axes), series, limits };
}

/** What the description of an object says of its own properties, as text. @param {Item} item */
export function ownDescription(item) {
    const { family } = item;
    if (family === "series") return JSON.stringify(ownOfSeries(item));
    if (family === "axes") return JSON.stringify(ownOfAxes(item));
    return JSON.stringify(family === "figure" ? ownOfFigure(item) : describeControl(item));
}

/** @param {Item} figure */
function ownOfFigure({ properties: { title, columns } }) {
    return { title, columns };
}

/** @param {Item} axes */
function ownOfAxes(axes) {
    const { title, equalAspect, linkX, legend, row, column, picks } = axes.properties;
    const named = axes.childrenOf("series").filter((one) => one.properties.name !== "");
    return {
        title,
        x: describeAxis(axes, "x"),
        y: describeAxis(axes, "y"),
        y2: hasSecond(axes) ? describeAxis(axes, "y2") : null,
        equalAspect,
        linkX,
        legend: legend ?? named.length > 1,
        row,
        column,
        picks,
    };
}

/** @param {Item} series */
function ownOfSeries(series) {
    const { name, color, visible, axis, colorMap } = series.properties;
    return { name, color, visible, axis, colorMap: hasColorBar(series) ? colorMap : null };
}

/** @param {Item} axes @param {"x" | "y" | "y2"} which
 * @returns {import("../messages.mjs").AxisDescription} */
function describeAxis(axes, which) {
    const { label, unit, scale, ticks } = axisOf(axes, which);
    return { label, unit, scale, ticks };
}

/** @param {Item} series */
function hasColorBar({ type, columns, properties }) {
    return properties.colorBar === true && (type === "image" || columns.value !== undefined);
}
