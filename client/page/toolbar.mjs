// A figure's toolbar: one stop of the tab key, within which the arrow keys move.

import { icon, make } from "./dom.mjs";

/** @typedef {{name: string, key: string, icon: string}} Action */

/** What can be done with a figure; the keys do the same. @type {Record<string, Action>} */
export const ACTIONS = {
    zoomIn: {
        name: "Zoom in",
        key: "+",
        icon: "M7 2.5a4.5 4.5 0 1 0 0 9 4.5 4.5 0 0 0 0-9ZM10.3 10.3 14 14M7 5v4M5 7h4",
    },
    zoomOut: {
        name: "Zoom out",
        key: "-",
        icon: "M7 2.5a4.5 4.5 0 1 0 0 9 4.5 4.5 0 0 0 0-9ZM10.3 10.3 14 14M5 7h4",
    },
    center: {
        name: "Move: centre what is clicked",
        key: "m",
        icon: "M8 1.5v3.5M8 11v3.5M1.5 8H5M11 8h3.5M8 6.5v3M6.5 8h3",
    },
    home: {
        name: "Home: the engine’s limits",
        key: "0",
        icon: "M2 8l6-5.5L14 8M4 6.5V13.5h3V10h2v3.5h3V6.5",
    },
    follow: { name: "Follow the newest", key: "n", icon: "M2 8h8M7 4.5 10.5 8 7 11.5M13.5 3v10" },
    copy: { name: "Copy values", key: "c", icon: "M5.5 5.5v-3h8v8h-3M2.5 5.5h8v8h-8Z" },
    table: {
        name: "Table of what is seen",
        key: "t",
        icon: "M2 3h12v10H2ZM2 6.3h12M2 9.7h12M6 3v10",
    },
    save: {
        name: "Save as PNG, SVG or CSV",
        key: "s",
        icon: "M8 2v8M4.8 7 8 10.2 11.2 7M2.5 11v2.5h11V11",
    },
    full: {
        name: "Full screen",
        key: "f",
        icon: "M2.5 6V2.5H6M10 2.5h3.5V6M13.5 10v3.5H10M6 13.5H2.5V10",
    },
};

/** @param {string} label @param {(action: string) => void} onAction */
export function makeToolbar(label, onAction) {
    const buttons = Object.entries(ACTIONS).map(([action, { name, key, icon: paths }], i) => {
        const text = `${name} (${key})`;
        return make(
            "button",
            {
                type: "button",
                "aria-label": name,
                "aria-keyshortcuts": key,
                title: text,
                "data-action": action,
                tabindex: i === 0 ? 0 : -1,
                click: () => onAction(action),
            },
            icon(paths),
        );
    });
    const bar = make("div", { class: "toolbar", role: "toolbar", "aria-label": label }, ...buttons);
    bar.addEventListener("keydown", (event) => moveFocus(event, buttons));
    bar.addEventListener("focusin", ({ target }) => {
        for (const button of buttons) button.tabIndex = button === target ? 0 : -1;
    });
    return bar;
}

/** @param {KeyboardEvent} event @param {HTMLElement[]} buttons */
function moveFocus(event, buttons) {
    const at = buttons.indexOf(/** @type {HTMLElement} */ (event.target));
    const count = buttons.length;
    /** @type {Record<string, number>} */
    const next = {
        ArrowRight: (at + 1) % count,
        ArrowLeft: (at + count - 1) % count,
        Home: 0,
        End: count - 1,
    };
    if (!(event.key in next)) return;
    buttons[next[event.key]].focus();
    event.preventDefault();
}
