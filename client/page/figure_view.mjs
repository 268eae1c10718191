// One figure on the page: heading, toolbar, controls, and a grid of axes.

import { AxesView } from "./axes_view.mjs";
import { Controls } from "./controls.mjs";
import { make, setText } from "./dom.mjs";
import { placeAxes } from "./layout.mjs";
import { Watch } from "./stale.mjs";
import { ownNumber } from "./sides.mjs";
import { makeToolbar } from "./toolbar.mjs";

/** @typedef {import("./messages.mjs").FigureDescription} FigureDescription */

/**
 * @typedef {object} FigureSurroundings
 * @property {(view: AxesView) => void} onAxes there are new axes
 * @property {(view: AxesView) => void} onGone axes are gone
 * @property {(figure: FigureView, action: string) => void} onAction
 * @property {import("./controls.mjs").OnControl} onControl
 */

/** CSS pixels of height that axes have at least. */
const LEAST_ROW = 180;

/** A figure's elements. */
export class FigureView {
    /** @type {Map<number, AxesView>} */
    axes = new Map();
    element;
    heading = make("h2");
    watch = new Watch();
    stale = make("p", { class: "stale", hidden: true });
    grid = make("div", { class: "grid" });
    #controls;
    #surroundings;
    #axesSurroundings;
    /** The axes that the toolbar acts on. */
    #current = 0;
    /** Whether the next place that somebody points at gets into the middle. */
    isCentring = false;
    /** Axes by the column of the grid. @type {AxesView[][]} */
    #columns = [];

    /** @param {FigureDescription} description @param {FigureSurroundings} surroundings
     * @param {import("./axes_view.mjs").Surroundings} axesSurroundings */
    constructor(description, surroundings, axesSurroundings) {
        this.description = description;
        this.#surroundings = surroundings;
        this.#axesSurroundings = axesSurroundings;
        this.#controls = new Controls(surroundings.onControl);
        this.heading.id = `figure-${description.id}`;
        const toolbar = makeToolbar("Figure", (action) => surroundings.onAction(this, action));
        const bar = make("div", { class: "bar" }, this.heading, this.stale, toolbar);
        const attributes = { class: "figure", "aria-labelledby": this.heading.id };
        this.element = make("section", attributes, bar, this.#controls.element, this.grid);
    }

    /** @param {boolean} isWanted whether somebody may use the controls */
    setUsable(isWanted) {
        this.#controls.setUsable(isWanted);
    }

    /** Makes the elements what is described. @param {FigureDescription} description */
    describe(description) {
        this.description = description;
        setText(this.heading, description.title || `Figure ${ownNumber(description.id)}`);
        this.heading.classList.toggle("unseen", description.title === "");
        this.#controls.show(description.controls);
        const ids = new Set(description.axes.map(({ id }) => id));
        for (const [id, view] of this.axes) {
            if (!ids.has(id)) this.#remove(id, view);
        }
        for (const axes of description.axes) {
            const view = this.axes.get(axes.id) ?? this.#add(axes);
            view.describe(axes);
        }
    }

    /** The axes that somebody was at last, or the first. @returns {AxesView | undefined} */
    get current() {
        return this.axes.get(this.#current) ?? this.axes.values().next().value;
    }
    /** @param {AxesView} view */
    setCurrent(view) {
        this.#current = view.description.id;
        this.showHome();
    }

    /** Places the axes in their grid; they are not fitted yet. */
    place() {
        const { axes, columns } = this.description;
        const { clientWidth: width, clientHeight: height } = this.grid;
        const { rows, columns: count, cells } = placeAxes(axes, { width, height }, columns);
        this.grid.style.gridTemplateColumns = `repeat(${count}, minmax(0, 1fr))`;
        // Title, legend and plot have a row each, so that plots beside each other are of one height.
        this.grid.style.gridTemplateRows = `repeat(${rows}, auto auto minmax(${LEAST_ROW}px, 1fr))`;
        this.#columns = Array.from({ length: count }, () => []);
        axes.forEach(({ id }, i) => {
            const view = this.axes.get(id);
            if (!view) return;
            const { row, column } = cells[i];
            view.element.style.gridRow = `${3 * row + 1} / span 3`;
            view.element.style.gridColumn = String(column + 1);
            this.#columns[column]?.push(view);
        });
    }

    /** Lets axes above each other have the same width, once they are fitted. */
    align() {
        for (const views of this.#columns) {
            if (views.length < 2) continue;
            const insets = views.map((view) => view.insets);
            const left = Math.max(...insets.map((one) => one.left));
            const right = Math.max(...insets.map((one) => one.right));
            views.forEach((view, i) => {
                view.setExtra({ left: left - insets[i].left, right: right - insets[i].right });
            });
        }
    }

    /** Whether something else than the engine's limits is shown. */
    showHome() {
        const isAway = [...this.axes.values()].some((view) => !view.isHome);
        this.element.classList.toggle("is-away", isAway);
        const follow = this.element.querySelector("[data-action=follow]");
        follow?.setAttribute("aria-pressed", String(this.current?.isFollowing ?? false));
    }

    /** @param {boolean} isCentring */
    setCentring(isCentring) {
        if (this.isCentring === isCentring) return;
        this.isCentring = isCentring;
        const button = this.element.querySelector("[data-action=center]");
        button?.setAttribute("aria-pressed", String(isCentring));
    }

    destroy() {
        for (const [id, view] of this.axes) this.#remove(id, view);
        this.element.remove();
    }

    /** @param {FigureDescription["axes"][number]} description */
    #add(description) {
        const view = new AxesView(description, this.#axesSurroundings);
        this.axes.set(description.id, view);
        this.grid.append(view.element);
        this.#surroundings.onAxes(view);
        return view;
    }

    /** @param {number} id @param {AxesView} view */
    #remove(id, view) {
        this.axes.delete(id);
        this.#surroundings.onGone(view);
        view.destroy();
    }
}
