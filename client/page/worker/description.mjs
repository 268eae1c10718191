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
        title: figure.properties.title,
        columns: figure.properties.columns,
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
    const { title, equalAspect, linkX, legend, row, column, picks } = axes.properties;
    const all = axes.childrenOf("series");
    const colors = colorsOf(axes, theme);
    const named = all.filter((one) => one.properties.name !== "");
    const series = all.map((one) => ({
        id: one.id,
        type: one.type,
        name: one.properties.name,
        color: colors.get(one.id) ?? theme.text,
        visible: isVisible(one, hidden),
        axis: one.properties.axis,
        colorMap: hasColorBar(one) ? one.properties.colorMap : null,
    }));
    return {
        id: axes.id,
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
        series,
        limits,
    };
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
