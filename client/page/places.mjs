// Where figures stand: all in one place, or those of two recordings beside each other.

import { make } from "./dom.mjs";
import { gridOf } from "./layout.mjs";

/** @typedef {import("./figure_view.mjs").FigureView} FigureView */
/** @typedef {import("./messages.mjs").RecordingSide} RecordingSide */

/** @typedef {{recording: RecordingSide, element: HTMLElement, now: HTMLElement}} Side */

export class Places {
    #root;
    /** Empty: there is one place. @type {Side[]} */
    #sides = [];

    /** @param {HTMLElement} root */
    constructor(root) {
        this.#root = root;
    }

    /** REQUIRES: no figure has a place. @param {RecordingSide[]} recordings of which each has its own
     * place, if there are more than one */
    divide(recordings) {
        for (const { element } of this.#sides.splice(0)) element.parentElement?.remove();
        if (recordings.length > 1) this.#sides = recordings.map(makeSide);
        const sections = this.#sides.map(({ element }) => element.parentElement ?? element);
        this.#root.append(...sections);
        this.#root.style.gridTemplateColumns = "";
        this.#root.classList.toggle("sides", this.#sides.length > 0);
    }

    /** @param {FigureView} view */
    add(view) {
        this.#placeOf(view).append(view.element);
    }

    /** @param {FigureView[]} views all that were added */
    layOut(views) {
        for (const place of new Set(views.map((view) => this.#placeOf(view)))) {
            const here = views.filter((view) => this.#placeOf(view) === place);
            const { clientWidth: width, clientHeight: height } = place;
            const { columns } = gridOf(here.length, { width, height });
            place.style.gridTemplateColumns = `repeat(${columns}, minmax(0, 1fr))`;
            here.forEach(({ element }, i) => {
                // The last one takes what is left of its row.
                const span = i === here.length - 1 ? columns - (i % columns) : 1;
                element.style.gridColumn = `span ${span}`;
            });
        }
        for (const view of views) view.place();
    }

    /** What is seen of each recording. @param {{time: number, frames: number[]}} moment */
    moved({ time, frames }) {
        this.#sides.forEach(({ recording: { begin, duration }, now }, i) => {
            const at = new Date(begin + Math.min(time, duration)).toLocaleTimeString();
            const end = time > duration ? ", over" : "";
            now.textContent = `frame ${frames[i]}, ${at}${end}`;
        });
    }

    /** @param {FigureView} view */
    #placeOf({ description }) {
        return this.#sides[description.side]?.element ?? this.#root;
    }
}

/** @param {RecordingSide} recording @returns {Side} */
function makeSide(recording) {
    const element = make("div", { class: "figures" });
    const now = make("span", { class: "quiet" });
    make("section", { "aria-label": recording.name }, make("h2", {}, recording.name, now), element);
    return { recording, element, now };
}
