// The controls that an engine has placed in a figure: the browser's own, with labels.

import { make } from "./dom.mjs";
import { numberText } from "./ticks.mjs";

/** @typedef {import("./messages.mjs").ControlDescription} ControlDescription */
/** @typedef {(id: number, value?: number) => void} OnControl a button has no value */

/**
 * @typedef {object} Shown
 * @property {HTMLElement} element
 * @property {(value: number | undefined) => void} set
 */

/** @param {ControlDescription} control @param {OnControl} onControl @returns {Shown} */
function makeButton({ id, label }, onControl) {
    const click = () => onControl(id);
    return { element: make("button", { type: "button", click }, label), set: () => {} };
}

/** @param {ControlDescription} control @param {OnControl} onControl @returns {Shown} */
function makeSlider({ id, label, low, high, step }, onControl) {
    const said = make("output");
    const input = make("input", {
        type: "range",
        min: low ?? 0,
        max: high ?? 1,
        step: step ?? "any",
    });
    const show = () => (said.textContent = numberText(input.valueAsNumber, 4));
    input.addEventListener("input", () => {
        show();
        onControl(id, input.valueAsNumber);
    });
    const set = (/** @type {number | undefined} */ value) => {
        input.valueAsNumber = value ?? low ?? 0;
        show();
    };
    return { element: make("label", {}, make("span", {}, label), input, said), set };
}

/** @param {ControlDescription} control @param {OnControl} onControl @returns {Shown} */
function makeNumber({ id, label, low, high }, onControl) {
    const input = make("input", {
        type: "number",
        min: low ?? null,
        max: high ?? null,
        step: "any",
        change: () => {
            if (input.reportValidity() && input.value !== "") onControl(id, input.valueAsNumber);
        },
    });
    const set = (/** @type {number | undefined} */ value) => (input.value = String(value ?? ""));
    return { element: make("label", {}, make("span", {}, label), input), set };
}

/** @param {ControlDescription} control @param {OnControl} onControl @returns {Shown} */
function makeChoice({ id, label, options = [] }, onControl) {
    const choices = options.map((text, i) => make("option", { value: i }, text));
    const select = make(
        "select",
        { change: () => onControl(id, select.selectedIndex) },
        ...choices,
    );
    const set = (/** @type {number | undefined} */ value) => (select.selectedIndex = value ?? 0);
    return { element: make("label", {}, make("span", {}, label), select), set };
}

const MAKERS = { button: makeButton, slider: makeSlider, number: makeNumber, choice: makeChoice };

/** A figure's controls. */
export class Controls {
    element = make("div", { class: "controls", role: "group", "aria-label": "Controls" });
    #onControl;
    #key = "";
    /** @type {Map<number, Shown & {value: number | undefined}>} */
    #shown = new Map();

    /** @param {OnControl} onControl */
    constructor(onControl) {
        this.#onControl = onControl;
    }

    /** A value is taken when the engine changes it: until the engine knows somebody's, it says the
     * old one. @param {ControlDescription[]} controls */
    show(controls) {
        this.element.hidden = controls.length === 0;
        const key = JSON.stringify(controls.map((control) => ({ ...control, value: 0 })));
        if (key !== this.#key) this.#build(controls);
        this.#key = key;
        for (const { id, value } of controls) {
            const shown = this.#shown.get(id);
            if (!shown || shown.value === value) continue;
            shown.value = value;
            shown.set(value);
        }
    }

    /** @param {ControlDescription[]} controls */
    #build(controls) {
        this.#shown.clear();
        for (const control of controls) {
            const shown = MAKERS[control.type](control, this.#onControl);
            shown.set(control.value);
            this.#shown.set(control.id, { ...shown, value: control.value });
        }
        this.element.replaceChildren(...[...this.#shown.values()].map(({ element }) => element));
    }
}
