// The legend of axes: a button for each named series, which hides and shows it. uPlot's legend is a
// table of series that uPlot draws, which it does not here, and its cells take the mouse only: no key
// reaches them, and no screen reader is told that they can be pressed and whether they are.

import { make } from "./dom.mjs";

/** @typedef {import("./messages.mjs").AxesDescription} AxesDescription */

/** @param {HTMLElement} root @param {AxesDescription} axes
 * @param {(series: number, visible: boolean) => void} onVisible */
export function showLegend(root, { legend, series }, onVisible) {
    const named = legend ? series.filter(({ name }) => name !== "") : [];
    root.hidden = named.length === 0;
    const key = JSON.stringify(named.map(({ id, name, type }) => [id, name, type]));
    if (root.dataset.key !== key) {
        root.dataset.key = key;
        root.replaceChildren(...named.map((one) => entry(one, onVisible)));
    }
    named.forEach(({ color, visible }, i) => {
        const button = /** @type {HTMLElement} */ (root.children[i]);
        button.setAttribute("aria-pressed", String(visible));
        button.style.setProperty("--color", color);
    });
}

/** @param {AxesDescription["series"][number]} series
 * @param {(series: number, visible: boolean) => void} onVisible */
function entry({ id, name, type }, onVisible) {
    const click = (/** @type {Event} */ event) => {
        const button = /** @type {HTMLElement} */ (event.currentTarget);
        const visible = button.getAttribute("aria-pressed") !== "true";
        button.setAttribute("aria-pressed", String(visible));
        onVisible(id, visible);
    };
    const swatch = make("span", { class: `swatch ${type}`, "aria-hidden": "true" });
    const text = make("span", { class: "name" }, name);
    return make("button", { type: "button", title: `Show or hide ${name}`, click }, swatch, text);
}
