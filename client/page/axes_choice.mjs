// A choice of a figure's axes: those that somebody is at, others, or all.

import { make } from "./dom.mjs";

/** @param {import("./figure_view.mjs").FigureView} figure
 * @param {import("./axes_view.mjs").AxesView} view chosen at first
 * @returns {HTMLSelectElement} its value: numbers of axes */
export function makeAxesChoice(figure, view) {
    const { axes } = figure.description;
    const one = axes.map(({ id, title }, i) =>
        make(
            "option",
            { value: id, selected: id === view.description.id },
            title || `Axes ${i + 1}`,
        ),
    );
    const all = make("option", { value: axes.map(({ id }) => id).join() }, "All axes");
    return make("select", { name: "axes", "aria-label": "Axes" }, ...one, ...(one[1] ? [all] : []));
}

/** @param {string} value of the choice @returns {number[]} */
export const chosenAxes = (value) => value.split(",").map(Number);
