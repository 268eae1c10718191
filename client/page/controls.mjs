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

/** Milliseconds after somebody's last change for which a control is theirs: keys repeat. */
const HANDS_STAY = 300;

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

/** A control, and whose turn it is to say its value. */
class Entry {
    #shown;
    #said;
    #value;
    /** Whether the engine has said a value that is not shown. */
    #isDue = true;
    /** Whether somebody has typed something that is not sent yet. */
    #isEdited = false;
    #timer = 0;

    /** @param {ControlDescription} control @param {OnControl} onControl */
    constructor(control, onControl) {
        this.#said = control.said;
        this.#value = control.value;
        this.#shown = MAKERS[control.type](control, (id, value) => {
            // The engine's answer is still to come.
            this.#isDue = false;
            onControl(id, value);
        });
        const { element } = this.#shown;
        element.addEventListener("input", () => this.#touched(true));
        element.addEventListener("change", () => this.#touched(false));
        element.addEventListener("focusout", () => this.#touched(false));
        this.#settle();
    }

    get element() {
        return this.#shown.element;
    }

    /** @param {ControlDescription} control as the engine describes it now */
    describe({ said, value }) {
        if (said === this.#said) return;
        this.#said = said;
        this.#value = value;
        this.#isDue = true;
        if (this.#timer === 0) this.#settle();
    }

    /** @param {boolean} isEdited */
    #touched(isEdited) {
        this.#isEdited = isEdited;
        clearTimeout(this.#timer);
        this.#timer = window.setTimeout(() => this.#settle(), HANDS_STAY);
    }

    /** Shows what the engine has said, once nobody's hands are at it. */
    #settle() {
        this.#timer = 0;
        if (!this.#isDue) return;
        if (this.#isEdited || this.element.querySelector(":active")) {
            this.#timer = window.setTimeout(() => this.#settle(), HANDS_STAY);
            return;
        }
        this.#isDue = false;
        this.#shown.set(this.#value);
    }
}

/** A figure's controls. */
export class Controls {
    element = make("fieldset", { class: "controls", "aria-label": "Controls" });
    #onControl;
    #key = "";
    /** @type {Map<number, Entry>} */
    #entries = new Map();

    /** @param {OnControl} onControl */
    constructor(onControl) {
        this.#onControl = onControl;
    }

    /** @param {boolean} isWanted whether somebody may use them */
    setUsable(isWanted) {
        this.element.disabled = !isWanted;
        this.element.title = isWanted ? "" : "As they were: a recording has no engine to hear them";
    }

    /** @param {ControlDescription[]} controls */
    show(controls) {
        this.element.hidden = controls.length === 0;
        const key = JSON.stringify(controls.map((one) => ({ ...one, value: 0, said: 0 })));
        if (key !== this.#key) this.#build(controls);
        this.#key = key;
        for (const control of controls) this.#entries.get(control.id)?.describe(control);
    }

    /** @param {ControlDescription[]} controls */
    #build(controls) {
        const entries = controls.map((one) => new Entry(one, this.#onControl));
        this.#entries = new Map(controls.map(({ id }, i) => [id, entries[i]]));
        this.element.replaceChildren(...entries.map(({ element }) => element));
    }
}
