// What the keys do, and the dialog that says so.

import { make } from "./dom.mjs";
import { ACTIONS } from "./toolbar.mjs";

const STEP = 0.02;
const FAR = 0.1;
/** @type {Record<string, [number, number]>} */
const DIRECTIONS = {
    ArrowLeft: [-1, 0],
    ArrowRight: [1, 0],
    ArrowUp: [0, 1],
    ArrowDown: [0, -1],
};
/** @type {Record<string, string>} keys that do the same as others */
const ALIASES = { "=": "+", "−": "-", _: "-", Home: "0", h: "0", F: "f" };
const BY_KEY = new Map(Object.entries(ACTIONS).map(([action, { key }]) => [key, action]));
/** Keys that belong to the browser. */
const BROWSERS =
    /^(Tab|Shift|Control|Alt|AltGraph|Meta|CapsLock|NumLock|Dead|Process|Unidentified|F\d+|Page(Up|Down)|End|ContextMenu)$/;

/**
 * @typedef {(
 *     | {do: "crosshair" | "move", x: number, y: number}
 *     | {do: "zoom", isCloser: boolean, x: boolean, y: boolean}
 *     | {do: "pick" | "mark" | "leave" | "pause" | "record" | "open" | "help"}
 *     | {do: "action", action: string}
 *     | {do: "engine", key: string}
 *     | null
 * )} Meaning
 */

/** What a key means where axes have the focus; what is not the page's is the engine's.
 * @param {{key: string, shiftKey?: boolean, ctrlKey?: boolean, altKey?: boolean, metaKey?: boolean}} event
 * @returns {Meaning} */
export function meaningOf({ key, shiftKey, ctrlKey, altKey, metaKey }) {
    if (ctrlKey || altKey || metaKey || BROWSERS.test(key)) return null;
    const direction = DIRECTIONS[key];
    if (direction) {
        const by = shiftKey ? FAR : STEP;
        return { do: shiftKey ? "move" : "crosshair", x: direction[0] * by, y: direction[1] * by };
    }
    if (key === "Enter") return { do: shiftKey ? "mark" : "pick" };
    const axis = key.toLowerCase();
    if (axis === "x" || axis === "y") {
        return { do: "zoom", isCloser: !shiftKey, x: axis === "x", y: axis === "y" };
    }
    if (key === "Escape") return { do: "leave" };
    if (key === " ") return { do: "pause" };
    if (key === "r") return { do: "record" };
    if (key === "o") return { do: "open" };
    if (key === "?") return { do: "help" };
    const action = BY_KEY.get(ALIASES[key] ?? key);
    return action ? { do: "action", action } : { do: "engine", key };
}

// Not "+" with Shift or Alt for one axis: on many keyboards Shift is needed to write it.
/** @type {[string, string][]} */
const OTHERS = [
    ["Arrow keys", "Move the crosshair"],
    ["Shift + arrow keys", "Move the picture"],
    ["x, Shift + x", "Zoom in, out: only x"],
    ["y, Shift + y", "Zoom in, out: only y"],
    ["Shift + Enter", "Mark a corner at the crosshair; again: zoom into what lies between"],
    ["Enter", "Pick what is at the crosshair"],
    ["Escape", "Forget the corner, put the crosshair away, close"],
    ["Space", "Pause, and live again"],
    ["r", "Record what comes; again: end, and download the file"],
    ["o", "Open a recording, or two beside each other"],
    ["?", "These keys"],
];

/** @type {[string, string][]} */
const RECORDING = [
    ["Space", "Play, and stop"],
    [", and .", "The frame before, the next frame"],
    ["j, l", "5 seconds back, and on"],
    ["<, >", "Slower, faster"],
    ["e", "The next error or late frame"],
];

/** @type {[string, string][]} */
const POINTER = [
    ["Wheel", "Zoom; with Shift only x, with Alt only y, over an axis only that one"],
    ["Drag", "Zoom into what is selected"],
    ["Shift + drag, middle button", "Move the picture"],
    ["Two fingers", "Zoom"],
    ["One finger sideways", "Move the picture"],
    ["m, then a click", "Centre what is clicked"],
    ["A name in the legend", "Hide or show the series; with Ctrl only this one, and then all"],
    ["Double click", "Home"],
    ["Click", "Pick, where the engine wants it"],
];

/** @param {string} title @param {[string, string][]} rows */
function section(title, rows) {
    const lines = rows.flatMap(([keys, text]) => [
        make("dt", {}, make("kbd", {}, keys)),
        make("dd", {}, text),
    ]);
    return [make("h3", {}, title), make("dl", {}, ...lines)];
}

/** Lists the keys. */
export function showKeys() {
    const actions = Object.values(ACTIONS).map(
        ({ key, name }) => /** @type {[string, string]} */ ([key, name]),
    );
    const dialog = openDialog("Keys");
    const note = make(
        "p",
        {},
        "They hold where a figure’s axes have the focus, those of a recording also on its time line. Space and Escape hold everywhere; ? holds in the whole figure, as do other keys, which go to an engine that listens to them.",
    );
    dialog.append(
        note,
        ...section("Keyboard", [...actions, ...OTHERS]),
        ...section("Pointer", POINTER),
        ...section("Keyboard, with a recording", RECORDING),
    );
}

/** A dialog that is open; it is gone when it is closed. @param {string} title */
export function openDialog(title) {
    const close = make("button", { type: "button", class: "close", "aria-label": "Close" }, "✕");
    const heading = make("h2", { id: "dialog-title" }, title);
    const dialog = make(
        "dialog",
        { "aria-labelledby": heading.id },
        make("div", { class: "bar" }, heading, close),
    );
    close.addEventListener("click", () => dialog.close());
    dialog.addEventListener("close", () => dialog.remove());
    dialog.addEventListener("click", (event) => {
        if (event.target === dialog) dialog.close();
    });
    (document.fullscreenElement ?? document.body).append(dialog);
    dialog.showModal();
    return dialog;
}
