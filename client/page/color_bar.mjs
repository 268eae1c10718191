// The bar that says which colour is which value.

import { make, setText } from "./dom.mjs";
import { LINE_HEIGHT, textWidth } from "./text_width.mjs";
import { chooseTicks } from "./ticks.mjs";
import { colorsOfMap } from "./worker/color_maps.mjs";

/** @typedef {import("./axes_view.mjs").AxesView} AxesView */
/** @typedef {import("./messages.mjs").Range} Range */

/** Colours of a ramp, between which a browser mixes. */
const COLORS = 64;

/** From the lowest value's to the highest's. @param {string} colorMap */
export function rampColors(colorMap) {
    return colorsOfMap(colorMap, COLORS).map((parts) => `rgb(${parts.slice(0, 3).join(" ")})`);
}

/** @param {AxesView} view with a colour bar for each of its series that has one
 * @param {Record<number, Range>} limits of colours, by series */
export function showColorBars({ colorBars, description, size }, limits) {
    const shown = description.series.filter(
        ({ id, colorMap, visible }) => colorMap && visible && limits[id],
    );
    colorBars.hidden = shown.length === 0;
    while (colorBars.children.length > shown.length) colorBars.lastChild?.remove();
    shown.forEach(({ id, name, colorMap }, i) => {
        if (!colorBars.children[i]) colorBars.append(makeBar());
        showBar(
            /** @type {HTMLElement} */ (colorBars.children[i]),
            name,
            colorMap ?? "",
            limits[id],
            size.height,
        );
    });
}

function makeBar() {
    return make(
        "div",
        { class: "color-bar" },
        make("div", { class: "ramp" }),
        make("div", { class: "ticks" }),
        make("div", { class: "name" }),
    );
}

/** @param {HTMLElement} bar @param {string} name @param {string} colorMap @param {Range} limits
 * @param {number} pixels how long it is */
function showBar(bar, name, colorMap, limits, pixels) {
    const key = JSON.stringify([name, colorMap, limits, pixels]);
    if (bar.dataset.key === key) return;
    bar.dataset.key = key;
    const [ramp, ticks, title] = /** @type {HTMLElement[]} */ ([...bar.children]);
    const room = { pixels, extent: () => LINE_HEIGHT, gap: 16, lines: 1 };
    const chosen = chooseTicks(limits, "linear", room);
    bar.style.height = `${pixels}px`;
    ramp.style.background = `linear-gradient(to top, ${rampColors(colorMap).join(", ")})`;
    bar.dataset.map = colorMap;
    const longest = Math.max(0, ...chosen.ticks.map(({ text }) => textWidth(text)));
    ticks.style.width = `${8 * Math.ceil((longest + 8) / 8)}px`;
    ticks.replaceChildren(
        ...chosen.ticks.map(({ at, text }) => {
            const tick = make("span", {}, text);
            tick.style.bottom = `${at * 100}%`;
            return tick;
        }),
    );
    setText(title, [name, chosen.note].filter((text) => text).join(" "));
}
