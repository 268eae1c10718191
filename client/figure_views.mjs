// The figures' elements on the page: one section each, with a heading and a canvas for each axes.

import { AxesView } from "./drawing.mjs";

/** @typedef {import("./figures.mjs").Item} Item */
/** @typedef {import("./figures.mjs").Scene} Scene */

const KEY_STEP = 0.02;
/** @type {Record<string, [number, number]>} */
const KEY_MOVES = {
    ArrowLeft: [-KEY_STEP, 0],
    ArrowRight: [KEY_STEP, 0],
    ArrowUp: [0, KEY_STEP],
    ArrowDown: [0, -KEY_STEP],
};

/** @param {number} value */
const withinOne = (value) => Math.min(1, Math.max(0, value));

/** @typedef {{section: HTMLElement, heading: HTMLElement, axes: Map<string, AxesView>}} FigureView */

/** Keeps the page like the scene. */
export class FigureViews {
    #root;
    #scene;
    #onPick;
    #request;
    /** @type {Map<string, FigureView>} */
    #views = new Map();

    /** `onPick` gets the values at which somebody points; `request` asks for a `paint`.
     * @param {HTMLElement} root @param {Scene} scene
     * @param {(place: [number, number]) => void} onPick @param {() => void} request */
    constructor(root, scene, onPick, request) {
        this.#root = root;
        this.#scene = scene;
        this.#onPick = onPick;
        this.#request = request;
        const layoutChanged = () => this.#layoutChanged();
        new ResizeObserver(layoutChanged).observe(root);
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change", layoutChanged);
    }

    /** Paints what has changed; while a whole frame comes, nothing: what is there stays until it can
     * be replaced. Throws what went wrong first, having painted the rest. */
    paint() {
        if (!this.#scene.isComplete) return;
        const changed = [...this.#scene.changed];
        this.#scene.changed.clear();
        this.#removeGone();
        /** @type {unknown[]} */
        const errors = [];
        for (const axes of changed) {
            try {
                this.#viewOf(axes)?.paint(axes);
            } catch (error) {
                errors.push(error);
            }
        }
        if (errors.length > 0) throw errors[0];
    }

    #removeGone() {
        const figures = this.#scene.figures;
        const handles = new Set(figures.map((figure) => figure.handle));
        for (const [handle, view] of this.#views) {
            if (handles.has(handle)) continue;
            view.axes.forEach((axes) => axes.destroy());
            view.section.remove();
            this.#views.delete(handle);
        }
    }

    /** @param {Item} axes @returns {AxesView | undefined} */
    #viewOf(axes) {
        const figure = axes.parent;
        if (!figure) return undefined;
        const view = this.#figureView(figure);
        if (view.heading.textContent !== figure.text) view.heading.textContent = figure.text;
        let axesView = view.axes.get(axes.handle);
        if (!axesView) {
            axesView = this.#addAxes(view, axes);
            view.axes.set(axes.handle, axesView);
        }
        return axesView;
    }

    /** @param {Item} figure @returns {FigureView} */
    #figureView(figure) {
        const known = this.#views.get(figure.handle);
        if (known) return known;
        const section = document.createElement("section");
        const heading = document.createElement("h2");
        heading.id = `figure-${figure.handle}`;
        section.setAttribute("aria-labelledby", heading.id);
        section.dataset.name = figure.name;
        section.append(heading);
        this.#root.append(section);
        const view = { section, heading, axes: new Map() };
        this.#views.set(figure.handle, view);
        return view;
    }

    /** @param {FigureView} view @param {Item} axes @returns {AxesView} */
    #addAxes(view, axes) {
        const host = document.createElement("div");
        host.className = "axes";
        host.dataset.name = axes.name;
        view.section.append(host);
        const axesView = new AxesView(host, axes);
        host.setAttribute("role", "img");
        host.setAttribute("aria-labelledby", view.heading.id);
        host.addEventListener("click", (event) => {
            const place = this.#takesPicks(axes.handle) && axesView.placeOf(event);
            if (place) this.#onPick(place);
        });
        host.tabIndex = 0;
        host.addEventListener("keydown", (event) => this.#key(event, axes.handle, axesView));
        host.addEventListener("blur", () => this.#setMark(axes.handle, axesView, null));
        return axesView;
    }

    /** Only points can be picked. @param {string} handle of axes */
    #takesPicks(handle) {
        return this.#axes(handle)?.children.some((child) => child.type === "points") ?? false;
    }

    /** @param {string} handle @returns {Item | undefined} */
    #axes(handle) {
        return this.#scene.figures
            .flatMap((figure) => this.#scene.axesOf(figure))
            .find((axes) => axes.handle === handle);
    }

    /** @param {KeyboardEvent} event @param {string} handle @param {AxesView} view */
    #key(event, handle, view) {
        if (!this.#takesPicks(handle)) return;
        const [across, up] = view.mark ?? [0.5, 0.5];
        const move = KEY_MOVES[event.key];
        if (move) {
            this.#setMark(handle, view, [withinOne(across + move[0]), withinOne(up + move[1])]);
        } else if (event.key === "Enter" && view.mark) {
            this.#onPick(view.valuesAt(view.mark));
        } else if (event.key === "Escape") {
            this.#setMark(handle, view, null);
        } else {
            return;
        }
        event.preventDefault();
    }

    /** @param {string} handle @param {AxesView} view @param {[number, number] | null} mark */
    #setMark(handle, view, mark) {
        if (!mark && !view.mark) return;
        view.mark = mark;
        const axes = this.#axes(handle);
        if (axes) this.#scene.changed.add(axes);
        this.#request();
    }

    #layoutChanged() {
        for (const view of this.#views.values()) {
            view.axes.forEach((axes) => axes.layoutChanged());
        }
        for (const figure of this.#scene.figures) {
            for (const axes of this.#scene.axesOf(figure)) this.#scene.changed.add(axes);
        }
        this.#request();
    }
}
